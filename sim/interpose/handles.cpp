#include "interpose/handles.h"

#include <map>
#include <mutex>

namespace vtfltsim::handles {

namespace {

struct Entry {
    OpenKind kind = OpenKind::Other;
    std::wstring text;
    std::shared_ptr<SimObject> object;
    int owned = 0;
};

// Kernel handles share one space of values; searches, keys and service handles each have their own.
unsigned SpaceOf(OpenKind kind)
{
    switch (kind) {
    case OpenKind::Search:
        return 1;
    case OpenKind::Key:
        return 2;
    case OpenKind::Service:
        return 3;
    case OpenKind::VolumeSearch:
        return 4;
    default:
        return 0;
    }
}

using Place = std::pair<unsigned, const void*>;

ProcessLock g_lock;                           // guards the three below
auto& g_open = *new std::map<Place, Entry>(); // never destroyed: the last closes come while modules unload
DWORD g_failedCloses = 0;
int g_ownedWhenClosed = 0; // mutexes closed by their owner without a release

Place PlaceOf(OpenKind kind, const void* value)
{
    return {SpaceOf(kind), value};
}

void Enter(OpenKind kind, const void* value, const std::wstring& text, std::shared_ptr<SimObject> object)
{
    const std::lock_guard guard(g_lock);
    // An old entry of this value belongs to a handle that was closed by somebody who is not attached.
    g_open[PlaceOf(kind, value)] = Entry{kind, text, std::move(object), 0};
}

} // namespace

struct Taken {
    Place place;
    Entry entry;
};

HANDLE OpenSimulated(OpenKind kind, const std::wstring& text, std::shared_ptr<SimObject> object)
{
    const HANDLE placeholder = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    if (placeholder != nullptr)
        Enter(kind, placeholder, text, std::move(object));
    return placeholder;
}

void NoteOpened(OpenKind kind, const void* value, const std::wstring& text)
{
    const LastErrorKeeper keeper;
    Enter(kind, value, text, nullptr);
}

std::shared_ptr<Taken> TakeOut(OpenKind kind, const void* value)
{
    const std::lock_guard guard(g_lock);
    const auto found = g_open.find(PlaceOf(kind, value));
    if (found == g_open.end())
        return nullptr;
    auto taken = std::make_shared<Taken>(Taken{found->first, std::move(found->second)});
    g_ownedWhenClosed += taken->entry.owned;
    g_open.erase(found);
    return taken;
}

void PutBack(const std::shared_ptr<Taken>& taken)
{
    if (taken == nullptr)
        return;
    const std::lock_guard guard(g_lock);
    g_ownedWhenClosed -= taken->entry.owned;
    g_open[taken->place] = taken->entry;
}

void NoteFailedClose()
{
    const std::lock_guard guard(g_lock);
    ++g_failedCloses;
}

std::wstring TextOf(OpenKind kind, const void* value)
{
    const std::lock_guard guard(g_lock);
    const auto found = g_open.find(PlaceOf(kind, value));
    return found != g_open.end() ? found->second.text : std::wstring();
}

bool IsKnown(OpenKind kind, const void* value)
{
    const std::lock_guard guard(g_lock);
    const auto found = g_open.find(PlaceOf(kind, value));
    return found != g_open.end() && found->second.kind == kind;
}

std::shared_ptr<SimObject> ObjectOf(OpenKind kind, const void* value)
{
    const std::lock_guard guard(g_lock);
    const auto found = g_open.find(PlaceOf(kind, value));
    return found != g_open.end() ? found->second.object : nullptr;
}

void NoteMutexOwned(const void* value, int change)
{
    const std::lock_guard guard(g_lock);
    const auto found = g_open.find(PlaceOf(OpenKind::Mutex, value));
    if (found != g_open.end() && found->second.kind == OpenKind::Mutex)
        found->second.owned += change;
}

DWORD OpenCount(DWORD kind)
{
    const std::lock_guard guard(g_lock);
    if (kind == VTFLTSIM_FAILED_CLOSES)
        return g_failedCloses;
    int count = kind == VTFLTSIM_OWNED_MUTEXES ? g_ownedWhenClosed : 0;
    for (const auto& [place, entry] : g_open) {
        if (kind == VTFLTSIM_OWNED_MUTEXES)
            count += entry.owned;
        else if (static_cast<DWORD>(entry.kind) == kind)
            ++count;
    }
    return static_cast<DWORD>(count);
}

DWORD OpenTextAt(DWORD kind, DWORD index, wchar_t* text, DWORD characters)
{
    const std::lock_guard guard(g_lock);
    for (const auto& [place, entry] : g_open) {
        if (static_cast<DWORD>(entry.kind) != kind || index-- != 0)
            continue;
        CopyCut(text, characters, entry.text);
        return 0;
    }
    return ERROR_NO_MORE_ITEMS;
}

void ForgetAll()
{
    const std::lock_guard guard(g_lock);
    g_open.clear();
    g_failedCloses = 0;
    g_ownedWhenClosed = 0;
}

} // namespace vtfltsim::handles
