#include "interpose/calls.h"

#include "interpose/imports.h"

#include <cstring>
#include <cwchar>
#include <mutex>
#include <vector>

namespace vtfltsim::calls {

std::atomic<DWORD> g_counts[HOOK_COUNT];
std::atomic<DWORD> g_armed[HOOK_COUNT];
std::atomic<bool> g_recording{false};

namespace {

constexpr DWORD PAUSES = 0x100; // beside the VTFLTSIM_CALL_* values, for plans from the environment

struct Plan {
    Hook hook = Hook::Count; // Count: any function but those of memory
    DWORD what = VTFLTSIM_CALL_FAILS;
    std::wstring match;
    DWORD skip = 0;
    DWORD remaining = 0; // 0: for ever
    DWORD error = 0;
    ULONGLONG value = 0;
    bool spent = false;
    std::wstring event;                   // PAUSES
    VTFLTSIM_CALLBACK callback = nullptr; // when set, what means nothing
    void* context = nullptr;
};

struct TracedCall {
    std::wstring text;
    std::wstring arguments;
    const void* site = nullptr;
};

ProcessLock g_lock; // guards the three below
// Never destroyed: modules that are unloaded after this one still make their last calls through here.
auto& g_plans = *new std::vector<Plan>();
auto& g_trace = *new std::vector<TracedCall>();
auto& g_requests = *new std::vector<VTFLTSIM_REQUEST>();
std::atomic<DWORD> g_hits{0};
bool g_environmentRead = false; // guarded by g_lock

thread_local bool t_inCallback = false;
thread_local const std::wstring* t_arguments = nullptr;

// Changes the number of plans that wait for a plan's function, or functions.
void Arm(Hook hook, bool on)
{
    for (unsigned i = 0; i < HOOK_COUNT; ++i) {
        const auto one = static_cast<Hook>(i);
        if (hook != one && (hook != Hook::Count || IsMemoryHook(one)))
            continue;
        if (on)
            g_armed[i].fetch_add(1);
        else
            g_armed[i].fetch_sub(1);
    }
}

// Refusing these leaves something open that nobody can close.
bool GivesBack(Hook hook)
{
    switch (hook) {
    case Hook::CloseHandle:
    case Hook::FindClose:
    case Hook::FindVolumeClose:
    case Hook::CloseServiceHandle:
    case Hook::RegCloseKey:
    case Hook::ReleaseMutex:
    case Hook::UnmapViewOfFile:
        return true;
    default:
        return false;
    }
}

bool Concerns(const Plan& plan, Hook hook)
{
    if (plan.hook != Hook::Count)
        return plan.hook == hook;
    const bool refuses = plan.callback == nullptr && plan.what != PAUSES && plan.what != VTFLTSIM_CALL_KILLS_BEFORE &&
                         plan.what != VTFLTSIM_CALL_KILLS_AFTER;
    return !IsMemoryHook(hook) && !(refuses && GivesBack(hook));
}

bool Strikes(Plan& plan, Hook hook, const std::wstring& text)
{
    if (plan.spent || !Concerns(plan, hook) || text.find(plan.match) == std::wstring::npos)
        return false;
    if (plan.skip != 0) {
        --plan.skip;
        return false;
    }
    if (plan.remaining != 0 && --plan.remaining == 0) {
        plan.spent = true;
        Arm(plan.hook, false);
    }
    return true;
}

DWORD Add(Plan plan)
{
    const std::lock_guard guard(g_lock);
    Arm(plan.hook, true);
    g_plans.push_back(std::move(plan));
    return 0;
}

// Tells the parent that the point is reached, and waits for its word.
void Pause(const std::wstring& event)
{
    const Handle go(OpenEventW(SYNCHRONIZE, FALSE, (event + L".go").c_str()));
    const Handle reached(OpenEventW(EVENT_MODIFY_STATE, FALSE, (event + L".reached").c_str()));
    if (reached)
        SetEvent(reached.get());
    if (go)
        WaitForSingleObject(go.get(), INFINITE);
}

Verdict Execute(const std::vector<Plan>& struck, Hook hook, const std::wstring& text)
{
    Verdict verdict;
    for (const auto& plan : struck) {
        if (plan.callback != nullptr) {
            t_inCallback = true;
            plan.callback(plan.context, HookName(hook), text.c_str());
            t_inCallback = false;
        } else if (plan.what == PAUSES) {
            Pause(plan.event);
        }
    }
    for (const auto& plan : struck) {
        if (plan.callback != nullptr || plan.what == PAUSES)
            continue;
        g_hits.fetch_add(1);
        if (plan.what == VTFLTSIM_CALL_KILLS_BEFORE)
            KillProcess();
        static constexpr Verdict::What WHATS[] = {Verdict::What::Fails,      Verdict::What::Returns,
                                                  Verdict::What::Short,      Verdict::What::Proceed,
                                                  Verdict::What::KillsAfter, Verdict::What::FailsAfter};
        verdict.what = WHATS[plan.what];
        verdict.error = plan.error;
        verdict.value = plan.value;
        break;
    }
    return verdict;
}

std::vector<std::wstring> SplitAt(const std::wstring& text, wchar_t separator)
{
    std::vector<std::wstring> parts(1);
    for (const wchar_t c : text) {
        if (c == separator)
            parts.emplace_back();
        else
            parts.back().push_back(c);
    }
    return parts;
}

bool ParseNumber(const std::wstring& text, ULONGLONG& value)
{
    value = 0;
    if (text.empty() || text.size() > 18)
        return false;
    for (const wchar_t c : text) {
        if (c < L'0' || c > L'9')
            return false;
        value = value * 10 + static_cast<ULONGLONG>(c - L'0');
    }
    return true;
}

// word|function|match|nth|count|error|value, or word|function|match|nth|event; see the public header.
bool ParseItem(const std::wstring& item, Plan& plan)
{
    struct Word {
        const wchar_t* text;
        DWORD what;
    };
    static constexpr Word WORDS[] = {{L"fail", VTFLTSIM_CALL_FAILS},
                                     {L"return", VTFLTSIM_CALL_RETURNS},
                                     {L"short", VTFLTSIM_CALL_SHORT},
                                     {L"kill-before", VTFLTSIM_CALL_KILLS_BEFORE},
                                     {L"kill-after", VTFLTSIM_CALL_KILLS_AFTER},
                                     {L"pause", PAUSES}};
    const auto fields = SplitAt(item, L'|');
    const Word* word = nullptr;
    for (const auto& candidate : WORDS) {
        if (fields[0] == candidate.text)
            word = &candidate;
    }
    if (word == nullptr || fields.size() < 2)
        return false;
    if (!FindHookOrAny(fields[1].c_str(), plan.hook))
        return false;
    plan.what = word->what;
    plan.match = fields.size() > 2 ? fields[2] : L"";
    ULONGLONG numbers[4] = {1, 1, 0, 0}; // nth, count, error, value
    const std::size_t last = plan.what == PAUSES ? 4 : fields.size();
    for (std::size_t i = 3; i < fields.size() && i < last; ++i) {
        if (i > 6 || !ParseNumber(fields[i], numbers[i - 3]))
            return false;
    }
    if (plan.what == PAUSES) {
        if (fields.size() != 5 || fields[4].empty())
            return false;
        plan.event = fields[4];
    }
    plan.skip = numbers[0] == 0 ? 0 : static_cast<DWORD>(numbers[0] - 1);
    plan.remaining = static_cast<DWORD>(numbers[1]);
    plan.error = static_cast<DWORD>(numbers[2]);
    plan.value = numbers[3];
    return true;
}

} // namespace

void KillProcess()
{
    TerminateProcess(GetCurrentProcess(), VTFLTSIM_KILLED);
    for (;;)
        Sleep(INFINITE); // the call above does not come back; the compiler does not know
}

Verdict Judge(Hook hook, const std::wstring& text)
{
    std::vector<Plan> struck;
    {
        const std::lock_guard guard(g_lock);
        if (g_recording.load() && !IsMemoryHook(hook)) {
            g_trace.push_back({text.empty() ? HookName(hook) : std::wstring(HookName(hook)) + L" " + text,
                               t_arguments != nullptr ? *t_arguments : std::wstring(), CallSite()});
            t_arguments = nullptr; // a callback's calls have their own
        }
        for (auto& plan : g_plans) {
            const bool skipped = t_inCallback && plan.callback != nullptr;
            if (!skipped && Strikes(plan, hook, text))
                struck.push_back(plan);
        }
    }
    return struck.empty() ? Verdict() : Execute(struck, hook, text);
}

DWORD AddFault(const VTFLTSIM_CALL_FAULT& fault)
{
    Plan plan;
    if (fault.function == nullptr || !FindHookOrAny(fault.function, plan.hook))
        return ERROR_PROC_NOT_FOUND;
    if (fault.what > VTFLTSIM_CALL_FAILS_AFTER)
        return ERROR_INVALID_PARAMETER;
    plan.what = fault.what;
    plan.match = fault.match != nullptr ? fault.match : L"";
    plan.skip = fault.nth == 0 ? 0 : fault.nth - 1;
    plan.remaining = fault.count;
    plan.error = fault.error;
    plan.value = fault.value;
    return Add(std::move(plan));
}

DWORD AddCallback(Hook hook, const wchar_t* match, DWORD nth, DWORD count, VTFLTSIM_CALLBACK callback, void* context)
{
    Plan plan;
    plan.hook = hook;
    plan.match = match != nullptr ? match : L"";
    plan.skip = nth == 0 ? 0 : nth - 1;
    plan.remaining = count;
    plan.callback = callback;
    plan.context = context;
    return Add(std::move(plan));
}

DWORD ReadPlanFromEnvironment()
{
    {
        const std::lock_guard guard(g_lock);
        if (g_environmentRead)
            return 0;
        g_environmentRead = true;
    }
    const DWORD needed = GetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, nullptr, 0);
    if (needed <= 1)
        return 0;
    std::wstring text(needed, L'\0');
    text.resize(GetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, text.data(), needed));
    for (const auto& item : SplitAt(text, L';')) {
        Plan plan;
        if (item.empty())
            continue;
        if (!ParseItem(item, plan))
            return ERROR_INVALID_PARAMETER;
        Add(std::move(plan));
    }
    return 0;
}

void ClearFaults()
{
    const std::lock_guard guard(g_lock);
    g_plans.clear();
    for (auto& armed : g_armed)
        armed.store(0);
    g_hits.store(0);
}

DWORD FaultHits()
{
    return g_hits.load();
}

void Record(bool on)
{
    const std::lock_guard guard(g_lock);
    if (on) {
        g_trace.clear();
        g_requests.clear();
    }
    g_recording.store(on);
}

DWORD TraceAt(DWORD index, wchar_t* text, DWORD characters)
{
    const std::lock_guard guard(g_lock);
    if (index >= g_trace.size())
        return ERROR_NO_MORE_ITEMS;
    CopyCut(text, characters, g_trace[index].text);
    return 0;
}

DWORD ArgumentsAt(DWORD index, wchar_t* text, DWORD characters)
{
    const std::lock_guard guard(g_lock);
    if (index >= g_trace.size())
        return ERROR_NO_MORE_ITEMS;
    CopyCut(text, characters, g_trace[index].arguments);
    return 0;
}

void Arguments::Note(const std::wstring* text)
{
    t_arguments = text;
}

DWORD SiteAt(DWORD index, const void*& site)
{
    const std::lock_guard guard(g_lock);
    if (index >= g_trace.size())
        return ERROR_NO_MORE_ITEMS;
    site = g_trace[index].site;
    return 0;
}

void RecordRequest(const VTFLTSIM_REQUEST& request)
{
    if (!g_recording.load())
        return;
    const std::lock_guard guard(g_lock);
    g_requests.push_back(request);
}

DWORD RequestAt(DWORD index, VTFLTSIM_REQUEST& request)
{
    const std::lock_guard guard(g_lock);
    if (index >= g_requests.size())
        return ERROR_NO_MORE_ITEMS;
    request = g_requests[index];
    return 0;
}

void ResetCounts()
{
    for (auto& count : g_counts)
        count.store(0);
}

bool FindHookOrAny(const wchar_t* name, Hook& hook)
{
    hook = static_cast<Hook>(FindHook(name));
    return hook != Hook::Count || std::wcscmp(name, ANY_FUNCTION) == 0;
}

DWORD CountOf(Hook hook)
{
    DWORD count = 0;
    for (unsigned i = 0; i < HOOK_COUNT; ++i) {
        const auto one = static_cast<Hook>(i);
        if (hook == one || (hook == Hook::Count && !IsMemoryHook(one)))
            count += g_counts[i].load();
    }
    return count;
}

} // namespace vtfltsim::calls
