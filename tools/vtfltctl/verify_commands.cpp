// verify: the lists of volumes whose next backup must verify.
#include "bitmap_live.h"
#include "common/backup_locks.h"
#include "common/volume_name.h"
#include "library.h"
#include "machine_json.h"

#include "apps/resync_lists.h"
#include "apps/resync_text.h"
#include "apps/volume_name.h"
#include "win/owners.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <algorithm>
#include <memory>

namespace vtfltctl {
namespace {

constexpr DWORD MERGE_LIST = 0;
constexpr DWORD REPLACE_LIST = 1;

struct VerifyOptions {
    std::string application;
    std::vector<std::string> volumes;
    bool all = false;
};

// A list that the library would fail on. what: "verify list of ...".
void RequireReadable(const ListFacts& list, const std::string& what)
{
    if (list.error != ERROR_SUCCESS)
        throw Failure(Exit::Unreadable,
                      fmt::format("the {} cannot be read: {}; \"vtfltctl verify rebuild --yes\" puts a safe one in its "
                                  "place",
                                  what, ErrorText(list.error)));
}

void RequireReadableLists(const std::wstring& application)
{
    RequireReadable(ReadVolumeList({}), "driver's list");
    for (const std::wstring& registered : RegisteredApplications())
        RequireReadable(ReadVolumeList(registered), "pending list of " + Quoted(registered));
    RequireReadable(ReadVolumeList(vtflt::MakeVerifyListName(application)), "verify list of " + Quoted(application));
}

std::string Entries(const ListFacts& list)
{
    if (list.error != ERROR_SUCCESS)
        return " unreadable: " + ErrorText(list.error) + "\n";
    std::string text;
    for (const std::wstring& entry : list.entries)
        text += " " + Shown(entry);
    return (text.empty() ? " empty" : text) + "\n";
}

Json ListsOf(const std::wstring& application)
{
    return {{"application", ToUtf8(application)},
            {"verifyList", ListJson(ReadVolumeList(vtflt::MakeVerifyListName(application)))},
            {"pendingList", ListJson(ReadVolumeList(application))}};
}

Exit List(const Context& context, const VerifyOptions& options)
{
    std::vector<std::wstring> applications;
    if (options.application.empty()) {
        applications = RegisteredApplications();
    } else {
        RequireRegistered(ToWide(options.application));
        applications.push_back(ToWide(options.application));
    }
    const ListFacts driver = ReadVolumeList({});
    Json array = Json::array();
    std::string text = "driver:" + Entries(driver);
    bool unreadable = driver.error != ERROR_SUCCESS;
    for (const std::wstring& application : applications) {
        const ListFacts verify = ReadVolumeList(vtflt::MakeVerifyListName(application));
        const ListFacts pending = ReadVolumeList(application);
        unreadable = unreadable || verify.error != ERROR_SUCCESS || pending.error != ERROR_SUCCESS;
        array.push_back(ListsOf(application));
        text += fmt::format("{} verify:{}{} pending:{}", Quoted(application), Entries(verify), Quoted(application),
                            Entries(pending));
    }
    if (unreadable)
        Diagnose("a list cannot be read; \"vtfltctl doctor\" says what that means");
    return Answer(context, unreadable ? Exit::Unreadable : Exit::Ok,
                  {{"driverList", ListJson(driver)}, {"applications", array}}, text);
}

// What a changing command answers: the lists as they are now.
Exit Changed(const Context& context, const std::wstring& application, const std::string& text)
{
    return Answer(context, Exit::Ok, ListsOf(application), text);
}

std::vector<std::wstring> FixedVolumes()
{
    std::vector<std::wstring> paths;
    if (const DWORD error = toolkit::EnumerateVolumePaths(paths); error != ERROR_SUCCESS)
        throw Failure(Exit::Device, "cannot list the volumes: " + ErrorText(error));
    std::vector<std::wstring> guids;
    for (const std::wstring& path : paths) {
        if (GetDriveTypeW(path.c_str()) == DRIVE_FIXED)
            guids.push_back(vtflt::GetVolumeGuid(path));
    }
    return guids;
}

bool IsEntry(const ListFacts& list, const std::wstring& text)
{
    return std::find(list.entries.begin(), list.entries.end(), text) != list.entries.end();
}

// The exports answer 0 also when the driver went down since it was looked at, and then do nothing.
void RequireEveryVolume(const ListFacts& list)
{
    for (const std::wstring& guid : FixedVolumes()) {
        if (!IsEntry(list, guid))
            throw Failure(Exit::DriverDown,
                          fmt::format("{} is not on the verify list: the driver went down meanwhile", Shown(guid)));
    }
}

// What replicating takes off the lists.
std::vector<std::wstring> Waiting(const std::wstring& application)
{
    std::vector<std::wstring> waiting = ReadVolumeList({}).entries;
    std::erase_if(waiting, [](const std::wstring& entry) { return !vtflt::IsBracedGuid(entry); });
    for (std::wstring& entry : ReadVolumeList(application).entries)
        waiting.push_back(std::move(entry));
    return waiting;
}

// Keeps backups of an application from running: one that began before a mark was set takes it off by its success.
// Only backups that take this lock are kept, too; what others there are, nobody can tell.
class BackupPause {
public:
    BackupPause(const Context& context, const std::wstring& application)
    {
        const std::wstring name = toolkit::LockNames(ToWide(context.simulate)).Application(application);
        m_mutex.reset(CreateMutexW(nullptr, FALSE, name.c_str()));
        // Made by another account: the right to wait is enough.
        if (!m_mutex && GetLastError() == ERROR_ACCESS_DENIED)
            m_mutex.reset(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
        if (!m_mutex && GetLastError() == ERROR_ACCESS_DENIED)
            throw Failure(Exit::Unreadable, fmt::format("whether a backup of {} runs cannot be told: {}",
                                                        Quoted(application), ErrorText(ERROR_ACCESS_DENIED)));
        // No object can have this name, so no backup holds one.
        if (m_mutex && WaitForSingleObject(m_mutex.get(), 0) == WAIT_TIMEOUT)
            throw Failure(Exit::Busy,
                          fmt::format("a backup of {} runs, whose success would take the marks off; nothing "
                                      "was changed for it, run this again when it has ended",
                                      Quoted(application)));
    }
    ~BackupPause()
    {
        if (m_mutex)
            ReleaseMutex(m_mutex.get());
    }
    BackupPause(const BackupPause&) = delete;
    BackupPause& operator=(const BackupPause&) = delete;

private:
    vtflt::UniqueHandle m_mutex;
};

Exit Add(const Context& context, const VerifyOptions& options)
{
    if (options.all == !options.volumes.empty())
        throw Failure(Exit::Usage, "name volumes, or give --all");
    const std::wstring application = ToWide(options.application);
    RequireRegistered(application);
    std::vector<std::wstring> guids;
    for (const std::string& volume : options.volumes)
        guids.push_back(vtflt::GetVolumeGuid(bitmap::FindVolumeByName(ToWide(volume)).path));
    const std::wstring suffix = vtflt::MakeVerifyListName(application);
    RequireReadable(ReadVolumeList(suffix), "verify list of " + Quoted(application));
    const BackupPause pause(context, application);
    if (options.all) {
        RequireDriver();
        Require(VTAddVolumesToAppVerifyList(application.c_str()), "put every volume on the verify list");
        RequireEveryVolume(ReadVolumeList(suffix));
        return Changed(context, application,
                       fmt::format("Every fixed volume is on the verify list of {}.\n", Quoted(application)));
    }
    // The export knows all volumes or none; the list itself is kept by the same code, under the same mutex.
    vtflt::CVolumeListForResync lists;
    Require(lists.UpdateApplicationValue(guids, suffix, MERGE_LIST), "write the verify list");
    return Changed(context, application,
                   fmt::format("{} on the verify list of {}.\n",
                               CountText(guids.size(), "volume") + (guids.size() == 1 ? " is" : " are"),
                               Quoted(application)));
}

// The entries as the list has them: a volume that is gone can be taken off, and so can what is no volume at all.
std::vector<std::wstring> FindEntries(const ListFacts& list, const VerifyOptions& options)
{
    std::vector<std::wstring> entries;
    for (const std::string& volume : options.volumes) {
        const std::wstring text = ToWide(volume);
        if (IsEntry(list, text)) {
            entries.push_back(text);
            continue;
        }
        const std::optional<std::wstring> parsed = toolkit::ParseVolumeGuid(text);
        const std::wstring guid = parsed ? *parsed : vtflt::GetVolumeGuid(bitmap::FindVolumeByName(text).path);
        if (IsEntry(list, guid)) {
            entries.push_back(guid);
            continue;
        }
        const auto found = std::find_if(list.entries.begin(), list.entries.end(), [&](const std::wstring& entry) {
            return toolkit::EqualIgnoringCase(entry, guid);
        });
        if (found == list.entries.end())
            throw Failure(Exit::NotFound, fmt::format("the verify list does not name {}", Quoted(guid)));
        entries.push_back(*found);
    }
    return entries;
}

Exit Remove(const Context& context, const VerifyOptions& options)
{
    const std::wstring application = ToWide(options.application);
    RequireRegistered(application);
    const ListFacts list = ReadVolumeList(vtflt::MakeVerifyListName(application));
    RequireReadable(list, "verify list of " + Quoted(application));
    std::vector<std::wstring> entries = FindEntries(list, options);
    RequireYes(context, fmt::format("would take {} off the verify list of {}, whose next backup then trusts the "
                                    "bitmaps",
                                    CountText(entries.size(), "volume"), Quoted(application)));
    Require(VTRemoveApplicationVolResyncList(application, &entries), "write the verify list");
    return Changed(context, application,
                   fmt::format("{} taken off the verify list of {}.\n",
                               CountText(entries.size(), "volume") + (entries.size() == 1 ? " is" : " are"),
                               Quoted(application)));
}

// Its pending list is the verify list of the application without that ending, registered or not.
bool PendsInVerifyList(const std::wstring& application)
{
    return toolkit::EndsWithIgnoringCase(application, L".Last");
}

Exit Replicate(const Context& context, const VerifyOptions& options)
{
    const std::wstring application = ToWide(options.application);
    RequireRegistered(application);
    if (PendsInVerifyList(application))
        throw Failure(Exit::Refused,
                      fmt::format("the pending list of {} is the verify list of {}, whose marks would be taken off; "
                                  "unregister {}",
                                  Quoted(application), Quoted(application.substr(0, application.size() - 5)),
                                  Quoted(application)));
    RequireReadableLists(application);
    RequireDriver();
    const BackupPause pause(context, application);
    const std::vector<std::wstring> waiting = Waiting(application);
    Require(VTReplicateVerifyList(application.c_str()), "replicate the lists");
    if (!waiting.empty() && Waiting(application) == waiting)
        throw Failure(Exit::DriverDown, "the lists are as they were: the driver went down meanwhile");
    return Changed(context, application,
                   fmt::format("The driver's list is handed to every application, and the pending list of {} is in its "
                               "verify list:{}",
                               Quoted(application), Entries(ReadVolumeList(vtflt::MakeVerifyListName(application)))));
}

// The volumes of a list that cannot be read are not known, so every one of them has to be verified. They are on the
// verify list before the damaged list goes.
Exit Rebuild(const Context& context)
{
    const bool driver = ReadVolumeList({}).error != ERROR_SUCCESS;
    struct Damaged {
        std::wstring application;
        bool pending;
        bool verify;
    };
    std::vector<Damaged> damaged;
    for (const std::wstring& application : RegisteredApplications()) {
        const Damaged lists{application, ReadVolumeList(application).error != ERROR_SUCCESS,
                            ReadVolumeList(vtflt::MakeVerifyListName(application)).error != ERROR_SUCCESS};
        if (driver || lists.pending || lists.verify)
            damaged.push_back(lists);
    }
    Json rebuilt = Json::array();
    if (!driver && damaged.empty())
        return Answer(context, Exit::Ok, {{"rebuilt", rebuilt}}, "Every list can be read; nothing was changed.\n");
    RequireYes(context, "would delete lists that cannot be read and put every fixed volume on the verify lists");
    const std::vector<std::wstring> volumes = FixedVolumes();
    vtflt::CVolumeListForResync store;
    std::string text;
    for (const Damaged& lists : damaged) {
        const BackupPause pause(context, lists.application);
        Require(store.UpdateApplicationValue(volumes, vtflt::MakeVerifyListName(lists.application),
                                             lists.verify ? REPLACE_LIST : MERGE_LIST),
                "write the verify list of " + Quoted(lists.application));
        // A pending list that is also a verify list, perhaps one written a moment ago, keeps its marks.
        if (lists.pending && PendsInVerifyList(lists.application))
            Require(store.UpdateApplicationValue(volumes, lists.application, REPLACE_LIST),
                    "write the pending list of " + Quoted(lists.application));
        else if (lists.pending)
            Require(store.ClearDriverRegValue(lists.application),
                    "delete the pending list of " + Quoted(lists.application));
        rebuilt.push_back(ToUtf8(lists.application));
        text += fmt::format("Every fixed volume is on the verify list of {}.\n", Quoted(lists.application));
    }
    if (driver)
        Require(store.ClearDriverRegValue({}), "delete the driver's list");
    return Answer(context, Exit::Ok, {{"rebuilt", rebuilt}}, text.empty() ? "The driver's list is deleted.\n" : text);
}

} // namespace

void AddVerifyCommands(CLI::App& app, Context& context)
{
    CLI::App& group = AddGroup(app, "verify", "The lists of volumes whose next backup must verify");
    const auto options = std::make_shared<VerifyOptions>();
    const auto command = [&](const char* name, const char* description,
                             Exit (*run)(const Context&, const VerifyOptions&)) {
        return &AddCommand(group, context, name, description,
                           [&context, options, run] { return run(context, *options); });
    };
    constexpr const char* APP = "application ID, compared exactly";
    constexpr const char* VOLUME = "{...}, \\\\?\\Volume{...}\\ or a mount path such as E:";

    CLI::App* list = command("list", "Show the driver's list and the pending and verify lists", List);
    list->add_option("APP", options->application, "of this application only");
    CLI::App* add = command(
        "add",
        "Put volumes on an application's verify list; not while a backup of it runs, whose success takes them off",
        Add);
    add->add_option("APP", options->application, APP)->required();
    add->add_option("VOLUME", options->volumes, VOLUME);
    add->add_flag("--all", options->all, "every fixed volume");
    CLI::App* remove = command("remove", "Take volumes off an application's verify list", Remove);
    remove->add_option("APP", options->application, APP)->required();
    remove->add_option("VOLUME", options->volumes, VOLUME)->required();
    AddYes(*remove, context, "the entries");
    CLI::App* replicate = command(
        "replicate",
        "Hand the driver's list to the applications, and the pending list to the verify list; not while a backup of the "
        "application runs, whose success takes the marks off",
        Replicate);
    replicate->add_option("APP", options->application, APP)->required();
    CLI::App& rebuild =
        AddCommand(group, context, "rebuild",
                   "Replace lists that cannot be read: every fixed volume must then verify; not while a backup runs, "
                   "whose success takes the marks off",
                   [&context] { return Rebuild(context); });
    AddYes(rebuild, context, "the lists that cannot be read");
}

} // namespace vtfltctl
