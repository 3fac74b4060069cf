// Part of every module: std::thread makes threads of the double. Threads of the host would run beside the one that has
// the baton.
#include "double/control.h"

#include <cstdint>
#include <memory>
#include <thread>

namespace std {

thread::_State::~_State() = default;

void thread::_M_start_thread(_State_ptr state, void (*)())
{
    // The thread's number stands in the place of the host's handle.
    _M_id = id(static_cast<__gthread_t>(DoubleStartThread(
        [](void* argument) {
            const unique_ptr<_State> running(static_cast<_State*>(argument));
            running->_M_run();
        },
        state.release())));
}

void thread::join()
{
    DoubleJoinThread(static_cast<uint64_t>(_M_id._M_thread));
    _M_id = id();
}

} // namespace std
