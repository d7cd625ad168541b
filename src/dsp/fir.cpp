#include "dsp/fir.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <new>
#include <numbers>
#include <vector>

#include "common/lx_assert.h"
#include "dsp/fft.h"
#include "dsp/kernels.h"
#include "dsp/simd.h"

// Every failed kernel step reports this one text; log filters key on it.
#define LX_DSP_REPORT_STATUS() ::lx::ReportAssertion("status == ippStsNoErr", "src/dsp", __LINE__)

namespace lx::dsp {

namespace {

typedef float v8sf __attribute__((vector_size(32)));

// Filters at least this long run by overlap-save. The direct form computes one
// dot product per output and loses from the shortest filters on: bench_dsp's
// BM_FirShort gives 10.6x against 4.8x real time at 4 taps, 10.2x against 2.9x
// at 16, and the gap widens with length.
constexpr int kFftMinTaps = 2;
// Direct-path block: history plus this many new samples stay in L1.
constexpr int64_t kDirectChunk = 1024;

// Overlap-save size: about 8x the history, so at most 1/8 of each transform is
// overlap, but no smaller than 256 points.
int ChooseFftSize(int taps) {
    int n = 256;
    while (n < 8 * (taps - 1)) n *= 2;
    return n;
}

// out[j] = sum_{i < m} h[i] x[j * step + i] for j < count, complex values as float
// pairs, with the taps already reversed and stored as ta = (Re h, Re h) and
// tb = (Im h, Im h) per tap (tb null for real taps). Four independent vector
// accumulators hide the add latency; float sums need explicit vectors because
// gcc will not reassociate a scalar reduction without -ffast-math.
LX_DSP_CLONES void FirDots(const float* ta, const float* tb, int64_t m, const float* x, int64_t step, int64_t count,
                           float* out) {
    const int64_t len = 2 * m;
    for (int64_t j = 0; j < count; ++j) {
        const float* xs = x + 2 * j * step;
        v8sf a0 = {}, a1 = {}, a2 = {}, a3 = {};
        v8sf b0 = {}, b1 = {}, b2 = {}, b3 = {};
        int64_t i = 0;
        if (tb == nullptr) {
            for (; i + 32 <= len; i += 32) {
                v8sf x0, x1, x2, x3, t0, t1, t2, t3;
                std::memcpy(&x0, xs + i, 32);
                std::memcpy(&x1, xs + i + 8, 32);
                std::memcpy(&x2, xs + i + 16, 32);
                std::memcpy(&x3, xs + i + 24, 32);
                std::memcpy(&t0, ta + i, 32);
                std::memcpy(&t1, ta + i + 8, 32);
                std::memcpy(&t2, ta + i + 16, 32);
                std::memcpy(&t3, ta + i + 24, 32);
                a0 += t0 * x0;
                a1 += t1 * x1;
                a2 += t2 * x2;
                a3 += t3 * x3;
            }
        } else {
            for (; i + 32 <= len; i += 32) {
                v8sf x0, x1, x2, x3, t0, t1, t2, t3, u0, u1, u2, u3;
                std::memcpy(&x0, xs + i, 32);
                std::memcpy(&x1, xs + i + 8, 32);
                std::memcpy(&x2, xs + i + 16, 32);
                std::memcpy(&x3, xs + i + 24, 32);
                std::memcpy(&t0, ta + i, 32);
                std::memcpy(&t1, ta + i + 8, 32);
                std::memcpy(&t2, ta + i + 16, 32);
                std::memcpy(&t3, ta + i + 24, 32);
                std::memcpy(&u0, tb + i, 32);
                std::memcpy(&u1, tb + i + 8, 32);
                std::memcpy(&u2, tb + i + 16, 32);
                std::memcpy(&u3, tb + i + 24, 32);
                a0 += t0 * x0;
                a1 += t1 * x1;
                a2 += t2 * x2;
                a3 += t3 * x3;
                b0 += u0 * x0;
                b1 += u1 * x1;
                b2 += u2 * x2;
                b3 += u3 * x3;
            }
        }
        const v8sf a = (a0 + a1) + (a2 + a3);
        const v8sf b = (b0 + b1) + (b2 + b3);
        // Even lanes hold products with the real parts of x, odd lanes with the imaginary.
        float aRe = (a[0] + a[2]) + (a[4] + a[6]), aIm = (a[1] + a[3]) + (a[5] + a[7]);
        float bRe = (b[0] + b[2]) + (b[4] + b[6]), bIm = (b[1] + b[3]) + (b[5] + b[7]);
        for (; i < len; i += 2) {
            aRe += ta[i] * xs[i];
            aIm += ta[i + 1] * xs[i + 1];
            if (tb) {
                bRe += tb[i] * xs[i];
                bIm += tb[i + 1] * xs[i + 1];
            }
        }
        out[2 * j] = aRe - bIm;
        out[2 * j + 1] = aIm + bRe;
    }
}

LX_DSP_CLONES void ReverseCopy(const float* src, float* dst, int64_t n) {
    // dst[i] = src[-i] on complex values: src points at the first value wanted.
    for (int64_t i = 0; i < n; ++i) {
        dst[2 * i] = src[-2 * i];
        dst[2 * i + 1] = src[-2 * i + 1];
    }
}

// Reversed taps, each part twice: the layout FirDots reads. Returns whether any
// imaginary part is non-zero.
bool PrepareTaps(const cf32* taps, int m, FloatVector& ta, FloatVector& tb) {
    bool complexTaps = false;
    ta.resize(2 * static_cast<int64_t>(m));
    tb.resize(2 * static_cast<int64_t>(m));
    float* a = ta.data();
    float* b = tb.data();
    for (int i = 0; i < m; ++i) {
        const cf32 h = taps[m - 1 - i];
        a[2 * i] = a[2 * i + 1] = h.real();
        b[2 * i] = b[2 * i + 1] = h.imag();
        complexTaps = complexTaps || h.imag() != 0.0f;
    }
    return complexTaps;
}

const float* F(const cf32* p) { return reinterpret_cast<const float*>(p); }
float* F(cf32* p) { return reinterpret_cast<float*>(p); }

// The checks every FIR set-up starts with; texts as reported to the user.
bool TapsUsable(const cf32* taps, int tapsLen) {
    LX_ASSERT(taps, "src/dsp");
    LX_ASSERT(tapsLen > 0, "src/dsp");
    return taps != nullptr && tapsLen > 0 && tapsLen <= kMaxFirTaps;
}

} // namespace

DspStatus DesignFirLowPass(cf32* taps, int tapsLen, double cutoff) noexcept {
    LX_ASSERT(cutoff < 0.5, "src/dsp");
    if (!taps || tapsLen < 1 || tapsLen > kMaxFirTaps || !(cutoff > 0.0 && cutoff < 0.5)) {
        LX_DSP_REPORT_STATUS();
        return DspStatus::kBadArgument;
    }
    std::vector<double> h;
    try {
        h.resize(static_cast<size_t>(tapsLen));
    } catch (const std::bad_alloc&) {
        LX_DSP_REPORT_STATUS();
        return DspStatus::kNoMemory;
    }
    const double pi = std::numbers::pi;
    const double centre = (tapsLen - 1) / 2.0;
    double sum = 0.0;
    for (int k = 0; k < tapsLen; ++k) {
        const double w = tapsLen == 1 ? 1.0
                                      : 0.42 - 0.5 * std::cos(2.0 * pi * k / (tapsLen - 1)) +
                                            0.08 * std::cos(4.0 * pi * k / (tapsLen - 1));
        const double x = 2.0 * cutoff * (k - centre);
        const double sinc = x == 0.0 ? 1.0 : std::sin(pi * x) / (pi * x);
        h[static_cast<size_t>(k)] = w * 2.0 * cutoff * sinc;
        sum += h[static_cast<size_t>(k)];
    }
    for (int k = 0; k < tapsLen; ++k) taps[k] = cf32(static_cast<float>(h[static_cast<size_t>(k)] / sum), 0.0f);
    return DspStatus::kOk;
}

// ---------------------------------------------------------------- FirFilter

struct FirFilter::Kernel {
    int m = 0;
    bool complexTaps = false;
    FloatVector ta, tb;
    // Direct path: history (m - 1) then up to kDirectChunk new samples.
    ComplexVector ext;
    // Overlap-save path (n > 0): frame = history (m - 1) then up to l new samples.
    int n = 0;
    int l = 0;
    std::shared_ptr<const FftPlan> plan;
    ComplexVector frame, spectrum, product, response;
};

FirFilter::FirFilter() = default;
FirFilter::~FirFilter() = default;
FirFilter::FirFilter(FirFilter&&) noexcept = default;
FirFilter& FirFilter::operator=(FirFilter&&) noexcept = default;

int FirFilter::fftSize() const noexcept { return kernel_ ? kernel_->n : 0; }

DspStatus FirFilter::Init(const cf32* taps, int tapsLen, int blockFft) {
    if (!TapsUsable(taps, tapsLen)) return DspStatus::kBadArgument;
    if (blockFft == 0) blockFft = tapsLen >= kFftMinTaps ? ChooseFftSize(tapsLen) : 1;
    if (blockFft != 1 && (!IsPowerOf2(blockFft) || blockFft < 2 * tapsLen || blockFft > kMaxFftSize))
        return DspStatus::kBadArgument;
    try {
        auto k = std::make_unique<Kernel>();
        k->m = tapsLen;
        k->complexTaps = PrepareTaps(taps, tapsLen, k->ta, k->tb);
        const int64_t hist = tapsLen - 1;
        if (blockFft > 1) {
            k->n = blockFft;
            k->l = k->n - static_cast<int>(hist);
            k->plan = FftPlan::Get(k->n);
            if (!k->plan) throw std::bad_alloc();
            k->frame.resize(k->n);
            k->spectrum.resize(k->n);
            k->product.resize(k->n);
            k->response.resize(k->n);
            k->frame.zero();
            // Response scaled by 1/n, which the second (forward) transform needs.
            cf32* f = k->frame.data();
            for (int i = 0; i < tapsLen; ++i) f[i] = taps[i] / static_cast<float>(k->n);
            k->plan->Execute(f, k->response.data());
            k->frame.zero();
        } else {
            k->ext.resize(hist + kDirectChunk);
            k->ext.zero();
        }
        taps_.resize(tapsLen);
        std::memcpy(static_cast<void*>(taps_.data()), taps, sizeof(cf32) * static_cast<size_t>(tapsLen));
        tapsLen_ = tapsLen;
        kernel_ = std::move(k);
    } catch (const std::bad_alloc&) {
        LX_DSP_REPORT_STATUS();
        return DspStatus::kNoMemory;
    }
    return DspStatus::kOk;
}

void FirFilter::Reset() noexcept {
    if (!kernel_) return;
    kernel_->ext.zero();
    kernel_->frame.zero();
}

DspStatus FirFilter::Run(const cf32* src, cf32* dst, int64_t count) noexcept {
    Kernel* kn = kernel_.get();
    LX_ASSERT(kn != nullptr, "src/dsp");
    if (!kn) return DspStatus::kNotInitialised;
    if (count < 0 || (count > 0 && (!src || !dst))) return DspStatus::kBadArgument;
    const int64_t hist = kn->m - 1;
    const float* tb = kn->complexTaps ? kn->tb.span().data() : nullptr;

    if (kn->n == 0) {
        cf32* ext = kn->ext.span().data();
        for (int64_t done = 0; done < count;) {
            const int64_t r = std::min(count - done, kDirectChunk);
            std::memcpy(static_cast<void*>(ext + hist), src + done, sizeof(cf32) * static_cast<size_t>(r));
            FirDots(kn->ta.span().data(), tb, kn->m, F(ext), 1, r, F(dst + done));
            std::memmove(static_cast<void*>(ext), ext + r, sizeof(cf32) * static_cast<size_t>(hist));
            done += r;
        }
        return DspStatus::kOk;
    }

    // Overlap-save. The inverse transform is a forward one read backwards:
    // IDFT(Z)[k] = DFT(Z)[-k mod n] / n, with the 1/n folded into the response.
    const int64_t n = kn->n;
    cf32* frame = kn->frame.span().data();
    cf32* spectrum = kn->spectrum.span().data();
    cf32* product = kn->product.span().data();
    for (int64_t done = 0; done < count;) {
        const int64_t r = std::min(count - done, static_cast<int64_t>(kn->l));
        std::memcpy(static_cast<void*>(frame + hist), src + done, sizeof(cf32) * static_cast<size_t>(r));
        if (hist + r < n)
            std::memset(static_cast<void*>(frame + hist + r), 0, sizeof(cf32) * static_cast<size_t>(n - hist - r));
        kn->plan->Execute(frame, spectrum);
        ComplexMultiply(spectrum, kn->response.span().data(), product, n);
        kn->plan->Execute(product, spectrum);
        // Output k of the block is linear-convolution sample hist + k = spectrum[(n - hist - k) mod n].
        const int64_t first = hist == 0 ? 1 : 0;
        if (first) dst[done] = spectrum[0];
        ReverseCopy(F(spectrum + (n - hist - first)), F(dst + done + first), r - first);
        std::memmove(static_cast<void*>(frame), frame + r, sizeof(cf32) * static_cast<size_t>(hist));
        done += r;
    }
    return DspStatus::kOk;
}

// ------------------------------------------------------------ DecimatingFir

namespace {

// acc[k] += a[k] * b[k], complex, as float pairs (no NaN/inf fix-ups, so it
// vectorises).
LX_DSP_CLONES void MultiplyAccumulate(const float* a, const float* b, float* acc, int64_t n) {
    for (int64_t k = 0; k < n; ++k) {
        const float ar = a[2 * k], ai = a[2 * k + 1], br = b[2 * k], bi = b[2 * k + 1];
        acc[2 * k] += ar * br - ai * bi;
        acc[2 * k + 1] += ar * bi + ai * br;
    }
}

LX_DSP_CLONES void MultiplyInto(const float* a, const float* b, float* out, int64_t n) {
    for (int64_t k = 0; k < n; ++k) {
        const float ar = a[2 * k], ai = a[2 * k + 1], br = b[2 * k], bi = b[2 * k + 1];
        out[2 * k] = ar * br - ai * bi;
        out[2 * k + 1] = ar * bi + ai * br;
    }
}

// The FFT path pays off once a kept output costs more dot-product work than a
// frame's transforms share out per output: bench_iq's BM_Decimator puts the
// crossover near 16 taps per kept output.
constexpr int kFftMinTapsPerOutput = 16;

} // namespace

struct DecimatingFir::Kernel {
    bool complexTaps = false;
    FloatVector ta, tb;    // reversed taps, as FirDots reads them
    ComplexVector history; // direct: last tapsLen - 1 inputs, then room for as many new ones
    // FFT path (n > 0): frame = the inputs from tapsLen - 1 before the next
    // kept output on; `have` of them are filled.
    int n = 0;
    int m = 0; // n / factor: the folded spectrum
    int64_t have = 0;
    std::shared_ptr<const FftPlan> plan, foldPlan;
    ComplexVector frame, spectrum, folded, weights;
};

DecimatingFir::DecimatingFir() = default;
DecimatingFir::~DecimatingFir() = default;
DecimatingFir::DecimatingFir(DecimatingFir&&) noexcept = default;
DecimatingFir& DecimatingFir::operator=(DecimatingFir&&) noexcept = default;

int DecimatingFir::fftSize() const noexcept { return kernel_ ? kernel_->n : 0; }

DspStatus DecimatingFir::Init(const cf32* taps, int tapsLen, int factor, int fftSize) {
    if (!TapsUsable(taps, tapsLen) || factor < 1 || factor > 65536) return DspStatus::kBadArgument;
    const bool pow2 = IsPowerOf2(factor);
    if (fftSize == 0)
        fftSize = pow2 && factor > 1 && tapsLen >= kFftMinTapsPerOutput * factor
                      ? std::max(ChooseFftSize(tapsLen), 4 * factor)
                      : 1;
    if (fftSize != 1 && (!pow2 || !IsPowerOf2(fftSize) || fftSize < 2 * tapsLen || fftSize < factor ||
                         fftSize > kMaxFftSize))
        return DspStatus::kBadArgument;
    try {
        auto k = std::make_unique<Kernel>();
        k->complexTaps = PrepareTaps(taps, tapsLen, k->ta, k->tb);
        const int64_t hist = tapsLen - 1;
        if (fftSize > 1) {
            k->n = fftSize;
            k->m = fftSize / factor;
            k->plan = FftPlan::Get(k->n);
            k->foldPlan = FftPlan::Get(k->m);
            if (!k->plan || !k->foldPlan) throw std::bad_alloc();
            k->frame.resize(k->n);
            k->spectrum.resize(k->n);
            k->folded.resize(k->m);
            k->weights.resize(k->n);
            // weights[k] = H[k] exp(j 2 pi k r / n) / n: the taps' spectrum,
            // turned so that the fold lands on the kept phase r of the frame.
            k->frame.zero();
            cf32* f = k->frame.data();
            for (int i = 0; i < tapsLen; ++i) f[i] = taps[i];
            k->plan->Execute(f, k->weights.data());
            const int64_t r = hist % factor;
            for (int64_t i = 0; i < k->n; ++i) {
                const double a = 2.0 * std::numbers::pi * static_cast<double>((i * r) % k->n) / k->n;
                const std::complex<double> w = std::complex<double>(k->weights[i]) *
                                               std::complex<double>(std::cos(a), std::sin(a)) / double(k->n);
                k->weights[i] = cf32(static_cast<float>(w.real()), static_cast<float>(w.imag()));
            }
            k->frame.zero();
            k->have = hist;
        } else {
            k->history.resize(2 * hist + 1);
            k->history.zero();
        }
        kernel_ = std::move(k);
    } catch (const std::bad_alloc&) {
        LX_DSP_REPORT_STATUS();
        return DspStatus::kNoMemory;
    }
    tapsLen_ = tapsLen;
    factor_ = factor;
    skip_ = 0;
    return DspStatus::kOk;
}

void DecimatingFir::Reset() noexcept {
    if (!kernel_) return;
    kernel_->history.zero();
    kernel_->frame.zero();
    kernel_->have = tapsLen_ - 1;
    skip_ = 0;
}

int64_t DecimatingFir::OutputCount(int64_t count) const noexcept {
    return kernel_ && count > skip_ ? (count - 1 - skip_) / factor_ + 1 : 0;
}

DspStatus DecimatingFir::Run(const cf32* src, int64_t count, cf32* dst, int64_t* written) noexcept {
    Kernel* kn = kernel_.get();
    LX_ASSERT(kn != nullptr, "src/dsp");
    if (written) *written = 0;
    if (!kn) return DspStatus::kNotInitialised;
    if (count < 0 || (count > 0 && (!src || !dst))) return DspStatus::kBadArgument;
    if (count == 0) return DspStatus::kOk;

    const int64_t m = tapsLen_, hist = m - 1, d = factor_;
    const float* ta = kn->ta.span().data();
    const float* tb = kn->complexTaps ? kn->tb.span().data() : nullptr;

    if (kn->n > 0) {
        const int64_t n = kn->n, fm = kn->m;
        cf32* frame = kn->frame.span().data();
        int64_t out = 0;
        for (int64_t done = 0; done < count;) {
            const int64_t take = std::min(count - done, n - kn->have);
            std::memcpy(static_cast<void*>(frame + kn->have), src + done, sizeof(cf32) * static_cast<size_t>(take));
            kn->have += take;
            done += take; // a frame is full, or the call's inputs are all in
            // Frame index hist + d j holds the j-th kept output; those whose
            // last input has arrived are due.
            const int64_t valid = kn->have;
            if (valid <= hist) break;
            const int64_t due = (valid - 1 - hist) / d + 1;
            if (due * m < 4 * n) {
                // Few outputs (the tail of a call): dot products are cheaper
                // than a frame's transforms.
                FirDots(ta, tb, m, F(frame), d, due, F(dst + out));
            } else {
                if (valid < n)
                    std::memset(static_cast<void*>(frame + valid), 0, sizeof(cf32) * static_cast<size_t>(n - valid));
                cf32* spectrum = kn->spectrum.span().data();
                cf32* folded = kn->folded.span().data();
                const cf32* w = kn->weights.span().data();
                kn->plan->Execute(frame, spectrum);
                MultiplyInto(F(spectrum), F(w), F(folded), fm);
                for (int64_t b = fm; b < n; b += fm) MultiplyAccumulate(F(spectrum + b), F(w + b), F(folded), fm);
                kn->foldPlan->Execute(folded, spectrum);
                // The inverse is the forward transform read backwards: kept
                // output of frame phase q is spectrum[(fm - q) mod fm].
                const int64_t q0 = hist / d;
                for (int64_t j = 0; j < due; ++j) dst[out + j] = spectrum[(fm - (q0 + j) % fm) % fm];
            }
            out += due;
            const int64_t consumed = due * d;
            std::memmove(static_cast<void*>(frame), frame + consumed, sizeof(cf32) * static_cast<size_t>(valid - consumed));
            kn->have = valid - consumed;
        }
        skip_ = hist - kn->have;
        if (written) *written = out;
        return DspStatus::kOk;
    }

    cf32* ext = kn->history.span().data();
    // Outputs whose window starts in the carried history read a joined copy:
    // history then the first samples of this block.
    const int64_t head = std::min(count, hist);
    std::memcpy(static_cast<void*>(ext + hist), src, sizeof(cf32) * static_cast<size_t>(head));
    const int64_t n1 = skip_ < head ? (head - 1 - skip_) / d + 1 : 0;
    FirDots(ta, tb, m, F(ext + skip_), d, n1, F(dst));
    // The rest read the block itself: output k uses src[k - hist .. k].
    const int64_t k2 = skip_ + n1 * d;
    const int64_t n2 = k2 < count ? (count - 1 - k2) / d + 1 : 0;
    if (n2 > 0) FirDots(ta, tb, m, F(src + (k2 - hist)), d, n2, F(dst + n1));

    skip_ = k2 + n2 * d - count;
    if (count >= hist)
        std::memcpy(static_cast<void*>(ext), src + (count - hist), sizeof(cf32) * static_cast<size_t>(hist));
    else
        std::memmove(static_cast<void*>(ext), ext + count, sizeof(cf32) * static_cast<size_t>(hist));
    if (written) *written = n1 + n2;
    return DspStatus::kOk;
}

} // namespace lx::dsp
