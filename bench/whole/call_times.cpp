#include "call_times.h"

#include <aclapi.h>
#include <cstdlib>
#include <sddl.h>

namespace bench {

namespace {

enum Kind : unsigned { OPENS, READS, WRITES, FLUSHES, DRIVER, MEMORY, REGISTRY, LOCKS, OTHERS, KINDS };
constexpr const char* KIND_NAMES[KINDS] = {"opens_and_closes", "reads",    "writes", "flushes", "driver",
                                           "memory",           "registry", "locks",  "others"};

// clang-format off
#define TIMED_CALLS(X) \
    X(CreateFileW, OPENS) X(CloseHandle, OPENS) X(ReadFile, READS) X(WriteFile, WRITES) X(FlushFileBuffers, FLUSHES)   \
    X(DeviceIoControl, DRIVER)                                                                                         \
    X(calloc, MEMORY) X(malloc, MEMORY) X(realloc, MEMORY) X(free, MEMORY) X(VirtualAlloc, MEMORY)                     \
    X(VirtualFree, MEMORY)                                                                                             \
    X(RegCreateKeyExW, REGISTRY) X(RegOpenKeyExW, REGISTRY) X(RegQueryValueExW, REGISTRY)                              \
    X(RegSetValueExW, REGISTRY) X(RegDeleteValueW, REGISTRY) X(RegCloseKey, REGISTRY)                                  \
    X(CreateMutexW, LOCKS) X(OpenMutexW, LOCKS) X(WaitForSingleObject, LOCKS) X(ReleaseMutex, LOCKS)                   \
    X(SetFilePointer, OTHERS) X(SetFilePointerEx, OTHERS) X(GetFileSizeEx, OTHERS) X(OpenEventW, OTHERS)               \
    X(GetLocalTime, OTHERS) X(CreateDirectoryW, OTHERS) X(RemoveDirectoryW, OTHERS) X(DeleteFileW, OTHERS)             \
    X(SetFileAttributesW, OTHERS) X(GetFileAttributesW, OTHERS) X(FindFirstFileW, OTHERS) X(FindNextFileW, OTHERS)     \
    X(FindClose, OTHERS) X(FindFirstVolumeW, OTHERS) X(FindNextVolumeW, OTHERS) X(FindVolumeClose, OTHERS)             \
    X(GetDriveTypeW, OTHERS) X(GetVolumePathNamesForVolumeNameW, OTHERS) X(MapViewOfFile, OTHERS)                      \
    X(UnmapViewOfFile, OTHERS) X(GetNamedSecurityInfoW, OTHERS) X(SetEntriesInAclW, OTHERS)                            \
    X(SetNamedSecurityInfoW, OTHERS) X(ConvertStringSidToSidW, OTHERS)
// clang-format on

#define NAME_OF(name, kind) CALL_##name,
enum Call : unsigned { TIMED_CALLS(NAME_OF) CALLS };
#undef NAME_OF

constexpr std::size_t MODULES = 2;
void* g_originals[MODULES][CALLS];
LONGLONG g_ticks[KINDS];

LONGLONG Ticks()
{
    LARGE_INTEGER now = {};
    QueryPerformanceCounter(&now);
    return now.QuadPart;
}

class Stopwatch {
public:
    explicit Stopwatch(Kind kind) : m_kind(kind), m_begin(Ticks()) {}
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;
    ~Stopwatch() { g_ticks[m_kind] += Ticks() - m_begin; }

private:
    Kind m_kind;
    LONGLONG m_begin;
};

// What stands in the import's place: the same function, with a watch around it.
template <std::size_t Module, Call Which, Kind Of, class Result, class... Arguments>
Result Timed(Arguments... arguments)
{
    const Stopwatch watch(Of);
    return reinterpret_cast<Result (*)(Arguments...)>(g_originals[Module][Which])(arguments...);
}

template <std::size_t Module, Call Which, Kind Of, class Result, class... Arguments>
void* TimedLike(Result (*)(Arguments...))
{
    return reinterpret_cast<void*>(&Timed<Module, Which, Of, Result, Arguments...>);
}

struct Replacement {
    const char* name;
    void* functions[MODULES];
};

const std::vector<Replacement>& Replacements()
{
#define REPLACEMENT_OF(name, kind)                                                                                     \
    {#name, {TimedLike<0, CALL_##name, kind>(&::name), TimedLike<1, CALL_##name, kind>(&::name)}},
    static const std::vector<Replacement> replacements = {TIMED_CALLS(REPLACEMENT_OF)};
#undef REPLACEMENT_OF
    return replacements;
}

} // namespace

CallTimes::CallTimes(const std::vector<HMODULE>& modules)
{
    Require(modules.size() <= MODULES, "no more than two modules");
    // Nothing is allocated between an override and the next: one of them is of the function that allocates.
    m_overrides.reserve(modules.size() * CALLS);
    for (std::size_t module = 0; module < modules.size(); ++module) {
        for (std::size_t call = 0; call < CALLS; ++call) {
            const Replacement& replacement = Replacements()[call];
            g_originals[module][call] = vttest::ImportedFunction(modules[module], replacement.name);
            if (g_originals[module][call] == nullptr)
                continue;
            m_overrides.push_back(std::make_unique<vttest::ImportOverride>(modules[module], replacement.name,
                                                                           replacement.functions[module]));
        }
    }
}

CallTimes::~CallTimes()
{
    while (!m_overrides.empty())
        m_overrides.pop_back();
}

Json CallTimes::Of(int times, const std::function<void()>& work)
{
    std::fill(std::begin(g_ticks), std::end(g_ticks), 0);
    const LONGLONG begin = Ticks();
    for (int i = 0; i < times; ++i)
        work();
    const LONGLONG all = Ticks() - begin;
    LARGE_INTEGER frequency = {};
    QueryPerformanceFrequency(&frequency);
    LONGLONG ticks[KINDS];
    std::copy(std::begin(g_ticks), std::end(g_ticks), ticks); // what follows allocates
    const double unit = 1000.0 / static_cast<double>(frequency.QuadPart) / times;
    Json json = Json::object();
    LONGLONG left = all;
    for (unsigned kind = 0; kind < KINDS; ++kind) {
        json[KIND_NAMES[kind]] = Rounded(unit * static_cast<double>(ticks[kind]));
        left -= ticks[kind];
    }
    json["between_calls"] = Rounded(unit * static_cast<double>(left));
    json["all"] = Rounded(unit * static_cast<double>(all));
    return json;
}

} // namespace bench
