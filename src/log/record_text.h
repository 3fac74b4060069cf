// The text of a record in a log file, apart from the system: its header, its tail and the lines of the summary block.
// The same text exists in two forms, for files in UTF-16 and for files in the ANSI code page.
#pragma once

#include "log/ring_block.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vtflt {

inline constexpr std::size_t LOG_HEADER_CAPACITY = 128; // characters, the end included
inline constexpr std::size_t LOG_TAIL_CAPACITY = 512;
inline constexpr std::size_t LOG_LINE_CAPACITY = 512;

// A time as records show it.
inline constexpr std::size_t TIME_TEXT_CAPACITY = 64;
void BuildTimeText(wchar_t (&text)[TIME_TEXT_CAPACITY], const LogRecordTime& time) noexcept;
void BuildTimeText(char (&text)[TIME_TEXT_CAPACITY], const LogRecordTime& time) noexcept;

// What a header shows. The time as text, in the form of the header.
struct RecordHeader {
    std::int32_t level;
    std::uint32_t processId;
    std::uint32_t threadId;
    std::uint32_t errorCode; // 0: blanks stand in its place, so that the columns line up
};

void BuildRecordHeader(wchar_t (&text)[LOG_HEADER_CAPACITY], const wchar_t* time, const RecordHeader& header) noexcept;
void BuildRecordHeader(char (&text)[LOG_HEADER_CAPACITY], const char* time, const RecordHeader& header) noexcept;

// What a tail shows: who logged. version is the lower half of the module's file version.
void BuildRecordTail(wchar_t (&text)[LOG_TAIL_CAPACITY], const wchar_t* executable, const wchar_t* module,
                     std::uint32_t version) noexcept;
void BuildRecordTail(char (&text)[LOG_TAIL_CAPACITY], const char* executable, const char* module,
                     std::uint32_t version) noexcept;

// The first line of a file, without a header.
inline constexpr std::wstring_view LOG_COLUMN_LINE =
    L"[   Date        Time      Level  PID     TID   ErrCode    ] .......";

// The fixed lines of the summary block; each gets a header.
inline constexpr std::wstring_view LOG_SUMMARY_LINE = L"================ SUMMARY LOG =======================";
inline constexpr std::wstring_view LOG_LEVEL_HINT_LINE = L"Log level of each module can be controlled by registry key:";
inline constexpr std::wstring_view LOG_LEVEL_KEY_LINE =
    L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\Debug\\ModuleName:DWORD]";
inline constexpr std::wstring_view LOG_END_LINE = L"=====================================================";

void BuildProductLine(wchar_t (&text)[LOG_LINE_CAPACITY], std::uint32_t major, std::uint32_t minor,
                      std::uint32_t update) noexcept;
void BuildSystemLine(wchar_t (&text)[LOG_LINE_CAPACITY], const wchar_t* computer, int major, int minor,
                     const wchar_t* platform) noexcept;

} // namespace vtflt
