// I/Q streaming: the host chain's input rate on one core, and the decimating
// FIR against liquid-dsp's firdecim and against its own direct form.
//
//   x_realtime  ADC samples the chain takes per second of CPU time / 61.44e6
//               (goal >= 2 at every D with the software filter on).
//   x_liquid    liquid-dsp firdecim_crcf's time / ours, same taps, factor and
//               input, timed alternately in one loop (goal >= 3).
//   x_direct    the direct form's time / the FFT path's (the narrow-span
//               engine's host filter before and after).
#include <benchmark/benchmark.h>

#include <chrono>
#include <complex>
#include <random>
#include <vector>

#if LX_HAVE_LIQUID
#include <liquid/liquid.h>
#endif

#include "dsp/fir.h"
#include "dsp/kernels.h"
#include "dsp/shifter.h"
#include "engines/iq_engine.h"

namespace {

using lx::ComplexVector;
using lx::dsp::cf32;
using Clock = std::chrono::steady_clock;

void Noise(ComplexVector& v, unsigned seed = 1) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> g(0.0f, 0.1f);
    for (int64_t i = 0; i < v.size(); ++i) v[i] = cf32(g(rng), g(rng));
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// ---- the engine's per-block work at decimation D: int16 to float, shift,
// the filter stage(s), into the sample store (emptied by a reader as it goes).
void BM_IqChain(benchmark::State& state) {
    lx::IqSettings settings;
    settings.decimation = static_cast<int32_t>(state.range(0));
    settings.centre = 1e9 + 1234.5;
    const lx::engines::IqPlan plan = lx::engines::PlanIq(settings, -1, -20.0);
    const int64_t B = plan.blockSamples;
    std::vector<int16_t> raw(static_cast<size_t>(2 * B));
    std::mt19937 rng(3);
    for (auto& v : raw) v = static_cast<int16_t>(static_cast<int>(rng() % 8000) - 4000);
    lx::dsp::FrequencyShifter shifter(0.0123, static_cast<int>(B), plan.d1 >= 4 ? 1 : 0);
    lx::dsp::FirFilter fir1;
    lx::dsp::DecimatingFir fir2, fir3;
    auto design = [](int taps, double cutoff) {
        std::vector<cf32> h(static_cast<size_t>(taps));
        lx::dsp::DesignFirLowPass(h.data(), taps, cutoff);
        return h;
    };
    if (plan.stage1Taps) fir1.Init(design(plan.stage1Taps, plan.stage1Cutoff).data(), plan.stage1Taps);
    if (plan.stage2Taps) fir2.Init(design(plan.stage2Taps, plan.stage2Cutoff).data(), plan.stage2Taps, plan.stage2);
    if (plan.stage3Taps) fir3.Init(design(plan.stage3Taps, plan.stage3Cutoff).data(), plan.stage3Taps, plan.stage3);
    lx::engines::IqSampleStore store(plan.StoreCapacity(), plan.nsPerSample);
    ComplexVector slot(B), a(B), b(B), out(B);
    for (auto _ : state) {
        lx::dsp::ConvertIq16(raw.data(), slot.data(), B);
        shifter.Shift(slot.data(), slot.data(), B);
        const cf32* y = slot.data();
        int64_t n = B;
        if (plan.stage1Taps) {
            fir1.Run(slot.data(), a.data(), B);
            y = a.data();
        } else if (plan.stage2Taps) {
            fir2.Run(slot.data(), B, a.data(), &n);
            y = a.data();
            if (plan.stage3Taps) {
                fir3.Run(a.data(), n, b.data(), &n);
                y = b.data();
            }
        }
        store.Put(y, n, -1.0, 0);
        int32_t none = 0;
        store.Take(out.data(), n, false, 0, nullptr, 0, &none);
        benchmark::DoNotOptimize(out.data());
    }
    const double adcSamples = static_cast<double>(state.iterations()) * static_cast<double>(B) * plan.d1;
    state.counters["x_realtime"] = benchmark::Counter(adcSamples / 61.44e6, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_IqChain)->ArgName("D")->RangeMultiplier(2)->Range(1, 8192);

std::vector<cf32> LowPass(int taps, int factor) {
    std::vector<cf32> h(static_cast<size_t>(taps));
    lx::dsp::DesignFirLowPass(h.data(), taps, 0.45 / factor);
    return h;
}

// ---- the FFT path against its own direct form (what the narrow-span
// engine ran before) at the engines' tap counts.
void BM_DecimatorVsDirect(benchmark::State& state) {
    const int taps = static_cast<int>(state.range(0)), factor = static_cast<int>(state.range(1));
    const int64_t block = 30720;
    const auto h = LowPass(taps, factor);
    lx::dsp::DecimatingFir fast, direct;
    fast.Init(h.data(), taps, factor);
    direct.Init(h.data(), taps, factor, 1);
    ComplexVector x(block), y(block);
    Noise(x);
    int64_t w = 0;
    double ours = 0, theirs = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        fast.Run(x.data(), block, y.data(), &w);
        auto t1 = Clock::now();
        direct.Run(x.data(), block, y.data(), &w);
        auto t2 = Clock::now();
        ours += Seconds(t1 - t0);
        theirs += Seconds(t2 - t1);
        benchmark::DoNotOptimize(y.data());
    }
    state.counters["x_direct"] = theirs / ours;
    state.counters["fft_MSps"] = static_cast<double>(state.iterations()) * block / ours / 1e6;
}
BENCHMARK(BM_DecimatorVsDirect)
    ->ArgNames({"taps", "factor"})
    ->Args({2049, 2})
    ->Args({2049, 4})
    ->Args({2049, 16})
    ->Args({2049, 64})
    ->Args({257, 2})
    ->Args({1025, 8});

#if LX_HAVE_LIQUID
// ---- against liquid-dsp's polyphase decimator, same taps and input.
void BM_DecimatorVsLiquid(benchmark::State& state) {
    const int taps = static_cast<int>(state.range(0)), factor = static_cast<int>(state.range(1));
    const int64_t block = 30720; // a D1 = 4 block: what the host stages see
    const auto h = LowPass(taps, factor);
    std::vector<float> hr(static_cast<size_t>(taps));
    for (int i = 0; i < taps; ++i) hr[static_cast<size_t>(i)] = h[static_cast<size_t>(i)].real();
    firdecim_crcf q = firdecim_crcf_create(static_cast<unsigned>(factor), hr.data(), static_cast<unsigned>(taps));
    lx::dsp::DecimatingFir ours;
    ours.Init(h.data(), taps, factor);
    ComplexVector x(block), y(block);
    std::vector<std::complex<float>> ly(static_cast<size_t>(block / factor));
    Noise(x);
    int64_t w = 0;
    double tOurs = 0, tLiquid = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        ours.Run(x.data(), block, y.data(), &w);
        auto t1 = Clock::now();
        firdecim_crcf_execute_block(q, reinterpret_cast<std::complex<float>*>(x.data()),
                                    static_cast<unsigned>(block / factor), ly.data());
        auto t2 = Clock::now();
        tOurs += Seconds(t1 - t0);
        tLiquid += Seconds(t2 - t1);
        benchmark::DoNotOptimize(y.data());
        benchmark::DoNotOptimize(ly.data());
    }
    firdecim_crcf_destroy(q);
    state.counters["x_liquid"] = tLiquid / tOurs;
}
BENCHMARK(BM_DecimatorVsLiquid)
    ->ArgNames({"taps", "factor"})
    ->Args({257, 2})
    ->Args({513, 4})
    ->Args({1025, 8})
    ->Args({2049, 16})
    ->Args({2049, 2})
    ->Args({2049, 4});
#endif

} // namespace

BENCHMARK_MAIN();
