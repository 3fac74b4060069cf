// Attaching a whole process: what is loaded, and what is loaded later.
#include "run/run.h"

#include "interpose/attach.h"
#include "interpose/hooks.h"
#include "vtfltsim/VTFltSim.h"

#include <psapi.h>
#include <winternl.h>

namespace vtfltsim {

namespace {

// The loader's notifications are documented, but stand in no header.
constexpr ULONG DLL_LOADED = 1;

struct LoadedDll {
    ULONG flags;
    const UNICODE_STRING* fullName;
    const UNICODE_STRING* baseName;
    void* base;
    ULONG size;
};

using NotificationFunction = void(CALLBACK*)(ULONG reason, const LoadedDll* dll, void* context);
using RegisterNotification = NTSTATUS(NTAPI*)(ULONG flags, NotificationFunction function, void* context, void** cookie);

// Never destroyed: modules are loaded until the process ends.
auto& g_machine = *new std::shared_ptr<Machine>();
auto& g_systemFolder = *new std::wstring();

bool IsAttachable(HMODULE module, std::wstring_view path)
{
    HMODULE own = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<const wchar_t*>(&IsAttachable), &own);
    return module != own && !StartsNoCase(path, g_systemFolder);
}

void CALLBACK OnModule(ULONG reason, const LoadedDll* dll, void* /*context*/)
{
    if (reason != DLL_LOADED)
        return;
    const std::wstring_view path(dll->fullName->Buffer, dll->fullName->Length / sizeof(wchar_t));
    const auto module = static_cast<HMODULE>(dll->base);
    try {
        if (IsAttachable(module, path))
            AttachModule(g_machine, module);
    } catch (const std::bad_alloc&) {
        return; // out of a callback of the loader nothing may be thrown
    }
}

DWORD AttachLoadedModules()
{
    std::vector<HMODULE> modules(1024);
    DWORD needed = 0;
    if (!K32EnumProcessModules(GetCurrentProcess(), modules.data(),
                               static_cast<DWORD>(modules.size() * sizeof(HMODULE)), &needed))
        return GetLastError();
    modules.resize(std::min<std::size_t>(modules.size(), needed / sizeof(HMODULE)));
    std::vector<wchar_t> path(32768);
    for (const HMODULE module : modules) {
        const DWORD length = GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
        if (!IsAttachable(module, {path.data(), length}))
            continue;
        const DWORD code = AttachModule(g_machine, module);
        if (code != 0)
            return code;
    }
    return 0;
}

std::wstring SystemFolder()
{
    wchar_t folder[MAX_PATH] = {};
    const UINT length = GetSystemWindowsDirectoryW(folder, MAX_PATH);
    return length != 0 && length < MAX_PATH ? std::wstring(folder) + L"\\" : L"C:\\Windows\\";
}

// So that a program that knows simulated machines can tell under which one it was started. The process stands in the
// variable's name: its children inherit the variable, and not the machine.
void TellProgram(const wchar_t* directory)
{
    std::vector<wchar_t> full(32768);
    const DWORD length = GetFullPathNameW(directory, static_cast<DWORD>(full.size()), full.data(), nullptr);
    const std::string process = std::to_string(GetCurrentProcessId());
    const std::wstring name = L"VTFLTSIM_DIRECTORY_" + std::wstring(process.begin(), process.end());
    SetEnvironmentVariableW(name.c_str(), length != 0 && length < full.size() ? full.data() : directory);
}

} // namespace

DWORD AttachProcess(const wchar_t* directory)
{
    const DWORD opened = Machine::Open(directory, g_machine);
    if (opened != 0)
        return opened;
    g_systemFolder = SystemFolder();
    TellProgram(directory);
    RedirectAddresses();
    // First those that come, then those that are there: none is missed, and attaching one twice is no error.
    const auto registerNotification = reinterpret_cast<RegisterNotification>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "LdrRegisterDllNotification")));
    void* cookie = nullptr;
    if (registerNotification == nullptr || registerNotification(0, OnModule, nullptr, &cookie) != 0)
        return ERROR_PROC_NOT_FOUND;
    return AttachLoadedModules();
}

} // namespace vtfltsim
