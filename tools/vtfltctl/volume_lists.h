// Changes of the stored lists of volumes that lose no entry.
//
// The library's merge drops an old entry that stands anywhere in the new ones, also as a part of one; where all entries
// are {GUID}s that is right, and where others stand it can drop the only mark of a volume. Nothing here does that.
#pragma once

#include "machine.h"

#include <string>
#include <vector>

namespace vtfltctl {

// What a list is called in messages: "the verify list of "App"".
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

// Throws Failure(Damaged) when the library, merging entries into a list, would drop one for a part of another.
void RequireMergeable(const std::vector<std::wstring>& incoming, const ListFacts& list, const std::string& name);

// What is kept of a list that is replaced because it cannot be read.
enum class Repair { Refuse, Replace };

// Puts {GUID}s on a list and keeps every entry that is there. A list that is no well-formed multi-string (13) is refused,
// or replaced: by the {GUID}s, every volume that its bytes still name, and, where it is text, every string of it that can
// mean a volume. Throws Failure.
void AddToList(const std::wstring& suffix, const std::vector<std::wstring>& guids, const std::string& name,
               Repair repair = Repair::Refuse);

// Takes an application's entries, exactly as they stand, off its pending list. False, and nothing is changed, when one is
// not there. Throws Failure.
bool TakeOffPending(const std::wstring& application, const std::vector<std::wstring>& entries);

// What the bytes of a list still name, whatever is wrong with it: see AddToList.
std::vector<std::wstring> Salvage(const std::wstring& suffix);

} // namespace vtfltctl
