#include "log/probes.h"

#include "log/bounded_text.h"
#include "log/decimal.h"
#include "log/text_compare.h"

#include <bit>
#include <new>

namespace vtflt {

namespace {

constexpr wchar_t ENGINE_KEY[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine";
constexpr wchar_t MANAGEMENT_KEY[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Management";
constexpr wchar_t PRODUCT_ROOT_KEY[] = L"SOFTWARE\\Veltrix\\Lumen Protect";

const wchar_t* ProductKeyText(DWORD kind) noexcept
{
    switch (kind) {
    case COMPONENT_ENGINE:
        return ENGINE_KEY;
    case COMPONENT_MANAGEMENT:
        return MANAGEMENT_KEY;
    case COMPONENT_PRODUCT_ROOT:
        return PRODUCT_ROOT_KEY;
    default:
        return nullptr;
    }
}

// Opens a component's product key, or a subkey of it.
DWORD OpenProductKey(DWORD kind, std::wstring_view subkey, LOGUTILS::CRegistry& key) noexcept
{
    wchar_t name[PRODUCT_KEY_CAPACITY];
    const DWORD error = GetProductKey(kind, name, PRODUCT_KEY_CAPACITY);
    if (error != ERROR_SUCCESS)
        return error;
    AppendText(name, subkey);
    return key.Open(name);
}

DWORD ReadStringOf(DWORD kind, std::wstring_view subkey, const wchar_t* name,
                   wchar_t (&text)[LOG_PATH_CAPACITY]) noexcept
{
    LOGUTILS::CRegistry key;
    const DWORD error = OpenProductKey(kind, subkey, key);
    return error != ERROR_SUCCESS ? error : key.ReadString(name, text);
}

DWORD ReadNumber(const LOGUTILS::CRegistry& key, const wchar_t* name) noexcept
{
    wchar_t text[LOG_PATH_CAPACITY] = {};
    return key.ReadString(name, text) == ERROR_SUCCESS ? ParseDecimal(FieldText(text)) : 0;
}

// An update of nothing is no version.
DWORD CheckVersion(ProductVersion& version) noexcept
{
    if (version.major != 0 || version.minor != 0)
        return ERROR_SUCCESS;
    version = {};
    return ERROR_NOT_FOUND;
}

DWORD ReadEngineVersion(ProductVersion& version) noexcept
{
    LOGUTILS::CRegistry key;
    const DWORD error = OpenProductKey(COMPONENT_ENGINE, L"\\Version", key);
    if (error != ERROR_SUCCESS)
        return error;
    version = {ReadNumber(key, L"Major"), ReadNumber(key, L"Minor"), ReadNumber(key, L"UpdateVersionNumber")};
    return CheckVersion(version);
}

DWORD ReadConsoleVersion(DWORD kind, ProductVersion& version) noexcept
{
    LOGUTILS::CRegistry key;
    DWORD error = OpenProductKey(kind, L"\\Console", key);
    if (error != ERROR_SUCCESS)
        return error;
    wchar_t text[LOG_PATH_CAPACITY] = {};
    error = key.ReadString(L"Version", text);
    if (error != ERROR_SUCCESS)
        return error;
    const std::wstring_view dotted = FieldText(text);
    const std::size_t firstDot = dotted.find(L'.');
    version.major = ParseDecimal(dotted.substr(0, firstDot));
    // A number ends where its digits end, so what stands behind a second dot does not matter.
    version.minor = firstDot == std::wstring_view::npos ? 0 : ParseDecimal(dotted.substr(firstDot + 1));
    version.update = ReadNumber(key, L"UpdateVersionNumber");
    return CheckVersion(version);
}

DWORD ReadVersionOf(DWORD kind, ProductVersion& version) noexcept
{
    switch (kind) {
    case COMPONENT_ENGINE:
        return ReadEngineVersion(version);
    case COMPONENT_MANAGEMENT:
    case COMPONENT_PRODUCT_ROOT:
        return ReadConsoleVersion(kind, version);
    default:
        return ERROR_INVALID_PARAMETER;
    }
}

// A function of kernel32 that some system may lack.
template <class Function>
Function Kernel32Function(const char* name) noexcept
{
    const HMODULE kernel32 = GetModuleHandleW(L"kernel32");
    if (kernel32 == nullptr)
        return nullptr;
    // Through a plain function pointer: compilers rightly warn of a direct cast between unlike function types.
    return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(GetProcAddress(kernel32, name)));
}

// Whether this is a 32-bit process on 64-bit Windows.
bool IsWow64() noexcept
{
    const auto isWow64Process = Kernel32Function<BOOL(WINAPI*)(HANDLE, BOOL*)>("IsWow64Process");
    BOOL isWow64 = FALSE;
    return isWow64Process != nullptr && isWow64Process(GetCurrentProcess(), &isWow64) && isWow64;
}

} // namespace

namespace LOGUTILS {

DWORD CRegistry::Open(const wchar_t* subkey) noexcept
{
    const REGSAM access = IsWow64() ? KEY_READ | KEY_WOW64_64KEY : KEY_READ;
    return static_cast<DWORD>(RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, access, m_key.put()));
}

std::unique_ptr<wchar_t[]> CRegistry::ReadText(const wchar_t* name, DWORD& error) const noexcept
{
    DWORD size = 0;
    error = static_cast<DWORD>(RegQueryValueExW(m_key.get(), name, nullptr, nullptr, nullptr, &size));
    if (error != ERROR_SUCCESS)
        return nullptr;
    // Four bytes more, zero: room for an end that the stored text may lack, and for the odd half of a character.
    std::unique_ptr<wchar_t[]> text(new (std::nothrow) wchar_t[(std::size_t{size} + 4 + 1) / sizeof(wchar_t)]());
    if (text == nullptr) {
        error = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
    error = static_cast<DWORD>(
        RegQueryValueExW(m_key.get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(text.get()), &size));
    if (error != ERROR_SUCCESS)
        text.reset();
    return text;
}

DWORD CRegistry::ReadString(const wchar_t* name, wchar_t* text, std::size_t capacity) const noexcept
{
    text[0] = L'\0';
    DWORD error = ERROR_SUCCESS;
    const std::unique_ptr<wchar_t[]> whole = ReadText(name, error);
    if (whole == nullptr)
        return error;
    std::size_t length = 0;
    for (; length + 1 < capacity && whole[length] != L'\0'; ++length)
        text[length] = whole[length];
    text[length] = L'\0';
    return ERROR_SUCCESS;
}

DWORD CRegistry::ReadDword(const wchar_t* name, DWORD& value) const noexcept
{
    DWORD type = REG_NONE;
    DWORD number = 0;
    DWORD size = sizeof(number);
    const LSTATUS error = RegQueryValueExW(m_key.get(), name, nullptr, &type, reinterpret_cast<BYTE*>(&number), &size);
    if (error != ERROR_SUCCESS)
        return static_cast<DWORD>(error);
    if (type != REG_DWORD || size != sizeof(number))
        return ERROR_INVALID_DATA;
    value = number;
    return ERROR_SUCCESS;
}

CSysInfo::CSysInfo() noexcept
{
    if (!IsWow64()) {
        GetSystemInfo(&m_info);
        return;
    }
    if (const auto getNative = Kernel32Function<void(WINAPI*)(SYSTEM_INFO*)>("GetNativeSystemInfo"))
        getNative(&m_info);
}

CWinVer::CWinVer() noexcept
{
    static_assert(sizeof(OSVERSIONINFOEXW) == 284 && sizeof(OSVERSIONINFOW) == 276);
    auto* const plain = reinterpret_cast<OSVERSIONINFOW*>(&m_version);
    for (const DWORD size : {DWORD{sizeof(OSVERSIONINFOEXW)}, DWORD{sizeof(OSVERSIONINFOW)}}) {
        m_version = {};
        m_version.dwOSVersionInfoSize = size;
#if defined(_MSC_VER)
#pragma warning(suppress : 4996) // the number is for people: what this function answers to old programs will do
#endif
        if (GetVersionExW(plain)) {
            m_isValid = true;
            return;
        }
    }
}

} // namespace LOGUTILS

bool IsWinPE() noexcept
{
    LOGUTILS::CRegistry key;
    if (key.Open(L"SYSTEM\\Setup") != ERROR_SUCCESS)
        return false;
    DWORD error = ERROR_SUCCESS;
    const std::unique_ptr<wchar_t[]> commandLine = key.ReadText(L"CmdLine", error);
    return commandLine != nullptr &&
           std::wstring_view(commandLine.get()).find(L"winpeshl.exe") != std::wstring_view::npos;
}

bool IsComponentPresent(DWORD kind) noexcept
{
    LOGUTILS::CRegistry key;
    return OpenProductKey(kind, {}, key) == ERROR_SUCCESS;
}

DWORD ComponentsPresent() noexcept
{
    if (IsWinPE())
        return COMPONENT_WINPE;
    DWORD kinds = COMPONENT_NONE;
    if (IsComponentPresent(COMPONENT_ENGINE))
        kinds |= COMPONENT_ENGINE | COMPONENT_PRODUCT_ROOT;
    if (IsComponentPresent(COMPONENT_MANAGEMENT))
        kinds |= COMPONENT_MANAGEMENT | COMPONENT_PRODUCT_ROOT;
    return kinds;
}

DWORD GetProductKey(DWORD kind, wchar_t* buffer, std::size_t capacity) noexcept
{
    const wchar_t* const key = ProductKeyText(kind);
    if (key == nullptr)
        return ERROR_INVALID_PARAMETER;
    const std::wstring_view text(key);
    if (text.size() >= capacity)
        return ERROR_INSUFFICIENT_BUFFER;
    text.copy(buffer, text.size());
    buffer[text.size()] = L'\0';
    return ERROR_SUCCESS;
}

DWORD GetInstallPath(DWORD kind, wchar_t (&path)[LOG_PATH_CAPACITY]) noexcept
{
    path[0] = L'\0';
    switch (kind) {
    case COMPONENT_ENGINE:
        return ReadStringOf(kind, L"\\InstallPath", L"Path", path);
    case COMPONENT_MANAGEMENT:
        return ReadStringOf(kind, {}, L"Path", path);
    case COMPONENT_PRODUCT_ROOT:
        break;
    default:
        return ERROR_INVALID_PARAMETER;
    }
    const DWORD error = ReadStringOf(kind, {}, L"RootPath", path);
    if (error != ERROR_SUCCESS)
        return error;
    const std::wstring_view root = FieldText(path);
    if (root.empty())
        return ERROR_NOT_FOUND;
    AppendText(path, root.back() == L'\\' ? L"Update Manager" : L"\\Update Manager");
    return ERROR_SUCCESS;
}

DWORD FindOwnComponent(std::wstring_view modulePath, wchar_t (&installPath)[LOG_PATH_CAPACITY]) noexcept
{
    for (const DWORD kind : {COMPONENT_ENGINE, COMPONENT_MANAGEMENT, COMPONENT_PRODUCT_ROOT}) {
        if (GetInstallPath(kind, installPath) == ERROR_SUCCESS &&
            StartsWithIgnoringCase(modulePath, FieldText(installPath)))
            return kind;
    }
    installPath[0] = L'\0';
    return COMPONENT_NONE;
}

DWORD GetOwnComponent() noexcept
{
    if (IsWinPE())
        return COMPONENT_WINPE;
    wchar_t installPath[LOG_PATH_CAPACITY];
    return FindOwnComponent(OwnModule().Path(), installPath);
}

DWORD GetProductVersion(DWORD kind, DWORD mode, ProductVersion& version) noexcept
{
    version = {};
    if (mode == PRODUCT_VERSION_OF_ANY) {
        const DWORD error = ReadEngineVersion(version);
        if (error == ERROR_SUCCESS)
            return error;
        return ReadConsoleVersion(COMPONENT_MANAGEMENT, version);
    }
    return mode > 2 ? static_cast<DWORD>(ERROR_NOT_FOUND) : ReadVersionOf(kind, version);
}

FileVersion GetModuleFileVersion(const wchar_t* path) noexcept
{
    constexpr DWORD SIGNATURE = 0xFEEF04BD;
    DWORD unused = 0;
    const DWORD size = GetFileVersionInfoSizeW(path, &unused);
    if (size == 0)
        return {};
    const std::unique_ptr<BYTE[]> block(new (std::nothrow) BYTE[size]());
    void* value = nullptr;
    UINT length = 0;
    if (block == nullptr || !GetFileVersionInfoW(path, 0, size, block.get()) ||
        !VerQueryValueW(block.get(), L"\\", &value, &length) || length < sizeof(VS_FIXEDFILEINFO))
        return {};
    const auto& info = *static_cast<const VS_FIXEDFILEINFO*>(value);
    return info.dwSignature == SIGNATURE ? FileVersion{info.dwFileVersionMS, info.dwFileVersionLS} : FileVersion{};
}

LogRecordTime GetLocalRecordTime() noexcept
{
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    static_assert(sizeof(SYSTEMTIME) == sizeof(LogRecordTime));
    return std::bit_cast<LogRecordTime>(now);
}

void GetLocalTimeText(wchar_t (&text)[TIME_TEXT_CAPACITY]) noexcept
{
    BuildTimeText(text, GetLocalRecordTime());
}

void GetLocalTimeText(char (&text)[TIME_TEXT_CAPACITY]) noexcept
{
    BuildTimeText(text, GetLocalRecordTime());
}

const wchar_t* PlatformName(WORD processorArchitecture) noexcept
{
    switch (processorArchitecture) {
    case PROCESSOR_ARCHITECTURE_INTEL:
        return L"X86";
    case PROCESSOR_ARCHITECTURE_IA64:
        return L"IA64";
    case PROCESSOR_ARCHITECTURE_AMD64:
        return L"X64";
    default:
        return L"Unknown";
    }
}

} // namespace vtflt
