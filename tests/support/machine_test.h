// The fixture of tests through the exports: a simulated machine, the module under test attached to it, and the log.
//
// When a case ends, nothing that the library opened may be left open: handles, keys, mutexes, searches. A case that
// holds something of its own on purpose releases it before it ends.
#pragma once

#include "support/log_capture.h"
#include "support/text.h"
#include "vtfltmgr/VTFltMgr.h"
#include "vtfltsim/VTFltSim.hpp"
#include "win/owners.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace vttest {

using vtfltsim::Snapshot;
using vtfltsim::Volume;
using Bytes = std::vector<std::uint8_t>;

inline constexpr wchar_t SERVICE_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";
inline constexpr wchar_t DRIVER_LIST[] = L"DeviceListForReSync";
inline constexpr wchar_t APP_IDS_KEY[] = L"SOFTWARE\\Veltrix\\Shared\\CBTDriver\\AppIDs";
inline constexpr wchar_t APP_IDS_VALUE[] = L"RegisteredAppIDs";
inline constexpr wchar_t CBT_DRIVER_KEY[] = L"SOFTWARE\\Veltrix\\Shared\\CBTDriver";
inline constexpr wchar_t APPLICATION_MUTEX[] = L"VTBitmapManager.AppicationMutex.Mutex";

// The bytes of a multi-string value: each entry with its NUL, then the final NUL.
Bytes MultiStringBytes(const std::vector<std::wstring>& entries);
// The bytes of a text, with its NUL.
Bytes TextBytes(const std::wstring& text);

// A bitmap file as the library writes it, taken apart. Checks nothing.
struct BitmapFile {
    bool exists = false;
    Bytes image; // the whole file
    std::uint32_t Field(std::size_t offset) const;
    std::uint32_t BlockSize() const { return Field(8); }
    std::uint32_t BitmapLength() const { return Field(12); }
    std::uint32_t RecordSize() const { return Field(16); }
    Bytes Bitmap() const;
    // Blocks set behind the 16 bytes of get-bitmap header.
    std::vector<std::uint64_t> Blocks() const;
};

// A well-formed bitmap file's bytes with this bitmap (header bytes included).
Bytes MakeBitmapImage(std::uint32_t blockSize, const Bytes& bitmap);

// The numbers of the set bits in a get-bitmap buffer (16 bytes of header, then the bits).
std::vector<std::uint64_t> BlocksInBuffer(const Bytes& buffer);

// The recorded calls, each as "Name text", without those that the shipped DLL's log made for itself: its objects were
// opened before any machine was attached, so that its calls on them have no text.
std::vector<std::wstring> LibraryCalls();

class MachineTest : public ::testing::Test {
protected:
    MachineTest();
    void TearDown() override;

    // What the library opened and has not closed must be nothing now.
    void ExpectNothingLeftOpen() const;

    // Opens a volume's device for reading and writing, as an application does.
    vtflt::UniqueHandle OpenVolume(const Volume& volume) const;
    // The control device by itself, and so on: any path, for reading.
    vtflt::UniqueHandle OpenPath(const std::wstring& path) const;

    // Files on a simulated volume, by the path below its root, read and written behind the library's back.
    std::wstring RealPath(const Volume& volume, const std::wstring& relative) const;
    bool FileExists(const Volume& volume, const std::wstring& relative) const;
    DWORD FileAttributes(const Volume& volume, const std::wstring& relative) const;
    Bytes ReadFileBytes(const Volume& volume, const std::wstring& relative) const;
    void WriteFileBytes(const Volume& volume, const std::wstring& relative, const Bytes& bytes) const;
    void RemoveFile(const Volume& volume, const std::wstring& relative) const;
    void MakeFolder(const Volume& volume, const std::wstring& relative) const;

    static std::wstring BaseName(const std::wstring& appId) { return L"VelVolTrc\\VelVolTrc_base_" + appId + L".dat"; }
    static std::wstring ChildName(const std::wstring& appId)
    {
        return L"VelVolTrc\\VelVolTrc_child_" + appId + L".dat";
    }
    BitmapFile Base(const Volume& volume, const std::wstring& appId) const;
    BitmapFile Child(const Volume& volume, const std::wstring& appId) const;

    // Lists in the machine's registry.
    std::vector<std::wstring> List(const std::wstring& key, const std::wstring& value) const;
    void SetList(const std::wstring& key, const std::wstring& value, const std::vector<std::wstring>& entries);
    bool ValueExists(const std::wstring& key, const std::wstring& value) const;
    void DeleteValue(const std::wstring& key, const std::wstring& value);
    void SetDword(const std::wstring& key, const std::wstring& value, DWORD number);
    std::vector<std::wstring> DriverList() const { return List(SERVICE_KEY, DRIVER_LIST); }
    std::vector<std::wstring> PendingList(const std::wstring& appId) const
    {
        return List(SERVICE_KEY, DRIVER_LIST + appId);
    }
    std::vector<std::wstring> VerifyList(const std::wstring& appId) const
    {
        return List(SERVICE_KEY, DRIVER_LIST + appId + L".Last");
    }
    void SetVerifyList(const std::wstring& appId, const std::vector<std::wstring>& entries)
    {
        SetList(SERVICE_KEY, DRIVER_LIST + appId + L".Last", entries);
    }
    std::vector<std::wstring> RegisteredIds() const { return List(APP_IDS_KEY, APP_IDS_VALUE); }

    // The get-bitmap buffer length for a volume, as the size negotiation gives it: header plus whole 8-byte words.
    static DWORD BufferLength(const VTFLTSIM_VOLUME_INFO& info) { return 16 + (info.bitmapBytes + 7) / 8 * 8; }

    // Control codes sent to a device since recording began, in order ("" for any device).
    static std::vector<DWORD> RequestCodes();

    vtfltsim::SimMachine machine;
    LogCapture log;
};

// An application's hold on one volume: the open handle and, from Init to Deinit, its manager.
class Session {
public:
    Session(vtflt::UniqueHandle volume, std::wstring volumeName, std::wstring appId);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    HANDLE Handle() const { return m_volume.get(); }
    DWORD Init();
    DWORD Deinit();
    DWORD Prepare() { return VTFltPrepareForSnapshot(Handle()); }
    // Fetches into Buffer() with the size negotiation; Size() is what the last call reported.
    DWORD GetBitmap();
    // One call with a buffer of exactly this length.
    DWORD GetBitmap(DWORD length);
    DWORD Success() { return VTFltReplicationSuccess(Handle()); }
    DWORD SyncChanges(Bytes changes);

    Bytes& Buffer() { return m_buffer; }
    DWORD Size() const { return m_size; }
    std::vector<std::uint64_t> Blocks() const { return BlocksInBuffer(m_buffer); }

private:
    vtflt::UniqueHandle m_volume;
    std::wstring m_volumeName;
    std::wstring m_appId;
    bool m_initialised = false;
    Bytes m_buffer;
    DWORD m_size = 0;
};

} // namespace vttest
