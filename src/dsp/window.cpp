#include "dsp/window.h"

#include <cmath>
#include <numbers>

#include "common/lx_assert.h"

namespace lx::dsp {

namespace {

// Sum of cosines with float arguments and float cosines, weighted in double.
void CosineSumFloat(double* out, int64_t n, const double* a, int terms) {
    const double denom = static_cast<double>(n - 1);
    for (int64_t k = 0; k < n; ++k) {
        const double x = std::numbers::pi * static_cast<double>(k) / denom;
        double w = a[0];
        for (int m = 1; m < terms; ++m) {
            const float arg = static_cast<float>(static_cast<double>(2 * m) * x);
            w += a[m] * static_cast<double>(std::cos(arg));
        }
        out[k] = w;
    }
}

} // namespace

void GenerateWindow(int type, double* out, int64_t n) noexcept {
    if (n <= 0 || out == nullptr) return;
    const double twoPi = 2.0 * std::numbers::pi;
    const double denom = static_cast<double>(n - 1);
    switch (type) {
    case kWindowNuttall: {
        static constexpr double a[] = {0.355768, -0.487396, 0.144232, -0.012604};
        CosineSumFloat(out, n, a, 4);
        return;
    }
    case kWindowBlackman:
        for (int64_t k = 0; k < n; ++k) {
            const double kk = static_cast<double>(k);
            out[k] = 0.42659 - 0.49656 * std::cos(twoPi * kk / denom) + 0.076849 * std::cos(2.0 * twoPi * kk / denom);
        }
        return;
    case kWindowHamming:
        for (int64_t k = 0; k < n; ++k) out[k] = 0.54 - 0.46 * std::cos(twoPi * static_cast<double>(k) / denom);
        return;
    case kWindowGaussian: {
        const double c = denom / 2.0;
        const double s = 0.2 * static_cast<double>(n);
        const auto g = [c, s](double x) {
            const double t = (x - c) / s;
            return std::exp(-t * t);
        };
        const double nn = static_cast<double>(n);
        // The end corrections use the whole-sample arguments 0, n - 1 and -n (the
        // half-sample points truncated toward zero), not -0.5 and n - 0.5.
        const double g0 = g(0.0);
        const double den = g(nn - 1.0) + g(-nn);
        for (int64_t k = 0; k < n; ++k) {
            const double kk = static_cast<double>(k);
            out[k] = g(kk) - g0 * (g(kk + nn) + g(kk - nn)) / den;
        }
        return;
    }
    case kWindowRectangular:
        for (int64_t k = 0; k < n; ++k) out[k] = 1.0;
        return;
    case kWindowFlatTop:
        break;
    default:
        LX_ASSERT(false, "src/dsp");
        break;
    }
    static constexpr double a[] = {1.0, -1.93, 1.29, -0.388, 0.028};
    CosineSumFloat(out, n, a, 5);
}

double EquivalentNoiseBandwidth(int type) noexcept {
    switch (type) {
    case kWindowFlatTop: return 3.7702;
    case kWindowNuttall: return 2.0212;
    case kWindowBlackman: return 1.73;
    case kWindowHamming: return 1.3628;
    case kWindowGaussian: return 2.65;
    case kWindowRectangular: return 1.0;
    default:
        LX_ASSERT(false, "src/dsp");
        return 1.0;
    }
}

} // namespace lx::dsp
