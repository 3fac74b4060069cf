#include "interpose/attach.h"

#include "interpose/calls.h"
#include "interpose/handles.h"
#include "interpose/hooks.h"
#include "interpose/imports.h"

#include <algorithm>
#include <mutex>

namespace vtfltsim {

namespace {

struct Slot {
    void** place = nullptr;
    void* original = nullptr;
    void* replacement = nullptr;
};

struct Module {
    HMODULE base = nullptr;
    ImageMark mark; // of the image that the slots lie in
    std::vector<Slot> slots;
};

ProcessLock g_machineLock;
// Neither is ever destroyed: modules that are unloaded after this one still make their last calls through here.
auto& g_machine = *new std::shared_ptr<Machine>(); // guarded by g_machineLock

ProcessLock g_modulesLock;
auto& g_modules = *new std::vector<Module>(); // guarded by g_modulesLock
std::atomic<void*> g_originals[HOOK_COUNT];

bool WritePointer(void** place, void* value)
{
    DWORD protection = 0;
    if (!VirtualProtect(place, sizeof(*place), PAGE_READWRITE, &protection))
        return false;
    *place = value;
    VirtualProtect(place, sizeof(*place), protection, &protection);
    return true;
}

// Redirects one import, when it is one of ours. A passed function must be the same in all modules, for it is
// called through the first one's address.
bool RedirectSlot(const char* name, void** place, Module& module)
{
    const unsigned index = FindHook(name);
    if (index == HOOK_COUNT)
        return true;
    const HookEntry& hook = HookTable()[index];
    const Slot slot = {place, *place, hook.replacement};
    if (hook.passed) {
        void* expected = nullptr;
        if (!g_originals[index].compare_exchange_strong(expected, slot.original) && expected != slot.original)
            return true;
    }
    module.slots.push_back(slot);
    return WritePointer(place, hook.replacement);
}

bool Redirect(Module& module)
{
    return ForEachImport(module.base,
                         [&](const char* name, void** place) { return RedirectSlot(name, place, module); });
}

bool IsLoadedAt(HMODULE base)
{
    HMODULE found = nullptr;
    return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              reinterpret_cast<LPCWSTR>(base), &found) &&
           found == base;
}

// Another image may have been loaded in the place of one that was freed, and end before the old one's slots.
bool IsInPlace(const Module& module)
{
    return MarkOf(module.base) == module.mark;
}

void Restore(const Module& module)
{
    if (!IsLoadedAt(module.base) || !IsInPlace(module))
        return;
    for (const auto& slot : module.slots) {
        if (*slot.place == slot.replacement)
            WritePointer(slot.place, slot.original);
    }
}

bool IsStillRedirected(const Module& module)
{
    return IsInPlace(module) && !module.slots.empty() &&
           *module.slots.front().place == module.slots.front().replacement;
}

} // namespace

void* OriginalOf(Hook hook)
{
    return g_originals[static_cast<unsigned>(hook)].load();
}

std::shared_ptr<Machine> AttachedMachine()
{
    const std::lock_guard guard(g_machineLock);
    return g_machine;
}

DWORD AttachModule(const std::shared_ptr<Machine>& machine, HMODULE module)
{
    if (module == nullptr)
        module = GetModuleHandleW(nullptr);
    const DWORD plan = calls::ReadPlanFromEnvironment();
    if (plan != 0)
        return plan;
    {
        const std::lock_guard guard(g_machineLock);
        if (g_machine != nullptr && g_machine != machine && !g_machine->IsSameAs(*machine))
            return ERROR_BUSY;
        if (g_machine == nullptr)
            g_machine = machine;
    }
    const std::lock_guard guard(g_modulesLock);
    const auto known =
        std::find_if(g_modules.begin(), g_modules.end(), [&](const Module& m) { return m.base == module; });
    if (known != g_modules.end()) {
        if (IsStillRedirected(*known))
            return 0;
        g_modules.erase(known); // unloaded in the meantime, and another or a fresh one loaded in its place
    }
    Module entry;
    entry.base = module;
    entry.mark = MarkOf(module);
    const bool done = Redirect(entry);
    if (!done) {
        const DWORD code = GetLastError();
        Restore(entry);
        return code != 0 ? code : ERROR_ACCESS_DENIED;
    }
    g_modules.push_back(std::move(entry));
    return 0;
}

DWORD DetachModule(HMODULE module)
{
    if (module == nullptr)
        module = GetModuleHandleW(nullptr);
    const std::lock_guard guard(g_modulesLock);
    const auto known =
        std::find_if(g_modules.begin(), g_modules.end(), [&](const Module& m) { return m.base == module; });
    if (known == g_modules.end())
        return ERROR_MOD_NOT_FOUND;
    Restore(*known);
    g_modules.erase(known);
    return 0;
}

void DetachAll()
{
    {
        const std::lock_guard guard(g_modulesLock);
        for (const auto& module : g_modules)
            Restore(module);
        g_modules.clear();
    }
    {
        std::shared_ptr<Machine> last; // closed outside of the lock
        const std::lock_guard guard(g_machineLock);
        last.swap(g_machine);
    }
    handles::ForgetAll();
    calls::ClearFaults();
    calls::Record(false);
    calls::ResetCounts();
}

} // namespace vtfltsim

// A program that frees this module gets its imports back, or its next call would go nowhere. When the process
// ends, nothing is touched: other modules still close what they have.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* processEnds)
{
    if (reason == DLL_PROCESS_DETACH && processEnds == nullptr)
        vtfltsim::DetachAll();
    return TRUE;
}
