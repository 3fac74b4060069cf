// Programs and DLLs: shared objects of the host that carry the number of their process in their names.
//
// The build makes NAME.p0000.exe and NAME.p0000.dll, and the first process uses these. Each further process gets
// copies of its own, in which the number is another one (in their own names, and in the names of the modules that
// they need); so every process has its own variables, and the calls of a module find its own process's modules.
#include "double/api.h"
#include "double/file_system.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <iterator>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vtdouble {

namespace {

constexpr char FIRST[] = ".p0000.";
constexpr TextView IMAGE_FOLDER = L"C:\\double";

struct Images {
    std::string folder; // of the host, with the files of the build
    std::string copies; // of the host, with the copies; made when it is needed
    std::set<unsigned> inUse;
    DWORD nextProcess = 1;
};

Images& I()
{
    static auto& images = *new Images();
    return images;
}

std::string Suffix(unsigned number)
{
    char text[16];
    std::snprintf(text, sizeof(text), ".p%04u.", number);
    return text;
}

bool FileExists(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

// NAME.exe as NAME<suffix>exe
std::string HostName(TextView name, const std::string& suffix)
{
    std::string narrow = Narrow(name);
    const std::size_t dot = narrow.rfind('.');
    return narrow.substr(0, dot) + suffix + narrow.substr(dot + 1);
}

void RemoveCopies()
{
    if (!I().copies.empty() && std::system(("rm -rf '" + I().copies + "'").c_str()) != 0)
        std::fputs("double: the copies of the modules are left behind\n", stderr);
}

void CopyWithSuffix(const std::string& from, const std::string& to, const std::string& suffix)
{
    std::ifstream in(from, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (std::size_t at = bytes.find(FIRST); at != std::string::npos; at = bytes.find(FIRST, at + 1))
        bytes.replace(at, suffix.size(), suffix);
    std::ofstream(to, std::ios::binary) << bytes;
}

// The folder with the modules of a process; copies are made when the process is not the first.
std::string FolderFor(const std::string& suffix, const std::string& program)
{
    if (suffix == FIRST)
        return I().folder;
    if (I().copies.empty()) {
        char pattern[] = "/tmp/double.XXXXXX";
        if (mkdtemp(pattern) == nullptr)
            Die("no folder for copies of modules");
        I().copies = pattern;
        std::atexit(RemoveCopies);
    }
    for (const char* name : {program.c_str(), "VTFltMgr.p0000.dll", "VTFltSim.p0000.dll"}) {
        std::string copy = name;
        const std::size_t at = copy.find(FIRST);
        copy.replace(at, suffix.size(), suffix);
        const std::string from = I().folder + "/" + name;
        if (FileExists(from) && !FileExists(I().copies + "/" + copy))
            CopyWithSuffix(from, I().copies + "/" + copy, suffix);
    }
    return I().copies;
}

unsigned TakeNumber()
{
    unsigned number = 0;
    while (I().inUse.count(number) != 0)
        ++number;
    I().inUse.insert(number);
    return number;
}

// VTFltMgr.dll out of /x/VTFltMgr.p0000.dll; empty when the path has another suffix.
Text ModuleName(const char* path, const std::string& suffix)
{
    std::string name = path;
    name.erase(0, name.rfind('/') + 1);
    const std::size_t at = name.rfind(suffix);
    if (at == std::string::npos)
        return {};
    return Widen(name.substr(0, at) + "." + name.substr(at + suffix.size()));
}

// Adds the process's modules that are in memory now and not yet known.
void FindModules(Process& process)
{
    struct Search {
        Process& process;
        static int Visit(dl_phdr_info* info, std::size_t, void* data)
        {
            Process& owner = static_cast<Search*>(data)->process;
            const Text name = ModuleName(info->dlpi_name, owner.suffix);
            void* const base = reinterpret_cast<void*>(info->dlpi_addr);
            const bool known = std::any_of(owner.modules.begin(), owner.modules.end(),
                                           [&](const Module& module) { return module.base == base; });
            if (name.empty() || known)
                return 0;
            Module module;
            module.name = name;
            module.base = base;
            owner.modules.push_back(module);
            return 0;
        }
    } search{process};
    dl_iterate_phdr(Search::Visit, &search);
}

using EntryPoint = BOOL(WINAPI*)(HINSTANCE, DWORD, void*);

// The module's own DllMain, not that of a module it needs.
EntryPoint EntryPointOf(const Module& module)
{
    Dl_info first{};
    for (void* library : {module.library}) {
        void* const found = library != nullptr ? dlsym(library, "DllMain") : nullptr;
        if (found != nullptr && dladdr(found, &first) != 0 && first.dli_fbase == module.base)
            return reinterpret_cast<EntryPoint>(found);
    }
    return nullptr;
}

// The host's loader is the double's, to the thread sanitizer; so is what the modules do while they are loaded.
void* Load(const std::string& path)
{
    const NotWatched notWatched;
    AfterAcquire(&I()); // it may stand where a module of an ended process stood
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void Unload(void* library)
{
    const NotWatched notWatched;
    dlclose(library);
    BeforeRelease(&I());
}

// Handles by which the loader knows the modules; they add no lasting reference.
void OpenModules(Process& process, const std::string& folder)
{
    for (Module& module : process.modules) {
        if (module.library != nullptr)
            continue;
        const std::string path = folder + "/" + HostName(module.name, process.suffix);
        module.library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    }
}

void Attach(Module& module)
{
    if (module.attached)
        return;
    module.attached = true;
    if (const EntryPoint entry = EntryPointOf(module))
        entry(static_cast<HINSTANCE>(module.base), DLL_PROCESS_ATTACH, nullptr);
}

bool IsProgram(const Module& module)
{
    return module.name.ends_with(L".exe");
}

// The double stands for all DLLs of the system.
bool IsSystemModule(TextView name)
{
    return EqualNoCase(name, L"kernel32.dll") || EqualNoCase(name, L"kernel32") || EqualNoCase(name, L"advapi32.dll") ||
           EqualNoCase(name, L"ntdll.dll") || EqualNoCase(name, L"user32.dll");
}

void* System()
{
    static void* const library = dlopen("libdouble.so", RTLD_NOW | RTLD_NOLOAD);
    return library;
}

std::vector<std::string> Arguments(TextView line)
{
    std::vector<std::string> arguments;
    std::string one;
    bool quoted = false;
    bool any = false;
    for (const wchar_t character : line) {
        if (character == L'"') {
            quoted = !quoted;
            any = true;
        } else if (!quoted && (character == L' ' || character == L'\t')) {
            if (any)
                arguments.push_back(std::move(one));
            one.clear();
            any = false;
        } else {
            one += Narrow(TextView(&character, 1));
            any = true;
        }
    }
    if (any)
        arguments.push_back(std::move(one));
    return arguments;
}

Module* FindModule(const wchar_t* name)
{
    Text wanted = name;
    wanted.erase(0, wanted.find_last_of(L"\\/") + 1);
    if (wanted.find(L'.') == Text::npos)
        wanted += L".dll";
    for (Module& module : CurrentProcess().modules) {
        if (EqualNoCase(module.name, wanted))
            return &module;
    }
    return nullptr;
}

} // namespace

void SetImageFolder(const std::string& folder)
{
    I().folder = folder;
    PutFile(Text(IMAGE_FOLDER) + L"\\VTFltMgr.dll", "MZ");
    PutFile(Text(IMAGE_FOLDER) + L"\\VTFltSim.dll", "MZ");
    RootFolder()->Child(L"double")->Child(L"VTFltMgr.dll")->version = {0x00000001u, 0x00000000u};
    // As tests/children/log_child.rc says.
    PutFile(Text(IMAGE_FOLDER) + L"\\log_child.exe", "MZ");
    RootFolder()->Child(L"double")->Child(L"log_child.exe")->version = {0x00050001u, 0x00020305u};
    MakeFolders(L"C:\\users\\tester\\Temp");
}

Process* MakeProcess(const Text& program, const Text& commandLine, const Process* parent, DWORD& error)
{
    Text name = program;
    name.erase(0, name.find_last_of(L"\\/") + 1);
    if (!name.ends_with(L".exe"))
        name += L".exe";
    const std::string image = HostName(name, FIRST);
    if (!FileExists(I().folder + "/" + image)) {
        error = ERROR_FILE_NOT_FOUND;
        return nullptr;
    }
    const unsigned number = TakeNumber();
    auto* const process = new Process();
    process->id = I().nextProcess++;
    process->object = std::make_shared<ProcessObject>();
    process->object->process = process;
    process->object->id = process->id;
    process->object->name = name;
    process->suffix = Suffix(number);
    process->commandLine = commandLine;
    process->directory = IMAGE_FOLDER;
    if (parent != nullptr) {
        process->environment = parent->environment;
        process->directory = parent->directory;
    }
    Module module;
    module.name = name;
    process->modules.push_back(module);
    return process;
}

void LoadModules(Process& process)
{
    const NotWatched notWatched;
    const Text program = process.modules.front().name;
    const std::string folder = FolderFor(process.suffix, HostName(program, FIRST));
    void* const library = Load(folder + "/" + HostName(program, process.suffix));
    if (library == nullptr)
        Die("%s", dlerror());
    process.modules.clear();
    FindModules(process);
    std::stable_partition(process.modules.begin(), process.modules.end(), IsProgram);
    process.modules.front().library = library;
    OpenModules(process, folder);
    // In the process: a killed one does not come back from its main.
    process.arguments = Arguments(process.commandLine);
    for (std::string& argument : process.arguments)
        process.argumentPointers.push_back(argument.data());
    process.argumentPointers.push_back(nullptr);
}

void AttachModules(Process& process)
{
    // The deeper ones first: what is needed is found behind whoever needs it.
    for (auto module = process.modules.rbegin(); module != process.modules.rend(); ++module)
        Attach(*module);
}

int RunMain(Process& process)
{
    const Module& program = process.modules.front();
    const auto entry = reinterpret_cast<int (*)(int, char**)>(dlsym(program.library, "main"));
    if (entry == nullptr)
        Die("%s has no main", Narrow(program.name).c_str());
    return entry(static_cast<int>(process.arguments.size()), process.argumentPointers.data());
}

void DetachModules(Process& process, bool processEnds)
{
    for (Module& module : process.modules) {
        const EntryPoint entry = module.attached ? EntryPointOf(module) : nullptr;
        module.attached = false;
        if (entry != nullptr)
            entry(static_cast<HINSTANCE>(module.base), DLL_PROCESS_DETACH, processEnds ? &process : nullptr);
    }
}

void UnloadModules(Process& process)
{
    if (process.suffix == FIRST)
        return; // they stay for the leak check at the end of the host's process
    const NotWatched notWatched;
    std::size_t bytes = 0;
    const std::size_t left = process.dead ? 0 : CountAllocations(process, L"VTFltMgr.dll", bytes);
    if (left != 0)
        Die("process %u ended, and %zu bytes in %zu pieces of its heap are left", process.id, bytes, left);
    for (const Module& module : process.modules) {
        if (module.library != nullptr)
            Unload(module.library);
    }
    FreeAllocations(process);
    while (!process.views.empty())
        UnmapViewOfFile(process.views.begin()->first);
    process.handles.clear();
    I().inUse.erase(static_cast<unsigned>(std::atoi(process.suffix.c_str() + 2)));
}

void EndProcess(Process& process, DWORD exitCode)
{
    if (process.dead)
        return;
    const bool ownThread = CurrentOrNull() != nullptr && Current().process == &process;
    const bool mainReturned = ownThread && Current().isMain && Current().exitPoint == nullptr && !Current().doomed;
    process.dead = !mainReturned;
    for (Thread* thread : process.threads) {
        if (thread != CurrentOrNull())
            Doom(*thread, exitCode);
    }
    if (!process.dead)
        return;
    // All handles of a killed process close at once; who waits for them goes on.
    while (!process.handles.empty())
        process.Close(reinterpret_cast<HANDLE>(process.handles.begin()->first));
}

} // namespace vtdouble

using namespace vtdouble;

DOUBLE_API HANDLE WINAPI GetCurrentProcess()
{
    return reinterpret_cast<HANDLE>(~std::uintptr_t{0});
}

DOUBLE_API HANDLE WINAPI GetCurrentThread()
{
    return reinterpret_cast<HANDLE>(~std::uintptr_t{1});
}

DOUBLE_API DWORD WINAPI GetCurrentProcessId()
{
    return CurrentProcess().id * 4;
}

DOUBLE_API DWORD WINAPI GetProcessId(HANDLE handle)
{
    const Entry entry;
    const auto process = CurrentProcess().Get<ProcessObject>(handle);
    if (process == nullptr)
        return 0;
    return process->process != nullptr ? process->process->id * 4 : Failed<DWORD>(ERROR_INVALID_HANDLE, 0);
}

DOUBLE_API DWORD WINAPI GetCurrentThreadId()
{
    return Current().id;
}

DOUBLE_API HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE start, LPVOID argument,
                                      DWORD, LPDWORD id)
{
    const Entry entry;
    const auto thread = StartThread(CurrentProcess(), start, argument, false);
    if (id != nullptr)
        *id = thread->id;
    return CurrentProcess().Open(thread, THREAD_ALL_ACCESS);
}

DOUBLE_API BOOL WINAPI GetExitCodeThread(HANDLE handle, LPDWORD exitCode)
{
    const Entry entry;
    const auto thread = CurrentProcess().Get<ThreadObject>(handle);
    if (thread == nullptr)
        return FALSE;
    *exitCode = thread->thread == nullptr ? thread->exitCode : static_cast<DWORD>(STILL_ACTIVE);
    return TRUE;
}

DOUBLE_API BOOL WINAPI TerminateThread(HANDLE handle, DWORD exitCode)
{
    const Entry entry;
    const auto thread = CurrentProcess().Get<ThreadObject>(handle);
    if (thread == nullptr)
        return FALSE;
    if (thread->thread == &Current())
        LeaveThread(exitCode);
    if (thread->thread != nullptr)
        Doom(*thread->thread, exitCode);
    return TRUE;
}

DOUBLE_API void WINAPI ExitThread(DWORD exitCode)
{
    const Entry entry;
    LeaveThread(exitCode);
}

DOUBLE_API BOOL WINAPI CreateProcessW(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES,
                                      LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR, LPSTARTUPINFOW,
                                      LPPROCESS_INFORMATION information)
{
    const Entry entry;
    const Text line = commandLine != nullptr ? commandLine : application;
    const auto arguments = Arguments(line);
    const Text program = application != nullptr ? Text(application) : Widen(arguments.empty() ? "" : arguments[0]);
    DWORD error = 0;
    Process* const process = MakeProcess(program, line, &CurrentProcess(), error);
    if (process == nullptr)
        return Failed(error, FALSE);
    const auto thread = StartThread(*process, nullptr, nullptr, true);
    information->hProcess = CurrentProcess().Open(process->object, PROCESS_ALL_ACCESS);
    information->hThread = CurrentProcess().Open(thread, THREAD_ALL_ACCESS);
    information->dwProcessId = process->id * 4;
    information->dwThreadId = thread->id;
    return TRUE;
}

DOUBLE_API BOOL WINAPI GetExitCodeProcess(HANDLE handle, LPDWORD exitCode)
{
    const Entry entry;
    const auto process = CurrentProcess().Get<ProcessObject>(handle);
    if (process == nullptr)
        return FALSE;
    *exitCode = process->process == nullptr ? process->exitCode : static_cast<DWORD>(STILL_ACTIVE);
    return TRUE;
}

DOUBLE_API BOOL WINAPI TerminateProcess(HANDLE handle, UINT exitCode)
{
    const Entry entry;
    if (handle == GetCurrentProcess()) {
        EndProcess(CurrentProcess(), exitCode);
        LeaveThread(exitCode);
    }
    const auto process = CurrentProcess().Get<ProcessObject>(handle);
    if (process == nullptr)
        return FALSE;
    if (process->process == &CurrentProcess())
        return TerminateProcess(GetCurrentProcess(), exitCode);
    if (process->process == nullptr)
        return Failed(ERROR_ACCESS_DENIED, FALSE);
    EndProcess(*process->process, exitCode);
    return TRUE;
}

DOUBLE_API void WINAPI ExitProcess(UINT exitCode)
{
    TerminateProcess(GetCurrentProcess(), exitCode);
    Die("the end of a process came back");
}

// --- Modules.

DOUBLE_API HMODULE WINAPI GetModuleHandleW(LPCWSTR name)
{
    const Entry entry;
    const Module* const module = name == nullptr ? &CurrentProcess().modules.front() : FindModule(name);
    if (module == nullptr && IsSystemModule(name))
        return static_cast<HMODULE>(System());
    if (module == nullptr)
        return Failed<HMODULE>(ERROR_MOD_NOT_FOUND, nullptr);
    return static_cast<HMODULE>(module->base);
}

DOUBLE_API BOOL WINAPI GetModuleHandleExW(DWORD flags, LPCWSTR name, HMODULE* result)
{
    const Entry entry;
    *result = nullptr;
    if ((flags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS) == 0) {
        *result = GetModuleHandleW(name);
    } else {
        Dl_info information{};
        if (dladdr(name, &information) != 0) {
            for (const Module& module : CurrentProcess().modules) {
                if (module.base == information.dli_fbase)
                    *result = static_cast<HMODULE>(module.base);
            }
        }
    }
    if (*result == nullptr)
        return Failed(ERROR_MOD_NOT_FOUND, FALSE);
    if ((flags & GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT) == 0) {
        for (Module& module : CurrentProcess().modules)
            module.references += module.base == *result ? 1 : 0;
    }
    return TRUE;
}

DOUBLE_API DWORD WINAPI GetModuleFileNameW(HMODULE handle, LPWSTR buffer, DWORD characters)
{
    const Entry entry;
    const auto& modules = CurrentProcess().modules;
    const auto found =
        handle == nullptr ? modules.begin() : std::find_if(modules.begin(), modules.end(), [&](const Module& module) {
            return module.base == static_cast<void*>(handle);
        });
    if (found == modules.end())
        return Failed<DWORD>(ERROR_MOD_NOT_FOUND, 0);
    const Text path = Text(IMAGE_FOLDER) + L"\\" + found->name;
    if (characters == 0)
        return Failed<DWORD>(ERROR_INSUFFICIENT_BUFFER, 0);
    const std::size_t length = std::min(path.size(), static_cast<std::size_t>(characters - 1));
    std::copy_n(path.data(), length, buffer);
    buffer[length] = L'\0';
    if (length < path.size())
        return Failed(ERROR_INSUFFICIENT_BUFFER, characters);
    Fail(0);
    return static_cast<DWORD>(length);
}

DOUBLE_API HMODULE WINAPI LoadLibraryW(LPCWSTR name)
{
    const Entry entry;
    if (Module* const known = FindModule(name)) {
        ++known->references;
        return static_cast<HMODULE>(known->base);
    }
    Process& process = CurrentProcess();
    Text base = name;
    base.erase(0, base.find_last_of(L"\\/") + 1);
    const std::string folder = FolderFor(process.suffix, HostName(process.modules.front().name, FIRST));
    void* const library = Load(folder + "/" + HostName(base, process.suffix));
    if (library == nullptr)
        return Failed<HMODULE>(ERROR_MOD_NOT_FOUND, nullptr);
    FindModules(process);
    Module* const module = FindModule(name);
    module->library = library;
    Attach(*module);
    return static_cast<HMODULE>(module->base);
}

DOUBLE_API HMODULE WINAPI LoadLibraryExW(LPCWSTR name, HANDLE, DWORD)
{
    return LoadLibraryW(name);
}

DOUBLE_API BOOL WINAPI FreeLibrary(HMODULE handle)
{
    const Entry entry;
    auto& modules = CurrentProcess().modules;
    const auto found = std::find_if(modules.begin(), modules.end(),
                                    [&](const Module& module) { return module.base == static_cast<void*>(handle); });
    if (found == modules.end())
        return Failed(ERROR_MOD_NOT_FOUND, FALSE);
    if (--found->references != 0)
        return TRUE;
    const Module module = *found;
    if (const EntryPoint entryPoint = EntryPointOf(module))
        entryPoint(handle, DLL_PROCESS_DETACH, nullptr);
    modules.erase(found);
    Unload(module.library);
    return TRUE;
}

DOUBLE_API FARPROC WINAPI GetProcAddress(HMODULE handle, LPCSTR name)
{
    const Entry entry;
    if (static_cast<void*>(handle) == System()) {
        if (void* const found = dlsym(System(), name))
            return reinterpret_cast<FARPROC>(found);
        return Failed<FARPROC>(ERROR_PROC_NOT_FOUND, nullptr);
    }
    for (const Module& module : CurrentProcess().modules) {
        void* const found = module.base == static_cast<void*>(handle) ? dlsym(module.library, name) : nullptr;
        if (found != nullptr)
            return reinterpret_cast<FARPROC>(found);
    }
    return Failed<FARPROC>(ERROR_PROC_NOT_FOUND, nullptr);
}

DOUBLE_API BOOL WINAPI DisableThreadLibraryCalls(HMODULE)
{
    return TRUE;
}
