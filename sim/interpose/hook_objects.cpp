// Named kernel objects, services, started programs.
#include "interpose/attach.h"
#include "interpose/calls.h"
#include "interpose/handles.h"
#include "interpose/hook_functions.h"

namespace vtfltsim {

namespace {

std::wstring TextOf(const wchar_t* text)
{
    return text != nullptr ? text : L"";
}

template <class Open>
HANDLE Opening(Hook hook, OpenKind kind, const wchar_t* name, Open open)
{
    return Call<HANDLE>(
        hook, nullptr, [&] { return TextOf(name); },
        [&](const Verdict&) {
            const HANDLE handle = open();
            if (handle != nullptr)
                handles::NoteOpened(kind, handle, TextOf(name));
            return handle;
        });
}

HANDLE WINAPI SimCreateMutexW(LPSECURITY_ATTRIBUTES security, BOOL owned, LPCWSTR name)
{
    const calls::Arguments arguments(
        [&] { return L"owned " + Decimal(owned != FALSE) + L"|security " + Decimal(security != nullptr); });
    return Opening(Hook::CreateMutexW, OpenKind::Mutex, name, [&] { return CreateMutexW(security, owned, name); });
}

HANDLE WINAPI SimOpenMutexW(DWORD access, BOOL inherit, LPCWSTR name)
{
    const calls::Arguments arguments(
        [&] { return L"access " + Hexadecimal(access) + L"|inherit " + Decimal(inherit != FALSE); });
    return Opening(Hook::OpenMutexW, OpenKind::Mutex, name, [&] { return OpenMutexW(access, inherit, name); });
}

HANDLE WINAPI SimCreateEventW(LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL signalled, LPCWSTR name)
{
    return Opening(Hook::CreateEventW, OpenKind::Other, name,
                   [&] { return CreateEventW(security, manual, signalled, name); });
}

HANDLE WINAPI SimOpenEventW(DWORD access, BOOL inherit, LPCWSTR name)
{
    return Opening(Hook::OpenEventW, OpenKind::Other, name, [&] { return OpenEventW(access, inherit, name); });
}

HANDLE WINAPI SimCreateFileMappingW(HANDLE file, LPSECURITY_ATTRIBUTES security, DWORD protection, DWORD high,
                                    DWORD low, LPCWSTR name)
{
    return Opening(Hook::CreateFileMappingW, OpenKind::Other, name,
                   [&] { return CreateFileMappingW(file, security, protection, high, low, name); });
}

HANDLE WINAPI SimOpenFileMappingW(DWORD access, BOOL inherit, LPCWSTR name)
{
    return Opening(Hook::OpenFileMappingW, OpenKind::Other, name,
                   [&] { return OpenFileMappingW(access, inherit, name); });
}

BOOL WINAPI SimReleaseMutex(HANDLE mutex)
{
    return Call<BOOL>(
        Hook::ReleaseMutex, FALSE, [&] { return handles::TextOf(OpenKind::Mutex, mutex); },
        [&](const Verdict&) {
            const BOOL released = ReleaseMutex(mutex);
            const LastErrorKeeper keeper;
            if (released)
                handles::NoteMutexOwned(mutex, -1);
            return released;
        });
}

DWORD Wait(HANDLE handle, DWORD milliseconds)
{
    if (const auto process = handles::Find<ProcessObject>(OpenKind::Process, handle))
        return process->hangs ? WAIT_TIMEOUT : WAIT_OBJECT_0; // nobody sits out the minutes of a simulated program
    const DWORD result = WaitForSingleObject(handle, milliseconds);
    const LastErrorKeeper keeper;
    if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED)
        handles::NoteMutexOwned(handle, 1);
    return result;
}

DWORD WINAPI SimWaitForSingleObject(HANDLE handle, DWORD milliseconds)
{
    return Call<DWORD>(
        Hook::WaitForSingleObject, WAIT_FAILED,
        [&] { return handles::TextOf(OpenKind::Mutex, handle) + L"|" + Decimal(milliseconds); },
        [&](const Verdict&) { return Wait(handle, milliseconds); });
}

DWORD ServiceState(Machine& machine)
{
    DWORD state = 0;
    machine.Change([&](model::MachineRecord& record) { state = record.service; });
    return state;
}

SC_HANDLE OpenManager(const std::shared_ptr<Machine>& machine)
{
    if (ServiceState(*machine) == VTFLTSIM_SERVICE_MANAGER_REFUSED) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    auto service = std::make_shared<ServiceObject>();
    service->machine = machine;
    return reinterpret_cast<SC_HANDLE>(handles::OpenSimulated(OpenKind::Service, L"service manager", service));
}

SC_HANDLE WINAPI SimOpenSCManagerW(LPCWSTR computer, LPCWSTR database, DWORD access)
{
    const calls::Arguments arguments(
        [&] { return L"database " + Decimal(database != nullptr) + L"|access " + Hexadecimal(access); });
    return Call<SC_HANDLE>(
        Hook::OpenSCManagerW, nullptr, [&] { return TextOf(computer); },
        [&](const Verdict&) {
            const auto machine = AttachedMachine();
            return machine != nullptr ? OpenManager(machine) : OpenSCManagerW(computer, database, access);
        });
}

SC_HANDLE OpenNamedService(ServiceObject& manager, const wchar_t* name)
{
    const DWORD state = ServiceState(*manager.machine);
    DWORD code = EqualNoCase(TextOf(name), L"VTFlt") ? 0 : ERROR_SERVICE_DOES_NOT_EXIST;
    if (code == 0 && state == VTFLTSIM_SERVICE_ABSENT)
        code = ERROR_SERVICE_DOES_NOT_EXIST;
    if (code == 0 && state == VTFLTSIM_SERVICE_REFUSED)
        code = ERROR_ACCESS_DENIED;
    if (code != 0) {
        SetLastError(code);
        return nullptr;
    }
    auto service = std::make_shared<ServiceObject>();
    service->machine = manager.machine;
    return reinterpret_cast<SC_HANDLE>(handles::OpenSimulated(OpenKind::Service, TextOf(name), service));
}

SC_HANDLE WINAPI SimOpenServiceW(SC_HANDLE manager, LPCWSTR name, DWORD access)
{
    const calls::Arguments arguments([&] { return L"access " + Hexadecimal(access); });
    return Call<SC_HANDLE>(
        Hook::OpenServiceW, nullptr, [&] { return TextOf(name); },
        [&](const Verdict&) {
            const auto object = handles::Find<ServiceObject>(OpenKind::Service, manager);
            return object != nullptr ? OpenNamedService(*object, name) : OpenServiceW(manager, name, access);
        });
}

BOOL WINAPI SimCloseServiceHandle(SC_HANDLE service)
{
    return Call<BOOL>(
        Hook::CloseServiceHandle, FALSE, [&] { return handles::TextOf(OpenKind::Service, service); },
        [&](const Verdict&) {
            const bool simulated = handles::IsKnown(OpenKind::Service, service);
            return handles::Closing<BOOL>(OpenKind::Service, service, TRUE, [&] {
                return simulated ? CloseHandle(reinterpret_cast<HANDLE>(service)) : CloseServiceHandle(service);
            });
        });
}

BOOL StartUtility(Machine& machine, const std::wstring& commandLine, PROCESS_INFORMATION* information)
{
    const UtilityRun run = machine.RunUtility(commandLine);
    if (run.launchError != 0) {
        SetLastError(run.launchError);
        return FALSE;
    }
    auto process = std::make_shared<ProcessObject>();
    process->exitCode = run.exitCode;
    process->hangs = run.hangs;
    information->hProcess = handles::OpenSimulated(OpenKind::Process, commandLine, process);
    information->hThread = handles::OpenSimulated(OpenKind::Process, commandLine + L" (thread)", process);
    information->dwProcessId = 0;
    information->dwThreadId = 0;
    return information->hProcess != nullptr && information->hThread != nullptr;
}

BOOL WINAPI SimCreateProcessW(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                              LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags, LPVOID environment,
                              LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION information)
{
    const calls::Arguments arguments([&] {
        const STARTUPINFOW none = {};
        const STARTUPINFOW& start = startup != nullptr ? *startup : none;
        return L"application " + Decimal(application != nullptr) + L"|inherit " + Decimal(inherit != FALSE) +
               L"|flags " + Hexadecimal(flags) + L"|environment " + Decimal(environment != nullptr) + L"|directory " +
               Decimal(directory != nullptr) + L"|startup " + Hexadecimal(start.dwFlags) + L"|show " +
               Decimal(start.wShowWindow);
    });
    return Call<BOOL>(
        Hook::CreateProcessW, FALSE, [&] { return TextOf(commandLine); },
        [&](const Verdict&) -> BOOL {
            const auto machine = AttachedMachine();
            const bool isUtility = ContainsNoCase(TextOf(application), L"VTFltUtl.exe") ||
                                   ContainsNoCase(TextOf(commandLine), L"VTFltUtl.exe");
            if (machine != nullptr && isUtility)
                return StartUtility(*machine, TextOf(commandLine), information);
            if (!CreateProcessW(application, commandLine, processSecurity, threadSecurity, inherit, flags, environment,
                                directory, startup, information))
                return FALSE;
            handles::NoteOpened(OpenKind::Process, information->hProcess, TextOf(commandLine));
            handles::NoteOpened(OpenKind::Process, information->hThread, TextOf(commandLine) + L" (thread)");
            return TRUE;
        });
}

BOOL WINAPI SimGetExitCodeProcess(HANDLE handle, LPDWORD exitCode)
{
    return Call<BOOL>(
        Hook::GetExitCodeProcess, FALSE, [&] { return handles::TextOf(OpenKind::Process, handle); },
        [&](const Verdict&) -> BOOL {
            const auto process = handles::Find<ProcessObject>(OpenKind::Process, handle);
            if (process == nullptr)
                return GetExitCodeProcess(handle, exitCode);
            *exitCode = process->hangs ? STILL_ACTIVE : process->exitCode;
            return TRUE;
        });
}

BOOL WINAPI SimTerminateProcess(HANDLE handle, UINT exitCode)
{
    return Call<BOOL>(
        Hook::TerminateProcess, FALSE, [&] { return handles::TextOf(OpenKind::Process, handle); },
        [&](const Verdict&) -> BOOL {
            const auto process = handles::Find<ProcessObject>(OpenKind::Process, handle);
            if (process == nullptr)
                return TerminateProcess(handle, exitCode);
            process->hangs = false;
            process->exitCode = exitCode;
            return TRUE;
        });
}

} // namespace

VTFLTSIM_DEFINE(CreateMutexW, SimCreateMutexW)
VTFLTSIM_DEFINE(OpenMutexW, SimOpenMutexW)
VTFLTSIM_DEFINE(ReleaseMutex, SimReleaseMutex)
VTFLTSIM_DEFINE(WaitForSingleObject, SimWaitForSingleObject)
VTFLTSIM_DEFINE(CreateEventW, SimCreateEventW)
VTFLTSIM_DEFINE(OpenEventW, SimOpenEventW)
VTFLTSIM_DEFINE(CreateFileMappingW, SimCreateFileMappingW)
VTFLTSIM_DEFINE(OpenFileMappingW, SimOpenFileMappingW)
VTFLTSIM_DEFINE(OpenSCManagerW, SimOpenSCManagerW)
VTFLTSIM_DEFINE(OpenServiceW, SimOpenServiceW)
VTFLTSIM_DEFINE(CloseServiceHandle, SimCloseServiceHandle)
VTFLTSIM_DEFINE(CreateProcessW, SimCreateProcessW)
VTFLTSIM_DEFINE(GetExitCodeProcess, SimGetExitCodeProcess)
VTFLTSIM_DEFINE(TerminateProcess, SimTerminateProcess)

} // namespace vtfltsim
