// The real-time engine on the simulated analyzer: processing cost per second
// of signal (FFT and accumulator threads together, density on), against the
// bare FFTW transforms of the same size and count measured in the same run;
// and a paced minute at the smallest and the largest FFT.
//
//   ./build/release/bench/bench_realtime --benchmark_counters_tabular=true
//
// x_realtime: seconds of signal per second of the two threads' CPU time.
// x_fft: the engine's CPU time over the bare transforms' (lower is better).
// Paced runs: lost spectra, frames that reported lost samples, ring waits.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>

#include "api/registry.h"
#include "dsp/fft.h"
#include "engines/realtime_engine.h"
#include "lx_api.h"
#include "lx_sim.h"

namespace {

using namespace lx;

constexpr int32_t kSerial = 52000001;

double CpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

struct Session {
    int32_t handle = -1;
    Device* dev = nullptr;
    explicit Session(const char* scene) {
        lxSimDetachAll();
        lxSimAttach(kSerial, scene);
        lxOpenDeviceBySerial(&handle, kSerial);
        dev = api::LookUp(handle);
    }
    ~Session() {
        lxCloseDevice(handle);
        lxSimDetachAll();
    }
    engines::RealTimeEngine* Configure(double rbw, double span, int32_t window) {
        lxSetRealTimeCenterSpan(handle, 2.44e9, span);
        lxSetRealTimeRBW(handle, rbw);
        lxSetRealTimeWindow(handle, window);
        lxSetRealTimeScale(handle, 0, -20.0, 110.0);
        if (lxConfigure(handle, 2) != lxNoError) return nullptr;
        return static_cast<engines::RealTimeEngine*>(dev->engines[kRealTimeEngine].get());
    }
};

constexpr const char* kScene = R"({"emitters": [{"kind": "tone", "frequency_hz": 2.437e9, "power_dbm": -35},
                                               {"kind": "tone", "frequency_hz": 2.4512e9, "power_dbm": -60}],
                                  "noise_floor_dbm_hz": -150})";

// Args: RBW (Hz), span (MHz). Nuttall window (the library's default).
void BM_RealTimeEngine(benchmark::State& state) {
    const double rbw = double(state.range(0)), span = double(state.range(1)) * 1e6;
    Session s(kScene);
    double engineCpu = 0, fftCpu = 0, signal = 0;
    int64_t spectra = 0;
    for (auto _ : state) {
        engines::RealTimeEngine* e = s.Configure(rbw, span, 1);
        if (!e) {
            state.SkipWithError("configure failed");
            return;
        }
        const int frames = 45;
        std::vector<float> density(size_t(e->plan().frameWidth) * 256), mx(size_t(e->plan().sweepLength));
        for (int k = 0; k < frames; ++k)
            lxGetRealTimeFrame(s.handle, density.data(), nullptr, nullptr, mx.data(), nullptr, nullptr);
        e->Stop();
        engineCpu += e->ProcessingCpuSeconds();
        signal += double(e->SamplesReceived()) / 61.44e6;
        const int64_t count = e->SpectraProduced();
        spectra += count;

        // The bare transforms: the same plan, size and count, out of place.
        const int n = e->plan().fftSize;
        auto plan = dsp::FftPlan::Get(n);
        ComplexVector in(n), out(n);
        in.zero();
        in[1] = dsp::cf32(1, 0);
        const double t0 = CpuSeconds();
        for (int64_t k = 0; k < count; ++k) plan->Execute(in.data(), out.data());
        fftCpu += CpuSeconds() - t0;
        benchmark::DoNotOptimize(out.data());
        lxAbort(s.handle);
    }
    state.counters["x_realtime"] = signal / engineCpu;
    state.counters["core_s_per_s"] = engineCpu / signal;
    state.counters["x_fft"] = engineCpu / fftCpu;
    state.counters["spectra"] = double(spectra);
}
BENCHMARK(BM_RealTimeEngine)
    ->ArgsProduct({{2000, 10000, 100000, 1000000}, {40, 10}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Args: seconds; 0 the smallest FFT (1 MHz, rectangular: 128 points), 1 the
// largest (2 kHz, flat-top: 65,536 points). The analyzer is paced at the real
// sample rate and holds 34 ms of samples: it reports data loss when the host
// falls behind by more.
void BM_RealTimePaced(benchmark::State& state) {
    const double seconds = double(state.range(0));
    const bool largest = state.range(1) != 0;
    Session s(R"({"emitters": [{"kind": "tone", "frequency_hz": 2.437e9, "power_dbm": -35}],
                  "noise_floor_dbm_hz": -150, "pacing": "realtime"})");
    int64_t lost = 0, lossFrames = 0, frames = 0, waits = 0;
    double signal = 0;
    for (auto _ : state) {
        engines::RealTimeEngine* e = largest ? s.Configure(2000, 40e6, 0) : s.Configure(1e6, 40e6, 5);
        if (!e) {
            state.SkipWithError("configure failed");
            return;
        }
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            const LxStatus st = lxGetRealTimeFrame(s.handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
            lossFrames += st == lxUncalData ? 1 : 0;
            ++frames;
        }
        e->Stop();
        lost += e->LostSpectra();
        waits += e->RingWaits();
        signal += double(e->SamplesReceived()) / 61.44e6;
        lxAbort(s.handle);
    }
    state.counters["signal_s"] = signal;
    state.counters["frames"] = double(frames);
    state.counters["lost_spectra"] = double(lost);
    state.counters["loss_frames"] = double(lossFrames);
    state.counters["ring_waits"] = double(waits);
}
BENCHMARK(BM_RealTimePaced)->Args({60, 0})->Args({60, 1})->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
