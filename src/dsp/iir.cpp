#include "dsp/iir.h"

#include <cmath>
#include <complex>
#include <new>
#include <numbers>
#include <vector>

#include "common/lx_assert.h"

namespace lx::dsp {

namespace {

using cd = std::complex<double>;

// Coefficients of prod (x - r_i), highest power first.
std::vector<cd> Poly(const std::vector<cd>& roots) {
    std::vector<cd> c(roots.size() + 1, cd(0.0));
    c[0] = 1.0;
    for (size_t i = 0; i < roots.size(); ++i)
        for (size_t j = i + 1; j > 0; --j) c[j] -= roots[i] * c[j - 1];
    return c;
}

void RunChannel(const double* b, const double* a, int n, double* s, const float* src, float* dst, int64_t count,
                int64_t stride) {
    for (int64_t k = 0; k < count; ++k) {
        const double x = src[k * stride];
        const double y = b[0] * x + s[0];
        for (int i = 0; i + 1 < n; ++i) s[i] = s[i + 1] + b[i + 1] * x - a[i + 1] * y;
        s[n - 1] = b[n] * x - a[n] * y;
        dst[k * stride] = static_cast<float>(y);
    }
}

} // namespace

// Analog Chebyshev I prototype, frequency transform and bilinear transform on
// zeros, poles and gain; pre-warped so the digital -ripple edge lands on cutoff.
DspStatus DesignChebyshev1(int order, double cutoff, double rippleDb, int kind, double* coeffs) noexcept {
    if (!coeffs || order < 1 || order > kMaxIirOrder || !(cutoff > 0.0 && cutoff < 0.5) ||
        !(rippleDb > 0.0 && rippleDb <= 60.0) || (kind != kIirLowPass && kind != kIirHighPass))
        return DspStatus::kBadArgument;
    try {
        const int n = order;
        const double pi = std::numbers::pi;
        const double eps = std::sqrt(std::pow(10.0, 0.1 * rippleDb) - 1.0);
        const double mu = std::asinh(1.0 / eps) / n;
        std::vector<cd> p(static_cast<size_t>(n));
        cd prodNegP = 1.0;
        for (int i = 0; i < n; ++i) {
            const double theta = pi * (2 * i - n + 1) / (2.0 * n);
            p[static_cast<size_t>(i)] = -std::sinh(cd(mu, theta));
            prodNegP *= -p[static_cast<size_t>(i)];
        }
        double k = prodNegP.real();
        if (n % 2 == 0) k /= std::sqrt(1.0 + eps * eps);

        const double fs2 = 4.0;                          // 2 * fs with fs = 2 (Nyquist = 1)
        const double warped = fs2 * std::tan(pi * cutoff); // 2 fs tan(pi Wn / fs), Wn = 2 cutoff
        std::vector<cd> z;
        if (kind == kIirLowPass) {
            for (auto& pi_ : p) pi_ *= warped;
            k *= std::pow(warped, n);
        } else {
            for (auto& pi_ : p) pi_ = warped / pi_;
            z.assign(static_cast<size_t>(n), cd(0.0)); // zeros at s = 0
            k *= (1.0 / prodNegP).real();
        }
        // Bilinear transform; zeros at infinity map to z = -1.
        cd num = 1.0, den = 1.0;
        std::vector<cd> zz, pz;
        for (const cd& zi : z) {
            zz.push_back((fs2 + zi) / (fs2 - zi));
            num *= fs2 - zi;
        }
        while (zz.size() < p.size()) zz.push_back(-1.0);
        for (const cd& pi_ : p) {
            pz.push_back((fs2 + pi_) / (fs2 - pi_));
            den *= fs2 - pi_;
        }
        k *= (num / den).real();
        const std::vector<cd> b = Poly(zz), a = Poly(pz);
        for (int i = 0; i <= n; ++i) {
            coeffs[i] = k * b[static_cast<size_t>(i)].real();
            coeffs[n + 1 + i] = a[static_cast<size_t>(i)].real();
        }
    } catch (const std::bad_alloc&) {
        return DspStatus::kNoMemory;
    }
    return DspStatus::kOk;
}

DspStatus IirFilter::Design(double cutoff, double rippleDb, int order, int kind) {
    if (kind != kIirLowPass && kind != kIirHighPass) return DspStatus::kBadArgument;
    DspStatus status = DspStatus::kBadArgument;
    try {
        const int64_t len = 2 * static_cast<int64_t>(order) + 2;
        std::vector<double> design(order >= 1 && order <= kMaxIirOrder ? static_cast<size_t>(len) : 0u);
        if (!design.empty()) status = DesignChebyshev1(order, cutoff, rippleDb, kind, design.data());
        if (status == DspStatus::kOk) {
            FloatVector taps(len);
            DoubleVector coeffs(len), state(2 * static_cast<int64_t>(order));
            for (int64_t i = 0; i < len; ++i) taps[i] = static_cast<float>(design[static_cast<size_t>(i)]);
            const double a0 = taps[order + 1];
            for (int64_t i = 0; i < len; ++i) coeffs[i] = static_cast<double>(taps[i]) / a0;
            state.zero();
            taps_ = std::move(taps);
            coeffs_ = std::move(coeffs);
            state_ = std::move(state);
            order_ = order;
        }
    } catch (const std::bad_alloc&) {
        status = DspStatus::kNoMemory;
    }
    // Every failed kernel step reports this one text; log filters key on it.
    if (status != DspStatus::kOk) ReportAssertion("status == ippStsNoErr", "src/dsp", __LINE__);
    return status;
}

void IirFilter::Reset() noexcept { state_.zero(); }

DspStatus IirFilter::Run(const float* src, float* dst, int64_t count) noexcept {
    if (order_ == 0) return DspStatus::kNotInitialised;
    if (count < 0 || (count > 0 && (!src || !dst))) return DspStatus::kBadArgument;
    const double* c = coeffs_.span().data();
    RunChannel(c, c + order_ + 1, order_, state_.span().data(), src, dst, count, 1);
    return DspStatus::kOk;
}

DspStatus IirFilter::Run(const cf32* src, cf32* dst, int64_t count) noexcept {
    if (order_ == 0) return DspStatus::kNotInitialised;
    if (count < 0 || (count > 0 && (!src || !dst))) return DspStatus::kBadArgument;
    const double* c = coeffs_.span().data();
    double* s = state_.span().data();
    const float* in = reinterpret_cast<const float*>(src);
    float* out = reinterpret_cast<float*>(dst);
    RunChannel(c, c + order_ + 1, order_, s, in, out, count, 2);
    RunChannel(c, c + order_ + 1, order_, s + order_, in + 1, out + 1, count, 2);
    return DspStatus::kOk;
}

} // namespace lx::dsp
