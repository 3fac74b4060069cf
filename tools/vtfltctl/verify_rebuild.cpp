#include "backup_pause.h"
#include "commands.h"
#include "common/registry_value.h"
#include "fixed_volumes.h"
#include "library.h"
#include "output.h"
#include "volume_lists.h"

#include "apps/resync_lists.h"

#include <fmt/format.h>

#include <memory>

namespace vtfltctl {
namespace {

// How often the driver may write its list in between before a command gives up.
constexpr int ATTEMPTS = 10;

// Whether the list has to be rebuilt. An error that may pass is no damage: the list behind it may be sound.
bool IsDamaged(const ListFacts& list, const std::string& name)
{
    if (list.error != ERROR_INVALID_DATA)
        RequireReadable(list, name);
    return list.error == ERROR_INVALID_DATA;
}

struct Damaged {
    std::wstring application;
    bool pending = false;
    bool verify = false;

    bool operator==(const Damaged&) const = default;
};

// What has to be rebuilt, and the applications to which that matters.
struct Damage {
    bool driver = false;
    std::vector<Damaged> applications;

    bool operator==(const Damage&) const = default;
};

Damage FindDamage()
{
    Damage damage;
    damage.driver = IsDamaged(ReadVolumeList({}), DRIVER_LIST);
    for (const std::wstring& application : RegisteredApplications()) {
        if (application.empty()) // its pending list is the driver's list
            continue;
        const Damaged lists{
            application, IsDamaged(ReadVolumeList(application), PendingListName(application)),
            IsDamaged(ReadVolumeList(vtflt::MakeVerifyListName(application)), VerifyListName(application))};
        if (damage.driver || lists.pending || lists.verify)
            damage.applications.push_back(lists);
    }
    return damage;
}

void AddAll(std::vector<std::wstring>& to, const std::vector<std::wstring>& from)
{
    to.insert(to.end(), from.begin(), from.end());
}

void AddToVerifyList(const std::wstring& application, const std::vector<std::wstring>& volumes)
{
    AddToList(vtflt::MakeVerifyListName(application), volumes, VerifyListName(application), Repair::Replace);
}

// What the damaged list named beside the fixed volumes is on the verify list before it goes. Its lock is held from the
// look at it until it is gone; one that somebody wrote anew since it was found stays.
void RebuildPendingList(const std::wstring& application, std::vector<std::wstring> volumes)
{
    const std::string name = PendingListName(application);
    const std::unique_ptr<LibraryLock> lock = LockList(application);
    if (!IsDamaged(ReadVolumeList(application), name))
        return;
    AddAll(volumes, Salvage(ReadStoredList(application)));
    AddToVerifyList(application, volumes);
    vtflt::CVolumeListForResync store;
    // A pending list that is also a verify list, perhaps one written a moment ago, keeps its marks.
    if (PendsInVerifyList(application))
        AddToList(application, volumes, name, Repair::Replace);
    else
        Require(store.ClearDriverRegValue(application), "delete " + name);
}

bool IsSame(const toolkit::RegistryValue& a, const toolkit::RegistryValue& b)
{
    return a.error == b.error && a.type == b.type && a.bytes == b.bytes;
}

// The driver takes no mutex: what it wrote since the list was read is read again before the list goes.
void RebuildDriverList(const std::vector<Damaged>& applications, const std::vector<std::wstring>& volumes)
{
    const std::unique_ptr<LibraryLock> lock = LockList({});
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        const toolkit::RegistryValue stored = ReadStoredList({});
        if (!IsDamaged(ReadVolumeList({}), DRIVER_LIST))
            return;
        std::vector<std::wstring> named = volumes;
        AddAll(named, Salvage(stored));
        for (const Damaged& lists : applications)
            AddToVerifyList(lists.application, named);
        if (!IsSame(stored, ReadStoredList({})))
            continue;
        vtflt::CVolumeListForResync store;
        Require(store.ClearDriverRegValue({}), fmt::format("delete {}", DRIVER_LIST));
        return;
    }
    throw Failure(Exit::Busy, "the driver keeps writing its list, which was not deleted; run this again");
}

} // namespace

Exit RebuildLists(const Context& context)
{
    const Damage damage = FindDamage();
    Json rebuilt = Json::array();
    if (damage == Damage())
        return Answer(context, Exit::Ok, {{"rebuilt", rebuilt}}, "Every list can be read; nothing was changed.\n");
    if (damage.applications.empty())
        throw Failure(Exit::Refused, "no application is registered that could take over what the driver's list names");
    RequireYes(context, "would delete lists that cannot be read and put every fixed volume on the verify lists");
    const std::vector<std::wstring> volumes = FixedVolumeGuids();
    std::vector<std::unique_ptr<BackupPause>> pauses;
    for (const Damaged& lists : damage.applications)
        pauses.push_back(std::make_unique<BackupPause>(context, lists.application));
    const std::unique_ptr<LibraryLock> applications = LockApplications();
    // Who came meanwhile would not take over what the driver's list names.
    if (FindDamage() != damage)
        throw Failure(Exit::Busy, "the lists or the registered applications have changed meanwhile; run this again");
    std::string text;
    for (const Damaged& lists : damage.applications) {
        AddToVerifyList(lists.application, volumes);
        if (lists.pending)
            RebuildPendingList(lists.application, volumes);
        rebuilt.push_back(ToUtf8(lists.application));
        text += fmt::format("Every fixed volume is on the verify list of {}.\n", Quoted(lists.application));
    }
    if (damage.driver)
        RebuildDriverList(damage.applications, volumes);
    return Answer(context, Exit::Ok, {{"rebuilt", rebuilt}}, text);
}

} // namespace vtfltctl
