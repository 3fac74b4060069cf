// The library's lock of a device class, for whoever compares the count of requests for its tracking before and after a
// call that changes it.
#pragma once

#include "win/owners.h"

#include <cstdint>
#include <string>

namespace toolkit {

// The library takes its mutex while it counts; whoever holds it meanwhile, on the same thread, lets nobody else count:
// neither a program of this project nor any other that calls the library.
class ClassLock {
public:
    // classKey: as the library has it, since names of mutexes are case-sensitive. Waits for ten seconds.
    explicit ClassLock(const std::wstring& classKey);
    ~ClassLock();
    ClassLock(const ClassLock&) = delete;
    ClassLock& operator=(const ClassLock&) = delete;

    // 0: it is held. ERROR_TIMEOUT: another program has it. Anything else: why it cannot be had.
    [[nodiscard]] std::uint32_t Error() const noexcept { return m_error; }

private:
    vtflt::UniqueHandle m_mutex;
    std::uint32_t m_error = 0;
};

} // namespace toolkit
