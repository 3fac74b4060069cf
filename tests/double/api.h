// How the functions of the double are defined: with the names that Windows gives them.
//
// The headers of Windows declare most of them for import; the attribute makes them the double's exports.
#pragma once

#include <cstddef>

#define DOUBLE_API extern "C" __attribute__((visibility("default")))

// The thread sanitizer sees neither the double nor the passing of the baton. What synchronises the program under test
// is told to it here: whoever acquires something has seen what its releasers did before.
extern "C" {
void __tsan_acquire(void* address) __attribute__((weak));
void __tsan_release(void* address) __attribute__((weak));
void AnnotateIgnoreReadsBegin(const char* file, int line) __attribute__((weak));
void AnnotateIgnoreReadsEnd(const char* file, int line) __attribute__((weak));
void AnnotateIgnoreWritesBegin(const char* file, int line) __attribute__((weak));
void AnnotateIgnoreWritesEnd(const char* file, int line) __attribute__((weak));
int __asan_address_is_poisoned(const volatile void* address) __attribute__((weak));
}

// The heap of the modules (memory.cpp); memory that the double gives to a caller comes from there, too.
DOUBLE_API void* __wrap_malloc(std::size_t size);
DOUBLE_API void* __wrap_calloc(std::size_t count, std::size_t size);
DOUBLE_API void* __wrap_realloc(void* memory, std::size_t size);
DOUBLE_API void __wrap_free(void* memory);

namespace vtdouble {

inline void AfterAcquire(const void* address)
{
    if (__tsan_acquire != nullptr)
        __tsan_acquire(const_cast<void*>(address));
}

inline void BeforeRelease(const void* address)
{
    if (__tsan_release != nullptr)
        __tsan_release(const_cast<void*>(address));
}

// Functions of the host that the double calls are watched like everybody's; while it runs they are not.
inline void StopWatching()
{
    if (AnnotateIgnoreReadsBegin == nullptr)
        return;
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
}

inline void WatchAgain()
{
    if (AnnotateIgnoreReadsEnd == nullptr)
        return;
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
}

class NotWatched {
public:
    NotWatched() { StopWatching(); }
    NotWatched(const NotWatched&) = delete;
    NotWatched& operator=(const NotWatched&) = delete;
    ~NotWatched() { WatchAgain(); }
};

} // namespace vtdouble
