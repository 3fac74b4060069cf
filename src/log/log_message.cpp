#include "log/log_message.h"

#include "log/bounded_text.h"
#include "log/record_text.h"

#include <bit>

namespace vtflt {

void CLogMessage::AddRef() noexcept
{
    m_references.fetch_add(1, std::memory_order_relaxed);
}

void CLogMessage::Release() noexcept
{
    if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete this;
}

std::wstring CLogMessage::GetHeaderText() const
{
    wchar_t time[TIME_TEXT_CAPACITY];
    wchar_t header[LOG_HEADER_CAPACITY];
    BuildTimeText(time, m_record.time);
    BuildRecordHeader(header, time, {m_record.level, m_record.processId, m_record.threadId, m_record.errorCode});
    return header;
}

std::wstring CLogMessage::GetExecutableName() const
{
    return std::wstring(FieldText(m_record.executableName));
}

std::wstring CLogMessage::GetModuleName() const
{
    return std::wstring(FieldText(m_record.moduleName));
}

DWORD CLogMessage::GetProcessId() const noexcept
{
    return m_record.processId;
}

DWORD CLogMessage::GetThreadId() const noexcept
{
    return m_record.threadId;
}

DWORD CLogMessage::GetErrorCode() const noexcept
{
    return m_record.errorCode;
}

int CLogMessage::GetLevel() const noexcept
{
    return m_record.level;
}

SYSTEMTIME CLogMessage::GetTime() const noexcept
{
    return std::bit_cast<SYSTEMTIME>(m_record.time);
}

std::wstring CLogMessage::GetText() const
{
    return std::wstring(FieldText(m_record.text));
}

} // namespace vtflt
