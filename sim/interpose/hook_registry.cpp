// Keys below HKEY_LOCAL_MACHINE become keys of the machine, below HKEY_CURRENT_USER. Once open, they are the
// system's own keys.
#include "interpose/attach.h"
#include "interpose/calls.h"
#include "interpose/handles.h"
#include "interpose/hook_functions.h"

namespace vtfltsim {

namespace {

std::wstring TextOf(const wchar_t* text)
{
    return text != nullptr ? text : L"";
}

std::wstring KeyText(HKEY key, const wchar_t* name)
{
    const std::wstring base = key == HKEY_LOCAL_MACHINE ? L"" : handles::TextOf(OpenKind::Key, key);
    return base.empty() ? TextOf(name) : base + L"\\" + TextOf(name);
}

std::wstring ValueText(HKEY key, const wchar_t* value)
{
    return handles::TextOf(OpenKind::Key, key) + L"|" + TextOf(value);
}

// The key and the path to give to the system.
struct RealKey {
    HKEY root;
    const wchar_t* path;
    std::wstring storage;

    RealKey(HKEY key, const wchar_t* subKey) : root(key), path(subKey)
    {
        const auto machine = key == HKEY_LOCAL_MACHINE ? AttachedMachine() : nullptr;
        if (machine == nullptr)
            return;
        storage = machine->RealKeyPath(TextOf(subKey));
        while (!storage.empty() && storage.back() == L'\\')
            storage.pop_back();
        root = HKEY_CURRENT_USER;
        path = storage.c_str();
    }
    RealKey(const RealKey&) = delete;
    RealKey& operator=(const RealKey&) = delete;
    bool redirected() const { return !storage.empty(); }
};

// What the system itself keeps there is still readable when the machine has no such key of its own.
bool IsSystemsOwn(const wchar_t* subKey)
{
    const std::wstring path = TextOf(subKey);
    return StartsNoCase(path, L"SOFTWARE\\Microsoft\\") || StartsNoCase(path, L"HARDWARE\\");
}

template <class Open>
LSTATUS Opening(Hook hook, HKEY key, const wchar_t* subKey, HKEY* result, Open open, const wchar_t* note = L"")
{
    return StatusCall<LSTATUS>(
        hook, [&] { return KeyText(key, subKey) + note; },
        [&](const Verdict&) {
            const RealKey real(key, subKey);
            const LSTATUS code = open(real);
            if (code == 0 && result != nullptr)
                handles::NoteOpened(OpenKind::Key, *result, KeyText(key, subKey));
            return code;
        });
}

LSTATUS WINAPI SimRegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD reserved, LPWSTR kind, DWORD options, REGSAM access,
                                  LPSECURITY_ATTRIBUTES security, PHKEY result, LPDWORD disposition)
{
    const calls::Arguments arguments([&] {
        return L"options " + Decimal(options) + L"|access " + Hexadecimal(access) + L"|security " +
               Decimal(security != nullptr);
    });
    return Opening(Hook::RegCreateKeyExW, key, subKey, result, [&](const RealKey& real) {
        return RegCreateKeyExW(real.root, real.path, reserved, kind, options, access, security, result, disposition);
    });
}

LSTATUS WINAPI SimRegCreateKeyW(HKEY key, LPCWSTR subKey, PHKEY result)
{
    return Opening(Hook::RegCreateKeyW, key, subKey, result,
                   [&](const RealKey& real) { return RegCreateKeyW(real.root, real.path, result); });
}

LSTATUS WINAPI SimRegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY result)
{
    const calls::Arguments arguments(
        [&] { return L"options " + Decimal(options) + L"|access " + Hexadecimal(access); });
    const auto open = [&](const RealKey& real) {
        const LSTATUS code = RegOpenKeyExW(real.root, real.path, options, access, result);
        if (code == ERROR_FILE_NOT_FOUND && real.redirected() && IsSystemsOwn(subKey))
            return RegOpenKeyExW(key, subKey, options, access & ~static_cast<REGSAM>(KEY_WRITE & ~KEY_READ), result);
        return code;
    };
    return Opening(Hook::RegOpenKeyExW, key, subKey, result, open,
                   (access & KEY_WOW64_64KEY) != 0 ? L"|64-bit view" : L"");
}

LSTATUS WINAPI SimRegOpenKeyW(HKEY key, LPCWSTR subKey, PHKEY result)
{
    return Opening(Hook::RegOpenKeyW, key, subKey, result,
                   [&](const RealKey& real) { return RegOpenKeyW(real.root, real.path, result); });
}

LSTATUS WINAPI SimRegDeleteKeyW(HKEY key, LPCWSTR subKey)
{
    return StatusCall<LSTATUS>(
        Hook::RegDeleteKeyW, [&] { return KeyText(key, subKey); },
        [&](const Verdict&) {
            const RealKey real(key, subKey);
            return RegDeleteKeyW(real.root, real.path);
        });
}

LSTATUS WINAPI SimRegDeleteTreeW(HKEY key, LPCWSTR subKey)
{
    return StatusCall<LSTATUS>(
        Hook::RegDeleteTreeW, [&] { return KeyText(key, subKey); },
        [&](const Verdict&) {
            const RealKey real(key, subKey);
            return RegDeleteTreeW(real.root, real.path);
        });
}

LSTATUS WINAPI SimRegQueryValueExW(HKEY key, LPCWSTR value, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size)
{
    return StatusCall<LSTATUS>(
        Hook::RegQueryValueExW, [&] { return ValueText(key, value); },
        [&](const Verdict&) { return RegQueryValueExW(key, value, reserved, type, data, size); });
}

LSTATUS WINAPI SimRegSetValueExW(HKEY key, LPCWSTR value, DWORD reserved, DWORD type, const BYTE* data, DWORD size)
{
    return StatusCall<LSTATUS>(
        Hook::RegSetValueExW, [&] { return ValueText(key, value); },
        [&](const Verdict&) { return RegSetValueExW(key, value, reserved, type, data, size); });
}

LSTATUS WINAPI SimRegDeleteValueW(HKEY key, LPCWSTR value)
{
    return StatusCall<LSTATUS>(
        Hook::RegDeleteValueW, [&] { return ValueText(key, value); },
        [&](const Verdict&) { return RegDeleteValueW(key, value); });
}

LSTATUS WINAPI SimRegCloseKey(HKEY key)
{
    return StatusCall<LSTATUS>(
        Hook::RegCloseKey, [&] { return handles::TextOf(OpenKind::Key, key); },
        [&](const Verdict&) {
            return handles::Closing<LSTATUS>(OpenKind::Key, key, 0, [&] { return RegCloseKey(key); });
        });
}

} // namespace

VTFLTSIM_DEFINE(RegCreateKeyExW, SimRegCreateKeyExW)
VTFLTSIM_DEFINE(RegCreateKeyW, SimRegCreateKeyW)
VTFLTSIM_DEFINE(RegOpenKeyExW, SimRegOpenKeyExW)
VTFLTSIM_DEFINE(RegOpenKeyW, SimRegOpenKeyW)
VTFLTSIM_DEFINE(RegDeleteKeyW, SimRegDeleteKeyW)
VTFLTSIM_DEFINE(RegDeleteTreeW, SimRegDeleteTreeW)
VTFLTSIM_DEFINE(RegQueryValueExW, SimRegQueryValueExW)
VTFLTSIM_DEFINE(RegSetValueExW, SimRegSetValueExW)
VTFLTSIM_DEFINE(RegDeleteValueW, SimRegDeleteValueW)
VTFLTSIM_DEFINE(RegCloseKey, SimRegCloseKey)

} // namespace vtfltsim
