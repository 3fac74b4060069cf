// apps: who is registered, and who is to be.
#include "backup_pause.h"
#include "commands.h"
#include "common/application_id.h"
#include "fixed_volumes.h"
#include "library.h"
#include "output.h"
#include "volume_lists.h"

#include "apps/resync_lists.h"
#include "registry/multi_string.h"

#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <memory>

namespace vtfltctl {
Exit ListApplications(const Context& context)
{
    Json applications = Json::array();
    std::string text;
    for (const std::wstring& application : RegisteredApplications()) {
        applications.push_back(ToUtf8(application));
        text += Shown(application) + "\n";
    }
    if (text.empty())
        text = "No application is registered.\n";
    return Answer(context, Exit::Ok, {{"applications", applications}}, text);
}

namespace {

// The library adds no ID that it finds anywhere in the list's bytes, as the end of another one or behind what it reads;
// and it empties the bitmap files first.
void RequireNotFound(const std::wstring& application)
{
    if (vtflt::FindMultiSZEntry(ReadApplicationIds().bytes, application) >= 0)
        throw Failure(Exit::Refused,
                      fmt::format("{} would not be registered: its ID is found in the list already, as a "
                                  "part of another one",
                                  Quoted(application)));
}

// Throws Failure(Refused).
void RequireSuitable(const std::wstring& application)
{
    const std::string reason = toolkit::UnsuitableBecause(application, RegisteredApplications());
    if (!reason.empty())
        throw Failure(Exit::Refused, fmt::format("application ID {} is refused: {}", Quoted(application), reason));
    if (!IsRegistered(application))
        RequireNotFound(application);
}

} // namespace

// Files that are there may hold changes that are owed to somebody whose registration was lost, and registering empties
// them: the marks come first.
Exit RegisterApplication(const Context& context, const std::wstring& application)
{
    if (application.empty())
        throw Failure(Exit::Usage, "the application ID is empty");
    RequireSuitable(application);
    const auto answer = [&](bool changed, const std::string& text) {
        return Answer(context, Exit::Ok,
                      {{"application", ToUtf8(application)}, {"changed", changed}, {"registered", true}}, text);
    };
    if (IsRegistered(application))
        return answer(false,
                      fmt::format("Application {} is registered already; nothing was changed.\n", Quoted(application)));
    if (const std::size_t files = BitmapFilesOf(application).size(); files != 0)
        RequireYes(context, fmt::format("would empty {} of {}, whose registration was lost or taken back",
                                        CountText(files, "bitmap file"), Quoted(application)));
    const std::vector<std::wstring> volumes = FixedVolumeGuids();
    const BackupPause pause(context, application, volumes);
    const std::unique_ptr<LibraryLock> lock = LockApplications();
    // Who else was registered before the locks were had.
    RequireSuitable(application);
    AddToList(vtflt::MakeVerifyListName(application), volumes, VerifyListName(application), Repair::Replace);
    Require(VTRegisterApplication(application.c_str()), fmt::format("register {}", Quoted(application)));
    if (!IsRegistered(application))
        throw Failure(Exit::Unreadable, fmt::format("application {} was not registered: the list of applications does "
                                                    "not take its ID",
                                                    Quoted(application)));
    return answer(true, fmt::format("Application {} is registered. Every fixed volume that is there is on its verify "
                                    "list: its first backup of each reads everything. So must that of a volume that is "
                                    "away now or not fixed, which no list says.\n",
                                    Quoted(application)));
}

namespace {

// The library takes out of the list what it finds first, which may be the end of another ID.
void RequireFoundAsItself(const std::wstring& application)
{
    const toolkit::RegistryValue list = ReadApplicationIds();
    const int position = vtflt::FindMultiSZEntry(list.bytes, application);
    if (position <= 0)
        return;
    const std::size_t before = (static_cast<std::size_t>(position) - 1) * sizeof(wchar_t);
    if (list.bytes[before] != 0 || list.bytes[before + 1] != 0)
        throw Failure(Exit::Refused,
                      fmt::format("{} is found first at the end of another application's ID, which would be cut; "
                                  "\"vtfltctl doctor\" says which: unregister that one first",
                                  Quoted(application)));
}

void RequireFilesGone(const std::wstring& application)
{
    std::vector<std::wstring> left;
    try {
        left = BitmapFilesOf(application);
    } catch (const Failure& failure) {
        if (failure.Code() == Exit::Refused)
            return; // an ID that is too long for files of its own
        throw Failure(Exit::Unreadable, fmt::format("{} is unregistered, but whether its bitmap files are gone is not "
                                                    "known: {}; \"vtfltctl apps clean\" does the rest",
                                                    Quoted(application), failure.what()));
    }
    if (!left.empty())
        throw Failure(Exit::Unreadable, fmt::format("{} is unregistered, but {} could not be deleted; \"vtfltctl apps "
                                                    "clean\" does the rest",
                                                    Quoted(application), Shown(left.front())));
}

} // namespace

Exit UnregisterApplication(const Context& context, const std::wstring& application)
{
    RequireRegistered(application);
    RequireFoundAsItself(application);
    RequireYes(context, fmt::format("would unregister {} and delete its bitmap files on every fixed volume",
                                    Quoted(application)));
    const std::vector<std::wstring> volumes = FixedVolumeGuids();
    const BackupPause pause(context, application, volumes);
    const std::unique_ptr<LibraryLock> lock = LockApplications();
    // Who else was registered or unregistered before the locks were had.
    RequireRegistered(application);
    RequireFoundAsItself(application);
    // The library merges every fixed volume into the verify list, and passes over files that it cannot delete.
    const ListFacts verify = ReadVolumeList(vtflt::MakeVerifyListName(application));
    RequireReadable(verify, VerifyListName(application));
    RequireMergeable(volumes, verify, VerifyListName(application));
    Require(VTUnregisterApplication(application.c_str()), fmt::format("unregister {}", Quoted(application)));
    RequireFilesGone(application);
    // The library takes one entry off the list, and an ID can be there twice.
    const bool still = IsRegistered(application);
    return Answer(context, Exit::Ok, {{"application", ToUtf8(application)}, {"changed", true}, {"registered", still}},
                  still ? fmt::format("Application {} was registered more than once and still is registered, without "
                                      "bitmap files. Its next backup of every volume must verify.\n",
                                      Quoted(application))
                        : fmt::format("Application {} is unregistered and its bitmap files are deleted. Its verify "
                                      "list stays and names every fixed volume.\n",
                                      Quoted(application)));
}

} // namespace vtfltctl
