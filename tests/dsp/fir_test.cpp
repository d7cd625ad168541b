#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "common/lx_assert.h"
#include "dsp/fir.h"
#include "reference.h"

namespace {

using lx::dsp::cf32;
using lx::dsp::DspStatus;
using lx::dsp::test::Reference;
using lx::dsp::test::RelativeError;

// Block sizes that cross every boundary: single samples, blocks shorter than the
// history, blocks longer than one overlap-save frame.
std::vector<int64_t> Splits(int64_t total, unsigned seed) {
    std::mt19937 rng(seed);
    const int64_t sizes[] = {1, 3, 17, 100, 500, 1000, 2500};
    std::vector<int64_t> out;
    for (int64_t done = 0; done < total;) {
        const int64_t n = std::min(total - done, sizes[rng() % 7]);
        out.push_back(n);
        done += n;
    }
    return out;
}

// SciPy: firwin(numtaps, 2 * cutoff, window="blackman"), unit gain at DC.
TEST(FirDesign, MatchesScipyFirwin) {
    const Reference& ref = Reference::Get("fir");
    ASSERT_TRUE(ref.ok());
    int cases = 0;
    for (; ref.has("firwin/" + std::to_string(cases) + "/h"); ++cases) {
        const std::string key = "firwin/" + std::to_string(cases);
        const int m = static_cast<int>(ref[key + "/params"][0]);
        const double cutoff = ref[key + "/params"][1];
        const auto& want = ref[key + "/h"];
        ASSERT_EQ(want.size(), static_cast<size_t>(m)) << key;
        std::vector<cf32> taps(m);
        lx::AssertionCapture cap;
        ASSERT_EQ(lx::dsp::DesignFirLowPass(taps.data(), m, cutoff), DspStatus::kOk);
        EXPECT_EQ(cap.count(), 0u);
        double peak = 0;
        for (double v : want) peak = std::max(peak, std::abs(v));
        for (int k = 0; k < m; ++k) {
            EXPECT_NEAR(taps[k].real(), want[k], 1e-7 * peak) << key << " k=" << k;
            EXPECT_EQ(taps[k].imag(), 0.0f);
        }
    }
    EXPECT_EQ(cases, 6);
}

TEST(FirDesign, RefusedDesignsReportAndWriteNothing) {
    struct Case { int taps; double cutoff; bool cutoffReport; };
    const Case cases[] = {{31, 0.5, true},   {31, 0.7, true},   {31, std::nan(""), true},
                          {31, 0.0, false},  {31, -0.1, false}, {0, 0.2, false}};
    for (const Case& c : cases) {
        std::vector<cf32> taps(31, cf32(9.0f, 9.0f));
        lx::AssertionCapture cap;
        EXPECT_NE(lx::dsp::DesignFirLowPass(taps.data(), c.taps, c.cutoff), DspStatus::kOk);
        EXPECT_EQ(cap.saw("cutoff < 0.5", "src/dsp"), c.cutoffReport) << c.cutoff;
        EXPECT_TRUE(cap.saw("status == ippStsNoErr", "src/dsp"));
        EXPECT_EQ(taps, std::vector<cf32>(31, cf32(9.0f, 9.0f)));
    }
}

// numpy.convolve(x, h)[:len(x)], one-shot, block-wise and in place, from 1 tap
// to 300, each length through the direct form (method 1) and overlap-save
// (method = FFT size; 0 lets the filter choose).
TEST(FirFilter, AnySplitGivesTheConvolution) {
    const Reference& ref = Reference::Get("fir");
    ASSERT_TRUE(ref.ok());
    const auto x = ref.Complex("fir/x");
    const int64_t n = static_cast<int64_t>(x.size());
    const std::pair<const char*, int> cases[] = {{"1", 1},   {"1", 2},   {"5", 0},        {"5", 1},
                                                 {"31", 0},  {"31", 1},  {"129", 0},      {"129", 1},
                                                 {"129", 4096}, {"300", 0}, {"real129", 0}, {"real129", 1}};
    for (const auto& [name, method] : cases) {
        SCOPED_TRACE(std::string(name) + " taps, method " + std::to_string(method));
        const auto h = ref.Complex(std::string("fir/") + name + "/h");
        const auto want = ref.Complex<double>(std::string("fir/") + name + "/y");
        lx::dsp::FirFilter whole, blocks, inPlace;
        for (auto* f : {&whole, &blocks, &inPlace})
            ASSERT_EQ(f->Init(h.data(), static_cast<int>(h.size()), method), DspStatus::kOk);
        EXPECT_EQ(whole.fftSize(), method == 0 ? whole.fftSize() : method == 1 ? 0 : method);
        std::vector<cf32> y1(n), y2(n), y3 = x;
        ASSERT_EQ(whole.Run(x.data(), y1.data(), n), DspStatus::kOk);
        int64_t at = 0;
        for (int64_t len : Splits(n, 1)) {
            ASSERT_EQ(blocks.Run(x.data() + at, y2.data() + at, len), DspStatus::kOk);
            at += len;
        }
        at = 0;
        for (int64_t len : Splits(n, 2)) {
            ASSERT_EQ(inPlace.Run(y3.data() + at, y3.data() + at, len), DspStatus::kOk);
            at += len;
        }
        const double tol = 1e-6 * (whole.fftSize() ? 3 : 1) * std::sqrt(static_cast<double>(h.size()));
        for (const auto& [y, how] : {std::pair{&y1, "whole"}, {&y2, "in blocks"}, {&y3, "in place"}})
            EXPECT_LT(RelativeError(*y, want), tol) << how;

        // After Reset the stream starts again from zero history.
        blocks.Reset();
        ASSERT_EQ(blocks.Run(x.data(), y2.data(), n), DspStatus::kOk);
        EXPECT_LT(RelativeError(y2, want), tol);
    }
}

TEST(FirFilter, SetUpChecksAreReported) {
    lx::dsp::FirFilter f;
    lx::dsp::DecimatingFir d;
    cf32 buf[4] = {};
    const cf32 taps[2] = {cf32(0.5f, 0.0f), cf32(0.5f, 0.0f)};
    int64_t written = -1;
    struct Case {
        const char* text;
        std::function<DspStatus()> call;
    };
    const Case cases[] = {
        {"kn != nullptr", [&] { return f.Run(buf, buf, 4); }},
        {"kn != nullptr", [&] { return d.Run(buf, 4, buf, &written); }},
        {"taps", [&] { return f.Init(nullptr, 5); }},
        {"tapsLen > 0", [&] { return d.Init(taps, 0, 2); }},
    };
    for (const Case& c : cases) {
        lx::AssertionCapture cap;
        EXPECT_NE(c.call(), DspStatus::kOk) << c.text;
        EXPECT_TRUE(cap.saw(c.text, "src/dsp")) << c.text;
    }
    EXPECT_EQ(written, 0);
    // A refused Init keeps the filter it had: here a two-tap average.
    ASSERT_EQ(f.Init(taps, 2, 1), DspStatus::kOk);
    EXPECT_EQ(f.Init(taps, 0), DspStatus::kBadArgument);
    EXPECT_EQ(f.Init(taps, 2, 3), DspStatus::kBadArgument); // FFT size not a power of two
    const cf32 in[3] = {cf32(2, 0), cf32(4, 0), cf32(6, 0)};
    cf32 out[3];
    ASSERT_EQ(f.Run(in, out, 3), DspStatus::kOk);
    EXPECT_EQ(out[2], cf32(5, 0));
}

// convolve(x, h)[:len(x)][::factor], fed in blocks shorter and longer than the
// factor and the history, and in one call (whole FFT frames), up to the
// 2049-tap low-passes of the engines' host stages.
TEST(DecimatingFir, KeepsEveryFactorthOutput) {
    const Reference& ref = Reference::Get("fir");
    ASSERT_TRUE(ref.ok());
    const auto x = ref.Complex("dec/x");
    const auto n = static_cast<int64_t>(x.size());
    const std::pair<int, int> cases[] = {{1, 1},   {7, 3},    {129, 4},   {257, 2},  {513, 4},
                                         {1025, 8}, {2049, 2}, {2049, 16}, {2049, 64}};
    for (const auto& [m, d] : cases) {
        const auto h = ref.Complex("dec/" + std::to_string(m) + "/" + std::to_string(d) + "/h");
        const auto want = ref.Complex<double>("dec/" + std::to_string(m) + "/" + std::to_string(d) + "/y");
        for (const auto& splits : {Splits(n, 3), std::vector<int64_t>{n}}) {
            SCOPED_TRACE(testing::Message() << m << " taps, factor " << d << ", " << splits.size() << " calls");
            lx::dsp::DecimatingFir f;
            ASSERT_EQ(f.Init(h.data(), m, d), DspStatus::kOk);
            EXPECT_EQ(f.fftSize() > 0, m >= 16 * d && d > 1); // long filters take the FFT path
            std::vector<cf32> y(want.size() + 1, cf32(-7.0f, -7.0f));
            int64_t at = 0, produced = 0;
            for (int64_t len : splits) {
                const int64_t expected = f.OutputCount(len);
                int64_t written = -1;
                ASSERT_EQ(f.Run(x.data() + at, len, y.data() + produced, &written), DspStatus::kOk);
                EXPECT_EQ(written, expected);
                at += len;
                produced += written;
            }
            ASSERT_EQ(produced, static_cast<int64_t>(want.size()));
            EXPECT_EQ(y.back(), cf32(-7.0f, -7.0f)) << "wrote past the outputs";
            y.pop_back();
            EXPECT_LT(RelativeError(y, want), 1e-6 * std::sqrt(static_cast<double>(m)));
        }
    }
}

} // namespace
