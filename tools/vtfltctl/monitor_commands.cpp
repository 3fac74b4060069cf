// monitor: the tracking of a device class, asked for and taken back.
#include "commands.h"
#include "common/class_lock.h"
#include "common/registry_value.h"
#include "common/text.h"
#include "library.h"
#include "machine_json.h"

#include "win/owners.h"

#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <memory>

namespace vtfltctl {
namespace {

constexpr wchar_t VOLUME_CLASS_GUID[] = L"{71A27CDD-812A-11D0-BEC7-08002BE2092F}";
// A count above it went below zero.
constexpr std::uint32_t HIGHEST_COUNT = 0x7FFFFFFF;

// Names of mutexes are case-sensitive, those of keys are not. The library's mutex bears the class as its caller writes it:
// for snapshots as the library does, for any other class as the key itself is spelled.
std::wstring WithClassAsSpelled(const std::wstring& key)
{
    const std::wstring_view snapshots = std::wstring_view(SNAPSHOT_CLASS);
    const std::size_t begin = key.find_last_of(L'\\') + 1;
    const std::wstring parent = key.substr(0, begin);
    const std::wstring_view name = std::wstring_view(key).substr(begin);
    const std::wstring_view snapshotsName = snapshots.substr(snapshots.find_last_of(L'\\') + 1);
    if (toolkit::EqualIgnoringCase(name, snapshotsName))
        return parent + std::wstring(snapshotsName);
    vtflt::UniqueKey opened;
    const LSTATUS error =
        begin == 0 ? ERROR_FILE_NOT_FOUND
                   : RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.substr(0, begin - 1).c_str(), 0, KEY_READ, opened.put());
    if (error != ERROR_SUCCESS)
        return key;
    wchar_t sibling[256] = {};
    for (DWORD index = 0;; ++index) {
        DWORD length = 256;
        if (RegEnumKeyExW(opened.get(), index, sibling, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            return key;
        if (toolkit::EqualIgnoringCase(std::wstring_view(sibling, length), name))
            return parent + sibling;
    }
}

// A class key that does not exist would be made by the library, and the count with it: a typing mistake would be
// answered with success.
std::wstring RequireClass(const std::wstring& name)
{
    if (name.empty())
        return SNAPSHOT_CLASS;
    const bool isPath = name.find(L'\\') != std::wstring::npos;
    std::wstring key = isPath ? name : L"System\\CurrentControlSet\\Control\\Class\\" + name;
    while (key.ends_with(L'\\'))
        key.pop_back();
    vtflt::UniqueKey opened;
    const LSTATUS error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, opened.put());
    if (error != ERROR_SUCCESS)
        throw Failure(
            error == ERROR_ACCESS_DENIED ? Exit::Unreadable : Exit::NotFound,
            fmt::format("there is no device class {}: {}", Quoted(name), ErrorText(static_cast<DWORD>(error))));
    return WithClassAsSpelled(key);
}

// Without VTFlt among its filters no volume is tracked any more: that is no switch for a person to turn.
std::wstring RequireSwitchable(const std::wstring& name)
{
    std::wstring key = RequireClass(name);
    if (toolkit::EqualIgnoringCase(std::wstring_view(key).substr(key.find_last_of(L'\\') + 1), VOLUME_CLASS_GUID))
        throw Failure(Exit::Refused, "that is the class of volumes: the last request taken back would end the tracking "
                                     "of all of them");
    return key;
}

// What a list of filters of another type would be taken for is not known to anybody.
SwitchFacts RequireReadable(const std::wstring& key)
{
    SwitchFacts facts = LookAtSwitch(key);
    if (facts.error != ERROR_SUCCESS)
        throw Failure(Exit::Unreadable,
                      fmt::format("the count of {} cannot be read: {}", Shown(key), ErrorText(facts.error)));
    const toolkit::RegistryValue filters = toolkit::ReadMultiString(key, L"UpperFilters");
    if (filters.error != ERROR_SUCCESS && filters.error != ERROR_FILE_NOT_FOUND)
        throw Failure(Exit::Unreadable,
                      fmt::format("the upper filters of {} cannot be read: {}", Shown(key), ErrorText(filters.error)));
    return facts;
}

std::string SwitchText(const SwitchFacts& facts)
{
    return fmt::format("{}: {}, {} among the upper filters\n", Shown(facts.classKey),
                       facts.count ? CountText(*facts.count, "request") : "never asked for",
                       facts.listed ? "VTFlt is" : "VTFlt is not");
}

Exit ShowSwitch(const Context& context, const SwitchFacts& facts)
{
    return Answer(context, Exit::Ok, SwitchJson(facts), SwitchText(facts));
}

// The exports answer 0 also when the driver went down since it was looked at, and then count nothing.
Exit ShowChanged(const Context& context, const SwitchFacts& before)
{
    const SwitchFacts after = LookAtSwitch(before.classKey);
    if (after.error == ERROR_SUCCESS && after.count == before.count)
        throw Failure(Exit::DriverDown, fmt::format("the count of {} did not change: the driver went down meanwhile",
                                                    Shown(before.classKey)));
    return ShowSwitch(context, after);
}

} // namespace

Exit CountRequests(const Context& context, const std::wstring& name)
{
    return ShowSwitch(context, RequireReadable(RequireClass(name)));
}

namespace {

// From the look at the count to the look at what became of it.
class SwitchLock {
public:
    explicit SwitchLock(const std::wstring& key) : m_lock(key)
    {
        if (m_lock.Error() == ERROR_TIMEOUT)
            throw Failure(Exit::Busy, fmt::format("another program switches the tracking of {}", Shown(key)));
        if (m_lock.Error() != 0)
            throw Failure(Exit::Unreadable,
                          fmt::format("cannot lock the count of {}: {}", Shown(key), ErrorText(m_lock.Error())));
    }

private:
    toolkit::ClassLock m_lock;
};

} // namespace

Exit SwitchOn(const Context& context, const std::wstring& name)
{
    const std::wstring key = RequireSwitchable(name);
    const SwitchLock lock(key);
    const SwitchFacts before = RequireReadable(key);
    RequireDriver();
    Require(VTFltEnableMonitorForSnapshot(key.c_str()), "ask for the tracking of " + Shown(key));
    return ShowChanged(context, before);
}

Exit SwitchOff(const Context& context, const std::wstring& name)
{
    const std::wstring key = RequireSwitchable(name);
    const SwitchLock lock(key);
    const SwitchFacts before = RequireReadable(key);
    // The library would count on below zero.
    if (before.count.value_or(0) == 0)
        throw Failure(Exit::Refused,
                      fmt::format("nobody asked for the tracking of {}: there is no request to take back", Shown(key)));
    if (*before.count > HIGHEST_COUNT)
        throw Failure(
            Exit::Refused,
            fmt::format("more requests for {} were taken back than made (the count stands at {}): there is no "
                        "request to take back",
                        Shown(key), *before.count));
    RequireYes(context, *before.count == 1
                            ? fmt::format("would take back the last request and remove VTFlt from the upper filters "
                                          "of {}",
                                          Shown(key))
                            : fmt::format("would take back one of the {} requests that applications made for {}",
                                          *before.count, Shown(key)));
    RequireDriver();
    Require(VTFltDisableMonitorForSnapshot(key.c_str()), "take back the tracking of " + Shown(key));
    return ShowChanged(context, before);
}

} // namespace vtfltctl
