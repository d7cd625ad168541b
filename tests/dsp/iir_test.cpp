#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include "common/lx_assert.h"
#include "dsp/iir.h"
#include "reference.h"

namespace {

using lx::dsp::cf32;
using lx::dsp::DspStatus;
using lx::dsp::test::Reference;

double MaxAbs(const std::vector<double>& v) {
    double m = 0;
    for (double x : v) m = std::max(m, std::abs(x));
    return m;
}

// scipy.signal.cheby1(order, ripple, 2 * cutoff, btype), low- and high-pass of
// orders 1 to 9: the coefficients, and lfilter on the float coefficients
// against IirFilter run in uneven blocks.
TEST(Chebyshev1, MatchesScipy) {
    const Reference& ref = Reference::Get("cheby");
    ASSERT_TRUE(ref.ok());
    const auto& xd = ref["iir/x"];
    const std::vector<float> x(xd.begin(), xd.end());
    int cases = 0;
    for (; ref.has("cheby/" + std::to_string(cases) + "/b"); ++cases) {
        const std::string key = "cheby/" + std::to_string(cases);
        const auto& p = ref[key + "/params"];
        const int order = static_cast<int>(p[0]), kind = static_cast<int>(p[3]);
        const double ripple = p[1], cutoff = p[2];
        SCOPED_TRACE(key + " order " + std::to_string(order) + " kind " + std::to_string(kind));
        const auto& b = ref[key + "/b"];
        const auto& a = ref[key + "/a"];
        std::vector<double> c(2 * order + 2);
        ASSERT_EQ(lx::dsp::DesignChebyshev1(order, cutoff, ripple, kind, c.data()), DspStatus::kOk);
        for (int i = 0; i <= order; ++i) {
            EXPECT_NEAR(c[i], b[i], 1e-10 * MaxAbs(b)) << "b" << i;
            EXPECT_NEAR(c[order + 1 + i], a[i], 1e-10 * MaxAbs(a)) << "a" << i;
        }

        lx::dsp::IirFilter filter;
        ASSERT_EQ(filter.Design(cutoff, ripple, order, kind), DspStatus::kOk);
        ASSERT_EQ(filter.taps().size(), 2 * order + 2);
        for (int i = 0; i < 2 * order + 2; ++i) EXPECT_EQ(filter.taps()[i], static_cast<float>(c[i]));
        const auto& want = ref[key + "/y"];
        std::vector<float> y(x.size());
        const size_t blocks[] = {1, 7, 256, 1000};
        for (size_t at = 0, i = 0; at < x.size(); ++i) {
            const size_t len = std::min(blocks[i % 4], x.size() - at);
            ASSERT_EQ(filter.Run(x.data() + at, y.data() + at, static_cast<int64_t>(len)), DspStatus::kOk);
            at += len;
        }
        for (size_t k = 0; k < x.size(); ++k) ASSERT_NEAR(y[k], want[k], 1e-6 * MaxAbs(want)) << "sample " << k;

        // Complex data: the same filter on both parts, each with its own state.
        lx::dsp::IirFilter cfilter;
        ASSERT_EQ(cfilter.Design(cutoff, ripple, order, kind), DspStatus::kOk);
        std::vector<cf32> cx(x.size()), cy(x.size());
        for (size_t k = 0; k < x.size(); ++k) cx[k] = cf32(x[k], -0.5f * x[k]);
        ASSERT_EQ(cfilter.Run(cx.data(), cy.data(), static_cast<int64_t>(cx.size())), DspStatus::kOk);
        for (size_t k = 0; k < x.size(); k += 97) {
            EXPECT_NEAR(cy[k].real(), want[k], 1e-6 * MaxAbs(want));
            EXPECT_NEAR(cy[k].imag(), -0.5 * want[k], 1e-6 * MaxAbs(want));
        }
    }
    EXPECT_EQ(cases, 8);
}

TEST(IirFilter, RefusedDesignsKeepThePreviousFilter) {
    lx::dsp::IirFilter f;
    float one = 1.0f, out = 0.0f;
    EXPECT_EQ(f.Run(&one, &out, 1), DspStatus::kNotInitialised);
    ASSERT_EQ(f.Design(0.1, 1.0, 4, lx::dsp::kIirLowPass), DspStatus::kOk);
    const std::vector<float> taps(f.taps().span().begin(), f.taps().span().end());
    struct Case { double cutoff, ripple; int order, kind; bool reported; };
    const Case cases[] = {{0.0, 1, 4, 0, true},  {0.5, 1, 4, 1, true},  {0.1, 0, 4, 0, true},
                          {0.1, 1, 0, 0, true},  {0.1, 1, 33, 0, true}, {std::nan(""), 1, 2, 0, true},
                          {0.1, 1, 4, 2, false}, {0.1, 1, 4, -1, false}};
    for (const Case& c : cases) {
        lx::AssertionCapture cap;
        EXPECT_NE(f.Design(c.cutoff, c.ripple, c.order, c.kind), DspStatus::kOk);
        EXPECT_EQ(cap.saw("status == ippStsNoErr", "src/dsp"), c.reported) << c.cutoff << " " << c.order;
        EXPECT_EQ(f.order(), 4);
        EXPECT_EQ(std::vector<float>(f.taps().span().begin(), f.taps().span().end()), taps);
    }
}

} // namespace
