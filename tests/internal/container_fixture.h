// A bitmap container on a simulated volume of 100 blocks, whose bitmap takes 13 bytes.
#pragma once

#include "bitmap/container.h"
#include "bitmap/result_codes.h"
#include "support/machine_test.h"

#include <memory>

namespace vttest {

class ContainerTest : public MachineTest {
protected:
    static constexpr DWORD BLOCK_SIZE = 65536;
    static constexpr std::uint64_t BLOCKS = 100;
    static constexpr std::size_t VOLUME_BITMAP_BYTES = 13;
    static constexpr std::size_t FRESH_BITMAP_BYTES = VOLUME_BITMAP_BYTES + 16;
    static constexpr wchar_t APP[] = L"app1";
    static constexpr wchar_t FOLDER[] = L"VelVolTrc";

    ContainerTest() : volume(machine.AddVolume(BLOCKS * BLOCK_SIZE, BLOCK_SIZE)) { Use(volume); }

    void TearDown() override
    {
        container.reset();
        handle.reset();
        MachineTest::TearDown();
    }

    // A new container for this volume and its handle; what that logs is forgotten.
    void Use(const Volume& used)
    {
        volume = used;
        handle = OpenVolume(volume);
        container = std::make_unique<vtflt::CBitmapContainer>();
        container->init(L"Volume" + volume.guid, APP);
        container->m_hVolume = handle.get();
        log.Clear();
    }

    std::wstring FolderPath() const { return volume.Path() + L"\\VelVolTrc"; }
    std::wstring BasePath() const { return FolderPath() + L"\\VelVolTrc_base_app1.dat"; }
    std::wstring ChildPath() const { return FolderPath() + L"\\VelVolTrc_child_app1.dat"; }

    void MakeBitmapFolder() const
    {
        if (!FileExists(volume, FOLDER))
            MakeFolder(volume, FOLDER);
    }
    void PutBase(const Bytes& image) const
    {
        MakeBitmapFolder();
        WriteFileBytes(volume, BaseName(APP), image);
    }
    void PutChild(const Bytes& image) const
    {
        MakeBitmapFolder();
        WriteFileBytes(volume, ChildName(APP), image);
    }
    BitmapFile BaseFile() const { return Base(volume, APP); }
    BitmapFile ChildFile() const { return Child(volume, APP); }

    // Gives the container a base record with this bitmap, as a read would.
    void HaveBase(const Bytes& bitmap, DWORD blockSize = BLOCK_SIZE) const
    {
        container->m_pBaseBitmap = vtflt::BitmapRecord::Make(blockSize, static_cast<DWORD>(bitmap.size()));
        container->m_pBaseBitmap->Or(bitmap.data(), bitmap.size());
    }
    Bytes BaseImage() const
    {
        const vtflt::BitmapRecord& record = *container->m_pBaseBitmap;
        return Bytes(record.Bytes(), record.Bytes() + record.Size());
    }

    void ExpectOnVerifyList() const { EXPECT_TRUE(VerifyList(APP) == std::vector<std::wstring>{volume.guid}); }
    void ExpectNoVerifyList() const { EXPECT_FALSE(ValueExists(SERVICE_KEY, L"DeviceListForReSyncapp1.Last")); }

    // The functions called since recording began, of the given names, in order.
    static std::vector<std::wstring> CallsOf(const std::vector<std::wstring>& names)
    {
        std::vector<std::wstring> called;
        for (const std::wstring& line : vtfltsim::Trace()) {
            const std::wstring name = line.substr(0, line.find(L' '));
            for (const std::wstring& wanted : names) {
                if (name == wanted)
                    called.push_back(name);
            }
        }
        return called;
    }

    // The nth call moves only so many bytes and succeeds.
    static void MoveOnly(const wchar_t* function, ULONGLONG bytes, DWORD nth)
    {
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_SHORT;
        fault.function = function;
        fault.nth = nth;
        fault.count = 1;
        fault.value = bytes;
        vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    }

    Volume volume;
    vtflt::UniqueHandle handle;
    std::unique_ptr<vtflt::CBitmapContainer> container;
};

} // namespace vttest
