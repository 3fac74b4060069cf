// The folder of log files: which one it is, and making it ready for writers of every account.
#pragma once

#include "log/config_block.h"
#include "win/windows.h"

#include <string_view>

namespace vtflt {

// The folder, with its backslash, of log files that have no path of their own: below the component that owns the logging
// module where one does, else beside the process's executable.
void ResolveLogFolder(DWORD components, wchar_t (&folder)[LOG_PATH_CAPACITY]) noexcept;

// Makes the folder of a log file, with its parents; lets LocalService work in it; switches compression on where it is the
// default folder. False when there is no such folder in the end; the rest is tried and may fail.
bool PrepareLogFolder(std::wstring_view filePath, std::wstring_view defaultFolder) noexcept;

// Whether an access list holds an own, not inherited, entry that gives the account (a SID) all rights that a writer of
// logs needs: to read, write, execute and delete.
bool GrantsModifyRights(ACL* list, void* account) noexcept;

} // namespace vtflt
