// Real-time setter rules and the figures of the real-time set-up: what is
// clamped, what is refused, what the window and span make of the FFT, and
// the refusal of frame reads outside mode 2.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "e2e_support.h"

namespace {

class RealTimeSettings : public e2e::SimTest {
protected:
    int32_t h = -1;
    void SetUp() override { h = AttachAndOpen(30000301); }
};

TEST_F(RealTimeSettings, NumbersClampAndNaNIsRefused) {
    const double nan = std::nan("");
    const struct {
        double centre, span;
        LxStatus status;
    } spans[] = {{1e9, 4e7, lxNoError},       {1e9, 2e5, lxNoError},       {1e9, 1e5, lxSettingClamped},
                 {1e9, 5e7, lxSettingClamped}, {1e3, 1e6, lxSettingClamped}, {2e10, 1e6, lxSettingClamped},
                 {nan, 1e6, lxInvalidParameterErr}, {1e9, nan, lxInvalidParameterErr}};
    for (const auto& c : spans)
        EXPECT_EQ(lxSetRealTimeCenterSpan(h, c.centre, c.span), c.status) << c.centre << " " << c.span;
    const struct {
        double rbw;
        LxStatus status;
    } rbws[] = {{2000, lxNoError}, {1e6, lxNoError}, {1999, lxSettingClamped}, {2e6, lxSettingClamped},
                {-1, lxSettingClamped}, {nan, lxInvalidParameterErr}};
    for (const auto& c : rbws) EXPECT_EQ(lxSetRealTimeRBW(h, c.rbw), c.status) << c.rbw;
    EXPECT_EQ(lxSetRealTimeScale(h, 0, -200.0, 1000.0), lxNoError); // levels are stored as given
    EXPECT_EQ(lxSetRealTimeScale(h, 0, nan, 100.0), lxInvalidParameterErr);
    EXPECT_EQ(lxSetRealTimeScale(h, 0, 0.0, nan), lxInvalidParameterErr);
    EXPECT_EQ(lxSetRealTimeRBW(9, 1e4), lxInvalidDeviceErr);
}

TEST_F(RealTimeSettings, EnumeratedSettingsRefuseOutOfRange) {
    const struct {
        const char* what;
        LxStatus (*call)(int32_t, int32_t);
        int32_t lo, hi;
    } cases[] = {
        {"detector", [](int32_t hd, int32_t v) { return lxSetRealTimeDetector(hd, v); }, 0, 1},
        {"window", [](int32_t hd, int32_t v) { return lxSetRealTimeWindow(hd, v); }, 0, 5},
        {"scale", [](int32_t hd, int32_t v) { return lxSetRealTimeScale(hd, v, 0.0, 100.0); }, 0, 2},
    };
    for (const auto& c : cases) {
        for (int32_t v = c.lo; v <= c.hi; ++v) EXPECT_EQ(c.call(h, v), lxNoError) << c.what << v;
        EXPECT_EQ(c.call(h, c.lo - 1), lxInvalidParameterErr) << c.what;
        EXPECT_EQ(c.call(h, c.hi + 1), lxInvalidParameterErr) << c.what;
    }
}

// RBW -> window length -> FFT size, the span's bins and their halving, and
// the probability-of-intercept time, for settings at and beyond the limits.
TEST_F(RealTimeSettings, SetUpFiguresFollowTheWindowAndTheSpan) {
    const struct {
        double span, rbw;
        int32_t window;
        double actualRbw;
        int32_t fft, width, decimation;
    } cases[] = {
        // flat-top at 2 kHz: 115,820 points, clamped to 65,536 with no padding
        {4e7, 1999, 0, 3.7702 * 61.44e6 / 65536, 65536, 666, 64},
        // rectangular at 1 MHz: 60 points, raised to 128
        {4e7, 2e6, 5, 61.44e6 / 128, 128, 85, 1},
        // Nuttall at 30 kHz: 4138 points in 8192; 5335 bins halve three times
        {4e7, 30e3, 1, 2.0212 * 61.44e6 / 4138, 8192, 666, 8},
        // Hamming at 100 kHz, 1 MHz span: 836 points in 1024, 19 bins
        {1e6, 100e3, 3, 1.3628 * 61.44e6 / 836, 1024, 19, 1},
        // Hamming at 2 kHz: 41,864 points in 65,536 (937.5 Hz bins); 1023 bins
        // stay, 1024 halve
        {1021 * 937.5, 2e3, 3, 1.3628 * 61.44e6 / 41864, 65536, 1023, 1},
        {1022 * 937.5, 2e3, 3, 1.3628 * 61.44e6 / 41864, 65536, 512, 2},
    };
    for (const auto& c : cases) {
        lxSetRealTimeCenterSpan(h, 2.4e9, c.span);
        lxSetRealTimeRBW(h, c.rbw);
        ASSERT_EQ(lxSetRealTimeWindow(h, c.window), lxNoError);
        ASSERT_EQ(lxConfigure(h, 2), lxNoError) << c.rbw;
        double rbw = 0, start = 0, bin = 0, poi = 0;
        int32_t length = 0, width = 0, height = 0;
        ASSERT_EQ(lxGetRealTimeParameters(h, &rbw, &length, &start, &bin, &width, &height, &poi), lxNoError);
        EXPECT_NEAR(rbw, c.actualRbw, 1e-9 * c.actualRbw) << c.rbw;
        EXPECT_DOUBLE_EQ(bin, 61.44e6 / c.fft) << c.rbw;
        EXPECT_DOUBLE_EQ(poi, 1.5 * c.fft / 61.44e6) << c.rbw;
        EXPECT_EQ(width, c.width) << c.rbw;
        EXPECT_EQ(length, c.width * c.decimation) << c.rbw;
        EXPECT_EQ(height, 256);
        // The trace starts at or just below the requested start and reaches the stop.
        EXPECT_LE(start, 2.4e9 - c.span / 2 + 1e-3) << c.rbw;
        EXPECT_GT(start, 2.4e9 - c.span / 2 - (c.decimation + 1) * bin) << c.rbw;
        EXPECT_GE(start + (length - 1) * bin, 2.4e9 + c.span / 2 - 2 * c.decimation * bin) << c.rbw;
        EXPECT_EQ(lxGetRealTimeParameters(h, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                  lxNoError);
    }
}

TEST_F(RealTimeSettings, FramesAndFiguresOnlyInModeTwo) {
    float trace[16];
    int32_t count = 7;
    uint64_t stamp = 7;
    double rbw = 0;
    EXPECT_EQ(lxGetRealTimeFrame(h, nullptr, nullptr, trace, trace, &count, &stamp), lxInvalidConfigurationErr);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(stamp, 0u);
    EXPECT_EQ(lxGetRealTimeParameters(h, &rbw, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
              lxInvalidConfigurationErr);
    ASSERT_EQ(lxSetSweepStartStop(h, 1e9, 1.1e9), lxNoError);
    ASSERT_EQ(lxConfigure(h, 1), lxNoError);
    EXPECT_EQ(lxGetRealTimeFrame(h, nullptr, nullptr, nullptr, nullptr, &count, nullptr), lxInvalidConfigurationErr);
    ASSERT_EQ(lxConfigure(h, 2), lxNoError);
    EXPECT_EQ(lxGetSweep(h, nullptr, nullptr, nullptr), lxInvalidConfigurationErr);
    EXPECT_EQ(lxGetRealTimeFrame(h, nullptr, nullptr, nullptr, nullptr, &count, &stamp), lxNoError);
    EXPECT_EQ(count, 0);
    EXPECT_GT(stamp, 1700000000ull * 1000000000ull);
    EXPECT_EQ(lxSetPowerState(h, 1), lxInvalidConfigurationErr); // the stream owns the analyzer
    EXPECT_EQ(lxAbort(h), lxNoError);
    EXPECT_EQ(lxGetRealTimeFrame(h, nullptr, nullptr, nullptr, nullptr, &count, &stamp), lxInvalidConfigurationErr);
}

} // namespace
