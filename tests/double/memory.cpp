// The heap of the modules. Every process's allocations are known, so that what a killed process had is given back,
// and what a module leaves behind can be seen.
#include "double/api.h"
#include "double/control.h"
#include "double/kernel.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace vtdouble {

namespace {

const void* g_meantBy = nullptr; // only the thread with the baton allocates

// Kept inverted: to the leak sanitizer the table refers to nothing.
std::uintptr_t Inverted(const void* memory)
{
    return ~reinterpret_cast<std::uintptr_t>(memory);
}

void Note(void* memory, std::size_t size, const void* site)
{
    Thread* const thread = CurrentOrNull();
    if (memory == nullptr || thread == nullptr)
        return;
    // Redirected calls come from the simulator; the module's operator new has said who meant them.
    const bool isMeant = g_meantBy != nullptr;
    thread->process->allocations[Inverted(memory)] = Allocation{size, isMeant ? g_meantBy : site, isMeant};
}

void Forget(const void* memory)
{
    Thread* const thread = CurrentOrNull();
    if (memory != nullptr && thread != nullptr)
        thread->process->allocations.erase(Inverted(memory));
}

bool IsIn(const Module& module, const void* site)
{
    Dl_info information{};
    return dladdr(site, &information) != 0 && information.dli_fbase == module.base;
}

} // namespace

std::size_t CountAllocations(const Process& process, TextView moduleName, std::size_t& bytes)
{
    std::size_t count = 0;
    for (const Module& module : process.modules) {
        if (!EqualNoCase(module.name, moduleName))
            continue;
        for (const auto& [address, allocation] : process.allocations) {
            if (!IsIn(module, allocation.site))
                continue;
            ++count;
            bytes += allocation.size;
        }
    }
    return count;
}

void FreeAllocations(Process& process)
{
    for (const auto& [address, allocation] : process.allocations)
        std::free(reinterpret_cast<void*>(~address));
    process.allocations.clear();
}

} // namespace vtdouble

using namespace vtdouble;

void DoubleAllocatesFor(const void* module)
{
    g_meantBy = module;
}

// The linker leads the modules' calls of the C run-time's heap here.

void* __wrap_malloc(std::size_t size)
{
    void* const memory = std::malloc(size);
    Note(memory, size, __builtin_return_address(0));
    return memory;
}

void* __wrap_calloc(std::size_t count, std::size_t size)
{
    void* const memory = std::calloc(count, size);
    Note(memory, count * size, __builtin_return_address(0));
    return memory;
}

void* __wrap_realloc(void* memory, std::size_t size)
{
    void* const moved = std::realloc(memory, size);
    if (moved != nullptr || size == 0)
        Forget(memory);
    Note(moved, size, __builtin_return_address(0));
    return moved;
}

void __wrap_free(void* memory)
{
    Forget(memory);
    std::free(memory);
}
