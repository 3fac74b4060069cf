// The guard around what may throw where nothing may leave: an export, or a step whose failure is to be a step's failure.
#pragma once

#include "log/log.h"
#include "win/windows.h"

#include <new>

namespace vtflt {

// Logs that the operation's memory could not be had. Always 8.
inline DWORD LogOutOfMemory(const wchar_t* operation) noexcept
{
    Log(LOG_ERROR, ERROR_NOT_ENOUGH_MEMORY, L"%s: There is not enough memory for this operation.", operation);
    return ERROR_NOT_ENOUGH_MEMORY;
}

// Runs the body. No exception goes further: memory that could not be had gives outOfMemory, anything else gives failed.
// Either is logged, under the name of the operation that it ends.
template <class Result, class Body>
Result Guarded(const wchar_t* operation, Result outOfMemory, Result failed, Body&& body) noexcept
{
    constexpr DWORD UNKNOWN_FAILURE = 0xFFFFFFFF;
    try {
        return body();
    } catch (const std::bad_alloc&) {
        LogOutOfMemory(operation);
        return outOfMemory;
    } catch (...) {
        Log(LOG_ERROR, UNKNOWN_FAILURE, L"%s: The operation ended for an unknown reason.", operation);
        return failed;
    }
}

// The usual case: 8 for memory, 0xFFFFFFFF else.
template <class Body>
DWORD Guarded(const wchar_t* operation, Body&& body) noexcept
{
    return Guarded<DWORD>(operation, ERROR_NOT_ENOUGH_MEMORY, 0xFFFFFFFF, static_cast<Body&&>(body));
}

} // namespace vtflt
