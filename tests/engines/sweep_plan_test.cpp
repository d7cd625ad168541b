// Sweep plan arithmetic and command list against hand-worked values.
#include <gtest/gtest.h>

#include "plan_settings.h"

#include <numeric>
#include <vector>

#include "cal/cal_record.h"
#include "engines/sweep_plan.h"

namespace {

using namespace lx;
using namespace lx::engines;

using lx::engines::test::Settings;

struct PlanCase {
    const char* name;
    SweepSettings s;
    int32_t windowLength, fftSize;
    int64_t averageCount;
    int32_t packetsPerStep, firstStep, lastStep;
    double binSize;
    int32_t startBinOffset, sweepLength;
    double actualRbw, actualStart;
};

class PlanArithmetic : public ::testing::TestWithParam<PlanCase> {};

TEST_P(PlanArithmetic, MatchesHandDerivedFigures) {
    const PlanCase& c = GetParam();
    const SweepPlan p = PlanSweep(c.s, -1, -20.0);
    EXPECT_EQ(p.windowLength, c.windowLength);
    EXPECT_EQ(p.fftSize, c.fftSize);
    EXPECT_EQ(p.averageCount, c.averageCount);
    EXPECT_EQ(p.packetsPerStep, c.packetsPerStep);
    EXPECT_EQ(p.firstStep, c.firstStep);
    EXPECT_EQ(p.lastStep, c.lastStep);
    ASSERT_EQ(p.steps.size(), size_t(c.lastStep - c.firstStep + 1));
    EXPECT_EQ(p.binSize, c.binSize);
    EXPECT_EQ(p.startBinOffset, c.startBinOffset);
    EXPECT_EQ(p.sweepLength, c.sweepLength);
    EXPECT_NEAR(p.actualRbw, c.actualRbw, 0.01);
    EXPECT_DOUBLE_EQ(p.actualStart, c.actualStart);
    // Every step's samples hold the segments the processor takes.
    EXPECT_GE(int64_t{p.packetsPerStep} * 2048, (p.averageCount - 1) * p.hop + p.windowLength);
    // The stitched bins reach as far as the caller copies (within the
    // range the setters allow).
    if (c.s.stop <= 1.5e10) {
        EXPECT_GE(p.StitchedLength(), int64_t{p.startBinOffset} + p.sweepLength);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PlanArithmetic,
    ::testing::Values(
        // 3.7702 * 61.44e6 / 30e3 = 7721.4 -> 7721 -> even 7720; 4 packets; 9 kHz
        // lies in step 1 (low edge 0), 15 GHz in step 489.
        PlanCase{"FullSpan30k", Settings(9e3, 1.5e10, 30e3, 30e3, 1e-6), 7720, 8192, 1, 4, 1, 489, 7500.0, 1,
                 2000000, 30005.32, 7500.0},
        // 61.44e6 / 3e6 = 20.48 -> 20: a 32-point FFT would do, 64 is the floor.
        PlanCase{"FftFloor", Settings(100e6, 200e6, 3e6, 3e6, 1e-6, 5), 20, 64, 1, 1, 4, 7, 960000.0, 8, 106,
                 3072000.0, 99840000.0},
        // Window lengths below 4 are raised to 4.
        PlanCase{"WindowFloor", Settings(100e6, 200e6, 30e6, 30e6, 1e-6, 5), 4, 64, 1, 1, 4, 7, 960000.0, 8, 106,
                 15360000.0, 99840000.0},
        // VBW above RBW: ratio 1, one FFT per step.
        PlanCase{"VbwAboveRbw", Settings(100e6, 200e6, 30e3, 60e3, 1e-6), 7720, 8192, 1, 4, 4, 7, 7500.0, 1045,
                 13335, 30005.32, 99997500.0},
        // VBW / RBW 0.3: ceil(3.33) = 4 segments, 3 * 2048 + 7720 = 13864 samples, 7 packets.
        PlanCase{"VbwThreeTenths", Settings(100e6, 200e6, 30e3, 9e3, 1e-6), 7720, 8192, 4, 7, 4, 7, 7500.0, 1045,
                 13335, 30005.32, 99997500.0},
        // 5 steps (975.36 .. 1128.96 MHz), 10 ms: P = floor(9.875e-3 / 3.333e-5 / 5 + 0.5) = 59
        // packets, (59 * 2048 - 7720) / 2048 + 1 = 56 segments.
        PlanCase{"SweepTimeBuysAveraging", Settings(1e9, 1.1e9, 30e3, 30e3, 0.01), 7720, 8192, 56, 59, 33, 37,
                 7500.0, 3285, 13335, 30005.32, 999997500.0},
        // A shorter sweep time than the data needs changes nothing.
        PlanCase{"SweepTimeNeverTakesPackets", Settings(1e9, 1.1e9, 30e3, 9e3, 1e-4), 7720, 8192, 4, 7, 33, 37,
                 7500.0, 3285, 13335, 30005.32, 999997500.0},
        // Starting on a step's low edge starts in that step; just below it, in the one before.
        PlanCase{"StartOnAnEdge", Settings(38.4e6, 50e6, 1e6, 1e6, 1e-6), 230, 256, 1, 1, 2, 2, 240000.0, 0, 50,
                 1007135.17, 38400000.0},
        PlanCase{"StartJustBelowAnEdge", Settings(38.39e6, 50e6, 1e6, 1e6, 1e-6), 230, 256, 1, 1, 1, 2, 240000.0,
                 159, 50, 1007135.17, 38160000.0},
        // A stop beyond the table's last step clamps to step 489 (the setter
        // never lets one through; a plan is still made).
        PlanCase{"StopBeyondTheTable", Settings(1.49e10, 2e10, 1e6, 1e6, 1e-6), 230, 256, 1, 1, 486, 489,
                 240000.0, 35, 21252, 1007135.17, 14899.92e6}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PlanAttenuation, FromTheReferenceLevelUnlessSet) {
    const struct {
        int32_t setting;
        double refLevel;
        int32_t steps;
    } cases[] = {{-1, -50.0, 0}, {-1, -20.0, 0}, {-1, -19.99, 1}, {-1, -15.0, 1}, {-1, -10.0, 2},
                 {-1, -5.0, 3},  {-1, 0.0, 4},   {-1, 5.0, 5},     {-1, 5.01, 6},  {-1, 20.0, 6},
                 {0, 20.0, 0},   {3, -50.0, 3},  {6, -50.0, 6}};
    for (const auto& c : cases) {
        const SweepPlan p = PlanSweep(Settings(1e9, 1.1e9, 1e6, 1e6, 1e-6), c.setting, c.refLevel);
        EXPECT_EQ(p.attenuation, c.steps) << "setting " << c.setting << " ref " << c.refLevel;
    }
}

std::vector<uint8_t> NeutralCal() {
    std::vector<uint8_t> cal(calSizeBytes);
    BuildDummyCal(cal.data());
    return cal;
}

// Sweep time that gives exactly `packets` packets to a one-step sweep.
double TimeFor(int32_t packets) { return packets * kPacketSeconds + kRetuneSeconds; }

struct RequestWord {
    size_t block;
    uint32_t word;
    bool operator==(const RequestWord&) const = default;
};

std::vector<RequestWord> Requests(const CommandList& list) {
    std::vector<RequestWord> out;
    const auto& w = list.Words();
    for (size_t i = 0; i < w.size(); ++i)
        if ((w[i] >> 24) == 0x31) out.push_back({i / CMD_SIZE_WORDS, w[i]});
    return out;
}

struct ChunkCase {
    int32_t packets;
    size_t blocks;
    std::vector<RequestWord> requests; // in list order, the final filler included
};

class Chunking : public ::testing::TestWithParam<ChunkCase> {};

// A request word counts at most 255 packets. Up to 256 packets stay in the
// step's block (256 as 255 + 1); beyond, chunks of 255 go in blocks of their
// own after it. The filler rounds the sweep up to a multiple of 4 packets,
// and is 4 packets when it already is one.
TEST_P(Chunking, RequestsAndBlocks) {
    const ChunkCase& c = GetParam();
    SweepPlan p = PlanSweep(Settings(1.01e9, 1.015e9, 1e6, 1e6, TimeFor(c.packets)), -1, -20.0);
    ASSERT_EQ(p.stepCount, 1);
    ASSERT_EQ(p.packetsPerStep, c.packets);
    const auto cal = NeutralCal();
    FillStepCorrections(p, cal.data(), CalBracket{3, 0.0f});
    TuningState tuning;
    const CommandList list = BuildSweepCommands(p, 0, {}, false, tuning);
    EXPECT_EQ(list.BlockCount(), c.blocks);
    EXPECT_EQ(Requests(list), c.requests);
    const auto& totals = list.IqPacketTotals();
    EXPECT_EQ(std::accumulate(totals.begin(), totals.end(), int64_t{0}), p.TotalPackets());
    // Each chunk block is the request, its second word and three spacers.
    const auto& w = list.Words();
    for (size_t b = 1; b < list.BlockCount(); ++b) {
        EXPECT_EQ(w[b * CMD_SIZE_WORDS + 0], 0x310000FFu);
        EXPECT_EQ(w[b * CMD_SIZE_WORDS + 1], 0x14000001u);
        for (int k = 2; k < 5; ++k) EXPECT_EQ(w[b * CMD_SIZE_WORDS + size_t(k)], 0x01000000u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Packets, Chunking,
    ::testing::Values(ChunkCase{7, 1, {{0, 0x31000007}, {0, 0x31000001}}},
                      ChunkCase{8, 1, {{0, 0x31000008}, {0, 0x31000004}}},
                      ChunkCase{255, 1, {{0, 0x310000FF}, {0, 0x31000001}}},
                      ChunkCase{256, 1, {{0, 0x310000FF}, {0, 0x31000001}, {0, 0x31000004}}},
                      ChunkCase{257, 2, {{0, 0x31000002}, {1, 0x310000FF}, {1, 0x31000003}}},
                      ChunkCase{511, 2, {{0, 0x310000FF}, {0, 0x31000001}, {1, 0x310000FF}, {1, 0x31000001}}},
                      ChunkCase{767, 4,
                                {{0, 0x31000002}, {1, 0x310000FF}, {2, 0x310000FF}, {3, 0x310000FF}, {3, 0x31000001}}}),
    // Appended rather than "P" + std::to_string(...): GCC 12 at -O3 reports a
    // -Wrestrict false positive inside the inlined operator+.
    [](const auto& info) {
        std::string name = "P";
        name += std::to_string(info.param.packets);
        return name;
    });

// One step's block: the IF level byte from the record, the band word (band 7:
// A 168, B 56, C 1, with 10 dB), the request of the step's packet, the end of
// the step and of the sweep, and the filler (1 packet + 3).
TEST(StepBlock, LayoutOfAStep) {
    auto cal = NeutralCal();
    SetCalIfLevel(cal.data(), 33, 9); // step 34's byte (frequency index 34 - 1)
    SweepPlan p = PlanSweep(Settings(1.01e9, 1.015e9, 1e6, 1e6, 1e-6), 2, -20.0);
    ASSERT_EQ(p.firstStep, 34); // centre 1021.44 MHz: band 7
    FillStepCorrections(p, cal.data(), CalBracket{3, 0.0f});
    TuningState tuning;
    const CommandList list = BuildSweepCommands(p, 0, {}, false, tuning);
    std::vector<uint32_t> w(list.Words().begin(), list.Words().begin() + CMD_SIZE_WORDS);
    std::erase_if(w, [](uint32_t x) { return x >> 24 != 0x24 && x >> 24 != 0x2C && x >> 24 != 0x31 && x >> 24 != 0x32; });
    EXPECT_EQ(w, (std::vector<uint32_t>{0x24000009, 0x2CA838AA, 0x31000001, 0x32000000, 0x32000000, 0x31000003}));
}

// The GPIO word goes out at the first step whose centre passed a switching
// point, with the byte of the last point passed; only in configuration 5.
TEST(GpioSwitching, WordsAtTheStepsThatCrossASwitchingPoint) {
    const auto cal = NeutralCal();
    SweepPlan p = PlanSweep(Settings(70e6, 600e6, 1e6, 1e6, 1e-6), 0, -20.0);
    ASSERT_EQ(p.firstStep, 3);
    FillStepCorrections(p, cal.data(), CalBracket{3, 0.0f});
    const std::vector<GpioSwitch> switches = {{50000000, 0x01}, {100000000, 0x11}, {105000000, 0x12},
                                              {110000000, 0x22}, {500000000, 0x33}, {20000000000ULL, 0x44}};
    // Step centres: 3 76.8 MHz, 4 107.52, 5 138.24, ..., 17 499.2, 18 529.92.
    const std::vector<std::pair<int32_t, uint32_t>> want = {{3, 0x27000001}, {4, 0x27000012}, {5, 0x27000022},
                                                            {18, 0x27000033}};
    for (uint32_t port : {5u, 4u}) {
        TuningState tuning;
        const CommandList list = BuildSweepCommands(p, port, switches, false, tuning);
        std::vector<std::pair<int32_t, uint32_t>> got;
        const auto& w = list.Words();
        for (size_t b = 0; b < list.BlockCount(); ++b)
            if ((w[b * CMD_SIZE_WORDS] >> 24) == 0x27) got.push_back({p.steps[b].index, w[b * CMD_SIZE_WORDS]});
        if (port == 5)
            EXPECT_EQ(got, want);
        else
            EXPECT_TRUE(got.empty());
    }
}

} // namespace
