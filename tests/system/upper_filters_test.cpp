// The driver's place among the upper filters of the volume class.
#include "support/driver_expect.h"

namespace vttest {
namespace {

// No service, so that a wrong order ends in the answer 0 and nothing is reinstalled.
class UpperFilterOrder : public MachineTest {
protected:
    UpperFilterOrder() { machine.SetService(VTFLTSIM_SERVICE_ABSENT); }

    void ExpectPass()
    {
        EXPECT_EQ(VTCanBLIDriverWork(), 1u);
        log.ExpectNothingLogged();
    }
    void ExpectFail(const LogRecord& reason)
    {
        EXPECT_EQ(VTCanBLIDriverWork(), 0u);
        log.ExpectExactly({reason, {1, 0, L"VTCanBLIDriverWork: VTFlt is wrong in the volume upper filters list."}});
        EXPECT_EQ(VTFltSimGetOpenCount(VTFLTSIM_OPEN_KEYS), 0u);
    }

    const LogRecord notFound{0, 0xFFFFFFFF, L"Error: not found [VTFlt] in the volume class upper filter."};
    const LogRecord isBefore{0, 0xFFFFFFFF,
                             L"Error: [VTFlt] is before [volsnap] in the volume class upper filter list."};
};

TEST_F(UpperFilterOrder, VolsnapThenTheDriverPasses)
{
    machine.SetFilters({L"volsnap", L"VTFlt"});
    ExpectPass();
}

TEST_F(UpperFilterOrder, TheDriverThenVolsnapFails)
{
    machine.SetFilters({L"VTFlt", L"volsnap"});
    ExpectFail(isBefore);
}

TEST_F(UpperFilterOrder, OtherFiltersAroundThemDoNotMatter)
{
    machine.SetFilters({L"one", L"volsnap", L"two", L"VTFlt", L"three"});
    ExpectPass();
    machine.SetFilters({L"one", L"VTFlt", L"two", L"volsnap"});
    ExpectFail(isBefore);
}

TEST_F(UpperFilterOrder, AListWithoutVolsnapPasses)
{
    machine.SetFilters({L"other", L"VTFlt"});
    ExpectPass();
}

TEST_F(UpperFilterOrder, AListWithoutTheDriverFails)
{
    machine.SetFilters({L"volsnap"});
    ExpectFail(notFound);
}

TEST_F(UpperFilterOrder, AnEmptyListFails)
{
    machine.SetFilters({});
    ExpectFail(notFound);
}

TEST_F(UpperFilterOrder, TheNamesAreComparedCaseSensitively)
{
    machine.SetFilters({L"volsnap", L"vtflt"});
    ExpectFail(notFound);
    log.Clear();
    machine.SetFilters({L"VTFlt", L"VOLSNAP"});
    ExpectPass();
}

TEST_F(UpperFilterOrder, ALongerNameIsNotTheDrivers)
{
    machine.SetFilters({L"volsnap", L"VTFlt2"});
    ExpectFail(notFound);
}

TEST_F(UpperFilterOrder, AClassKeyThatCannotBeOpenedPasses)
{
    machine.SetFilters({L"VTFlt", L"volsnap"});
    vtfltsim::FailCall(L"RegCreateKeyW", ERROR_ACCESS_DENIED, L"{71A27CDD-812A-11D0-BEC7-08002BE2092F}");
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    log.ExpectExactly({{0, 5,
                        L"Open key System\\CurrentControlSet\\Control\\Class\\{71A27CDD-812A-11D0-BEC7-08002BE2092F} "
                        L"failed in IsValueInEntry\n"}});
}

TEST_F(UpperFilterOrder, AMissingValueFailsWithItsSizesError)
{
    ASSERT_EQ(VTFltSimSetUpperFilters(machine.handle(), nullptr, nullptr), 0u);
    ExpectFail({0, 2, L"Error: failed to registry key [UpperFilters], rc:2."});
}

TEST_F(UpperFilterOrder, ASizeThatCannotBeQueriedFails)
{
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, UPPER_FILTERS);
    ExpectFail({0, 5, L"Error: failed to registry key [UpperFilters], rc:5."});
}

TEST_F(UpperFilterOrder, DataThatCannotBeQueriedFailsWithTheCodeInTheRecordAndTheNameAsTheArgument)
{
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_KEY_DELETED, UPPER_FILTERS, 2);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    if (!LogCapture::VISIBLE)
        return;
    ASSERT_EQ(log.Records().size(), 2u);
    const LogRecord& record = log.Records()[0];
    EXPECT_EQ(record.level, 0);
    EXPECT_EQ(record.code, 1018u);
    // A text's address printed as a number: only the words before it are known.
    EXPECT_EQ(record.text.rfind(L"Error: failed to query volume upper filter list. rc: ", 0), 0u)
        << Narrow(record.text);
    EXPECT_TRUE(record.text != L"Error: failed to query volume upper filter list. rc: 1018.");
}

TEST_F(UpperFilterOrder, MemoryThatCannotBeHadForTheListFails)
{
    bool refused = false;
    const auto check = [&](DWORD result) {
        if (result != 0)
            return;
        refused = true;
        // {volsnap, VTFlt}: 8 + 6 units and the final one.
        log.ExpectLogged(0, 8, L"Error: allocate memory 30 bytes failed in IsValueIsMutliSZRegistry.");
    };
    ForEveryFailingAllocation([&] { log.Clear(); }, VTCanBLIDriverWork, check);
    EXPECT_TRUE(refused);
}

TEST_F(UpperFilterOrder, AListStoredWithoutItsEndIsReadWithinItsBytes)
{
    // "volsnap", NUL, "VTFlt" and nothing behind: the end that the match needs is added by the reader.
    const std::wstring text = L"volsnap";
    Bytes bytes = TextBytes(text);
    const Bytes driver = TextBytes(L"VTFlt");
    bytes.insert(bytes.end(), driver.begin(), driver.end() - 2);
    machine.WriteValue(VOLUME_CLASS, UPPER_FILTERS, REG_MULTI_SZ, bytes);
    ExpectPass();
}

TEST_F(UpperFilterOrder, AListThatBecomesShorterBetweenItsSizeAndItsReadingIsReadAsItIsThen)
{
    machine.SetFilters({L"volsnap", L"VTFlt", L"a filter that is about to go"});
    ASSERT_EQ(VTFltSimCallBefore(
                  L"RegQueryValueExW", UPPER_FILTERS, 2, 1,
                  [](void* context, LPCWSTR, LPCWSTR) {
                      static_cast<vtfltsim::SimMachine*>(context)->SetFilters({L"volsnap"});
                  },
                  &machine),
              0u);
    ExpectFail(notFound);
}

} // namespace
} // namespace vttest
