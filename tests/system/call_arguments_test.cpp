// What the library's calls ask for beside a name: access, sharing, flags. Too much of it works for whoever tests as an
// administrator, and fails, or shuts others out, where backups run.
#include "support/driver_expect.h"
#include "vtfltsim/VTFltSimTrace.h"

#include <algorithm>

namespace vttest {
namespace {

constexpr wchar_t DEVICE[] = L"access 0x80000000|share 3|disposition 3|flags 0x00000080|security 0";
constexpr wchar_t READ_FILE[] = L"access 0x80000000|share 1|disposition 3|flags 0x00000080|security 0";
constexpr wchar_t WRITE_FILE[] = L"access 0x40000000|share 2|disposition 2|flags 0x00000006|security 0";
constexpr wchar_t SETTINGS[] = L"options 0|access 0x0002001F|security 0";
constexpr wchar_t NOT_OWNED[] = L"owned 0|security 0";

class CallArguments : public MachineTest {
protected:
    using Lines = std::vector<std::wstring>;

    // Of the recorded calls of a function whose text contains this.
    static Lines Of(const std::wstring& function, const std::wstring& text)
    {
        Lines found;
        wchar_t line[1024] = {};
        wchar_t arguments[1024] = {};
        for (DWORD i = 0; VTFltSimGetTrace(i, line, 1024) == 0; ++i) {
            const std::wstring call = line;
            if (call.substr(0, call.find(L' ')) != function || call.find(text) == std::wstring::npos)
                continue;
            EXPECT_EQ(0u, VTFltSimGetTraceArguments(i, arguments, 1024));
            found.emplace_back(arguments);
        }
        return found;
    }
    // There were such calls, and all asked for this.
    static void ExpectAll(const std::wstring& function, const std::wstring& text, const std::wstring& arguments)
    {
        const Lines lines = Of(function, text);
        EXPECT_FALSE(lines.empty()) << Narrow(function + L" " + text) << " was not called";
        for (const std::wstring& line : lines)
            EXPECT_EQ(Narrow(arguments), Narrow(line)) << Narrow(function + L" " + text);
    }

    Volume volume = machine.AddVolume(100 * 65536);
};

TEST_F(CallArguments, OfTheControlDevice)
{
    StartRecording();
    EXPECT_EQ(1u, VTCanBLIDriverWork());
    ExpectAll(L"CreateFileW", CONTROL, DEVICE);
}

TEST_F(CallArguments, OfAVolumeThatIsStopped)
{
    ASSERT_EQ(0u, VTRegisterApplication(L"app1"));
    StartRecording();
    EXPECT_EQ(0u, VTFltStopMonitorVolume(volume.Path().c_str()));
    ExpectAll(L"CreateFileW", volume.Path(), DEVICE);
}

TEST_F(CallArguments, OfTheServiceAndOfTheUtility)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    machine.WriteValue(CBT_DRIVER_KEY, INSTALL_LOCATION, REG_SZ, TextBytes(L"D:\\Tools"));
    StartRecording();
    EXPECT_EQ(1u, VTCanBLIDriverWork());
    // To see that a service is there needs no more than everybody may do.
    ExpectAll(L"OpenSCManagerW", L"", L"database 0|access 0x00000004");
    ExpectAll(L"OpenServiceW", L"VTFlt", L"access 0x00000004");
    ExpectAll(L"RegCreateKeyExW", AUTO_INSTALL_KEY, SETTINGS);
    ExpectAll(L"RegCreateKeyExW", CBT_DRIVER_KEY, SETTINGS);
    ExpectAll(
        L"CreateProcessW", L"VTFltUtl.exe",
        L"application 0|inherit 0|flags 0x00000000|environment 0|directory 0|startup 0x00000001|show 0"); // hidden
}

TEST_F(CallArguments, OfTheMonitoringSwitch)
{
    StartRecording();
    EXPECT_EQ(0u, VTFltEnableMonitorForSnapshot(nullptr));
    // Not volatile: the count outlives a restart.
    ExpectAll(L"RegCreateKeyExW", COUNT_KEYS, SETTINGS);
    ExpectAll(L"CreateMutexW", SNAPSHOT_CLASS_MUTEX, NOT_OWNED);
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, SNAPSHOT_CLASS_MUTEX);
    StartRecording();
    EXPECT_EQ(2u, VTFltEnableMonitorForSnapshot(nullptr)) << "there is no mutex to open";
    // SYNCHRONIZE alone: a more privileged process's mutex grants no more.
    ExpectAll(L"OpenMutexW", SNAPSHOT_CLASS_MUTEX, L"access 0x00100000|inherit 0");
}

TEST_F(CallArguments, OfARegistration)
{
    StartRecording();
    EXPECT_EQ(0u, VTRegisterApplication(L"app1"));
    const Lines volumes = Of(L"CreateFileW", volume.guid);
    ASSERT_FALSE(volumes.empty());
    EXPECT_EQ(Narrow(L"access 0x80000000|share 3|disposition 3|flags 0x00000000|security 0"), Narrow(volumes[0]));
    ExpectAll(L"CreateFileW", L"VelVolTrc_", WRITE_FILE);
    ExpectAll(L"CreateMutexW", L"VTBitmapManager.", NOT_OWNED);
}

TEST_F(CallArguments, OfABackup)
{
    ASSERT_EQ(0u, VTRegisterApplication(L"app1"));
    machine.WriteValue(CBT_DRIVER_KEY, L"DumpBitmap", REG_DWORD, NumberBytes(1));
    Session session(OpenVolume(volume), volume.Root(), L"app1");
    ASSERT_EQ(0u, session.Init());
    machine.TouchBlock(volume, 7);
    StartRecording();
    EXPECT_EQ(0u, VTReplicateVerifyList(L"app1"));
    EXPECT_EQ(0u, VTIsVerifyRequired(L"app1", volume.Root().c_str()));
    ExpectAll(L"RegCreateKeyExW", SERVICE_KEY, SETTINGS);
    ExpectAll(L"CreateFileW", L"VelVolTrc_", READ_FILE);
    ExpectAll(L"CreateMutexW", L"VTBitmapManager.", NOT_OWNED);
    StartRecording();
    EXPECT_EQ(0u, session.GetBitmap(BufferLength(machine.Info(volume))));
    const Lines files = Of(L"CreateFileW", L"VelVolTrc_");
    // The child and the base are read; both are written twice, in the driver's length and then with the changes, but
    // the child, whose changes are folded into the base, once in that length and once clear.
    EXPECT_EQ(2, std::count(files.begin(), files.end(), READ_FILE));
    EXPECT_EQ(static_cast<std::ptrdiff_t>(files.size()) - 2, std::count(files.begin(), files.end(), WRITE_FILE));
    ExpectAll(L"CreateFileW", L"DriverBitmap", WRITE_FILE);
    ExpectAll(L"RegCreateKeyExW", CBT_DRIVER_KEY, SETTINGS);
    for (const std::wstring& line : Of(L"SetFilePointer", L"VelVolTrc_"))
        EXPECT_TRUE(line == L"distance 0|method 0" || line == L"distance -4|method 2") << Narrow(line);
}

TEST_F(CallArguments, BehindTheLastCallThereAreNoneAndNowhereToPutThemIsRefused)
{
    StartRecording();
    EXPECT_EQ(1u, VTCanBLIDriverWork());
    VTFltSimRecord(0);
    wchar_t text[8] = {};
    EXPECT_EQ(0u, VTFltSimGetTraceArguments(0, text, 8));
    EXPECT_EQ("access ", Narrow(text)) << "cut at the buffer";
    EXPECT_EQ(259u, VTFltSimGetTraceArguments(100000, text, 8));
    EXPECT_EQ(87u, VTFltSimGetTraceArguments(0, nullptr, 8));
    EXPECT_EQ(87u, VTFltSimGetTraceArguments(0, text, 0));
}

// Another program may hold the file for reading while it is read here, and for writing while it is written.
TEST_F(CallArguments, LetOthersShareTheFilesAsTheyAreMeantTo)
{
    ASSERT_EQ(0u, VTRegisterApplication(L"app1"));
    {
        const vtflt::UniqueHandle reader(CreateFileW(RealPath(volume, BaseName(L"app1")).c_str(), GENERIC_READ,
                                                     FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(reader.valid());
        EXPECT_EQ(0u, VTIsVerifyRequired(L"app1", volume.Root().c_str()));
    }
    const vtflt::UniqueHandle writer(CreateFileW(RealPath(volume, BaseName(L"app1")).c_str(), GENERIC_WRITE,
                                                 FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(writer.valid());
    Session session(OpenVolume(volume), volume.Root(), L"app1");
    ASSERT_EQ(0u, session.Init());
    // The base cannot be read beside a writer, so the fetch does not get as far as to write it.
    EXPECT_NE(0u, session.GetBitmap());
}

} // namespace
} // namespace vttest
