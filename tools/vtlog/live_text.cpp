#include "live_text.h"

#include "code_names.h"
#include "common/text.h"
#include "console.h"
#include "entry_text.h"
#include "log/bounded_text.h"
#include "time_text.h"
#include "visible_text.h"

#include <fmt/format.h>

namespace vtlog {
namespace {

using toolkit::ToUtf8;
using vtflt::FieldText;

RecordTime TimeOf(const vtflt::LogRecordTime& time) noexcept
{
    return {time.year, time.month, time.day, time.hour, time.minute, time.second, time.milliseconds};
}

} // namespace

std::string SafeText(std::wstring_view text)
{
    return ToUtf8(VisibleText(text, L"\n    | "));
}

std::string LiveText(const vtflt::LogRecordBlock& record)
{
    const std::string level = Coloured(fmt::format("{:<11}", LevelName(record.level)), LevelColour(record.level));
    std::string line = fmt::format("{} {} {:5} {:5}  {}", PlainTime(TimeOf(record.time)), level, record.processId,
                                   record.threadId, SafeText(FieldText(record.text)));
    if (record.errorCode != 0)
        line += "  (" + CodeWithMeaning(record.errorCode) + ")";
    const std::string source = fmt::format("{{{}::{}}}", SafeText(FieldText(record.executableName)),
                                           SafeText(FieldText(record.moduleName)));
    return line + "  " + Coloured(source, Colour::Quiet);
}

nlohmann::ordered_json LiveObject(const vtflt::LogRecordBlock& record)
{
    nlohmann::ordered_json object;
    object["time"] = IsoTime(TimeOf(record.time));
    object["level"] = record.level;
    object["levelName"] = LevelName(record.level);
    object["pid"] = record.processId;
    object["tid"] = record.threadId;
    object["code"] = record.errorCode;
    if (record.errorCode != 0) {
        object["codeName"] = CodeName(record.errorCode);
        object["codeText"] = CodeText(record.errorCode);
    }
    object["message"] = ToUtf8(FieldText(record.text));
    object["program"] = ToUtf8(FieldText(record.executableName));
    object["module"] = ToUtf8(FieldText(record.moduleName));
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
