// The tuning planner against hand-derived rows, and against what the
// simulated synthesizer makes of its words.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "lx_command/encoders.h"
#include "lx_lib/tuning_planner.h"
#include "../support/device_words.h"

namespace lx {
namespace {

// What the simulated device tunes to from the plan's words.
wordtest::DeviceReading Tune(const TuningPlan& plan) {
    TuningState state;
    uint32_t words[kTuneMaxWords];
    const int n = EncodePlanTune(state, words, plan, 4, 0);
    return wordtest::ReadWords(words, static_cast<size_t>(n));
}

TEST(StepTable, RowsAbutAndObeyTheLoRule) {
    for (int outside : {0, -1, 490}) EXPECT_EQ(StepTableRow(outside).highHz, 0.0); // row 0: all zero
    for (int i = 1; i <= kLastStep; ++i) {
        SCOPED_TRACE(i);
        const StepRow& r = StepTableRow(i);
        EXPECT_DOUBLE_EQ(r.tuningHz - r.centreHz, i == 1 ? 38.4e6 : 23.04e6);
        if (i < kLastStep) {
            EXPECT_EQ(r.highHz, StepTableRow(i + 1).lowHz);
        }
        // Every frequency of a row takes the path of its centre.
        const int band = TuneBand(r.centreHz, false);
        EXPECT_EQ(TuneBand(r.lowHz, false), band);
        EXPECT_EQ(TuneBand(std::nextafter(r.highHz, 0.0), false), band);
        // The kept bins are the row's band: [low, high) around the centre.
        if (i > 1) {
            EXPECT_DOUBLE_EQ(r.centreHz - 30.72e6 + r.firstBinFraction * 61.44e6, r.lowHz);
            EXPECT_DOUBLE_EQ(r.lowHz + r.binCountFraction * 61.44e6, r.highHz);
        }
    }
    // Hand values: the rule from row 11 on, and the stored rows around it.
    const struct {
        int row;
        double tuning, centre, low, high, first, count;
    } rows[] = {{1, 61.44e6, 23.04e6, 0, 38.4e6, 0.125, 0.625},
                {11, 337.92e6, 314.88e6, 299.52e6, 330.24e6, 0.25, 0.5},
                {489, 15022.08e6, 14999.04e6, 14983.68e6, 15014.4e6, 0.25, 0.5}};
    for (const auto& h : rows) {
        const StepRow& r = StepTableRow(h.row);
        EXPECT_DOUBLE_EQ(r.tuningHz, h.tuning) << h.row;
        EXPECT_DOUBLE_EQ(r.centreHz, h.centre) << h.row;
        EXPECT_DOUBLE_EQ(r.lowHz, h.low) << h.row;
        EXPECT_DOUBLE_EQ(r.highHz, h.high) << h.row;
        EXPECT_EQ(r.firstBinFraction, h.first) << h.row;
        EXPECT_EQ(r.binCountFraction, h.count) << h.row;
    }
}

TEST(StepTable, SweepEndsAndCaptureRows) {
    const struct { double hz; int first, last, holding; } cases[] = {
        {0.0, 1, 1, 1},
        {38.39e6, 1, 1, 1},
        {38.4e6, 2, 2, 2},           // an edge belongs to the row above it
        {100e6, 4, 4, 4},
        {299.52e6, 11, 11, 11},
        {1e9, 33, 33, 33},           // [990.72, 1021.44) MHz
        {14983.68e6, 1, 489, 489},   // no low edge above: the first step falls back to 1
        {16e9, 1, 489, 489},         // above the table: the last step clamps
        {-1e6, 1, 1, 1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FirstSweepStep(c.hz), c.first) << c.hz;
        EXPECT_EQ(LastSweepStep(c.hz), c.last) << c.hz;
        EXPECT_EQ(StepForFrequency(c.hz), c.holding) << c.hz;
    }
    EXPECT_EQ(StepForFrequency(std::nan("")), 1);
}

// Every step row is reached exactly: the device tunes its centre, on its path.
TEST(TuningPlan, StepsTuneExactlyToTheirRows) {
    for (int i = kFirstStep; i <= kLastStep; ++i) {
        const TuningPlan p = PlanStep(i);
        const StepRow& r = StepTableRow(i);
        EXPECT_EQ(p.loHz, r.tuningHz);
        EXPECT_EQ(p.tunedLoHz, r.tuningHz);
        EXPECT_EQ(p.captureCentreHz, r.centreHz);
        EXPECT_EQ(p.mirrored, i == 1);
        const auto t = Tune(p);
        EXPECT_EQ(t.path.band, p.band) << i;
        EXPECT_NEAR(t.centreHz, r.centreHz, 1e-6) << i;
    }
}

TEST(TuningPlan, CaptureCentreWithinTheSynthesizerResolution) {
    const struct {
        double centre;
        int band;
        double resolution; // hand-derived: 960 kHz / (divider * doubling)
    } cases[] = {
        {0.0, 0, 960e3 / 256},            // LO 38.4 MHz
        {1.0e6, 0, 960e3 / 256},          // LO 39.4 MHz, still below 40 MHz
        {10.0e6, 0, 960e3 / 192},         // LO 48.4 MHz
        {37.0e6, 0, 960e3 / 128},         // LO 75.4 MHz
        {38.4e6, 1, 960e3 / (64 * 2)},    // LO 61.44 MHz, synthesizer 122.88 MHz
        {100.001e6, 2, 960e3 / (32 * 2)}, // synthesizer 246.08 MHz
        {433.92e6, 4, 960e3 / (12 * 2)},  // synthesizer 913.92 MHz
        {915.0e6, 13, 960e3 / 12},        // LO 938.04 MHz, not doubled
        {2.4e9, 9, 960e3 / 4},
        {5.8e9, 11, 960e3 / 2},
        {10.0e9, 12, 960e3 / 1},
        {14.9e9, 14, 960e3 / 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.centre);
        const TuningPlan p = PlanCapture(c.centre);
        EXPECT_EQ(p.band, c.band);
        EXPECT_DOUBLE_EQ(p.resolutionHz, c.resolution);
        EXPECT_LE(StepTableRow(p.step).lowHz, c.centre);
        EXPECT_GT(StepTableRow(p.step).highHz, c.centre);
    }
}

// Many centres across the range, near divider switch points included: the
// plan's C is what the device makes and is within half a step of the request
// (whose size the hand-worked cases above pin).
TEST(TuningPlan, CaptureCentresHoldAcrossTheRange) {
    std::mt19937_64 rng(530);
    std::uniform_real_distribution<double> uniform(0.0, 15.0e9);
    std::vector<double> centres(3000);
    for (double& c : centres) c = uniform(rng);
    // Synthesizer frequencies just either side of the divider thresholds.
    for (double threshold : {7.5e9, 3.75e9, 1.875e9, 1.4375e9, 9.425e8, 6.4e8, 4.74e8, 3.2e8, 2.37e8, 1.6e8})
        for (double eps : {-1e3, -1.0, 0.0, 1.0, 1e3})
            for (double m : {1.0, 2.0}) centres.push_back((threshold + eps) / m - 23.04e6);
    for (double c : centres) {
        if (c < 0) continue;
        const TuningPlan p = PlanCapture(c);
        ASSERT_LE(std::abs(p.captureCentreHz - c), p.resolutionHz / 2 + 1e-3) << c;
        const auto t = Tune(p);
        ASSERT_EQ(t.path.band, p.band) << c;
        ASSERT_NEAR(t.centreHz, p.captureCentreHz, 1e-6) << c;
        // The cell of C, or its neighbour when C's cell has its middle in the
        // next row (D and E refer to the row holding the middle).
        const double middle = (p.fineCell + 0.5) * 3.75e6;
        ASSERT_GE(middle, StepTableRow(p.step).lowHz) << c;
        ASSERT_LT(middle, StepTableRow(p.step).highHz) << c;
        ASSERT_LE(std::abs(p.fineCell - static_cast<int>(p.captureCentreHz / 3.75e6)), 1) << c;
    }
    // Out of range requests are clamped, not refused.
    EXPECT_EQ(PlanCapture(-5e6).captureCentreHz, PlanCapture(0.0).captureCentreHz);
    EXPECT_EQ(PlanCapture(std::nan("")).step, 1);
    EXPECT_EQ(PlanCapture(20e9).step, kLastStep);
    EXPECT_EQ(PlanStep(600).step, kLastStep);
}

} // namespace
} // namespace lx
