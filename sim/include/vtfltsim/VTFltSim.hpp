// A small C++ face of the simulator for test programs; see VTFltSim.h for what each call does.
//
//     vtfltsim::SimMachine machine;                       // new, in a folder of its own, gone at the end
//     auto volume = machine.AddVolume(64ull << 20, 65536);
//     machine.Attach(L"VTFltMgr.dll");
//     machine.AttachProgram();
//     machine.Write(volume, 0, data);
//
// A call that fails throws SimError, so that a test that could not be set up fails loudly.
#pragma once

#include "vtfltsim/VTFltSim.h"

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace vtfltsim {

class SimError : public std::runtime_error {
public:
    SimError(const char* what, DWORD code)
        : std::runtime_error(std::string(what) + " failed, error " + std::to_string(code)), m_code(code)
    {
    }
    DWORD code() const noexcept { return m_code; }

private:
    DWORD m_code;
};

inline void Check(const char* what, DWORD code)
{
    if (code != 0)
        throw SimError(what, code);
}

// Joins entries to a double-NUL-ended list, as the C functions take it.
inline std::wstring MultiString(const std::vector<std::wstring>& entries)
{
    std::wstring list;
    for (const auto& entry : entries)
        list.append(entry).push_back(L'\0');
    if (entries.empty())
        list.push_back(L'\0');
    list.push_back(L'\0');
    return list;
}

struct Volume {
    std::wstring guid;                                            // {...}
    std::wstring Path() const { return L"\\\\?\\Volume" + guid; } // as CreateFileW takes it
    std::wstring Root() const { return Path() + L"\\"; }          // as the enumeration gives it
    std::wstring MutexName() const { return L"VTBitmapManager.Volume" + guid + L".Mutex"; }
};

struct Snapshot {
    DWORD number = 0;
    std::wstring path;
};

class SimMachine {
public:
    // Makes a machine in a fresh folder below the temporary folder; it is removed with the object.
    SimMachine() : m_directory(FreshDirectory()), m_remove(true)
    {
        Check("VTFltSimCreate", VTFltSimCreate(m_directory.c_str(), &m_machine));
    }
    // Opens an existing machine, which stays.
    explicit SimMachine(const std::wstring& directory) : m_directory(directory)
    {
        Check("VTFltSimOpen", VTFltSimOpen(m_directory.c_str(), &m_machine));
    }
    SimMachine(const SimMachine&) = delete;
    SimMachine& operator=(const SimMachine&) = delete;
    ~SimMachine()
    {
        VTFltSimClose(m_machine);
        if (m_remove)
            VTFltSimDestroy(m_directory.c_str());
    }

    VTFLTSIM_MACHINE handle() const noexcept { return m_machine; }
    const std::wstring& directory() const noexcept { return m_directory; }

    void Attach(const wchar_t* moduleName)
    {
        const HMODULE module = GetModuleHandleW(moduleName);
        if (module == nullptr)
            throw SimError("GetModuleHandleW", GetLastError());
        Check("VTFltSimAttachModule", VTFltSimAttachModule(m_machine, module));
    }
    void AttachProgram() { Check("VTFltSimAttachModule", VTFltSimAttachModule(m_machine, nullptr)); }
    void Detach() { Check("VTFltSimDetach", VTFltSimDetach()); }

    Volume AddVolume(std::uint64_t length, DWORD blockSize = 65536, const wchar_t* mountPath = nullptr,
                     DWORD driveType = DRIVE_FIXED)
    {
        VTFLTSIM_VOLUME_CONFIG config = {};
        config.size = sizeof(config);
        config.length = length;
        config.blockSize = blockSize;
        config.driveType = driveType;
        config.mountPath = mountPath;
        WCHAR guid[VTFLTSIM_GUID_CHARS] = {};
        Check("VTFltSimAddVolume", VTFltSimAddVolume(m_machine, &config, guid));
        return Volume{guid};
    }
    VTFLTSIM_VOLUME_INFO Info(const Volume& volume) const
    {
        VTFLTSIM_VOLUME_INFO info = {};
        info.size = sizeof(info);
        Check("VTFltSimGetVolumeInfo", VTFltSimGetVolumeInfo(m_machine, volume.guid.c_str(), &info));
        return info;
    }

    void Write(const Volume& volume, std::uint64_t offset, const std::vector<std::uint8_t>& data)
    {
        Check("VTFltSimWriteVolume", VTFltSimWriteVolume(m_machine, volume.guid.c_str(), offset, data.data(),
                                                         static_cast<DWORD>(data.size())));
    }
    // One byte into a block of the tracking block size: the least that changes it.
    void TouchBlock(const Volume& volume, std::uint64_t block, std::uint8_t value = 1)
    {
        Write(volume, block * Info(volume).blockSize, {value});
    }
    std::vector<std::uint8_t> Read(const Volume& volume, std::uint64_t offset, DWORD length) const
    {
        std::vector<std::uint8_t> data(length);
        Check("VTFltSimReadVolume", VTFltSimReadVolume(m_machine, volume.guid.c_str(), offset, data.data(), length));
        return data;
    }
    std::vector<std::uint8_t> Bits(const Volume& volume, DWORD which = VTFLTSIM_BITS_ALL) const
    {
        DWORD needed = 0;
        const DWORD code = VTFltSimGetBits(m_machine, volume.guid.c_str(), which, nullptr, 0, &needed);
        if (code != ERROR_MORE_DATA)
            Check("VTFltSimGetBits", code);
        std::vector<std::uint8_t> bits(needed);
        Check("VTFltSimGetBits", VTFltSimGetBits(m_machine, volume.guid.c_str(), which, bits.data(), needed, &needed));
        return bits;
    }

    Snapshot TakeSnapshot(const Volume& volume)
    {
        Snapshot snapshot;
        VTFLTSIM_SNAPSHOT_INFO info = {};
        info.size = sizeof(info);
        Check("VTFltSimCreateSnapshot",
              VTFltSimCreateSnapshot(m_machine, volume.guid.c_str(), &snapshot.number, &info));
        snapshot.path = info.devicePath;
        return snapshot;
    }
    void DeleteSnapshot(const Snapshot& snapshot)
    {
        Check("VTFltSimDeleteSnapshot", VTFltSimDeleteSnapshot(m_machine, snapshot.number));
    }

    void SetDriver(DWORD state) { Check("VTFltSimSetDriverState", VTFltSimSetDriverState(m_machine, state)); }
    void SetService(DWORD state) { Check("VTFltSimSetService", VTFltSimSetService(m_machine, state)); }
    void SetFilters(const std::vector<std::wstring>& filters, const wchar_t* classKeyPath = nullptr)
    {
        Check("VTFltSimSetUpperFilters",
              VTFltSimSetUpperFilters(m_machine, classKeyPath, MultiString(filters).c_str()));
    }
    void FailRequest(DWORD code, DWORD error, const wchar_t* endpoint = nullptr, DWORD nth = 1, DWORD count = 1)
    {
        Check("VTFltSimFailRequest", VTFltSimFailRequest(m_machine, code, endpoint, nth, count, error));
    }

    // The raw bytes of a registry value of the machine; empty and *type 0 when it is absent.
    std::vector<std::uint8_t> ReadValue(const std::wstring& key, const std::wstring& value, DWORD* type = nullptr) const
    {
        if (type != nullptr)
            *type = 0;
        HKEY opened = nullptr;
        Check("VTFltSimOpenKey", VTFltSimOpenKey(m_machine, key.c_str(), KEY_READ, &opened));
        DWORD kind = 0;
        DWORD size = 0;
        std::vector<std::uint8_t> data;
        // Another process may let it grow between the question for its length and the read.
        constexpr int TRIES = 16;
        LONG code = ERROR_MORE_DATA;
        for (int i = 0; i < TRIES && code == ERROR_MORE_DATA; ++i) {
            size = 0;
            code = RegQueryValueExW(opened, value.c_str(), nullptr, &kind, nullptr, &size);
            data.resize(size);
            if (code == 0)
                code = RegQueryValueExW(opened, value.c_str(), nullptr, &kind, data.data(), &size);
        }
        RegCloseKey(opened);
        if (code == ERROR_FILE_NOT_FOUND)
            return {};
        Check("RegQueryValueExW", static_cast<DWORD>(code));
        data.resize(size);
        if (type != nullptr)
            *type = kind;
        return data;
    }
    void WriteValue(const std::wstring& key, const std::wstring& value, DWORD type,
                    const std::vector<std::uint8_t>& data)
    {
        HKEY opened = nullptr;
        Check("VTFltSimOpenKey", VTFltSimOpenKey(m_machine, key.c_str(), KEY_READ | KEY_WRITE, &opened));
        const LONG code = RegSetValueExW(opened, value.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size()));
        RegCloseKey(opened);
        Check("RegSetValueExW", static_cast<DWORD>(code));
    }

private:
    static std::wstring FreshDirectory()
    {
        WCHAR folder[MAX_PATH] = {};
        if (GetTempPathW(MAX_PATH, folder) == 0)
            throw SimError("GetTempPathW", GetLastError());
        static LONG counter = 0;
        const LONG number = InterlockedIncrement(&counter);
        WCHAR name[64] = {};
        wsprintfW(name, L"vtfltsim-%u-%u-%d", GetCurrentProcessId(), GetTickCount(), static_cast<int>(number));
        return std::wstring(folder) + name;
    }

    std::wstring m_directory;
    VTFLTSIM_MACHINE m_machine = nullptr;
    bool m_remove = false;
};

// The process's calls, most used. Names as imported.
inline void FailCall(const wchar_t* function, DWORD error, const wchar_t* match = nullptr, DWORD nth = 1,
                     DWORD count = 1)
{
    Check("VTFltSimFailCall", VTFltSimFailCall(function, match, nth, count, error));
}

inline std::vector<std::wstring> Trace()
{
    std::vector<std::wstring> lines;
    WCHAR text[1024];
    for (DWORD i = 0; VTFltSimGetTrace(i, text, 1024) == 0; ++i)
        lines.emplace_back(text);
    return lines;
}

// How many of the recorded calls came from each place.
inline std::map<LPCVOID, DWORD> CallsBySite()
{
    std::map<LPCVOID, DWORD> counts;
    LPCVOID site = nullptr;
    for (DWORD i = 0; VTFltSimGetTraceSite(i, &site) == 0; ++i)
        ++counts[site];
    return counts;
}

inline std::vector<VTFLTSIM_REQUEST> Requests()
{
    std::vector<VTFLTSIM_REQUEST> requests;
    VTFLTSIM_REQUEST request = {};
    request.size = sizeof(request);
    for (DWORD i = 0; VTFltSimGetRequest(i, &request) == 0; ++i)
        requests.push_back(request);
    return requests;
}

// What is still open, one line each; empty when nothing is left. Owned mutexes and refused closes count too.
inline std::vector<std::wstring> LeftOpen()
{
    std::vector<std::wstring> lines;
    WCHAR text[1024];
    for (DWORD kind = 0; kind <= VTFLTSIM_OPEN_OTHERS; ++kind) {
        for (DWORD i = 0; VTFltSimGetOpenText(kind, i, text, 1024) == 0; ++i)
            lines.emplace_back(text);
    }
    if (VTFltSimGetOpenCount(VTFLTSIM_OWNED_MUTEXES) != 0)
        lines.emplace_back(L"a mutex is still owned");
    if (VTFltSimGetOpenCount(VTFLTSIM_FAILED_CLOSES) != 0)
        lines.emplace_back(L"a close was refused");
    return lines;
}

} // namespace vtfltsim
