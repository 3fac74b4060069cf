// What a test can do with the double beyond the functions of Windows. Only native tests have it.
#pragma once

#include <cstddef>
#include <cstdint>

#define DOUBLE_CONTROL extern "C" __attribute__((visibility("default")))

// Runs a program as the first process; returns its exit code. For the host program.
DOUBLE_CONTROL int DoubleRun(const char* imageFolder, int argc, char** argv, unsigned long long seed);

// From now on the next thread is chosen by this seed, and a thread may lose its turn in any call. 0: a thread keeps its
// turn until it waits, and the longest waiting comes next.
DOUBLE_CONTROL void DoubleSeed(std::uint64_t seed);

// What the calling process has open.
struct DoubleOpen {
    std::size_t handles; // keys not among them
    std::size_t keys;
    std::size_t views;
    std::size_t ownedMutexes; // of the calling thread
    std::size_t badCloses;    // since the process began: a handle was closed that was none
};
DOUBLE_CONTROL DoubleOpen DoubleCountOpen();
// Writes one line for each open handle, key and view to the standard error.
DOUBLE_CONTROL void DoubleListOpen();

// The power goes: what was written to files and not flushed is as it was before. Gives the number of files that changed.
DOUBLE_CONTROL std::size_t DoubleDropUnsynced();
// Milliseconds of virtual time since the start.
DOUBLE_CONTROL std::uint64_t DoubleTime();

// For std::thread: a thread of the calling process, by its number; waiting for its end.
DOUBLE_CONTROL std::uint64_t DoubleStartThread(void (*run)(void*), void* argument);
DOUBLE_CONTROL void DoubleJoinThread(std::uint64_t number);
