// verify: the lists of volumes whose next backup must verify.
#include "backup_pause.h"
#include "bitmap_live.h"
#include "commands.h"
#include "common/volume_name.h"
#include "fixed_volumes.h"
#include "library.h"
#include "machine_json.h"
#include "volume_lists.h"

#include "apps/resync_lists.h"
#include "apps/resync_text.h"
#include "apps/volume_name.h"

#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <algorithm>
#include <memory>

namespace vtfltctl {
namespace {

// The command line takes "[a,b]" for a and b, which nobody typed.
void RequireNoBrackets(const Context& context, const VerifyOptions& options)
{
    const auto bracketed = [](const std::string& text) { return text.starts_with('[') && text.ends_with(']'); };
    const auto count = std::count_if(context.arguments.begin(), context.arguments.end(), bracketed);
    if (count > (bracketed(options.application) ? 1 : 0))
        throw Failure(Exit::Usage,
                      "a volume in square brackets cannot be given: write each without them; an entry that "
                      "has them is taken off in the registry");
}

// Replicating merges nothing into a list for which there is nothing.
void RequireLibraryMerges(const std::vector<std::wstring>& incoming, const ListFacts& list, const std::string& name)
{
    if (!incoming.empty())
        RequireMergeable(incoming, list, name);
}

// Every list that replicating reads, held against what it would merge into it.
void RequireReplicable(const std::wstring& application)
{
    const ListFacts driver = ReadVolumeList({});
    RequireReadable(driver, DRIVER_LIST);
    std::vector<std::wstring> handedOut;
    std::vector<std::wstring> kept;
    vtflt::SplitDriverList(driver.entries, handedOut, kept);
    if (!handedOut.empty())
        RequireWritable(driver.entries, DRIVER_LIST);
    // Every application merges what it is handed into its verify list, on a day when nobody looks.
    for (const std::wstring& entry : handedOut) {
        if (toolkit::ParseVolumeGuid(entry) != entry)
            throw Failure(Exit::Damaged,
                          fmt::format("{} holds {}, which is no volume's {{GUID}}, and would hand it to every "
                                      "application; \"vtfltctl doctor\" says what to do",
                                      DRIVER_LIST, Quoted(entry)));
        if (InOwnSpelling(entry) != entry)
            throw Failure(Exit::Damaged,
                          fmt::format("{} holds {}, a volume in other case than the system's, which would mark no "
                                      "volume; \"vtfltctl doctor\" says what to do",
                                      DRIVER_LIST, Quoted(entry)));
    }
    for (const std::wstring& registered : RegisteredApplications()) {
        if (registered.empty()) // its pending list is the driver's list
            continue;
        const ListFacts pending = ReadVolumeList(registered);
        RequireReadable(pending, PendingListName(registered));
        RequireLibraryMerges(handedOut, pending, PendingListName(registered));
        if (registered != application)
            continue;
        const ListFacts verify = ReadVolumeList(vtflt::MakeVerifyListName(application));
        RequireReadable(verify, VerifyListName(application));
        std::vector<std::wstring> incoming = handedOut;
        incoming.insert(incoming.end(), pending.entries.begin(), pending.entries.end());
        RequireLibraryMerges(incoming, verify, VerifyListName(application));
    }
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

} // namespace

Exit ListVerify(const Context& context, const VerifyOptions& options)
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

namespace {

// What a changing command answers: the lists as they are now.
Exit Changed(const Context& context, const std::wstring& application, const std::string& text)
{
    return Answer(context, Exit::Ok, ListsOf(application), text);
}

bool IsEntry(const ListFacts& list, const std::wstring& text)
{
    return std::find(list.entries.begin(), list.entries.end(), text) != list.entries.end();
}

// The exports answer 0 also when the driver went down since it was looked at, and then do nothing.
void RequireEveryVolume(const ListFacts& list)
{
    for (const std::wstring& guid : FixedVolumeGuids()) {
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

} // namespace

Exit AddVerify(const Context& context, const VerifyOptions& options)
{
    if (options.all == !options.volumes.empty())
        throw Failure(Exit::Usage, "name volumes, or give --all");
    RequireNoBrackets(context, options);
    const std::wstring application = ToWide(options.application);
    RequireRegistered(application);
    std::vector<std::wstring> guids;
    for (const std::string& volume : options.volumes)
        guids.push_back(vtflt::GetVolumeGuid(bitmap::FindVolumeByName(ToWide(volume)).path));
    const std::wstring suffix = vtflt::MakeVerifyListName(application);
    const BackupPause pause(context, application);
    const std::unique_ptr<LibraryLock> lock = LockApplications();
    if (options.all) {
        const ListFacts list = ReadVolumeList(suffix);
        RequireReadable(list, VerifyListName(application));
        RequireMergeable(FixedVolumeGuids(), list, VerifyListName(application));
        RequireDriver();
        Require(VTAddVolumesToAppVerifyList(application.c_str()), "put every volume on the verify list");
        RequireEveryVolume(ReadVolumeList(suffix));
        return Changed(context, application,
                       fmt::format("Every fixed volume is on the verify list of {}.\n", Quoted(application)));
    }
    // The export knows all volumes or none.
    AddToList(suffix, guids, VerifyListName(application));
    return Changed(context, application,
                   fmt::format("{} on the verify list of {}.\n",
                               CountText(guids.size(), "volume") + (guids.size() == 1 ? " is" : " are"),
                               Quoted(application)));
}

namespace {

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
        if (options.exact)
            throw Failure(Exit::NotFound, fmt::format("the list has no entry {}", Quoted(text)));
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

void RemovePending(const std::wstring& application, const std::vector<std::wstring>& entries)
{
    if (PendsInVerifyList(application))
        throw Failure(Exit::Refused, fmt::format("the pending list of {} is the verify list of {}", Quoted(application),
                                                 Quoted(application.substr(0, application.size() - 5))));
    if (!TakeOffPending(application, entries))
        throw Failure(Exit::NotFound, "the pending list has changed meanwhile");
}

} // namespace

Exit RemoveVerify(const Context& context, const VerifyOptions& options)
{
    RequireNoBrackets(context, options);
    const std::wstring application = ToWide(options.application);
    RequireRegistered(application);
    const BackupPause pause(context, application);
    const std::unique_ptr<LibraryLock> lock = LockApplications();
    const std::string name = options.pending ? PendingListName(application) : VerifyListName(application);
    const std::wstring suffix = options.pending ? application : vtflt::MakeVerifyListName(application);
    // The library reads the list and replaces it in two holds of this mutex. Who marks a volume takes no other one.
    const std::unique_ptr<LibraryLock> listLock = LockList(suffix);
    const ListFacts list = ReadVolumeList(suffix);
    RequireReadable(list, name);
    std::vector<std::wstring> entries = FindEntries(list, options);
    RequireWritable(list.entries, name, entries);
    RequireYes(context, fmt::format("would take {} off {}; the next backup then trusts the bitmaps",
                                    CountText(entries.size(), "volume"), name));
    if (options.pending)
        RemovePending(application, entries);
    else
        Require(VTRemoveApplicationVolResyncList(application, &entries), "write " + name);
    return Changed(context, application,
                   fmt::format("{} taken off {}.\n",
                               CountText(entries.size(), "volume") + (entries.size() == 1 ? " is" : " are"), name));
}

namespace {

// The export answers 0 also when the driver went down since it was looked at, and then does nothing.
void RequireTakenOver(const std::wstring& application, const std::vector<std::wstring>& waiting)
{
    const ListFacts verify = ReadVolumeList(vtflt::MakeVerifyListName(application));
    for (const std::wstring& entry : waiting) {
        if (!IsEntry(verify, entry))
            throw Failure(
                Exit::DriverDown,
                fmt::format("{} did not come onto the verify list: the driver went down meanwhile", Quoted(entry)));
    }
}

} // namespace

Exit ReplicateVerify(const Context& context, const VerifyOptions& options)
{
    const std::wstring application = ToWide(options.application);
    RequireRegistered(application);
    if (PendsInVerifyList(application))
        throw Failure(Exit::Refused,
                      fmt::format("the pending list of {} is the verify list of {}, whose marks would be taken off; "
                                  "unregister {}",
                                  Quoted(application), Quoted(application.substr(0, application.size() - 5)),
                                  Quoted(application)));
    const BackupPause pause(context, application);
    const std::unique_ptr<LibraryLock> lock = LockApplications();
    RequireReplicable(application);
    RequireDriver();
    const std::vector<std::wstring> waiting = Waiting(application);
    Require(VTReplicateVerifyList(application.c_str()), "replicate the lists");
    RequireTakenOver(application, waiting);
    return Changed(context, application,
                   fmt::format("The driver's list is handed to every application, and the pending list of {} is in its "
                               "verify list:{}",
                               Quoted(application), Entries(ReadVolumeList(vtflt::MakeVerifyListName(application)))));
}

} // namespace vtfltctl
