#include "library.h"

#include "failure.h"
#include "output.h"

#include "registry/multi_string_value.h"

#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <algorithm>

namespace vtfltctl {
namespace {

Exit ExitOf(DWORD result)
{
    switch (result) {
    case VTFLT_APP_NOT_REGISTERED:
    case VTFLT_NO_APPLICATION:
        return Exit::NotFound;
    case VTFLT_VERIFY_REQUIRED:
        return Exit::VerifyRequired;
    case VTFLT_APP_LIST_FAILED:
    case ERROR_INVALID_DATA:
    case ERROR_ACCESS_DENIED:
        return Exit::Unreadable;
    default:
        return Exit::Device;
    }
}

} // namespace

std::string ResultText(DWORD result)
{
    switch (result) {
    case VTFLT_VERIFY_REQUIRED:
        return "a next backup must verify (0x10001)";
    case VTFLT_MUTEX_ACCESS:
        return "a named mutex could not be had (0x10005)";
    case VTFLT_NO_APPLICATION:
        return "no application is registered (0x10007)";
    case VTFLT_APP_LIST_FAILED:
        return "the list of registered applications cannot be read (0x10008)";
    case VTFLT_APP_NOT_REGISTERED:
        return "the application is not registered (0x10009)";
    case VTFLT_FAILED:
        return "a general failure; the log says more (0xffffffff)";
    default:
        return ErrorText(result);
    }
}

void Require(DWORD result, const std::string& what)
{
    if (result != ERROR_SUCCESS)
        throw Failure(ExitOf(result), fmt::format("cannot {}: {}", what, ResultText(result)));
}

toolkit::RegistryValue ReadApplicationIds()
{
    toolkit::RegistryValue stored = toolkit::ReadMultiString(vtflt::APPLICATION_IDS_KEY, vtflt::APPLICATION_IDS_VALUE);
    // What the library leaves of a list whose last entry was taken off is a single NUL.
    const bool empty = stored.bytes.empty() || stored.bytes == vtflt::RegistryBytes(sizeof(wchar_t));
    if (stored.error == ERROR_SUCCESS && !empty && !vtflt::IsWellFormedMultiString(stored.bytes))
        stored.error = ERROR_INVALID_DATA;
    return stored;
}

std::vector<std::wstring> RegisteredApplications()
{
    // The library takes the bytes of a value of any type for a list.
    const toolkit::RegistryValue stored = ReadApplicationIds();
    if (stored.error == ERROR_INVALID_DATA)
        throw Failure(Exit::Unreadable, "cannot read the list of registered applications: RegisteredAppIDs is no "
                                        "well-formed multi-string");
    // The export would make the key.
    if (stored.error == ERROR_FILE_NOT_FOUND)
        return {};
    std::vector<std::wstring> list;
    if (const DWORD result = VTGetRegisteredAppList(&list); result != ERROR_SUCCESS)
        throw Failure(Exit::Unreadable,
                      fmt::format("cannot read the list of registered applications: {}", ResultText(result)));
    return list;
}

bool IsRegistered(const std::wstring& application)
{
    const std::vector<std::wstring> registered = RegisteredApplications();
    return std::find(registered.begin(), registered.end(), application) != registered.end();
}

void RequireRegistered(const std::wstring& application)
{
    if (application.empty())
        throw Failure(Exit::Usage, "the application ID is empty");
    if (!IsRegistered(application))
        throw Failure(
            Exit::NotFound,
            fmt::format("application {} is not registered; \"vtfltctl apps list\" shows who is", Quoted(application)));
}

} // namespace vtfltctl
