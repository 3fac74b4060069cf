#include "audit_output.h"

#include "console.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtbackup {
namespace {

using nlohmann::json;

constexpr std::size_t MOST_PRINTED = 20; // the file has more

std::uint64_t MissedBytes(const Manifest& manifest)
{
    return std::min(BoundOf(*manifest.audit).blocks * manifest.geometry.blockSize, manifest.geometry.length);
}

std::uint64_t NumberIn(const json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

bool IsTrue(const json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && *found == true;
}

std::string TextIn(const json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

} // namespace

std::string AuditText(const Manifest& manifest)
{
    if (manifest.kind != Kind::Incremental)
        return fmt::format("nothing to compare: a {} backup reads the whole volume, so no block counts as clean",
                           KindName(manifest.kind));
    return CleanAuditText(*manifest.audit, BytesText(MissedBytes(manifest)));
}

json AuditJson(const Manifest& manifest)
{
    const AuditCounts& counts = *manifest.audit;
    json object = {{"requested", counts.requested},
                   {"clean", counts.clean},
                   {"compared", counts.compared},
                   {"text", AuditText(manifest)}};
    if (counts.written > 0)
        object["writtenInSnapshot"] = counts.written;
    if (!counts.problem.empty())
        object["problem"] = counts.problem;
    if (manifest.kind == Kind::Incremental && counts.problem.empty()) {
        const MissedBound bound = BoundOf(counts);
        object["confidence"] = counts.compared < counts.clean ? AUDIT_CONFIDENCE : 1.0;
        object["missedFraction"] = bound.fraction;
        object["missedBlocks"] = bound.blocks;
        object["missedBytes"] = MissedBytes(manifest);
    }
    return object;
}

Exit PrintLoss(const LostTracking& loss, bool asJson)
{
    if (asJson) {
        PrintJson({{"result", OutcomeName(loss.Code())}, {"message", loss.what()}, {"audit", loss.Evidence()}});
    } else {
        const json& blocks = loss.Evidence().at("blocks");
        const std::uint64_t differing = NumberIn(loss.Evidence(), "differing");
        PrintLine(fmt::format("lost tracking on {}", TextIn(loss.Evidence(), "volume")));
        const std::size_t printed = std::min(blocks.size(), MOST_PRINTED);
        for (std::size_t i = 0; i < printed; ++i) {
            const json& block = blocks[i];
            const std::uint64_t backup = NumberIn(block, "backup");
            PrintLine(fmt::format(
                "  block {} (offset {}, {} bytes): expected {} ({}), found {}", NumberIn(block, "block"),
                NumberIn(block, "offset"), NumberIn(block, "length"), TextIn(block, "expected"),
                backup == 0 ? "stored by no backup" : fmt::format("backup {}", backup), TextIn(block, "found")));
        }
        if (differing > printed)
            PrintLine(fmt::format("  and {} more", differing - printed));
    }
    Diagnose(loss.what());
    return loss.Code();
}

std::string LossLine(const json& evidence)
{
    const std::string damaged = TextIn(evidence, "damaged");
    if (!damaged.empty())
        return fmt::format("lost tracking was found before backup {}; the evidence is damaged: {}",
                           NumberIn(evidence, "backup"), damaged);
    return fmt::format("lost tracking was found before backup {}, at {}: {} of {} blocks; incremental backups before "
                       "it may lack changes{}",
                       NumberIn(evidence, "backup"), TextIn(evidence, "time"), NumberIn(evidence, "differing"),
                       NumberIn(evidence, "compared"),
                       IsTrue(evidence, "allMarked") ? "" : "; not every application is marked");
}

} // namespace vtbackup
