// The registry of backup applications: which IDs get changes, in the order of registration.
//
// The list lives in the registry and is read afresh by every operation. Registering and unregistering hold the
// application mutex from the test to the change; reading takes no mutex.
#pragma once

#include "win/windows.h"

#include <string>
#include <vector>

namespace vtflt {

// Adds an application with fresh bitmaps on every fixed volume. 0 also when it is registered already (nothing
// changes then); 160 for an empty ID; 0x10005; else the code of the failing step, the ID not added. When the ID could
// not be added the fresh bitmaps are deleted again; when not every volume could be given fresh ones, those that were
// made stay. When the present list cannot be read, every volume first goes on the application's verify list.
DWORD RegisterApplication(std::wstring appId);

// Removes an application and its bitmaps; first every volume goes on its verify list, which stays. 0; 160;
// 0x10005; 0x10009 when not registered; else the code of the failing step, the application still registered.
DWORD UnregisterApplication(std::wstring appId);

// 1 when the list holds exactly this ID, else 0, also when the list cannot be read (logged).
DWORD IsApplicationRegistered(std::wstring appId);

// Replaces the list's contents by the registered IDs. 0, also when no list exists; else the registry's error,
// with the list empty.
DWORD GetRegisteredAppList(std::vector<std::wstring>& list);

// Counts the registered IDs. 0, also when no list exists (count 0); else the error, with count unchanged.
DWORD GetRegisteredAppCount(DWORD& count);

} // namespace vtflt
