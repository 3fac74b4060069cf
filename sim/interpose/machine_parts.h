// What the parts of Machine share among themselves.
#pragma once

#include "interpose/machine.h"
#include "model/bits.h"

namespace vtfltsim {

// Holds the machine's lock. A process that died with it leaves the record usable: every change is ordered so
// that what is half done is harmless, so an abandoned lock is taken over.
class Machine::Lock {
public:
    explicit Lock(const Machine& machine) : m_mutex(machine.m_mutex.get()) { WaitForSingleObject(m_mutex, INFINITE); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock() { ReleaseMutex(m_mutex); }

private:
    HANDLE m_mutex;
};

struct Machine::Volume {
    std::uint32_t mapSequence = 0;
    std::unique_ptr<FileStore> store;
    std::unique_ptr<MappedFile> file;
    model::VolumeContents contents;
};

struct Machine::Snapshot {
    std::unique_ptr<FileStore> store;
    std::unique_ptr<MappedFile> file;
    model::SnapshotContents contents;
};

// The form that has no limit of length and is taken literally.
std::wstring LongPath(const std::wstring& path);

inline constexpr DWORD ERROR_DEVICE_GONE = ERROR_DEV_NOT_EXIST; // the volume or snapshot is gone

} // namespace vtfltsim
