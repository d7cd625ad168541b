#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "common/lx_assert.h"
#include "dsp/window.h"
#include "reference.h"

namespace {

using lx::dsp::test::Reference;

// Against NumPy evaluations of the formulas (SciPy's own windows for Hamming and
// rectangular), every type at lengths 1, 2, 7, 64 and 1001. Flat-top and Nuttall
// take float cosines: the reference uses the same float-rounded arguments with
// exact cosines, so the gap is the float cosine's rounding (< 1 ulp of 1.0 per
// term, weighted by the coefficients).
TEST(Window, MatchesReference) {
    const Reference& ref = Reference::Get("windows");
    ASSERT_TRUE(ref.ok());
    for (int type = 0; type < 6; ++type) {
        for (int n : {1, 2, 7, 64, 1001}) {
            SCOPED_TRACE("type " + std::to_string(type) + " n " + std::to_string(n));
            const auto& want = ref["window/" + std::to_string(type) + "/" + std::to_string(n)];
            ASSERT_EQ(want.size(), static_cast<size_t>(n));
            std::vector<double> got(n + 1, -999.0);
            lx::AssertionCapture cap;
            lx::dsp::GenerateWindow(type, got.data(), n);
            EXPECT_EQ(cap.count(), 0u);
            EXPECT_EQ(got[n], -999.0) << "wrote past the window";
            const double tol = type <= 1 ? 4.7 * 6e-8 : 1e-14;
            for (int k = 0; k < n; ++k) {
                if (std::isnan(want[k])) {
                    EXPECT_TRUE(std::isnan(got[k])) << "k=" << k; // n == 1 divides by zero, no special case
                    continue;
                }
                EXPECT_NEAR(got[k], want[k], tol) << "k=" << k;
            }
        }
    }
}

TEST(Window, UnknownTypeIsReportedAndGivesFlatTop) {
    std::vector<double> flat(33), got(33);
    lx::dsp::GenerateWindow(lx::dsp::kWindowFlatTop, flat.data(), 33);
    for (int type : {-1, 6, 1000}) {
        lx::AssertionCapture cap;
        lx::dsp::GenerateWindow(type, got.data(), 33);
        EXPECT_TRUE(cap.saw("false", "src/dsp"));
        EXPECT_EQ(got, flat);
    }
    std::vector<double> untouched(4, 3.0);
    lx::dsp::GenerateWindow(lx::dsp::kWindowHamming, untouched.data(), 0);
    lx::dsp::GenerateWindow(lx::dsp::kWindowHamming, untouched.data(), -5);
    EXPECT_EQ(untouched, std::vector<double>(4, 3.0));
}

// The table must belong to the windows: for flat-top, Nuttall, Hamming and
// rectangular it equals the ENBW of the generated window, N sum(w^2)/sum(w)^2.
// (The Blackman 1.73 and Gaussian 2.65 entries are the set-ups' figures and
// differ from these windows' own ENBW, 1.694 and 1.998.)
TEST(Window, NoiseBandwidthTableMatchesTheWindows) {
    const int n = 4096;
    std::vector<double> w(n);
    for (int type : {0, 1, 3, 5}) {
        lx::dsp::GenerateWindow(type, w.data(), n);
        double s = 0, s2 = 0;
        for (double v : w) s += v, s2 += v * v;
        EXPECT_NEAR(lx::dsp::EquivalentNoiseBandwidth(type), n * s2 / (s * s), 1e-3) << type;
    }
    lx::AssertionCapture cap;
    EXPECT_EQ(lx::dsp::EquivalentNoiseBandwidth(6), 1.0);
    EXPECT_TRUE(cap.saw("false", "src/dsp"));
}

} // namespace
