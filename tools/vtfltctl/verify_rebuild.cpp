#include "verify_rebuild.h"

#include "backup_pause.h"
#include "fixed_volumes.h"
#include "library.h"
#include "output.h"
#include "volume_lists.h"

#include "apps/resync_lists.h"

#include <fmt/format.h>

#include <memory>

namespace vtfltctl {
namespace {

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
};

void AddAll(std::vector<std::wstring>& to, const std::vector<std::wstring>& from)
{
    to.insert(to.end(), from.begin(), from.end());
}

// What a damaged list named beside the fixed volumes is on the verify list before the damaged one goes.
void RebuildListsOf(const Damaged& lists, std::vector<std::wstring> volumes)
{
    vtflt::CVolumeListForResync store;
    if (lists.pending)
        AddAll(volumes, Salvage(lists.application));
    AddToList(vtflt::MakeVerifyListName(lists.application), volumes, VerifyListName(lists.application),
              Repair::Replace);
    // A pending list that is also a verify list, perhaps one written a moment ago, keeps its marks.
    if (lists.pending && PendsInVerifyList(lists.application))
        AddToList(lists.application, volumes, PendingListName(lists.application), Repair::Replace);
    else if (lists.pending)
        Require(store.ClearDriverRegValue(lists.application), "delete " + PendingListName(lists.application));
}

} // namespace

Exit RebuildLists(const Context& context)
{
    const bool driver = IsDamaged(ReadVolumeList({}), "the driver's list");
    std::vector<Damaged> damaged;
    for (const std::wstring& application : RegisteredApplications()) {
        if (application.empty()) // its pending list is the driver's list
            continue;
        const Damaged lists{
            application, IsDamaged(ReadVolumeList(application), PendingListName(application)),
            IsDamaged(ReadVolumeList(vtflt::MakeVerifyListName(application)), VerifyListName(application))};
        if (driver || lists.pending || lists.verify)
            damaged.push_back(lists);
    }
    Json rebuilt = Json::array();
    if (!driver && damaged.empty())
        return Answer(context, Exit::Ok, {{"rebuilt", rebuilt}}, "Every list can be read; nothing was changed.\n");
    RequireYes(context, "would delete lists that cannot be read and put every fixed volume on the verify lists");
    std::vector<std::wstring> volumes = FixedVolumeGuids();
    if (driver)
        AddAll(volumes, Salvage({}));
    std::vector<std::unique_ptr<BackupPause>> pauses;
    for (const Damaged& lists : damaged)
        pauses.push_back(std::make_unique<BackupPause>(context, lists.application));
    std::string text;
    for (const Damaged& lists : damaged) {
        RebuildListsOf(lists, volumes);
        rebuilt.push_back(ToUtf8(lists.application));
        text += fmt::format("Every fixed volume is on the verify list of {}.\n", Quoted(lists.application));
    }
    if (driver) {
        vtflt::CVolumeListForResync store;
        Require(store.ClearDriverRegValue({}), "delete the driver's list");
    }
    return Answer(context, Exit::Ok, {{"rebuilt", rebuilt}}, text.empty() ? "The driver's list is deleted.\n" : text);
}

} // namespace vtfltctl
