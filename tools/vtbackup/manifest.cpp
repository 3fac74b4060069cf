#include "manifest.h"

#include "checksum.h"
#include "failure.h"
#include "text.h"

#include <fmt/format.h>

#include <stdexcept>

namespace vtbackup {
namespace {

using nlohmann::json;

constexpr int MANIFEST_FORMAT = 1;
constexpr int DEEPEST = 8;                   // a manifest nests less; writing json out recurses, so a limit there is
constexpr std::size_t LONGEST_PROBLEM = 200; // of a parser's message, which quotes the damaged text

std::string Compact(const json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// The message becomes a reason in the next backup's manifest, so no damaged byte may get through with it.
std::string Readable(std::string_view problem)
{
    return ToUtf8(ToWide(problem.substr(0, LONGEST_PROBLEM)));
}

json ToJson(const std::vector<Reason>& reasons)
{
    json list = json::array();
    for (const Reason& reason : reasons)
        list.push_back({{"code", reason.code}, {"text", reason.text}});
    return list;
}

std::vector<Reason> ReasonsFrom(const json& list)
{
    std::vector<Reason> reasons;
    for (const json& item : list)
        reasons.push_back({item.at("code").get<std::string>(), item.at("text").get<std::string>()});
    return reasons;
}

Kind KindFrom(const std::string& name)
{
    for (const Kind kind : {Kind::Full, Kind::Verify, Kind::Incremental}) {
        if (name == KindName(kind))
            return kind;
    }
    throw std::runtime_error("unknown kind");
}

// json would quietly turn -1 or 1.5 into an unsigned number.
std::uint64_t Number(const json& object, const char* key)
{
    const json& value = object.at(key);
    if (!value.is_number_unsigned())
        throw std::runtime_error(fmt::format("\"{}\" is no number", key));
    return value.get<std::uint64_t>();
}

Manifest FromJson(const json& object)
{
    if (Number(object, "format") != MANIFEST_FORMAT)
        throw std::runtime_error("unknown format");
    Manifest m;
    m.sequence = Number(object, "sequence");
    m.base = Number(object, "base");
    m.parent = Number(object, "parent");
    m.parentChecksum = object.at("parentChecksum").get<std::string>();
    m.application = object.at("application").get<std::string>();
    m.volume = object.at("volume").get<std::string>();
    m.time = object.at("time").get<std::string>();
    m.kind = KindFrom(object.at("kind").get<std::string>());
    m.reasons = ReasonsFrom(object.at("reasons"));
    m.next = ReasonsFrom(object.at("next"));
    m.reportable = object.at("reportable").get<bool>();
    m.geometry.length = Number(object, "volumeLength");
    const std::uint64_t blockSize = Number(object, "blockSize");
    m.blocksReported = Number(object, "blocksReported");
    m.blocksStored = Number(object, "blocksStored");
    m.blocksZero = Number(object, "blocksZero");
    m.bytesRead = Number(object, "bytesRead");
    m.dataLength = Number(object, "dataLength");
    m.indexLength = Number(object, "indexLength");
    m.indexChecksum = object.at("indexChecksum").get<std::string>();
    if (object.contains("audit")) {
        const json& audit = object.at("audit");
        m.audit = AuditCounts{Number(audit, "requested"), Number(audit, "clean"), Number(audit, "compared")};
        if (audit.contains("writtenInSnapshot"))
            m.audit->written = Number(audit, "writtenInSnapshot");
        if (audit.contains("problem"))
            m.audit->problem = audit.at("problem").get<std::string>();
    }
    if (object.contains("answeredLosses")) {
        for (const json& loss : object.at("answeredLosses"))
            m.answered.push_back({Number(loss, "backup"), loss.at("id").get<std::string>()});
    }
    if (blockSize == 0 || blockSize > MAX_BLOCK_SIZE || m.geometry.length == 0 || m.geometry.length > (1ULL << 62))
        throw std::runtime_error("impossible block size or length");
    m.geometry.blockSize = static_cast<std::uint32_t>(blockSize);
    const bool full = m.kind == Kind::Full;
    if (m.sequence == 0 || m.base == 0 || m.base > m.sequence || full != (m.base == m.sequence) ||
        full != (m.parent == 0) || (!full && (m.parent < m.base || m.parent >= m.sequence)))
        throw std::runtime_error("its place in the chain makes no sense");
    return m;
}

} // namespace

const char* KindName(Kind kind) noexcept
{
    switch (kind) {
    case Kind::Full:
        return "full";
    case Kind::Verify:
        return "verify";
    case Kind::Incremental:
        return "incremental";
    }
    return "";
}

json ParseShallow(const std::string& text)
{
    return json::parse(text, [](int depth, json::parse_event_t, json&) {
        if (depth > DEEPEST)
            throw std::runtime_error("it is nested too deeply");
        return true;
    });
}

json ToJson(const Manifest& m)
{
    json object = {
        {"format", MANIFEST_FORMAT},
        {"sequence", m.sequence},
        {"base", m.base},
        {"parent", m.parent},
        {"parentChecksum", m.parentChecksum},
        {"application", m.application},
        {"volume", m.volume},
        {"time", m.time},
        {"kind", KindName(m.kind)},
        {"reasons", ToJson(m.reasons)},
        {"next", ToJson(m.next)},
        {"reportable", m.reportable},
        {"blockSize", m.geometry.blockSize},
        {"volumeLength", m.geometry.length},
        {"blocksReported", m.blocksReported},
        {"blocksStored", m.blocksStored},
        {"blocksZero", m.blocksZero},
        {"bytesRead", m.bytesRead},
        {"dataLength", m.dataLength},
        {"indexLength", m.indexLength},
        {"indexChecksum", m.indexChecksum},
    };
    if (m.audit) {
        json& audit = object["audit"];
        audit = {{"requested", m.audit->requested}, {"clean", m.audit->clean}, {"compared", m.audit->compared}};
        if (m.audit->written > 0)
            audit["writtenInSnapshot"] = m.audit->written;
        if (!m.audit->problem.empty())
            audit["problem"] = m.audit->problem;
    }
    for (const AnsweredLoss& loss : m.answered)
        object["answeredLosses"].push_back({{"backup", loss.sequence}, {"id", loss.id}});
    return object;
}

std::string FormatManifest(Manifest& manifest)
{
    const json inner = ToJson(manifest);
    // The checksum is of the compact text with sorted keys, so that a reader can rebuild it from any layout.
    const std::string compact = Compact(inner);
    manifest.checksum = ToHex(ChecksumOf(compact.data(), compact.size()));
    return json{{"manifest", inner}, {"checksum", manifest.checksum}}.dump(2, ' ', false,
                                                                           json::error_handler_t::replace) +
           "\n";
}

Manifest ParseManifest(const std::string& text, const std::string& fileName)
{
    try {
        const json outer = ParseShallow(text);
        const json& inner = outer.at("manifest");
        const std::string compact = Compact(inner);
        const std::string checksum = ToHex(ChecksumOf(compact.data(), compact.size()));
        if (outer.at("checksum").get<std::string>() != checksum)
            throw std::runtime_error("its checksum does not match");
        Manifest manifest = FromJson(inner);
        manifest.checksum = checksum;
        return manifest;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        throw Failure(Exit::Damaged, fmt::format("{} is damaged: {}", fileName, Readable(e.what())));
    }
}

} // namespace vtbackup
