// The few calls of Windows behind the fuzzing targets, over memory that an input fills. Far less than the double, and a
// thousand times as fast: no processes, no threads, no rights; every mutex is given.
#pragma once

#include "win/windows.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fuzz {

using FileBytes = std::vector<std::uint8_t>;

// The driver's answer to one request, and the request as it came.
struct Request {
    DWORD code = 0;
    const std::uint8_t* input = nullptr;
    DWORD inputLength = 0;
    std::uint8_t* output = nullptr;
    DWORD outputLength = 0;
    DWORD returned = 0;
};
using Driver = DWORD (*)(Request& request, void* context);

struct System {
    std::map<std::wstring, FileBytes> files; // by path
    struct Value {
        DWORD type = REG_MULTI_SZ;
        FileBytes bytes;
        friend bool operator==(const Value&, const Value&) = default;
    };
    std::map<std::wstring, Value> values; // by value name; keys are not told apart
    std::vector<std::wstring> volumes;    // their paths, as enumeration gives them
    Driver driver = nullptr;
    void* context = nullptr;
    unsigned openHandles = 0;
    unsigned heldMutexes = 0;

    DWORD lastError = 0;

    // What failures are to hit: the number of a call, from 1, or 0 for none, and how many calls from there on.
    unsigned failingCall = 0;
    unsigned failingCalls = 1;
    unsigned calls = 0;
    unsigned failures = 0; // that were given
};

// The one of the running input.
System& TheSystem();

// What MapShared gives, whatever the mapping; null for none.
void SetSharedBlock(void* block);

} // namespace fuzz
