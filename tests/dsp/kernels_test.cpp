#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "dsp/kernels.h"

namespace {

using lx::dsp::cf32;
using lx::dsp::DspStatus;

// Every int16 value, as I and as Q: saturate(v - 576) * 2^-15, including the low
// edge where v - 576 leaves the int16 range.
TEST(ConvertIq16, EveryRawValue) {
    std::vector<int16_t> raw(2 * 65536 + 6);
    for (int v = -32768; v <= 32767; ++v) {
        raw[2 * (v + 32768)] = static_cast<int16_t>(v);
        raw[2 * (v + 32768) + 1] = static_cast<int16_t>(-1 - v);
    }
    const int64_t n = static_cast<int64_t>(raw.size() / 2);
    std::vector<cf32> out(n + 1, cf32(9, 9));
    ASSERT_EQ(lx::dsp::ConvertIq16(raw.data(), out.data(), n), DspStatus::kOk);
    auto want = [](int v) { return std::max(v - 576, -32768) / 32768.0f; };
    for (int64_t k = 0; k < n; ++k) {
        ASSERT_EQ(out[k].real(), want(raw[2 * k])) << raw[2 * k];
        ASSERT_EQ(out[k].imag(), want(raw[2 * k + 1])) << raw[2 * k + 1];
    }
    EXPECT_EQ(out[n], cf32(9, 9));
}

// The fused conversion equals conversion followed by the window multiply, to the
// rounding of one product, on every raw value (the low saturation edge included).
TEST(ConvertIq16Windowed, MatchesConvertThenWindow) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> raw16(-32768, 32767);
    std::uniform_real_distribution<float> wd(0.0f, 1.5f);
    const int64_t n = 70001;
    std::vector<int16_t> raw(2 * n);
    std::vector<float> w(n);
    for (auto& v : raw) v = static_cast<int16_t>(raw16(rng));
    raw[0] = -32768;
    for (auto& v : w) v = wd(rng);
    std::vector<cf32> fused(n + 1, cf32(9, 9)), ref(n);
    ASSERT_EQ(lx::dsp::ConvertIq16Windowed(raw.data(), w.data(), fused.data(), n), DspStatus::kOk);
    ASSERT_EQ(lx::dsp::ConvertIq16(raw.data(), ref.data(), n), DspStatus::kOk);
    for (int64_t k = 0; k < n; ++k) {
        ASSERT_NEAR(fused[k].real(), ref[k].real() * w[k], 1.2e-7f * std::abs(ref[k].real() * w[k])) << k;
        ASSERT_NEAR(fused[k].imag(), ref[k].imag() * w[k], 1.2e-7f * std::abs(ref[k].imag() * w[k])) << k;
    }
    EXPECT_EQ(fused[n], cf32(9, 9));
    EXPECT_EQ(lx::dsp::ConvertIq16Windowed(raw.data(), nullptr, fused.data(), 1), DspStatus::kBadArgument);
}

// 10 log10 against double precision over the whole normal float range of powers
// (log-uniform magnitudes, exact powers of two and the mantissa split at sqrt 2), with an
// offset, through both the complex and the power entry points.
TEST(PowerDb, AccurateOverTheFloatRange) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> expo(-18.0, 18.9), ang(0, 6.283185307179586);
    std::vector<cf32> x;
    for (int i = 0; i < 200000; ++i) x.push_back(std::polar(static_cast<float>(std::pow(10.0, expo(rng))), static_cast<float>(ang(rng))));
    for (int e = -62; e <= 62; ++e)
        for (double m : {1.0, 1.4142135, 1.4142137, 0.70710677, 0.7071068})
            x.push_back(cf32(static_cast<float>(std::sqrt(std::ldexp(m, e))), 0.0f));
    const int64_t n = static_cast<int64_t>(x.size());
    std::vector<float> p(n), db(n), db2(n);
    ASSERT_EQ(lx::dsp::Power(x.data(), p.data(), n), DspStatus::kOk);
    ASSERT_EQ(lx::dsp::PowerDb(x.data(), db.data(), n, -3.5f), DspStatus::kOk);
    ASSERT_EQ(lx::dsp::PowerToDb(p.data(), db2.data(), n, -3.5f), DspStatus::kOk);
    // The float result carries its own rounding (an ulp is 3e-5 dB above 256 dB),
    // so the bound is one ulp of the result plus a small absolute part.
    for (int64_t k = 0; k < n; ++k) {
        const double re = x[k].real(), im = x[k].imag();
        const double power = re * re + im * im;
        ASSERT_NEAR(p[k], power, 1.2e-7 * power) << k;
        const double want = 10.0 * std::log10(static_cast<double>(p[k])) - 3.5;
        const float mag = static_cast<float>(std::abs(want));
        const double ulp = std::nextafter(mag, 1e30f) - mag;
        ASSERT_LE(std::abs(db2[k] - want), ulp + 2e-6) << "p=" << p[k];
        ASSERT_EQ(db[k], db2[k]) << k;
    }
}

TEST(PowerDb, SpecialValues) {
    const float inf = std::numeric_limits<float>::infinity();
    const float in[] = {0.0f, -0.0f, 1e-40f, -1.0f, inf, std::nanf(""), std::numeric_limits<float>::min()};
    float out[7];
    ASSERT_EQ(lx::dsp::PowerToDb(in, out, 7, 1.0f), DspStatus::kOk);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(out[i], lx::dsp::kPowerFloorDb + 1.0f) << i;
    EXPECT_EQ(out[4], inf);
    EXPECT_TRUE(std::isnan(out[5]));
    EXPECT_NEAR(out[6], 10 * std::log10(std::numeric_limits<float>::min()) + 1.0, 1e-4);
}

} // namespace
