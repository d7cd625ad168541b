#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "common/lx_assert.h"

namespace {

TEST(Assertion, ReportsExpressionTextAndModuleAndCarriesOn) {
    int after = 0;
    {
        lx::AssertionCapture cap;
        int n = 3;
        LX_ASSERT(n % 2 == 0, "src/dsp");
        after = 1; // execution goes on past a failed check
        LX_ASSERT(n == 3, "src/dsp");
        ASSERT_EQ(cap.count(), 1u);
        EXPECT_EQ(cap.reports()[0].expression, "n % 2 == 0");
        EXPECT_EQ(cap.reports()[0].module, "src/dsp");
        EXPECT_FALSE(cap.saw("n % 2 == 0", "src/lx_command"));
    }
    EXPECT_EQ(after, 1);
}

TEST(Assertion, PrintsWhenNotCaptured) {
    testing::internal::CaptureStderr();
    LX_ASSERT(false, "src/lx_lib");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "Assertion failed: false (src/lx_lib)\n");
}

TEST(Assertion, NestedCaptureTakesReportsAndOuterResumesAfter) {
    lx::AssertionCapture outer;
    {
        lx::AssertionCapture inner;
        LX_ASSERT(1 == 2, "a");
        EXPECT_EQ(inner.count(), 1u);
    }
    EXPECT_EQ(outer.count(), 0u);
    LX_ASSERT(1 == 2, "b");
    EXPECT_EQ(outer.count(), 1u);
}

TEST(Assertion, ConcurrentReportsAreAllKept) {
    lx::AssertionCapture cap;
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; ++t)
        ts.emplace_back([] {
            for (int i = 0; i < 250; ++i) LX_ASSERT(i < 0, "src/threaded_deque");
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(cap.count(), 1000u);
}

} // namespace
