// What the log needs to know of where it runs: which product components are installed and where, which of them owns the
// logging module, their versions, whether the system is WinPE, and what the machine is.
//
// Every probe fails soft: a missing key or value gives the registry's error code and leaves the outputs zero or empty.
// None logs. All keys are below HKEY_LOCAL_MACHINE and only read.
#pragma once

#include "log/config_block.h"
#include "log/own_module.h"
#include "log/record_text.h"
#include "log/ring_block.h"
#include "win/owners.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace vtflt {

// Component kinds; a set of them where several are meant.
inline constexpr DWORD COMPONENT_NONE = 0;
inline constexpr DWORD COMPONENT_ENGINE = 1;
inline constexpr DWORD COMPONENT_MANAGEMENT = 2;
inline constexpr DWORD COMPONENT_PRODUCT_ROOT = 4;
inline constexpr DWORD COMPONENT_WINPE = 8; // with no other

inline constexpr std::size_t PRODUCT_KEY_CAPACITY = 128;

namespace LOGUTILS {

// One open registry key.
class CRegistry {
public:
    // Opens a subkey of HKEY_LOCAL_MACHINE for reading; on 64-bit Windows in its 64-bit view. 0 or the registry's error.
    DWORD Open(const wchar_t* subkey) noexcept;
    // Reads a value as text, up to its first zero, cut to the buffer; empty on failure. 0 or the registry's error.
    template <std::size_t N>
    DWORD ReadString(const wchar_t* name, wchar_t (&text)[N]) const noexcept
    {
        return ReadString(name, text, N);
    }
    // Reads a value whole, up to its first zero. Null on failure.
    std::unique_ptr<wchar_t[]> ReadText(const wchar_t* name, DWORD& error) const noexcept;
    // Reads a REG_DWORD. 0; 13 for another type or size; else the registry's error.
    DWORD ReadDword(const wchar_t* name, DWORD& value) const noexcept;

private:
    DWORD ReadString(const wchar_t* name, wchar_t* text, std::size_t capacity) const noexcept;

    UniqueKey m_key;
};

// The machine, as its native programs see it.
class CSysInfo {
public:
    CSysInfo() noexcept;
    virtual ~CSysInfo() = default;

    const SYSTEM_INFO& Get() const noexcept { return m_info; }

private:
    SYSTEM_INFO m_info = {};
};

// The operating system's version.
class CWinVer {
public:
    CWinVer() noexcept;
    virtual ~CWinVer() = default;

    bool IsValid() const noexcept { return m_isValid; }
    const OSVERSIONINFOEXW& Get() const noexcept { return m_version; }

private:
    OSVERSIONINFOEXW m_version = {};
    bool m_isValid = false;
};

} // namespace LOGUTILS

bool IsWinPE() noexcept;

// The set of components that are present, or exactly WinPE.
DWORD ComponentsPresent() noexcept;
// Whether a component's product key can be opened.
bool IsComponentPresent(DWORD kind) noexcept;

// The key of one component. 0; 87 for a kind without one; 122 when the buffer is too small.
DWORD GetProductKey(DWORD kind, wchar_t* buffer, std::size_t capacity) noexcept;

// The folder of one component. 0; 87 for a kind without one; 1168 for a root path that is empty; else the registry's.
DWORD GetInstallPath(DWORD kind, wchar_t (&path)[LOG_PATH_CAPACITY]) noexcept;

// The component whose folder contains a module: WinPE, the first of Engine, Management and product root that does, or
// none. An empty module is in none.
DWORD GetOwnComponent() noexcept;
// The same of Engine, Management and product root, with that component's folder; none leaves it empty.
DWORD FindOwnComponent(std::wstring_view modulePath, wchar_t (&installPath)[LOG_PATH_CAPACITY]) noexcept;

struct ProductVersion {
    DWORD major = 0;
    DWORD minor = 0;
    DWORD update = 0;
};

// Modes of GetProductVersion: 0 to 2 read the kind that is asked for.
inline constexpr DWORD PRODUCT_VERSION_OF_KIND = 0;
inline constexpr DWORD PRODUCT_VERSION_OF_ANY = 4; // the Engine's, failing that the Management's

// 0; 87 for a kind without a version, 1168 for another mode or when neither major nor minor is known; else the
// registry's error.
DWORD GetProductVersion(DWORD kind, DWORD mode, ProductVersion& version) noexcept;

// The file version of a module's version resource; both halves 0 when it has none.
struct FileVersion {
    DWORD high = 0; // first and second number
    DWORD low = 0;  // third and fourth
};
FileVersion GetModuleFileVersion(const wchar_t* path) noexcept;

// The local time, as records show it.
LogRecordTime GetLocalRecordTime() noexcept;
void GetLocalTimeText(wchar_t (&text)[TIME_TEXT_CAPACITY]) noexcept;
void GetLocalTimeText(char (&text)[TIME_TEXT_CAPACITY]) noexcept;

const wchar_t* PlatformName(WORD processorArchitecture) noexcept;

} // namespace vtflt
