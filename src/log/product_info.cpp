#include "log/product_info.h"

#include "log/probes.h"

namespace vtflt {

namespace {

constexpr DWORD COMPUTER_NAME_CAPACITY = 128;

// The component whose version the summary shows. Only the Engine stands in for one that is not known, although the
// product may have Management alone: readers of old logs know it so.
DWORD VersionComponent() noexcept
{
    const DWORD own = GetOwnComponent();
    if ((own == COMPONENT_NONE || own == COMPONENT_PRODUCT_ROOT) && IsComponentPresent(COMPONENT_ENGINE))
        return COMPONENT_ENGINE;
    return own;
}

// The executable's own version, with the update number in the upper bits of its fourth number.
ProductVersion ExecutableVersion() noexcept
{
    const FileVersion version = GetModuleFileVersion(ExecutableModule().text);
    return {version.high >> 16, version.high & 0xFFFF, (version.low & 0xFFFF) >> 8};
}

} // namespace

void GetProductLine(wchar_t (&text)[LOG_LINE_CAPACITY]) noexcept
{
    const DWORD component = VersionComponent();
    ProductVersion version;
    if (component == COMPONENT_NONE || component == COMPONENT_WINPE)
        version = ExecutableVersion();
    else
        GetProductVersion(component, PRODUCT_VERSION_OF_KIND, version);
    BuildProductLine(text, version.major, version.minor, version.update);
}

void GetSystemLine(wchar_t (&text)[LOG_LINE_CAPACITY]) noexcept
{
    wchar_t computer[COMPUTER_NAME_CAPACITY] = {};
    DWORD length = COMPUTER_NAME_CAPACITY;
    if (!GetComputerNameW(computer, &length))
        computer[0] = L'\0';
    const LOGUTILS::CWinVer system;
    const int major = system.IsValid() ? static_cast<int>(system.Get().dwMajorVersion) : -1;
    const int minor = system.IsValid() ? static_cast<int>(system.Get().dwMinorVersion) : -1;
    const LOGUTILS::CSysInfo machine;
    BuildSystemLine(text, computer, major, minor, PlatformName(machine.Get().wProcessorArchitecture));
}

} // namespace vtflt
