// VTFltMgr.dll as this program uses it: results become values or failures.
#pragma once

#include "common/registry_value.h"

#include "win/windows.h"

#include <string>
#include <vector>

namespace vtfltctl {

// A result of the library in words, its own codes included: "the application is not registered (0x10009)".
std::string ResultText(DWORD result);

// Throws Failure when the result is not 0: "cannot WHAT: ...". The exit code follows the result.
void Require(DWORD result, const std::string& what);

// The stored list of applications as it stands. 13 in error for a value of another type, and for one that is not well
// formed: the library then passes over the last ID, or a part of the list.
toolkit::RegistryValue ReadApplicationIds();

// The registered applications, in the order of registration. Throws Failure(Unreadable).
std::vector<std::wstring> RegisteredApplications();
bool IsRegistered(const std::wstring& application);
// Throws Failure(NotFound) for an ID that is not registered, Failure(Usage) for an empty one.
void RequireRegistered(const std::wstring& application);

} // namespace vtfltctl
