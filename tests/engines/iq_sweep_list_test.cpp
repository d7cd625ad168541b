// The I/Q sweep list's plan, conversion and step shift.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include "../support/tone_power.h"
#include "common/lx_assert.h"
#include "engines/iq_sweep_list_engine.h"
#include "engines/sweep_plan.h"
#include "lx_api.h"
#include "lx_lib/tuning_planner.h"
#include "lx_sim.h"

namespace {

using namespace lx;
using namespace lx::engines;

TEST(SweepListPlan, EveryStepAsksForItsPacketsAndOneStatusPacket) {
    IqSweepListSettings s;
    for (uint32_t n : {0u, 1u, 2048u, 2049u, 255u * 2048u, 255u * 2048u + 1u, 1000000u, 100000000u}) {
        IqSweepListStep st;
        st.sampleCount = n;
        st.frequency = 100e3 + 1e8 * s.steps.size();
        s.steps.push_back(st);
    }
    std::vector<uint8_t> cal(sizeof(LX530CalData), 0xFF); // an unprogrammed record: neutral corrections
    AssertionCapture asserts;
    const SweepListPlan plan = PlanSweepList(s, cal.data(), CalBracket{});
    EXPECT_EQ(asserts.count(), 0u);
    ASSERT_EQ(plan.steps.size(), s.steps.size());
    int64_t offset = 0;
    size_t nextBlock = 0;
    for (size_t k = 0; k < plan.steps.size(); ++k) {
        const SweepListStepPlan& st = plan.steps[k];
        int64_t iq = 0, aux = 0;
        for (size_t b = st.firstBlock; b < st.firstBlock + st.blockCount; ++b) {
            iq += plan.commands.IqPacketTotals()[b];
            aux += plan.commands.AuxPacketTotals()[b];
        }
        const int64_t want = (int64_t{s.steps[k].sampleCount} + 2047) / 2048;
        EXPECT_EQ(st.packets, want) << k;
        EXPECT_EQ(iq, want) << k;
        EXPECT_EQ(aux, 1) << k;
        EXPECT_EQ(st.firstBlock, nextBlock) << k; // steps in list order, blocks back to back
        EXPECT_EQ(st.outputOffset, offset) << k;
        nextBlock += st.blockCount;
        offset += s.steps[k].sampleCount;
    }
    EXPECT_EQ(nextBlock, plan.commands.BlockCount());
    EXPECT_EQ(plan.totalSamples, offset);
    EXPECT_GT(plan.steps.back().blockCount, 1u); // 48829 packets do not fit one block
}

TEST(SweepListConversion, Int16IsTheShiftedValueRoundedAndSaturated) {
    SweepListStepPlan st;
    st.samples = 2048;
    st.packets = 1;
    st.shiftCycles = -0.0123;
    const int64_t first = 6144; // the packet's phase comes from its place in the step
    std::vector<int16_t> raw(2 * 2048);
    for (size_t i = 0; i < raw.size(); ++i)
        raw[i] = static_cast<int16_t>(i % 7 == 0 ? 32767 : i % 11 == 0 ? -32768 : int(i * 2654435761u % 60000) - 30000);
    std::vector<std::complex<float>> tone(2048), work(2048);
    for (int i = 0; i < 2048; ++i) tone[size_t(i)] = std::polar(1.0, 2 * M_PI * st.shiftCycles * i);
    for (bool mirrored : {false, true}) {
        st.capture.mirrored = mirrored;
        st.outputOffset = -first; // the packet lands at the start of `out`
        std::vector<int16_t> out(2 * 2048);
        ConvertSweepListPacket(raw.data(), 2048, first, st, tone.data(), 1.0f, false, out.data(), work.data());
        int saturated = 0;
        for (int k = 0; k < 2048; ++k) {
            const auto sat = [](int v) { return std::max(-32768, std::min(32767, v)); };
            std::complex<double> x((sat(raw[size_t(2 * k)] - 576)) / 32768.0, (sat(raw[size_t(2 * k + 1)] - 576)) / 32768.0);
            if (mirrored) x = std::conj(x);
            x *= std::polar(1.0, 2 * M_PI * st.shiftCycles * double(first + k)) * 32768.0;
            const double re = std::clamp(x.real(), -32768.0, 32767.0), im = std::clamp(x.imag(), -32768.0, 32767.0);
            saturated += re == -32768.0 || re == 32767.0;
            // Float arithmetic may carry a value lying near a half across it.
            const auto nearHalf = [](double v) { return std::fabs(std::fabs(v - std::trunc(v)) - 0.5) < 0.02; };
            if (!nearHalf(re)) {
                EXPECT_EQ(out[size_t(2 * k)], std::nearbyint(re)) << k;
            }
            if (!nearHalf(im)) {
                EXPECT_EQ(out[size_t(2 * k + 1)], std::nearbyint(im)) << k;
            }
        }
        EXPECT_GT(saturated, 0);
    }
}

// Off the tuning grid the step shift -(F - C) / 5e7 per 61.44 MS/s sample
// leaves a tone at F + x at x + (F - C)(1 - 61.44 / 50) in the step's
// samples, C the capture centre the tuning makes for F.
TEST(SweepListOffset, ToneLandsWhereTheShiftPutsIt) {
    constexpr int32_t kSerial = 41100301;
    constexpr double kFs = 61.44e6, kX = 100e3;
    constexpr uint32_t kN = 16384;
    const double steps[] = {20.1e6, 1e9, 2.45e9, 8.0004e9, 14.9e9};
    std::string scene = R"({"noise_floor_dbm_hz": -160, "emitters": [)";
    for (double f : steps)
        scene += (f == steps[0] ? "" : ",") + std::string(R"({"kind": "tone", "power_dbm": -30, "frequency_hz": )") +
                 std::to_string(f + kX) + "}";
    ASSERT_EQ(lxSimAttach(kSerial, (scene + "]}").c_str()), lxNoError);
    int32_t h = -1;
    ASSERT_EQ(lxOpenDeviceBySerial(&h, kSerial), lxNoError);
    ASSERT_EQ(lxSetIQSweepListSteps(h, 5), lxNoError);
    for (int32_t i = 0; i < 5; ++i) {
        ASSERT_EQ(lxSetIQSweepListFreq(h, i, steps[i]), lxNoError);
        ASSERT_EQ(lxSetIQSweepListSampleCount(h, i, kN), lxNoError);
    }
    ASSERT_EQ(lxConfigure(h, lxModeIQSweepList), lxNoError);
    std::vector<float> x(2 * 5 * kN);
    ASSERT_EQ(lxIQSweepListGetSweep(h, x.data(), nullptr), lxNoError);
    int off = 0;
    for (int i = 0; i < 5; ++i) {
        const float* v = x.data() + 2 * size_t(i) * kN;
        const double d = steps[i] - lx::PlanCapture(steps[i]).captureCentreHz;
        off += std::fabs(d) > 10e3;
        const double want = kX + d * (1.0 - kFs / 5e7);
        double best = -400, at = 0;
        for (double f = kX - 130e3; f <= kX + 130e3; f += 200) // 200 Hz: a twentieth of the 16384-point bin
            if (const double p = ToneDbm(v, kN, f, kFs); p > best) best = p, at = f;
        EXPECT_NEAR(at, want, 150) << steps[i] << " Hz, capture centre off by " << d;
        EXPECT_NEAR(best, -30.0, 0.2) << steps[i];
    }
    EXPECT_GE(off, 3); // the cases that tell 5e7 from 61.44e6
    lxCloseDevice(h);
    lxSimDetachAll();
}

} // namespace
