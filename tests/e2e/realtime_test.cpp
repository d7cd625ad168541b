// Real-time frames on simulated analyzers, checked against the scene.

#include <algorithm>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::Delivered;
using e2e::SceneOf;

// An analyzer paced at a quarter of the real rate (or slower, in a sanitizer
// run): unpaced, the USB thread keeps the sample ring full, and an FFT or
// accumulator thread that falls behind on an instrumented build then gives up
// spectra, which the density and the warnings would show.
std::string Paced(const std::string& keys = "") {
    return keys + (keys.empty() ? "" : ", ") + "\"pacing\": \"realtime\"" + e2e::PaceKey(0.25);
}

struct Frame {
    LxStatus status = lxNoError;
    std::vector<float> density, alpha, mn, mx;
    int32_t count = -1;
    uint64_t stamp = 0;
};

class RealTime : public e2e::SimTest {
protected:
    static constexpr int32_t kSerial = 40000201;
    double rbw = 0, start = 0, bin = 0, poi = 0;
    int32_t length = 0, width = 0, height = 0;

    void Open(const std::string& scene) { SimTest::Open(kSerial, scene); }

    // Settings beyond the limits are taken clamped.
    void Configure(double centre, double span, double rbwHz, int32_t window, double refLevel, double frameScale,
                   int32_t detector = 1, int32_t scale = 0) {
        for (LxStatus s : {lxSetRealTimeCenterSpan(h, centre, span), lxSetRealTimeRBW(h, rbwHz),
                           lxSetRealTimeWindow(h, window), lxSetRealTimeDetector(h, detector),
                           lxSetRealTimeScale(h, scale, refLevel, frameScale)})
            ASSERT_GE(s, lxNoError);
        ASSERT_EQ(lxConfigure(h, 2), lxNoError);
        ASSERT_EQ(lxGetRealTimeParameters(h, &rbw, &length, &start, &bin, &width, &height, &poi), lxNoError);
    }

    Frame Next() {
        const size_t cells = size_t(width) * size_t(height);
        Frame f{lxNoError, std::vector<float>(cells, NAN), std::vector<float>(cells, NAN),
                std::vector<float>(size_t(length), NAN), std::vector<float>(size_t(length), NAN)};
        f.status = lxGetRealTimeFrame(h, f.density.data(), f.alpha.data(), f.mn.data(), f.mx.data(), &f.count, &f.stamp);
        return f;
    }

    int32_t Column(double hz) const {
        return int32_t(std::lround((hz - start) / bin)) / (length / width);
    }
    float Cell(const std::vector<float>& frame, int32_t column, int32_t row) const {
        return frame[size_t(row) * size_t(width) + size_t(column)];
    }
};

// A tone's cell: its density climbs by 1/40 per frame up to 39/40; its alpha
// is 1 while the tone is on and fades by 0.92 per frame once it is gone.
TEST_F(RealTime, ToneCellFillsTo39Of40AndItsAlphaFadesWhenTheToneGoes) {
    const double tone = 1.0031e9, dbm = -30.0;
    Open(SceneOf({{tone, dbm}}, -150.0, Paced()));
    // Row 150 of a 100 dB frame is 41.4 dB below its top: the tone in its middle.
    Configure(1e9, 10e6, 100e3, 0, 0.0, 100.0);
    Frame f = Next();
    ASSERT_TRUE(Delivered(f.status)) << f.status;
    const int64_t k = std::lround((tone - start) / bin);
    EXPECT_NEAR(f.mx[size_t(k)], dbm, 0.3); // flat-top: the level wherever the tone falls in its bin
    const double top = f.mx[size_t(k)] + 100.0 - 150.0 / 2.56;
    Configure(1e9, 10e6, 100e3, 0, top, 100.0);
    ASSERT_EQ(length, width); // no decimation: one trace point per column
    const int32_t col = Column(tone);
    for (int32_t n = 0; n < 42; ++n) {
        f = Next();
        ASSERT_TRUE(Delivered(f.status)) << f.status << " frame " << n;
        ASSERT_EQ(f.count, n);
        const double expected = std::min(n + 1, 39) / 40.0;
        EXPECT_NEAR(Cell(f.density, col, 150), expected, 1e-6) << "frame " << n;
        EXPECT_EQ(Cell(f.alpha, col, 150), 1.0f);
        EXPECT_EQ(Cell(f.alpha, col, 170), 0.0f); // 8 dB above the tone: never hit
    }
    EXPECT_NEAR(f.mn[size_t(k)], f.mx[size_t(k)], 0.05);

    // The tone goes: its cell is not hit again and fades.
    ASSERT_EQ(lxSimSetScene(kSerial, SceneOf({{tone, -200.0}}, -150.0, Paced()).c_str()), lxNoError);
    // A reader slower than the frames (the scene change takes a while on an
    // instrumented build) skips some: the last hit may lie among them.
    int32_t lastHit = -1, previousCount = f.count;
    float previous = 1.0f;
    int32_t fading = 0;
    for (int32_t n = 0; n < 80 && fading < 10; ++n) {
        f = Next();
        ASSERT_TRUE(Delivered(f.status)) << f.status;
        const float a = Cell(f.alpha, col, 150);
        const int32_t gap = f.count - previousCount;
        if (a == 1.0f) {
            lastHit = f.count;
        } else if (lastHit >= 0) {
            const double since = std::log(a) / std::log(0.92); // frames since the last hit
            EXPECT_NEAR(since, std::round(since), 1e-3) << "frame " << f.count;
            if (previous < 1.0f) {
                EXPECT_NEAR(a, previous * std::pow(0.92f, float(gap)), 1e-6f) << "frame " << f.count;
            } else {
                EXPECT_GE(std::lround(since), 1) << "frame " << f.count;
                EXPECT_LE(std::lround(since), f.count - lastHit) << "frame " << f.count;
            }
            ++fading;
        }
        previous = a;
        previousCount = f.count;
    }
    EXPECT_EQ(fading, 10);
    EXPECT_LT(f.mx[size_t(k)], -80.0f); // the noise peaks: -99 dBm per bin on average
}

// A tone at its frequency and level in both traces: band 0 (mirrored) and
// others, both scales, long spectra and short (transformed in batches), both
// detectors.
TEST_F(RealTime, ToneAtItsFrequencyAndLevel) {
    const struct {
        double centre, tone;
        int32_t scale;
        double expected; // dBm, or mV into 50 ohm
        double rbw = 30e3;
        int32_t detector = 1;
    } cases[] = {{1e9, 1.0042e9, 0, -30.0},
                 {20e6, 27.3e6, 0, -30.0},
                 {1e9, 0.9913e9, 1, 223.6 * std::sqrt(1e-3)},
                 {2.4e9, 2.4051e9, 2, NAN}, // no step gain: only checked for its place
                 {1e9, 1.0042e9, 0, -30.0, 1e6},
                 {20e6, 27.3e6, 0, -30.0, 1e6},
                 {1e9, 0.9913e9, 0, -30.0, 30e3, 0},
                 {5.8e9, 5.7971e9, 0, -30.0, 1e6, 0}};
    Open("");
    for (const auto& c : cases) {
        ASSERT_EQ(lxSimSetScene(kSerial, SceneOf({{c.tone, -30.0}}).c_str()), lxNoError);
        Configure(c.centre, 20e6, c.rbw, 0, 0.0, 100.0, c.detector, c.scale);
        Next();
        const Frame f = Next();
        ASSERT_TRUE(Delivered(f.status)) << f.status;
        const int64_t peak = e2e::Strongest(f.mx);
        EXPECT_NEAR(start + peak * bin, c.tone, 1.01 * bin) << c.centre << " " << c.rbw << " " << c.detector;
        if (!std::isnan(c.expected)) {
            const double tol = c.scale == 1 ? 0.06 * c.expected : 0.5;
            EXPECT_NEAR(f.mx[size_t(peak)], c.expected, tol) << c.centre;
            EXPECT_NEAR(f.mn[size_t(peak)], c.expected, tol) << c.centre;
        }
    }
}

// Pure noise: the rows' share of a column's hits follows the exponential law
// of periodogram power, of mean density times the reported RBW.
TEST_F(RealTime, NoiseRowsFollowTheExponentialLawOfPeriodogramPower) {
    const double density = -140.0; // dBm/Hz, far above the ADC's own noise
    Open(SceneOf({{1e9, -200.0}}, density));
    const double top = -40.0, range = 60.0; // 0.2344 dB per row
    Configure(1e9, 10e6, 200e3, 1, top, range);
    Frame f;
    for (int i = 0; i < 39; ++i) {
        f = Next();
        ASSERT_TRUE(Delivered(f.status)) << f.status;
    }
    const double meanDbm = density + 10.0 * std::log10(rbw);
    const double rowsPerDb = 2.56 * 100.0 / range;
    // Rows as the API computes them: round((v + B - A) * rowsPerDb), clamped.
    auto cdf = [&](double row) { // P(row index < row), row a half-integer
        const double v = row / rowsPerDb - range + top;
        return 1.0 - std::exp(-std::pow(10.0, (v - meanDbm) / 10.0));
    };
    std::vector<double> seen(size_t(height), 0.0);
    const int32_t c0 = width / 4, c1 = 3 * width / 4; // away from the capture's edges
    for (int32_t c = c0; c < c1; ++c)
        for (int32_t r = 0; r < height; ++r) seen[size_t(r)] += Cell(f.density, c, r) / 0.975 / (c1 - c0);
    double measured = 0, expected = 0, worst = 0, meanRow = 0, expectedMeanRow = 0;
    for (int32_t r = 0; r < height; ++r) {
        const double p = (r == height - 1 ? 1.0 : cdf(r + 0.5)) - (r == 0 ? 0.0 : cdf(r - 0.5));
        measured += seen[size_t(r)];
        expected += p;
        worst = std::max(worst, std::fabs(measured - expected));
        meanRow += r * seen[size_t(r)];
        expectedMeanRow += r * p;
    }
    EXPECT_NEAR(measured, 1.0, 1e-6);
    EXPECT_LT(worst, 0.03) << "largest distance of the cumulative distributions";
    EXPECT_NEAR(meanRow, expectedMeanRow, 0.3 * rowsPerDb) << "mean level within 0.3 dB";
}

// Warnings, each covering what happened since the last read, weakest first.
TEST_F(RealTime, WarningsFollowTheSceneAndTheFaultsInTheirPrecedence) {
    const double tone = 1.002e9;
    Open(SceneOf({{tone, -30.0}}, -150.0, Paced()));
    Configure(1e9, 20e6, 1e6, 0, 0.0, 100.0);
    auto settle = [&](LxStatus want) {
        LxStatus s = lxNoError;
        for (int i = 0; i < 40 && (s = Next().status) != want;) ++i;
        return s;
    };
    EXPECT_EQ(Next().status, lxNoError);
    // 3 degrees warmer than at configure.
    ASSERT_EQ(lxSimSetScene(kSerial, SceneOf({{tone, -30.0}}, -150.0, Paced("\"temperature_c\": 28")).c_str()), lxNoError);
    EXPECT_EQ(settle(lxTempDrift), lxTempDrift);
    EXPECT_EQ(Next().status, lxTempDrift);
    // Overflow beats drift.
    ASSERT_EQ(lxSimSetScene(kSerial, SceneOf({{tone, 15.0}}, -150.0, Paced("\"temperature_c\": 28")).c_str()), lxNoError);
    EXPECT_EQ(settle(lxADCOverflow), lxADCOverflow);
    // Framing beats overflow, once.
    ASSERT_EQ(lxSimInjectFault(kSerial, lxSimFaultBadMagic, 1), lxNoError);
    EXPECT_EQ(settle(lxFramingErr), lxFramingErr);
    EXPECT_EQ(settle(lxADCOverflow), lxADCOverflow);
    ASSERT_EQ(lxSimSetScene(kSerial, SceneOf({{tone, -30.0}}, -150.0, Paced()).c_str()), lxNoError);
    EXPECT_EQ(settle(lxNoError), lxNoError);
}

// A paced analyzer whose timeline jumps 100 ms ahead overruns its buffer:
// the loss beats the overload and framing beats the loss; the stream health
// counts each.
TEST_F(RealTime, LostSamplesAtTheAnalyzerBeatTheOverload) {
    Open(SceneOf({{1.001e9, 15.0}}, -150.0, "\"pacing\": \"realtime\""));
    Configure(1e9, 20e6, 100e3, 1, 0.0, 100.0);
    LxStatus s = Next().status;
    EXPECT_TRUE(s == lxADCOverflow || s == lxUncalData) << s; // a loaded host may fall behind too
    ASSERT_EQ(lxSimAdvanceTimeMs(100), lxNoError);
    for (int i = 0; i < 40 && (s = Next().status) != lxUncalData; ++i) {}
    EXPECT_EQ(s, lxUncalData);
    // Both have arrived after half a second.
    ASSERT_EQ(lxSimAdvanceTimeMs(100), lxNoError);
    ASSERT_EQ(lxSimInjectFault(kSerial, lxSimFaultBadMagic, 1), lxNoError);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(Next().status, lxFramingErr);
    LxStreamHealth health{};
    ASSERT_EQ(lxGetStreamHealth(h, &health), lxNoError);
    EXPECT_GT(health.dataLossEvents, 0u);
    EXPECT_GT(health.adcOverflowEvents, 0u);
    EXPECT_EQ(health.transportErrors, 0u);
}

// RBW -> window length -> FFT size, the span's bins and their halving, and
// the probability-of-intercept time, at and beyond the limits.
TEST_F(RealTime, SetUpFiguresFollowTheWindowAndTheSpan) {
    const struct { double span, rbw; int32_t window; double actualRbw; int32_t fft, width, decimation; } cases[] = {
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
    Open("");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rbw);
        Configure(2.4e9, c.span, c.rbw, c.window, 0.0, 100.0);
        EXPECT_NEAR(rbw, c.actualRbw, 1e-9 * c.actualRbw);
        EXPECT_DOUBLE_EQ(bin, 61.44e6 / c.fft);
        EXPECT_DOUBLE_EQ(poi, 1.5 * c.fft / 61.44e6);
        EXPECT_EQ(width, c.width);
        EXPECT_EQ(length, c.width * c.decimation);
        EXPECT_EQ(height, 256);
        // The trace starts at or just below the requested start and reaches the stop.
        EXPECT_LE(start, 2.4e9 - c.span / 2 + 1e-3);
        EXPECT_GT(start, 2.4e9 - c.span / 2 - (c.decimation + 1) * bin);
        EXPECT_GE(start + (length - 1) * bin, 2.4e9 + c.span / 2 - 2 * c.decimation * bin);
    }
}

} // namespace
