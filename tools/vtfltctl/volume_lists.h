// Changes of the stored lists of volumes that lose no entry.
//
// The library's merge drops an old entry that stands anywhere in the new ones, also as a part of one; where all entries
// are {GUID}s that is right, and where others stand it can drop the only mark of a volume. Nothing here does that.
#pragma once

#include "common/registry_value.h"
#include "machine.h"
#include "volume_lock.h"

#include <memory>
#include <string>
#include <vector>

namespace vtfltctl {

// The library's mutex of the registered applications, under which it moves whole lists, and takes the entries off a verify
// list that it is asked to, in more than one hold of the list's own. The success of a backup does not take it. Held by
// whoever changes a list, before all other mutexes of the library. Throws Failure(Busy or Unreadable).
std::unique_ptr<LibraryLock> LockApplications();
// The library's mutex of one list, from the look at it until it is written. Throws Failure(Busy or Unreadable).
std::unique_ptr<LibraryLock> LockList(const std::wstring& suffix);

// A {GUID} as the machine writes it, when it has that volume: the library compares exactly.
std::wstring InOwnSpelling(const std::wstring& guid);

// What a list is called in messages: "the verify list of "App"".
inline constexpr const char* DRIVER_LIST = "the driver's list";
std::string VerifyListName(const std::wstring& application);
std::string PendingListName(const std::wstring& application);

// Whether the application's pending list is the verify list of another one, registered or not.
bool PendsInVerifyList(const std::wstring& application);

// Throws Failure(Unreadable) for a list that the library would fail on, or whose end it does not read.
void RequireReadable(const ListFacts& list, const std::string& name);

// Throws Failure(Damaged) when a list with these entries cannot be written: behind an entry that holds "*" nothing would
// be read any more. leaving: entries that do not come into it.
void RequireWritable(const std::vector<std::wstring>& entries, const std::string& name,
                     const std::vector<std::wstring>& leaving = {});

// Throws Failure(Damaged) when the library, merging entries into a list, would drop one for a part of another: of those that
// come in, or of those that stand in the list before it; the latter also when nothing comes in.
void RequireMergeable(const std::vector<std::wstring>& incoming, const ListFacts& list, const std::string& name);

// Whether an entry of a list stands only behind one that it is a part of: every merge into the list drops it then.
bool AnyHidden(const std::vector<std::wstring>& entries);

// What is kept of a list that is replaced because it cannot be read.
enum class Repair { Refuse, Replace };

// Puts {GUID}s on a list and keeps every entry that is there. What is written has shorter entries in front, so that none
// is hidden; a list that names the {GUID}s already, and hides nothing, stays as it is. A list that is no well-formed
// multi-string (13) is refused, or replaced: by the {GUID}s, every volume that its bytes still name, and, where it is text,
// every string of it that can mean a volume. Throws Failure.
void AddToList(const std::wstring& suffix, const std::vector<std::wstring>& guids, const std::string& name,
               Repair repair = Repair::Refuse);

// Takes an application's entries, exactly as they stand, off its pending list. False, and nothing is changed, when one is
// not there. Throws Failure.
bool TakeOffPending(const std::wstring& application, const std::vector<std::wstring>& entries);

// The stored value of a list, whatever it is.
toolkit::RegistryValue ReadStoredList(const std::wstring& suffix);
// What the bytes of a list still name, whatever is wrong with it: see AddToList. Throws Failure(Unreadable).
std::vector<std::wstring> Salvage(const toolkit::RegistryValue& value);

} // namespace vtfltctl
