// How the functions of the double are defined: with the names that Windows gives them.
//
// The headers of Windows declare most of them for import; the attribute makes them the double's exports.
#pragma once

#define DOUBLE_API extern "C" __attribute__((visibility("default")))

// The thread sanitizer sees neither the double nor the passing of the baton. What synchronises the program under test
// is told to it here: whoever acquires something has seen what its releasers did before.
extern "C" {
void __tsan_acquire(void* address) __attribute__((weak));
void __tsan_release(void* address) __attribute__((weak));
int __asan_address_is_poisoned(const volatile void* address) __attribute__((weak));
}

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

} // namespace vtdouble
