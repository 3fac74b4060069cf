// Registering and unregistering: both change what every volume's next fetch hands out, and so take the locks
// of a backup on every volume.
#include "common/application_id.h"
#include "cycle.h"
#include "failure.h"
#include "library.h"
#include "text.h"

#include <vtfltmgr/VTFltMgr.h>

#include <fmt/format.h>

#include <algorithm>

namespace vtbackup {

// A bitmap manager serves only the applications that were registered when it was made. Were an application
// registered in the middle of another one's backup, the changes fetched there would never reach its bitmaps.
std::vector<Lock> LockEverything(const Machine& machine, const std::wstring& application, const wchar_t* work)
{
    std::vector<Lock> locks;
    locks.emplace_back(machine.Locks().Application(application), LockPurpose{application, {}, work},
                       fmt::format("application \"{}\"", ToUtf8(application)));
    for (const VolumeName& volume : FixedVolumes())
        locks.emplace_back(machine.Locks().Volume(volume.guid), LockPurpose{application, volume.guid, work},
                           fmt::format("volume {}", ToUtf8(volume.guid)));
    return locks;
}

bool IsRegistered(const std::wstring& application)
{
    const std::vector<std::wstring> registered = RegisteredApplications();
    return std::find(registered.begin(), registered.end(), application) != registered.end();
}

void RequireDriver()
{
    if (VTCanBLIDriverWork() == 0)
        throw Failure(Exit::DriverDown, "the change-tracking driver does not work on this machine");
}

void CheckApplicationId(const std::wstring& application)
{
    const std::string reason = toolkit::UnsuitableBecause(application, RegisteredApplications());
    if (!reason.empty())
        throw Failure(Exit::Refused, fmt::format("application ID \"{}\" is refused: {}", ToUtf8(application), reason));
}

void RegisterApplication(const Machine& machine, const std::wstring& application)
{
    // Who is registered already needs nothing that a backup of another volume could hold. It is asked again below.
    if (IsRegistered(application))
        return;
    const std::vector<Lock> locks = LockEverything(machine, application, L"register");
    CheckApplicationId(application);
    if (IsRegistered(application))
        return;
    // Fresh bitmaps know nothing of the time before: no chain may go on incrementally from here. Forgetting
    // comes first, so that a crash between the two steps costs a verify and no change.
    machine.State().Forget(ToUtf8(application));
    const DWORD result = VTRegisterApplication(application.c_str());
    if (result != 0)
        throw Failure(Exit::Device, fmt::format("VTRegisterApplication failed: {}", ErrorText(result)));
    // The library answers 0 for an ID that it found as another entry's tail and did not add.
    if (!IsRegistered(application))
        throw Failure(Exit::Refused, fmt::format("application ID \"{}\" was not registered: it reads like the end of "
                                                 "another one",
                                                 ToUtf8(application)));
}

void UnregisterApplication(const Machine& machine, const std::wstring& application)
{
    const std::vector<Lock> locks = LockEverything(machine, application, L"unregister");
    machine.State().Forget(ToUtf8(application));
    const DWORD result = VTUnregisterApplication(application.c_str());
    if (result == VTFLT_APP_NOT_REGISTERED)
        throw Failure(Exit::Refused, fmt::format("application \"{}\" is not registered", ToUtf8(application)));
    if (result != 0)
        throw Failure(Exit::Device, fmt::format("VTUnregisterApplication failed: {}", ErrorText(result)));
}

} // namespace vtbackup
