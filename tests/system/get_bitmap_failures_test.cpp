// Every point of failure between the driver's answer and its forgetting: the call gives the error and the driver
// keeps the changes, so that the next fetch gives every change again, or says that the volume must be verified.
#include "driver/protocol.h"
#include "support/cycle_test.h"

#include <algorithm>
#include <ostream>

namespace vttest {

namespace {

using namespace vtflt;

enum class How { Fails, Short };

struct FailurePoint {
    const char* name;
    const wchar_t* function;
    const wchar_t* match;
    DWORD nth;
    How how;
    DWORD error;
    // Of the failing call: the result, and the record that tells of it, in front of the step's own.
    DWORD result;
    const wchar_t* message;
    const wchar_t* step;
    // Of the next fetch: the result, and whether the bitmap has everything. A bitmap that has not comes with 0x10001.
    DWORD nextResult;
    bool nextHasAll;
    // Of the other application's fetch after that.
    DWORD otherResult;
};

void PrintTo(const FailurePoint& point, std::ostream* out)
{
    *out << point.name;
}

constexpr wchar_t CHILDREN[] = L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Updating child bitmaps.";
constexpr wchar_t BASE[] = L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Preparing the base bitmap.";
constexpr wchar_t RESET[] = L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Resetting the child bitmap.";

constexpr wchar_t READ_CHILD1[] = L"CMultiBitmapManager::UpdateAllChildBitmap: Failed to read child bitmap file "
                                  L"<child1>";
constexpr wchar_t READ_CHILD2[] = L"CMultiBitmapManager::UpdateAllChildBitmap: Failed to read child bitmap file "
                                  L"<child2>";
constexpr wchar_t GROW_CHILD1[] = L"CMultiBitmapManager::UpdateAllChildBitmap: RegenerateBitmapForNewVolSize failed "
                                  L"for child bitmap, for application app1";
constexpr wchar_t GROW_CHILD2[] = L"CMultiBitmapManager::UpdateAllChildBitmap: RegenerateBitmapForNewVolSize failed "
                                  L"for child bitmap, for application app2";
constexpr wchar_t SAVE_CHILD2[] = L"CMultiBitmapManager::UpdateAllChildBitmap: Failed to save child bitmap of "
                                  L"application app2";
constexpr wchar_t GROW_BASE[] = L"CMultiBitmapManager::UpdateBaseBitmapWithChild: RegenerateBitmapForNewVolSize "
                                L"failed for base bitmap, for current application app1";
constexpr wchar_t SAVE_BASE[] = L"CMultiBitmapManager::UpdateBaseBitmapWithChild: Failed to update base bitmap file";
constexpr wchar_t SAVE_RESET[] = L"CMultiBitmapManager::ResetChildBitmap: Failed to reset child bitmap file";

constexpr wchar_t OPEN_BASE[] = L"Open bitmap file failed, file name:<base1>";
constexpr wchar_t READ_BASE[] = L"CBitmapContainer::ReadBitMapFromFile: Read bitmap file failed, file name:<base1>";
constexpr wchar_t SEEK_BASE[] = L"CBitmapContainer::ReadBitMapFromFile: SetFilePointer failed, file name: <base1>";

constexpr wchar_t C1[] = L"_child_app1";
constexpr wchar_t C2[] = L"_child_app2";
constexpr wchar_t B1[] = L"_base_app1";

// A file that cannot be created is taken for one whose folder is missing; the folder is there, hence 183. A file that
// was created anew and could not be written to its end has no trailer, which the next reader answers with 0x10001.
// Each file is written with its trailer last: two seeks, two writes and two flushes.
const FailurePoint POINTS[] = {
    {"OpeningTheChild", L"CreateFileW", C1, 1, How::Fails, 5, 5, READ_CHILD1, CHILDREN, 0, true, 0},
    {"ReadingTheChildsHeader", L"ReadFile", C1, 1, How::Fails, 23, 23, READ_CHILD1, CHILDREN, 0, true, 0},
    {"SeekingInTheChild", L"SetFilePointer", C1, 1, How::Fails, 131, 131, READ_CHILD1, CHILDREN, 0, true, 0},
    {"ReadingTheChildsRecord", L"ReadFile", C1, 2, How::Fails, 23, 23, READ_CHILD1, CHILDREN, 0, true, 0},
    {"AShortReadOfTheChildsRecord", L"ReadFile", C1, 2, How::Short, 0, 0xFFFFFFFF, READ_CHILD1, CHILDREN, 0, true, 0},
    {"CreatingTheGrownChild", L"CreateFileW", C1, 2, How::Fails, 5, 183, GROW_CHILD1, CHILDREN, 0, true, 0},
    {"SeekingInTheGrownChild", L"SetFilePointer", C1, 2, How::Fails, 131, 131, GROW_CHILD1, CHILDREN, VERIFY, true, 0},
    {"WritingTheGrownChild", L"WriteFile", C1, 1, How::Fails, 112, 112, GROW_CHILD1, CHILDREN, VERIFY, true, 0},
    {"FlushingTheGrownChild", L"FlushFileBuffers", C1, 1, How::Fails, 1117, 1117, GROW_CHILD1, CHILDREN, VERIFY, true,
     0},
    {"WritingTheGrownChildsTrailer", L"WriteFile", C1, 2, How::Fails, 112, 112, GROW_CHILD1, CHILDREN, VERIFY, true, 0},
    {"FlushingTheGrownChildsTrailer", L"FlushFileBuffers", C1, 2, How::Fails, 1117, 1117, GROW_CHILD1, CHILDREN, 0,
     true, 0},
    {"OpeningTheOthersChild", L"CreateFileW", C2, 1, How::Fails, 32, 32, READ_CHILD2, CHILDREN, 0, true, 0},
    {"ReadingTheOthersHeader", L"ReadFile", C2, 1, How::Fails, 23, 23, READ_CHILD2, CHILDREN, 0, true, 0},
    {"ReadingTheOthersRecord", L"ReadFile", C2, 2, How::Fails, 23, 23, READ_CHILD2, CHILDREN, 0, true, 0},
    {"CreatingTheOthersGrownChild", L"CreateFileW", C2, 2, How::Fails, 5, 183, GROW_CHILD2, CHILDREN, 0, true, 0},
    {"WritingTheOthersGrownChild", L"WriteFile", C2, 1, How::Fails, 112, 112, GROW_CHILD2, CHILDREN, 0, true, VERIFY},
    {"CreatingTheOthersMergedChild", L"CreateFileW", C2, 3, How::Fails, 5, 183, SAVE_CHILD2, CHILDREN, 0, true, 0},
    {"WritingTheOthersMergedChild", L"WriteFile", C2, 3, How::Fails, 112, 112, SAVE_CHILD2, CHILDREN, 0, true, VERIFY},
    {"FlushingTheOthersMergedChild", L"FlushFileBuffers", C2, 3, How::Fails, 1117, 1117, SAVE_CHILD2, CHILDREN, 0, true,
     VERIFY},
    {"FlushingTheOthersTrailer", L"FlushFileBuffers", C2, 4, How::Fails, 1117, 1117, SAVE_CHILD2, CHILDREN, 0, true, 0},
    {"OpeningTheBase", L"CreateFileW", B1, 1, How::Fails, 5, 5, OPEN_BASE, BASE, 0, true, 0},
    {"ReadingTheBasesHeader", L"ReadFile", B1, 1, How::Fails, 23, 23, READ_BASE, BASE, 0, true, 0},
    {"SeekingInTheBase", L"SetFilePointer", B1, 1, How::Fails, 131, 131, SEEK_BASE, BASE, 0, true, 0},
    {"ReadingTheBasesRecord", L"ReadFile", B1, 2, How::Fails, 23, 23, READ_BASE, BASE, 0, true, 0},
    {"CreatingTheGrownBase", L"CreateFileW", B1, 2, How::Fails, 5, 183, GROW_BASE, BASE, 0, true, 0},
    {"WritingTheGrownBase", L"WriteFile", B1, 1, How::Fails, 112, 112, GROW_BASE, BASE, VERIFY, false, 0},
    {"CreatingTheFoldedBase", L"CreateFileW", B1, 3, How::Fails, 5, 183, SAVE_BASE, BASE, 0, true, 0},
    {"SeekingInTheFoldedBase", L"SetFilePointer", B1, 4, How::Fails, 131, 131, SAVE_BASE, BASE, VERIFY, false, 0},
    {"WritingTheFoldedBase", L"WriteFile", B1, 3, How::Fails, 112, 112, SAVE_BASE, BASE, VERIFY, false, 0},
    {"FlushingTheFoldedBase", L"FlushFileBuffers", B1, 3, How::Fails, 1117, 1117, SAVE_BASE, BASE, VERIFY, false, 0},
    {"WritingTheFoldedBasesTrailer", L"WriteFile", B1, 4, How::Fails, 112, 112, SAVE_BASE, BASE, VERIFY, false, 0},
    {"FlushingTheFoldedBasesTrailer", L"FlushFileBuffers", B1, 4, How::Fails, 1117, 1117, SAVE_BASE, BASE, 0, true, 0},
    {"CreatingTheClearedChild", L"CreateFileW", C1, 3, How::Fails, 5, 183, SAVE_RESET, RESET, 0, true, 0},
    {"WritingTheClearedChild", L"WriteFile", C1, 3, How::Fails, 112, 112, SAVE_RESET, RESET, VERIFY, true, 0},
    {"FlushingTheClearedChild", L"FlushFileBuffers", C1, 3, How::Fails, 1117, 1117, SAVE_RESET, RESET, VERIFY, true, 0},
    {"FlushingTheClearedChildsTrailer", L"FlushFileBuffers", C1, 4, How::Fails, 1117, 1117, SAVE_RESET, RESET, 0, true,
     0},
};

std::wstring WithNames(std::wstring text, const std::wstring& mark, const std::wstring& name)
{
    const std::size_t at = text.find(mark);
    return at == std::wstring::npos ? text : text.replace(at, mark.size(), name);
}

bool HasAll(const BlockSet& delivered, const BlockSet& wanted)
{
    return std::includes(delivered.begin(), delivered.end(), wanted.begin(), wanted.end());
}

class GetBitmapFailure : public CycleTest, public ::testing::WithParamInterface<FailurePoint> {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Register(L"app2");
        Touch({1, 50, 99});
    }

    void Arm(const FailurePoint& point)
    {
        if (point.how == How::Short)
            CutCall(point.function, point.match, 100, point.nth);
        else
            vtfltsim::FailCall(point.function, point.error, point.match, point.nth);
    }

    std::wstring Text(const wchar_t* text) const
    {
        return WithNames(WithNames(WithNames(text, L"<child1>", ChildPath(L"app1")), L"<child2>", ChildPath(L"app2")),
                         L"<base1>", BasePath(L"app1"));
    }
};

TEST_P(GetBitmapFailure, LosesNoChange)
{
    const FailurePoint& point = GetParam();
    const auto session = Open(L"app1");

    Arm(point);
    EXPECT_EQ(point.result, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    log.ExpectLogged(0, point.result, Text(point.message));
    log.ExpectLogged(0, point.result, point.step);
    EXPECT_EQ(3u, OwedByDriver()) << "the driver was told to forget";
    EXPECT_TRUE(VerifyList(L"app1").empty());

    Touch({7});
    const BlockSet reference{1, 7, 50, 99};
    EXPECT_EQ(point.nextResult, session->GetBitmap());
    EXPECT_EQ(point.nextHasAll, HasAll(Blocks(*session), reference));
    EXPECT_EQ(point.nextResult == VERIFY ? OnlyThisVolume() : std::vector<std::wstring>(), VerifyList(L"app1"));
    EXPECT_EQ(0u, OwedByDriver());

    const auto other = Open(L"app2");
    EXPECT_EQ(point.otherResult, other->GetBitmap());
    if (point.otherResult == 0) {
        EXPECT_EQ(reference, Blocks(*other));
    }
}

INSTANTIATE_TEST_SUITE_P(Points, GetBitmapFailure, ::testing::ValuesIn(POINTS),
                         [](const ::testing::TestParamInfo<FailurePoint>& point) {
                             return std::string(point.param.name);
                         });

class GetBitmapFailureOfTheDriver : public CycleTest {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Register(L"app2");
        Touch({1, 50, 99});
    }
};

TEST_F(GetBitmapFailureOfTheDriver, AtTheBitmapLeavesAllAsItWas)
{
    const auto session = Open(L"app1");
    machine.FailRequest(VTFLTCTL_GET_BITMAP, ERROR_GEN_FAILURE);
    const Bytes child = Child(volume, L"app1").image;
    const Bytes base = Base(volume, L"app1").image;
    EXPECT_EQ(31u, session->GetBitmap(BUFFER_LENGTH));
    log.ExpectExactly({Failed(31, L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_GET_BITMAP failed, mserr=31.")});
    EXPECT_EQ(child, Child(volume, L"app1").image);
    EXPECT_EQ(base, Base(volume, L"app1").image);
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
}

TEST_F(GetBitmapFailureOfTheDriver, AtTheForgettingGivesTheChangesAgain)
{
    const auto session = Open(L"app1");
    machine.FailRequest(VTFLTCTL_REPLICATION_SUCCESS, ERROR_NOT_READY);
    EXPECT_EQ(21u, session->GetBitmap(BUFFER_LENGTH));
    log.ExpectExactly({
        Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Updated child bitmaps."),
        Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Prepared the base bitmap."),
        Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Resetting the child bitmap."),
        Failed(21, L"CMultiBitmapManager::VTDeviceIoControl: FAILED::VTFLTCTL_REPLICATION_SUCCESS."),
    });
    EXPECT_EQ(3u, OwedByDriver());

    Touch({7});
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 7, 50, 99}), Blocks(*session));
    EXPECT_EQ((BlockSet{1, 7, 50, 99}), Blocks(Child(volume, L"app2")));
}

TEST_F(GetBitmapFailureOfTheDriver, AtTheForgettingWithoutAnErrorCountsAsSuccess)
{
    const auto session = Open(L"app1");
    ForceCall(L"DeviceIoControl", L"0xB0000011", 0);
    EXPECT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
    log.ExpectLogged(2, 0, L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::VTFLTCTL_REPLICATION_SUCCESS.");
}

class GetBitmapMutex : public GetBitmapFailureOfTheDriver {};

TEST_F(GetBitmapMutex, ThatCannotBeMadeEndsTheCallBeforeTheDriverIsAsked)
{
    const auto session = Open(L"app1");
    VTFltSimRecord(1);
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, volume.MutexName().c_str());
    EXPECT_EQ(0x10005u, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_TRUE(RequestCodes().empty());
    log.ExpectExactly({
        Failed(5, L"CMutexController::getAccess Failed to CreateMutex[" + volume.MutexName() + L"] error: 5"),
        Failed(0x10005, L"CMultiBitmapManager::VTDeviceIoControlFailed to get the access while creating mutex: 65541"),
    });
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
}

TEST_F(GetBitmapMutex, ThatCannotBeWaitedForEndsTheCallBeforeTheDriverIsAsked)
{
    const auto session = Open(L"app1");
    VTFltSimRecord(1);
    ForceCall(L"WaitForSingleObject", volume.MutexName(), WAIT_FAILED, ERROR_INVALID_HANDLE);
    EXPECT_EQ(0x10005u, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_TRUE(RequestCodes().empty());
    log.ExpectExactly({Failed(
        0x10005, L"CMultiBitmapManager::VTDeviceIoControlFailed to get the access while creating mutex: 65541")});
}

TEST_F(GetBitmapMutex, ThatTimedOutOrWasAbandonedCountsAsTaken)
{
    const auto session = Open(L"app1");
    for (const DWORD answer : {static_cast<DWORD>(WAIT_TIMEOUT), static_cast<DWORD>(WAIT_ABANDONED)}) {
        ForceCall(L"WaitForSingleObject", volume.MutexName(), answer);
        EXPECT_EQ(0u, session->GetBitmap(BUFFER_LENGTH)) << answer;
        EXPECT_EQ(1u, VTFltSimGetCallFaultHits()) << answer;
        VTFltSimClearCallFaults();
        EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
    }
}

} // namespace

} // namespace vttest
