// The reads and writes of operations on bitmap files, made by a program that merges nothing: what they cost at least.
#pragma once

#include "measure.h"

#include <cstdint>
#include <string>

namespace bench {

// The nth application's ID. They sort as their numbers do.
std::wstring AppIdOf(int index);

class Handle {
public:
    explicit Handle(HANDLE handle) : m_handle(handle) { Require(handle != INVALID_HANDLE_VALUE, "opening a file"); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { CloseHandle(m_handle); }
    HANDLE get() const { return m_handle; }

private:
    HANDLE m_handle;
};

// Has one buffer for all files that are read. The first operation gets it anew, as a fetch of a new manager has none;
// Release gives it back, which is no part of any operation. What a fetch leaves as the caller's child, a clear record, is
// made beforehand, from the child as the library left it: the library then reads what it reads in a real cycle.
class BareFetch {
public:
    // Behind a fetch of the caller's, so that its child is there, and clear.
    BareFetch(const vtfltsim::Volume& volume, int applications, int caller, DWORD recordBytes);
    BareFetch(const BareFetch&) = delete;
    BareFetch& operator=(const BareFetch&) = delete;
    ~BareFetch() { Release(); }

    // As VTFltGetBitmap on files in the driver's length.
    void Fetch();
    // The same, each file written by one call and left to the system: what being on the disk costs is the difference.
    void FetchWithoutFlushes();
    // As VTFltGetBitmap on files of another length: each is first written anew in the driver's.
    void FetchFrom(DWORD oldRecordBytes);
    // As VTFltReplicationSuccess: the base, which HoldBase has read before, is written.
    void HoldBase();
    void ReplicationSuccess();
    // As VTFltSynSnapshotChangeBitmapToVolume: the caller's child is read and written.
    void SyncSnapshotChanges();

    void Release();

private:
    std::wstring Path(const wchar_t* kind, int application) const
    {
        return m_folder + kind + AppIdOf(application) + L".dat";
    }
    void HoldClearChild();
    void GetMemory();
    void FetchInLengths(DWORD read, bool grown);
    void Read(const wchar_t* kind, int application, DWORD size);
    void Write(const wchar_t* kind, int application) { Write(kind, application, m_record); }
    void Write(const wchar_t* kind, int application, const std::uint8_t* record);

    std::wstring m_folder;
    int m_applications;
    int m_caller;
    DWORD m_size;
    bool m_durable = true;
    std::uint8_t* m_record = nullptr;
    std::vector<std::uint8_t> m_clearChild;
};

} // namespace bench
