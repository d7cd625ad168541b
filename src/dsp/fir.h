// FIR low-pass design and complex FIR filtering with state carried across blocks.
//
// Valid argument ranges
//   DesignFirLowPass(taps, tapsLen, cutoff)
//       taps non-null, 1 <= tapsLen <= kMaxFirTaps, 0 < cutoff < 0.5 (fraction of the
//       sample rate). cutoff >= 0.5 (or NaN) reports "cutoff < 0.5"; every refused
//       design reports "status == ippStsNoErr" and writes nothing.
//   FirFilter::Init(taps, tapsLen, fftSize = 0)
//       taps non-null (else reports "taps"), 1 <= tapsLen (else reports
//       "tapsLen > 0") and tapsLen <= kMaxFirTaps. fftSize 0 chooses the method,
//       1 forces the direct form, a power of two >= 2 * tapsLen forces overlap-save
//       of that size; anything else is refused. A refused Init keeps the previous
//       filter. Allocates and may plan an FFT: call it at set-up. An allocation
//       failure answers kNoMemory and reports "status == ippStsNoErr".
//   FirFilter::Run(src, dst, count)
//       count >= 0, src and dst non-null when count > 0; dst may equal src (not
//       overlap it otherwise). Before a successful Init it reports
//       "kn != nullptr" and answers kNotInitialised.
//   DecimatingFir::Init(taps, tapsLen, factor, fftSize = 0)
//       taps and tapsLen as FirFilter, 1 <= factor <= 65536. fftSize 0 chooses
//       the method, 1 forces the direct form, a power of two >= 2 * tapsLen and
//       >= factor forces the FFT path of that size (factor must then be a power
//       of two); anything else is refused and keeps the previous filter.
//   DecimatingFir::Run(src, count, dst, written)
//       as FirFilter::Run, but dst must not overlap src and must hold
//       OutputCount(count) values; written may be null.
//
// Run calls neither allocate nor throw. Objects are not locked: one per thread.
#pragma once

#include <cstdint>
#include <memory>

#include "dsp/dsp_status.h"
#include "dsp_vector/aligned_vector.h"

namespace lx::dsp {

inline constexpr int kMaxFirTaps = 1 << 20;

// Windowed-sinc low-pass: h[k] = w[k] 2c sinc(2c (k - (tapsLen - 1)/2)) with the
// classic Blackman window w (0.42 - 0.5 cos + 0.08 cos, the same as SciPy's
// "blackman"; not the three-term window of WindowType 2), scaled to unit gain at
// DC, in double; written as complex taps with imaginary part 0.
DspStatus DesignFirLowPass(cf32* taps, int tapsLen, double cutoff) noexcept;

// y[k] = sum_j taps[j] x[k - j]; inputs before the first block are zero and the
// last tapsLen - 1 inputs carry into the next call, so any split of a stream into
// blocks gives the same output as one call on the whole stream. Filters of two
// taps or more run by FFT overlap-save (the direct form's result to float
// rounding, several times faster); a single tap runs directly.
class FirFilter {
public:
    FirFilter();
    ~FirFilter();
    FirFilter(FirFilter&&) noexcept;
    FirFilter& operator=(FirFilter&&) noexcept;

    DspStatus Init(const cf32* taps, int tapsLen, int fftSize = 0);
    DspStatus Run(const cf32* src, cf32* dst, int64_t count) noexcept;
    // Clears the carried inputs (as after Init).
    void Reset() noexcept;

    int tapsLength() const noexcept { return tapsLen_; }
    const ComplexVector& taps() const noexcept { return taps_; }
    // FFT size of the overlap-save path, 0 when the filter runs directly.
    int fftSize() const noexcept;

    struct Kernel;

private:
    int tapsLen_ = 0;
    ComplexVector taps_;
    std::unique_ptr<Kernel> kernel_;
};

// A FIR filter that keeps every factor-th output (stream positions 0, factor,
// 2 factor, ... counted from Init or Reset) and computes only those.
//
// Two methods, same results to float rounding. Direct: one dot product of
// tapsLen per kept output. FFT (power-of-two factors, long filters): overlap-
// save frames of fftSize inputs whose product spectrum is folded into
// fftSize / factor bins before the inverse transform, so the inverse yields
// exactly the kept outputs (the folding is the frequency-domain form of
// keeping every factor-th sample); a frame starts tapsLen - 1 inputs before
// the next kept output, so the kept positions sit at one fixed phase of
// every frame. A call that ends inside a frame finishes it zero-padded (or by
// dot products when few outputs are due), so outputs never lag the inputs.
class DecimatingFir {
public:
    DecimatingFir();
    ~DecimatingFir();
    DecimatingFir(DecimatingFir&&) noexcept;
    DecimatingFir& operator=(DecimatingFir&&) noexcept;

    DspStatus Init(const cf32* taps, int tapsLen, int factor, int fftSize = 0);
    DspStatus Run(const cf32* src, int64_t count, cf32* dst, int64_t* written) noexcept;
    void Reset() noexcept;

    // Outputs the next Run of `count` inputs will write.
    int64_t OutputCount(int64_t count) const noexcept;
    int factor() const noexcept { return factor_; }
    int tapsLength() const noexcept { return tapsLen_; }
    // Frame size of the FFT path, 0 when the filter runs directly.
    int fftSize() const noexcept;

    struct Kernel;

private:
    int tapsLen_ = 0;
    int factor_ = 1;
    int64_t skip_ = 0; // inputs to pass before the next kept output
    std::unique_ptr<Kernel> kernel_;
};

} // namespace lx::dsp
