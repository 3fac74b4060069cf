// The walk over the system's volumes: malformed names and faults, which the three walks take differently.
#include "support/apps_test.h"

namespace {

using namespace std::literals;
using namespace vttest;

class VolumeWalks : public AppsTest {
protected:
    // Seen through the verify list of an application.
    DWORD Enumerate(Entries& volumes)
    {
        const DWORD result = VTAddVolumesToAppVerifyList(L"Walker");
        volumes = VerifyList(L"Walker");
        return result;
    }
    void Rename(const Volume& volume, const std::wstring& name)
    {
        vtfltsim::Check("VTFltSimSetEnumerationName",
                        VTFltSimSetEnumerationName(machine.handle(), volume.guid.c_str(), name.c_str()));
    }
    void FailStep(DWORD step, DWORD error)
    {
        vtfltsim::Check("VTFltSimSetEnumerationFault", VTFltSimSetEnumerationFault(machine.handle(), step, error));
    }
    static std::wstring BadPath(const wchar_t* operation, const std::wstring& path)
    {
        return std::wstring(operation) + L": FindFirstVolumeW/FindNextVolumeW returned a bad path: " + path;
    }

    Volume first = machine.AddVolume(LENGTH, BLOCK);
    Volume second = machine.AddVolume(LENGTH, BLOCK);
};

TEST_F(VolumeWalks, EnumerationSkipsMalformedNamesWithARecord)
{
    const std::wstring names[] = {first.Path(), L"Volume" + first.guid + L"\\", L"C:\\", L"\\\\.\\Volume{1}\\",
                                  L"\\\\?Volume{1}\\"};
    for (const std::wstring& name : names) {
        Rename(first, name);
        log.Clear();
        Entries volumes;
        EXPECT_EQ(0u, Enumerate(volumes));
        EXPECT_TRUE(volumes == Entries{second.guid});
        log.ExpectLogged(0, ERROR_BAD_PATHNAME, BadPath(L"EnumerateVolumes", name));
        DeleteValue(SERVICE_KEY, std::wstring(DRIVER_LIST) + L"Walker.Last");
    }
}

TEST_F(VolumeWalks, ResettingEndsAtAMalformedNameWith161)
{
    Rename(second, second.Path());
    EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_PATHNAME), VTRegisterApplication(L"App1"));
    ExpectNoIds();
    EXPECT_TRUE(HasNoBitmaps(second, L"App1"));
    log.ExpectLogged(0, ERROR_BAD_PATHNAME, BadPath(L"ResetApplicationBitmaps", second.Path()));
    log.ExpectLogged(0, ERROR_BAD_PATHNAME, L"RegisterApplication: Failed to reset application bitmaps");
    log.ExpectNotLogged(L"ResetApplicationBitmaps: SUCCESS:: Bitmaps reset completed");
}

TEST_F(VolumeWalks, AMalformedNameOfAVolumeThatIsNoFixedDiskEndsTheResetToo)
{
    VTFltSimSetDriveType(machine.handle(), second.guid.c_str(), DRIVE_REMOVABLE);
    Rename(second, second.Path());
    EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_PATHNAME), VTRegisterApplication(L"App1"));
}

TEST_F(VolumeWalks, RemovingSkipsMalformedNamesWithARecord)
{
    Register(L"App1");
    Rename(first, first.Path());
    EXPECT_EQ(0u, VTUnregisterApplication(L"App1"));
    EXPECT_TRUE(HasBitmaps(first, L"App1"));
    EXPECT_TRUE(HasNoBitmaps(second, L"App1"));
    log.ExpectLogged(0, ERROR_BAD_PATHNAME, BadPath(L"RemoveApplicationBitmaps", first.Path()));
    log.ExpectLogged(2, 0, L"RemoveApplicationBitmaps: SUCCESS:: Bitmaps are removed");
}

TEST_F(VolumeWalks, AFirstStepThatFailsIsTheResultOfAllThree)
{
    Register(L"App1");
    FailStep(1, ERROR_NOT_READY);
    Entries volumes;
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_READY), Enumerate(volumes));
    log.ExpectLogged(0, ERROR_NOT_READY, L"EnumerateVolumes: FindFirstVolumeW failed. Error code 21");
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_READY), VTRegisterApplication(L"App2"));
    log.ExpectLogged(0, ERROR_NOT_READY, L"ResetApplicationBitmaps: FindFirstVolumeW failed. Error code 21");
    ExpectIds(L"App1\0\0"sv);
}

TEST_F(VolumeWalks, ALaterStepThatFailsIsTheResultAndNothingIsMarked)
{
    FailStep(2, ERROR_NOT_READY);
    Entries volumes;
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_READY), Enumerate(volumes));
    EXPECT_TRUE(volumes.empty());
    log.ExpectLogged(0, ERROR_NOT_READY, L"EnumerateVolumes: FindNextVolumeW failed with error code 21");
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_READY), VTRegisterApplication(L"App1"));
    log.ExpectLogged(0, ERROR_NOT_READY, L"ResetApplicationBitmaps: FindNextVolumeW failed with error code 21");
    ExpectNoIds();
    // What was reset before stays.
    EXPECT_NE(HasBitmaps(first, L"App1"), HasBitmaps(second, L"App1"));
}

TEST_F(VolumeWalks, TheEndBehindTheLastVolumeIsNoFailure)
{
    FailStep(3, ERROR_NO_MORE_FILES);
    Entries volumes;
    EXPECT_EQ(0u, Enumerate(volumes));
    EXPECT_EQ(2u, volumes.size());
}

TEST_F(VolumeWalks, RemovingReportsAStepThatFailsAndUnregisteringIgnoresIt)
{
    struct Case {
        const wchar_t* function;
        const wchar_t* message;
    };
    // The first walk is the marking, the second the removal: 1 first step, 3 next steps in each.
    const Case cases[] = {{L"FindFirstVolumeW", L"RemoveApplicationBitmaps: FindFirstVolumeW failed. Error code 21"},
                          {L"FindNextVolumeW", L"RemoveApplicationBitmaps: FindNextVolumeW failed with error code 21"}};
    const DWORD nth[] = {2, 3};
    for (std::size_t i = 0; i < 2; ++i) {
        Register(L"App1");
        vtfltsim::FailCall(cases[i].function, ERROR_NOT_READY, nullptr, nth[i]);
        EXPECT_EQ(0u, VTUnregisterApplication(L"App1"));
        ExpectStruck();
        EXPECT_TRUE(RegisteredIds().empty());
        log.ExpectLogged(0, ERROR_NOT_READY, cases[i].message);
        log.ExpectNotLogged(L"RemoveApplicationBitmaps: SUCCESS:: Bitmaps are removed");
    }
}

TEST_F(VolumeWalks, RemovingOpensNoVolume)
{
    Register(L"App1");
    const auto calls = CallsOf({L"CreateFileW"}, [] { EXPECT_EQ(0u, VTUnregisterApplication(L"App1")); });
    ExpectCalls({}, calls);
    EXPECT_TRUE(HasNoBitmaps(first, L"App1"));
}

TEST_F(VolumeWalks, RemovingGoesOnBehindAVolumeWhoseMutexIsNotTaken)
{
    Register(L"App1");
    const vtflt::UniqueHandle event = Occupy(first.MutexName());
    EXPECT_EQ(0u, VTUnregisterApplication(L"App1"));
    EXPECT_TRUE(HasBitmaps(first, L"App1"));
    EXPECT_TRUE(HasNoBitmaps(second, L"App1"));
    log.ExpectLogged(0, NO_MUTEX, L"RemoveApplicationBitmapsFailed to get the access while creating mutex: 65541");
    log.ExpectLogged(2, 0, L"RemoveApplicationBitmaps: SUCCESS:: Bitmaps are removed");
}

TEST_F(VolumeWalks, OneVolumeIsHeldAtATime)
{
    const auto calls =
        CallsOf({L"CreateMutexW", L"ReleaseMutex"}, [] { EXPECT_EQ(0u, VTRegisterApplication(L"App1")); });
    ASSERT_EQ(6u, calls.size());
    for (const std::size_t i : {1u, 3u}) {
        EXPECT_EQ(0u, calls[i].find(L"CreateMutexW VTBitmapManager.Volume{")) << Narrow(calls[i]);
        EXPECT_TRUE(calls[i].substr(13) == calls[i + 1].substr(13)); // the two words are of one length
        EXPECT_EQ(0u, calls[i + 1].find(L"ReleaseMutex "));
    }
}

TEST_F(VolumeWalks, OnlyDiskTypeThreeCounts)
{
    const DWORD others[] = {DRIVE_UNKNOWN, DRIVE_NO_ROOT_DIR, DRIVE_REMOVABLE,
                            DRIVE_REMOTE,  DRIVE_CDROM,       DRIVE_RAMDISK};
    for (const DWORD type : others) {
        ForceCall(L"GetDriveTypeW", first.Root(), type);
        Entries volumes;
        EXPECT_EQ(0u, Enumerate(volumes));
        ExpectStruck();
        EXPECT_TRUE(volumes == Entries{second.guid}) << type;
        DeleteValue(SERVICE_KEY, std::wstring(DRIVER_LIST) + L"Walker.Last");
    }
}

TEST_F(VolumeWalks, AStepThatFailsWithoutAnErrorIsStillAFailure)
{
    ForceCall(L"FindNextVolumeW", L"", FALSE);
    Entries volumes;
    EXPECT_EQ(31u, Enumerate(volumes));
    ExpectStruck();
    EXPECT_TRUE(volumes.empty());
    ExpectNoList(L"Walker.Last");
    ForceCall(L"FindFirstVolumeW", L"", reinterpret_cast<ULONG_PTR>(INVALID_HANDLE_VALUE));
    EXPECT_EQ(31u, VTRegisterApplication(L"App1"));
    ExpectStruck();
    ExpectNoIds();
}

} // namespace
