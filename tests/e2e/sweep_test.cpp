// Swept spectra on simulated analyzers, checked against the scene.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::SceneOf;
using e2e::Tone;

std::string Temperature(double c) { return "\"temperature_c\": " + std::to_string(c); }
const std::string kPaced = "\"pacing\": \"realtime\"";

// A swept trace and its figures.
struct Trace {
    LxStatus status = lxNoError;
    std::vector<float> mn, mx;
    double rbw = 0, vbw = 0, start = 0, bin = 0;
    int32_t length = 0;
    uint64_t stamp = 0;

    int64_t PeakIndex(double hz) const { // the largest max-trace value within 3 bins of hz
        const int64_t c = std::llround((hz - start) / bin);
        int64_t best = std::clamp<int64_t>(c, 0, length - 1);
        for (int64_t i = std::max<int64_t>(c - 3, 0); i <= std::min<int64_t>(c + 3, length - 1); ++i)
            if (mx[size_t(i)] > mx[size_t(best)]) best = i;
        return best;
    }
    double Frequency(int64_t i) const { return start + static_cast<double>(i) * bin; }
};

class Sweep : public e2e::SimTest {
protected:
    static constexpr int32_t kSerial = 40000001;
    void Open(const std::string& scene) { SimTest::Open(kSerial, scene); }
    // Detector, units, scale and window as their enumerations.
    void Set(double start, double stop, double rbw, double vbw, double sweepTime, int32_t detector = 0,
             int32_t units = 2, int32_t scale = 0, int32_t window = 0) {
        for (LxStatus s : {lxSetSweepStartStop(h, start, stop), lxSetSweepCoupling(h, rbw, vbw, sweepTime),
                           lxSetSweepDetector(h, detector, units), lxSetSweepScale(h, scale),
                           lxSetSweepWindow(h, window)})
            EXPECT_EQ(s, lxNoError);
    }
    // Configures mode 1 and sizes the trace; false when there is none.
    bool Configure(Trace& t) {
        EXPECT_EQ(lxConfigure(h, 1), lxNoError);
        if (lxGetSweepParameters(h, &t.rbw, &t.vbw, &t.start, &t.bin, &t.length) != lxNoError) return false;
        t.mn.assign(size_t(std::max(t.length, 0)), NAN);
        t.mx.assign(size_t(std::max(t.length, 0)), NAN);
        return t.length > 0;
    }
    void Read(Trace& t) { t.status = lxGetSweep(h, t.mn.data(), t.mx.data(), &t.stamp); }
    Trace Measure() {
        Trace t;
        if (Configure(t)) Read(t);
        return t;
    }
};

// 45 tones of -30 dBm in one full-span sweep: the mirrored 0 Hz band and its
// rise below 8.7 MHz, edges between steps (each side from a different step),
// the edges of the stored low rows, band switching points, the top.
const double kToneHz[] = {
    100e3,    1.5e6,     5e6,      10.3e6,   20e6,      31e6,      38.4e6,   45.1e6,   61.44e6,   75e6,     92.16e6,
    122.88e6, 150e6,     200e6,    276.48e6, 299.52e6,  330.01e6,  500e6,    698.88e6, 800e6,     944.64e6, 975.36e6,
    1006.08e6, 1021.44e6, 1100.7e6, 1405.44e6, 1958.4e6, 2400e6,   2880e6,   3500.3e6, 4300e6,    5429.76e6, 6000e6,
    7100e6,   8409.6e6,  9000.2e6, 10000e6,  11000e6,   11635.2e6, 12345.6e6, 13000e6, 13900e6,   14500e6,  14800e6,
    14900e6};

struct ScaleCase { const char* name; int32_t units, scale; double expected, tolerance; /* what -30 dBm reads */ };
class ToneLevels : public Sweep, public ::testing::WithParamInterface<ScaleCase> {};

TEST_P(ToneLevels, EveryToneAtItsLevelAndFrequency) {
    const ScaleCase& c = GetParam();
    std::vector<Tone> tones;
    for (double f : kToneHz) tones.push_back({f, -30.0});
    Open(SceneOf(tones));
    Set(9e3, 1.5e10, 1e6, 1e6, 1e-6, 0, c.units, c.scale);
    // Eight tones share the 0 Hz band's capture: without 10 dB of attenuation
    // their sum clips the ADC (which the sweep would rightly report).
    ASSERT_EQ(lxSetAttenuator(h, 2), lxNoError);
    const Trace t = Measure();
    ASSERT_EQ(t.status, lxNoError);
    ASSERT_EQ(t.bin, 240000.0);
    for (double f : kToneHz) {
        const int64_t i = t.PeakIndex(f);
        EXPECT_NEAR(t.mx[size_t(i)], c.expected, c.tolerance) << f;
        EXPECT_LE(std::abs(t.Frequency(i) - f), t.bin) << f;
        EXPECT_EQ(t.mn[size_t(i)], t.mx[size_t(i)]) << f; // average detector: one trace
    }
}

// -30 dBm into 50 ohm is 7.071 mV; 0.2 dB either way is 2.3 %.
INSTANTIATE_TEST_SUITE_P(Scales, ToneLevels,
                         ::testing::Values(ScaleCase{"LogPower", 2, 0, -30.0, 0.2}, ScaleCase{"LogVideoLog", 0, 0, -30.0, 0.2},
                                           ScaleCase{"LinearPower", 2, 1, 7.0711, 0.161},
                                           ScaleCase{"LinearVideoLog", 0, 1, 7.0711, 0.161}),
                         [](const auto& info) { return std::string(info.param.name); });

// Spans under 5 MHz are one decimated capture (5 MHz is stepped): a tone
// reads its level in the bin of its frequency.
TEST_F(Sweep, NarrowSpanToneReadsItsPowerAtItsFrequency) {
    struct Case { double centre, span, offset, rbw; };
    const Case cases[] = {
        {20e6, 1e6, -0.31e6, 3e3},   // band 0: the capture is mirrored
        {3.2e6, 4e6, 1.1e6, 10e3},   // band 0, on the low-frequency rise
        {37.5e6, 1e6, 0.4e6, 3e3},   // band 0 next to its top edge
        {1e9, 4e6, 1.3e6, 10e3},     {2.4e9, 100e3, 20e3, 300}, {5.8e9, 1e6, -0.45e6, 1e3},
        {9.87e9, 1e6, 0.123e6, 3e3}, // 960 kHz tuning steps: the capture centre lies off the span's
        {14.2e9, 4e6, -1.7e6, 30e3}, {750e6, 30e3, -7e3, 100}, // D = 256
        {1e9, 4.9e6, 1.3e6, 1e6},    {1e9, 5e6, 1.3e6, 1e6},   // either side of the stepped span
    };
    Open(SceneOf({}));
    for (const Case& c : cases) {
        SCOPED_TRACE("centre " + std::to_string(c.centre) + " span " + std::to_string(c.span));
        const double f = c.centre + c.offset;
        ASSERT_EQ(lxSimSetScene(kSerial, SceneOf({{f, -30.0}}).c_str()), lxNoError);
        Set(c.centre - c.span / 2, c.centre + c.span / 2, c.rbw, c.rbw, 1e-6);
        const Trace t = Measure();
        ASSERT_GT(t.length, 0);
        EXPECT_EQ(t.status, lxNoError);
        EXPECT_EQ(t.bin < 240000.0, c.span < 5e6);
        if (c.span < 5e6) {
            EXPECT_LE(t.start, c.centre - c.span / 2);
            EXPECT_GE(t.start + (t.length - 1) * t.bin, c.centre + c.span / 2);
        }
        const int64_t peak = e2e::Strongest(t.mx);
        EXPECT_LE(std::abs(t.Frequency(peak) - f), t.bin) << "peak at bin " << peak;
        EXPECT_NEAR(t.mx[size_t(peak)], -30.0, 0.2);
        EXPECT_FLOAT_EQ(t.mn[size_t(peak)], t.mx[size_t(peak)]);
    }
}

// The average detector's noise is the scene's density times the window's
// own noise bandwidth (the Gaussian's RBW factor, 2.65 bins, is not its
// bandwidth, 2.00). Averaging shrinks the spread (5.6 dB for a single
// periodogram), never moves the level.
struct NoiseCase {
    const char* name;
    double centre, span, rbw;
    int32_t window;
    double trueBandwidthBins; // the window's own noise bandwidth, from its formula
    double vbwRatio, sweepTime;
    double minSpread, maxSpread; // dB
};

class NoiseFloor : public Sweep, public ::testing::WithParamInterface<NoiseCase> {};

TEST_P(NoiseFloor, LevelIsDensityTimesNoiseBandwidth) {
    const NoiseCase& c = GetParam();
    const double density = -130.0;
    Open(SceneOf({}, density));
    Set(c.centre - c.span / 2, c.centre + c.span / 2, c.rbw, c.rbw * c.vbwRatio, c.sweepTime, 0, 2, 0, c.window);
    const Trace t = Measure();
    ASSERT_EQ(t.status, lxNoError);
    double sum = 0, sumDb = 0, sumDb2 = 0;
    for (float v : t.mx) sum += std::pow(10.0, v / 10.0), sumDb += v, sumDb2 += double(v) * v;
    const double n = double(t.length), mean = 10.0 * std::log10(sum / n), m = sumDb / n;
    const double spread = std::sqrt(std::max(sumDb2 / n - m * m, 0.0));
    const double factors[] = {3.7702, 2.0212, 1.73, 1.3628, 2.65, 1.0};
    // 0.5 dB: the mean of some 20000 correlated bins still wanders by 0.1 dB.
    EXPECT_NEAR(mean, density + 10.0 * std::log10(t.rbw * c.trueBandwidthBins / factors[c.window]), 0.5);
    EXPECT_NEAR(t.rbw, c.rbw, c.rbw * 0.01); // to within a window length's rounding
    EXPECT_GE(spread, c.minSpread);
    EXPECT_LE(spread, c.maxSpread);
}

INSTANTIATE_TEST_SUITE_P(
    WindowsAndAveraging, NoiseFloor,
    ::testing::Values(NoiseCase{"FlatTop", 250e6, 300e6, 100e3, 0, 3.7702, 1.0, 1e-6, 4.5, 6.5},
                      NoiseCase{"Blackman", 250e6, 300e6, 100e3, 2, 1.6937, 1.0, 1e-6, 4.5, 6.5},
                      NoiseCase{"Hamming", 250e6, 300e6, 100e3, 3, 1.3628, 1.0, 1e-6, 4.5, 6.5},
                      NoiseCase{"Gaussian", 250e6, 300e6, 100e3, 4, 1.9979, 1.0, 1e-6, 4.5, 6.5},
                      NoiseCase{"VbwTenthOfRbw", 250e6, 300e6, 100e3, 0, 3.7702, 0.1, 1e-6, 0.3, 2.5},
                      NoiseCase{"LongSweepTime", 250e6, 300e6, 100e3, 0, 3.7702, 1.0, 0.05, 0.1, 1.5},
                      NoiseCase{"Narrow4MHz", 1.5e9, 4e6, 10e3, 0, 3.7702, 0.1, 1e-6, 0.3, 2.5},
                      NoiseCase{"Narrow1MHz", 433e6, 1e6, 3e3, 0, 3.7702, 0.1, 1e-6, 0.3, 2.5},
                      NoiseCase{"Narrow100kHz", 6.1e9, 100e3, 1e3, 0, 3.7702, 0.1, 1e-6, 0.3, 2.5},
                      NoiseCase{"NarrowBandZero", 11e6, 2e6, 10e3, 0, 3.7702, 0.1, 1e-6, 0.3, 2.5}),
    [](const auto& info) { return std::string(info.param.name); });

// The detectors on noise, 61 segments per step. VBW = RBW: min/max keeps the
// extremes of the segments' power; of N exponentials the median largest is
// ln(N / ln 2) times the mean, the smallest ln 2 / N of it; the overlapping
// segments count as N = 15 .. 61: +4.9 .. +6.4 dB, -13.4 .. -19.4 dB. VBW =
// RBW / 10: a running mean over about 10 segments, within about 2 dB. Medians
// over the span, in dB against the average detector.
struct DetectorCase { const char* name; double vbwRatio; double maxAboveLo, maxAboveHi, minBelowLo, minBelowHi; };

class Detectors : public Sweep, public ::testing::WithParamInterface<DetectorCase> {};

TEST_P(Detectors, MinMaxBracketsTheAverageOfNoise) {
    const DetectorCase& c = GetParam();
    Open(SceneOf({}, -130.0));
    const auto measure = [&](int32_t detector) {
        Set(1.0e9, 1.02e9, 1e6, 1e6 * c.vbwRatio, 180e-6, detector, 2, 0);
        return Measure();
    };
    const Trace mm = measure(1), avg = measure(0);
    ASSERT_EQ(mm.status, lxNoError);
    ASSERT_EQ(avg.status, lxNoError);
    std::vector<double> above, below;
    for (int64_t i = 0; i < avg.length; ++i) {
        above.push_back(mm.mx[size_t(i)] - avg.mx[size_t(i)]);
        below.push_back(avg.mx[size_t(i)] - mm.mn[size_t(i)]);
        ASSERT_EQ(avg.mn[size_t(i)], avg.mx[size_t(i)]);
    }
    const auto median = [](std::vector<double> v) {
        std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    EXPECT_GT(median(above), c.maxAboveLo);
    EXPECT_LT(median(above), c.maxAboveHi);
    EXPECT_GT(median(below), c.minBelowLo);
    EXPECT_LT(median(below), c.minBelowHi);
}

INSTANTIATE_TEST_SUITE_P(Vbw, Detectors,
                         ::testing::Values(DetectorCase{"EqualToRbw", 1.0, 3.0, 7.5, 9.0, 20.0},
                                           DetectorCase{"TenthOfRbw", 0.1, 0.3, 3.0, 0.3, 4.0}),
                         [](const auto& info) { return std::string(info.param.name); });

// A sweep's warnings, strongest first: framing, overflow, temperature drift
// (more than 2 degrees from the configure's). The next sweep reports only
// what persists.
struct WarningCase {
    const char* name;
    double dbm, span;
    int32_t attenuator;
    double refLevel, temperature; // the temperature after the configure (30 before)
    int32_t fault;                // injected once, after the configure
    LxStatus expected, next;
};

class Warnings : public Sweep, public ::testing::WithParamInterface<WarningCase> {};

TEST_P(Warnings, ComeFromTheStatusPacketsInTheirPrecedence) {
    const WarningCase& c = GetParam();
    Open(SceneOf({{1.0001e9, c.dbm}}, -150.0, Temperature(30)));
    Set(1e9 - c.span / 2, 1e9 + c.span / 2, c.span < 5e6 ? 10e3 : 1e6, c.span < 5e6 ? 10e3 : 1e6, 1e-6);
    ASSERT_EQ(lxSetAttenuator(h, c.attenuator), lxNoError);
    ASSERT_EQ(lxSetRefLevel(h, c.refLevel), lxNoError);
    Trace t;
    ASSERT_TRUE(Configure(t));
    ASSERT_EQ(lxSimSetScene(kSerial, SceneOf({{1.0001e9, c.dbm}}, -150.0, Temperature(c.temperature)).c_str()), lxNoError);
    ASSERT_EQ(lxSimInjectFault(kSerial, c.fault, 1), lxNoError);
    Read(t);
    EXPECT_EQ(t.status, c.expected);
    if (c.expected == lxNoError && c.temperature == 30) {
        EXPECT_NEAR(t.mx[size_t(t.PeakIndex(1.0001e9))], c.dbm, 0.2);
    }
    float temperature = 0; // the status packets' reading
    EXPECT_EQ(lxGetDeviceDiagnostics(h, nullptr, nullptr, &temperature), lxNoError);
    if (c.fault == 0) {
        EXPECT_EQ(temperature, static_cast<float>(c.temperature));
    }
    Read(t);
    EXPECT_EQ(t.status, c.next);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Warnings,
    ::testing::Values(WarningCase{"Clean", -30, 20e6, 0, -20, 30, 0, lxNoError, lxNoError},
                      WarningCase{"NoAttenuation", 10, 20e6, 0, -20, 30, 0, lxADCOverflow, lxADCOverflow},
                      WarningCase{"ThirtyDb", 10, 20e6, 6, -20, 30, 0, lxNoError, lxNoError},
                      WarningCase{"AutoForMinus30Dbm", 10, 20e6, -1, -30, 30, 0, lxADCOverflow, lxADCOverflow},
                      WarningCase{"AutoForPlus10Dbm", 10, 20e6, -1, 10, 30, 0, lxNoError, lxNoError},
                      WarningCase{"TwoDegreesWarmer", -30, 20e6, 0, -20, 32, 0, lxNoError, lxNoError},
                      WarningCase{"QuarterMore", -30, 20e6, 0, -20, 32.25, 0, lxTempDrift, lxTempDrift},
                      WarningCase{"Colder", -30, 20e6, 0, -20, 27.5, 0, lxTempDrift, lxTempDrift},
                      WarningCase{"NarrowOverflow", 20, 1e6, 0, -20, 30, 0, lxADCOverflow, lxADCOverflow},
                      WarningCase{"FramingBeforeOverflow", 20, 1e6, 0, -20, 30, lxSimFaultBadMagic, lxFramingErr,
                                  lxADCOverflow},
                      WarningCase{"FramingBeforeDrift", -30, 20e6, 0, -20, 33, lxSimFaultBadMagic, lxFramingErr,
                                  lxTempDrift}),
    [](const auto& info) { return std::string(info.param.name); });

// A 0.28 s step at 450 Hz RBW (2^19-point FFTs) takes a work thread several
// times that: the store fills and a paced analyzer's buffer overflows. At
// full pace even where the analyzers of a sanitizer run are slowed down.
TEST_F(Sweep, SlowHostAgainstAPacedAnalyzerLosesSamples) {
    Open(SceneOf({{1.0125e9, -30.0}}, -150.0, kPaced + ", \"pace_rate\": 1"));
    Set(1.010e9, 1.015e9, 450.0, 450.0, 0.28);
    const Trace t = Measure();
    EXPECT_EQ(t.status, lxUncalData);
    EXPECT_NEAR(t.mx[size_t(t.PeakIndex(1.0125e9))], -30.0, 1.0); // still a spectrum
}

// Another thread ends a waiting 30 s sweep at once; only an unplug touches
// the outputs (steps without samples read empty).
struct InterruptCase { const char* name; LxStatus expected; void (*act)(int32_t handle, int32_t serial); };

class Interrupted : public Sweep, public ::testing::WithParamInterface<InterruptCase> {};

TEST_P(Interrupted, APendingSweepEndsAtOnce) {
    Open(SceneOf({{1.0125e9, -30.0}}, -150.0, kPaced));
    Set(1.010e9, 1.015e9, 1e6, 1e6, 30.0);
    Trace t;
    ASSERT_TRUE(Configure(t));
    ASSERT_EQ(lxSimResetCounters(kSerial), lxNoError);
    std::thread sweeper([&] { Read(t); });
    while (Get(lxSimGetCounters, kSerial).iqPackets == 0) std::this_thread::yield(); // the sweep is under way
    GetParam().act(h, kSerial);
    sweeper.join();
    EXPECT_EQ(t.status, GetParam().expected);
    if (t.status == lxConnectionLostErr) {
        EXPECT_LT(t.mx[size_t(t.PeakIndex(1.0125e9))], -300.0f);
    } else {
        EXPECT_TRUE(std::isnan(t.mx[0]));
    }
}

INSTANTIATE_TEST_SUITE_P(
    ByAnotherThread, Interrupted,
    ::testing::Values(InterruptCase{"Unplug", lxConnectionLostErr, [](int32_t, int32_t s) { lxSimDetach(s); }},
                      InterruptCase{"Abort", lxInvalidConfigurationErr, [](int32_t h, int32_t) { lxAbort(h); }},
                      InterruptCase{"Configure", lxInvalidConfigurationErr,
                                    [](int32_t h, int32_t) { EXPECT_EQ(lxConfigure(h, 1), lxNoError); }},
                      InterruptCase{"Close", lxInvalidDeviceErr, [](int32_t h, int32_t) { lxCloseDevice(h); }},
                      InterruptCase{"SecondRead", lxInvalidConfigurationErr,
                                    [](int32_t h, int32_t) {
                                        std::vector<float> other(1 << 20, 1.0f);
                                        EXPECT_EQ(lxGetSweep(h, other.data(), nullptr, nullptr), lxSweepAlreadyActiveErr);
                                        EXPECT_EQ(other[0], 1.0f);
                                        lxAbort(h);
                                    }}),
    [](const auto& info) { return std::string(info.param.name); });

// A user interface polls from its own thread while another sweeps.
TEST_F(Sweep, OtherCallsFromAnotherThreadWhileSweeping) {
    Open(SceneOf({{1.0125e9, -30.0}}, -150.0, Temperature(41.5)));
    Set(0.99e9, 1.04e9, 100e3, 100e3, 0.02);
    Trace t;
    ASSERT_TRUE(Configure(t));
    std::atomic<bool> done{false};
    std::atomic<int> polls{0}, failures{0};
    std::thread ui([&] {
        for (; !done; ++polls) {
            float temperature = 0, setPoint = 0;
            uint32_t state = 0, updated = 0;
            const uint8_t gps[] = {'$', 'P', '\r', '\n'};
            failures += !(lxGetDeviceDiagnostics(h, nullptr, nullptr, &temperature) == lxNoError && temperature == 41.5f &&
                          lxGetGPSState(h, &state) == lxNoError &&
                          lxGetGPSInfo(h, 1, &updated, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) == lxNoError &&
                          lxSetFanSetPoint(h, 40.0f) == lxNoError && lxGetFanSettings(h, &setPoint, nullptr) == lxNoError &&
                          lxWriteToGPS(h, gps, 4) == lxNoError);
        }
    });
    uint64_t previous = 0;
    for (int i = 0; i < 6; ++i, previous = t.stamp) {
        Read(t);
        EXPECT_EQ(t.status, lxNoError);
        EXPECT_NEAR(t.mx[size_t(t.PeakIndex(1.0125e9))], -30.0, 0.2);
        EXPECT_GE(t.stamp, previous + 20000000); // device time of the sweep's end: 20 ms or more later
    }
    done = true;
    ui.join();
    EXPECT_GT(polls.load(), 0);
    EXPECT_EQ(failures.load(), 0);
    float setPoint = 0;
    EXPECT_EQ(lxGetFanSettings(h, &setPoint, nullptr), lxNoError);
    EXPECT_EQ(setPoint, 40.0f);
}

// The window length's ceiling of 2^20 samples coarsens a finer RBW (flat-top:
// 3.7702 * 61.44 MHz / 2^20 = 220.9 Hz), with a warning.
TEST_F(Sweep, RbwBeyondTheLongestWindowIsAWarning) {
    Open(SceneOf({}));
    const struct { double rbw; LxStatus expected; double actual; } cases[] = {
        {222.0, lxNoError, 222.0}, {100.0, lxSettingClamped, 220.9}, {1e-3, lxSettingClamped, 220.9}};
    for (const auto& c : cases) {
        Set(1e9, 1.1e9, c.rbw, c.rbw, 1e-6);
        EXPECT_EQ(lxConfigure(h, 1), c.expected) << c.rbw;
        double rbw = 0;
        EXPECT_EQ(lxGetSweepParameters(h, &rbw, nullptr, nullptr, nullptr, nullptr), lxNoError);
        EXPECT_NEAR(rbw, c.actual, 0.1) << c.rbw;
    }
}

// At and between the record's temperature points (-30 to 60 C) a tone's
// corrected level does not move.
class TemperatureBracket : public Sweep, public ::testing::WithParamInterface<double> {};

TEST_P(TemperatureBracket, ToneLevelDoesNotMoveWithTemperature) {
    const std::vector<Tone> tones = {{12.5e6, -30.0}, {433.92e6, -30.0}, {5800e6, -30.0}, {13900.5e6, -30.0}};
    Open(SceneOf(tones, -150.0, Temperature(GetParam())));
    Set(5e6, 14.5e9, 300e3, 300e3, 1e-6);
    const Trace t = Measure();
    ASSERT_EQ(t.status, lxNoError);
    for (const auto& tone : tones) {
        const int64_t i = t.PeakIndex(tone.hz);
        EXPECT_NEAR(t.mx[size_t(i)], tone.dbm, 0.2) << tone.hz << " Hz at " << GetParam() << " C";
        EXPECT_LE(std::fabs(t.Frequency(i) - tone.hz), t.bin) << tone.hz;
    }
}

INSTANTIATE_TEST_SUITE_P(Temperatures, TemperatureBracket, ::testing::Values(-30.0, -8.25, 15.0, 33.75, 52.5, 60.0));

} // namespace
