#include "live_text.h"

#include "code_names.h"
#include "common/text.h"
#include "console.h"
#include "entry_text.h"
#include "time_text.h"
#include "visible_text.h"

#include <fmt/format.h>

namespace vtlog {
namespace {

using toolkit::ToUtf8;

RecordTime TimeOf(const SYSTEMTIME& time) noexcept
{
    return {time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds};
}

} // namespace

std::string SafeText(std::wstring_view text)
{
    return ToUtf8(VisibleText(text, L"\n    | "));
}

std::string LiveText(const vtflt::CLogMessage& record)
{
    const std::string level =
        Coloured(fmt::format("{:<11}", LevelName(record.GetLevel())), LevelColour(record.GetLevel()));
    std::string line = fmt::format("{} {} {:5} {:5}  {}", PlainTime(TimeOf(record.GetTime())), level,
                                   record.GetProcessId(), record.GetThreadId(), SafeText(record.GetText()));
    if (record.GetErrorCode() != 0)
        line += "  (" + CodeWithMeaning(record.GetErrorCode()) + ")";
    const std::string source =
        fmt::format("{{{}::{}}}", SafeText(record.GetExecutableName()), SafeText(record.GetModuleName()));
    return line + "  " + Coloured(source, Colour::Quiet);
}

nlohmann::ordered_json LiveObject(const vtflt::CLogMessage& record)
{
    nlohmann::ordered_json object;
    object["time"] = IsoTime(TimeOf(record.GetTime()));
    object["level"] = record.GetLevel();
    object["levelName"] = LevelName(record.GetLevel());
    object["pid"] = record.GetProcessId();
    object["tid"] = record.GetThreadId();
    object["code"] = record.GetErrorCode();
    if (record.GetErrorCode() != 0) {
        object["codeName"] = CodeName(record.GetErrorCode());
        object["codeText"] = CodeText(record.GetErrorCode());
    }
    object["message"] = ToUtf8(record.GetText());
    object["program"] = ToUtf8(record.GetExecutableName());
    object["module"] = ToUtf8(record.GetModuleName());
    return object;
}

std::string MissedText(const std::wstring& executableName, std::uint64_t records)
{
    // No writer gets there: somebody has damaged the ring's numbers.
    constexpr std::uint64_t BELIEVABLE = 1'000'000'000'000;
    if (records > BELIEVABLE)
        return fmt::format("{}: the ring's numbers are damaged; an unknown number of records was missed",
                           SafeText(executableName));
    return fmt::format("{}: {} record{} missed, overwritten before {} could be read", SafeText(executableName), records,
                       records == 1 ? "" : "s", records == 1 ? "it" : "they");
}

} // namespace vtlog
