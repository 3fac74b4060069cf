// Machine: its registry, below HKEY_CURRENT_USER\Software\VTFltSim\<id>.
#include "interpose/machine_parts.h"

#include <algorithm>

namespace vtfltsim {

namespace {

constexpr wchar_t FILTER[] = L"VTFlt";
constexpr DWORD LIST_MUTEX_WAIT_MS = 60000; // then on without it, as everybody who uses the list does in the end

DWORD ReadList(HKEY key, const wchar_t* value, std::vector<std::wstring>& entries)
{
    DWORD type = 0;
    DWORD size = 0;
    LONG code = RegQueryValueExW(key, value, nullptr, &type, nullptr, &size);
    std::wstring data(size / 2 + 1, L'\0');
    if (code == 0)
        code = RegQueryValueExW(key, value, nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
    if (code == ERROR_FILE_NOT_FOUND)
        return 0;
    if (code == 0 && type == REG_MULTI_SZ)
        entries = SplitList(data.data(), size / 2);
    return static_cast<DWORD>(code);
}

DWORD WriteList(HKEY key, const wchar_t* value, const std::vector<std::wstring>& entries)
{
    const std::wstring list = JoinList(entries);
    return static_cast<DWORD>(RegSetValueExW(key, value, 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(list.c_str()),
                                             static_cast<DWORD>((list.size() + 1) * sizeof(wchar_t))));
}

// The list's mutex, as every process of the library takes it.
class ListMutex {
public:
    ListMutex() : m_mutex(CreateMutexW(nullptr, FALSE, L"VTBitmapManager.DeviceListForReSync.Mutex"))
    {
        const DWORD wait = m_mutex ? WaitForSingleObject(m_mutex.get(), LIST_MUTEX_WAIT_MS) : WAIT_FAILED;
        m_owned = wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED;
    }
    ListMutex(const ListMutex&) = delete;
    ListMutex& operator=(const ListMutex&) = delete;
    ~ListMutex()
    {
        if (m_owned)
            ReleaseMutex(m_mutex.get());
    }

private:
    Handle m_mutex;
    bool m_owned = false;
};

} // namespace

std::wstring Machine::RealKeyPath(const std::wstring& subKey) const
{
    std::wstring path = L"Software\\VTFltSim\\" + m_id + L"\\HKLM";
    return subKey.empty() ? path : path + L"\\" + subKey;
}

DWORD Machine::OpenKey(const std::wstring& subKey, REGSAM access, HKEY* key) const
{
    return static_cast<DWORD>(
        RegCreateKeyExW(HKEY_CURRENT_USER, RealKeyPath(subKey).c_str(), 0, nullptr, 0, access, nullptr, key, nullptr));
}

DWORD Machine::ResetRegistry()
{
    RegDeleteTreeW(HKEY_CURRENT_USER, (L"Software\\VTFltSim\\" + m_id).c_str());
    const std::vector<std::wstring> filters = {L"volsnap", FILTER};
    DWORD code = SetUpperFilters(VOLUME_CLASS_KEY, &filters);
    if (code == 0)
        code = SetUpperFilters(SNAPSHOT_CLASS_KEY, nullptr);
    Key service;
    if (code == 0)
        code = OpenKey(SERVICE_KEY, KEY_READ | KEY_WRITE, service.put());
    Key driver;
    if (code == 0)
        code = OpenKey(L"SOFTWARE\\Veltrix\\Shared\\CBTDriver", KEY_READ | KEY_WRITE, driver.put());
    if (code != 0)
        return code;
    std::wstring location = m_directory + L"\\CBTDriver";
    if (location.rfind(L"\\\\?\\", 0) == 0)
        location.erase(0, 4);
    return static_cast<DWORD>(RegSetValueExW(driver.get(), L"InstallLocation", 0, REG_SZ,
                                             reinterpret_cast<const BYTE*>(location.c_str()),
                                             static_cast<DWORD>((location.size() + 1) * sizeof(wchar_t))));
}

DWORD Machine::SetUpperFilters(const std::wstring& classKeyPath, const std::vector<std::wstring>* filters) const
{
    Key key;
    const DWORD code = OpenKey(classKeyPath, KEY_READ | KEY_WRITE, key.put());
    if (code != 0)
        return code;
    if (filters != nullptr)
        return WriteList(key.get(), L"UpperFilters", *filters);
    const LONG removed = RegDeleteValueW(key.get(), L"UpperFilters");
    return removed == ERROR_FILE_NOT_FOUND ? 0 : static_cast<DWORD>(removed);
}

std::vector<std::wstring> Machine::UpperFilters(const std::wstring& classKeyPath) const
{
    Key key;
    std::vector<std::wstring> filters;
    if (OpenKey(classKeyPath, KEY_READ, key.put()) == 0)
        ReadList(key.get(), L"UpperFilters", filters);
    return filters;
}

bool Machine::IsSnapshotClassFiltered() const
{
    const auto filters = UpperFilters(SNAPSHOT_CLASS_KEY);
    return std::find(filters.begin(), filters.end(), FILTER) != filters.end();
}

// Takes the filter out of the volume class, or puts it right behind volsnap (last, when that is not listed).
void Machine::InstallFilter(bool present) const
{
    auto filters = UpperFilters(VOLUME_CLASS_KEY);
    filters.erase(std::remove(filters.begin(), filters.end(), FILTER), filters.end());
    if (present) {
        auto at = std::find(filters.begin(), filters.end(), L"volsnap");
        filters.insert(at == filters.end() ? at : at + 1, FILTER);
    }
    SetUpperFilters(VOLUME_CLASS_KEY, &filters);
}

DWORD Machine::ListForResync(const std::wstring& guid) const
{
    const ListMutex mutex;
    Key key;
    DWORD code = OpenKey(SERVICE_KEY, KEY_READ | KEY_WRITE, key.put());
    std::vector<std::wstring> entries;
    if (code == 0)
        code = ReadList(key.get(), L"DeviceListForReSync", entries);
    if (code != 0)
        return code;
    if (std::find(entries.begin(), entries.end(), guid) != entries.end())
        return 0;
    entries.push_back(guid);
    return WriteList(key.get(), L"DeviceListForReSync", entries);
}

} // namespace vtfltsim
