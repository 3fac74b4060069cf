// A bitmap manager for one volume of a simulated machine with two registered applications.
#pragma once

#include "bitmap/manager.h"
#include "support/machine_test.h"

namespace vttest {

// Lists its applications without registering them, so they have no files until a case makes some.
class ListedManagerTest : public MachineTest {
protected:
    static constexpr wchar_t APP[] = L"app1";
    static constexpr wchar_t OTHER[] = L"app2";
    static constexpr DWORD BLOCK_SIZE = 65536;
    static constexpr std::size_t BITMAP_BYTES = 24;

    ListedManagerTest() : volume(machine.AddVolume(64 * BLOCK_SIZE, BLOCK_SIZE)) { Register({APP, OTHER}); }

    void Register(const std::vector<std::wstring>& ids) { SetList(APP_IDS_KEY, APP_IDS_VALUE, ids); }
    std::wstring VolumeName() const { return L"Volume" + volume.guid; }

    // Initialises the manager for the volume; what that logs is forgotten.
    void Init(const wchar_t* appId = APP)
    {
        ASSERT_EQ(manager.InitBitMapManager(volume.Root(), appId), 0u);
        log.Clear();
    }
    // Sound files of the current application, and a manager that has both loaded: the child with these bytes ORed
    // with driverBits, the base with that ORed into its own.
    void Load(std::uint8_t base, std::uint8_t child, std::uint8_t driverBits = 0)
    {
        if (!FileExists(volume, L"VelVolTrc"))
            MakeFolder(volume, L"VelVolTrc");
        for (const wchar_t* const id : {APP, OTHER}) {
            WriteFileBytes(volume, BaseName(id), MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES, base)));
            WriteFileBytes(volume, ChildName(id), MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES, child)));
        }
        Init();
        const Bytes driver(BITMAP_BYTES, driverBits);
        ASSERT_EQ(manager.UpdateAllChildBitmap(static_cast<DWORD>(driver.size()), driver.data()), 0u);
        ASSERT_EQ(manager.UpdateBaseBitmapWithChild(), 0u);
        log.Clear();
    }

    // The next wait answers so without waiting.
    static void ForceWait(DWORD result)
    {
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_RETURNS;
        fault.function = L"WaitForSingleObject";
        fault.nth = 1;
        fault.count = 1;
        fault.value = result;
        vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    }

    std::wstring CreateMutexFailed(const std::wstring& name, unsigned error) const
    {
        return L"CMutexController::getAccess Failed to CreateMutex[" + name + L"] error: " + WideNumber(error);
    }

    Volume volume;
    vtflt::CMultiBitmapManager manager;
};

} // namespace vttest
