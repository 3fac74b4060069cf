// Part of every program of tests on the double: what a case opened and did not close fails the case.
#include "double/control.h"

#include <gtest/gtest.h>

namespace {

class LeakListener final : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { m_before = DoubleCountOpen(); }
    void OnTestEnd(const testing::TestInfo& test) override
    {
        const DoubleOpen now = DoubleCountOpen();
        const bool same = now.handles == m_before.handles && now.keys == m_before.keys && now.views == m_before.views &&
                          now.ownedMutexes == m_before.ownedMutexes;
        if (!same)
            DoubleListOpen();
        EXPECT_EQ(now.handles, m_before.handles) << "handles left open by " << test.name();
        EXPECT_EQ(now.keys, m_before.keys) << "keys left open by " << test.name();
        EXPECT_EQ(now.views, m_before.views) << "views left mapped by " << test.name();
        EXPECT_EQ(now.ownedMutexes, m_before.ownedMutexes) << "mutexes left owned by " << test.name();
    }

    DoubleOpen m_before = {};
};

const bool g_listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new LeakListener());
    return true;
}();

} // namespace
