#include "log/record_text.h"

#include "log/message_text.h"

namespace vtflt {

namespace {

int HighHalf(std::uint32_t version) noexcept
{
    return static_cast<int>(version >> 16);
}

int LowHalf(std::uint32_t version) noexcept
{
    return static_cast<int>(version & 0xFFFF);
}

} // namespace

void BuildTimeText(wchar_t (&text)[TIME_TEXT_CAPACITY], const LogRecordTime& time) noexcept
{
    FormatBounded(text, TIME_TEXT_CAPACITY, L"%4d/%02d/%02d %02d:%02d:%02d:%03d", time.year, time.month, time.day,
                  time.hour, time.minute, time.second, time.milliseconds);
}

void BuildTimeText(char (&text)[TIME_TEXT_CAPACITY], const LogRecordTime& time) noexcept
{
    FormatBounded(text, TIME_TEXT_CAPACITY, "%4d/%02d/%02d %02d:%02d:%02d:%03d", time.year, time.month, time.day,
                  time.hour, time.minute, time.second, time.milliseconds);
}

void BuildRecordHeader(wchar_t (&text)[LOG_HEADER_CAPACITY], const wchar_t* time, const RecordHeader& header) noexcept
{
    const long processId = static_cast<long>(header.processId);
    const long threadId = static_cast<long>(header.threadId);
    if (header.errorCode != 0)
        FormatBounded(text, LOG_HEADER_CAPACITY, L"[%s   %02d   %05ld   %05ld   0X%08x] ", time, header.level,
                      processId, threadId, header.errorCode);
    else
        FormatBounded(text, LOG_HEADER_CAPACITY, L"[%s   %02d   %05ld   %05ld             ] ", time, header.level,
                      processId, threadId);
}

void BuildRecordHeader(char (&text)[LOG_HEADER_CAPACITY], const char* time, const RecordHeader& header) noexcept
{
    const long processId = static_cast<long>(header.processId);
    const long threadId = static_cast<long>(header.threadId);
    if (header.errorCode != 0)
        FormatBounded(text, LOG_HEADER_CAPACITY, "[%s   %02d   %05ld   %05ld   0X%08x] ", time, header.level, processId,
                      threadId, header.errorCode);
    else
        FormatBounded(text, LOG_HEADER_CAPACITY, "[%s   %02d   %05ld   %05ld             ] ", time, header.level,
                      processId, threadId);
}

void BuildRecordTail(wchar_t (&text)[LOG_TAIL_CAPACITY], const wchar_t* executable, const wchar_t* module,
                     std::uint32_t version) noexcept
{
    FormatBounded(text, LOG_TAIL_CAPACITY, L"   {%s::%s(%d.%d)}", executable, module, HighHalf(version),
                  LowHalf(version));
}

void BuildRecordTail(char (&text)[LOG_TAIL_CAPACITY], const char* executable, const char* module,
                     std::uint32_t version) noexcept
{
    FormatBounded(text, LOG_TAIL_CAPACITY, "   {%s::%s(%d.%d)}", executable, module, HighHalf(version),
                  LowHalf(version));
}

void BuildProductLine(wchar_t (&text)[LOG_LINE_CAPACITY], std::uint32_t major, std::uint32_t minor,
                      std::uint32_t update) noexcept
{
    constexpr wchar_t PRODUCT[] = L"veltrix Lumen Protect";
    if (update != 0)
        FormatBounded(text, LOG_LINE_CAPACITY, L"Product Info: [Veltrix Software Inc] [%s] Ver[r%d.%d (Update %d)]",
                      PRODUCT, major, minor, update);
    else
        FormatBounded(text, LOG_LINE_CAPACITY, L"Product Info: [Veltrix Software Inc] [%s] Ver[r%d.%d]", PRODUCT, major,
                      minor);
}

void BuildSystemLine(wchar_t (&text)[LOG_LINE_CAPACITY], const wchar_t* computer, int major, int minor,
                     const wchar_t* platform) noexcept
{
    FormatBounded(text, LOG_LINE_CAPACITY, L"OS      Info: Computer Name[%s] Version[%d.%d] Platform[%s]", computer,
                  major, minor, platform);
}

} // namespace vtflt
