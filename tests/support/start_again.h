// Starting programs under Wine.
#pragma once

#include <windows.h>

namespace vttest {

// Calls start, which calls CreateProcessW and gives its result, and once or twice more when Wine lost the process: about
// once in a thousand starts it gives ERROR_INTERNAL_ERROR for one that was gone before it came to the program.
template <class Start>
bool StartAgain(const Start& start)
{
    bool started = start() != FALSE;
    for (int again = 0; again < 2 && !started && GetLastError() == ERROR_INTERNAL_ERROR; ++again)
        started = start() != FALSE;
    return started;
}

} // namespace vttest
