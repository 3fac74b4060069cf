// The table of redirected imports, and the functions that are only passed on.
#include "interpose/hooks.h"

#include "interpose/calls.h"
#include "interpose/hook_functions.h"

#include <aclapi.h>
#include <rpc.h>
#include <sddl.h>
#include <winver.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace vtfltsim {

VTFLTSIM_OWN_HOOKS(VTFLTSIM_DECLARE)

namespace {

void Describe(std::wstring& text, const wchar_t* value)
{
    if (value == nullptr)
        return;
    if (reinterpret_cast<ULONG_PTR>(value) < 0x10000) // a number in a pointer's clothes
        text += Decimal(reinterpret_cast<ULONG_PTR>(value));
    else
        text += value;
}

// Names of functions.
void Describe(std::wstring& text, const char* value)
{
    if (reinterpret_cast<ULONG_PTR>(value) < 0x10000)
        text += Decimal(reinterpret_cast<ULONG_PTR>(value));
    else
        text.append(value, value + std::strlen(value));
}

template <class T>
void Describe(std::wstring& text, T value)
{
    if constexpr (std::is_integral_v<T>)
        text += Decimal(static_cast<unsigned long long>(value));
}

template <class... A>
std::wstring Join(A... arguments)
{
    std::wstring text;
    auto one = [&](auto value) {
        std::wstring part;
        Describe(part, value);
        if (part.empty())
            return;
        if (!text.empty())
            text.push_back(L'|');
        text += part;
    };
    (one(arguments), ...);
    return text;
}

std::atomic<bool> g_redirectAddresses;

FARPROC Redirected(FARPROC found, HMODULE /*module*/, LPCSTR name)
{
    if (found == nullptr || !g_redirectAddresses || reinterpret_cast<ULONG_PTR>(name) < 0x10000)
        return found;
    const unsigned index = FindHook(name);
    if (index == HOOK_COUNT || HookTable()[index].passed)
        return found;
    return reinterpret_cast<FARPROC>(HookTable()[index].replacement);
}

enum class Fails { ByLastError, ByResult };

template <Hook H, Fails F, class Function>
struct Passed;

template <Hook H, Fails F, class R, class... A>
struct Passed<H, F, R (*)(A...)> {
    static R Run(A... arguments)
    {
        const auto original = reinterpret_cast<R (*)(A...)>(OriginalOf(H));
        auto text = [&] { return Join(arguments...); };
        if constexpr (std::is_void_v<R>) {
            const Verdict verdict = Begin(H, text);
            if (verdict.what != Verdict::What::Fails && verdict.what != Verdict::What::Returns)
                original(arguments...);
            if (verdict.what == Verdict::What::KillsAfter)
                calls::KillProcess();
        } else if constexpr (H == Hook::GetProcAddress) {
            return Call<R>(H, R{}, text,
                           [&](const Verdict&) { return Redirected(original(arguments...), arguments...); });
        } else if constexpr (F == Fails::ByResult) {
            return StatusCall<R>(H, text, [&](const Verdict&) { return original(arguments...); });
        } else {
            return Call<R>(H, R{}, text, [&](const Verdict&) { return original(arguments...); });
        }
    }
};

// Some C run-times declare their functions as not throwing.
template <Hook H, Fails F, class R, class... A>
struct Passed<H, F, R (*)(A...) noexcept> : Passed<H, F, R (*)(A...)> {
};

template <Hook H>
constexpr Fails FailureOf()
{
    switch (H) {
    case Hook::GetNamedSecurityInfoW:
    case Hook::SetEntriesInAclW:
    case Hook::SetNamedSecurityInfoW:
    case Hook::UuidCreate:
    case Hook::RegEnumValueW:
    case Hook::RegEnumKeyExW:
    case Hook::RegQueryInfoKeyW:
        return Fails::ByResult;
    default:
        return Fails::ByLastError;
    }
}

template <Hook H, class Function>
void* PassedAddress()
{
    return reinterpret_cast<void*>(&Passed<H, FailureOf<H>(), Function>::Run);
}

struct Table {
    HookEntry entries[HOOK_COUNT];
    Table()
    {
        unsigned i = 0;
#define VTFLTSIM_ENTRY(name) entries[i++] = {#name, Address_##name, false};
        VTFLTSIM_OWN_HOOKS(VTFLTSIM_ENTRY)
#undef VTFLTSIM_ENTRY
#define VTFLTSIM_ENTRY(name) entries[i++] = {#name, PassedAddress<Hook::name, decltype(&::name)>(), true};
        VTFLTSIM_PASSED_HOOKS(VTFLTSIM_ENTRY)
#undef VTFLTSIM_ENTRY
    }
};

constexpr const wchar_t* NAMES[] = {
#define VTFLTSIM_WIDE_NAME(name) L"" #name,
    VTFLTSIM_OWN_HOOKS(VTFLTSIM_WIDE_NAME) VTFLTSIM_PASSED_HOOKS(VTFLTSIM_WIDE_NAME)
#undef VTFLTSIM_WIDE_NAME
};

} // namespace

const HookEntry* HookTable()
{
    static const Table table;
    return table.entries;
}

const wchar_t* HookName(Hook hook)
{
    return NAMES[static_cast<unsigned>(hook)];
}

void RedirectAddresses()
{
    g_redirectAddresses = true;
}

unsigned FindHook(const char* name)
{
    const HookEntry* table = HookTable();
    unsigned i = 0;
    while (i < HOOK_COUNT && std::strcmp(table[i].name, name) != 0)
        ++i;
    return i;
}

unsigned FindHook(const wchar_t* name)
{
    unsigned i = 0;
    while (i < HOOK_COUNT && std::wcscmp(NAMES[i], name) != 0)
        ++i;
    return i;
}

} // namespace vtfltsim
