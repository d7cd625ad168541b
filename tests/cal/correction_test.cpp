// Correction lookups against hand-derived values, taps against SciPy.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <numbers>
#include <sstream>
#include <string>
#include <vector>

#include "../common/python_reference.h"
#include "cal/cal_record.h"
#include "cal/correction.h"

namespace lx {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// A distinct value for every table (0..4 = A..E), slot and entry, so that a
// lookup at the wrong place shows. Slot 3 of frequency index 7 and of cell 99
// is unreadable (NaN): only a lookup that takes slot 4 alone survives it.
float V(int table, int slot, int entry) { return 0.9f + 0.1f * table + 0.01f * slot + 1e-5f * entry; }

std::vector<uint8_t> PatternRecord() {
    std::vector<uint8_t> r(calSizeBytes);
    uint8_t* c = r.data();
    BuildDummyCal(c);
    for (int s = 0; s < kCalTempSlots; ++s) {
        for (int f = 0; f < kCalFreqIndexes; ++f)
            for (int k = 0; k < kCalResponsePoints; ++k) {
                const bool bad = s == 3 && f == 7;
                SetCalResponseA(c, s, f, k, bad ? kNaN : V(0, s, 13 * f + k));
                SetCalResponseB(c, s, f, k, bad ? kNaN : V(1, s, 13 * f + k));
                SetCalResponseC(c, s, f, k, bad ? kNaN : V(2, s, 13 * f + k));
            }
        for (int j = 0; j < kCalResponseDEPoints; ++j) {
            SetCalResponseD(c, s, j, s == 3 && j == 99 ? kNaN : V(3, s, j));
            SetCalResponseE(c, s, j, s == 3 && j == 99 ? kNaN : V(4, s, j));
        }
    }
    return r;
}

TEST(CalResponseAt, BlendsTwoSlotsAtTheClampedIndexes) {
    const auto rec = PatternRecord();
    const struct Case {
        CalBracket bracket;
        int frequencyIndex, j;
        int slot;       // expected lower slot
        double x;       // expected fraction
        int freq, fine; // expected 0-based indexes
    } cases[] = {
        {{2, 0.25f}, 1, 0, 2, 0.25, 0, 0},          // index 1 is the first row
        {{2, 0.25f}, 0, 17, 2, 0.25, 0, 17},        // index 0 reads it too
        {{5, 1.0f}, 1000, 5000, 5, 1.0, 489, 3999}, // beyond the last row and cell
        {{4, 0.6f}, 490, -3, 4, 0.6, 489, 0},
        {{9, 2.0f}, 10, 10, 5, 1.0, 9, 10},         // a bracket out of range is clamped
        {{-2, kNaN}, 10, 10, 0, 0.0, 9, 10},
        {{3, 1.0f}, 8, 99, 3, 1.0, 7, 99},          // slot 3 alone is unreadable
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "slot " << c.bracket.slot << " x " << c.bracket.fraction << " index "
                                          << c.frequencyIndex << " j " << c.j);
        const CalResponse r = CalResponseAt(rec.data(), c.bracket, c.frequencyIndex, c.j);
        const auto want = [&](int table, int entry) {
            const double hi = V(table, c.slot + 1, entry);
            return c.x == 1.0 ? hi : (1.0 - c.x) * V(table, c.slot, entry) + c.x * hi;
        };
        for (int k = 0; k < kCalResponsePoints; ++k) {
            const size_t i = static_cast<size_t>(k);
            EXPECT_NEAR(r.magnitude[i], want(0, 13 * c.freq + k), 1e-6);
            EXPECT_NEAR(r.phase[i], -want(1, 13 * c.freq + k), 1e-6);
            EXPECT_NEAR(r.flatnessDb[i], want(2, 13 * c.freq + k), 1e-6);
        }
        EXPECT_NEAR(r.fineMagnitude, want(3, c.fine), 1e-6);
        EXPECT_NEAR(r.fineTrimDb, want(4, c.fine), 1e-6);
    }
}

// D describes the middle of each 3.75 MHz cell; a capture takes it at its own
// centre. The pattern's D is linear in the cell index, so the truth at F is
// that line at u = F / 3.75 MHz - 0.5, held beyond the first and last middle.
// The capture's level term moves with it (E stays its cell's trim).
TEST(FineMagnitudeAt, FollowsTheLineThroughTheCellMiddles) {
    const auto rec = PatternRecord();
    const CalBracket b{2, 0.25f};
    const auto line = [&](double u) { return 0.75 * (1.2 + 0.02 + 1e-5 * u) + 0.25 * (1.2 + 0.03 + 1e-5 * u); };
    const struct Case { double hz, u; } cases[] = {
        {1.0003e9, 1.0003e9 / 3.75e6 - 0.5},                    // off the grid
        {40 * 30.72e6 - 23.04e6, (40 * 30.72e6 - 23.04e6) / 3.75e6 - 0.5}, // a step row's centre
        {11 * 3.75e6, 10.5},                                    // on a cell edge
        {10.5 * 3.75e6, 10.0},                                  // on a middle
        {1e6, 0.0}, {1.6e10, 3999.0}, {std::nan(""), 0.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.hz);
        EXPECT_NEAR(FineMagnitudeAt(rec.data(), b, c.hz), line(c.u), 5e-7);
        const StepCorrection atCell = BuildStepCorrection(rec.data(), b, 40, FineCell(c.hz));
        const StepCorrection atCentre = BuildCaptureCorrection(rec.data(), b, 40, c.hz);
        EXPECT_NEAR(atCentre.amplitudeTermDb - atCell.amplitudeTermDb,
                    -20.0 * std::log10(line(c.u) / line(FineCell(c.hz))), 2e-5);
    }
}

TEST(RolloffCurve, FollowsTheFixedPointsAndStopsAt8p7MHz) {
    const struct Case {
        double start, step;
        int count;
        std::vector<double> expected; // hand-interpolated between the fixed points
    } cases[] = {
        {1e6, 1e6, 20, {-0.85, -0.85, -0.6532258, -0.4910714, -0.3125, -0.1972973, -0.1162162, -0.0466667}},
        {8.7e6, 1e3, 5, {}},                          // the end point is past the curve already
        {2.4e6, 1.55e6, 3, {-0.75, -0.5, -0.2378378}}, // two land on fixed points
        {-1e6, 1.5e6, 3, {-0.85, -0.85, -0.85}},       // below 2 MHz the first value holds
        {7.2e6, 7.5e5, 5, {-0.1, -0.05}},
        {1e6, 1e6, 0, {}},
        {std::nan(""), 1e6, 4, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.start << " + i * " << c.step << ", count " << c.count);
        const std::vector<float> curve = RolloffCurve(c.start, c.step, c.count);
        ASSERT_EQ(curve.size(), c.expected.size());
        for (size_t i = 0; i < curve.size(); ++i) EXPECT_NEAR(curve[i], c.expected[i], 2e-7) << i;
    }
}

CalResponse Neutral() {
    CalResponse r;
    r.magnitude.fill(1.0f);
    return r;
}

std::map<std::string, CalResponse> DesignCases() {
    std::map<std::string, CalResponse> cases{{"neutral", Neutral()}};
    CalResponse ripple = Neutral(), steep = Neutral();
    for (size_t k = 0; k < kCalResponsePoints; ++k) {
        const double f = (double(k) - 6) * 5.12e6;
        ripple.magnitude[k] = float(std::pow(10.0, 0.12 * std::cos(2 * std::numbers::pi * f / 44e6 + 0.6) / 20));
        ripple.phase[k] = float(0.07 * std::sin(2 * std::numbers::pi * f / 52e6));
        ripple.flatnessDb[k] = float(0.05 * f / 30.72e6);
        // Strong, lopsided shaping: a delay, a 10 dB tilt and the largest boost.
        steep.magnitude[k] = k == 9 ? 0.1f : 0.8f + 0.05f * float(k);
        steep.phase[k] = -0.4f * (float(k) - 6);
        steep.flatnessDb[k] = -5.0f + 10.0f * float(k) / 12.0f;
    }
    ripple.fineMagnitude = 1.003f;
    steep.fineTrimDb = -1.25f;
    // A quarter turn puts the response in bank b: its gain must set the scale.
    CalResponse turned = ripple;
    turned.phase.fill(float(std::numbers::pi / 2));
    turned.fineMagnitude = 0.9f;
    turned.fineTrimDb = 0.7f;
    cases["ripple"] = ripple;
    cases["steep"] = steep;
    cases["turned"] = turned;
    return cases;
}

// Runs the reference script on the cases: name -> 64 tap values, then the term.
lxtest::ReferenceValues ReferenceDesigns(const std::map<std::string, CalResponse>& cases) {
    std::ostringstream f;
    char buf[32];
    const auto put = [&](float v) {
        std::snprintf(buf, sizeof buf, " %.9g", double(v)); // every float digit
        f << buf;
    };
    for (const auto& [name, r] : cases) {
        f << name;
        for (const auto* table : {&r.magnitude, &r.phase, &r.flatnessDb})
            for (float v : *table) put(v);
        put(r.fineMagnitude);
        put(r.fineTrimDb);
        f << "\n";
    }
    return lxtest::RunReference("cal/tap_design_reference.py", "{dir}/in.txt {dir}/out.txt", {{"in.txt", f.str()}});
}

TEST(TapDesign, MatchesTheReferenceDesign) {
    const auto cases = DesignCases();
    const auto reference = ReferenceDesigns(cases);
    ASSERT_EQ(reference.size(), cases.size()) << "reference script did not run (" << LX_TEST_PYTHON << ")";
    for (const auto& [name, response] : cases) {
        SCOPED_TRACE(name);
        const std::vector<double>& ref = reference.at(name);
        ASSERT_EQ(ref.size(), 2u * kFilterTapPairs + 1);
        const StepCorrection s = DesignStepCorrection(response);
        EXPECT_FALSE(s.substituted);
        for (size_t n = 0; n < kFilterTapPairs; ++n)
            for (size_t bank = 0; bank < 2; ++bank) {
                EXPECT_NEAR(s.taps[n][bank], ref[2 * n + bank], 2e-6) << "pair " << n << " bank " << bank;
                EXPECT_LE(std::abs(s.taps[n][bank]), 1.0f);
            }
        EXPECT_NEAR(s.amplitudeTermDb, ref.back(), 2e-5);
    }
}

// Damaged values (an unprogrammed record reads NaN) are taken as neutral:
// the design equals that of the same response with the neutral value there,
// and says so.
TEST(TapDesign, DamagedValuesAreTakenAsNeutral) {
    const CalResponse base = DesignCases().at("ripple");
    const struct Case {
        const char* what;
        void (*damage)(CalResponse&);
        void (*neutral)(CalResponse&);
    } cases[] = {
        {"magnitude NaN", [](CalResponse& r) { r.magnitude[3] = kNaN; }, [](CalResponse& r) { r.magnitude[3] = 1; }},
        {"magnitude 0", [](CalResponse& r) { r.magnitude[12] = 0; }, [](CalResponse& r) { r.magnitude[12] = 1; }},
        {"flatness 90 dB", [](CalResponse& r) { r.flatnessDb[8] = 90; }, [](CalResponse& r) { r.flatnessDb[8] = 0; }},
        {"trim NaN", [](CalResponse& r) { r.fineTrimDb = kNaN; }, [](CalResponse& r) { r.fineTrimDb = 0; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CalResponse damaged = base, repaired = base;
        c.damage(damaged);
        c.neutral(repaired);
        const StepCorrection got = DesignStepCorrection(damaged), want = DesignStepCorrection(repaired);
        EXPECT_TRUE(got.substituted);
        for (int n = 0; n < kFilterTapPairs; ++n) {
            EXPECT_EQ(got.taps[n][0], want.taps[n][0]) << n;
            EXPECT_EQ(got.taps[n][1], want.taps[n][1]) << n;
        }
        EXPECT_EQ(got.amplitudeTermDb, want.amplitudeTermDb);
    }
    // A blank (all 0xFF) record: every value NaN, the plain low-pass (centre
    // tap 2 x 0.45) and no level term.
    std::vector<uint8_t> blank(calSizeBytes, 0xFF);
    const StepCorrection s = BuildStepCorrection(blank.data(), {0, 0.0f}, 1, 0);
    EXPECT_TRUE(s.substituted);
    EXPECT_NEAR(s.taps[15][0], 0.9f, 5e-4);
    EXPECT_NEAR(s.amplitudeTermDb, 0.0f, 0.002f);
}

} // namespace
} // namespace lx
