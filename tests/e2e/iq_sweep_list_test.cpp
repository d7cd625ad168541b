// The I/Q sweep list on a simulated analyzer, checked against the scene.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "../support/tone_power.h"
#include "e2e_support.h"

namespace {

using e2e::SimTest;

constexpr double kFs = 61.44e6;
constexpr double kToneOffset = 100e3;

struct Step { double hz; uint32_t samples; };

// A -30 dBm tone kToneOffset above each step frequency, over -160 dBm/Hz.
std::string ToneScene(const std::vector<Step>& steps) {
    std::vector<e2e::Tone> tones;
    for (const Step& s : steps) tones.push_back({s.hz + kToneOffset, -30.0});
    return e2e::SceneOf(tones, -160);
}

// The strongest component (dBm) within 120 kHz of `nominalHz`: off the
// 960 kHz tuning grid a step's frequency sits up to 110 kHz from 0 Hz.
double PeakDbm(const float* x, int64_t n, double nominalHz) {
    double best = -400;
    for (double f = nominalHz - 120e3; f <= nominalHz + 120e3; f += kFs / (8.0 * double(n)))
        best = std::max(best, ToneDbm(x, n, f));
    return best;
}

class SweepList : public SimTest {
protected:
    static constexpr int32_t kSerial = 41100001;
    void Open(const std::vector<Step>& steps) { SimTest::Open(kSerial, ToneScene(steps)); }

    void Configure(const std::vector<Step>& steps, int32_t dataType = 0, int32_t corrected = 1) {
        ASSERT_EQ(lxSetIQSweepListSteps(h, static_cast<int32_t>(steps.size())), lxNoError);
        for (size_t i = 0; i < steps.size(); ++i) {
            ASSERT_EQ(lxSetIQSweepListFreq(h, int32_t(i), steps[i].hz), lxNoError);
            ASSERT_EQ(lxSetIQSweepListRef(h, int32_t(i), -20.0), lxNoError);
            ASSERT_EQ(lxSetIQSweepListSampleCount(h, int32_t(i), steps[i].samples), lxNoError);
        }
        ASSERT_EQ(lxSetIQSweepListDataType(h, dataType), lxNoError);
        ASSERT_EQ(lxSetIQSweepListCorrected(h, corrected), lxNoError);
        ASSERT_EQ(lxConfigure(h, lxModeIQSweepList), lxNoError);
    }

    static int64_t Total(const std::vector<Step>& steps) {
        int64_t n = 0;
        for (const Step& s : steps) n += s.samples;
        return n;
    }
};

// Steps on the 960 kHz tuning grid: the step frequency is at 0 Hz of its samples.
std::vector<Step> Spread(int count, double lo, double hi, uint32_t samples) {
    std::vector<Step> v;
    for (int i = 0; i < count; ++i)
        v.push_back({std::max(1.0, std::round((lo + (hi - lo) * i / (count - 1)) / 960e3)) * 960e3, samples});
    return v;
}

// 50 steps from 960 kHz to 14.9 GHz on the tuning grid: each reads its tone
// at its level and nothing at the mirror offset, in floats, and in int16 and
// uncorrected floats (full-scale units) times the step's reported factor.
TEST_F(SweepList, ToneAtItsOffsetAndPowerAtEveryStep) {
    const std::vector<Step> steps = Spread(50, 100e3, 14.9e9, 16384);
    Open(steps);
    for (int32_t type : {0, 1, 2}) { // 2: uncorrected floats
        Configure(steps, type == 1, type != 2);
        const int64_t n = Total(steps);
        std::vector<float> f(size_t(2 * n), NAN);
        std::vector<int16_t> q(type == 1 ? size_t(2 * n) : 0);
        std::vector<float> scale(steps.size(), NAN);
        ASSERT_EQ(lxIQSweepListGetSweep(h, type == 1 ? static_cast<void*>(q.data()) : f.data(), nullptr), lxNoError);
        ASSERT_EQ(lxIQSweepListGetCorrections(h, scale.data()), lxNoError);
        int64_t at = 0;
        for (size_t i = 0; i < steps.size(); ++i) {
            if (type == 2) {
                EXPECT_GT(std::abs(20 * std::log10(scale[i])), 1.0) << "a neutral factor at " << steps[i].hz;
            }
            for (int64_t k = 0; type != 0 && k < 2 * int64_t(steps[i].samples); ++k)
                f[size_t(2 * at + k)] = (type == 1 ? q[size_t(2 * at + k)] / 32768.0f : f[size_t(2 * at + k)]) * scale[i];
            const float* x = f.data() + 2 * at;
            EXPECT_NEAR(ToneDbm(x, steps[i].samples, kToneOffset), -30.0, 0.2) << "type " << type << " step " << steps[i].hz;
            EXPECT_LT(ToneDbm(x, steps[i].samples, -kToneOffset), -70.0) << "type " << type << " step " << steps[i].hz;
            at += steps[i].samples;
        }
    }
}

// Sixteen requests in flight, finished in reverse order: every buffer holds
// the whole list; each step starts a step (whole packets of 2048) plus the
// retuning after the previous, the next pass possibly later.
TEST_F(SweepList, SixteenRequestsInFlightRunInOrder) {
    const std::vector<Step> steps{{99.84e6, 2049}, {915.84e6, 8192}, {5.80224e9, 3000}};
    Open(steps);
    Configure(steps);
    const int64_t n = Total(steps);
    std::vector<std::vector<float>> buf(16, std::vector<float>(size_t(2 * n), NAN));
    std::vector<std::vector<uint64_t>> ts(16, std::vector<uint64_t>(steps.size(), 0));
    for (int32_t s = 0; s < 16; ++s) ASSERT_EQ(lxIQSweepListStartSweep(h, s, buf[size_t(s)].data(), ts[size_t(s)].data()), lxNoError);
    for (int32_t s = 15; s >= 0; --s) ASSERT_EQ(lxIQSweepListFinishSweep(h, s), lxNoError) << s;
    std::vector<uint64_t> t;
    for (size_t s = 0; s < 16; ++s) {
        int64_t at = 0;
        for (size_t i = 0; i < steps.size(); ++i) {
            EXPECT_NEAR(ToneDbm(buf[s].data() + 2 * at, steps[i].samples, kToneOffset), -30.0, 0.2) << s << "/" << i;
            at += steps[i].samples;
        }
        t.insert(t.end(), ts[s].begin(), ts[s].end());
    }
    for (size_t i = 1; i < t.size(); ++i) {
        const double duration = std::ceil(steps[(i - 1) % steps.size()].samples / 2048.0) * 2048.0 / kFs * 1e9;
        const double gap = double(int64_t(t[i] - t[i - 1])) - duration;
        EXPECT_GT(gap, -16.3) << i; // one sample
        if (i % steps.size() != 0) {
            EXPECT_LT(gap, 200e3) << i; // the retuning takes microseconds, not a fraction of a millisecond
        }
    }
}

// In every step the stamp plus the rising edge's index lands within a sample
// on a start of a burst train begun on a GPS second.
TEST_F(SweepList, TimeStampsAreTrueToTheScenesClock) {
    const char* gps = R"({"noise_floor_dbm_hz": -160, "gps": {"fix": true, "utc": "2026-11-21T12:00:00Z"}, "emitters": [%s]})";
    char scene[512];
    std::snprintf(scene, sizeof scene, gps, "");
    h = AttachAndOpen(kSerial, scene);
    const std::vector<Step> steps(6, Step{1e9, 16384});
    Configure(steps);
    std::vector<float> f(size_t(2 * Total(steps)));
    std::vector<uint64_t> t(steps.size());
    ASSERT_EQ(lxSimAdvanceTimeMs(1500), lxNoError); // a GPS message in the ring
    ASSERT_EQ(lxIQSweepListGetSweep(h, f.data(), t.data()), lxNoError); // takes the fix in
    // The train starts on the second after next, by the receiver's clock.
    const int64_t start = (int64_t(t[0]) / 1000000000 + 2) * 1000000000;
    char burst[256];
    std::snprintf(burst, sizeof burst,
                  R"({"kind": "burst", "frequency_hz": 1000100000, "power_dbm": -30, "start_utc": "%s", "width_s": 50e-6, "period_s": 200e-6})",
                  e2e::UtcText(start / 1000000000).c_str());
    std::snprintf(scene, sizeof scene, gps, burst);
    ASSERT_EQ(lxSimSetScene(kSerial, scene), lxNoError);
    ASSERT_EQ(lxSimAdvanceTimeMs(2500), lxNoError);
    ASSERT_EQ(lxIQSweepListGetSweep(h, f.data(), t.data()), lxNoError);
    for (size_t i = 0; i < steps.size(); ++i) {
        ASSERT_GT(int64_t(t[i]), start) << i;
        const float* x = f.data() + 2 * int64_t(i) * 16384;
        int64_t edge = -1;
        for (int64_t k = 1; k < 16384 && edge < 0; ++k) {
            const auto p = [&](int64_t j) { return double(x[2 * j]) * x[2 * j] + double(x[2 * j + 1]) * x[2 * j + 1]; };
            if (p(k) > 0.5e-3 && p(k - 1) < 0.5e-3) edge = k;
        }
        ASSERT_GE(edge, 0) << i;
        const double since = double(int64_t(t[i]) - start) + double(edge) * 1e9 / kFs;
        const double off = std::remainder(since, 200e3); // from the nearest burst start
        EXPECT_NEAR(off, 0.0, 1e9 / kFs) << "step " << i << " edge at sample " << edge;
    }
}

// Each bad call returns its status and changes nothing a good one could see.
TEST_F(SweepList, ArgumentAndStateChecks) {
    const std::vector<Step> steps{{999.36e6, 2048}, {1999.68e6, 2048}};
    Open(steps);
    EXPECT_EQ(e2e::Get(lxGetIQSweepListSteps, h), 0);
    EXPECT_EQ(lxConfigure(h, lxModeIQSweepList), lxInvalidConfigurationErr); // empty list
    EXPECT_EQ(lxSetIQSweepListFreq(h, 0, 1e9), lxInvalidParameterErr);
    Configure(steps);

    struct Case { const char* what; LxStatus got, want; };
    std::vector<float> a(2 * 4096), b(2 * 4096);
    const Case cases[] = {
        {"1001 steps", lxSetIQSweepListSteps(h, 1001), lxInvalidParameterErr},
        {"0 steps", lxSetIQSweepListSteps(h, 0), lxInvalidParameterErr},
        {"index = count", lxSetIQSweepListFreq(h, 2, 1e9), lxInvalidParameterErr},
        {"index -1", lxSetIQSweepListSampleCount(h, -1, 10), lxInvalidParameterErr},
        {"freq below", lxSetIQSweepListFreq(h, 1, 10.0), lxSettingClamped},
        {"ref 30", lxSetIQSweepListRef(h, 1, 30.0), lxSettingClamped},
        {"atten 7", lxSetIQSweepListAtten(h, 1, 7), lxSettingClamped},
        {"atten -5", lxSetIQSweepListAtten(h, 1, -5), lxSettingClamped},
        {"corrected 2", lxSetIQSweepListCorrected(h, 2), lxInvalidParameterErr},
        {"slot 16", lxIQSweepListStartSweep(h, 16, a.data(), nullptr), lxInvalidParameterErr},
        {"finish never started", lxIQSweepListFinishSweep(h, 4), lxSweepAlreadyActiveErr},
        {"finish slot 16", lxIQSweepListFinishSweep(h, 16), lxInvalidParameterErr},
        {"start slot 5", lxIQSweepListStartSweep(h, 5, a.data(), nullptr), lxNoError},
        {"start active slot", lxIQSweepListStartSweep(h, 5, b.data(), nullptr), lxSweepAlreadyActiveErr},
        {"get while 5 active", lxIQSweepListGetSweep(h, b.data(), nullptr), lxSweepAlreadyActiveErr},
        {"finish 5", lxIQSweepListFinishSweep(h, 5), lxNoError},
    };
    for (const Case& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
    EXPECT_EQ(e2e::Get(lxGetIQSweepListSteps, h), 2);
    std::vector<float> f(2 * 4096);
    ASSERT_EQ(lxIQSweepListGetSweep(h, f.data(), nullptr), lxNoError);
    EXPECT_NEAR(ToneDbm(f.data() + 2 * 2048, 2048, kToneOffset), -30.0, 0.2);
}

// Growing the list gives new steps their defaults (1 GHz, 1000000 samples).
TEST_F(SweepList, GrownStepsTakeTheDefaults) {
    Open({{1e9, 0}});
    ASSERT_EQ(lxSetIQSweepListSteps(h, 2), lxNoError);
    ASSERT_EQ(lxSetIQSweepListFreq(h, 0, 3e9), lxNoError);
    ASSERT_EQ(lxSetIQSweepListSampleCount(h, 0, 2049), lxNoError);
    ASSERT_EQ(lxSetIQSweepListSteps(h, 1), lxNoError);
    ASSERT_EQ(lxSetIQSweepListSteps(h, 2), lxNoError); // step 1 comes back with the defaults
    ASSERT_EQ(lxConfigure(h, lxModeIQSweepList), lxNoError);
    const int64_t n = 2049 + 1000000;
    std::vector<float> f(size_t(2 * n));
    ASSERT_EQ(lxIQSweepListGetSweep(h, f.data(), nullptr), lxNoError);
    EXPECT_NEAR(PeakDbm(f.data() + 2 * (n - 16384), 16384, kToneOffset), -30.0, 0.2); // the step's last samples
}

} // namespace
