// Narrow-span plans against hand-worked values, and their requests.
#include <gtest/gtest.h>

#include "plan_settings.h"

#include <algorithm>
#include <numeric>

#include "common/lx_assert.h"
#include "engines/narrow_span_engine.h"

namespace {

using namespace lx;
using namespace lx::engines;

// Each halving of the span below 23,592,960 / D doubles D; the boundaries sit
// exactly on 47,185,920 / (2 D).
TEST(NarrowSpanPlan, DecimationFollowsTheSpan) {
    struct Case { double span; int32_t d; };
    const Case cases[] = {
        {47185919.0, 1}, {23592960.0, 1}, {23592959.0, 2}, {11796480.0, 2}, {11796479.0, 4},
        {5e6, 8},        {4999999.0, 8},  {2949120.0, 8},  {2949119.0, 16}, {1474560.0, 16},
        {1474559.0, 32}, {737280.0, 32},  {368640.0, 64},  {368639.0, 128}, {184320.0, 128},
        {184319.0, 256}, {1000.0, 256},   {0.0, 256},
    };
    for (const Case& c : cases) EXPECT_EQ(NarrowSpanDecimation(c.span), c.d) << c.span;

    AssertionCapture cap;
    EXPECT_EQ(NarrowSpanDecimation(47185920.0), 1);
    EXPECT_TRUE(cap.saw("span < usableBW", "src/lx_lib"));
}

using lx::engines::test::Settings;

// Hand-derived plans (D split between device and host, both FFT clamps,
// averaging from VBW and sweep time, the FIR's extra packet).
TEST(NarrowSpanPlan, ArithmeticMatchesWorkedExamples) {
    struct Case {
        const char* name;
        SweepSettings s;
        int32_t device, host;
        double fsD;
        int32_t windowLength, fftSize;
        int64_t averageCount;
        int32_t packets;
        double binSize;
        int32_t sweepLength, firstBin;
    };
    const Case cases[] = {
        // 1 MHz: D 32. L = trunc(3.7702 * 1.92e6 / 1000) = 7238; samples 8192,
        // 4 * 8 + 1 = 33 -> 36 packets; bin 234.375, round(4266.67) + 2 = 4269 -> 4270.
        {"1 MHz flat-top", Settings(1e9 - 5e5, 1e9 + 5e5, 1000, 1000, 1e-6, 0), 4, 8, 1.92e6, 7238, 8192, 1, 36,
         234.375, 4270, 1961},
        // 100 kHz: D 256. L = 2400, FFT 4096, 10 averages -> 13312 samples, but
        // the sweep time gives trunc(0.1234567 * 240000) = 29629: (29629 - 2400)
        // / 1024 + 1 = 27 averages, ceil(29629 / 2048) = 15, * 64 + 1 = 961 -> 964.
        {"100 kHz, VBW and sweep time", Settings(2e9, 2e9 + 1e5, 100, 10, 0.1234567, 5), 4, 64, 240000.0, 2400, 4096,
         27, 964, 58.59375, 1710, 1193},
        // 4 MHz: D 8 (fsD 7.68 MHz). L = trunc(9.65) = 9 -> 8, FFT 8 -> 64;
        // 1 * 2 + 1 = 3 -> 4 packets; bin 120 kHz, round(33.3) + 2 = 35 -> 36.
        {"4 MHz, RBW wider than the FFT", Settings(30e6, 34e6, 3e6, 3e6, 1e-6, 0), 4, 2, 7.68e6, 8, 64, 1, 4,
         120000.0, 36, 14},
        // L = trunc(7.68e6 / 1e7) = 0 -> 4.
        {"window below its minimum", Settings(500e6, 503e6, 1e7, 1e7, 1e-6, 5), 4, 2, 7.68e6, 4, 64, 1, 4, 120000.0,
         28, 18},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const NarrowSpanPlan n = PlanNarrowSpan(c.s, -1, -20.0);
        const SweepPlan& p = n.sweep;
        EXPECT_EQ(n.deviceDecimation, c.device);
        EXPECT_EQ(n.hostDecimation, c.host);
        EXPECT_DOUBLE_EQ(n.decimatedRate, c.fsD);
        EXPECT_EQ(p.windowLength, c.windowLength);
        EXPECT_EQ(p.fftSize, c.fftSize);
        EXPECT_EQ(p.averageCount, c.averageCount);
        EXPECT_EQ(p.packetsPerStep, c.packets);
        EXPECT_DOUBLE_EQ(p.binSize, c.binSize);
        EXPECT_EQ(p.sweepLength, c.sweepLength);
        EXPECT_EQ(n.firstOutputBin, c.firstBin);
        const double centre = (c.s.start + c.s.stop) / 2;
        EXPECT_NEAR(p.actualRbw, WindowFactor(c.s.window) * c.fsD / c.windowLength, 1e-9);
        // Trace point i is FFT bin firstBin + i; the FFT's centre bin is the
        // requested centre, and the packets carry every sample the segments read.
        EXPECT_DOUBLE_EQ(p.actualStart + (p.fftSize / 2 - n.firstOutputBin) * p.binSize, centre);
        EXPECT_GE(n.DecimatedSamples() - 2048 / n.hostDecimation,
                  (p.averageCount - 1) * p.hop + p.windowLength);
    }
}

// The command list: capture code 3, then requests of at most 255 packets
// that add up to the plan's, each whole in its block, and the end word last.
// (What the tuning, taps and attenuation do to a tone: tests/e2e.)
TEST(NarrowSpanPlan, CommandListRequestsEveryPacket) {
    struct Case { double start, stop, rbw, vbw, sweepTime; };
    const Case cases[] = {
        {1e9 - 5e5, 1e9 + 5e5, 1000, 1000, 1e-6}, // a few packets, one block
        {12.5e6, 12.6e6, 100, 0.5, 0.05},        // band 0, 200 averages: requests over two blocks
        {7.1234e9, 7.1244e9, 300, 300, 0.5},      // sweep-time bound
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.start);
        NarrowSpanPlan n = PlanNarrowSpan(Settings(c.start, c.stop, c.rbw, c.vbw, c.sweepTime, 0), 2, 0.0);
        TuningState tuning;
        const CommandList list = BuildNarrowSpanCommands(n, tuning);
        const std::vector<uint32_t>& w = list.Words();
        // Past the end word only fillers.
        const size_t end = std::find(w.begin(), w.end(), 0x32000000u) - w.begin();
        ASSERT_LT(end, w.size());
        EXPECT_TRUE(std::all_of(w.begin() + long(end) + 1, w.end(), [](uint32_t x) { return x == kFillerWord; }));
        EXPECT_NE(std::find(w.begin(), w.begin() + long(end), 0x30000003u), w.begin() + long(end)) << "capture code";
        int64_t packets = 0;
        for (size_t i = 0; i < end; ++i) {
            if (w[i] >> 24 != 0x31) continue;
            EXPECT_LE(i % CMD_SIZE_WORDS + 5, size_t{CMD_SIZE_WORDS}) << "a request split across blocks";
            packets += w[i] & 0xFF;
        }
        EXPECT_EQ(packets, n.sweep.packetsPerStep);
        EXPECT_EQ(std::accumulate(list.IqPacketTotals().begin(), list.IqPacketTotals().end(), int64_t{0}), packets);
        EXPECT_EQ(packets % 4, 0);
    }
}

} // namespace
