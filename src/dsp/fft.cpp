#include "dsp/fft.h"

#include <fftw3.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <utility>

#include "common/lx_assert.h"
#include "dsp/kernels.h"
#include "dsp/simd.h"
#include "dsp/window.h"

namespace lx::dsp {

// Wisdom of FFTW's patient search, made on the development machine (fft_wisdom.cpp),
// and of its measuring search for the sizes above kMeasureLimit (fft_wisdom_large.cpp).
extern const char kBuiltInFftWisdom[];
extern const char kBuiltInLargeFftWisdom[];

namespace {

// Largest size planned by measurement. Above it a plan comes from the built-in
// wisdom or FFTW's estimate: measuring a 262144-point plan takes 5 to 17 s,
// and the measured plan runs 3x faster than the estimate.
constexpr int kMeasureLimit = 65536;

// Measured plans (when the built-in wisdom does not apply), with the two searches
// that cost the most planning time and never won on the development machine
// switched off (indirect in-place variants and DFTs through real transforms): at
// 65536 points the cold plan falls from 0.8-1.1 s to 0.4-0.6 s and runs as fast
// as the full measured search (131-140 us against 133-145 us).
constexpr unsigned kMeasureFlags = FFTW_MEASURE | FFTW_NO_INDIRECT_OP | FFTW_NO_DFT_R2HC;

constexpr unsigned kWisdomFlags = FFTW_PATIENT;

struct PlanCache {
    std::map<int, std::shared_ptr<const FftPlan>> plans;
    enum { kWisdomToLoad, kWisdomLoaded, kWisdomOff } wisdom = kWisdomToLoad;
};

PlanCache& Cache() {
    static PlanCache* cache = new PlanCache; // never destroyed: plans may outlive static destructors
    return *cache;
}

LX_DSP_CLONES void ReverseLoop(const float* src, float* dst, int64_t n) {
    // dst[m] = src[(n - m) mod n] on complex values, m = 1..n-1 here.
    for (int64_t m = 1; m < n; ++m) {
        dst[2 * m] = src[2 * (n - m)];
        dst[2 * m + 1] = src[2 * (n - m) + 1];
    }
}

// out[k] = w[k] * x[k], w real, x and out complex. The window is kept once per
// sample rather than once per float: the smaller footprint beside the
// transform's own arrays made window + transform 5-10 % faster at 1024 points.
// Blocks of 8 samples spread their window values to one per float first, so
// that the multiply is one straight float loop: over I/Q pairs gcc splits and
// re-interleaves every vector with shuffles (see ConvertIq16Windowed).
constexpr int64_t kWindowBlock = 8;

LX_DSP_CLONES void WindowLoop(const float* __restrict w, const float* __restrict x, float* __restrict out,
                              int64_t n) {
    const int64_t body = n / kWindowBlock * kWindowBlock;
    for (int64_t b = 0; b < body; b += kWindowBlock) {
        float g[2 * kWindowBlock];
        for (int64_t k = 0; k < kWindowBlock; ++k) g[2 * k] = g[2 * k + 1] = w[b + k];
        for (int64_t k = 0; k < 2 * kWindowBlock; ++k) out[2 * b + k] = x[2 * b + k] * g[k];
    }
    for (int64_t k = body; k < n; ++k) {
        out[2 * k] = x[2 * k] * w[k];
        out[2 * k + 1] = x[2 * k + 1] * w[k];
    }
}

const float* F(const cf32* p) { return reinterpret_cast<const float*>(p); }
float* F(cf32* p) { return reinterpret_cast<float*>(p); }

} // namespace

bool IsPowerOf2(int64_t n) noexcept { return n > 0 && (n & (n - 1)) == 0; }

bool FftAligned(const void* p) noexcept { return (reinterpret_cast<uintptr_t>(p) & 15u) == 0; }

std::mutex& FftwPlannerMutex() noexcept {
    static std::mutex* m = new std::mutex;
    return *m;
}

std::shared_ptr<const FftPlan> FftPlan::Get(int n) try {
    if (!IsPowerOf2(n) || n > kMaxFftSize) return nullptr;
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    auto& plans = Cache().plans;
    if (auto it = plans.find(n); it != plans.end()) return it->second;

    if (Cache().wisdom == PlanCache::kWisdomToLoad) {
        // A wisdom string from another FFTW build is refused here; one from another
        // CPU is recognised as inapplicable by the planner, which then searches.
        fftwf_import_wisdom_from_string(kBuiltInFftWisdom);
        fftwf_import_wisdom_from_string(kBuiltInLargeFftWisdom);
        Cache().wisdom = PlanCache::kWisdomLoaded;
    }
    // Plan on scratch arrays aligned like every AlignedVector; measuring
    // overwrites them. Execution later uses the new-array interface.
    ComplexVector in(n), out(n);
    auto* pin = reinterpret_cast<fftwf_complex*>(in.data());
    auto* pout = reinterpret_cast<fftwf_complex*>(out.data());
    const unsigned wisdomFlags = n <= kMeasureLimit ? kWisdomFlags : kMeasureFlags;
    fftwf_plan p = fftwf_plan_dft_1d(n, pin, pout, FFTW_FORWARD, wisdomFlags | FFTW_WISDOM_ONLY);
    if (!p) p = fftwf_plan_dft_1d(n, pin, pout, FFTW_FORWARD, n <= kMeasureLimit ? kMeasureFlags : FFTW_ESTIMATE);
    if (!p) return nullptr;
    std::shared_ptr<const FftPlan> plan(new FftPlan(n, p));
    plans.emplace(n, plan);
    return plan;
} catch (const std::bad_alloc&) {
    return nullptr;
}

FftPlan::~FftPlan() {
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    fftwf_destroy_plan(static_cast<fftwf_plan>(plan_));
}

DspStatus FftPlan::Execute(const cf32* in, cf32* out) const noexcept {
    if (!in || !out || in == out || !FftAligned(in) || !FftAligned(out)) return DspStatus::kBadArgument;
    // Out-of-place complex transforms leave their input untouched.
    fftwf_execute_dft(static_cast<fftwf_plan>(plan_), reinterpret_cast<fftwf_complex*>(const_cast<cf32*>(in)),
                      reinterpret_cast<fftwf_complex*>(out));
    return DspStatus::kOk;
}

void ForgetFftPlans(bool keepBuiltInWisdom) {
    std::map<int, std::shared_ptr<const FftPlan>> dropped;
    {
        std::lock_guard<std::mutex> lock(FftwPlannerMutex());
        dropped.swap(Cache().plans);
        fftwf_forget_wisdom();
        Cache().wisdom = keepBuiltInWisdom ? PlanCache::kWisdomToLoad : PlanCache::kWisdomOff;
    }
    // Plans are destroyed here, outside the lock their destructor takes.
}

std::string SearchFftWisdom(int minSize, int maxSize, bool patient) {
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    fftwf_forget_wisdom();
    for (int n = minSize; n > 0 && n <= maxSize; n *= 2) {
        ComplexVector in(n), out(n);
        fftwf_plan p = fftwf_plan_dft_1d(n, reinterpret_cast<fftwf_complex*>(in.data()),
                                         reinterpret_cast<fftwf_complex*>(out.data()), FFTW_FORWARD,
                                         patient ? kWisdomFlags : kMeasureFlags);
        if (p) fftwf_destroy_plan(p);
    }
    char* text = fftwf_export_wisdom_to_string();
    std::string wisdom = text ? text : "";
    std::free(text);
    fftwf_forget_wisdom();
    Cache().wisdom = PlanCache::kWisdomToLoad;
    return wisdom;
}

WindowedFft::WindowedFft(int windowType, int option, int n, int pad) {
    LX_ASSERT(IsPowerOf2(n), "src/dsp");
    if (!IsPowerOf2(n) || n > kMaxFftSize || pad < 0 || pad >= n) return;
    order_ = std::countr_zero(static_cast<unsigned>(n));
    windowType_ = windowType;
    windowLength_ = n - pad;
    n_ = n;
    pad_ = pad;
    option_ = option;
    try {
        work_.resize(n);
        window_.resize(n);
        window_.zero();
        const int64_t L = windowLength_;
        DoubleVector w(L);
        GenerateWindow(windowType, w.data(), L);
        cf32* win = window_.data();
        for (int64_t k = 0; k < L; ++k) win[k] = cf32(static_cast<float>(w[k]), 0.0f);

        // Mean 1 over all n points, pad included: a full-scale tone keeps its amplitude.
        double sum = 0.0;
        for (int64_t k = 0; k < n; ++k) sum += static_cast<double>(win[k].real());
        const double g = static_cast<double>(n) / sum;
        for (int64_t k = 0; k < n; ++k)
            win[k] = cf32(static_cast<float>(static_cast<double>(win[k].real()) * g), 0.0f);

        // The run path folds the forward 1/n into the window (exact: n is a power of two).
        scaledWindow_.resize(L);
        float* sw = scaledWindow_.data();
        const float inv = 1.0f / static_cast<float>(n);
        for (int64_t k = 0; k < L; ++k) sw[k] = win[k].real() * inv;
        plan_ = FftPlan::Get(n);
    } catch (const std::bad_alloc&) {
        plan_.reset();
    }
}

DspStatus WindowedFft::Transform(const cf32* src, cf32* dst) noexcept {
    if (!plan_) return DspStatus::kNotInitialised;
    if (!src || !dst || !FftAligned(dst)) return DspStatus::kBadArgument;
    cf32* work = work_.span().data();
    WindowLoop(scaledWindow_.span().data(), F(src), F(work), windowLength_);
    // Out-of-place complex plans leave their input alone, so the zero padding
    // stays until Forward or Inverse use the array.
    if (pad_ > 0 && !padClean_) {
        std::memset(static_cast<void*>(work + windowLength_), 0, sizeof(cf32) * static_cast<size_t>(pad_));
        padClean_ = true;
    }
    return plan_->Execute(work, dst);
}

DspStatus WindowedFft::Forward(const cf32* src, cf32* dst) noexcept {
    if (!plan_) return DspStatus::kNotInitialised;
    if (!src || !dst || !FftAligned(dst)) return DspStatus::kBadArgument;
    const float inv = 1.0f / static_cast<float>(n_);
    if (src != dst && FftAligned(src)) {
        plan_->Execute(src, dst);
        return ScaleFloats(F(dst), inv, F(dst), 2 * static_cast<int64_t>(n_));
    }
    cf32* work = work_.span().data();
    padClean_ = false;
    ScaleFloats(F(src), inv, F(work), 2 * static_cast<int64_t>(n_));
    return plan_->Execute(work, dst);
}

DspStatus WindowedFft::Inverse(const cf32* src, cf32* dst) noexcept {
    if (!plan_) return DspStatus::kNotInitialised;
    if (!src || !dst || !FftAligned(dst)) return DspStatus::kBadArgument;
    cf32* work = work_.span().data();
    padClean_ = false;
    work[0] = src[0];
    ReverseLoop(F(src), F(work), n_);
    return plan_->Execute(work, dst);
}

} // namespace lx::dsp
