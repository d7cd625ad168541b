#include "dsp/shifter.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <numbers>

#include "common/lx_assert.h"
#include "dsp/kernels.h"
#include "dsp/simd.h"

namespace lx::dsp {

namespace {

constexpr int64_t kToneChunk = 1024;
constexpr double kTwoPi = 2.0 * std::numbers::pi;

// out[k] = r * base[k] (complex, r a constant).
LX_DSP_CLONES void RotateF(const float* base, float rr, float ri, float* out, int64_t n) {
    for (int64_t k = 0; k < n; ++k) {
        const float br = base[2 * k], bi = base[2 * k + 1];
        out[2 * k] = rr * br - ri * bi;
        out[2 * k + 1] = rr * bi + ri * br;
    }
}

LX_DSP_CLONES void RotateD(const double* base, double rr, double ri, double* out, int64_t n) {
    for (int64_t k = 0; k < n; ++k) {
        const double br = base[2 * k], bi = base[2 * k + 1];
        out[2 * k] = rr * br - ri * bi;
        out[2 * k + 1] = rr * bi + ri * br;
    }
}

LX_DSP_CLONES void Narrow(const double* src, float* dst, int64_t n) {
    for (int64_t i = 0; i < n; ++i) dst[i] = static_cast<float>(src[i]);
}

} // namespace

FrequencyShifter::FrequencyShifter(double f, int n, uint8_t mode) : f_(f), mode_(mode) {
    if (f_ < 0.0) f_ += 1.0;
    if (f_ < 0.0 || std::isnan(f_)) {
        f_ = 0.0;
        LX_ASSERT(false, "src/dsp");
    } else if (f_ > 1.0) {
        f_ = 1.0;
        LX_ASSERT(false, "src/dsp");
    }
    if (n <= 0) return;
    try {
        toneD_.resize(n);
        toneD_.zero();
        toneF_.resize(n);
        baseD_.resize(kToneChunk);
        baseF_.resize(kToneChunk);
    } catch (const std::bad_alloc&) {
        return;
    }
    for (int64_t k = 0; k < kToneChunk; ++k) {
        // f k is exact to a few ulp for k < 1024; reduce to a fraction of a turn first.
        const double a = kTwoPi * std::fmod(f_ * static_cast<double>(k), 1.0);
        baseD_[k] = cf64(std::cos(a), std::sin(a));
        baseF_[k] = cf32(static_cast<float>(std::cos(a)), static_cast<float>(std::sin(a)));
    }
    n_ = n;
}

void FrequencyShifter::Advance(int64_t samples) noexcept {
    phase_ = std::fmod(phase_ + kTwoPi * std::fmod(static_cast<double>(samples) * f_, 1.0), kTwoPi);
}

void FrequencyShifter::Skip(int64_t count) noexcept {
    if (count > 0) Advance(count);
}

DspStatus FrequencyShifter::Shift(const cf32* src, cf32* dst, int64_t count) noexcept {
    if (f_ == 1.0) {
        LX_ASSERT(false, "src/dsp");
        return DspStatus::kBadArgument;
    }
    if (n_ == 0) return DspStatus::kNotInitialised;
    if (count < 0 || (count > 0 && (!src || !dst))) return DspStatus::kBadArgument;

    float* toneF = reinterpret_cast<float*>(toneF_.span().data());
    double* toneD = reinterpret_cast<double*>(toneD_.span().data());
    const float* baseF = reinterpret_cast<const float*>(baseF_.span().data());
    const double* baseD = reinterpret_cast<const double*>(baseD_.span().data());
    for (int64_t done = 0; done < count;) {
        const int64_t piece = std::min<int64_t>(count - done, n_);
        for (int64_t at = 0; at < piece; at += kToneChunk) {
            const int64_t len = std::min(piece - at, kToneChunk);
            const double c = std::cos(phase_), s = std::sin(phase_);
            if (mode_ == 0)
                RotateF(baseF, static_cast<float>(c), static_cast<float>(s), toneF + 2 * at, len);
            else
                RotateD(baseD, c, s, toneD + 2 * at, len);
            Advance(len);
        }
        if (mode_ != 0) Narrow(toneD, toneF, 2 * piece);
        ComplexMultiply(src + done, toneF_.span().data(), dst + done, piece);
        done += piece;
    }
    return DspStatus::kOk;
}

} // namespace lx::dsp
