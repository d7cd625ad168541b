// The I/Q sweep list: host processing per step against the step's data time,
// and the rate of a 100-step list through the public API on the simulated
// analyzer against the device-limited rate.
//
//   ./build/release/bench/bench_sweep_list --benchmark_counters_tabular=true
//
// x_realtime: step samples processed per second of CPU time / 61.44e6.
// x_device: passes per second against the device-limited rate, the data time
// plus 25 us of retuning per step.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "engines/iq_sweep_list_engine.h"
#include "engines/sweep_plan.h"
#include "lx_api.h"
#include "lx_sim.h"

namespace {

using namespace lx::engines;

constexpr double kRealtime = 61.44e6;

// What the interface thread does with one step of 16384 samples: per packet
// convert, conjugate (range 1: band 0), shift and scale into the caller's
// buffer (range 0: 0 float, 1 int16).
void BM_StepProcessing(benchmark::State& state) {
    const bool asFloat = state.range(0) == 0;
    const bool mirrored = state.range(1) != 0;
    constexpr int64_t kSamples = 16384;
    SweepListStepPlan st;
    st.samples = kSamples;
    st.packets = kSamples / kSamplesPerPacket;
    st.shiftCycles = -123456.0 / kRealtime;
    st.capture.mirrored = mirrored;
    std::vector<int16_t> raw(2 * kSamples);
    std::mt19937 rng(3);
    std::normal_distribution<float> g(576.0f, 300.0f);
    for (auto& v : raw) v = static_cast<int16_t>(g(rng));
    lx::ComplexVector tone(kSamplesPerPacket), work(kSamplesPerPacket);
    for (int i = 0; i < kSamplesPerPacket; ++i) tone.data()[i] = std::polar(1.0f, float(2 * M_PI * st.shiftCycles * i));
    std::vector<float> out(2 * kSamples);
    for (auto _ : state) {
        for (int64_t p = 0; p < st.packets; ++p)
            ConvertSweepListPacket(raw.data() + 2 * p * kSamplesPerPacket, kSamplesPerPacket, p * kSamplesPerPacket, st,
                                   tone.data(), 0.25f, asFloat, out.data(), work.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["x_realtime"] =
        benchmark::Counter(double(kSamples) * double(state.iterations()) / kRealtime, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_StepProcessing)->Args({0, 0})->Args({1, 0})->Args({0, 1});

// 100 steps of 16384 samples from 100 MHz to 14.9 GHz, one pass per
// iteration through lxIQSweepListGetSweep, on the simulator delivering as
// fast as it can (range 0) or at 61.44 MS/s (range 1). Wall time.
void BM_ListRate(benchmark::State& state) {
    const bool paced = state.range(0) != 0;
    constexpr int kSteps = 100;
    constexpr uint32_t kSamples = 16384;
    const std::string scene = std::string(R"({"noise_floor_dbm_hz": -150, "pacing": ")") +
                              (paced ? "realtime" : "fast") +
                              R"(", "emitters": [{"kind": "tone", "frequency_hz": 1e9, "power_dbm": -30}]})";
    constexpr int32_t kSerial = 42000001;
    int32_t h = -1;
    if (lxSimAttach(kSerial, scene.c_str()) != lxNoError || lxOpenDeviceBySerial(&h, kSerial) < 0) {
        state.SkipWithError("no simulated analyzer");
        lxSimDetachAll();
        return;
    }
    lxSetIQSweepListSteps(h, kSteps);
    for (int i = 0; i < kSteps; ++i) {
        lxSetIQSweepListFreq(h, i, 100e6 + (14.9e9 - 100e6) * i / (kSteps - 1));
        lxSetIQSweepListSampleCount(h, i, kSamples);
    }
    if (lxConfigure(h, lxModeIQSweepList) != lxNoError) {
        state.SkipWithError("configure failed");
    } else {
        std::vector<float> buf(size_t(2) * kSteps * kSamples);
        std::vector<uint64_t> stamps(kSteps);
        lxIQSweepListGetSweep(h, buf.data(), stamps.data()); // first touch
        int warnings = 0;
        for (auto _ : state) {
            if (lxIQSweepListGetSweep(h, buf.data(), stamps.data()) != lxNoError) ++warnings;
            benchmark::DoNotOptimize(buf.data());
        }
        const double packets = std::ceil(double(kSamples) / kSamplesPerPacket);
        const double deviceSeconds = kSteps * (packets * kPacketSeconds + kRetuneSeconds);
        state.counters["x_device"] =
            benchmark::Counter(deviceSeconds * double(state.iterations()), benchmark::Counter::kIsRate);
        state.counters["device_ms"] = deviceSeconds * 1e3;
        state.counters["warnings"] = warnings;
    }
    lxCloseDevice(h);
    lxSimDetachAll();
}
BENCHMARK(BM_ListRate)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
