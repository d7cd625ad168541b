#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <vector>

#include "common/lx_assert.h"
#include "dsp/shifter.h"

namespace {

using lx::dsp::cf32;
using lx::dsp::DspStatus;
using lx::dsp::FrequencyShifter;

__extension__ typedef unsigned __int128 u128;

// Phase 2 pi frac(f k) with f k reduced exactly in integers (f = m 2^e, m < 2^53),
// so the reference has no drift of its own however large k gets.
long double ExactPhase(double f, uint64_t k) {
    int ex = 0;
    const double mant = std::frexp(f, &ex);
    const uint64_t m = static_cast<uint64_t>(std::ldexp(mant, 53));
    const int shift = 53 - ex; // f = m 2^-shift
    const u128 prod = static_cast<u128>(m) * k;
    const u128 rem = shift >= 128 ? prod : prod & ((static_cast<u128>(1) << shift) - 1);
    return 2.0L * std::numbers::pi_v<long double> * (static_cast<long double>(rem) / std::ldexp(1.0L, shift));
}

std::complex<long double> ExactTone(double f, uint64_t k) {
    const long double p = ExactPhase(f, k);
    return {std::cos(p), std::sin(p)};
}

double Distance(cf32 a, std::complex<long double> b) {
    return static_cast<double>(std::abs(std::complex<long double>(a.real(), a.imag()) - b));
}

TEST(FrequencyShifter, FoldsTheFrequencyIntoZeroToOne) {
    struct Case { double f, stored; bool reported; };
    const Case cases[] = {{-0.25, 0.75, false}, {0.3, 0.3, false},  {0.0, 0.0, false}, {1.0, 1.0, false},
                          {1.5, 1.0, true},     {-1.5, 0.0, true}, {std::nan(""), 0.0, true}};
    for (const Case& c : cases) {
        lx::AssertionCapture cap;
        FrequencyShifter s(c.f, 64, 0);
        EXPECT_EQ(s.frequency(), c.stored) << c.f;
        EXPECT_EQ(cap.saw("false", "src/dsp"), c.reported) << c.f;
    }
    // f == 1 is accepted, but a shift reports and writes nothing.
    FrequencyShifter one(1.0, 64, 0);
    std::vector<cf32> src(64, cf32(1, 0)), dst(64, cf32(3, 3));
    lx::AssertionCapture cap;
    EXPECT_NE(one.Shift(src.data(), dst.data(), 64), DspStatus::kOk);
    EXPECT_TRUE(cap.saw("false", "src/dsp"));
    EXPECT_EQ(dst, std::vector<cf32>(64, cf32(3, 3)));
}

class ShifterMode : public ::testing::TestWithParam<int> {};

// Random data, calls of uneven length, more samples per call than the tone
// buffer holds and a buffer that is not a multiple of the tone chunk:
// dst = src * exp(j 2 pi f k) for the running sample index k.
TEST_P(ShifterMode, MultipliesByTheRunningTone) {
    const double f = -0.3141592653589793; // runs at 0.6858...
    FrequencyShifter s(f, 1000, static_cast<uint8_t>(GetParam()));
    std::mt19937 rng(5);
    std::normal_distribution<float> g;
    std::vector<cf32> src(6000), dst(6000);
    for (auto& v : src) v = cf32(g(rng), g(rng));
    int64_t at = 0;
    for (int64_t len : {1, 2047, 999, 2953}) {
        ASSERT_EQ(s.Shift(src.data() + at, dst.data() + at, len), DspStatus::kOk);
        at += len;
    }
    double worst = 0;
    for (uint64_t k = 0; k < 6000; ++k) {
        const std::complex<long double> want = std::complex<long double>(src[k].real(), src[k].imag()) * ExactTone(s.frequency(), k);
        worst = std::max(worst, Distance(dst[k], want) / std::abs(src[k]));
    }
    EXPECT_LT(worst, GetParam() == 0 ? 4e-7 : 2.5e-7);
}

// 10^9 samples through one shifter, in 64 Ki-sample calls: the tone at the first
// and last sample of every call matches exp(j 2 pi f k) evaluated exactly, and the
// stored phase has not drifted. (About a second of work at the shifter's speed.)
TEST_P(ShifterMode, PhaseStaysContinuousOverAGigasample) {
    const double f = 0.1234567891234;
    const int n = 1 << 16;
    FrequencyShifter s(f, n, static_cast<uint8_t>(GetParam()));
    std::vector<cf32> ones(n, cf32(1, 0)), dst(n);
    const uint64_t calls = 1000000000ull / n + 1;
    double worst = 0;
    for (uint64_t c = 0; c < calls; ++c) {
        ASSERT_EQ(s.Shift(ones.data(), dst.data(), n), DspStatus::kOk);
        const uint64_t k0 = c * n;
        worst = std::max(worst, Distance(dst[0], ExactTone(f, k0)));
        worst = std::max(worst, Distance(dst[n - 1], ExactTone(f, k0 + n - 1)));
    }
    EXPECT_LT(worst, GetParam() == 0 ? 4e-7 : 2.5e-7);
    const long double want = ExactPhase(f, calls * n);
    const long double diff = std::remainder(static_cast<long double>(s.phase()) - want, 2 * std::numbers::pi_v<long double>);
    EXPECT_LT(std::abs(static_cast<double>(diff)), 1e-9);
}

INSTANTIATE_TEST_SUITE_P(FloatAndDoubleTone, ShifterMode, ::testing::Values(0, 1));

} // namespace
