#include "volume_lists.h"

#include "bitmap_bytes.h"
#include "common/text.h"
#include "common/volume_name.h"
#include "failure.h"
#include "library.h"
#include "list_entry.h"
#include "output.h"

#include "apps/mutex_controller.h"
#include "apps/resync_lists.h"
#include "apps/resync_text.h"
#include "win/windows.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl {
namespace {

constexpr DWORD REPLACE_LIST = 1;

// The library takes the same mutex once more for each of its own steps.
std::unique_ptr<LibraryLock> Lock(const std::wstring& mutexName, const char* what)
{
    try {
        return std::make_unique<LibraryLock>(mutexName);
    } catch (const bitmap::ReadError& error) {
        if (error.Code() == WAIT_TIMEOUT)
            throw Failure(Exit::Busy, fmt::format("another program keeps {} to itself; run this again", what));
        throw Failure(Exit::Unreadable, fmt::format("cannot lock {}: {}", what, ErrorText(error.Code())));
    }
}

void Replace(const std::wstring& suffix, const std::vector<std::wstring>& entries, const std::string& name)
{
    vtflt::CVolumeListForResync lists;
    Require(lists.UpdateApplicationValue(entries, suffix, REPLACE_LIST), "write " + name);
}

void AddMissing(std::vector<std::wstring>& to, const std::vector<std::wstring>& from)
{
    for (const std::wstring& entry : from) {
        if (!Contains(to, entry))
            to.push_back(entry);
    }
}

// Then no entry stands behind one that it is a part of, and no merge drops one for another of the same list.
void PutShorterFirst(std::vector<std::wstring>& entries)
{
    std::stable_sort(entries.begin(), entries.end(),
                     [](const std::wstring& a, const std::wstring& b) { return a.size() < b.size(); });
}

// The bytes from an offset on as UTF-16.
std::wstring TextFrom(const vtflt::RegistryBytes& bytes, std::size_t offset)
{
    std::wstring text;
    for (std::size_t i = offset; i + 1 < bytes.size(); i += 2)
        text += static_cast<wchar_t>(bytes[i] | bytes[i + 1] << 8);
    return text;
}

} // namespace

std::wstring InOwnSpelling(const std::wstring& guid)
{
    std::vector<std::wstring> paths;
    toolkit::EnumerateVolumePaths(paths); // as far as it goes
    for (const std::wstring& path : paths) {
        const std::optional<std::wstring> known = toolkit::ParseVolumeGuid(path);
        if (known && toolkit::EqualIgnoringCase(*known, guid))
            return *known;
    }
    return guid;
}

std::unique_ptr<LibraryLock> LockApplications()
{
    return Lock(vtflt::BuildApplicationMutexName(), "the registered applications");
}

std::unique_ptr<LibraryLock> LockList(const std::wstring& suffix)
{
    return Lock(vtflt::BuildMutexName(vtflt::MakeListValueName(suffix)), "a list of volumes");
}

std::string VerifyListName(const std::wstring& application)
{
    return "the verify list of " + Quoted(application);
}

std::string PendingListName(const std::wstring& application)
{
    return "the pending list of " + Quoted(application);
}

bool PendsInVerifyList(const std::wstring& application)
{
    return toolkit::EndsWithIgnoringCase(application, L".Last");
}

void RequireReadable(const ListFacts& list, const std::string& name)
{
    if (list.error == ERROR_INVALID_DATA)
        throw Failure(Exit::Unreadable, fmt::format("{} {}; \"vtfltctl verify rebuild --yes\" puts a safe one in its "
                                                    "place",
                                                    name, WhyDamaged(list)));
    if (list.error != ERROR_SUCCESS)
        throw Failure(Exit::Unreadable, fmt::format("{} cannot be read: {}", name, ErrorText(list.error)));
}

void RequireWritable(const std::vector<std::wstring>& entries, const std::string& name,
                     const std::vector<std::wstring>& leaving)
{
    for (const std::wstring& entry : entries) {
        if (entry.find(ENTRY_SEPARATOR) != std::wstring::npos && !Contains(leaving, entry))
            throw Failure(
                Exit::Damaged,
                fmt::format(
                    "{} holds {}: with \"*\" in an entry what stands behind it would be lost when the "
                    "list is written; take it off first, in the registry if \"vtfltctl verify remove\" does not "
                    "reach it",
                    name, Quoted(entry)));
    }
}

void RequireMergeable(const std::vector<std::wstring>& incoming, const ListFacts& list, const std::string& name)
{
    RequireWritable(incoming, "what comes into " + name);
    RequireWritable(list.entries, name);
    std::wstring text;
    for (const std::wstring& entry : incoming)
        vtflt::AppendToListText(text, entry);
    // As the library does it: what it has kept so far is searched for the next one.
    std::vector<std::wstring> kept = incoming;
    for (const std::wstring& entry : list.entries) {
        if (Contains(kept, entry))
            continue;
        if (vtflt::ListTextHolds(text, entry))
            throw Failure(
                Exit::Damaged,
                fmt::format(
                    "{} would lose {}, which the library takes for a part of another entry; \"vtfltctl doctor\" "
                    "says which one to mend first",
                    name, Quoted(entry)));
        vtflt::AppendToListText(text, entry);
        kept.push_back(entry);
    }
}

bool AnyHidden(const std::vector<std::wstring>& entries)
{
    return std::any_of(entries.begin(), entries.end(), [&](const std::wstring& entry) {
        const auto first = std::find_if(entries.begin(), entries.end(), [&](const std::wstring& other) {
            return other.find(entry) != std::wstring::npos;
        });
        return *first != entry;
    });
}

void AddToList(const std::wstring& suffix, const std::vector<std::wstring>& guids, const std::string& name,
               Repair repair)
{
    const std::unique_ptr<LibraryLock> lock = LockList(suffix);
    const ListFacts list = ReadVolumeList(suffix);
    std::vector<std::wstring> entries = guids;
    if (list.error == ERROR_INVALID_DATA && repair == Repair::Replace) {
        AddMissing(entries, Salvage(ReadStoredList(suffix)));
        PutShorterFirst(entries);
        Replace(suffix, entries, name);
        return;
    }
    RequireReadable(list, name);
    RequireWritable(list.entries, name);
    if (!AnyHidden(list.entries) &&
        std::all_of(guids.begin(), guids.end(), [&](const std::wstring& guid) { return Contains(list.entries, guid); }))
        return;
    AddMissing(entries, list.entries);
    PutShorterFirst(entries);
    Replace(suffix, entries, name);
}

bool TakeOffPending(const std::wstring& application, const std::vector<std::wstring>& entries)
{
    const std::string name = PendingListName(application);
    const std::unique_ptr<LibraryLock> lock = LockList(application);
    const ListFacts list = ReadVolumeList(application);
    RequireReadable(list, name);
    if (std::any_of(entries.begin(), entries.end(),
                    [&](const std::wstring& entry) { return !Contains(list.entries, entry); }))
        return false;
    RequireWritable(list.entries, name, entries);
    std::vector<std::wstring> left = list.entries;
    std::erase_if(left, [&](const std::wstring& entry) { return Contains(entries, entry); });
    Replace(application, left, name);
    return true;
}

toolkit::RegistryValue ReadStoredList(const std::wstring& suffix)
{
    return toolkit::ReadRegistryValue(vtflt::RESYNC_LISTS_KEY, vtflt::MakeListValueName(suffix));
}

std::vector<std::wstring> Salvage(const toolkit::RegistryValue& value)
{
    if (value.error != ERROR_SUCCESS && value.error != ERROR_FILE_NOT_FOUND)
        throw Failure(Exit::Unreadable,
                      fmt::format("a list cannot be read, so what it names is not known: {}", ErrorText(value.error)));
    std::vector<std::wstring> found;
    for (const std::wstring& text :
         {TextFrom(value.bytes, 0), TextFrom(value.bytes, 1), std::wstring(value.bytes.begin(), value.bytes.end())}) {
        for (const std::wstring& guid : GuidsIn(text))
            AddMissing(found, {InOwnSpelling(guid)});
    }
    if (value.type != REG_SZ && value.type != REG_EXPAND_SZ && value.type != REG_MULTI_SZ)
        return found;
    std::wstring text = TextFrom(value.bytes, 0) + L'\0';
    for (std::size_t end = text.find(L'\0'); end != std::wstring::npos; end = text.find(L'\0')) {
        const std::wstring entry = text.substr(0, end);
        text.erase(0, end + 1);
        if (!entry.empty() && GuidsIn(entry).empty() && CanMatchVolume(entry))
            AddMissing(found, {entry});
    }
    return found;
}

} // namespace vtfltctl
