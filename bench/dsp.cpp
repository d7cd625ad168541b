// Signal-processing primitives: throughput against the instrument's sample rate
// and the windowed FFT against FFTW running the same plan.
//
// Machines here are shared, so absolute times drift; every figure that carries
// a goal is a ratio: x_realtime = samples per second / the stream's rate, and
// x_fftw = FFTW's time / our time for the same transform, both timed
// interleaved inside one benchmark so that the two sides see the same load.
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <chrono>
#include <ctime>
#include <cmath>
#include <fstream>
#include <string>
#include <complex>
#include <random>
#include <vector>

#include "dsp/fft.h"
#include "dsp/fir.h"
#include "dsp/kernels.h"
#include "dsp/shifter.h"
#include "dsp/window.h"
#include "dsp_vector/aligned_vector.h"

namespace {

using lx::ComplexVector;
using lx::dsp::cf32;
using Clock = std::chrono::steady_clock;

constexpr double kAdcRate = 61.44e6;

void Noise(ComplexVector& v, unsigned seed = 1) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> g(0.0f, 0.1f);
    for (int64_t i = 0; i < v.size(); ++i) v[i] = cf32(g(rng), g(rng));
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// This thread's CPU time: the two sides of a ratio are timed with it, since
// on a loaded machine wall time counts whatever ran in between.
double CpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// Times ours() and theirs() alternately, each `reps` times, the first one
// switching every iteration so that neither always runs on the caches the
// other left; returns theirs / ours, CPU time. The manual iteration time is
// ours.
template <typename Ours, typename Theirs>
double AlternateRatio(benchmark::State& state, int reps, Ours ours, Theirs theirs) {
    double tOurs = 0, tTheirs = 0;
    bool oursFirst = false;
    const auto time = [&](auto& f) {
        const double t0 = CpuSeconds();
        for (int r = 0; r < reps; ++r) f();
        return CpuSeconds() - t0;
    };
    for (auto _ : state) {
        double a, b;
        if (oursFirst) {
            a = time(ours);
            b = time(theirs);
        } else {
            b = time(theirs);
            a = time(ours);
        }
        oursFirst = !oursFirst;
        tOurs += a;
        tTheirs += b;
        state.SetIterationTime(a);
    }
    return tTheirs / tOurs;
}

void RealTime(benchmark::State& state, int64_t samplesPerIteration, double rate) {
    state.SetItemsProcessed(state.iterations() * samplesPerIteration);
    state.counters["x_realtime"] =
        benchmark::Counter(static_cast<double>(state.iterations() * samplesPerIteration) / rate,
                           benchmark::Counter::kIsRate);
}

// ---- windowed FFT (window multiply + transform) against a bare FFTW execute of
// the same plan on the same size, goal >= 0.95.
void BM_WindowedFftVsFftw(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    lx::dsp::WindowedFft fft(lx::dsp::kWindowFlatTop, 0, n, 0);
    auto plan = lx::dsp::FftPlan::Get(n);
    auto native = static_cast<fftwf_plan>(plan->native());
    ComplexVector x(n), y(n), in(n), out(n);
    Noise(x);
    Noise(in);
    const int reps = std::max(1, (1 << 18) / n);
    state.counters["x_fftw"] = AlternateRatio(
        state, reps, [&] { fft.Transform(x.data(), y.data()); },
        [&] {
            fftwf_execute_dft(native, reinterpret_cast<fftwf_complex*>(in.data()),
                              reinterpret_cast<fftwf_complex*>(out.data()));
        });
    benchmark::DoNotOptimize(y.data());
    benchmark::DoNotOptimize(out.data());
    state.SetItemsProcessed(state.iterations() * reps);
}
BENCHMARK(BM_WindowedFftVsFftw)->Arg(128)->Arg(1024)->Arg(8192)->Arg(65536)->UseManualTime();

// ---- what every streaming spectrum path does per frame: raw int16 I/Q to
// floats, window, transform. Ours: the fused conversion with the window folded
// in (ConvertIq16Windowed), then the plan; the reference: the plain
// conversion, then the same plan (a bare FFT of unwindowed samples). Goal:
// x_fftw >= 0.95 at 128..65536.
void BM_ConvertWindowFftVsConvertFft(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    lx::dsp::WindowedFft fft(lx::dsp::kWindowFlatTop, 0, n, 0);
    auto plan = lx::dsp::FftPlan::Get(n);
    std::vector<int16_t> raw(static_cast<size_t>(2 * n));
    std::mt19937 rng(3);
    std::normal_distribution<float> g(576.0f, 300.0f);
    for (auto& v : raw) v = static_cast<int16_t>(g(rng));
    lx::FloatVector w(n);
    for (int k = 0; k < n; ++k) w[k] = fft.window()[k].real() / static_cast<float>(n);
    ComplexVector a(n), b(n), c(n), d(n);
    const int reps = std::max(1, (1 << 18) / n);
    state.counters["x_fftw"] = AlternateRatio(
        state, reps,
        [&] {
            lx::dsp::ConvertIq16Windowed(raw.data(), w.data(), c.data(), n);
            plan->Execute(c.data(), d.data());
        },
        [&] {
            lx::dsp::ConvertIq16(raw.data(), a.data(), n);
            plan->Execute(a.data(), b.data());
        });
    benchmark::DoNotOptimize(b.data());
    benchmark::DoNotOptimize(d.data());
    state.SetItemsProcessed(state.iterations() * reps);
}
BENCHMARK(BM_ConvertWindowFftVsConvertFft)->Arg(128)->Arg(1024)->Arg(8192)->Arg(65536)->UseManualTime();

// ---- 2^17..2^20 points: the plan the cache gives (built-in measured wisdom)
// against FFTW's estimate, which is what a CPU the wisdom does not fit gets.
// x_estimate = estimate time / our time, both executed alternately.
void BM_LargeFftVsEstimate(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    lx::dsp::ForgetFftPlans(false);
    const auto estimate = lx::dsp::FftPlan::Get(n);
    lx::dsp::ForgetFftPlans(true);
    const auto ours = lx::dsp::FftPlan::Get(n);
    ComplexVector x(n), y(n);
    Noise(x);
    double tOurs = 0, tEstimate = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        estimate->Execute(x.data(), y.data());
        const auto t1 = Clock::now();
        ours->Execute(x.data(), y.data());
        const auto t2 = Clock::now();
        tEstimate += Seconds(t1 - t0);
        tOurs += Seconds(t2 - t1);
        state.SetIterationTime(Seconds(t2 - t1));
        benchmark::DoNotOptimize(y.data());
    }
    state.counters["x_estimate"] = tEstimate / tOurs;
}
BENCHMARK(BM_LargeFftVsEstimate)->RangeMultiplier(2)->Range(1 << 17, 1 << 20)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- construct time at 65536 points. plan 0: warm (plan cached); 1: cold with
// the built-in wisdom; 2: cold without any wisdom (what a machine the wisdom does
// not fit sees).
void BM_FftConstruct65536(benchmark::State& state) {
    const int plan = static_cast<int>(state.range(0));
    lx::dsp::FftPlan::Get(65536);
    for (auto _ : state) {
        if (plan > 0) lx::dsp::ForgetFftPlans(plan == 1);
        const auto t0 = Clock::now();
        lx::dsp::WindowedFft fft(lx::dsp::kWindowNuttall, 0, 65536, 0);
        state.SetIterationTime(Seconds(Clock::now() - t0));
        benchmark::DoNotOptimize(fft.valid());
    }
}
BENCHMARK(BM_FftConstruct65536)->ArgName("plan")->Arg(0)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- 129-tap complex FIR at the full rate, goal >= 2.5 x 61.44 MS/s.
// Arg: FFT size of the overlap-save path, 0 = the filter's own choice, 1 = direct.
void BM_Fir129Complex(benchmark::State& state) {
    const int64_t block = 16384;
    std::vector<cf32> taps(129);
    lx::dsp::DesignFirLowPass(taps.data(), 129, 0.2);
    for (size_t k = 0; k < taps.size(); ++k) taps[k] *= std::polar(1.0f, 0.3f * static_cast<float>(k)); // complex band-pass
    lx::dsp::FirFilter fir;
    if (fir.Init(taps.data(), 129, static_cast<int>(state.range(0))) != lx::dsp::DspStatus::kOk) {
        state.SkipWithError("init");
        return;
    }
    ComplexVector x(block), y(block);
    Noise(x);
    for (auto _ : state) {
        fir.Run(x.data(), y.data(), block);
        benchmark::DoNotOptimize(y.data());
    }
    RealTime(state, block, kAdcRate);
    state.counters["fft_size"] = fir.fftSize();
}
BENCHMARK(BM_Fir129Complex)->Arg(0)->Arg(1)->Arg(512)->Arg(1024)->Arg(2048)->Arg(4096);

// ---- direct against overlap-save at short lengths (where the automatic choice switches).
void BM_FirShort(benchmark::State& state) {
    const int taps = static_cast<int>(state.range(0));
    const int64_t block = 16384;
    ComplexVector h(taps), x(block), y(block);
    Noise(h, 3);
    Noise(x);
    lx::dsp::FirFilter fir;
    int size = 256;
    while (size < 8 * (taps - 1)) size *= 2;
    fir.Init(h.data(), taps, state.range(1) ? size : 1);
    for (auto _ : state) {
        fir.Run(x.data(), y.data(), block);
        benchmark::DoNotOptimize(y.data());
    }
    RealTime(state, block, kAdcRate);
}
BENCHMARK(BM_FirShort)->ArgNames({"taps", "fft"})->ArgsProduct({{4, 8, 12, 16, 32}, {0, 1}});

// ---- 2049-tap low-pass keeping every 16th output, goal >= 2 x 15.36 MS/s input.
void BM_DecimatingFir2049By16(benchmark::State& state) {
    const int64_t block = 65536;
    std::vector<cf32> taps(2049);
    lx::dsp::DesignFirLowPass(taps.data(), 2049, 0.45 / 16);
    lx::dsp::DecimatingFir fir;
    fir.Init(taps.data(), 2049, 16);
    ComplexVector x(block), y(block / 16 + 1);
    Noise(x);
    int64_t written = 0;
    for (auto _ : state) {
        fir.Run(x.data(), block, y.data(), &written);
        benchmark::DoNotOptimize(y.data());
    }
    RealTime(state, block, 15.36e6);
}
BENCHMARK(BM_DecimatingFir2049By16);

// ---- int16 I/Q -> float, one staging buffer of the real-time engine, goal >= 10x.
void BM_ConvertIq16(benchmark::State& state) {
    const int64_t n = 262144;
    std::vector<int16_t> raw(2 * n);
    std::mt19937 rng(2);
    for (auto& v : raw) v = static_cast<int16_t>(rng());
    ComplexVector out(n);
    for (auto _ : state) {
        lx::dsp::ConvertIq16(raw.data(), out.data(), n);
        benchmark::DoNotOptimize(out.data());
    }
    RealTime(state, n, kAdcRate);
}
BENCHMARK(BM_ConvertIq16);

// ---- frequency shifter, both tone modes, goal >= 10x.
void BM_FrequencyShifter(benchmark::State& state) {
    const int n = 65536;
    lx::dsp::FrequencyShifter shifter(0.1234567, n, static_cast<uint8_t>(state.range(0)));
    ComplexVector x(n), y(n);
    Noise(x);
    for (auto _ : state) {
        shifter.Shift(x.data(), y.data(), n);
        benchmark::DoNotOptimize(y.data());
    }
    RealTime(state, n, kAdcRate);
}
BENCHMARK(BM_FrequencyShifter)->ArgName("mode")->Arg(0)->Arg(1);

// ---- |x|^2 in dB, goal >= 10x; x_libm compares with a std::log10 loop timed alongside.
void BM_PowerDb(benchmark::State& state) {
    const int n = 65536;
    ComplexVector x(n);
    Noise(x);
    std::vector<float> db(n), ref(n);
    double ours = 0, libm = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        lx::dsp::PowerDb(x.data(), db.data(), n);
        const auto t1 = Clock::now();
        for (int i = 0; i < n; ++i) ref[i] = 10.0f * std::log10(std::norm(x[i]));
        const auto t2 = Clock::now();
        ours += Seconds(t1 - t0);
        libm += Seconds(t2 - t1);
        state.SetIterationTime(Seconds(t1 - t0));
        benchmark::DoNotOptimize(db.data());
        benchmark::DoNotOptimize(ref.data());
    }
    RealTime(state, n, kAdcRate);
    state.counters["x_libm"] = libm / ours;
}
BENCHMARK(BM_PowerDb)->UseManualTime();

} // namespace

// --lx_write_fft_wisdom=PATH regenerates the library's built-in FFTW wisdom
// (src/dsp/fft_wisdom.cpp) on this machine instead of benchmarking;
// --lx_write_large_fft_wisdom=PATH the one for 2^17..2^20 points
// (src/dsp/fft_wisdom_large.cpp). Run it on
// an otherwise idle machine: the patient search times candidate plans.
int main(int argc, char** argv) {
    const std::string flag = "--lx_write_fft_wisdom=";
    const std::string largeFlag = "--lx_write_large_fft_wisdom=";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind(largeFlag, 0) == 0) {
            const std::string wisdom = lx::dsp::SearchFftWisdom(1 << 17, 1 << 20, false);
            std::ofstream out(arg.substr(largeFlag.size()));
            out << "// Generated by: bench_dsp --lx_write_large_fft_wisdom=src/dsp/fft_wisdom_large.cpp\n"
                   "// FFTW's measuring search for the forward transforms of 2^17..2^20 points.\n"
                   "namespace lx::dsp {\n"
                   "extern const char kBuiltInLargeFftWisdom[] = R\"lxw(" << wisdom << ")lxw\";\n"
                   "} // namespace lx::dsp\n";
            return out ? 0 : 1;
        }
        if (arg.rfind(flag, 0) != 0) continue;
        const std::string wisdom = lx::dsp::SearchFftWisdom(8192, 65536);
        std::ofstream out(arg.substr(flag.size()));
        out << "// Generated by: bench_dsp --lx_write_fft_wisdom=src/dsp/fft_wisdom.cpp\n"
               "// FFTW's patient search for the forward transforms of 8192..65536 points.\n"
               "namespace lx::dsp {\n"
               "extern const char kBuiltInFftWisdom[] = R\"lxw(" << wisdom << ")lxw\";\n"
               "} // namespace lx::dsp\n";
        return out ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
