// The double's own memory. The thread sanitizer does not look into the double, and is not to see the giving back of what
// another thread wrote there either.
#include "double/api.h"

#include <cstdlib>
#include <new>

namespace {

void* Allocate(std::size_t size) noexcept
{
    vtdouble::StopWatching();
    void* const memory = std::malloc(size != 0 ? size : 1);
    vtdouble::WatchAgain();
    return memory;
}

void Free(void* memory) noexcept
{
    vtdouble::StopWatching();
    std::free(memory);
    vtdouble::WatchAgain();
}

} // namespace

void* operator new(std::size_t size)
{
    void* const memory = Allocate(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void operator delete(void* memory) noexcept
{
    Free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    Free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    Free(memory);
}
