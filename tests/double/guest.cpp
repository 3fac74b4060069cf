// Guests: processes that share their maker's modules.
#include "double/control.h"

#include "double/kernel.h"

#include <csetjmp>
#include <cstdlib>
#include <dlfcn.h>

using namespace vtdouble;

class DoubleGuest : public Process {
public:
    std::uintptr_t number = 0;
};

namespace {

constexpr std::uintptr_t HANDLES_EACH = 0x10000;

// The numbers of the guests that there are; a new one takes the lowest that is free, so that a run repeats itself.
std::set<std::uintptr_t>& Numbers()
{
    static auto& numbers = *new std::set<std::uintptr_t>();
    return numbers;
}

std::uintptr_t TakeNumber()
{
    std::uintptr_t number = 1;
    while (!Numbers().insert(number).second)
        ++number;
    return number;
}

void AbandonOwned(Thread& thread)
{
    while (!thread.owned.empty())
        (*thread.owned.begin())->Abandon();
}

// The simulator says of everything that it makes for itself that it is its own. What it does not say that of is a call of
// the program that it passed on.
bool IsTheProgramsOwn(const Allocation& allocation, const Process& process)
{
    Dl_info module{};
    return dladdr(allocation.site, &module) != 0 &&
           (!allocation.isMeant || module.dli_fbase == process.modules.front().base);
}

// What the thread is besides the guest's: put back when the work is over, however it ends.
struct Before {
    Process* process;
    void* exitPoint;
    DWORD exitCode;
};

} // namespace

DoubleGuest* DoubleMakeGuest()
{
    Process& host = CurrentProcess();
    auto* const guest = new DoubleGuest();
    guest->host = &host;
    guest->number = TakeNumber();
    guest->id = host.id + static_cast<DWORD>(guest->number);
    guest->object = std::make_shared<ProcessObject>();
    guest->object->process = guest;
    guest->object->id = guest->id;
    guest->environment = host.environment;
    guest->predefinedKeys = host.predefinedKeys;
    guest->modules = host.modules;
    guest->commandLine = host.commandLine;
    guest->directory = host.directory;
    guest->suffix = host.suffix;
    guest->nextHandle = guest->number * HANDLES_EACH;
    return guest;
}

bool DoubleRunGuest(DoubleGuest* guest, void (*work)(void*), void* argument)
{
    Thread& me = Current();
    const Before before{me.process, me.exitPoint, me.object->exitCode};
    me.process = guest;
    guest->dead = false;
    jmp_buf exitPoint;
    if (setjmp(exitPoint) == 0) {
        me.exitPoint = &exitPoint;
        work(argument);
    } else {
        me.doomed = false;
        AbandonOwned(me);
    }
    me.process = before.process;
    me.exitPoint = before.exitPoint;
    me.object->exitCode = before.exitCode;
    return !guest->dead;
}

void DoubleRunOutside(void (*work)(void*), void* argument)
{
    Thread& me = Current();
    Process* const inside = me.process;
    if (inside->host != nullptr)
        me.process = inside->host;
    work(argument);
    me.process = inside;
}

DoubleLeft DoubleEndGuest(DoubleGuest* guest)
{
    DoubleLeft left = {};
    for (const auto& [value, entry] : guest->handles)
        ++(entry.isKey ? left.open.keys : left.open.handles);
    left.open.views = guest->views.size();
    left.open.badCloses = guest->badCloses;
    left.open.ownedMutexes = Current().owned.size();
    while (!guest->handles.empty())
        guest->Close(reinterpret_cast<HANDLE>(guest->handles.begin()->first));
    for (const auto& [inverted, allocation] : guest->allocations) {
        if (!IsTheProgramsOwn(allocation, *guest))
            continue; // the simulator's own, which it keeps
        ++left.allocations;
        left.bytes += allocation.size;
        std::free(reinterpret_cast<void*>(~inverted));
    }
    guest->object->process = nullptr;
    Numbers().erase(guest->number);
    delete guest;
    return left;
}
