// Part of every module: its operators new and delete call malloc and free as imports of the module, as the compiler
// for Windows has it, so that the module's memory can be made to fail and be counted.
#include "double/control.h"

#include <cstdlib>
#include <new>

namespace {

constexpr char THIS_MODULE = 0; // its address says which

void* Allocate(std::size_t size) noexcept
{
    DoubleAllocatesFor(&THIS_MODULE);
    void* const memory = std::malloc(size != 0 ? size : 1);
    DoubleAllocatesFor(nullptr);
    return memory;
}

void* AllocateOrThrow(std::size_t size)
{
    void* const memory = Allocate(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

} // namespace

void* operator new(std::size_t size)
{
    return AllocateOrThrow(size);
}
void* operator new[](std::size_t size)
{
    return AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
