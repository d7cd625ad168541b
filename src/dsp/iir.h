// Chebyshev type I IIR design and IIR filtering with carried state.
//
// Valid argument ranges
//   DesignChebyshev1(order, cutoff, rippleDb, kind, coeffs)
//       1 <= order <= kMaxIirOrder, 0 < cutoff < 0.5 (fraction of the sample rate:
//       the -rippleDb edge of the pass band; SciPy's Wn is 2 * cutoff),
//       0 < rippleDb <= 60, kind 0 (low-pass) or 1 (high-pass), coeffs holds
//       2 * order + 2 doubles. Anything else answers kBadArgument, writes nothing.
//   IirFilter::Design(cutoff, rippleDb, order, kind)
//       same ranges. A refused design reports "status == ippStsNoErr" and keeps
//       the previous filter; an unknown kind keeps it without a report.
//   IirFilter::Run(src, dst, count)  count >= 0, src/dst non-null when count > 0,
//       dst may equal src. Before a successful design: kNotInitialised.
//
// Coefficient layout: b0..bN then a0..aN (a0 = 1), N = order, the transfer
// function H(z) = sum b_i z^-i / sum a_i z^-i.
// Numerics: the filter runs from the float coefficients with a double-precision
// state. Float coefficients in transfer-function form limit what can be asked
// for (response error against the double design, 1 dB ripple):
//   order 2: < 0.001 dB down to cutoff 0.003;  order 4: 0.007 dB at 0.03,
//   0.5 dB at 0.01, unstable at 0.003;  order 6: 0.0014 dB at 0.1, unstable at
//   0.01;  order 8: 0.04 dB at 0.1, unstable at 0.03.
// The engines use orders 1 and 2, where this is far below anything measurable.
// Run calls neither allocate nor throw. One object per thread.
#pragma once

#include <cstdint>

#include "dsp/dsp_status.h"
#include "dsp_vector/aligned_vector.h"

namespace lx::dsp {

inline constexpr int kMaxIirOrder = 32;

enum IirKind : int { kIirLowPass = 0, kIirHighPass = 1 };

DspStatus DesignChebyshev1(int order, double cutoff, double rippleDb, int kind, double* coeffs) noexcept;

class IirFilter {
public:
    DspStatus Design(double cutoff, double rippleDb, int order, int kind);
    // Real samples, or complex samples filtered as two real channels; one object
    // should see one kind of data, the state is shared.
    DspStatus Run(const float* src, float* dst, int64_t count) noexcept;
    DspStatus Run(const cf32* src, cf32* dst, int64_t count) noexcept;
    void Reset() noexcept;

    int order() const noexcept { return order_; }
    // 2 * order + 2 floats in the layout above.
    const FloatVector& taps() const noexcept { return taps_; }

private:
    int order_ = 0;
    FloatVector taps_;
    DoubleVector coeffs_; // normalised b then a, from the float taps
    DoubleVector state_;  // order values per channel, two channels
};

} // namespace lx::dsp
