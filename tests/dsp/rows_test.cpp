// Power and density row of spectrum bins in one pass, against the row rule
// evaluated in double precision: on the dB scale a value at the frame's
// bottom (A - B) lands in row 0, one at or above its top (A) in row 255.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "dsp/kernels.h"

namespace {

using lx::dsp::cf32;
using lx::dsp::DspStatus;

int ExpectedRow(double v) { return static_cast<int>(std::floor(std::clamp(v, 0.0, 255.0) + 0.5)); }

struct Frame {
    double top, range, gain; // A (dBm), B (dB), step gain (dB)
    float RowsPerDb() const { return static_cast<float>(2.56 * 100.0 / range); }
    float Offset() const { return static_cast<float>((gain + range - top) * 2.56 * 100.0 / range); }
    double Row(double powerDb) const { return (powerDb + gain + range - top) * 2.56 * 100.0 / range; }
};

TEST(PowerAndRows, LogScaleEdgesAndRandomLevels) {
    const Frame frames[] = {{0, 100, 0}, {-20, 60, 7.5}, {10, 130, -3.25}};
    for (const Frame& fr : frames) {
        // Levels (after the gain) at the bottom, the top, beyond both, and a mid row.
        const double bottom = fr.top - fr.range - fr.gain, top = fr.top - fr.gain;
        const struct {
            double db;
            int row;
        } edges[] = {{bottom, 0}, {bottom - 40, 0}, {top, 255}, {top + 30, 255}, {bottom + fr.range / 2, 128}};
        for (const auto& e : edges) {
            const float amp = static_cast<float>(std::pow(10.0, e.db / 20.0));
            const cf32 x(amp * 0.6f, amp * 0.8f);
            float p = -1;
            uint8_t row = 77;
            ASSERT_EQ(lx::dsp::PowerAndRowsLog(&x, &p, &row, 1, fr.RowsPerDb(), fr.Offset()), DspStatus::kOk);
            EXPECT_EQ(row, e.row) << e.db << " dB, frame top " << fr.top;
            EXPECT_FLOAT_EQ(p, amp * amp);
        }
        std::mt19937 rng(11);
        std::uniform_real_distribution<double> level(bottom - 20, top + 20);
        std::uniform_real_distribution<double> angle(0, 6.283185307179586);
        const int n = 4099;
        std::vector<cf32> x(n);
        for (cf32& v : x) v = std::polar(static_cast<float>(std::pow(10.0, level(rng) / 20.0)), float(angle(rng)));
        x[17] = cf32(0, 0); // silence: row 0
        std::vector<float> p(n);
        std::vector<uint8_t> rows(n);
        ASSERT_EQ(lx::dsp::PowerAndRowsLog(x.data(), p.data(), rows.data(), n, fr.RowsPerDb(), fr.Offset()),
                  DspStatus::kOk);
        int off = 0;
        for (int i = 0; i < n; ++i) {
            const double pw = double(x[i].real()) * x[i].real() + double(x[i].imag()) * x[i].imag();
            EXPECT_NEAR(p[i], pw, 1e-6 * pw);
            const double exact = pw > 0 ? fr.Row(10 * std::log10(pw)) : -1e9;
            const int want = ExpectedRow(exact);
            // Within 1e-4 of a rounding edge float arithmetic may go either way.
            if (rows[i] != want) {
                ++off;
                EXPECT_LT(std::fabs(exact - std::floor(exact) - 0.5), 1e-4) << i << " " << exact;
            }
        }
        EXPECT_LE(off, 2);
    }
}

TEST(PowerAndRows, LinearScaleAndArguments) {
    // Rows per millivolt: 255 at the top amplitude.
    const float k = 255.0f / 10.0f;
    const float amps[] = {0.0f, 0.0196f, 0.0197f, 5.0f, 10.0f, 100.0f};
    const int want[] = {0, 0, 1, 128, 255, 255};
    for (int i = 0; i < 6; ++i) {
        const cf32 x(0, amps[i]);
        float p = -1;
        uint8_t row = 77;
        ASSERT_EQ(lx::dsp::PowerAndRowsLinear(&x, &p, &row, 1, k), DspStatus::kOk);
        EXPECT_EQ(row, want[i]) << amps[i];
        EXPECT_FLOAT_EQ(p, amps[i] * amps[i]);
    }
    cf32 x(1, 0);
    float p = 0;
    EXPECT_EQ(lx::dsp::PowerAndRowsLog(&x, &p, nullptr, 1, 1, 0), DspStatus::kBadArgument);
    EXPECT_EQ(lx::dsp::PowerAndRowsLinear(&x, nullptr, nullptr, 1, 1), DspStatus::kBadArgument);
    EXPECT_EQ(lx::dsp::PowerAndRowsLog(&x, &p, nullptr, -1, 1, 0), DspStatus::kBadArgument);
    EXPECT_EQ(lx::dsp::PowerAndRowsLog(nullptr, nullptr, nullptr, 0, 1, 0), DspStatus::kOk);
}

} // namespace
