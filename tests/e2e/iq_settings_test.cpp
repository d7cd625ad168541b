// I/Q settings and the checks of the I/Q calls: what is refused stores
// nothing (seen through the configured stream's figures), what is clamped
// says so, and the calls that need a stream refuse without one.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::SimTest;

class IqSettings : public SimTest {
protected:
    static constexpr int32_t kSerial = 42000002;
    int32_t h = -1;
    void SetUp() override { h = AttachAndOpen(kSerial, R"({"pacing": "realtime"})"); }

    struct Figures { double rate = 0, bandwidth = 0; };
    Figures Configured() {
        Figures f;
        EXPECT_EQ(lxConfigure(h, lxModeIQ), lxNoError);
        EXPECT_EQ(lxGetIQParameters(h, &f.rate, &f.bandwidth), lxNoError);
        return f;
    }
};

// Refused values return lxInvalidParameterErr and leave the previous setting
// (decimation 8, bandwidth 1 MHz) in force. (NaN, enumerations and handles:
// tests/e2e/bad_input_test.cpp.)
TEST_F(IqSettings, RefusedValuesChangeNothing) {
    ASSERT_EQ(lxSetIQSampleRate(h, 8), lxNoError);
    ASSERT_EQ(lxSetIQBandwidth(h, 1e6), lxNoError);
    const std::vector<std::function<LxStatus()>> refused = {
        [&] { return lxSetIQSampleRate(h, 0); },      [&] { return lxSetIQSampleRate(h, 3); },
        [&] { return lxSetIQSampleRate(h, 16384); },  [&] { return lxSetIQSampleRate(h, -8); },
        [&] { return lxSetIQSoftwareFilter(h, 2); },  [&] { return lxSetIQExtTriggerEdge(h, 2); },
        [&] { return lxSetIQExtTriggerEdge(h, -1); },
    };
    for (size_t i = 0; i < refused.size(); ++i) EXPECT_EQ(refused[i](), lxInvalidParameterErr) << i;
    const Figures f = Configured();
    EXPECT_EQ(f.rate, 61.44e6 / 8);
    EXPECT_EQ(f.bandwidth, 1e6);
}

// The bandwidth is limited at configure to 1 kHz .. 41.5 MHz at D = 1 and
// 1 kHz .. 50 MHz / D above; every power of two up to 8192 is a rate.
TEST_F(IqSettings, RateAndBandwidthLimits) {
    struct Case { int32_t D; double set, want; };
    const Case cases[] = {{1, 1e9, 41.5e6}, {1, 10, 1000},      {2, 1e9, 25e6},      {4, 3e6, 3e6},
                          {8, 4e7, 6.25e6}, {128, 1e9, 390625}, {8192, 1e9, 5e7 / 8192}, {8192, 100, 1000}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "D " << c.D << " bandwidth " << c.set);
        ASSERT_EQ(lxSetIQSampleRate(h, c.D), lxNoError);
        ASSERT_EQ(lxSetIQBandwidth(h, c.set), lxNoError);
        const Figures f = Configured();
        EXPECT_EQ(f.rate, 61.44e6 / c.D);
        EXPECT_DOUBLE_EQ(f.bandwidth, c.want);
    }
}

TEST_F(IqSettings, QueueSizeIsClamped) {
    const std::pair<int32_t, LxStatus> cases[] = {
        {1, lxSettingClamped}, {-5, lxSettingClamped}, {2, lxNoError}, {16, lxNoError}, {17, lxSettingClamped}};
    for (const auto& [k, want] : cases) EXPECT_EQ(lxSetIQQueueSize(h, k), want) << k;
}

// Without a stream the result calls refuse; with one, a count of 0 is refused
// and the health counters count what was delivered.
TEST_F(IqSettings, CallChecks) {
    float buf[8] = {};
    float corr = 0;
    double rate = 0;
    LxStreamHealth health{};
    EXPECT_EQ(lxGetIQ(h, buf, 4, nullptr, 0, nullptr, 0, nullptr, nullptr), lxInvalidConfigurationErr);
    EXPECT_EQ(lxGetIQCorrection(h, &corr), lxInvalidConfigurationErr);
    EXPECT_EQ(lxGetIQParameters(h, &rate, nullptr), lxInvalidConfigurationErr);
    ASSERT_EQ(lxSetIQSampleRate(h, 64), lxNoError);
    ASSERT_EQ(lxConfigure(h, lxModeIQ), lxNoError);
    EXPECT_EQ(lxGetIQ(h, buf, 0, nullptr, 0, nullptr, 0, nullptr, nullptr), lxInvalidParameterErr);
    // Data, possibly with a warning (a paced stream on a busy machine may overrun).
    EXPECT_GE(lxGetIQ(h, buf, 4, nullptr, 0, nullptr, 0, nullptr, nullptr), lxNoError);
    ASSERT_EQ(lxGetStreamHealth(h, &health), lxNoError);
    EXPECT_EQ(health.samplesDelivered, 4u);
    // A new configure starts the counters again.
    ASSERT_EQ(lxConfigure(h, lxModeIQ), lxNoError);
    ASSERT_EQ(lxGetStreamHealth(h, &health), lxNoError);
    EXPECT_EQ(health.samplesDelivered, 0u);
    EXPECT_EQ(lxAbort(h), lxNoError);
    EXPECT_EQ(lxGetIQ(h, buf, 4, nullptr, 0, nullptr, 0, nullptr, nullptr), lxInvalidConfigurationErr);
}

} // namespace
