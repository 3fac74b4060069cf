#include "machine_json.h"

#include "apps/volume_name.h"

#include <algorithm>

namespace vtfltctl {
namespace {

const char* GenerationName(Generation generation) noexcept
{
    switch (generation) {
    case Generation::None:
        return "none";
    case Generation::Older:
        return "older";
    case Generation::Present:
        return "present";
    }
    return "none";
}

const char* OrderName(FilterOrder order) noexcept
{
    switch (order) {
    case FilterOrder::Good:
        return "good";
    case FilterOrder::NoList:
        return "no-list";
    case FilterOrder::NotListed:
        return "not-listed";
    case FilterOrder::BeforeSnapshots:
        return "before-volsnap";
    }
    return "good";
}

const char* ServiceName(ServiceState service) noexcept
{
    switch (service) {
    case ServiceState::Present:
        return "present";
    case ServiceState::Absent:
        return "absent";
    case ServiceState::Unknown:
        return "unknown";
    }
    return "unknown";
}

Json Texts(const std::vector<std::wstring>& texts)
{
    Json array = Json::array();
    for (const std::wstring& text : texts)
        array.push_back(ToUtf8(text));
    return array;
}

Json KnownNumber(std::uint64_t number)
{
    return number == 0 ? Json(nullptr) : Json(number);
}

Json HoldingJson(const MachineFacts& machine, const VolumeFacts& volume, const HoldingFacts& holding)
{
    Json object = {{"application", ToUtf8(holding.application)},
                   {"base", FileStateName(holding.base)},
                   {"child", FileStateName(holding.child)},
                   {"changedBlocks", holding.owedBlocks ? Json(*holding.owedBlocks) : Json(nullptr)},
                   {"owedBytes", holding.owedBlocks ? Json(holding.owedBytes) : Json(nullptr)}};
    const auto application = std::find_if(machine.applications.begin(), machine.applications.end(),
                                          [&](const ApplicationFacts& a) { return a.id == holding.application; });
    object["mustVerify"] =
        application != machine.applications.end() && MustVerify(machine, *application, volume, holding);
    return object;
}

} // namespace

Json DriverJson(const DriverFacts& driver)
{
    Json object = {{"works", driver.Works()},
                   {"generation", GenerationName(driver.generation)},
                   {"filterOrder", OrderName(driver.order)},
                   {"filters", Texts(driver.filters)},
                   {"service", ServiceName(driver.service)},
                   {"autoInstall", driver.autoInstall}};
    if (!driver.Works())
        object["why"] = WhyDriverFails(driver);
    return object;
}

Json SwitchJson(const SwitchFacts& facts)
{
    Json object = {{"class", ToUtf8(facts.classKey)},
                   {"count", facts.count ? Json(*facts.count) : Json(nullptr)},
                   {"filterListed", facts.listed}};
    if (facts.error != ERROR_SUCCESS)
        object["error"] = ErrorText(facts.error);
    return object;
}

Json ListJson(const ListFacts& list)
{
    Json object = {{"entries", Texts(list.entries)}};
    if (list.error != ERROR_SUCCESS)
        object["error"] = ErrorText(list.error);
    return object;
}

Json VolumeJson(const MachineFacts& machine, const VolumeFacts& volume)
{
    Json holdings = Json::array();
    for (const HoldingFacts& holding : volume.holdings)
        holdings.push_back(HoldingJson(machine, volume, holding));
    return {{"volume", ToUtf8(volume.guid)},
            {"mountPaths", Texts(volume.mountPaths)},
            {"bytes", KnownNumber(volume.geometry.volumeBytes)},
            {"blockSize", KnownNumber(volume.geometry.blockSize)},
            {"monitored", volume.monitored},
            {"applications", holdings}};
}

Json FindingJson(const Finding& finding, const std::string& mend)
{
    Json object = {{"check", finding.check}, {"severity", SeverityName(finding.severity)}};
    if (!finding.application.empty())
        object["application"] = ToUtf8(finding.application);
    if (!finding.volume.empty())
        object["volume"] = ToUtf8(finding.volume);
    object["text"] = finding.text;
    object["consequence"] = finding.consequence;
    if (!mend.empty())
        object["mend"] = mend;
    return object;
}

std::string FileStateName(const BitmapFileFacts& file)
{
    if (!file.there)
        return "missing";
    if (!file.file || !file.readError.empty())
        return "unreadable";
    return std::string(bitmap::VerdictName(bitmap::VerdictOf(*file.file)));
}

bool MustVerify(const MachineFacts& machine, const ApplicationFacts& application, const VolumeFacts& volume,
                const HoldingFacts& holding)
{
    const auto lost = [](const BitmapFileFacts& file) {
        return !file.there || (file.readError.empty() && file.file && !file.Usable());
    };
    const auto marks = [&](const ListFacts& list) { return list.error != ERROR_SUCCESS || Names(list, volume); };
    return marks(application.verify) || marks(application.pending) || marks(machine.driverList) || lost(holding.base) ||
           lost(holding.child);
}

} // namespace vtfltctl
