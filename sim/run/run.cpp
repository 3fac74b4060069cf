// Starting an unmodified program: it is made suspended, two threads in it load this DLL and attach its modules, and then it
// goes on.
#include "run/run.h"

#include "vtfltsim/VTFltSim.h"

#include <tlhelp32.h>

namespace vtfltsim {

namespace {

// A piece of another process's memory.
class RemoteText {
public:
    RemoteText(HANDLE process, const std::wstring& text) : m_process(process)
    {
        const std::size_t bytes = (text.size() + 1) * sizeof(wchar_t);
        m_address = VirtualAllocEx(process, nullptr, bytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
        if (m_address != nullptr && !WriteProcessMemory(process, m_address, text.c_str(), bytes, nullptr))
            Free();
    }
    RemoteText(const RemoteText&) = delete;
    RemoteText& operator=(const RemoteText&) = delete;
    ~RemoteText() { Free(); }
    [[nodiscard]] void* get() const noexcept { return m_address; }

private:
    void Free() noexcept
    {
        if (m_address != nullptr)
            VirtualFreeEx(m_process, m_address, 0, MEM_RELEASE);
        m_address = nullptr;
    }

    HANDLE m_process;
    void* m_address = nullptr;
};

// Calls a function of another process with one argument, and waits for its result.
DWORD CallThere(HANDLE process, void* function, void* argument, DWORD& result)
{
    const Handle thread(CreateRemoteThread(process, nullptr, 0, reinterpret_cast<LPTHREAD_START_ROUTINE>(function),
                                           argument, 0, nullptr));
    if (!thread)
        return GetLastError();
    if (WaitForSingleObject(thread.get(), INFINITE) != WAIT_OBJECT_0 || !GetExitCodeThread(thread.get(), &result))
        return GetLastError();
    return 0;
}

HMODULE OwnModule()
{
    HMODULE own = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<const wchar_t*>(&OwnModule), &own);
    return own;
}

std::wstring PathOf(HMODULE module)
{
    std::vector<wchar_t> path(32768);
    const DWORD length = GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
    return {path.data(), length};
}

// Where a module of that path lies in another process; null when it is not loaded there.
BYTE* FindThere(DWORD processId, const std::wstring& path)
{
    HANDLE list = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, processId);
    if (list == INVALID_HANDLE_VALUE)
        return nullptr;
    const Handle owner(list);
    MODULEENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL found = Module32FirstW(list, &entry); found; found = Module32NextW(list, &entry)) {
        if (EqualNoCase(entry.szExePath, path))
            return entry.modBaseAddr;
    }
    return nullptr;
}

DWORD Attach(const PROCESS_INFORMATION& process, const std::wstring& directory)
{
    const std::wstring ownPath = PathOf(OwnModule());
    const RemoteText library(process.hProcess, ownPath);
    const RemoteText machine(process.hProcess, directory);
    if (library.get() == nullptr || machine.get() == nullptr)
        return ERROR_NOT_ENOUGH_MEMORY;

    // kernel32 lies at the same address in every process.
    const auto loadLibrary = reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "LoadLibraryW"));
    DWORD loaded = 0;
    DWORD code = CallThere(process.hProcess, loadLibrary, library.get(), loaded);
    if (code != 0)
        return code;
    BYTE* const base = FindThere(process.dwProcessId, ownPath);
    if (base == nullptr)
        return ERROR_MOD_NOT_FOUND;

    const auto distance = reinterpret_cast<BYTE*>(&VTFltSimAttachThisProcess) - reinterpret_cast<BYTE*>(OwnModule());
    DWORD attached = 0;
    code = CallThere(process.hProcess, base + distance, machine.get(), attached);
    return code != 0 ? code : attached;
}

// Suspended. About once in a thousand starts Wine gives ERROR_INTERNAL_ERROR for a process that was gone before it was
// ready; the next start succeeds.
DWORD Start(const std::wstring& commandLine, STARTUPINFOW& startup, PROCESS_INFORMATION& started)
{
    DWORD error = ERROR_INTERNAL_ERROR;
    for (int attempt = 0; attempt < 3 && error == ERROR_INTERNAL_ERROR; ++attempt) {
        std::wstring writable = commandLine; // the system writes into it
        if (CreateProcessW(nullptr, writable.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr, nullptr,
                           &startup, &started))
            return 0;
        error = GetLastError();
    }
    return error;
}

} // namespace

DWORD RunProgram(const std::wstring& directory, const std::wstring& commandLine, bool suspended,
                 PROCESS_INFORMATION& process)
{
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION started = {};
    DWORD code = Start(commandLine, startup, started);
    if (code != 0)
        return code;
    code = Attach(started, directory);
    if (code == 0 && !suspended && ResumeThread(started.hThread) == static_cast<DWORD>(-1))
        code = GetLastError();
    if (code != 0) {
        TerminateProcess(started.hProcess, code);
        CloseHandle(started.hThread);
        CloseHandle(started.hProcess);
        return code;
    }
    process = started;
    return 0;
}

} // namespace vtfltsim

DWORD WINAPI VTFltSimAttachThisProcess(void* directory)
{
    if (directory == nullptr)
        return ERROR_INVALID_PARAMETER;
    try {
        return vtfltsim::AttachProcess(static_cast<const wchar_t*>(directory));
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

DWORD WINAPI VTFltSimStartProgram(LPCWSTR directory, LPCWSTR commandLine, DWORD suspended, PROCESS_INFORMATION* process)
{
    if (directory == nullptr || commandLine == nullptr || process == nullptr)
        return ERROR_INVALID_PARAMETER;
    try {
        return vtfltsim::RunProgram(directory, commandLine, suspended != 0, *process);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}
