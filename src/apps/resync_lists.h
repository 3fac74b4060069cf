// The registry lists of volumes whose next backup must read everything.
//
// One list is the driver's; every registered application has a pending list and a verify list. All are
// multi-string values of the driver's service key, named by a suffix:
//
//     driver list    ""                     written by the driver: volumes that lost tracking
//     pending list   application ID         handed out to the application, not yet taken over
//     verify list    application ID.Last    its next backup of these volumes must verify
//
// Entries are volume GUIDs in braces. Each list has a named mutex of its own.
#pragma once

#include "win/windows.h"

#include <string>
#include <vector>

namespace vtflt {

// The suffix of an application's verify list.
std::wstring MakeVerifyListName(const std::wstring& appId);

// Operations on one list; each takes and releases the list's mutex. All return 0, 0x10005, or the registry's
// error.
class CVolumeListForResync {
public:
    // Appends the list's entries to volumes; an absent list adds nothing. 13 for a value that is not a well-formed
    // multi-string.
    DWORD GetDriverVolumeList(std::vector<std::wstring>& volumes, const std::wstring& suffix);
    // Deletes the list; an absent one is no error.
    DWORD ClearDriverRegValue(const std::wstring& suffix);
    // Writes the list: with replace 0 the given volumes and then the old entries that they do not contain, with
    // replace 1 the given volumes alone (the value is deleted when there are none). A merge whose old list cannot be
    // read writes nothing and returns that error. 87 for an empty volume, and nothing is written.
    DWORD UpdateApplicationValue(const std::vector<std::wstring>& volumes, const std::wstring& suffix, DWORD replace);

private:
    DWORD MergeStoredList(const std::wstring& suffix, std::wstring& text);
};

// Hands the driver's list to the pending list of every registered application.
DWORD ReplicateDriverResyncList();

// Moves an application's pending list into its verify list.
DWORD ReplicateAppResyncList(std::wstring appId);

// Both of the above for a registered application, under the application mutex. 87 for an empty ID, 0x10009 when
// not registered.
DWORD ReplicateVerifyList(std::wstring appId);

// Takes volumes (exact entries) off an application's verify list. 87 for an empty ID, 0x10009 when not registered.
DWORD RemoveApplicationVolResyncList(std::wstring appId, const std::vector<std::wstring>& volumes);

// 1 when the next backup of the volume must verify: it is on the verify list, the list cannot be read, or a bitmap
// file is missing or unusable (the volume then goes on the list). 0 otherwise.
DWORD IsVerifyRequired(std::wstring appId, std::wstring volumePath);

// Puts every fixed volume on the application's verify list. 87 for an empty ID.
DWORD AddVolumesToAppVerifyList(std::wstring appId);

} // namespace vtflt
