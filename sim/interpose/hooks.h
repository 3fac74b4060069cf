// The imports that are redirected, by name.
#pragma once

#include "interpose/win.h"

namespace vtfltsim {

// clang-format off
// Functions with a meaning of their own on a simulated machine, or whose handles are accounted for.
#define VTFLTSIM_OWN_HOOKS(X)                                                                                          \
    X(CreateFileW) X(ReadFile) X(WriteFile) X(SetFilePointer) X(SetFilePointerEx) X(GetFileSizeEx) X(GetFileSize)      \
    X(SetEndOfFile) X(FlushFileBuffers) X(DeviceIoControl) X(CloseHandle)                                              \
    X(DeleteFileW) X(CreateDirectoryW) X(RemoveDirectoryW) X(SetFileAttributesW) X(GetFileAttributesW)                 \
    X(GetFileAttributesExW) X(MoveFileExW) X(MoveFileW) X(CopyFileW)                                                   \
    X(FindFirstFileW) X(FindFirstFileExW) X(FindNextFileW) X(FindClose)                                                \
    X(FindFirstVolumeW) X(FindNextVolumeW) X(FindVolumeClose) X(GetDriveTypeW)                                         \
    X(GetVolumePathNamesForVolumeNameW) X(GetVolumeNameForVolumeMountPointW)                                           \
    X(OpenSCManagerW) X(OpenServiceW) X(CloseServiceHandle)                                                            \
    X(CreateProcessW) X(GetExitCodeProcess) X(TerminateProcess)                                                        \
    X(RegCreateKeyExW) X(RegCreateKeyW) X(RegOpenKeyExW) X(RegOpenKeyW) X(RegDeleteKeyW) X(RegDeleteTreeW)             \
    X(RegQueryValueExW) X(RegSetValueExW) X(RegDeleteValueW) X(RegCloseKey)                                            \
    X(CreateMutexW) X(OpenMutexW) X(ReleaseMutex) X(WaitForSingleObject)                                               \
    X(CreateEventW) X(OpenEventW) X(CreateFileMappingW) X(OpenFileMappingW)

// Functions that always go to the system, and can be counted, recorded and made to fail.
#define VTFLTSIM_PASSED_HOOKS(X)                                                                                       \
    X(SetEvent) X(ResetEvent) X(MapViewOfFile) X(UnmapViewOfFile) X(GetLocalTime) X(GetComputerNameW) X(GetVersionExW) \
    X(GetNativeSystemInfo) X(IsWow64Process) X(GetModuleFileNameW) X(GetModuleHandleExW) X(GetModuleHandleW)           \
    X(GetProcAddress) X(GetTempPathW) X(VirtualQuery) X(GetAce) X(InitializeSecurityDescriptor)                        \
    X(SetSecurityDescriptorDacl) X(ConvertStringSidToSidW) X(GetNamedSecurityInfoW) X(SetEntriesInAclW)                \
    X(SetNamedSecurityInfoW) X(GetFileVersionInfoSizeW) X(GetFileVersionInfoW) X(VerQueryValueW) X(UuidCreate)         \
    X(RegEnumValueW) X(RegEnumKeyExW) X(RegQueryInfoKeyW) X(LocalAlloc) X(HeapAlloc) X(malloc) X(calloc) X(realloc)

enum class Hook : unsigned {
#define VTFLTSIM_NAME(name) name,
    VTFLTSIM_OWN_HOOKS(VTFLTSIM_NAME) VTFLTSIM_PASSED_HOOKS(VTFLTSIM_NAME)
#undef VTFLTSIM_NAME
    Count
};
// clang-format on

inline constexpr unsigned HOOK_COUNT = static_cast<unsigned>(Hook::Count);

// Memory functions are called all the time: they are never recorded.
inline constexpr bool IsMemoryHook(Hook hook)
{
    return hook >= Hook::LocalAlloc;
}

struct HookEntry {
    const char* name;
    void* replacement;
    bool passed; // calls the original through OriginalOf
};

// The table, in the order of the enumeration.
const HookEntry* HookTable();
const wchar_t* HookName(Hook hook);
// HOOK_COUNT when no such import is redirected.
unsigned FindHook(const char* name);
unsigned FindHook(const wchar_t* name);

// From now on GetProcAddress, called by an attached module, gives the replacements of functions with a meaning of their own
// on a simulated machine: for programs that bind by name what they call.
void RedirectAddresses();

// What the first attached module's import of a passed function pointed to.
void* OriginalOf(Hook hook);

} // namespace vtfltsim
