// What a program that crashes leaves: the text of its run, for ./dev sim --replay.
#include "proof/current_run.h"

#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>

// These tests fork, which the thread sanitizer does not follow.
#if !defined(__SANITIZE_THREAD__)

namespace vtproof {
namespace {

constexpr char TEXT[] = "register 0; backup 0 0";

TEST(CurrentRunDeathTest, AnAbortTellsWhatWasRunning)
{
    EXPECT_DEATH(
        {
            const CurrentRun current(TEXT);
            std::abort();
        },
        "broken: a crash\nregister 0; backup 0 0");
}

// Without sanitizers a signal says so, with them they do.
TEST(CurrentRunDeathTest, AnAccessOutsideOfAnythingTellsWhatWasRunning)
{
    EXPECT_DEATH(
        {
            const CurrentRun current(TEXT);
            volatile char* const nowhere = reinterpret_cast<volatile char*>(std::uintptr_t{64});
            *nowhere = 1;
        },
        "broken: a crash\nregister 0; backup 0 0");
}

#if defined(__SANITIZE_ADDRESS__)
TEST(CurrentRunDeathTest, AnAccessBehindAPieceOfMemoryTellsWhatWasRunning)
{
    EXPECT_DEATH(
        {
            const CurrentRun current(TEXT);
            const std::unique_ptr<volatile char[]> piece(new volatile char[8]);
            piece[8] = 1;
        },
        "broken: a crash\nregister 0; backup 0 0");
}
#endif

TEST(CurrentRunDeathTest, BehindTheRunNothingIsTold)
{
    EXPECT_DEATH(
        {
            {
                const CurrentRun current(TEXT);
            }
            std::abort();
        },
        "broken: a crash\n\n");
}

} // namespace
} // namespace vtproof

#endif
