// The fixture of cases that speak to a bitmap manager itself: a manager on the volume of CycleTest, and single
// operations of it.
#pragma once

#include "bitmap/manager.h"
#include "support/cycle_test.h"

namespace vttest {

// A manager with the volume handle that every operation brings.
class Managed {
public:
    Managed(vtflt::UniqueHandle volume, const std::wstring& volumeName, const std::wstring& appId)
        : m_volume(std::move(volume))
    {
        EXPECT_EQ(0u, manager.InitBitMapManager(volumeName, appId));
        // An unknown code does nothing but hand the volume handle to the containers.
        EXPECT_EQ(0x10002u, Io(0));
    }
    ~Managed() { manager.DeinitBitMapManager(); }
    Managed(const Managed&) = delete;
    Managed& operator=(const Managed&) = delete;

    DWORD Io(DWORD code, void* input = nullptr, DWORD inputLength = 0, void* output = nullptr, DWORD outputLength = 0)
    {
        returned = 0;
        return manager.VTDeviceIoControl(m_volume.get(), code, input, inputLength, output, outputLength, &returned,
                                         nullptr);
    }
    DWORD Merge(const Bytes& driverBitmap)
    {
        return manager.UpdateAllChildBitmap(static_cast<DWORD>(driverBitmap.size()), driverBitmap.data());
    }
    DWORD SyncChanges(const Bytes& changes)
    {
        return manager.SyncSnapshotChangesToChildBitmap(static_cast<DWORD>(changes.size()), changes.data());
    }
    HANDLE Handle() const { return m_volume.get(); }

    vtflt::CMultiBitmapManager manager;
    DWORD returned = 0;

private:
    vtflt::UniqueHandle m_volume;
};

class ManagerTest : public CycleTest {
protected:
    std::unique_ptr<Managed> Manage(const std::wstring& appId)
    {
        auto managed = std::make_unique<Managed>(OpenVolume(volume), volume.Root(), appId);
        log.Clear();
        return managed;
    }

    void PutChild(const std::wstring& appId, const Bytes& bitmap, DWORD blockSize = BLOCK)
    {
        WriteFileBytes(volume, ChildName(appId), MakeBitmapImage(blockSize, bitmap));
    }
    void PutBase(const std::wstring& appId, const Bytes& bitmap, DWORD blockSize = BLOCK)
    {
        WriteFileBytes(volume, BaseName(appId), MakeBitmapImage(blockSize, bitmap));
    }

    // What an operation writes, in order, each kind once in a row: the application's verify list, and its files.
    template <class Operation>
    static std::vector<std::wstring> Writes(const std::wstring& appId, const Operation& operation)
    {
        VTFltSimRecord(1);
        operation();
        VTFltSimRecord(0);
        std::vector<std::wstring> writes;
        for (const std::wstring& line : LibraryCalls()) {
            std::wstring what;
            if (line.starts_with(L"RegSetValueExW") && line.ends_with(appId + L".Last"))
                what = L"list";
            else if (line.starts_with(L"WriteFile") && line.find(L"_" + appId + L".dat") != std::wstring::npos)
                what = L"file";
            if (!what.empty() && (writes.empty() || writes.back() != what))
                writes.push_back(what);
        }
        return writes;
    }
};

} // namespace vttest
