#include "interrupt.h"

#include "failure.h"
#include "handle.h"

#include <atomic>

namespace vtbackup {
namespace {

std::atomic<bool> g_interrupted{false};

BOOL WINAPI OnConsoleEvent(DWORD) noexcept
{
    // The second Ctrl-C gets the system's default, in case a request to a volume never returns. The
    // repository stands that: see the writer.
    return g_interrupted.exchange(true) ? FALSE : TRUE;
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
