// Memory that runs out behind the exports, where only the library's own sizes and functions find the place.
#include "api/library.h"
#include "apps/resync_lists.h"
#include "bitmap/container.h"
#include "registry/multi_string_value.h"
#include "support/driver_expect.h"

namespace vttest {
namespace {

class ShortMemory : public MachineTest {
protected:
    Volume volume = machine.AddVolume(8 * 65536);
};

TEST_F(ShortMemory, AVerifyQueryWithoutAContainerCannotLookAtTheFilesAndAnswersNo)
{
    vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, WideNumber(sizeof(vtflt::CBitmapContainer)).c_str());
    EXPECT_EQ(vtflt::IsVerifyRequired(L"app1", volume.Root()), 0u);
    EXPECT_EQ(VTFltSimGetCallFaultHits(), 1u);
    VTFltSimClearCallFaults();
    log.ExpectExactly({{0, 8, L"IsVerifyRequired: pTempContainer is NULL!!"}}, 1);
    ExpectNothingLeftOpen();
    // The files are missing, which is what a query with memory says.
    EXPECT_EQ(vtflt::IsVerifyRequired(L"app1", volume.Root()), 1u);
}

TEST_F(ShortMemory, AnEntryThatCouldNotBeAddedIsNeverASuccessWhateverTheAllocationLeftAsError)
{
    SetList(L"SOFTWARE\\List", L"Entries", {L"An entry that is there"});
    log.SetThreshold(0);
    bool refused = false;
    for (DWORD nth = 1;; ++nth) {
        vtfltsim::Check("VTFltSimFailCall", VTFltSimFailCall(L"malloc", nullptr, nth, 1, ERROR_SUCCESS));
        const DWORD result = vtflt::Guarded(
            [] { return vtflt::AddMultiSZRegistryEntry(L"SOFTWARE\\List", L"Entries", L"A second entry"); });
        const bool struck = VTFltSimGetCallFaultHits() != 0;
        VTFltSimClearCallFaults();
        ExpectNothingLeftOpen();
        const std::size_t stored = List(L"SOFTWARE\\List", L"Entries").size();
        if (!struck) {
            EXPECT_EQ(result, 0u);
            EXPECT_EQ(stored, 2u);
            break;
        }
        refused = refused || result != 0;
        EXPECT_TRUE(result == 8 || stored == 2) << nth;
    }
    EXPECT_TRUE(refused);
}

} // namespace
} // namespace vttest
