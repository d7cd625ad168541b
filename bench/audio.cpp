// Audio demodulation: CPU time of the engine's block work (IF filter,
// demodulator, audio low-pass at every 16th output, high-pass) per second
// of audio, on one core, for every type.
//
//   core_s      CPU seconds per second of audio (goal <= 0.05, i.e. >= 20x
//               real time).
//   x_realtime  1 / core_s.
//   x_direct    the same chain with its three long FIRs (1024-tap IF,
//               2047-tap Hilbert, 1024-tap low-pass) in direct form, timed
//               in the same run: what the FFT filters save.
#include <benchmark/benchmark.h>

#include <time.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "engines/audio_engine.h"

namespace {

using lx::dsp::cf32;
using namespace lx::engines;

// CPU time of this thread: on a shared machine the wall clock counts other
// processes' time too.
double ThreadSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}

// One second of a carrier at 480 kS/s, 2 kHz off the centre, AM and FM
// modulated by 1 kHz, with a little noise: every demodulator has work.
std::vector<cf32> Input() {
    std::vector<cf32> x(static_cast<size_t>(kAudioInputRateHz));
    const double w = 2 * std::numbers::pi / kAudioInputRateHz;
    for (size_t k = 0; k < x.size(); ++k) {
        const double t = double(k);
        const double phase = w * 2000 * t + 5.0 * std::sin(w * 1000 * t);
        const double a = 0.05 * (1 + 0.5 * std::sin(w * 1000 * t));
        x[k] = cf32(float(a * std::cos(phase)), float(a * std::sin(phase)));
    }
    return x;
}

double SecondOfAudio(AudioChain& chain, const std::vector<cf32>& x, std::vector<float>& out) {
    const double t0 = ThreadSeconds();
    for (size_t b = 0; b + kAudioInputBlock <= x.size(); b += kAudioInputBlock) chain.Process(x.data() + b, out.data());
    return ThreadSeconds() - t0;
}

void BM_AudioChain(benchmark::State& state) {
    lx::AudioSettings s;
    s.type = static_cast<int32_t>(state.range(0));
    s.ifBandwidth = s.type == kAudioFm ? 200000 : s.type == kAudioAm ? 10000 : 3000;
    const AudioPlan plan = PlanAudio(s);
    AudioChain fast(plan), direct(plan, 1);
    const std::vector<cf32> x = Input();
    std::vector<float> out(kAudioBlock);
    double fastTime = 0, directTime = 0;
    int seconds = 0;
    for (auto _ : state) {
        fastTime += SecondOfAudio(fast, x, out);
        benchmark::DoNotOptimize(out.data());
        ++seconds;
    }
    // The direct form once per iteration would dominate the run: two seconds.
    directTime = SecondOfAudio(direct, x, out) + SecondOfAudio(direct, x, out);
    state.counters["core_s"] = fastTime / seconds;
    state.counters["x_realtime"] = seconds / fastTime;
    state.counters["x_direct"] = (directTime / 2) / (fastTime / seconds);
    state.SetLabel(s.type == 0 ? "AM" : s.type == 1 ? "FM" : s.type == 2 ? "USB" : s.type == 3 ? "LSB" : "CW");
}
BENCHMARK(BM_AudioChain)->DenseRange(0, 4)->Unit(benchmark::kMillisecond)->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
