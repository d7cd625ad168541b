// I/Q streaming on a simulated analyzer, checked against the scene. Scenes
// run at 45 degC, where the reference sits exactly on frequency after the
// host's tune write: a tone's phase can be held to its nominal frequency.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::SimTest;
using cd = std::complex<double>;
constexpr double kPi = std::numbers::pi;

// At 45 degC, without noise to speak of, paced in real time.
std::string Scene(const std::vector<e2e::Tone>& tones, const std::string& keys = "", const std::string& emitters = "") {
    return e2e::SceneOf(tones, -180, R"("temperature_c": 45, "pacing": "realtime")" + keys, emitters);
}

// Output samples per device block at decimation D.
int64_t BlockOutputs(int32_t D) {
    const int64_t d1 = D < 4 ? D : 4;
    return (64 / d1 - 1) * 2048 / (D <= 4 ? 1 : D / 4);
}

// Coherent power (dBm) and phase (rad, at x[0]) of the component at f (Hz)
// in x at rate fs, and the largest phase deviation (rad) of x from a tone at
// exactly f.
struct ToneFit { double dbm = -400, phase = 0, phaseError = 0; };
ToneFit FitTone(const std::vector<cd>& x, double f, double fs, bool phase = true) {
    ToneFit t;
    cd acc = 0;
    const double w = 2 * kPi * f / fs;
    const cd step = std::polar(1.0, -w);
    cd turn = 1;
    for (size_t k = 0; k < x.size(); ++k, turn *= step) acc += x[k] * turn;
    acc /= double(x.size());
    t.dbm = 10 * std::log10(std::norm(acc));
    t.phase = std::arg(acc);
    for (size_t k = 0; phase && k < x.size(); ++k)
        t.phaseError = std::max(t.phaseError, std::abs(std::arg(x[k] * std::polar(1.0, -w * double(k)) / acc)));
    return t;
}

// Where |x| (interleaved I/Q) rises through half its level 200 samples after
// p, looked for within 60 samples of p and interpolated between samples.
double HalfHeightCrossing(const std::vector<float>& x, int64_t p) {
    auto mag = [&](int64_t i) { return std::hypot(x[size_t(2 * i)], x[size_t(2 * i + 1)]); };
    const double top = mag(p + 200);
    int64_t i = p - 60;
    while (i < p + 60 && mag(i) < top / 2) ++i;
    return double(i - 1) + (top / 2 - mag(i - 1)) / (mag(i) - mag(i - 1));
}

class Iq : public SimTest {
protected:
    static constexpr int32_t kSerial = 42000001;
    int32_t lastLoss = 0;

    void Start(int32_t D, double centre, double bandwidth = 1e9, int32_t type = 0) {
        ASSERT_EQ(lxSetIQSampleRate(h, D), lxNoError);
        ASSERT_EQ(lxSetIQCenterFreq(h, centre), lxNoError);
        ASSERT_EQ(lxSetIQBandwidth(h, bandwidth), lxNoError);
        ASSERT_EQ(lxSetIQDataType(h, type), lxNoError);
        ASSERT_EQ(lxConfigure(h, lxModeIQ), lxNoError);
    }

    // n samples in sqrt(mW) (int16 scaled by the reported correction);
    // lastLoss says whether the read reported a loss.
    std::vector<cd> Read(int64_t n, int32_t type = 0, uint64_t* stamp = nullptr) {
        std::vector<cd> x(static_cast<size_t>(n));
        float corr = 0;
        EXPECT_EQ(lxGetIQCorrection(h, &corr), lxNoError);
        const double k = std::sqrt(std::pow(10.0, corr / 10.0)) / 32768.0;
        std::vector<float> f(size_t(2 * n));
        std::vector<int16_t> s(size_t(2 * n));
        void* dst = type == 0 ? static_cast<void*>(f.data()) : static_cast<void*>(s.data());
        int32_t loss = -1, remaining = -1;
        const LxStatus st = lxGetIQ(h, dst, int32_t(n), nullptr, 0, stamp, 0, &loss, &remaining);
        EXPECT_TRUE(st == lxNoError || st == lxUncalData) << st;
        lastLoss = loss != 0 || st == lxUncalData;
        for (int64_t i = 0; i < n; ++i)
            x[size_t(i)] = type == 0 ? cd(f[size_t(2 * i)], f[size_t(2 * i + 1)])
                                     : cd(s[size_t(2 * i)], s[size_t(2 * i + 1)]) * k;
        return x;
    }
    // n samples after the filters' start-up, in two reads (a phase check
    // spans their seam); read again while a busy machine lets the paced
    // analyzer's 34 ms buffer overrun.
    std::vector<cd> Measure(int32_t D, int64_t n, int32_t type = 0) {
        for (int attempt = 0;; ++attempt) {
            Read(D <= 4 ? 4096 : 2 * BlockOutputs(D) + 64, type);
            auto x = Read(n - n / 2, type);
            const int32_t firstLoss = lastLoss;
            if (n > 1) {
                const auto y = Read(n / 2, type);
                x.insert(x.end(), y.begin(), y.end());
            }
            lastLoss |= firstLoss;
            if (lastLoss == 0 || attempt == 9) {
                EXPECT_EQ(lastLoss, 0);
                return x;
            }
        }
    }
};

// A tone 0.15 fs above the centre: its level at every decimation from band 0
// to 14 GHz, and its phase across blocks and reads (no sample lost unreported,
// doubled or misplaced), in float and int16 output.
TEST_F(Iq, ToneLevelAndPhaseAtEveryDecimation) {
    h = AttachAndOpen(kSerial, Scene({}));
    const double centres[] = {20e6, 100e6, 433.92e6, 1e9, 2.4e9, 3.5e9, 5.8e9, 8e9, 11e9, 14e9};
    const int32_t decimations[] = {1, 2, 4, 8, 64, 128, 1024, 8192};
    for (double c : centres) {
        for (int32_t D : decimations) {
            const double fs = 61.44e6 / D, f = 0.15 * fs;
            const int32_t type = (D == 2 || D == 128) ? 1 : 0;
            SCOPED_TRACE(testing::Message() << "centre " << c << " D " << D << " type " << type);
            // Slow motion at the widest rates, which a loaded host cannot take.
            ASSERT_EQ(lxSimSetScene(kSerial, Scene({{c + f, -30}}, D <= 2 ? e2e::PaceKey(0.25) : "").c_str()),
                      lxNoError);
            Start(D, c, 1e9, type);
            const auto x = Measure(D, std::max<int64_t>(4096, BlockOutputs(D) * 5 / 2), type);
            const ToneFit t = FitTone(x, f, fs);
            EXPECT_NEAR(t.dbm, -30.0, 0.1);
            EXPECT_LT(t.phaseError, D <= 4 ? 5e-3 : 2e-3); // a lost or doubled sample turns it by ~1 rad
        }
    }
}

// A burst and a trigger edge at the same device time: the reported trigger
// position is where the burst's envelope crosses half its height (the
// filters' delay taken out) within one sample; unused entries carry the
// sentinel. (D = 1 overruns on a busy machine.)
TEST_F(Iq, TriggerLandsOnTheBurstEdge) {
    const double c = 1.2e9;
    h = AttachAndOpen(kSerial, Scene({}));
    ASSERT_EQ(lxSetIQTriggerSentinel(-1.0), lxNoError);
    for (int32_t D : {4, 8, 128, 8192}) {
        SCOPED_TRACE(testing::Message() << "D " << D);
        const double fs = 61.44e6 / D;
        // At most one burst per device block: a status packet reports one edge.
        const int64_t every = std::max<int64_t>(1600, 2 * BlockOutputs(D));
        const double width = 400 / fs, period = double(every) / fs;
        char trigger[128], burst[256];
        std::snprintf(trigger, sizeof trigger, R"(, "trigger": {"start_s": %.9f, "period_s": %.9f, "width_s": 1e-6})",
                      period, period);
        std::snprintf(burst, sizeof burst,
                      R"({"kind": "burst", "frequency_hz": %.3f, "power_dbm": -30, "start_s": %.9f, "width_s": %.9f, "period_s": %.9f})",
                      c + 0.1 * fs, period, width, period);
        const std::string scene = Scene({}, trigger, burst);
        ASSERT_EQ(lxSimSetScene(kSerial, scene.c_str()), lxNoError);
        Start(D, c);
        Measure(D, 1);
        const auto n = static_cast<int32_t>(3 * every);
        std::vector<float> v(2 * n);
        std::vector<double> t(16, 7.0);
        int32_t loss = 1;
        for (int attempt = 0; attempt < 8 && loss; ++attempt) // a busy machine may overrun the paced stream
            ASSERT_GE(lxGetIQ(h, v.data(), n, t.data(), 16, nullptr, 0, &loss, nullptr), lxNoError);
        ASSERT_EQ(loss, 0);
        int checked = 0;
        for (size_t k = 0; k < t.size(); ++k) {
            if (t[k] == -1.0) {
                for (size_t j = k; j < t.size(); ++j) EXPECT_EQ(t[j], -1.0); // the sentinel fills the rest
                break;
            }
            const auto p = static_cast<int64_t>(t[k]);
            if (p < 100 || p + 300 > n) continue;
            const auto mag = [&](int64_t i) { return std::hypot(v[size_t(2 * i)], v[size_t(2 * i + 1)]); };
            EXPECT_GT(mag(p + 200), 100 * mag(p - 100)) << "no burst after the trigger at " << t[k];
            EXPECT_NEAR(HalfHeightCrossing(v, p), t[k], 1.0);
            ++checked;
        }
        EXPECT_GE(checked, 2);
    }
}

// With a GPS fix the stamps are UTC: a burst train begun on a UTC second
// (after the host set the reference on frequency, so it keeps UTC's period)
// starts at the samples the stamps predict, within one sample.
TEST_F(Iq, GpsTimeStampsPlaceBursts) {
    const double c = 2.2e9;
    const char* gps = R"(, "gps": {"utc": "2026-11-21T12:00:00Z"})";
    h = AttachAndOpen(kSerial, Scene({}, gps));
    for (int32_t D : {1, 2, 4, 8, 256, 8192}) {
        SCOPED_TRACE(testing::Message() << "D " << D);
        const double fs = 61.44e6 / D;
        // Half pace at the widest rates, where an instrumented host falls behind.
        const std::string keys = gps + (D <= 2 ? e2e::PaceKey(0.5) : "");
        ASSERT_EQ(lxSimSetScene(kSerial, Scene({}, keys).c_str()), lxNoError);
        Start(D, c);
        // Stream until the receiver has sent a fix and the stamps follow it:
        // samples captured before the fix, still on their way through the
        // host, keep the host clock's stamps.
        const int64_t sceneUtcNs = 1795262400LL * 1000000000;
        uint32_t state = 0;
        uint64_t stamp = 0;
        for (int i = 0; i < 40 && (state == 0 || std::llabs(int64_t(stamp) - sceneUtcNs) > 3600000000000LL); ++i) {
            Read(std::max<int64_t>(BlockOutputs(D), int64_t(0.1 * fs)), 0, &stamp);
            ASSERT_EQ(lxGetGPSState(h, &state), lxNoError);
        }
        ASSERT_GE(state, 1u) << "no GPS fix";
        Read(1, 0, &stamp);
        ASSERT_LT(std::llabs(int64_t(stamp) - sceneUtcNs), 3600000000000LL) << "stamps not in GPS time";
        // A period of 1/N s (N dividing 1e9) of 1600 samples or more, from the
        // second after next.
        int64_t N = std::max<int64_t>(1, int64_t(fs / 1600));
        while (1000000000 % N != 0) --N;
        const int64_t periodNs = 1000000000 / N;
        const int64_t startNs = (int64_t(stamp) / 1000000000 + 2) * 1000000000;
        char burst[320];
        std::snprintf(burst, sizeof burst,
                      R"({"kind": "burst", "frequency_hz": %.3f, "power_dbm": -30, "start_utc": "%s", "width_s": %.9f, "period_s": %.9f})",
                      c - 0.1 * fs, e2e::UtcText(startNs / 1000000000).c_str(), 400 / fs, double(periodNs) * 1e-9);
        ASSERT_EQ(lxSimSetScene(kSerial, Scene({}, keys, burst).c_str()), lxNoError);
        for (int i = 0; i < 100 && int64_t(stamp) < startNs + periodNs; ++i) Read(int64_t(0.05 * fs) + 1, 0, &stamp);
        ASSERT_GE(int64_t(stamp), startNs + periodNs) << "the stream did not reach the train";
        const auto n = static_cast<int32_t>(2.5 * fs * double(periodNs) * 1e-9);
        std::vector<float> v(2 * size_t(n));
        int32_t loss = 1;
        for (int attempt = 0; attempt < 20 && loss; ++attempt) // a busy machine may overrun the paced stream
            ASSERT_GE(lxGetIQ(h, v.data(), n, nullptr, 0, &stamp, 0, &loss, nullptr), lxNoError);
        ASSERT_EQ(loss, 0);
        int checked = 0;
        for (int64_t m = (int64_t(stamp) - startNs) / periodNs + 1;; ++m) {
            const double predicted = double(startNs + m * periodNs - int64_t(stamp)) * fs / 1e9;
            if (predicted + 300 > n) break;
            if (predicted < 100) continue;
            const auto p = static_cast<int64_t>(predicted);
            EXPECT_NEAR(HalfHeightCrossing(v, p), predicted, 1.0);
            ++checked;
        }
        EXPECT_GE(checked, 1);
    }
}

// Passband flat to 0.8 x the half bandwidth, stop band >= 60 dB beyond the
// output Nyquist frequency, for one host stage (D = 8, 64) and two (128, 1024).
TEST_F(Iq, HostFiltersPassAndStop) {
    struct Case { int32_t D; double bandwidth; };
    const Case cases[] = {{8, 6e6}, {64, 500e3}, {128, 300e3}, {1024, 40e3}};
    const double c = 1.5e9;
    h = AttachAndOpen(kSerial, Scene({}));
    for (const Case& k : cases) {
        const double fs = 61.44e6 / k.D;
        const double pass = 0.8 * k.bandwidth / 2, stop = 0.55 * fs;
        SCOPED_TRACE(testing::Message() << "D " << k.D);
        ASSERT_EQ(lxSimSetScene(kSerial, Scene({{c + pass, -30}, {c - stop, -30}}).c_str()), lxNoError);
        Start(k.D, c, k.bandwidth);
        const auto x = Measure(k.D, 16384);
        EXPECT_NEAR(FitTone(x, pass, fs).dbm, -30.0, 0.1);
        // -0.55 fs folds to +0.45 fs at the output rate.
        EXPECT_LT(FitTone(x, 0.45 * fs, fs).dbm, -90.0);
    }
}

// Samples the analyzer lost (its timeline jumps 401 ms): the read that
// spans the gap says so, and the tone after it keeps its phase against the
// time stamps, the band-0 capture (conjugated) included: the shift runs on
// over what is missing. The centres put the host's shift (2.3, 43.4 and
// 237.7 kHz) a fraction of a turn off over the gap; a round one would hide
// a shift that skipped nothing.
TEST_F(Iq, ToneKeepsItsPhaseAgainstTheStampsAcrossAGap) {
    h = AttachAndOpen(kSerial, Scene({}));
    for (const double c : {20.0123e6, 1.0001234e9, 5.8000777e9}) {
        SCOPED_TRACE(c);
        const int32_t D = 4;
        const double fs = 61.44e6 / D, f = 0.02 * fs; // close in: a stamp 1 ns out turns it by 2 mrad
        ASSERT_EQ(lxSimSetScene(kSerial, Scene({{c + f, -30}}).c_str()), lxNoError);
        Start(D, c);
        // Phase of the tone at the read's first sample, less its advance since t0.
        uint64_t t0 = 0;
        auto phase = [&](uint64_t* stamp) {
            const double at = FitTone(Read(4096, 0, stamp), f, fs, false).phase;
            return std::remainder(at - 2 * kPi * f * 1e-9 * double(int64_t(*stamp - t0)), 2 * kPi);
        };
        Read(4096);
        const double before = phase(&t0);
        ASSERT_EQ(lastLoss, 0);
        ASSERT_EQ(lxSimAdvanceTimeMs(401), lxNoError); // past what the analyzer buffers
        // Up to the first read stamped past the gap, which must report it.
        int32_t sawLoss = 0;
        uint64_t t1 = t0;
        for (int i = 0; i < 2000 && int64_t(t1 - t0) < 300'000'000; ++i) {
            Read(4096, 0, &t1);
            sawLoss |= lastLoss;
        }
        ASSERT_GT(int64_t(t1 - t0), 300'000'000);
        EXPECT_TRUE(sawLoss);
        Read(4096); // the filter's memory of the gap
        const double after = phase(&t1);
        ASSERT_EQ(lastLoss, 0);
        EXPECT_NEAR(std::remainder(after - before, 2 * kPi), 0.0, 0.02);
    }
}

// A reader that stops for longer than the store holds (0.5 s) loses the
// whole backlog at once and is told; purge throws away what is stored.
TEST_F(Iq, LossAndPurge) {
    const double c = 2e9, fs = 960e3;
    // Sleeps stand for device time here: stretched by the pace of a sanitizer run.
    const double pace = e2e::Pace();
    const auto sleep = [pace](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(int(ms / pace))); };
    h = AttachAndOpen(kSerial, Scene({{c + 1e4, -30}}, e2e::PaceKey(1)));
    Start(64, c);
    uint64_t t0 = 0, t1 = 0;
    int32_t loss = -1, remaining = -1;
    std::vector<float> buf(2 * 200000);
    ASSERT_GE(lxGetIQ(h, buf.data(), 1000, nullptr, 0, &t0, 0, &loss, &remaining), lxNoError);
    EXPECT_EQ(loss, 0);

    sleep(250);
    ASSERT_GE(lxGetIQ(h, buf.data(), 1, nullptr, 0, nullptr, 0, &loss, &remaining), lxNoError);
    EXPECT_GT(remaining, 0.15 * fs); // a quarter second held, nothing lost
    EXPECT_EQ(loss, 0);
    ASSERT_GE(lxGetIQ(h, buf.data(), 100, nullptr, 0, &t1, 1, &loss, &remaining), lxNoError);
    EXPECT_LT(remaining, 0.05 * fs); // purged: only what came since (the transfers in flight)
    EXPECT_GT(double(t1 - t0), 0.2e9);

    sleep(700);
    ASSERT_GE(lxGetIQ(h, buf.data(), 10, nullptr, 0, nullptr, 0, &loss, &remaining), lxNoError);
    EXPECT_EQ(loss, 1);
    LxStreamHealth after{};
    ASSERT_EQ(lxGetStreamHealth(h, &after), lxNoError);
    EXPECT_GT(after.samplesDropped, uint64_t(0.3 * fs)); // the backlog went at once
    ASSERT_GE(lxGetIQ(h, buf.data(), 10, nullptr, 0, nullptr, 0, &loss, nullptr), lxNoError);
    EXPECT_EQ(loss, 0); // cleared as it was read
}

// An overloaded input, then an unplug: each reported and counted.
TEST_F(Iq, OverflowAndUnplug) {
    const double c = 1e9;
    h = AttachAndOpen(kSerial, Scene({{c + 1e5, 10}}));
    ASSERT_EQ(lxSetAttenuator(h, 0), lxNoError);
    Start(16, c);
    std::vector<float> buf(2 * 5000);
    // The stream's start may report an overrun first (a stronger warning).
    LxStatus s = lxNoError;
    for (int i = 0; i < 50 && s != lxADCOverflow; ++i) {
        s = lxGetIQ(h, buf.data(), 5000, nullptr, 0, nullptr, 0, nullptr, nullptr);
        ASSERT_GE(s, lxNoError);
    }
    EXPECT_EQ(s, lxADCOverflow);
    LxStreamHealth health{};
    ASSERT_EQ(lxGetStreamHealth(h, &health), lxNoError);
    EXPECT_GT(health.adcOverflowEvents, 0u);
    EXPECT_EQ(health.transportErrors, 0u);

    ASSERT_EQ(lxSimDetach(kSerial), lxNoError);
    // What was stored before the failure is still delivered first.
    const auto t = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000 && s >= lxNoError; ++i) s = lxGetIQ(h, buf.data(), 5000, nullptr, 0, nullptr, 0, nullptr, nullptr);
    EXPECT_EQ(s, lxConnectionLostErr);
    EXPECT_LT(std::chrono::steady_clock::now() - t, std::chrono::seconds(3));
    ASSERT_EQ(lxGetStreamHealth(h, &health), lxNoError);
    EXPECT_GT(health.transportErrors, 0u);
}

// The full-band capture is the band around LO - 23.04 MHz.
TEST_F(Iq, FullBandCapture) {
    const double lo = 2.1e9, tone = lo - 23.04e6 + 5.0025e6;
    h = AttachAndOpen(kSerial, Scene({{tone, -20}}));
    std::vector<float> v(16384, NAN);
    ASSERT_EQ(lxAdminGetFullBandIQ(h, lo, v.data()), lxNoError);
    EXPECT_EQ(e2e::Get(lxGetCurrentMode, h), lxModeIdle);
    std::vector<cd> x(8192);
    for (size_t i = 0; i < x.size(); ++i) x[i] = cd(v[2 * i] - 576.0 / 32768, v[2 * i + 1] - 576.0 / 32768);
    double best = -400, bestF = 0;
    for (double f = -30e6; f <= 30e6; f += 7500) {
        const double p = FitTone(x, f, 61.44e6, false).dbm;
        if (p > best) best = p, bestF = f;
    }
    EXPECT_NEAR(bestF, 5.0025e6, 7500);
    EXPECT_GT(best, FitTone(x, 9e6, 61.44e6).dbm + 40);
}

} // namespace
