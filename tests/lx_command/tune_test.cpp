// Tuning words. The expected words were worked out from the tuning rules
// independently of the encoder, as written out below: band 10, band 0 and the
// row-7 extrapolation. Every other band's words are judged by what the
// simulated front end makes of them (tests/sim, tests/e2e: tones at their
// frequency and level across the whole range).
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "lx_command/encoders.h"

namespace {

struct TuneCase {
    double loHz, rfHz;
    uint8_t ifLevel;
    uint32_t gainField, value2A;
    bool altPath;
    int band, divider;
    double vcoHz;
    std::vector<uint32_t> words;
};

// LO = centre + 23.04 MHz (band 0: + 38.4 MHz), centre = rf.
//
// Band 10, lo 5023.04 MHz: not doubled, f > 3.75e9 -> d = 2, VCO = 10046.08 MHz.
//   N = floor(10046.08 / 122.88) = 81; remainder 92.8 MHz / 0.96 MHz = 96.67 -> F = 97.
//   VCO < 10.8e9 -> R = 3, fraction (10.04608 - 9.8) / 1.0 = 0.24608:
//   T = floor(-139 * 0.24608 + 158.5) = 124 -> 0x204E0001 + 248 = 0x204E00F9;
//   S = floor(-100 * 0.24608 + 324.5) = 299 = 0x12B. Not high band: P = 12899 + 64 = 0x32A3.
//   d = 2 -> 0x201F03EC, code 0 -> (0 + 32) << 6 = 0x800.
// Band 0, lo 48.4 MHz: f > 4e7 -> d = 192, VCO = 9292.8 MHz, N = 75, F = 76.8 / 0.96 = 80;
//   R = 2, fraction 0.5773: T = floor(-149 * 0.5773 + 165.5) = 79 -> +158 = 0x204E009F,
//   S = floor(-109 * 0.5773 + 356.5) = 293 = 0x125; code(192) = 13 -> 45 << 6 = 0xB40.
// Band 14 at 15 GHz: VCO 15023.04 MHz, row 7 extrapolated with fraction 1.0209:
//   T = floor(-156 * 1.0209 + 175.5) = 16, S = floor(-79 * 1.0209 + 323.5) = 242 (clamping
//   to the row end would give 19 and 244).
const TuneCase kTuneCases[] = {
    {48400000, 10000000, 0x11, 0, 0x18, false, 0, 192, 9292800000, {
        0x24000011, 0x2CA803C0, 0x204E009F, 0x2014D048, 0x20110125, 0x202C32A3, 0x202B0050, 0x2024004B,
        0x10000100, 0, 0, 0, 0x201F43EC, 0x204B0B40, 0x2000251C,
        0x2A000018, 0x10000800, 0, 0, 0, 0x11008000, 0, 0, 0,
    }},
    {5.02304e+09, 5e+09, 0xBB, 15, 0x22, false, 10, 2, 1.004608e+10, {
        0x240000BB, 0x2C68648F, 0x204E00F9, 0x2014D848, 0x2011012B, 0x202C32A3, 0x202B0061, 0x20240051,
        0x10000100, 0, 0, 0, 0x201F03EC, 0x204B0800, 0x2000251C,
        0x2A000022, 0x10000800, 0, 0, 0, 0x11008000, 0, 0, 0,
    }},
    {1.502304e+10, 1.5e+10, 0x04, 0, 0x18, false, 14, 1, 1.502304e+10, {
        0x24000004, 0x2C3E11E0, 0x204E0021, 0x2014F848, 0x201100F2, 0x202E07FD, 0x202C3263, 0x202B0021, 0x2024007A,
        0x10000100, 0, 0, 0, 0x201F43EC, 0x204B0800, 0x2000251C,
        0x2A000018, 0x10000800, 0, 0, 0, 0x11008000, 0, 0, 0,
    }},
};

void PrintTo(const TuneCase& c, std::ostream* os) {
    *os << "lo " << c.loHz << " rf " << c.rfHz << (c.altPath ? " alt" : "");
}

class TuneSequence : public testing::TestWithParam<TuneCase> {};

TEST_P(TuneSequence, EveryWordAndTheTuningState) {
    const TuneCase& c = GetParam();
    lx::TuningState state;
    uint32_t out[lx::kTuneMaxWords + 1];
    out[lx::kTuneMaxWords] = 0xDEADBEEF;
    const int n = lx::EncodeTune(state, out, c.loHz, c.rfHz, c.ifLevel, c.gainField, c.value2A, c.altPath);
    EXPECT_EQ(std::vector<uint32_t>(out, out + n), c.words);
    EXPECT_EQ(out[lx::kTuneMaxWords], 0xDEADBEEFu) << "wrote past kTuneMaxWords";
    EXPECT_EQ(state.divider, c.divider);
    EXPECT_DOUBLE_EQ(state.vcoHz, c.vcoHz);
}

INSTANTIATE_TEST_SUITE_P(AllBands, TuneSequence, testing::ValuesIn(kTuneCases),
                         [](const testing::TestParamInfo<TuneCase>& info) {
                             const TuneCase& c = info.param;
                             return "row" + std::to_string(info.index) + "_band" + std::to_string(c.band) +
                                    (c.altPath ? "_alt" : "");
                         });

struct BandCase { double rfHz; bool altPath; int band; };

TEST(TuneBand, BoundariesBelongToTheUpperBand) {
    const BandCase cases[] = {
        {0, false, 0},           {38.4e6 - 1, false, 0},   {38.4e6, false, 1},
        {61.44e6, false, 2},     {122.88e6, false, 3},     {276.48e6, false, 4},
        {576e6, false, 5},       {698.88e6, false, 13},    {698.88e6, true, 6},
        {944.64e6, false, 6},    {975.36e6, false, 7},     {1405.44e6, false, 8},
        {1958.4e6, false, 9},    {2880e6, false, 10},      {5429.76e6, false, 11},
        {8409.6e6 - 1, false, 11}, {8409.6e6, false, 12},  {11635.2e6 - 1, false, 12},
        {11635.2e6, false, 14},  {11635.2e6, true, 12},    {20e9, true, 12},
    };
    for (const BandCase& c : cases)
        EXPECT_EQ(lx::TuneBand(c.rfHz, c.altPath), c.band) << c.rfHz << " alt " << c.altPath;
}

TEST(BandWord, OperandOfEveryPath) {
    // Operands with gain field 0 as the device's path table lists them.
    const uint32_t expected[lx::kBandCount] = {0xA803C0, 0xA8E2A0, 0xA8D2A0, 0xA8BAA0, 0xA88AA0,
                                               0xA808A0, 0x683C80, 0xA838A0, 0xA850A0, 0x685480,
                                               0x686480, 0x3C09E0, 0x3C11E0, 0x680C80, 0x3E11E0};
    for (int b = 0; b < lx::kBandCount; ++b) EXPECT_EQ(lx::BandWord(b, 0), expected[b]) << b;
    EXPECT_EQ(lx::BandWord(0, 10), 0xA803CAu);
    EXPECT_EQ(lx::BandWord(12, 30), 0x3C11FEu);
    EXPECT_EQ(lx::BandWord(15, 0), 0xA803A0u); // unknown bands: A 168, B 3, C 1
    EXPECT_EQ(lx::BandWord(-1, 5), 0xA803A5u);
}

TEST(OutputDivider, ThresholdsAreExclusive) {
    const std::pair<double, int> cases[] = {
        {15e9, 1},     {7.5e9 + 1, 1}, {7.5e9, 2},  {3.75e9, 4}, {1.875e9, 6}, {1.4375e9, 8},
        {9.425e8, 12}, {6.4e8, 16},    {4.74e8, 24}, {3.2e8, 32}, {2.37e8, 48}, {1.6e8, 64},
        {1.185e8, 96}, {8e7, 128},     {5.925e7, 192}, {4e7 + 1, 192}, {4e7, 256}, {0, 256},
    };
    for (auto [f, d] : cases) EXPECT_EQ(lx::OutputDivider(f), d) << f;
}

TEST(VcoRange, RowSelectionAndExtrapolation) {
    struct Case { double v; int r; int64_t t, s; double third; };
    const Case cases[] = {
        {7.5e9, 1, 164, 299, 73.0},      // row start
        {8.6e9, 2, 165, 356, 61.0},      // a row's end value belongs to the next row
        {13.9e9 - 1, 6, 6, 163, 218.0},  // just below a boundary: row end, rounded
        {15.0e9, 7, 19, 244, 239.0},
        {16.0e9, 7, -123, 172, 182.0 + 57.0 * 2.1 / 1.1}, // fraction 1.909: extrapolated
    };
    for (const Case& c : cases) {
        const lx::VcoRangeFields f = lx::VcoRange(c.v);
        EXPECT_EQ(f.r, c.r) << c.v;
        EXPECT_EQ(f.t, c.t) << c.v;
        EXPECT_EQ(f.s, c.s) << c.v;
        EXPECT_NEAR(f.third, c.third, 1e-6) << c.v;
    }
}

TEST(EncodeTune, NonFiniteFrequenciesStillGiveAWholeSequence) {
    lx::TuningState s;
    uint32_t out[lx::kTuneMaxWords];
    using limits = std::numeric_limits<double>;
    for (double lo : {limits::quiet_NaN(), limits::infinity(), -1e9}) {
        const int n = lx::EncodeTune(s, out, lo, 1e9, 0, 0, 0, false);
        EXPECT_EQ(n, 24);
        EXPECT_EQ(out[n - 4], 0x11008000u);
    }
}

} // namespace
