// Setter rules: what is stored, clamped or refused for its value (NaN,
// enumerations and null pointers: bad_input_test.cpp); the calls that need a
// mode; the I/Q rate and bandwidth limits.

#include <functional>
#include <vector>

#include "e2e_support.h"

namespace {

class Settings : public e2e::SimTest {
protected:
    void SetUp() override { Open(30000201, R"({"pacing": "realtime"})"); }
};

double RefLevel(int32_t h) { return Get(lxGetRefLevel, h); }
double Atten(int32_t h) { return Get(lxGetAttenuator, h); }
double Port(int32_t h) { return Get(lxGetGPIOPort, h); }
double FanSetPoint(int32_t h) {
    float sp = -1, fan = -1;
    EXPECT_EQ(lxGetFanSettings(h, &sp, &fan), lxNoError);
    EXPECT_GE(fan, 0.0f);
    return sp;
}
template <int K>
double Audio(int32_t h) { // centre, IF bandwidth, low-pass, high-pass, de-emphasis
    double v[5] = {};
    int32_t type = -1;
    EXPECT_EQ(lxGetAudioSettings(h, &v[0], &type, &v[1], &v[2], &v[3], &v[4]), lxNoError);
    return v[K];
}
const uint64_t kF[] = {3000000000ull, 1000000000ull};
const uint8_t kV[] = {3, 1};

TEST_F(Settings, StoredClampedOrRefused) {
    using Set = std::function<LxStatus(int32_t)>;
    const struct { const char* what; Set set; LxStatus status; double (*get)(int32_t); double stored; } cases[] = {
        {"ref level has no lower bound", [](int32_t h) { return lxSetRefLevel(h, -200.0); }, lxNoError, RefLevel, -200},
        {"ref level up to +20", [](int32_t h) { return lxSetRefLevel(h, 25.0); }, lxSettingClamped, RefLevel, 20},
        {"atten below -1", [](int32_t h) { return lxSetAttenuator(h, -5); }, lxSettingClamped, Atten, -1},
        {"atten above 6", [](int32_t h) { return lxSetAttenuator(h, 7); }, lxSettingClamped, Atten, 6},
        {"empty span", [](int32_t h) { return lxSetSweepStartStop(h, 1e9, 1e9); }, lxInvalidParameterErr, {}, 0},
        {"zero span", [](int32_t h) { return lxSetSweepCenterSpan(h, 1e9, 0); }, lxInvalidParameterErr, {}, 0},
        {"span beyond the range", [](int32_t h) { return lxSetSweepStartStop(h, 1000, 2e10); }, lxSettingClamped, {}, 0},
        {"VBW up to RBW / 10000", [](int32_t h) { return lxSetSweepCoupling(h, 1e4, 0.5, 1e-3); }, lxSettingClamped, {}, 0},
        {"VBW down to RBW", [](int32_t h) { return lxSetSweepCoupling(h, 1e4, 2e4, 1e-3); }, lxSettingClamped, {}, 0},
        {"sweep time from 1 us", [](int32_t h) { return lxSetSweepCoupling(h, 1e4, 1e3, 0); }, lxSettingClamped, {}, 0},
        {"sweep time to 100 s", [](int32_t h) { return lxSetSweepCoupling(h, 1e4, 1e3, 1e3); }, lxSettingClamped, {}, 0},
        {"zero RBW", [](int32_t h) { return lxSetSweepCoupling(h, 0, 1e3, 0.5); }, lxInvalidParameterErr, {}, 0},
        {"last scale", [](int32_t h) { return lxSetSweepScale(h, 2); }, lxNoError, {}, 0},
        {"last detector", [](int32_t h) { return lxSetSweepDetector(h, 1, 3); }, lxNoError, {}, 0},
        {"GPIO list without values", [](int32_t h) { return lxSetSweepGPIOSwitching(h, kF, nullptr, 2); }, lxNullPtrErr, {}, 0},
        {"GPIO list sets the port to output", [](int32_t h) { return lxSetSweepGPIOSwitching(h, kF, kV, 2); }, lxNoError, Port, 5},
        {"real-time span 40 MHz", [](int32_t h) { return lxSetRealTimeCenterSpan(h, 1e9, 4e7); }, lxNoError, {}, 0},
        {"real-time span 200 kHz", [](int32_t h) { return lxSetRealTimeCenterSpan(h, 1e9, 2e5); }, lxNoError, {}, 0},
        {"real-time span 100 kHz", [](int32_t h) { return lxSetRealTimeCenterSpan(h, 1e9, 1e5); }, lxSettingClamped, {}, 0},
        {"real-time span 50 MHz", [](int32_t h) { return lxSetRealTimeCenterSpan(h, 1e9, 5e7); }, lxSettingClamped, {}, 0},
        {"real-time centre 1 kHz", [](int32_t h) { return lxSetRealTimeCenterSpan(h, 1e3, 1e6); }, lxSettingClamped, {}, 0},
        {"real-time centre 20 GHz", [](int32_t h) { return lxSetRealTimeCenterSpan(h, 2e10, 1e6); }, lxSettingClamped, {}, 0},
        {"real-time RBW 2 kHz", [](int32_t h) { return lxSetRealTimeRBW(h, 2000); }, lxNoError, {}, 0},
        {"real-time RBW 1 MHz", [](int32_t h) { return lxSetRealTimeRBW(h, 1e6); }, lxNoError, {}, 0},
        {"real-time RBW 1999 Hz", [](int32_t h) { return lxSetRealTimeRBW(h, 1999); }, lxSettingClamped, {}, 0},
        {"real-time RBW 2 MHz", [](int32_t h) { return lxSetRealTimeRBW(h, 2e6); }, lxSettingClamped, {}, 0},
        {"real-time levels as given", [](int32_t h) { return lxSetRealTimeScale(h, 0, -200.0, 1000.0); }, lxNoError, {}, 0},
        {"I/Q filter 2", [](int32_t h) { return lxSetIQSoftwareFilter(h, 2); }, lxInvalidParameterErr, {}, 0},
        {"trigger edge 2", [](int32_t h) { return lxSetIQExtTriggerEdge(h, 2); }, lxInvalidParameterErr, {}, 0},
        {"queue 1", [](int32_t h) { return lxSetIQQueueSize(h, 1); }, lxSettingClamped, {}, 0},
        {"queue 2", [](int32_t h) { return lxSetIQQueueSize(h, 2); }, lxNoError, {}, 0},
        {"queue 16", [](int32_t h) { return lxSetIQQueueSize(h, 16); }, lxNoError, {}, 0},
        {"queue 17", [](int32_t h) { return lxSetIQQueueSize(h, 17); }, lxSettingClamped, {}, 0},
        {"audio centre 1 Hz", [](int32_t h) { return lxSetAudioCenterFreq(h, 1); }, lxSettingClamped, Audio<0>, 9000},
        {"audio IF bandwidth", [](int32_t h) { return lxSetAudioFilters(h, 100, 12000, 100); }, lxSettingClamped, Audio<1>, 500},
        {"audio low-pass", [](int32_t h) { return lxSetAudioFilters(h, 9000, 20000, 100); }, lxSettingClamped, Audio<2>, 12000},
        {"audio high-pass", [](int32_t h) { return lxSetAudioFilters(h, 9000, 12000, 10); }, lxSettingClamped, Audio<3>, 20},
        {"de-emphasis", [](int32_t h) { return lxSetAudioFMDeemphasis(h, 500); }, lxSettingClamped, Audio<4>, 100},
        // The fan's set point comes back truncated to a sixteenth of a degree.
        {"fan 30.07", [](int32_t h) { return lxSetFanSetPoint(h, 30.07f); }, lxNoError, FanSetPoint, 481 / 16.0},
        {"fan 70", [](int32_t h) { return lxSetFanSetPoint(h, 70.0f); }, lxNoError, FanSetPoint, 60},
        {"fan -5", [](int32_t h) { return lxSetFanSetPoint(h, -5.0f); }, lxNoError, FanSetPoint, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.set(h), c.status) << c.what;
        if (c.get) {
            EXPECT_EQ(c.get(h), c.stored) << c.what;
        }
    }
}

// Each result call refuses before any configure, in every other mode, and
// after an abort; a refused frame read reports no frame. Settings survive.
TEST_F(Settings, ResultsOnlyInTheirMode) {
    std::vector<float> a(1 << 16), b(1 << 16);
    int32_t count = 7;
    uint64_t stamp = 7;
    double d = 0;
    float corr = 0;
    const struct { int32_t mode; std::function<LxStatus()> read; } cases[] = {
        {lxModeSweep, [&] { return lxGetSweep(h, a.data(), b.data(), nullptr); }},
        {lxModeSweep, [&] { return lxGetSweepParameters(h, &d, nullptr, nullptr, nullptr, nullptr); }},
        {lxModeRealTime, [&] { return lxGetRealTimeFrame(h, nullptr, nullptr, a.data(), b.data(), &count, &stamp); }},
        {lxModeRealTime, [&] { return lxGetRealTimeParameters(h, &d, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }},
        {lxModeIQ, [&] { return lxGetIQ(h, a.data(), 4, nullptr, 0, nullptr, 0, nullptr, nullptr); }},
        {lxModeIQ, [&] { return lxGetIQCorrection(h, &corr); }},
        {lxModeIQ, [&] { return lxGetIQParameters(h, &d, nullptr); }},
        {lxModeIQSweepList, [&] { return lxIQSweepListGetSweep(h, a.data(), nullptr); }},
        {lxModeIQSweepList, [&] { return lxIQSweepListStartSweep(h, 0, a.data(), nullptr); }},
        {lxModeAudio, [&] { return lxGetAudio(h, a.data()); }},
    };
    for (const auto& c : cases) EXPECT_EQ(c.read(), lxInvalidConfigurationErr) << "idle, mode " << c.mode;
    EXPECT_EQ(count, 0);
    EXPECT_EQ(stamp, 0u);
    ASSERT_EQ(lxSetSweepStartStop(h, 1e9, 1.1e9), lxNoError);
    ASSERT_EQ(lxSetIQSampleRate(h, 64), lxNoError);
    ASSERT_EQ(lxSetIQSweepListSteps(h, 1), lxNoError);
    ASSERT_EQ(lxSetIQSweepListSampleCount(h, 0, 2048), lxNoError);
    ASSERT_EQ(lxSetRefLevel(h, -7.5), lxNoError);
    ASSERT_EQ(lxSetAttenuator(h, 3), lxNoError);
    for (int32_t mode : {lxModeSweep, lxModeRealTime, lxModeIQ, lxModeIQSweepList, lxModeAudio}) {
        ASSERT_EQ(lxConfigure(h, mode), lxNoError) << mode;
        for (const auto& c : cases) {
            if (c.mode != mode) {
                EXPECT_EQ(c.read(), lxInvalidConfigurationErr) << c.mode << " in mode " << mode;
            }
        }
    }
    // The stream owns the analyzer's port and power.
    EXPECT_EQ(lxSetPowerState(h, 1), lxInvalidConfigurationErr);
    ASSERT_EQ(lxConfigure(h, lxModeSweep), lxNoError);
    EXPECT_EQ(lxSetGPIOPort(h, 1), lxInvalidConfigurationErr);
    EXPECT_EQ(lxAbort(h), lxNoError);
    for (const auto& c : cases) EXPECT_EQ(c.read(), lxInvalidConfigurationErr) << "aborted, mode " << c.mode;
    EXPECT_EQ(RefLevel(h), -7.5);
    EXPECT_EQ(Atten(h), 3);
}

// The I/Q bandwidth is limited at configure to 1 kHz .. 41.5 MHz at D = 1
// and 1 kHz .. 50 MHz / D above; every power of two up to 8192 is a rate,
// and a refused one leaves the last in force.
TEST_F(Settings, IqRateAndBandwidthLimits) {
    struct Case { int32_t D; double set, want; };
    const Case cases[] = {{1, 1e9, 41.5e6}, {1, 10, 1000},      {2, 1e9, 25e6},          {4, 3e6, 3e6},
                          {8, 4e7, 6.25e6}, {128, 1e9, 390625}, {8192, 1e9, 5e7 / 8192}, {8192, 100, 1000}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "D " << c.D << " bandwidth " << c.set);
        ASSERT_EQ(lxSetIQSampleRate(h, c.D), lxNoError);
        ASSERT_EQ(lxSetIQBandwidth(h, c.set), lxNoError);
        for (int32_t bad : {0, 3, 16384, -8}) EXPECT_EQ(lxSetIQSampleRate(h, bad), lxInvalidParameterErr) << bad;
        ASSERT_EQ(lxConfigure(h, lxModeIQ), lxNoError);
        double rate = 0, bandwidth = 0;
        EXPECT_EQ(lxGetIQParameters(h, &rate, &bandwidth), lxNoError);
        EXPECT_EQ(rate, 61.44e6 / c.D);
        EXPECT_DOUBLE_EQ(bandwidth, c.want);
    }
    // With a stream: a read of nothing is refused, and a new configure
    // starts the health counters again.
    float buf[8] = {};
    LxStreamHealth health{};
    EXPECT_EQ(lxGetIQ(h, buf, 0, nullptr, 0, nullptr, 0, nullptr, nullptr), lxInvalidParameterErr);
    EXPECT_GE(lxGetIQ(h, buf, 4, nullptr, 0, nullptr, 0, nullptr, nullptr), lxNoError);
    ASSERT_EQ(lxConfigure(h, lxModeIQ), lxNoError);
    ASSERT_EQ(lxGetStreamHealth(h, &health), lxNoError);
    EXPECT_EQ(health.samplesDelivered, 0u);
}

} // namespace
