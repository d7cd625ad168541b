// The sweep engine: host processing rate per step, full-span sweep rate on
// the simulated analyzer (unpaced and paced), and lxConfigure latency.
//
//   ./build/release/bench/bench_sweep --benchmark_counters_tabular=true
//
// x_realtime: step samples processed per second of CPU time / 61.44e6 (one
// work thread; the engine runs two). x_device: the sweep rate against the
// device-limited one, data time plus 25 us per step.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "dsp/fft.h"
#include "dsp/kernels.h"
#include "engines/step_processor.h"
#include "engines/sweep_plan.h"
#include "lx_api.h"
#include "lx_sim.h"

namespace {

using namespace lx::engines;

constexpr double kRealtime = 61.44e6;
constexpr double kFullStart = 9e3, kFullStop = 1.5e10;

lx::SweepSettings Settings(double rbw, double vbw) {
    lx::SweepSettings s;
    s.start = kFullStart;
    s.stop = kFullStop;
    s.rbw = rbw;
    s.vbw = vbw;
    return s;
}

// What a work thread does per step: the packets' int16 samples to floats
// (done by the USB thread in the engine, counted here as step work), the
// step processor on the bins the step keeps, and the copy of those bins into
// the trace.
void BM_StepProcessing(benchmark::State& state) {
    const double rbw = static_cast<double>(state.range(0));
    const double vbw = rbw / static_cast<double>(state.range(1));
    const SweepPlan plan = PlanSweep(Settings(rbw, vbw), -1, -20.0);
    const int64_t samples = plan.SamplesPerStep();
    std::vector<int16_t> raw(static_cast<size_t>(2 * samples));
    std::mt19937 rng(7);
    std::normal_distribution<float> g(576.0f, 40.0f);
    for (auto& v : raw) v = static_cast<int16_t>(g(rng));
    lx::ComplexVector x(samples);
    lx::FloatVector mn(plan.fftSize), mx(plan.fftSize);
    std::vector<float> trace(static_cast<size_t>(plan.steps[10].binCount) * 2);
    StepProcessor sp(plan.ProcessorConfig());
    const SweepStep& st = plan.steps[10];
    for (auto _ : state) {
        lx::dsp::ConvertIq16(raw.data(), x.data(), samples);
        // As the engine does: everything after the FFT for the kept bins only.
        sp.Process(x.data(), 1.5f, mn.data(), mx.data(), st.firstBin, st.binCount);
        std::memcpy(trace.data(), mn.data() + st.firstBin, sizeof(float) * static_cast<size_t>(st.binCount));
        std::memcpy(trace.data() + st.binCount, mx.data() + st.firstBin, sizeof(float) * static_cast<size_t>(st.binCount));
        benchmark::DoNotOptimize(trace.data());
    }
    const double n = static_cast<double>(state.iterations()) * static_cast<double>(samples);
    state.counters["samples_per_s"] = benchmark::Counter(n, benchmark::Counter::kIsRate);
    state.counters["x_realtime"] = benchmark::Counter(n / kRealtime, benchmark::Counter::kIsRate);
    state.counters["fft"] = plan.fftSize;
    state.counters["segments"] = static_cast<double>(plan.averageCount);
    state.counters["kept"] = st.binCount;
}
// RBW 1 MHz, 30 kHz, 1 kHz with VBW = RBW (one FFT per step), and with
// VBW = RBW / 10 (ten overlapping FFTs: every sample transformed four times).
BENCHMARK(BM_StepProcessing)
    ->Args({1000000, 1})
    ->Args({30000, 1})
    ->Args({1000, 1})
    ->Args({1000000, 10})
    ->Args({30000, 10})
    ->Args({1000, 10})
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.5);

struct SimDevice {
    int32_t handle = -1;
    explicit SimDevice(const char* scene) {
        lxSimDetachAll();
        if (lxSimAttach(90000101, scene) == lxNoError) lxOpenDeviceBySerial(&handle, 90000101);
    }
    ~SimDevice() {
        if (handle >= 0) lxCloseDevice(handle);
        lxSimDetachAll();
    }
};

// A full-span sweep (9 kHz .. 15 GHz, 489 steps) at RBW 30 kHz through the
// public API, on the simulated analyzer delivering as fast as it can
// (range 0) or at the real 61.44 MS/s (range 1). Wall time: a sweep rate is
// what the user waits for.
void BM_FullSpanSweep(benchmark::State& state) {
    const bool paced = state.range(0) != 0;
    const std::string scene = std::string(R"({"noise_floor_dbm_hz": -150, "pacing": ")") +
                              (paced ? "realtime" : "fast") +
                              R"(", "emitters": [{"kind": "tone", "frequency_hz": 1e9, "power_dbm": -30},
                                 {"kind": "tone", "frequency_hz": 7.5e9, "power_dbm": -40}]})";
    SimDevice dev(scene.c_str());
    if (dev.handle < 0) {
        state.SkipWithError("no simulated analyzer");
        return;
    }
    const int32_t h = dev.handle;
    lxSetSweepStartStop(h, kFullStart, kFullStop);
    lxSetSweepCoupling(h, 30e3, 30e3, 1e-6);
    if (lxConfigure(h, 1) != lxNoError) {
        state.SkipWithError("configure failed");
        return;
    }
    int32_t length = 0;
    lxGetSweepParameters(h, nullptr, nullptr, nullptr, nullptr, &length);
    std::vector<float> mn(static_cast<size_t>(length)), mx(static_cast<size_t>(length));
    lxGetSweep(h, mn.data(), mx.data(), nullptr); // first touch of every buffer
    int warnings = 0;
    for (auto _ : state) {
        if (lxGetSweep(h, mn.data(), mx.data(), nullptr) != lxNoError) ++warnings;
        benchmark::DoNotOptimize(mx.data());
    }
    const SweepPlan plan = PlanSweep(Settings(30e3, 30e3), -1, -20.0);
    const double deviceSeconds =
        plan.stepCount * (plan.packetsPerStep * kPacketSeconds + kRetuneSeconds);
    const double span = (kFullStop - kFullStart) * static_cast<double>(state.iterations());
    state.counters["GHz_per_s"] = benchmark::Counter(span / 1e9, benchmark::Counter::kIsRate);
    state.counters["x_device"] =
        benchmark::Counter(deviceSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["device_GHz_per_s"] = (kFullStop - kFullStart) / 1e9 / deviceSeconds;
    state.counters["warnings"] = warnings;
}
BENCHMARK(BM_FullSpanSweep)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

// lxConfigure in mode 1 after a sweep, warm (FFT plans cached, as on every
// configure after the first at a size) and cold (plans forgotten first, as on
// the first configure of the process at that size). Range 0: RBW in Hz; range 1: span
// in MHz from 1 GHz (the largest FFT, 2^20 points, over a 100 MHz span).
void BM_Configure(benchmark::State& state) {
    const bool cold = state.range(2) != 0;
    SimDevice dev(R"({"noise_floor_dbm_hz": -150})");
    if (dev.handle < 0) {
        state.SkipWithError("no simulated analyzer");
        return;
    }
    const int32_t h = dev.handle;
    const double rbw = static_cast<double>(state.range(0));
    const double span = static_cast<double>(state.range(1)) * 1e6;
    lxSetSweepStartStop(h, span >= 1.5e10 ? kFullStart : 1e9, span >= 1.5e10 ? kFullStop : 1e9 + span);
    lxSetSweepCoupling(h, rbw, rbw, 1e-6);
    lxConfigure(h, 1);
    int32_t fft = 0;
    double bin = 0;
    lxGetSweepParameters(h, nullptr, nullptr, nullptr, &bin, nullptr);
    fft = static_cast<int32_t>(std::lround(kRealtime / bin));
    int32_t length = 0;
    lxGetSweepParameters(h, nullptr, nullptr, nullptr, nullptr, &length);
    std::vector<float> mx(static_cast<size_t>(length));
    for (auto _ : state) {
        // As an application does: a sweep on the running configuration,
        // then a new configure (which stops the running engine first).
        state.PauseTiming();
        lxGetSweep(h, nullptr, mx.data(), nullptr);
        if (cold) lx::dsp::ForgetFftPlans(true);
        state.ResumeTiming();
        if (lxConfigure(h, 1) != lxNoError) {
            state.SkipWithError("configure failed");
            break;
        }
    }
    state.counters["fft"] = fft;
}
BENCHMARK(BM_Configure)
    ->Args({30000, 15000, 0})
    ->Args({30000, 15000, 1})
    ->Args({221, 100, 0})
    ->Args({221, 100, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(10);

} // namespace

BENCHMARK_MAIN();
