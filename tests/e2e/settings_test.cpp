// Setter rules: what is stored, what is clamped, what is refused.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "e2e_support.h"

namespace {

class Settings : public e2e::SimTest {
protected:
    int32_t h = -1;
    void SetUp() override { h = AttachAndOpen(30000201); }
};

TEST_F(Settings, ReferenceLevelHasOnlyAnUpperBound) {
    double v = 0;
    EXPECT_EQ(lxSetRefLevel(h, -200.0), lxNoError);
    EXPECT_EQ(lxGetRefLevel(h, &v), lxNoError);
    EXPECT_EQ(v, -200.0);
    EXPECT_EQ(lxSetRefLevel(h, 25.0), lxSettingClamped);
    EXPECT_EQ(lxGetRefLevel(h, &v), lxNoError);
    EXPECT_EQ(v, 20.0);
    EXPECT_EQ(lxSetRefLevel(h, std::nan("")), lxInvalidParameterErr);
    EXPECT_EQ(lxGetRefLevel(h, &v), lxNoError);
    EXPECT_EQ(v, 20.0);
    EXPECT_EQ(lxGetRefLevel(h, nullptr), lxNullPtrErr);
}

TEST_F(Settings, AttenuatorClampsToAutomaticAndSix) {
    const struct {
        int32_t in, stored;
        LxStatus status;
    } cases[] = {{-5, -1, lxSettingClamped}, {-1, -1, lxNoError}, {0, 0, lxNoError},
                 {6, 6, lxNoError},          {7, 6, lxSettingClamped}, {INT32_MIN, -1, lxSettingClamped}};
    for (const auto& c : cases) {
        EXPECT_EQ(lxSetAttenuator(h, c.in), c.status) << c.in;
        int32_t v = 99;
        EXPECT_EQ(lxGetAttenuator(h, &v), lxNoError);
        EXPECT_EQ(v, c.stored) << c.in;
    }
}

TEST_F(Settings, SweepSpanRules) {
    EXPECT_EQ(lxSetSweepStartStop(h, 1e9, 1e9), lxInvalidParameterErr);
    EXPECT_EQ(lxSetSweepStartStop(h, 2e9, 1e9), lxInvalidParameterErr);
    EXPECT_EQ(lxSetSweepCenterSpan(h, 1e9, 0), lxInvalidParameterErr);
    EXPECT_EQ(lxSetSweepCenterSpan(h, 1e9, -1e6), lxInvalidParameterErr);
    EXPECT_EQ(lxSetSweepStartStop(h, std::nan(""), 1e9), lxInvalidParameterErr);
    EXPECT_EQ(lxSetSweepStartStop(h, 1000, 2e10), lxSettingClamped);
    EXPECT_EQ(lxSetSweepStartStop(h, 1e6, 2e6), lxNoError);
    EXPECT_EQ(lxSetSweepCenterSpan(h, 100e6, 20e6), lxNoError);
}

TEST_F(Settings, CouplingLimitsVbwAndSweepTime) {
    EXPECT_EQ(lxSetSweepCoupling(h, 10000, 0.5, 1e-3), lxSettingClamped);  // VBW up to RBW/10000
    EXPECT_EQ(lxSetSweepCoupling(h, 10000, 20000, 1e-3), lxSettingClamped); // VBW down to RBW
    EXPECT_EQ(lxSetSweepCoupling(h, 10000, 1000, 0), lxSettingClamped);     // 1 us
    EXPECT_EQ(lxSetSweepCoupling(h, 10000, 1000, 1000), lxSettingClamped);  // 100 s
    EXPECT_EQ(lxSetSweepCoupling(h, 10000, 1000, 0.5), lxNoError);
    EXPECT_EQ(lxSetSweepCoupling(h, 0, 1000, 0.5), lxInvalidParameterErr);
    EXPECT_EQ(lxSetSweepCoupling(h, 10000, std::nan(""), 0.5), lxInvalidParameterErr);
}

TEST_F(Settings, EnumeratedSettingsRefuseOutOfRange) {
    const struct {
        const char* what;
        LxStatus (*call)(int32_t, int32_t);
        int32_t lo, hi;
    } cases[] = {
        {"scale", [](int32_t hd, int32_t v) { return lxSetSweepScale(hd, v); }, 0, 2},
        {"window", [](int32_t hd, int32_t v) { return lxSetSweepWindow(hd, v); }, 0, 5},
        {"detector", [](int32_t hd, int32_t v) { return lxSetSweepDetector(hd, v, 0); }, 0, 1},
        {"units", [](int32_t hd, int32_t v) { return lxSetSweepDetector(hd, 0, v); }, 0, 3},
    };
    for (const auto& c : cases) {
        for (int32_t v = c.lo; v <= c.hi; ++v) EXPECT_EQ(c.call(h, v), lxNoError) << c.what << v;
        EXPECT_EQ(c.call(h, c.lo - 1), lxInvalidParameterErr) << c.what;
        EXPECT_EQ(c.call(h, c.hi + 1), lxInvalidParameterErr) << c.what;
    }
}

TEST_F(Settings, GpioSwitchingListAndItsNullRules) {
    const uint64_t f[] = {3000000000ull, 1000000000ull};
    const uint8_t v[] = {3, 1};
    EXPECT_EQ(lxSetSweepGPIOSwitching(h, nullptr, nullptr, 0), lxNoError);
    EXPECT_EQ(lxSetSweepGPIOSwitching(h, f, nullptr, 2), lxNullPtrErr);
    EXPECT_EQ(lxSetSweepGPIOSwitching(h, nullptr, v, 2), lxNullPtrErr);
    EXPECT_EQ(lxSetSweepGPIOSwitching(h, f, v, 2), lxNoError);
    uint32_t port = 0;
    EXPECT_EQ(lxGetGPIOPort(h, &port), lxNoError);
    EXPECT_EQ(port, 5u);
    EXPECT_EQ(lxSetSweepGPIOSwitchingDisabled(h), lxNoError);
}

TEST_F(Settings, SettingsSurviveAbortAndFailedConfigure) {
    ASSERT_EQ(lxSetRefLevel(h, -7.5), lxNoError);
    ASSERT_EQ(lxSetAttenuator(h, 3), lxNoError);
    lxConfigure(h, 4);
    lxAbort(h);
    double r = 0;
    int32_t a = 0;
    EXPECT_EQ(lxGetRefLevel(h, &r), lxNoError);
    EXPECT_EQ(lxGetAttenuator(h, &a), lxNoError);
    EXPECT_EQ(r, -7.5);
    EXPECT_EQ(a, 3);
}

} // namespace
