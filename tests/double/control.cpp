#include "double/control.h"

#include "double/api.h"
#include "double/file_system.h"

#include <cstdio>
#include <functional>
#include <sys/resource.h>

using namespace vtdouble;

namespace {

std::size_t DropUnsynced(Node& node)
{
    std::size_t dropped = 0;
    if (node.contents != nullptr && node.contents->HasUnsynced()) {
        node.contents->DropUnsynced();
        ++dropped;
    }
    for (const auto& [name, child] : node.children)
        dropped += DropUnsynced(*child);
    return dropped;
}

// Each file of the double is an open file of the host.
void AllowManyFiles()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

int DoubleRun(const char* imageFolder, int argc, char** argv, unsigned long long seed)
{
    AllowManyFiles();
    SetImageFolder(imageFolder);
    Seed(seed);
    Text line;
    for (int i = 0; i < argc; ++i)
        line += (i != 0 ? L" \"" : L"\"") + Widen(argv[i]) + L"\"";
    DWORD error = 0;
    Process* const first = MakeProcess(Widen(argv[0]), line, nullptr, error);
    if (first == nullptr)
        Die("there is no program %s in %s", argv[0], imageFolder);
    first->environment[L"TEMP"] = L"C:\\users\\tester\\Temp";
    RunWorld(*first);
    return static_cast<int>(first->object->exitCode);
}

void DoubleSeed(std::uint64_t seed)
{
    Seed(seed);
}

void DoubleYield()
{
    const NotWatched notWatched;
    GiveWay();
}

void DoubleStandStill(const void* place)
{
    const NotWatched notWatched;
    BlockAt(place);
}

void DoubleWake(const void* place)
{
    const NotWatched notWatched;
    WakeAt(place);
}

DoubleOpen DoubleCountOpen()
{
    const Process& process = CurrentProcess();
    DoubleOpen open = {};
    for (const auto& [value, entry] : process.handles)
        ++(entry.isKey ? open.keys : open.handles);
    open.views = process.views.size();
    open.ownedMutexes = Current().owned.size();
    open.badCloses = process.badCloses;
    return open;
}

void DoubleListOpen()
{
    for (const auto& [value, entry] : CurrentProcess().handles)
        std::fprintf(stderr, "open: %s '%s'\n", entry.object->kind(), Narrow(entry.object->name).c_str());
    for (const auto& [address, view] : CurrentProcess().views)
        std::fprintf(stderr, "open: view of %zu bytes '%s'\n", view.size, Narrow(view.name).c_str());
}

std::size_t DoubleDropUnsynced()
{
    return DropUnsynced(*RootFolder());
}

namespace {

void ForEachFile(Node& node, const std::function<void(Contents&)>& work)
{
    if (node.contents != nullptr)
        work(*node.contents);
    for (const auto& [name, child] : node.children)
        ForEachFile(*child, work);
}

} // namespace

void DoubleSyncBelow(const wchar_t* folder)
{
    const Place place = Resolve(folder, true);
    if (place.node != nullptr)
        ForEachFile(*place.node, [](Contents& contents) { contents.Sync(); });
}

void DoubleLoseBelow(const wchar_t* folder, std::uint64_t seed)
{
    const Place place = Resolve(folder, true);
    if (place.node == nullptr)
        return;
    ForEachFile(*place.node, [&](Contents& contents) {
        if (contents.HasUnsynced() && seed != 0)
            contents.TearUnsynced(seed);
        else
            contents.DropUnsynced();
    });
}

std::size_t DoubleReadFile(const wchar_t* path, void* bytes, std::size_t room)
{
    const Place place = Resolve(path);
    if (place.node == nullptr || place.node->contents == nullptr)
        return SIZE_MAX;
    return place.node->contents->Read(0, bytes, room);
}

std::uint64_t DoubleTime()
{
    return Now() / 1'000'000;
}

namespace {

struct NewThread {
    void (*run)(void*);
    void* argument;
};

// The threads that have not begun; one that is killed before it does leaves nothing that nobody knows.
std::set<std::unique_ptr<NewThread>>& Starts()
{
    static auto& starts = *new std::set<std::unique_ptr<NewThread>>();
    return starts;
}

NewThread* AddStart(const NewThread& start)
{
    return Starts().insert(std::make_unique<NewThread>(start)).first->get();
}

NewThread TakeStart(NewThread* start)
{
    const NewThread taken = *start;
    std::erase_if(Starts(), [start](const auto& known) { return known.get() == start; });
    return taken;
}

std::map<std::uint64_t, std::shared_ptr<ThreadObject>>& Joinable()
{
    static auto& threads = *new std::map<std::uint64_t, std::shared_ptr<ThreadObject>>();
    return threads;
}

} // namespace

std::uint64_t DoubleStartThread(void (*run)(void*), void* argument)
{
    const Entry entry;
    const auto thread = StartThread(
        CurrentProcess(),
        [](void* value) -> DWORD {
            // Given back before it runs: a thread that is killed comes no further.
            const NewThread start = TakeStart(static_cast<NewThread*>(value));
            start.run(start.argument);
            return 0;
        },
        AddStart({run, argument}), false);
    Joinable()[thread->id] = thread;
    return thread->id;
}

void DoubleJoinThread(std::uint64_t number)
{
    const Entry entry;
    const auto found = Joinable().find(number);
    if (found == Joinable().end())
        Die("a thread is joined that is none");
    std::vector<ObjectRef> thread;
    thread.push_back(std::move(found->second));
    Joinable().erase(found);
    WaitFor(std::move(thread), false, INFINITE);
}
