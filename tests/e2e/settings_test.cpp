// Setter rules, one table: what is stored, what is clamped, what is refused
// for its value (NaN, enumerations one past their range and null pointers:
// tests/e2e/bad_input_test.cpp).
#include <gtest/gtest.h>

#include <climits>
#include <functional>

#include "e2e_support.h"

namespace {

class Settings : public e2e::SimTest {
protected:
    int32_t h = -1;
    void SetUp() override { h = AttachAndOpen(30000201); }
};

double RefLevel(int32_t h) {
    double v = 0;
    EXPECT_EQ(lxGetRefLevel(h, &v), lxNoError);
    return v;
}
double Port(int32_t h) {
    uint32_t v = 99;
    EXPECT_EQ(lxGetGPIOPort(h, &v), lxNoError);
    return v;
}
const uint64_t kF[] = {3000000000ull, 1000000000ull};
const uint8_t kV[] = {3, 1};
double Atten(int32_t h) {
    int32_t v = 99;
    EXPECT_EQ(lxGetAttenuator(h, &v), lxNoError);
    return v;
}

TEST_F(Settings, StoredClampedOrRefused) {
    const struct {
        const char* what;
        std::function<LxStatus(int32_t)> set;
        LxStatus status;
        std::function<double(int32_t)> get; // what is stored afterwards (null: nothing to read)
        double stored;
    } cases[] = {
        {"ref level has no lower bound", [](int32_t h) { return lxSetRefLevel(h, -200.0); }, lxNoError, RefLevel, -200},
        {"ref level up to +20", [](int32_t h) { return lxSetRefLevel(h, 25.0); }, lxSettingClamped, RefLevel, 20},
        {"atten below -1", [](int32_t h) { return lxSetAttenuator(h, -5); }, lxSettingClamped, Atten, -1},
        {"atten 0", [](int32_t h) { return lxSetAttenuator(h, 0); }, lxNoError, Atten, 0},
        {"atten 6", [](int32_t h) { return lxSetAttenuator(h, 6); }, lxNoError, Atten, 6},
        {"atten above 6", [](int32_t h) { return lxSetAttenuator(h, 7); }, lxSettingClamped, Atten, 6},
        {"atten INT32_MIN", [](int32_t h) { return lxSetAttenuator(h, INT32_MIN); }, lxSettingClamped, Atten, -1},
        {"empty span", [](int32_t h) { return lxSetSweepStartStop(h, 1e9, 1e9); }, lxInvalidParameterErr, {}, 0},
        {"reversed span", [](int32_t h) { return lxSetSweepStartStop(h, 2e9, 1e9); }, lxInvalidParameterErr, {}, 0},
        {"zero span", [](int32_t h) { return lxSetSweepCenterSpan(h, 1e9, 0); }, lxInvalidParameterErr, {}, 0},
        {"negative span", [](int32_t h) { return lxSetSweepCenterSpan(h, 1e9, -1e6); }, lxInvalidParameterErr, {}, 0},
        {"span beyond the range", [](int32_t h) { return lxSetSweepStartStop(h, 1000, 2e10); }, lxSettingClamped, {}, 0},
        {"VBW up to RBW / 10000", [](int32_t h) { return lxSetSweepCoupling(h, 1e4, 0.5, 1e-3); }, lxSettingClamped, {}, 0},
        {"VBW down to RBW", [](int32_t h) { return lxSetSweepCoupling(h, 1e4, 2e4, 1e-3); }, lxSettingClamped, {}, 0},
        {"sweep time from 1 us", [](int32_t h) { return lxSetSweepCoupling(h, 1e4, 1e3, 0); }, lxSettingClamped, {}, 0},
        {"sweep time to 100 s", [](int32_t h) { return lxSetSweepCoupling(h, 1e4, 1e3, 1e3); }, lxSettingClamped, {}, 0},
        {"zero RBW", [](int32_t h) { return lxSetSweepCoupling(h, 0, 1e3, 0.5); }, lxInvalidParameterErr, {}, 0},
        {"GPIO list without values", [](int32_t h) { return lxSetSweepGPIOSwitching(h, kF, nullptr, 2); }, lxNullPtrErr, {}, 0},
        {"GPIO list sets the port to output", [](int32_t h) { return lxSetSweepGPIOSwitching(h, kF, kV, 2); }, lxNoError, Port, 5},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.set(h), c.status) << c.what;
        if (c.get) {
            EXPECT_EQ(c.get(h), c.stored) << c.what;
        }
    }
    // The last valid value of each enumerated setting is taken.
    EXPECT_EQ(lxSetSweepScale(h, 2), lxNoError);
    EXPECT_EQ(lxSetSweepWindow(h, 5), lxNoError);
    EXPECT_EQ(lxSetSweepDetector(h, 1, 3), lxNoError);
}

TEST_F(Settings, SettingsSurviveAbortAndFailedConfigure) {
    ASSERT_EQ(lxSetRefLevel(h, -7.5), lxNoError);
    ASSERT_EQ(lxSetAttenuator(h, 3), lxNoError);
    lxConfigure(h, 4);
    lxAbort(h);
    EXPECT_EQ(RefLevel(h), -7.5);
    EXPECT_EQ(Atten(h), 3);
}

} // namespace
