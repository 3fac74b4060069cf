// The registry's side of a machine: driver, switch, lists.
#include "machine.h"

#include "common/registry_value.h"
#include "failure.h"
#include "output.h"

#include "apps/resync_text.h"
#include "apps/volume_name.h"
#include "driver/protocol.h"
#include "driver/request.h"
#include "registry/multi_string.h"
#include "win/owners.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace vtfltctl {
namespace {

constexpr wchar_t VOLUME_CLASS_KEY[] =
    L"System\\CurrentControlSet\\Control\\Class\\{71A27CDD-812A-11D0-BEC7-08002BE2092F}";
constexpr wchar_t SNAPSHOT_PROVIDER[] = L"volsnap";

std::optional<std::uint32_t> NumberIn(const toolkit::RegistryValue& value)
{
    if (value.error != ERROR_SUCCESS || value.bytes.size() > sizeof(std::uint32_t))
        return std::nullopt;
    std::uint32_t number = 0;
    if (!value.bytes.empty())
        std::memcpy(&number, value.bytes.data(), value.bytes.size());
    return number;
}

std::wstring TextIn(const toolkit::RegistryValue& value)
{
    if (value.error != ERROR_SUCCESS || (value.type != REG_SZ && value.type != REG_EXPAND_SZ))
        return {};
    std::wstring text(value.bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), value.bytes.data(), text.size() * sizeof(wchar_t));
    return text.substr(0, text.find(L'\0'));
}

// By the library's own rules for the list, and with its matching of entries.
void LookAtFilters(DriverFacts& driver)
{
    toolkit::RegistryValue list = toolkit::ReadRegistryValue(VOLUME_CLASS_KEY, L"UpperFilters");
    if (list.error != ERROR_SUCCESS) {
        // A key that cannot be opened is taken as a pass; one that is missing is made, and has no list then.
        driver.order = list.error == ERROR_FILE_NOT_FOUND ? FilterOrder::NoList : FilterOrder::Good;
        return;
    }
    list.bytes.resize(list.bytes.size() + sizeof(wchar_t));
    vtflt::AppendStrings(list.bytes, driver.filters);
    const int own = vtflt::FindMultiSZEntry(list.bytes, vtflt::DRIVER_NAME);
    if (own < 0)
        driver.order = FilterOrder::NotListed;
    else if (own < vtflt::FindMultiSZEntry(list.bytes, SNAPSHOT_PROVIDER))
        driver.order = FilterOrder::BeforeSnapshots;
}

ServiceState LookAtService()
{
    const vtflt::UniqueService manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE));
    if (!manager)
        return ServiceState::Unknown;
    const vtflt::UniqueService service(OpenServiceW(manager.get(), vtflt::DRIVER_NAME, SERVICE_QUERY_STATUS));
    if (service)
        return ServiceState::Present;
    return GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST ? ServiceState::Absent : ServiceState::Unknown;
}

void ProbeDevice(DriverFacts& driver)
{
    vtflt::UniqueHandle device;
    driver.openError = vtflt::OpenDevice(vtflt::CONTROL_DEVICE, device);
    if (driver.openError != ERROR_SUCCESS)
        return;
    DWORD answer = 0;
    DWORD returned = 0;
    driver.probeError = vtflt::SendRequest(device.get(), vtflt::VTFLTCTL_GET_BLOCK_SIZE, nullptr, 0, &answer,
                                           sizeof(answer), &returned);
    if (driver.probeError == ERROR_SUCCESS)
        driver.generation = Generation::Present;
    else if (driver.probeError == ERROR_INVALID_FUNCTION)
        driver.generation = Generation::Older;
}

// The library reads a list up to its first empty string.
bool HasTextBehindEmptyString(const vtflt::RegistryBytes& bytes)
{
    bool ended = true; // a string ended just now
    for (std::size_t i = 0; i + 1 < bytes.size(); i += sizeof(wchar_t)) {
        const bool zero = bytes[i] == 0 && bytes[i + 1] == 0;
        if (zero && ended)
            return std::any_of(bytes.begin() + static_cast<std::ptrdiff_t>(i), bytes.end(),
                               [](std::uint8_t byte) { return byte != 0; });
        ended = zero;
    }
    return false;
}

} // namespace

DriverFacts LookAtDriver()
{
    DriverFacts driver;
    ProbeDevice(driver);
    LookAtFilters(driver);
    driver.service = LookAtService();
    driver.autoInstall = NumberIn(toolkit::ReadRegistryValue(L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTBackupDll",
                                                             L"VTFltAutoInstall"))
                             .value_or(1) != 0;
    driver.installLocation =
        TextIn(toolkit::ReadRegistryValue(L"SOFTWARE\\Veltrix\\Shared\\CBTDriver", L"InstallLocation"));
    return driver;
}

std::string WhyDriverFails(const DriverFacts& driver)
{
    if (driver.openError != ERROR_SUCCESS)
        return fmt::format("its control device does not open: {}", ErrorText(driver.openError));
    if (driver.generation == Generation::None)
        return fmt::format("its control device does not answer: {}", ErrorText(driver.probeError));
    switch (driver.order) {
    case FilterOrder::Good:
        return {};
    case FilterOrder::NoList:
        return "the volume class has no list of upper filters";
    case FilterOrder::NotListed:
        return "VTFlt is not among the upper filters of the volume class";
    case FilterOrder::BeforeSnapshots:
        return "VTFlt stands before volsnap among the upper filters of the volume class";
    }
    return {};
}

void RequireDriver()
{
    const std::string why = WhyDriverFails(LookAtDriver());
    if (!why.empty())
        throw Failure(Exit::DriverDown, fmt::format("the driver does not work, {}; nothing was changed. \"vtfltctl "
                                                    "doctor --reinstall --yes\" lets the library reinstall it",
                                                    why));
}

SwitchFacts LookAtSwitch(const std::wstring& classKey)
{
    SwitchFacts facts;
    facts.classKey = classKey.ends_with(L'\\') ? classKey.substr(0, classKey.size() - 1) : classKey;
    const std::wstring name = facts.classKey.substr(facts.classKey.find_last_of(L'\\') + 1);
    const toolkit::RegistryValue count = toolkit::ReadRegistryValue(
        L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\" + name, L"SnapshotMonitorCount");
    if (count.error == ERROR_SUCCESS && count.type == REG_DWORD)
        facts.count = NumberIn(count);
    if (!facts.count && count.error != ERROR_FILE_NOT_FOUND)
        facts.error = count.error != ERROR_SUCCESS ? count.error : ERROR_INVALID_DATA;
    const toolkit::RegistryValue filters = toolkit::ReadMultiString(facts.classKey, L"UpperFilters");
    facts.listed = filters.error == ERROR_SUCCESS && vtflt::FindMultiSZEntry(filters.bytes, vtflt::DRIVER_NAME) >= 0;
    return facts;
}

bool Contains(const std::vector<std::wstring>& texts, const std::wstring& text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool Names(const ListFacts& list, const VolumeFacts& volume)
{
    return std::any_of(list.entries.begin(), list.entries.end(), [&](const std::wstring& entry) {
        return vtflt::ListEntryMatchesVolume(entry, volume.name.path);
    });
}

ListFacts ReadVolumeList(const std::wstring& suffix)
{
    ListFacts list;
    const toolkit::RegistryValue read =
        toolkit::ReadMultiString(vtflt::RESYNC_LISTS_KEY, vtflt::MakeListValueName(suffix));
    list.present = read.error != ERROR_FILE_NOT_FOUND;
    if (!list.present)
        return list;
    list.error =
        read.error == ERROR_SUCCESS && !vtflt::IsWellFormedMultiString(read.bytes) ? ERROR_INVALID_DATA : read.error;
    if (list.error != ERROR_SUCCESS)
        return list;
    list.tail = HasTextBehindEmptyString(read.bytes);
    if (list.tail)
        list.error = ERROR_INVALID_DATA;
    else
        vtflt::AppendStrings(read.bytes, list.entries);
    return list;
}

const char* WhyDamaged(const ListFacts& list) noexcept
{
    return list.tail ? "has text behind an empty string, where the library reads no further"
                     : "is no well-formed multi-string";
}

} // namespace vtfltctl
