// What the lists in the registry hold behind each operation: who is registered, what is to be verified, who monitors.
#include "proof/world.h"

#include "vtfltmgr/VTFltMgr.h"

#include <algorithm>
#include <string_view>

namespace vtproof {

namespace {

// Counts who asked for the tracking of snapshots.
constexpr wchar_t COUNT_KEY[] =
    L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";
constexpr wchar_t CLASS_KEY[] = L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";

// A registry value's strings; where it is no multi-string, what comes of reading it as one.
std::vector<std::wstring> Strings(const std::vector<std::uint8_t>& bytes)
{
    std::vector<std::wstring> strings;
    std::wstring string;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const auto character = static_cast<wchar_t>(bytes[i] | (bytes[i + 1] << 8));
        if (character != L'\0') {
            string.push_back(character);
            continue;
        }
        if (!string.empty())
            strings.push_back(std::move(string));
        string.clear();
    }
    return strings;
}

// More than one volume is to be verified behind it, by who does it.
bool MarksMany(Do what)
{
    return what == Do::MarkAll || what == Do::Register || what == Do::RegisterAgain || what == Do::Unregister;
}

// Of the others nobody's volume is to be verified behind it: it has none, whatever the operation says.
bool ConcernsAVolume(Do what)
{
    switch (what) {
    case Do::Write:
    case Do::Begin:
    case Do::Fetch:
    case Do::Finish:
    case Do::Backup:
    case Do::LoseTracking:
    case Do::Resize:
    case Do::SetBlockSize:
    case Do::Damage:
    case Do::StopVolume:
    case Do::StartTracking:
        return true;
    default:
        return false;
    }
}

bool IsOneOf(std::wstring_view name, std::initializer_list<std::wstring_view> names)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

// --- Who is registered.

std::vector<std::wstring> World::Registered() const
{
    return Strings(m_machine->ReadValue(L"SOFTWARE\\Veltrix\\Shared\\CBTDriver\\AppIDs", L"RegisteredAppIDs"));
}

bool World::IsListed(const Application& application) const
{
    const auto ids = Registered();
    return std::find(ids.begin(), ids.end(), application.id) != ids.end();
}

// Nobody is registered, or registered no more, who did not ask for it.
std::string World::CheckListed() const
{
    const auto ids = Registered();
    for (const Application& application : m_applications) {
        const bool listed = std::find(ids.begin(), ids.end(), application.id) != ids.end();
        if (application.registered != listed)
            return "application " + std::to_string(&application - m_applications.data()) +
                   (listed ? " is listed and has not registered" : " has registered and is not listed");
    }
    return {};
}

// --- What is to be verified.

// The driver's list (no name), an application's pending list (its ID) or its verify list (its ID and .Last).
std::vector<std::wstring> World::ResyncList(const std::wstring& name) const
{
    return Strings(m_machine->ReadValue(L"SYSTEM\\CurrentControlSet\\Services\\VTFlt", L"DeviceListForReSync" + name));
}

bool World::IsListedForResync(const std::wstring& name, std::size_t volume) const
{
    return Holds(ResyncList(name), volume);
}

bool World::Holds(const std::vector<std::wstring>& list, std::size_t volume) const
{
    return std::find(list.begin(), list.end(), m_volumes[volume].guid) != list.end();
}

// By volume, what is on the application's verify list.
std::vector<bool> World::Marks(const Application& application) const
{
    const auto list = ResyncList(application.id + L".Last");
    std::vector<bool> marks;
    for (std::size_t volume = 0; volume < m_volumes.size(); ++volume)
        marks.push_back(Holds(list, volume));
    return marks;
}

// The same, as it was behind the last operation.
std::vector<bool> World::NotedMarks(const Application& application)
{
    std::vector<bool> marks;
    for (const Chain& chain : application.chains)
        marks.push_back(chain.mustBeAsked);
    return marks;
}

// Each volume is marked, or, where that may be, no more of them than before.
std::string World::CheckMarked(const Application& application, bool all) const
{
    const std::vector<bool> before = m_watch == nullptr ? NotedMarks(application) : Marks(application);
    const std::vector<bool> marks = Marks(application);
    bool isAll = true;
    for (std::size_t volume = 0; volume < marks.size(); ++volume)
        isAll = isAll && (marks[volume] || LeavesOut(volume));
    if (isAll || (!all && marks == before))
        return {};
    return all ? "not every volume is marked" : "some volumes are marked, and others are not";
}

// What somebody was to be told of stays where it finds that, until its report of success. And nobody is told of a volume that
// nothing was done to and no list had: a library that marks everything behind any failure would never miss anything.
std::string World::CheckMarks()
{
    std::string wrong;
    const auto driver = ResyncList({});
    for (Application& application : m_applications) {
        const auto pending = ResyncList(application.id);
        const std::vector<bool> marks = Marks(application);
        for (std::size_t volume = 0; volume < m_volumes.size(); ++volume) {
            Chain& chain = application.chains[volume];
            const bool waits = Holds(pending, volume) || (application.registered && Holds(driver, volume));
            const bool told = marks[volume] || waits;
            // Who takes a mark off leaves what has not become one yet; and who unregisters leaves its marks in the place of
            // the driver's list, but of a volume whose kind cannot be learned.
            const bool mayGo = &chain == m_takenOff;
            const bool markIsGone = chain.mustBeAsked && !marks[volume] && !mayGo;
            const bool isGone = mayGo ? chain.waits && !waits && !m_replicated : chain.told && !told;
            if (wrong.empty() && (markIsGone || (isGone && !LeavesOut(volume))))
                wrong = "volume " + std::to_string(volume) + " is no more on " +
                        (chain.mustBeAsked ? "the verify list" : "any list") + " of application " +
                        std::to_string(&application - m_applications.data());
            const bool isNew = marks[volume] && !chain.mustBeAsked && !chain.waits;
            const bool marksMany = m_marksMany && &application == &m_applications[m_operating];
            if (wrong.empty() && m_watch == nullptr && isNew && !m_touched[volume] && !marksMany)
                wrong = "volume " + std::to_string(volume) +
                        ", to which nothing was done, is on the verify list of application " +
                        std::to_string(&application - m_applications.data());
            chain.mustBeAsked = marks[volume];
            chain.told = told;
            chain.waits = waits;
        }
    }
    std::fill(m_touched.begin(), m_touched.end(), false);
    m_marksMany = false;
    return wrong;
}

void World::NoteMayBeMarked(const Operation& operation)
{
    if (ConcernsAVolume(operation.what))
        m_touched[operation.volume] = true;
    m_operating = operation.application;
    // A driver that comes back in the middle lists what it has missed; the others find it on their pending lists.
    m_marksMany = m_marksMany || MarksMany(operation.what) || !m_driverWasThere;
}

// While operations run at the same time: who is registered now is told, unless it reports success meanwhile or later.
void World::NoteLoss(std::size_t volume)
{
    if (m_watch == nullptr || !IsListedForResync({}, volume))
        return;
    for (Application& application : m_applications)
        application.chains[volume].lost = application.registered && !application.chains[volume].reports;
}

// Behind that, as each is then the only one who takes itself off its list.
std::string World::CheckLosses() const
{
    for (const Application& application : m_applications) {
        for (std::size_t volume = 0; volume < m_volumes.size(); ++volume) {
            if (!application.chains[volume].lost)
                continue;
            Count(&Verdicts::told);
            const auto number = static_cast<std::size_t>(&application - m_applications.data());
            if (!IsTold(application, volume) && ReadFile(number, volume, false).usable &&
                ReadFile(number, volume, true).usable)
                return "tracking of volume " + std::to_string(volume) + " was lost, and application " +
                       std::to_string(number) + " is not told";
        }
    }
    return {};
}

// --- Who monitors.

World::Monitoring World::ReadMonitoring() const
{
    Monitoring now;
    const auto bytes = m_machine->ReadValue(COUNT_KEY, L"SnapshotMonitorCount");
    now.stored = bytes.size() == sizeof(DWORD);
    for (std::size_t i = 0; now.stored && i < sizeof(DWORD); ++i)
        now.count |= static_cast<DWORD>(bytes[i]) << 8 * i;
    const auto filters = Strings(m_machine->ReadValue(CLASS_KEY, L"UpperFilters"));
    now.filter = std::find(filters.begin(), filters.end(), L"VTFlt") != filters.end();
    return now;
}

// Success counts one more or less, and the driver is among the filters as long as anybody counts; a failure changes nothing.
std::string World::CheckMonitoring(bool on, DWORD result)
{
    const Monitoring before = m_monitoring;
    const Monitoring now = m_monitoring = ReadMonitoring();
    Monitoring wanted = before;
    if (on || before.stored)
        wanted.count += on ? 1 : DWORD{0} - 1;
    wanted.filter = on || (before.filter && !(before.stored && before.count == 1));
    if (result == 0) {
        // Without a driver there is nothing to do.
        const bool mayBeGate =
            m_faulty && HasStruckAnother({L"RegCreateKeyExW", L"RegSetValueExW", L"RegDeleteValueW", L"CreateMutexW"});
        const bool there = IsDriverThere();
        if ((now == wanted && (there || m_driverWasThere)) ||
            (now == before && (!there || !m_driverWasThere || mayBeGate)))
            return {};
    } else if (now == before) {
        return {};
    } else if (m_faulty && !FailsOnce()) {
        // What failed, or died, in the middle, and could not be taken back.
        if ((now.count == before.count || now.count == wanted.count) &&
            (now.filter == before.filter || now.filter == wanted.filter))
            return {};
    }
    return std::to_string(before.count) + " monitored, now " + std::to_string(now.count) + " do, and the driver is " +
           (now.filter ? "" : "not ") + "among the filters, with result " + std::to_string(result);
}

// --- What went wrong in the operation.

// Something went wrong in the operation so far.
bool World::IsStruck() const
{
    return m_struckCalls.count != 0 || m_memoryStruck || m_struck;
}

// One call or allocation fails, and whatever comes behind it succeeds.
bool World::FailsOnce() const
{
    if (m_faults.size() != 1)
        return false;
    const Fault::How how = m_faults.front().how;
    return how == Fault::How::Fail || how == Fault::How::FailOf || how == Fault::How::NoMemory;
}

// What is reported as failed may have been done.
bool World::MayBeDone() const
{
    return std::any_of(m_faults.begin(), m_faults.end(),
                       [](const Fault& fault) { return fault.how == Fault::How::FailAfter; });
}

bool World::HasStruck(std::initializer_list<std::wstring_view> functions) const
{
    const auto end = m_struckCalls.calls.begin() + static_cast<std::ptrdiff_t>(m_struckCalls.count);
    return std::any_of(m_struckCalls.calls.begin(), end,
                       [&](const StruckCalls::One& one) { return IsOneOf(one.function, functions); });
}

// What is not known to be one of these may be another: no call, as when memory is short.
bool World::HasStruckAnother(std::initializer_list<std::wstring_view> functions) const
{
    const auto end = m_struckCalls.calls.begin() + static_cast<std::ptrdiff_t>(m_struckCalls.count);
    return m_struckCalls.count == 0 || std::any_of(m_struckCalls.calls.begin(), end, [&](const StruckCalls::One& one) {
               return !IsOneOf(one.function, functions);
           });
}

// A volume whose kind could not be learned is passed over where all fixed ones are meant.
bool World::LeavesOut(std::size_t volume) const
{
    using How = Fault::How;
    const bool fails = std::any_of(m_faults.begin(), m_faults.end(), [](const Fault& fault) {
        return fault.how == How::Fail || fault.how == How::FailOn || fault.how == How::FailOf ||
               fault.how == How::FailOfOn;
    });
    if (!fails)
        return false; // whoever dies or has no memory is told nothing wrong
    if (m_struckCalls.count == m_struckCalls.calls.size())
        return HasStruck({L"GetDriveTypeW"}); // perhaps of others, too
    const auto end = m_struckCalls.calls.begin() + static_cast<std::ptrdiff_t>(m_struckCalls.count);
    return std::any_of(m_struckCalls.calls.begin(), end, [&](const StruckCalls::One& one) {
        return IsOneOf(one.function, {L"GetDriveTypeW"}) &&
               std::wstring_view(one.text.data()).find(m_volumes[volume].guid) != std::wstring_view::npos;
    });
}

// Called before each call, and behind the last without one. Allocates nothing.
void World::NoteCallOfAFault(const wchar_t* function, const wchar_t* text)
{
    StruckCalls& struck = m_struckCalls;
    struck.made += function != nullptr && !GivesBack(function) ? 1 : 0;
    struck.walks = struck.walks || (function != nullptr && std::wstring_view(function) == L"FindFirstVolumeW");
    const DWORD hits = VTFltSimGetCallFaultHits();
    if (hits != struck.hits && struck.last.function != nullptr && struck.count < struck.calls.size())
        struck.calls[struck.count++] = struck.last;
    struck.hits = hits;
    struck.last.function = function;
    const std::wstring_view said = text != nullptr ? text : L"";
    *std::copy_n(said.begin(), std::min(said.size(), struck.last.text.size() - 1), struck.last.text.begin()) = L'\0';
}

} // namespace vtproof
