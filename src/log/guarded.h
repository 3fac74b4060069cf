// The guard around what may throw where nothing may leave: an export, or a step whose failure is to be a step's failure.
#pragma once

#include "bitmap/result_codes.h"
#include "log/log.h"
#include "win/windows.h"

#include <new>

namespace vtflt {

// Runs the body. No exception goes further: memory that could not be had gives outOfMemory and is logged, anything else
// gives failed.
template <class Result, class Body>
Result Guarded(Result outOfMemory, Result failed, Body&& body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        Log(LOG_ERROR, ERROR_NOT_ENOUGH_MEMORY, L"There is not enough memory for this operation.");
        return outOfMemory;
    } catch (...) {
        return failed;
    }
}

// The usual case: 8 for memory, 0xFFFFFFFF else.
template <class Body>
DWORD Guarded(Body&& body) noexcept
{
    return Guarded<DWORD>(ERROR_NOT_ENOUGH_MEMORY, BM_ERR_FAILED, static_cast<Body&&>(body));
}

} // namespace vtflt
