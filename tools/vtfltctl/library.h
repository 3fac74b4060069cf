// VTFltMgr.dll as this program uses it: results become values or failures.
#pragma once

#include "win/windows.h"

#include <string>
#include <vector>

namespace vtfltctl {

// A result of the library in words, its own codes included: "the application is not registered (0x10009)".
std::string ResultText(DWORD result);

// Throws Failure when the result is not 0: "cannot WHAT: ...". The exit code follows the result.
void Require(DWORD result, const std::string& what);

// The registered applications, in the order of registration. Throws Failure(Unreadable).
std::vector<std::wstring> RegisteredApplications();
bool IsRegistered(const std::wstring& application);
// Throws Failure(NotFound) for an ID that is not registered, Failure(Usage) for an empty one.
void RequireRegistered(const std::wstring& application);

} // namespace vtfltctl
