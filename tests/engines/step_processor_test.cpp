// The step processor against NumPy (step_reference.py): every detector,
// video unit and scale, padding and gain, on tones in noise with a level step
// half-way. Levels against the scene: tests/e2e/sweep_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "../common/python_reference.h"
#include "engines/step_processor.h"

namespace {

using lx::engines::cf32;
using lx::engines::StepProcessor;
using lx::engines::StepProcessorConfig;

const lxtest::ReferenceValues& Reference() {
    static const auto values = lxtest::RunReference("engines/step_reference.py", "{dir}/out.txt");
    return values;
}

class StepReference : public ::testing::TestWithParam<const char*> {};

// Every case twice: in one contiguous block (Process), and for the kept bins
// only, segment by segment from copies scattered in memory (Begin/AddSegment/
// Finish), as a wrapping ring or an over-long step feeds it.
TEST_P(StepReference, MatchesNumPy) {
    const auto& ref = Reference();
    ASSERT_FALSE(ref.empty()) << "reference script failed";
    const std::string name = GetParam();
    const auto& p = ref.at(name + "/params");
    StepProcessorConfig c;
    c.windowType = static_cast<int32_t>(p[0]);
    c.fftSize = static_cast<int32_t>(p[1]);
    c.windowLength = static_cast<int32_t>(p[2]);
    c.averageCount = static_cast<int64_t>(p[3]);
    c.vbwRatio = p[4];
    c.detector = static_cast<int32_t>(p[5]);
    c.videoUnits = static_cast<int32_t>(p[6]);
    c.scale = static_cast<int32_t>(p[7]);
    const float gain = static_cast<float>(p[8]);
    const auto& xs = ref.at(name + "/x");
    std::vector<cf32> x(xs.size() / 2);
    for (size_t i = 0; i < x.size(); ++i) x[i] = {static_cast<float>(xs[2 * i]), static_cast<float>(xs[2 * i + 1])};
    const auto& wantMin = ref.at(name + "/min");
    const auto& wantMax = ref.at(name + "/max");

    StepProcessor sp(c);
    ASSERT_TRUE(sp.valid());
    ASSERT_EQ(sp.SamplesNeeded(), static_cast<int64_t>(x.size()));
    const size_t n = static_cast<size_t>(c.fftSize);
    ASSERT_EQ(wantMin.size(), n);

    // Log outputs compare in dB, linear ones relative to the trace's peak.
    const bool linear = c.scale == 1;
    const double peak = *std::max_element(wantMax.begin(), wantMax.end());
    // Outside [lo, hi) the outputs must be left as they were (-7).
    const auto check = [&](const std::vector<float>& got, const std::vector<double>& want, const char* what,
                           size_t lo, size_t hi) {
        for (size_t k = 0; k < n; ++k) {
            const double tol = linear ? 2e-5 * peak + 1e-4 * std::abs(want[k]) : 2e-3;
            if (k < lo || k >= hi)
                ASSERT_EQ(got[k], -7.0f) << what << " bin " << k;
            else
                ASSERT_NEAR(got[k], want[k], tol) << what << " bin " << k;
        }
    };

    std::vector<float> mn(n, -7.0f), mx(n, -7.0f);
    sp.Process(x.data(), gain, mn.data(), mx.data());
    check(mn, wantMin, "min (whole step)", 0, n);
    check(mx, wantMax, "max (whole step)", 0, n);

    // The kept bins only, across the middle of the band, segment by segment.
    const size_t lo = n / 4 + 3, hi = lo + n / 2;
    std::vector<float> mn2(n, -7.0f), mx2(n, -7.0f);
    sp.Begin(static_cast<int64_t>(lo), static_cast<int64_t>(hi - lo));
    std::vector<std::vector<cf32>> copies;
    for (int64_t k = 0; sp.NeedsMore(); ++k) {
        const auto first = x.begin() + k * sp.hop();
        copies.emplace_back(first, first + c.windowLength);
        sp.AddSegment(copies.back().data());
    }
    sp.Finish(gain, mn2.data(), mx2.data());
    check(mn2, wantMin, "min (kept bins, segment by segment)", lo, hi);
    check(mx2, wantMax, "max (kept bins, segment by segment)", lo, hi);
}

INSTANTIATE_TEST_SUITE_P(Cases, StepReference,
                         ::testing::Values("avg_power_flattop_padded", "avg_log_blackman", "avg_voltage_linear",
                                           "avg_one_segment_log_linear",
                                           "minmax_power_vbw_quarter", "minmax_log_vbw_third_linear",
                                           "minmax_voltage_rbw_eq_vbw", "sample_units_first_segment",
                                           "minmax_power_scale2_no_gain"));

} // namespace
