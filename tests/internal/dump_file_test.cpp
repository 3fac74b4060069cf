// One dump by itself: what the manager's operations never show of it.
#include "bitmap/manager.h"
#include "support/cycle_test.h"

namespace vttest {

namespace {

class DumpFile : public CycleTest {
protected:
    void SetUp() override { MakeFolder(volume, L"VelVolTrc"); }
    std::wstring Name() const { return volume.Path() + L"\\VelVolTrc\\dump.dat"; }
};

TEST_F(DumpFile, OverwritesAnEarlierDumpOfTheSameName)
{
    const Bytes longer(100, 0xAA);
    const Bytes shorter{1, 2, 3};
    EXPECT_EQ(0u, vtflt::DumpBitMapToFile(Name(), VolumeName(), longer.data(), 100));
    EXPECT_EQ(0u, vtflt::DumpBitMapToFile(Name(), VolumeName(), shorter.data(), 3));
    EXPECT_EQ(shorter, ReadFileBytes(volume, L"VelVolTrc\\dump.dat"));
}

TEST_F(DumpFile, MayBeEmpty)
{
    EXPECT_EQ(0u, vtflt::DumpBitMapToFile(Name(), VolumeName(), "", 0));
    EXPECT_TRUE(FileExists(volume, L"VelVolTrc\\dump.dat"));
}

TEST_F(DumpFile, AnswersTheErrorOfEachStep)
{
    const Bytes bytes{1, 2, 3};
    vtfltsim::FailCall(L"CreateFileW", ERROR_ACCESS_DENIED, L"dump.dat");
    EXPECT_EQ(183u, vtflt::DumpBitMapToFile(Name(), VolumeName(), bytes.data(), 3)) << "the folder is there";
    ClearFaults();
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL, L"dump.dat");
    EXPECT_EQ(112u, vtflt::DumpBitMapToFile(Name(), VolumeName(), bytes.data(), 3));
    ClearFaults();
    CutCall(L"WriteFile", L"dump.dat", 2);
    EXPECT_EQ(0u, vtflt::DumpBitMapToFile(Name(), VolumeName(), bytes.data(), 3)) << "short, without an error";
    log.ExpectLogged(0, 0, L"CMultiBitmapManager::DumpBitMapToFile::WriteFile disk bitmap failed.");
}

TEST_F(DumpFile, AnswersWhyItCannotBeMadeInTheNewFolder)
{
    RemoveDirectoryW(RealPath(volume, L"VelVolTrc").c_str());
    vtfltsim::FailCall(L"CreateFileW", ERROR_ACCESS_DENIED, L"dump.dat", 2);
    EXPECT_EQ(5u, vtflt::DumpBitMapToFile(Name(), VolumeName(), "", 0));
    EXPECT_EQ(1u, log.Records().size()) << "nothing is written into a file that is not there";
}

TEST_F(DumpFile, SwitchIsOneExactly)
{
    EXPECT_EQ(0u, vtflt::IsBitmapDumpEnabled());
    SetDword(CBT_DRIVER_KEY, L"DumpBitmap", 1);
    EXPECT_EQ(1u, vtflt::IsBitmapDumpEnabled());
    SetDword(CBT_DRIVER_KEY, L"DumpBitmap", 2);
    EXPECT_EQ(0u, vtflt::IsBitmapDumpEnabled());
    log.ExpectNothingLogged();
}

TEST_F(DumpFile, IsMadeAgainInItsFolderWhenItsMakingLeavesError3AlthoughItGivesAHandle)
{
    RemoveDirectoryW(RealPath(volume, L"VelVolTrc").c_str());
    const HANDLE handle = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_RETURNS;
    fault.function = L"CreateFileW";
    fault.match = L"dump.dat";
    fault.count = 1;
    fault.error = ERROR_PATH_NOT_FOUND;
    fault.value = reinterpret_cast<ULONG_PTR>(handle);
    vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    const Bytes bytes{1, 2, 3};
    EXPECT_EQ(0u, vtflt::DumpBitMapToFile(Name(), VolumeName(), bytes.data(), 3));
    EXPECT_FALSE(SetEvent(handle)) << "the first handle is open";
    EXPECT_EQ(bytes, ReadFileBytes(volume, L"VelVolTrc\\dump.dat"));
    EXPECT_EQ(static_cast<DWORD>(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM),
              FileAttributes(volume, L"VelVolTrc") & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
    EXPECT_EQ(0u, FileAttributes(volume, L"VelVolTrc\\dump.dat") & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
}

} // namespace

} // namespace vttest
