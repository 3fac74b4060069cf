// bitmap info: what a bitmap file is made of, whether it is sound, and what it adds up to.
#include "bitmap_selection.h"
#include "commands.h"
#include "output.h"

#include <fmt/format.h>

namespace vtfltctl {
namespace {

using namespace bitmap;

Json TotalsJson(const Totals& totals, const Geometry& geometry)
{
    Json json{{"blocks", totals.Set()}, {"extents", totals.Runs()}, {"longestExtentBlocks", totals.LongestRun()}};
    if (geometry.blockSize != 0) {
        json["bytes"] = ChangedBytes(totals, geometry);
        json["firstOffset"] = geometry.Offset(totals.First());
        json["endOffset"] = geometry.Offset(totals.End());
    }
    return json;
}

std::string TotalsText(const Totals& totals, std::uint64_t blocks, const Geometry& geometry)
{
    std::string text =
        fmt::format("  changed        {} blocks ({})", Grouped(totals.Set()), ShareText(totals.Set(), blocks));
    if (geometry.blockSize != 0)
        text += ", " + SizeText(ChangedBytes(totals, geometry));
    text += "\n  extents        " + Grouped(totals.Runs());
    if (totals.Runs() != 0 && geometry.blockSize != 0)
        text += fmt::format(", the longest {}, from offset {} to {}",
                            SizeText(SaturatedProduct(totals.LongestRun(), geometry.blockSize)),
                            geometry.Offset(totals.First()), geometry.Offset(totals.End()));
    else if (totals.Runs() != 0)
        text += fmt::format(", the longest {} blocks, from block {} to {}", Grouped(totals.LongestRun()),
                            Grouped(totals.First()), Grouped(totals.End()));
    return text + "\n";
}

Json FlawsJson(const FileFacts& facts)
{
    Json flaws = Json::array();
    for (const Flaw flaw : facts.flaws)
        flaws.push_back({{"flaw", FlawName(flaw)}, {"message", FlawText(flaw, facts)}});
    return flaws;
}

Json FileJson(Opened& file)
{
    Json json{{"path", ToUtf8(file.path)}, {"role", RoleName(file.name.role)}, {"present", file.bytes != nullptr}};
    if (!file.name.application.empty())
        json["application"] = file.name.application;
    if (!file.name.taken.empty())
        json["taken"] = file.name.taken;
    if (file.bytes == nullptr)
        return json;
    const FileFacts& facts = file.facts;
    json["kind"] = facts.kind == Kind::Dump ? "dump" : "record";
    json["verdict"] = VerdictName(VerdictOf(facts));
    json["flaws"] = FlawsJson(facts);
    json["fileSize"] = facts.fileSize;
    json["blockSize"] = file.geometry.blockSize;
    if (facts.kind == Kind::Record) {
        json["bitmapLength"] = facts.bitmapLength;
        json["recordSize"] = facts.recordSize;
    }
    json["bufferHeader"] = {facts.leadWords[0], facts.leadWords[1]};
    json["blocks"] = file.Blocks();
    return json;
}

std::string HeaderText(const Opened& file)
{
    const FileFacts& facts = file.facts;
    std::string text = fmt::format("  file size      {} bytes\n", facts.fileSize);
    if (facts.kind == Kind::Record && facts.recordSize + facts.bitmapLength + facts.blockSize != 0)
        text += fmt::format("  block size     {} bytes\n  bitmap length  {} bytes\n  record size    {} bytes\n",
                            facts.blockSize, facts.bitmapLength, facts.recordSize);
    else if (facts.kind == Kind::Dump && file.geometry.blockSize != 0)
        text += fmt::format("  block size     {} bytes\n", file.geometry.blockSize);
    if (facts.leadWords[0] != 0 || facts.leadWords[1] != 0)
        text += fmt::format("  buffer header  {:#x} {:#x}\n", facts.leadWords[0], facts.leadWords[1]);
    if (file.Blocks() == 0)
        return text;
    text += fmt::format("  covers         {} blocks", Grouped(file.Blocks()));
    if (file.geometry.blockSize != 0)
        text += ", " + SizeText(file.geometry.Offset(file.Blocks()));
    return text + "\n";
}

std::string FileText(const Opened& file)
{
    std::string text = Shown(file.path) + "\n";
    if (file.bytes == nullptr)
        return text + "  state          missing: the next backup must verify\n";
    text += fmt::format("  what           {}\n", file.Title());
    text += fmt::format("  state          {}\n", VerdictText(VerdictOf(file.facts)));
    for (const Flaw flaw : file.facts.flaws)
        text += fmt::format("                 {}\n", FlawText(flaw, file.facts));
    return text + HeaderText(file);
}

} // namespace

Exit ShowBitmap(const Context& context, const bitmap::SelectionOptions& options)
{
    Selection selection = Select(options);
    Json files = Json::array();
    std::string text;
    for (Opened& file : selection.files) {
        Json json = FileJson(file);
        text += FileText(file);
        if (file.bytes != nullptr && file.facts.Readable()) {
            const Totals totals = Reading(ToUtf8(file.path), [&] {
                FileBits bits(*file.bytes, file.facts, file.Blocks());
                return TotalsOf(bits);
            });
            json["changed"] = TotalsJson(totals, file.geometry);
            text += TotalsText(totals, file.Blocks(), file.geometry);
        }
        files.push_back(std::move(json));
    }
    Json fields{{"files", std::move(files)}};
    if (!selection.volume.empty())
        fields["volume"] = selection.volume;
    return Answer(context, ExitOf(selection), fields, text);
}

} // namespace vtfltctl
