#include "log/log_levels.h"

#include "log/bounded_text.h"
#include "log/config_block.h"
#include "log/probes.h"
#include "log/shared_objects.h"
#include "log/text_compare.h"

#include <map>
#include <new>
#include <string>
#include <vector>

namespace vtflt {

namespace {

// The fixed place of the list, whatever component owns the module.
constexpr wchar_t GLOBAL_OPTION_KEY[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\Debug";

SRWLOCK g_levelsLock = SRWLOCK_INIT;
std::map<std::wstring, DWORD, std::less<>> g_levels; // by module name; under g_levelsLock

SRWLOCK g_disabledLock = SRWLOCK_INIT;
std::vector<std::wstring> g_disabled; // from here on: under g_disabledLock
bool g_isDisabledRead = false;

// The component whose Debug key counts for this module; COMPONENT_NONE when no key does.
DWORD LevelComponent() noexcept
{
    const DWORD own = GetOwnComponent();
    if (own != COMPONENT_NONE && own != COMPONENT_PRODUCT_ROOT)
        return own;
    if (IsComponentPresent(COMPONENT_ENGINE))
        return COMPONENT_ENGINE;
    if (IsComponentPresent(COMPONENT_MANAGEMENT))
        return COMPONENT_MANAGEMENT;
    return own;
}

DWORD ReadLevel(const wchar_t* moduleName) noexcept
{
    wchar_t keyName[PRODUCT_KEY_CAPACITY];
    // WinPE and a module of no component have no product key.
    if (GetProductKey(LevelComponent(), keyName, PRODUCT_KEY_CAPACITY) != ERROR_SUCCESS)
        return LOG_LEVEL_NOT_SET;
    AppendText(keyName, L"\\Debug");
    LOGUTILS::CRegistry key;
    DWORD level = LOG_LEVEL_NOT_SET;
    if (key.Open(keyName) != ERROR_SUCCESS || key.ReadDword(moduleName, level) != ERROR_SUCCESS)
        return LOG_LEVEL_NOT_SET;
    return level;
}

std::vector<std::wstring> ReadDisabled()
{
    std::vector<std::wstring> names;
    LOGUTILS::CRegistry key;
    DWORD error = ERROR_SUCCESS;
    if (key.Open(GLOBAL_OPTION_KEY) != ERROR_SUCCESS)
        return names;
    const std::unique_ptr<wchar_t[]> text = key.ReadText(L"DisableGlobalOption", error);
    if (text == nullptr && error == ERROR_NOT_ENOUGH_MEMORY)
        throw std::bad_alloc(); // no list was read, and an empty one must not be remembered in its place
    if (text == nullptr)
        return names;
    for (std::wstring_view rest(text.get()); !rest.empty();) {
        const std::size_t end = rest.find(L' ');
        const std::wstring_view name = rest.substr(0, end);
        if (!name.empty())
            names.emplace_back(name);
        rest.remove_prefix(end == std::wstring_view::npos ? rest.size() : end + 1);
    }
    return names;
}

} // namespace

DWORD GetModuleLogLevel(std::wstring_view moduleName) noexcept
{
    const ExclusiveHold hold(g_levelsLock);
    DWORD level = LOG_LEVEL_NOT_SET;
    try {
        if (const auto known = g_levels.find(moduleName); known != g_levels.end())
            return known->second;
        const std::wstring name(moduleName);
        level = ReadLevel(name.c_str());
        g_levels.emplace(name, level);
    } catch (...) {
        // No memory to remember it, or for the name: the next question reads it again.
    }
    return level;
}

bool IsGlobalOptionDisabled(std::wstring_view executableName) noexcept
{
    const ExclusiveHold hold(g_disabledLock);
    try {
        if (!g_isDisabledRead)
            g_disabled = ReadDisabled();
        g_isDisabledRead = true;
    } catch (...) {
        return false; // no memory for the list: the next question reads it again
    }
    for (const std::wstring& name : g_disabled) {
        if (EqualIgnoringCase(name, executableName))
            return true;
    }
    return false;
}

void ForgetLogLevels() noexcept
{
    g_levels.clear();
    g_disabled = {};
    g_isDisabledRead = false;
}

} // namespace vtflt
