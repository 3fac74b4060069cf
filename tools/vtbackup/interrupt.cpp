#include "interrupt.h"

#include "failure.h"
#include "handle.h"

#include <atomic>

namespace vtbackup {
namespace {

std::atomic<bool> g_interrupted{false};

// How long the end of the program may take when its window is closed or its user leaves. The system has a limit of its own.
constexpr DWORD LONGEST_END_MS = 60000;

BOOL WINAPI OnConsoleEvent(DWORD event) noexcept
{
    const bool again = g_interrupted.exchange(true);
    // The second Ctrl-C gets the system's default, in case a request to a volume never returns. The
    // repository stands that: see the writer.
    if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT)
        return again ? FALSE : TRUE;
    // The window is closed, or the user leaves: the system ends the process when this returns, and the snapshot would stay.
    // The main thread's end is the process's, and ends this wait.
    Sleep(LONGEST_END_MS);
    return TRUE;
}

} // namespace

void WatchForInterrupt() noexcept
{
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
}

bool Interrupted() noexcept
{
    return g_interrupted.load(std::memory_order_relaxed);
}

void StopIfInterrupted()
{
    if (Interrupted())
        throw Failure(Exit::Interrupted, "interrupted; the repository is as it was before, run the command again");
}

} // namespace vtbackup
