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

// --- A test that decides itself who runs next.

// Called when another thread than the present one goes on: gives the number of the one, of so many that can run, in the
// order in which they last ran; the present one, when it can run itself, is the last. The double must not be called in it.
// Null: the longest waiting.
typedef std::size_t (*DoubleChooser)(void* context, std::size_t runnable);
DOUBLE_CONTROL void DoubleChoose(DoubleChooser chooser, void* context);
// The calling thread may lose its turn here, whatever the seed.
DOUBLE_CONTROL void DoubleYield();
// The calling thread stands still until another one wakes all that stand still for this place.
DOUBLE_CONTROL void DoubleStandStill(const void* place);
DOUBLE_CONTROL void DoubleWake(const void* place);
// Empty, or who waited for what when, for the first time since the last call, no thread could run and the clock had to end
// somebody's wait for an object. Valid until the next call.
DOUBLE_CONTROL const char* DoubleTakeStuck();
// Printed with the list of who waits for what when no thread can ever run again; null: nothing. The text is the caller's.
DOUBLE_CONTROL void DoubleTellIfStuck(const char* text);

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

// A process without a program of its own: it shares the modules and variables of the one that makes it, and has handles,
// mutexes and an account of the heap for itself. Work of it is done on the calling thread, between its beginning and its
// end here; so thousands of processes can live and die within a second. A handle's value is never that of another's.
class DoubleGuest;
DOUBLE_CONTROL DoubleGuest* DoubleMakeGuest();
// False when the work ended the process (TerminateProcess): then it did not come to its end, nothing was unwound, and the
// process's handles are closed and its mutexes abandoned.
DOUBLE_CONTROL bool DoubleRunGuest(DoubleGuest* guest, void (*work)(void*), void* argument);
// From within a guest's work: work of its maker, on the same thread.
DOUBLE_CONTROL void DoubleRunOutside(void (*work)(void*), void* argument);
struct DoubleLeft {
    DoubleOpen open;         // what the process had not closed
    std::size_t allocations; // of the program's own code, library included
    std::size_t bytes;
};
// Gives back what the process left behind, and says what it was.
DOUBLE_CONTROL DoubleLeft DoubleEndGuest(DoubleGuest* guest);

// For operator new: the module, by an address in it, that the next allocation is for; null behind it.
DOUBLE_CONTROL void DoubleAllocatesFor(const void* module);

// What a file holds now, whoever has it open: gives the number of bytes read, at most room, or all ones when there is none.
DOUBLE_CONTROL std::size_t DoubleReadFile(const wchar_t* path, void* bytes, std::size_t room);
// All that is written so far to the files below a folder reaches the disk.
DOUBLE_CONTROL void DoubleSyncBelow(const wchar_t* folder);
// The power goes. Of what was written to the files below a folder and not synchronised, nothing is there (seed 0), or each
// sector of 512 bytes and each file's length is as it was or as it is, as the seed chooses.
DOUBLE_CONTROL void DoubleLoseBelow(const wchar_t* folder, std::uint64_t seed);
// The power goes: what was written to files and not flushed is as it was before. Gives the number of files that changed.
DOUBLE_CONTROL std::size_t DoubleDropUnsynced();
// Milliseconds of virtual time since the start.
DOUBLE_CONTROL std::uint64_t DoubleTime();

// For std::thread: a thread of the calling process, by its number; waiting for its end.
DOUBLE_CONTROL std::uint64_t DoubleStartThread(void (*run)(void*), void* argument);
DOUBLE_CONTROL void DoubleJoinThread(std::uint64_t number);
