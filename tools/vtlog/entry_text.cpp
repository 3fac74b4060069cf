#include "entry_text.h"

#include "code_names.h"
#include "common/text.h"
#include "console.h"
#include "time_text.h"
#include "visible_text.h"

#include <fmt/format.h>

namespace vtlog {
namespace {

using toolkit::ToUtf8;

// Where the lines behind the first of a message, and lines that are no records, begin.
constexpr std::wstring_view CONTINUATION = L"\n    | ";

std::string Visible(std::wstring_view text)
{
    return ToUtf8(VisibleText(text, CONTINUATION));
}

const char* KindName(EntryKind kind) noexcept
{
    switch (kind) {
    case EntryKind::Record:
        return "record";
    case EntryKind::Summary:
        return "summary";
    case EntryKind::Columns:
        return "columns";
    case EntryKind::Text:
        return "text";
    }
    return "text";
}

std::string ReadableHeader(const Entry& entry)
{
    const RecordHeader& header = *entry.header;
    const bool summary = entry.kind == EntryKind::Summary;
    const std::string level = fmt::format("{:<11}", summary ? "summary" : LevelName(header.level));
    return fmt::format("{} {} {:5} {:5}", PlainTime(header.time),
                       Coloured(level, summary ? Colour::Quiet : LevelColour(header.level)), header.processId,
                       header.threadId);
}

std::string TailText(const ParsedTail& tail)
{
    return fmt::format("{{{}::{}({}.{})}}", Visible(tail.program), Visible(tail.module), tail.versionHigh,
                       tail.versionLow);
}

} // namespace

std::string CodeWithMeaning(std::uint32_t code)
{
    std::string text = fmt::format("0x{:08x}", code);
    const std::string name = CodeName(code);
    const std::string meaning = CodeText(code);
    if (!name.empty())
        text += " " + name;
    if (!meaning.empty())
        text += ": " + meaning;
    return text;
}

std::string ReadableText(const Entry& entry)
{
    if (!entry.header)
        return Coloured("    | " + Visible(entry.raw), Colour::Quiet) +
               (entry.oddByte ? " [half a character]\n" : "\n");
    std::string line = ReadableHeader(entry) + "  " + Visible(entry.Message());
    if (entry.header->code != 0)
        line += "  (" + CodeWithMeaning(entry.header->code) + ")";
    if (entry.tail)
        line += "  " + Coloured(TailText(*entry.tail), Colour::Quiet);
    if (entry.Cut())
        line += "  " + Coloured("[cut: the record has no end]", Colour::Warning);
    if (entry.oddByte)
        line += "  " + Coloured("[half a character]", Colour::Warning);
    return line + "\n";
}

std::string PlainText(const Entry& entry)
{
    return ToUtf8(entry.raw) + "\n";
}

nlohmann::ordered_json EntryObject(const Entry& entry, const std::wstring& path)
{
    nlohmann::ordered_json object;
    object["kind"] = KindName(entry.kind);
    object["file"] = ToUtf8(path);
    object["offset"] = entry.offset;
    if (entry.header) {
        const RecordHeader& header = *entry.header;
        object["time"] = IsoTime(header.time);
        object["level"] = header.level;
        object["levelName"] = LevelName(header.level);
        object["pid"] = header.processId;
        object["tid"] = header.threadId;
    }
    if (entry.kind == EntryKind::Record) {
        const std::uint32_t code = entry.header->code;
        object["code"] = code;
        if (code != 0) {
            object["codeName"] = CodeName(code);
            object["codeText"] = CodeText(code);
        }
    }
    object["message"] = ToUtf8(entry.Message());
    if (entry.tail) {
        object["program"] = ToUtf8(entry.tail->program);
        object["module"] = ToUtf8(entry.tail->module);
        object["version"] = fmt::format("{}.{}", entry.tail->versionHigh, entry.tail->versionLow);
    }
    if (entry.kind == EntryKind::Record)
        object["cut"] = entry.Cut();
    if (entry.oddByte)
        object["oddByte"] = true;
    return object;
}

std::string JsonText(const nlohmann::ordered_json& object)
{
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

} // namespace vtlog
