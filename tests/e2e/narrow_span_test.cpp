// Sweeps of spans below 5 MHz through the public API on a simulated analyzer,
// checked against the scene: tone level and frequency across the range (the
// mirrored 0 Hz band and the low-frequency rise included), the noise floor
// against the scene's density, the reported figures against the trace, and
// the warnings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::Trace;

std::string Scene(double toneHz, double toneDbm, double noiseDbmHz) {
    return e2e::SceneOf(toneHz > 0 ? std::vector<e2e::Tone>{{toneHz, toneDbm}} : std::vector<e2e::Tone>{}, noiseDbmHz);
}

class NarrowSpan : public e2e::SimTest {
protected:
    static constexpr int32_t kSerial = 41000001;
    int32_t h = -1;

    void SetUp() override { h = AttachAndOpen(kSerial, Scene(0, 0, -150)); }

    // `fault` is injected once, between configure and the sweep.
    Trace Measure(double centre, double span, double rbw, double vbw, int32_t fault = lxSimFaultNone) {
        e2e::SetSweep(h, centre - span / 2, centre + span / 2, rbw, vbw, 1e-6);
        Trace t;
        if (!e2e::ConfigureSweep(h, t)) return t;
        if (fault != lxSimFaultNone) {
            EXPECT_EQ(lxSimInjectFault(kSerial, fault, 1), lxNoError);
        }
        e2e::ReadSweep(h, t);
        return t;
    }
};

// A -30 dBm tone off the span's centre reads -30 dBm within 0.2 dB in the bin
// of its frequency, with the trace's frequencies from lxGetSweepParameters.
TEST_F(NarrowSpan, ToneReadsItsPowerAtItsFrequency) {
    struct Case { double centre, span, offset, rbw; };
    const Case cases[] = {
        {20e6, 1e6, -0.31e6, 3e3},     // band 0: the capture is mirrored
        {3.2e6, 4e6, 1.1e6, 10e3},     // band 0, on the low-frequency rise
        {37.5e6, 1e6, 0.4e6, 3e3},     // band 0 next to its top edge
        {1e9, 4e6, 1.3e6, 10e3},
        {2.4e9, 100e3, 20e3, 300},
        {5.8e9, 1e6, -0.45e6, 1e3},
        {9.87e9, 1e6, 0.123e6, 3e3},   // 960 kHz tuning steps: the capture centre lies off the span's
        {14.2e9, 4e6, -1.7e6, 30e3},
        {750e6, 30e3, -7e3, 100},      // D = 256
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("centre " + std::to_string(c.centre) + " span " + std::to_string(c.span));
        const double f = c.centre + c.offset;
        ASSERT_EQ(lxSimSetScene(kSerial, Scene(f, -30.0, -150.0).c_str()), lxNoError);
        const Trace t = Measure(c.centre, c.span, c.rbw, c.rbw);
        ASSERT_GT(t.length, 0);
        EXPECT_EQ(t.status, lxNoError);
        EXPECT_EQ(t.length % 2, 0);
        EXPECT_LE(t.start, c.centre - c.span / 2);
        EXPECT_GE(t.start + (t.length - 1) * t.bin, c.centre + c.span / 2);
        const auto peak = std::max_element(t.mx.begin(), t.mx.end()) - t.mx.begin();
        EXPECT_LE(std::abs(t.start + double(peak) * t.bin - f), t.bin) << "peak at bin " << peak;
        EXPECT_NEAR(t.mx[size_t(peak)], -30.0, 0.2);
        EXPECT_FLOAT_EQ(t.mn[size_t(peak)], t.mx[size_t(peak)]); // average detector: one trace
    }
}

// Without tones the trace is the scene's noise density in the actual RBW,
// whatever the split of the decimation between device and host.
TEST_F(NarrowSpan, NoiseFloorIsTheScenesDensityInTheRbw) {
    struct Case { double centre, span, rbw; };
    const Case cases[] = {{1.5e9, 4e6, 10e3}, {433e6, 1e6, 3e3}, {6.1e9, 100e3, 1e3}, {11e6, 2e6, 10e3}};
    const double density = -140.0;
    ASSERT_EQ(lxSimSetScene(kSerial, Scene(0, 0, density).c_str()), lxNoError);
    for (const Case& c : cases) {
        SCOPED_TRACE("centre " + std::to_string(c.centre) + " span " + std::to_string(c.span));
        const Trace t = Measure(c.centre, c.span, c.rbw, c.rbw / 10);
        ASSERT_GT(t.length, 0);
        EXPECT_EQ(t.status, lxNoError);
        double sum = 0;
        for (float v : t.mx) sum += std::pow(10.0, v / 10.0);
        const double mean = 10 * std::log10(sum / t.length);
        EXPECT_NEAR(mean, density + 10 * std::log10(t.rbw), 1.0);
        // The actual RBW is the requested one to within a window length's rounding.
        EXPECT_NEAR(t.rbw, c.rbw, c.rbw * 0.01);
    }
}

// The warnings of the sweep, strongest first; the trace arrives with them,
// and the next sweep is clean again.
TEST_F(NarrowSpan, WarningsComeFromTheStatusPacket) {
    struct Case { const char* name; double toneDbm; int32_t fault; LxStatus expected; };
    const Case cases[] = {
        {"clean", -30.0, lxSimFaultNone, lxNoError},
        {"ADC overflow", 20.0, lxSimFaultNone, lxADCOverflow},
        {"bad status packet", -30.0, lxSimFaultBadMagic, lxFramingErr},
        {"framing before overflow", 20.0, lxSimFaultBadMagic, lxFramingErr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(lxSimSetScene(kSerial, Scene(300.1e6, c.toneDbm, -150.0).c_str()), lxNoError);
        Trace t = Measure(300e6, 1e6, 10e3, 10e3, c.fault);
        EXPECT_EQ(t.status, c.expected);
        if (c.toneDbm < 0) {
            EXPECT_NEAR(t.mx[size_t(t.PeakIndex(300.1e6))], -30.0, 0.2);
        }
        e2e::ReadSweep(h, t);
        EXPECT_EQ(t.status, c.toneDbm < 0 ? lxNoError : lxADCOverflow);
    }
}

} // namespace
