// The samples as programs: what they leave is the volume, and they read no more than they must.
#include "samples/machine_tricks.h"
#include "support/child.h"
#include "vtfltsim/VTFltSim.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace vttest {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr DWORD BLOCK = 4096;
constexpr std::uint64_t BLOCKS = 300;
constexpr std::uint64_t LENGTH = BLOCKS * BLOCK - 1536; // the last block is a part of one
constexpr DWORD GET_BITMAP = 0xB0000002;
constexpr DWORD GET_BLOCK_SIZE = 0xB0000006;
constexpr wchar_t ANNOUNCES[] = L"0xB0000015"; // in the text of that request
constexpr wchar_t SNAPSHOT_CLASS[] =
    L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";
constexpr wchar_t SNAPSHOT[] = L"HarddiskVolumeShadowCopy";

class Samples : public testing::TestWithParam<const wchar_t*> {
protected:
    Samples() : m_volume(m_machine.AddVolume(LENGTH, BLOCK)), m_copy(m_machine.directory() + L".copy") {}
    ~Samples() override
    {
        for (const std::wstring& copy : {m_copy, OtherCopy()}) {
            DeleteFileW(copy.c_str());
            DeleteFileW((copy + L".state").c_str());
        }
    }

    DWORD BackUp(const std::wstring& calls = {}) const { return Start(m_volume, L"Sample", m_copy, calls).Join(); }
    ChildProcess Start(const vtfltsim::Volume& volume, const std::wstring& application, const std::wstring& copy,
                       const std::wstring& calls = {}) const
    {
        return ChildProcess(GetParam(), {m_machine.directory(), volume.guid, application, copy}, calls);
    }
    std::wstring OtherCopy() const { return m_copy + L"2"; }
    // Somebody empties the list of applications, and another one comes back first: what was written is handed to it alone.
    void LoseTheRegistration()
    {
        DeleteApplicationList(m_machine);
        ASSERT_EQ(0u, Start(m_volume, L"Other", OtherCopy()).Join());
        DeleteFileW(OtherCopy().c_str());
        DeleteFileW((OtherCopy() + L".state").c_str());
    }
    void ExpectNothingLostWhenAnotherVolumeRegisters()
    {
        const vtfltsim::Volume second = m_machine.AddVolume(LENGTH, BLOCK);
        EXPECT_EQ(0u, BackUp());
        EXPECT_EQ(0u, BackUp());
        Write(3, 7);
        LoseTheRegistration();
        EXPECT_EQ(0u, Start(second, L"Sample", OtherCopy()).Join()); // it is this one that registers again
        EXPECT_EQ(0u, BackUp());
        EXPECT_TRUE(EqualsVolume());
    }
    VTFLTSIM_SNAPSHOT_INFO OnlySnapshot() const
    {
        VTFLTSIM_SNAPSHOT_INFO info = {};
        info.size = sizeof(info);
        vtfltsim::Check("VTFltSimEnumSnapshot", VTFltSimEnumSnapshot(m_machine.handle(), 0, &info));
        return info;
    }
    void Write(std::uint64_t block, std::uint8_t value) { m_machine.Write(m_volume, block * BLOCK, Bytes(512, value)); }

    Bytes Copy() const
    {
        const vtflt::UniqueHandle file(
            CreateFileW(m_copy.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        LARGE_INTEGER size = {};
        EXPECT_TRUE(file.valid() && GetFileSizeEx(file.get(), &size));
        Bytes bytes(static_cast<std::size_t>(size.QuadPart));
        DWORD read = 0;
        EXPECT_TRUE(ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr));
        return bytes;
    }
    // Changes a block of the copy behind the program's back: whether it is mended says whether the block was read.
    void Spoil(std::uint64_t block) const
    {
        const vtflt::UniqueHandle file(
            CreateFileW(m_copy.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        LARGE_INTEGER at = {};
        at.QuadPart = static_cast<LONGLONG>(block * BLOCK);
        DWORD written = 0;
        EXPECT_TRUE(SetFilePointerEx(file.get(), at, nullptr, FILE_BEGIN) &&
                    WriteFile(file.get(), "spoilt", 6, &written, nullptr));
    }
    bool EqualsVolume() const { return Equals(m_volume); }
    bool Equals(const vtfltsim::Volume& volume) const
    {
        return Copy() == m_machine.Read(volume, 0, static_cast<DWORD>(m_machine.Info(volume).length));
    }

    // A backup that reads everything mends what was spoilt.
    void ExpectEverythingRead()
    {
        Spoil(200);
        EXPECT_EQ(0u, BackUp());
        EXPECT_TRUE(EqualsVolume());
    }

    vtfltsim::SimMachine m_machine;
    vtfltsim::Volume m_volume;
    std::wstring m_copy;
};

TEST_P(Samples, TheFirstBackupIsTheVolume)
{
    Write(0, 1);
    Write(BLOCKS - 1, 2);
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

TEST_P(Samples, TheNextOneReadsWhatChangedAndNothingElse)
{
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, BackUp()); // the first one's copy of a fresh volume may have been read whole
    Write(3, 7);
    Write(BLOCKS - 1, 8);
    Spoil(200);
    EXPECT_EQ(0u, BackUp());
    EXPECT_FALSE(EqualsVolume());
    Write(200, 0);
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

TEST_P(Samples, LostTrackingReadsEverything)
{
    EXPECT_EQ(0u, BackUp());
    ASSERT_EQ(0u, VTFltSimLoseTracking(m_machine.handle(), m_volume.guid.c_str()));
    Write(5, 9);
    ExpectEverythingRead();
}

TEST_P(Samples, AnotherLengthReadsEverything)
{
    EXPECT_EQ(0u, BackUp());
    ASSERT_EQ(0u, VTFltSimResizeVolume(m_machine.handle(), m_volume.guid.c_str(), LENGTH + 3 * BLOCK));
    ExpectEverythingRead();
    ASSERT_EQ(0u, VTFltSimResizeVolume(m_machine.handle(), m_volume.guid.c_str(), LENGTH - 3 * BLOCK));
    ExpectEverythingRead();
}

TEST_P(Samples, AnotherBlockSizeReadsEverything)
{
    EXPECT_EQ(0u, BackUp());
    ASSERT_EQ(0u, VTFltSimSetBlockSize(m_machine.handle(), m_volume.guid.c_str(), 2 * BLOCK));
    ExpectEverythingRead();
}

TEST_P(Samples, WithoutItsStateEverythingIsRead)
{
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(DeleteFileW((m_copy + L".state").c_str()));
    ExpectEverythingRead();
}

TEST_P(Samples, ABackupThatFailedForgetsNothing)
{
    EXPECT_EQ(0u, BackUp());
    Write(4, 1);
    // The copy cannot be opened while somebody holds it.
    vtflt::UniqueHandle held(
        CreateFileW(m_copy.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(held.valid());
    EXPECT_EQ(1u, BackUp());
    held.reset();
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

TEST_P(Samples, ARegistrationThatWasLostReadsEverything)
{
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, BackUp());
    Write(3, 7);
    LoseTheRegistration();
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

TEST_P(Samples, ARegistrationThatWasLostReadsEverythingAlsoBehindADeath)
{
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, BackUp());
    Write(3, 7);
    LoseTheRegistration();
    EXPECT_EQ(VTFLTSIM_KILLED, BackUp(DieBefore(L"CreateFileW", SNAPSHOT)));
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

TEST_P(Samples, ARegistrationThatWasLostMarksTheOtherVolumesToo)
{
    ExpectNothingLostWhenAnotherVolumeRegisters();
}

// Registering again marks no volume that is not fixed.
TEST_P(Samples, ARegistrationThatWasLostReadsAnotherVolumeThatIsNotFixedToo)
{
    ASSERT_EQ(0u, VTFltSimSetDriveType(m_machine.handle(), m_volume.guid.c_str(), DRIVE_REMOVABLE));
    ExpectNothingLostWhenAnotherVolumeRegisters();
}

// Marks are left out, with success, while the driver does not answer.
TEST_P(Samples, ARegistrationThatWasLostIsNotMadeAgainWithoutMarks)
{
    m_machine.SetService(VTFLTSIM_SERVICE_ABSENT); // or the driver would be reinstalled
    const vtfltsim::Volume second = m_machine.AddVolume(LENGTH, BLOCK);
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, Start(second, L"Sample", OtherCopy()).Join());
    for (unsigned silence = 2; silence <= 5; ++silence) {
        SCOPED_TRACE(silence);
        Write(3, static_cast<std::uint8_t>(10 + silence));
        LoseTheRegistration();
        const std::wstring plan = L"fail|CreateFileW|\\\\.\\VTFltMgr|" + WideNumber(silence) + L"|1|2";
        Start(second, L"Sample", OtherCopy(), plan).Join();
        EXPECT_EQ(0u, Start(second, L"Sample", OtherCopy()).Join());
        EXPECT_EQ(0u, BackUp());
        EXPECT_TRUE(EqualsVolume());
    }
}

// No list can name the volume that the run is for; the others are owed their marks all the same.
TEST_P(Samples, ARegistrationThatWasLostIsNotMadeAgainOnAVolumeThatIsNotFixedWhileTheDriverIsSilent)
{
    m_machine.SetService(VTFLTSIM_SERVICE_ABSENT); // or the driver would be reinstalled
    const vtfltsim::Volume removable = m_machine.AddVolume(LENGTH, BLOCK);
    ASSERT_EQ(0u, VTFltSimSetDriveType(m_machine.handle(), removable.guid.c_str(), DRIVE_REMOVABLE));
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, Start(removable, L"Sample", OtherCopy()).Join());
    unsigned failed = 0;
    for (unsigned silence = 2; silence <= 5; ++silence) {
        SCOPED_TRACE(silence);
        Write(3, static_cast<std::uint8_t>(20 + silence));
        LoseTheRegistration();
        // From then on the driver does not answer.
        const std::wstring plan = L"fail|CreateFileW|\\\\.\\VTFltMgr|" + WideNumber(silence) + L"|4000|2";
        const DWORD result = Start(removable, L"Sample", OtherCopy(), plan).Join();
        failed += result == 1;
        EXPECT_EQ(0u, Start(removable, L"Sample", OtherCopy()).Join());
        EXPECT_EQ(0u, BackUp());
        EXPECT_TRUE(EqualsVolume());
    }
    EXPECT_NE(0u, failed);
}

// A silent driver hands its list over to nobody, with success.
TEST_P(Samples, ADriverThatIsSilentForOneQuestionIsNotOneThatLostNothing)
{
    m_machine.SetService(VTFLTSIM_SERVICE_ABSENT); // or the driver would be reinstalled
    EXPECT_EQ(0u, BackUp());
    unsigned succeeded = 0;
    for (unsigned silence = 1; silence <= 11; ++silence) {
        SCOPED_TRACE(silence);
        EXPECT_EQ(0u, BackUp());
        Write(3, static_cast<std::uint8_t>(40 + silence));
        const Pause pause(L"VTFltSim.SampleTest");
        ChildProcess sample = Start(m_volume, L"Sample", m_copy,
                                    pause.Before(L"DeviceIoControl", ANNOUNCES) +
                                        L";fail|CreateFileW|\\\\.\\VTFltMgr|" + WideNumber(silence) + L"|1|2");
        if (pause.AwaitReached(sample)) { // between the two questions
            ASSERT_EQ(0u, VTFltSimLoseTracking(m_machine.handle(), m_volume.guid.c_str()));
        }
        pause.Go();
        if (sample.Join() == 0) {
            ++succeeded;
            EXPECT_TRUE(EqualsVolume());
        }
        EXPECT_EQ(0u, BackUp());
        EXPECT_TRUE(EqualsVolume());
    }
    EXPECT_LE(4u, succeeded);
}

TEST_P(Samples, AVolumeThatWasNotFixedIsReadWholeOnceMore)
{
    ASSERT_EQ(0u, VTFltSimSetDriveType(m_machine.handle(), m_volume.guid.c_str(), DRIVE_REMOVABLE));
    EXPECT_EQ(0u, BackUp());
    ExpectEverythingRead();
    ASSERT_EQ(0u, VTFltSimSetDriveType(m_machine.handle(), m_volume.guid.c_str(), DRIVE_FIXED));
    ExpectEverythingRead();
    Spoil(200);
    EXPECT_EQ(0u, BackUp());
    EXPECT_FALSE(EqualsVolume());
}

// Lists and mutexes know letter case, volumes do not.
TEST_P(Samples, AVolumeInOtherLettersIsTheSameVolume)
{
    const vtfltsim::Volume volume = AddVolume(m_machine, L"{abcdef01-2345-6789-abcd-ef0123456789}", LENGTH, BLOCK);
    const vtfltsim::Volume given{L"{ABCDEF01-2345-6789-ABCD-EF0123456789}"};
    EXPECT_EQ(0u, Start(given, L"Sample", m_copy).Join());
    m_machine.Write(volume, 3 * BLOCK, Bytes(512, 7));
    ASSERT_EQ(0u, VTFltSimLoseTracking(m_machine.handle(), volume.guid.c_str()));
    EXPECT_EQ(0u, Start(given, L"Sample", m_copy).Join());
    EXPECT_TRUE(Equals(volume));
    // The mark is off, and the copy is the volume's, however it is called.
    Spoil(200);
    EXPECT_EQ(0u, Start(volume, L"Sample", m_copy).Join());
    EXPECT_FALSE(Equals(volume));
}

TEST_P(Samples, AVolumeThatIsNotThereIsAnError)
{
    EXPECT_EQ(1u, Start({L"{abcdef01-2345-6789-abcd-ef0123456789}"}, L"Sample", m_copy).Join());
    EXPECT_EQ(1u, Start({std::wstring(100, L'x')}, L"Sample", m_copy).Join());
}

TEST_P(Samples, TheCopyOfAnotherVolumeIsReadWhole)
{
    const vtfltsim::Volume second = m_machine.AddVolume(LENGTH, BLOCK);
    m_machine.Write(second, 9 * BLOCK, Bytes(512, 9));
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, Start(second, L"Sample", OtherCopy()).Join());
    EXPECT_EQ(0u, Start(second, L"Sample", m_copy).Join());
    EXPECT_TRUE(Equals(second));
}

TEST_P(Samples, TheCopyOfAnotherApplicationIsReadWhole)
{
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, Start(m_volume, L"Other", OtherCopy()).Join());
    Write(3, 7);
    EXPECT_EQ(0u, Start(m_volume, L"Other", OtherCopy()).Join());
    EXPECT_EQ(0u, Start(m_volume, L"Other", m_copy).Join()); // nothing is owed to it any more
    EXPECT_TRUE(EqualsVolume());
}

// The library registers it with success, and it is not on the list.
TEST_P(Samples, AnIdThatIsTheTailOfARegisteredOneIsAnError)
{
    EXPECT_EQ(0u, BackUp());
    Write(3, 7);
    EXPECT_EQ(1u, Start(m_volume, L"ample", OtherCopy()).Join());
    EXPECT_EQ(1u, Start(m_volume, L"ample", OtherCopy()).Join());
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

// The samples that can see which applications there are.
class SamplesThatKnowIds : public Samples {};

// Their bitmap files are the same: each backup clears what the other one is owed.
TEST_P(SamplesThatKnowIds, AnIdThatIsTooMuchLikeARegisteredOneIsRefused)
{
    EXPECT_EQ(0u, BackUp());
    for (const std::wstring& id :
         {std::wstring(L"sample"), std::wstring(L"SAMPLE"), std::wstring(L"PLE"), std::wstring(L"MySample"),
          std::wstring(L"sample.last"), std::wstring(L"a*b"), std::wstring(180, L'x'), std::wstring()}) {
        SCOPED_TRACE(testing::PrintToString(id));
        Write(5, static_cast<std::uint8_t>(id.size()));
        EXPECT_EQ(1u, Start(m_volume, id, OtherCopy()).Join());
        EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(OtherCopy().c_str()));
        EXPECT_EQ(0u, BackUp());
        EXPECT_TRUE(EqualsVolume());
    }
    for (const std::wstring& id : {std::wstring(L"Sampler"), std::wstring(L"ampl"), std::wstring(179, L'x')}) {
        Write(5, static_cast<std::uint8_t>(100 + id.size()));
        EXPECT_EQ(0u, Start(m_volume, id, OtherCopy()).Join());
        EXPECT_EQ(0u, BackUp());
        EXPECT_TRUE(EqualsVolume());
    }
    EXPECT_EQ(0u, Start(m_volume, L"X.Last", OtherCopy()).Join());
    EXPECT_EQ(1u, Start(m_volume, L"x", OtherCopy()).Join());
}

TEST_P(Samples, ACopyOfEverythingThatWasStoppedBelongsToNobody)
{
    const vtfltsim::Volume second = m_machine.AddVolume(LENGTH, BLOCK);
    m_machine.Write(second, 9 * BLOCK, Bytes(512, 9));
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, Start(second, L"Sample", OtherCopy()).Join());
    ASSERT_EQ(0u, VTFltSimLoseTracking(m_machine.handle(), second.guid.c_str()));
    EXPECT_EQ(VTFLTSIM_KILLED, Start(second, L"Sample", m_copy, DieBefore(L"WriteFile", L".copy", 100)).Join());
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

TEST_P(Samples, WhatTheSnapshotItselfChangedComesAgain)
{
    m_machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
    EXPECT_EQ(0u, BackUp());
    Write(50, 1);
    const Pause pause(L"VTFltSim.SampleTest");
    ChildProcess sample = Start(m_volume, L"Sample", m_copy, pause.Before(L"CreateFileW", L".copy"));
    ASSERT_TRUE(pause.AwaitReached(sample));
    const Bytes scribble(512, 0xEE);
    ASSERT_EQ(0u, VTFltSimWriteSnapshot(m_machine.handle(), OnlySnapshot().number, 50 * BLOCK, scribble.data(), 512));
    pause.Go();
    EXPECT_EQ(0u, sample.Join());
    EXPECT_FALSE(EqualsVolume());
    Spoil(200);
    EXPECT_EQ(0u, BackUp());
    EXPECT_FALSE(EqualsVolume()); // it read no more than that block
    Write(200, 0);
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

TEST_P(Samples, WhatTheSnapshotItselfChangedAndCannotBeAskedIsNoSuccess)
{
    m_machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
    EXPECT_EQ(0u, BackUp());
    Write(50, 1);
    const Pause pause(L"VTFltSim.SampleTest");
    ChildProcess sample = Start(m_volume, L"Sample", m_copy, pause.Before(L"CreateFileW", L".copy"));
    ASSERT_TRUE(pause.AwaitReached(sample));
    m_machine.FailRequest(GET_BITMAP, ERROR_CRC, OnlySnapshot().devicePath);
    pause.Go();
    EXPECT_EQ(1u, sample.Join());
    ExpectEverythingRead();
}

// Taken for a snapshot that nobody tracks, the copy of what somebody wrote into it would stay.
TEST_P(Samples, WhatATrackedSnapshotChangedIsNotGivenUpForOneRefusal)
{
    m_machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
    EXPECT_EQ(0u, BackUp());
    EXPECT_EQ(0u, BackUp());
    const struct {
        DWORD request;
        DWORD error;
        const wchar_t* before; // of a file whose name holds this, is opened
    } refusals[] = {{GET_BITMAP, ERROR_INVALID_FUNCTION, L".copy"},
                    {GET_BITMAP, ERROR_NOT_SUPPORTED, L".copy"},
                    {GET_BLOCK_SIZE, ERROR_INVALID_FUNCTION, L".copy"},
                    {GET_BLOCK_SIZE, ERROR_INVALID_FUNCTION, SNAPSHOT}};
    for (const auto& refusal : refusals) {
        Write(50, 1);
        const Pause pause(L"VTFltSim.SampleTest");
        ChildProcess sample = Start(m_volume, L"Sample", m_copy, pause.Before(L"CreateFileW", refusal.before));
        ASSERT_TRUE(pause.AwaitReached(sample));
        const VTFLTSIM_SNAPSHOT_INFO snapshot = OnlySnapshot();
        const Bytes scribble(512, 0xEE);
        ASSERT_EQ(0u, VTFltSimWriteSnapshot(m_machine.handle(), snapshot.number, 50 * BLOCK, scribble.data(), 512));
        m_machine.FailRequest(refusal.request, refusal.error, snapshot.devicePath);
        pause.Go();
        EXPECT_EQ(1u, sample.Join());
        EXPECT_EQ(0u, BackUp());
        EXPECT_TRUE(EqualsVolume());
    }
}

TEST_P(Samples, TrackedSnapshotsThatNobodyChangedAreNoHindrance)
{
    m_machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
    EXPECT_EQ(0u, BackUp());
    Write(3, 7);
    Spoil(200);
    EXPECT_EQ(0u, BackUp());
    EXPECT_FALSE(EqualsVolume());
    Write(200, 0);
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

TEST_P(Samples, AnotherLengthBehindTheSnapshotReadsEverything)
{
    EXPECT_EQ(0u, BackUp());
    Spoil(200);
    const Pause pause(L"VTFltSim.SampleTest");
    ChildProcess sample = Start(m_volume, L"Sample", m_copy, pause.Before(L"CreateFileW", SNAPSHOT));
    ASSERT_TRUE(pause.AwaitReached(sample));
    ASSERT_EQ(0u, VTFltSimResizeVolume(m_machine.handle(), m_volume.guid.c_str(), LENGTH + 3 * BLOCK));
    pause.Go();
    EXPECT_EQ(0u, sample.Join());
    EXPECT_TRUE(Copy() == m_machine.Read(m_volume, 0, static_cast<DWORD>(LENGTH)));
}

TEST_P(Samples, ABitmapWhoseLengthIsNeverRightEndsInAnError)
{
    EXPECT_EQ(0u, BackUp());
    Write(3, 7);
    m_machine.FailRequest(GET_BITMAP, ERROR_MORE_DATA, m_volume.Path().c_str(), 1, 0);
    EXPECT_EQ(1u, BackUp());
    ASSERT_EQ(0u, VTFltSimClearFaults(m_machine.handle()));
    EXPECT_EQ(0u, BackUp());
    EXPECT_TRUE(EqualsVolume());
}

TEST_P(Samples, WithoutTheDriverThereIsNoBackup)
{
    ASSERT_EQ(0u, VTFltSimSetDriverState(m_machine.handle(), VTFLTSIM_DRIVER_ABSENT));
    ASSERT_EQ(0u, VTFltSimSetService(m_machine.handle(), VTFLTSIM_SERVICE_ABSENT)); // or it would be reinstalled
    EXPECT_EQ(1u, BackUp());
}

TEST_P(Samples, AMachineThatIsNotThereIsAnError)
{
    EXPECT_EQ(1u,
              ChildProcess(GetParam(), {m_machine.directory() + L".none", m_volume.guid, L"Sample", m_copy}).Join());
    EXPECT_EQ(2u, ChildProcess(GetParam(), {m_machine.directory()}).Join());
}

INSTANTIATE_TEST_SUITE_P(Each, SamplesThatKnowIds, testing::Values(L"backup_loop_cpp"),
                         [](const testing::TestParamInfo<const wchar_t*>&) { return "Cpp"; });
INSTANTIATE_TEST_SUITE_P(Each, Samples, testing::Values(L"backup_loop", L"backup_loop_cpp"),
                         [](const testing::TestParamInfo<const wchar_t*>& parameter) {
                             return parameter.index == 0 ? "C" : "Cpp";
                         });

} // namespace

} // namespace vttest
