// What happens around every redirected call: it is counted, recorded, and a planned fault may strike it.
#pragma once

#include "interpose/hooks.h"
#include "interpose/win.h"
#include "vtfltsim/VTFltSim.h"

#include <atomic>
#include <string>
#include <type_traits>

namespace vtfltsim {

// What is to become of one call.
struct Verdict {
    enum class What { Proceed, Fails, Returns, Short, KillsAfter, FailsAfter };
    What what = What::Proceed;
    DWORD error = 0;
    ULONGLONG value = 0;
};

namespace calls {

// In the place of a function's name: every redirected function, but for those that allocate memory; and a fault that
// refuses does not refuse to close or release what is held.
inline constexpr wchar_t ANY_FUNCTION[] = L"*";

extern std::atomic<DWORD> g_counts[HOOK_COUNT];
extern std::atomic<DWORD> g_armed[HOOK_COUNT]; // faults and callbacks waiting for this function
extern std::atomic<bool> g_recording;

// Records the call and finds its verdict. May end the process or run a callback. Keeps the last error.
Verdict Judge(Hook hook, const std::wstring& text);
[[noreturn]] void KillProcess();

// What the thread's next call asks for beside its name. Noted for as long as this lives, while calls are recorded.
class Arguments {
public:
    template <class Text>
    explicit Arguments(Text&& text)
    {
        if (!g_recording.load(std::memory_order_relaxed))
            return;
        const LastErrorKeeper keeper;
        m_text = text();
        Note(&m_text);
    }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;
    ~Arguments()
    {
        if (!m_text.empty())
            Note(nullptr);
    }

private:
    static void Note(const std::wstring* text);

    std::wstring m_text;
};

DWORD AddFault(const VTFLTSIM_CALL_FAULT& fault);
DWORD AddCallback(Hook hook, const wchar_t* match, DWORD nth, DWORD count, VTFLTSIM_CALLBACK callback, void* context);
// Reads the plan from the environment variable VTFLTSIM_CALLS. 87 when it cannot be understood.
DWORD ReadPlanFromEnvironment();
void ClearFaults();
DWORD FaultHits();

void Record(bool on);
DWORD TraceAt(DWORD index, wchar_t* text, DWORD characters);
DWORD ArgumentsAt(DWORD index, wchar_t* text, DWORD characters);
DWORD SiteAt(DWORD index, const void*& site);
void RecordRequest(const VTFLTSIM_REQUEST& request);
DWORD RequestAt(DWORD index, VTFLTSIM_REQUEST& request);
void ResetCounts();
// The hook of this name, or Hook::Count for the name that stands for all functions but those of memory. False for
// other names.
bool FindHookOrAny(const wchar_t* name, Hook& hook);
// Calls counted; of all functions but those of memory for Hook::Count.
DWORD CountOf(Hook hook);

} // namespace calls

template <class Text>
Verdict Begin(Hook hook, Text&& text)
{
    const auto index = static_cast<unsigned>(hook);
    calls::g_counts[index].fetch_add(1, std::memory_order_relaxed);
    const bool recorded = calls::g_recording.load(std::memory_order_relaxed) && !IsMemoryHook(hook);
    if (!recorded && calls::g_armed[index].load(std::memory_order_acquire) == 0)
        return {};
    const LastErrorKeeper keeper;
    return calls::Judge(hook, text());
}

// A forced value as the function's own result type.
template <class R>
R ForcedValue(ULONGLONG value)
{
    if constexpr (std::is_pointer_v<R>)
        return reinterpret_cast<R>(static_cast<ULONG_PTR>(value));
    else
        return static_cast<R>(value);
}

// Runs one call whose failure shows in the last error.
template <class R, class Text, class Body>
R Call(Hook hook, R failure, Text&& text, Body&& body)
{
    const Verdict verdict = Begin(hook, text);
    if (verdict.what == Verdict::What::Fails || verdict.what == Verdict::What::Returns) {
        SetLastError(verdict.error);
        return verdict.what == Verdict::What::Fails ? failure : ForcedValue<R>(verdict.value);
    }
    const R result = body(verdict);
    if (verdict.what == Verdict::What::KillsAfter)
        calls::KillProcess();
    if (verdict.what == Verdict::What::FailsAfter) {
        SetLastError(verdict.error);
        return failure;
    }
    return result;
}

// Runs one call whose result is the error itself, as the registry functions have it.
template <class R, class Text, class Body>
R StatusCall(Hook hook, Text&& text, Body&& body)
{
    const Verdict verdict = Begin(hook, text);
    if (verdict.what == Verdict::What::Fails)
        return static_cast<R>(verdict.error);
    if (verdict.what == Verdict::What::Returns)
        return static_cast<R>(verdict.value);
    const R result = body(verdict);
    if (verdict.what == Verdict::What::KillsAfter)
        calls::KillProcess();
    return verdict.what == Verdict::What::FailsAfter ? static_cast<R>(verdict.error) : result;
}

} // namespace vtfltsim
