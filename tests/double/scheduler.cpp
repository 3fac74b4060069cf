// Threads, the baton, virtual time.
#include "double/api.h"
#include "double/control.h"
#include "double/kernel.h"

#include <algorithm>
#include <climits>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vtdouble {

namespace {

constexpr std::uint64_t MILLISECOND = 1'000'000;
constexpr std::size_t STACK_BYTES = 4u << 20;
// 2026-03-02 09:00:00, a Monday, as a file time.
constexpr std::uint64_t START_OF_TIME = 134'169'876'000'000'000ull;

struct Scheduler {
    std::vector<Thread*> threads; // all that have not ended, in the order in which they last ran
    std::uint64_t now = 0;
    std::uint64_t seed = 0;
    std::uint64_t state = 1;
    DWORD nextThreadId = 100;
    pthread_key_t atThreadEnd = 0;
    int over = 0; // the first program has ended
    DoubleChooser chooser = nullptr;
    void* chooserContext = nullptr;
    std::string stuck;      // see DoubleTakeStuck
    std::string stuckTaken; // what was handed out last
    const char* story = nullptr;
};

Scheduler& S()
{
    static auto& scheduler = *new Scheduler(); // never destroyed: threads may outlive the program's end
    return scheduler;
}

thread_local Thread* t_current = nullptr;

// The baton is passed by bare futex calls, which no sanitizer takes for synchronisation of the program under test.
void Hold(int& word)
{
    while (__atomic_load_n(&word, __ATOMIC_ACQUIRE) == 0)
        syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    __atomic_store_n(&word, 0, __ATOMIC_RELAXED);
}

void Give(int& word)
{
    __atomic_store_n(&word, 1, __ATOMIC_RELEASE);
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

void StopWaiting(Thread& thread, DWORD result)
{
    thread.state = Thread::State::Runnable;
    thread.waitResult = result;
    thread.waitsFor.clear();
    thread.waitsAt = nullptr;
    thread.wakesAt = Thread::NEVER;
}

// The result of the thread's wait, when it can end now; what it waited for is taken.
bool TrySatisfy(Thread& thread, DWORD& result)
{
    if (thread.waitsForAll) {
        for (const auto& object : thread.waitsFor) {
            if (!object->IsSignalledFor(thread))
                return false;
        }
        bool abandoned = false;
        for (const auto& object : thread.waitsFor)
            abandoned = object->Take(thread) || abandoned;
        result = abandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0;
        return true;
    }
    for (std::size_t i = 0; i < thread.waitsFor.size(); ++i) {
        if (!thread.waitsFor[i]->IsSignalledFor(thread))
            continue;
        const bool abandoned = thread.waitsFor[i]->Take(thread);
        result = (abandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + static_cast<DWORD>(i);
        return true;
    }
    return false;
}

// One line for each thread.
std::string WhoWaitsForWhat()
{
    std::string text;
    for (const Thread* thread : S().threads) {
        text +=
            "  process " + std::to_string(thread->process->id) + " thread " + std::to_string(thread->id) + " waits for";
        for (const auto& object : thread->waitsFor)
            text += std::string(" ") + object->kind() + " '" + Narrow(object->name) + "'";
        if (thread->waitsAt != nullptr) {
            char place[32];
            std::snprintf(place, sizeof(place), " a lock at %p", thread->waitsAt);
            text += place;
        }
        text += "\n";
    }
    return text;
}

void ReportDeadlock()
{
    std::fprintf(stderr, "double: no thread can run, and none waits with a timeout:\n%s", WhoWaitsForWhat().c_str());
    if (S().story != nullptr)
        std::fprintf(stderr, "%s\n", S().story);
    std::abort();
}

// When nobody can run, time passes until somebody can.
void PassTime()
{
    Thread* first = nullptr;
    for (Thread* thread : S().threads) {
        if (thread->state == Thread::State::Blocked && thread->wakesAt != Thread::NEVER &&
            (first == nullptr || thread->wakesAt < first->wakesAt))
            first = thread;
    }
    if (first == nullptr)
        ReportDeadlock();
    if (!first->waitsFor.empty() && S().stuck.empty())
        S().stuck = WhoWaitsForWhat();
    if (first->wakesAt > S().now)
        S().now = first->wakesAt;
    StopWaiting(*first, WAIT_TIMEOUT);
}

Thread& ChooseNext()
{
    std::vector<Thread*> runnable;
    for (;;) {
        for (Thread* thread : S().threads) {
            if (thread->state == Thread::State::Runnable)
                runnable.push_back(thread);
        }
        if (!runnable.empty())
            break;
        PassTime();
    }
    std::size_t which = 0;
    if (S().chooser != nullptr)
        which = std::min(S().chooser(S().chooserContext, runnable.size()), runnable.size() - 1);
    else if (S().seed != 0)
        which = Random(runnable.size());
    Thread& next = *runnable[which];
    std::erase(S().threads, &next);
    S().threads.push_back(&next);
    next.state = Thread::State::Running;
    return next;
}

void LeaveIfDoomed(Thread& me)
{
    if (!me.doomed || me.exitPoint == nullptr)
        return;
    for (; me.depth != 0; --me.depth)
        WatchAgain();
    longjmp(*static_cast<jmp_buf*>(me.exitPoint), 1);
}

// The calling thread does not run now: gives the baton on, and comes back when it has it again.
void Switch(Thread& me)
{
    Thread& next = ChooseNext();
    if (&next != &me) {
        Give(next.baton);
        Hold(me.baton);
    }
    LeaveIfDoomed(me);
}

void AbandonMutexes(Thread& thread)
{
    while (!thread.owned.empty())
        (*thread.owned.begin())->Abandon();
}

// Behind the destructors of the thread's own variables: nothing of the program runs in this thread any more.
void AtThreadEnd(void* value)
{
    Thread& me = *static_cast<Thread*>(value);
    StopWatching();
    BeforeRelease(me.object.get());
    me.state = Thread::State::Ended;
    AbandonMutexes(me);
    std::erase(S().threads, &me);
    me.process->threads.erase(&me);
    BeforeRelease(me.process);
    me.object->thread = nullptr;
    Notify(*me.object);
    if (me.isMain && me.process->object != nullptr) {
        auto& object = *me.process->object;
        object.process = nullptr;
        object.exitCode = me.object->exitCode;
        Notify(object);
    }
    const bool worldEnds = me.isMain && me.process->id == 1;
    if (me.isMain && !worldEnds)
        delete me.process;
    BeforeRelease(&S().over);
    if (worldEnds)
        Give(S().over);
    else
        Give(ChooseNext().baton);
    t_current = nullptr;
    delete &me;
    WatchAgain();
}

// main, and what a process does when it is over. Returns its exit code.
DWORD RunMainThread(Thread& me)
{
    Process& process = *me.process;
    jmp_buf exitPoint;
    if (setjmp(exitPoint) == 0) {
        me.exitPoint = &exitPoint;
        LoadModules(process);
        AttachModules(process);
        me.object->exitCode = static_cast<DWORD>(RunMain(process));
    }
    me.exitPoint = nullptr;
    const bool killed = process.dead;
    const DWORD exitCode = me.object->exitCode;
    EndProcess(process, exitCode);
    while (process.threads.size() > 1) {
        me.state = Thread::State::Runnable;
        Switch(me);
    }
    AfterAcquire(&process);
    if (!killed)
        DetachModules(process, true);
    UnloadModules(process);
    return exitCode;
}

void* Start(void* value)
{
    Thread& me = *static_cast<Thread*>(value);
    t_current = &me;
    pthread_setspecific(S().atThreadEnd, &me);
    Hold(me.baton);
    if (me.isMain) {
        me.object->exitCode = RunMainThread(me);
        return nullptr;
    }
    jmp_buf exitPoint;
    if (setjmp(exitPoint) == 0) {
        me.exitPoint = &exitPoint;
        LeaveIfDoomed(me);
        me.object->exitCode = me.entry(me.argument);
    }
    me.exitPoint = nullptr;
    return nullptr;
}

} // namespace

Thread* CurrentOrNull()
{
    return t_current;
}

Thread& Current()
{
    if (t_current == nullptr)
        Die("a call from a thread that is none of a simulated process");
    return *t_current;
}

Process& CurrentProcess()
{
    return *Current().process;
}

Entry::Entry()
{
    Thread& me = Current();
    LeaveIfDoomed(me);
    ++me.depth;
    StopWatching();
    MaySwitch();
}

Entry::~Entry()
{
    WatchAgain();
    --Current().depth;
}

void MaySwitch()
{
    constexpr std::uint64_t ONE_IN = 4;
    if (S().seed != 0 && Random(ONE_IN) == 0)
        GiveWay();
}

void GiveWay()
{
    Thread& me = Current();
    me.state = Thread::State::Runnable;
    Switch(me);
}

void Notify(Object& object)
{
    // By index: a thread that takes what it waited for changes nothing in the list.
    for (std::size_t i = 0; i < S().threads.size(); ++i) {
        Thread& thread = *S().threads[i];
        if (thread.state != Thread::State::Blocked)
            continue;
        bool concerned = false;
        for (const auto& one : thread.waitsFor)
            concerned = concerned || one.get() == &object;
        DWORD result = 0;
        if (concerned && TrySatisfy(thread, result))
            StopWaiting(thread, result);
    }
}

DWORD WaitFor(std::vector<ObjectRef>&& objects, bool all, DWORD milliseconds)
{
    Thread& me = Current();
    me.waitsFor = objects;
    me.awaited = std::move(objects);
    me.waitsForAll = all;
    DWORD result = WAIT_TIMEOUT;
    if (TrySatisfy(me, result) || milliseconds == 0 || me.exitPoint == nullptr) {
        me.waitsFor.clear();
    } else {
        me.state = Thread::State::Blocked;
        me.wakesAt = milliseconds == INFINITE ? Thread::NEVER : S().now + milliseconds * MILLISECOND;
        Switch(me);
        result = me.waitResult;
    }
    for (std::size_t i = 0; i < me.awaited.size() && result != WAIT_TIMEOUT; ++i) {
        if (all || i == (result & ~WAIT_ABANDONED_0))
            AfterAcquire(me.awaited[i].get());
    }
    me.awaited.clear();
    return result;
}

void SleepFor(DWORD milliseconds)
{
    Thread& me = Current();
    me.state = milliseconds == 0 ? Thread::State::Runnable : Thread::State::Blocked;
    me.wakesAt = milliseconds == INFINITE ? Thread::NEVER : S().now + milliseconds * MILLISECOND;
    Switch(me);
}

void BlockAt(const void* address)
{
    Thread& me = Current();
    me.state = Thread::State::Blocked;
    me.waitsAt = address;
    Switch(me);
}

void WakeAt(const void* address)
{
    for (Thread* thread : S().threads) {
        if (thread->state == Thread::State::Blocked && thread->waitsAt == address)
            StopWaiting(*thread, 0);
    }
}

std::shared_ptr<ThreadObject> StartThread(Process& process, DWORD(WINAPI* entry)(void*), void* argument, bool isMain)
{
    auto& thread = *new Thread();
    thread.process = &process;
    thread.id = S().nextThreadId += 4;
    thread.entry = entry;
    thread.argument = argument;
    thread.isMain = isMain;
    thread.object = std::make_shared<ThreadObject>();
    thread.object->thread = &thread;
    thread.object->id = thread.id;
    process.threads.insert(&thread);
    S().threads.push_back(&thread);

    auto object = thread.object;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, STACK_BYTES);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t started{};
    if (pthread_create(&started, &attributes, Start, &thread) != 0)
        Die("no thread could be made");
    pthread_attr_destroy(&attributes);
    return object;
}

void LeaveThread(DWORD exitCode)
{
    Thread& me = Current();
    me.object->exitCode = exitCode;
    me.doomed = true;
    LeaveIfDoomed(me);
    Die("a thread cannot leave while its process unloads");
}

void Doom(Thread& thread, DWORD exitCode)
{
    thread.doomed = true;
    thread.object->exitCode = exitCode;
    if (thread.state == Thread::State::Blocked)
        StopWaiting(thread, WAIT_FAILED);
}

std::uint64_t Now()
{
    return S().now;
}

std::uint64_t FileTimeNow()
{
    return START_OF_TIME + S().now / 100;
}

std::uint64_t Random(std::uint64_t bound)
{
    auto& state = S().state;
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state % bound;
}

void Seed(std::uint64_t seed)
{
    S().seed = seed;
    S().state = seed * 0x9E3779B97F4A7C15ull + 1;
}

} // namespace vtdouble

void DoubleChoose(DoubleChooser chooser, void* context)
{
    vtdouble::S().chooser = chooser;
    vtdouble::S().chooserContext = context;
}

const char* DoubleTakeStuck()
{
    auto& scheduler = vtdouble::S();
    scheduler.stuckTaken = std::move(scheduler.stuck);
    scheduler.stuck.clear();
    return scheduler.stuckTaken.c_str();
}

void DoubleTellIfStuck(const char* text)
{
    vtdouble::S().story = text;
}

namespace vtdouble {

void RunWorld(Process& first)
{
    pthread_key_create(&S().atThreadEnd, AtThreadEnd);
    StartThread(first, nullptr, nullptr, true);
    Give(ChooseNext().baton);
    Hold(S().over);
    AfterAcquire(&S().over);
    // The destructors of the program's variables run in the host's own thread, and close what they hold.
    auto& last = *new Thread();
    last.process = &first;
    last.object = std::make_shared<ThreadObject>();
    t_current = &last;
}

void Die(const char* format, ...)
{
    std::fputs("double: ", stderr);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputs("\n", stderr);
    std::abort();
}

} // namespace vtdouble
