// The mark of a running user of the library, made by a process that may not make it.
#include "api/active_job.h"

#include "support/driver_expect.h"

namespace vttest {
namespace {

// This program has a mark of its own since it was started.
class ActiveJobMark : public MachineTest {
protected:
    // What a hold saw while the mutex could not be made; the mutexes it has open are counted meanwhile.
    DWORD Refused(DWORD error, DWORD open)
    {
        vtfltsim::FailCall(L"CreateMutexW", error, vtflt::ACTIVE_JOB_MUTEX);
        StartRecording();
        const vtflt::ActiveJobMutex mutex;
        EXPECT_EQ(VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES), open);
        return mutex.Error();
    }
};

TEST_F(ActiveJobMark, ASecondHoldSeesTheFirst)
{
    const vtflt::ActiveJobMutex mutex;
    EXPECT_EQ(mutex.Error(), 183u);
}

TEST_F(ActiveJobMark, AMarkThatMayNotBeMadeIsHeldOpenAndCountsAsThere)
{
    EXPECT_EQ(Refused(ERROR_ACCESS_DENIED, 1), 183u);
    EXPECT_EQ(CallsOf(L"OpenMutexW").size(), 1u);
    EXPECT_EQ(VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES), 0u);
}

TEST_F(ActiveJobMark, AMarkThatCanNeitherBeMadeNorOpenedIsTheOpeningsError)
{
    vtfltsim::FailCall(L"OpenMutexW", ERROR_FILE_NOT_FOUND, vtflt::ACTIVE_JOB_MUTEX);
    EXPECT_EQ(Refused(ERROR_ACCESS_DENIED, 0), 2u);
}

TEST_F(ActiveJobMark, AnotherFailureIsNotTriedAgain)
{
    EXPECT_EQ(Refused(ERROR_INVALID_HANDLE, 0), 6u);
    EXPECT_TRUE(CallsOf(L"OpenMutexW").empty());
}

} // namespace
} // namespace vttest
