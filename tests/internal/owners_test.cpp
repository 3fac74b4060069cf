// The owners of the system's resources, where their users do not go.
#include "win/owners.h"

#include <gtest/gtest.h>
#include <utility>

namespace {

using vtflt::UniqueHandle;

UniqueHandle MakeEvent()
{
    return UniqueHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

TEST(Owners, MovedToItselfKeepsWhatItOwns)
{
    UniqueHandle event = MakeEvent();
    const HANDLE handle = event.get();
    UniqueHandle& same = event;
    event = std::move(same);
    EXPECT_EQ(event.get(), handle);
    EXPECT_TRUE(SetEvent(event.get()));
}

TEST(Owners, MovedOverClosesWhatItOwnedAndKeepsTheLastError)
{
    UniqueHandle event = MakeEvent();
    const HANDLE old = event.get();
    UniqueHandle other = MakeEvent();
    const HANDLE handle = other.get();
    SetLastError(1234);
    event = std::move(other);
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(event.get(), handle);
    EXPECT_NE(event.get(), old);
    EXPECT_FALSE(SetEvent(old));
}

TEST(Owners, TheAddressForAResultIsThatOfNothingAndWhatWasOwnedIsClosed)
{
    UniqueHandle event = MakeEvent();
    const HANDLE old = event.get();
    HANDLE* const place = event.put();
    EXPECT_EQ(*place, nullptr);
    EXPECT_FALSE(SetEvent(old));
    *place = MakeEvent().release();
    EXPECT_TRUE(SetEvent(event.get()));
}

} // namespace
