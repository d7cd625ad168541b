#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "common/lx_assert.h"
#include "dsp/fft.h"
#include "dsp/window.h"
#include "reference.h"

namespace {

using lx::ComplexVector;
using lx::dsp::cf32;
using lx::dsp::DspStatus;
using lx::dsp::WindowedFft;
using lx::dsp::test::Reference;
using lx::dsp::test::RelativeError;

ComplexVector FromStd(const std::vector<cf32>& v, int64_t extra = 0) {
    ComplexVector out(static_cast<int64_t>(v.size()) + extra);
    out.zero();
    for (size_t i = 0; i < v.size(); ++i) out[static_cast<int64_t>(i + extra)] = v[i];
    return out;
}
std::vector<cf32> ToStd(const cf32* p, int64_t n) { return {p, p + n}; }

class FftPlans : public ::testing::TestWithParam<bool> {};

// Forward = numpy.fft.fft(x)/n, Inverse = numpy.fft.ifft(x)*n, whatever the
// placement of the arrays: out of place, in place, or from an unaligned source;
// with plans from the built-in wisdom (8192) and without it (measured plans).
TEST_P(FftPlans, ForwardAndInverseMatchNumpy) {
    const Reference& ref = Reference::Get("fft");
    ASSERT_TRUE(ref.ok());
    lx::dsp::ForgetFftPlans(GetParam());
    for (int n : {1, 2, 8, 128, 4096, 8192}) {
        const std::string key = "fft/" + std::to_string(n);
        const auto x = ref.Complex(key + "/x");
        WindowedFft fft(lx::dsp::kWindowRectangular, 0, n, 0);
        ASSERT_TRUE(fft.valid());
        const double tol = 2e-7 * (1 + fft.order());
        for (bool inverse : {false, true}) {
            const auto want = ref.Complex<double>(key + (inverse ? "/inverse" : "/forward"));
            auto run = [&](const cf32* s, cf32* d) { return inverse ? fft.Inverse(s, d) : fft.Forward(s, d); };
            ComplexVector src = FromStd(x), dst(n), shifted = FromStd(x, 1);
            ASSERT_EQ(run(src.data(), dst.data()), DspStatus::kOk);
            const auto outOfPlace = ToStd(dst.data(), n);
            EXPECT_LT(RelativeError(outOfPlace, want), tol) << key << " inverse=" << inverse;
            ASSERT_EQ(run(src.data(), src.data()), DspStatus::kOk);
            EXPECT_EQ(ToStd(src.data(), n), outOfPlace) << "in place, " << key;
            ASSERT_EQ(run(shifted.data() + 1, dst.data()), DspStatus::kOk);
            EXPECT_EQ(ToStd(dst.data(), n), outOfPlace) << "unaligned source, " << key;
        }
    }
    lx::dsp::ForgetFftPlans(true);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutBuiltInWisdom, FftPlans, ::testing::Bool());

// Window normalised to mean 1 over all n points (pad included), pad entries zero,
// and Transform = fft(w * x)/n reading only the first n - pad samples; one case
// per window type, with and without padding.
TEST(WindowedFft, TransformMatchesNumpy) {
    const Reference& ref = Reference::Get("fft");
    ASSERT_TRUE(ref.ok());
    const int cases[][3] = {{0, 64, 0}, {1, 256, 56}, {2, 1024, 1}, {3, 32, 16}, {4, 512, 0}, {5, 16, 3}};
    for (const auto& [type, n, pad] : cases) {
        const std::string key = "wfft/" + std::to_string(type) + "/" + std::to_string(n) + "/" + std::to_string(pad);
        SCOPED_TRACE(key);
        WindowedFft fft(type, 42, n, pad);
        ASSERT_TRUE(fft.valid());
        EXPECT_EQ(fft.windowLength(), n - pad);

        const auto& w = ref[key + "/window"];
        ASSERT_EQ(w.size(), static_cast<size_t>(n));
        // Float cosines (flat-top, Nuttall) err in absolute terms, ~3e-7 before the
        // normalisation gain; the other windows only carry the float rounding.
        for (int k = 0; k < n; ++k) {
            const double tol = type <= 1 ? 1e-6 : 2e-7 * std::abs(w[k]);
            EXPECT_NEAR(fft.window()[k].real(), w[k], tol) << k;
            EXPECT_EQ(fft.window()[k].imag(), 0.0f);
        }
        // The source holds only the windowed samples: reading further is an overrun.
        auto x = ref.Complex(key + "/x");
        x.resize(n - pad);
        ComplexVector src = FromStd(x), dst(n);
        ASSERT_EQ(fft.Transform(src.data(), dst.data()), DspStatus::kOk);
        EXPECT_LT(RelativeError(ToStd(dst.data(), n), ref.Complex<double>(key + "/y")), 3e-6);
    }
}

TEST(WindowedFft, RefusesBadSizesAndBuffers) {
    for (int n : {0, -8, 3, 100, 6144}) {
        lx::AssertionCapture cap;
        WindowedFft fft(lx::dsp::kWindowHamming, 0, n, 0);
        EXPECT_TRUE(cap.saw("IsPowerOf2(n)", "src/dsp")) << n;
        EXPECT_FALSE(fft.valid());
        cf32 buf[8] = {};
        EXPECT_EQ(fft.Transform(buf, buf), DspStatus::kNotInitialised);
    }
    for (int pad : {-1, 16, 17}) {
        lx::AssertionCapture cap;
        EXPECT_FALSE(WindowedFft(lx::dsp::kWindowHamming, 0, 16, pad).valid()) << pad;
        EXPECT_EQ(cap.count(), 0u);
    }
    WindowedFft fft(lx::dsp::kWindowHamming, 0, 16, 0);
    ComplexVector src(16), dst(17);
    src.zero();
    for (int i = 0; i < 17; ++i) dst[i] = cf32(5.0f, 5.0f);
    EXPECT_EQ(fft.Transform(src.data(), dst.data() + 1), DspStatus::kBadArgument); // 8-byte aligned only
    EXPECT_EQ(fft.Forward(nullptr, dst.data()), DspStatus::kBadArgument);
    EXPECT_EQ(dst[1], cf32(5.0f, 5.0f));
}

// Engines build their FFT objects on their own threads; the planner is shared.
// Every thread must get working plans and the same numbers as a serial run.
TEST(WindowedFft, ConcurrentConstructionGivesTheSameResults) {
    lx::dsp::ForgetFftPlans(false); // every size planned by measurement, in parallel
    const int sizes[] = {64, 128, 256, 512, 1024};
    auto transformOnce = [](int n) {
        WindowedFft fft(lx::dsp::kWindowNuttall, 0, n, n / 4);
        ComplexVector x(n), y(n);
        for (int i = 0; i < n; ++i) x[i] = cf32(static_cast<float>(i % 7), static_cast<float>(i % 3));
        EXPECT_EQ(fft.Transform(x.data(), y.data()), DspStatus::kOk);
        return ToStd(y.data(), n);
    };
    std::vector<std::vector<std::vector<cf32>>> results(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5; ++i) results[t].push_back(transformOnce(sizes[(i + t) % 5]));
        });
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 5; ++i) {
            const auto serial = transformOnce(sizes[(i + t) % 5]);
            EXPECT_LT(RelativeError(results[t][i], serial), 1e-6) << "thread " << t << " size " << sizes[(i + t) % 5];
        }
}

} // namespace
