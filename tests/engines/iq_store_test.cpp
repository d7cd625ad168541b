// The I/Q sample store between the filter thread and the reader.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "engines/iq_engine.h"

namespace {

using lx::dsp::cf32;
using lx::engines::IqSampleStore;

constexpr double kNs = 1e9 / 960e3;

std::vector<cf32> Ramp(int64_t from, int64_t n) {
    std::vector<cf32> v(static_cast<size_t>(n));
    for (int64_t i = 0; i < n; ++i) v[static_cast<size_t>(i)] = cf32(float(from + i), -float(from + i));
    return v;
}

// Blocks of 700 samples stamped 700 samples apart, one trigger in every
// other block; read back in pieces that cross the blocks and the ring's end.
TEST(IqSampleStore, OrderTriggersAndStamps) {
    IqSampleStore store(2000, kNs);
    const int64_t t0 = 1'700'000'000'000'000'000;
    int64_t put = 0, got = 0;
    for (int round = 0; round < 6; ++round) {
        for (int b = 0; b < 2; ++b, put += 700) {
            const auto x = Ramp(put, 700);
            const int64_t stamp = t0 + static_cast<int64_t>(std::floor(put * kNs + 0.5));
            EXPECT_EQ(store.Put(x.data(), 700, (put / 700) % 2 == 0 ? 123.25 : -1.0, stamp), 0);
        }
        for (int64_t piece : {333, 1067}) {
            std::vector<cf32> out(static_cast<size_t>(piece));
            std::vector<double> trig(4, -1);
            int32_t written = 0;
            const IqSampleStore::Taken t = store.Take(out.data(), piece, false, 10, trig.data(), 4, &written);
            ASSERT_EQ(t.count, piece);
            EXPECT_FALSE(t.gap);
            EXPECT_NEAR(double(t.stamp), double(t0) + got * kNs, 1.0);
            for (int64_t i = 0; i < piece; ++i) ASSERT_EQ(out[size_t(i)].real(), float(got + i)) << got + i;
            // Triggers at stream positions 1400 k + 123.25 that fall in this piece.
            int expected = 0;
            for (int64_t k = 0; 1400 * k + 123.25 < double(got + piece); ++k) {
                const double at = 1400.0 * k + 123.25;
                if (at < double(got)) continue;
                ASSERT_LT(expected, written);
                EXPECT_DOUBLE_EQ(trig[size_t(expected++)], 10 + at - double(got));
            }
            EXPECT_EQ(written, expected);
            got += piece;
        }
    }
    EXPECT_EQ(store.Available(), 0);

    // Samples missing after a read's first sample (a block dropped, stamped
    // 5000 samples later) leave its time alone; past the gap the block's own.
    const auto x = Ramp(0, 300);
    const int64_t later = t0 + static_cast<int64_t>(std::floor(5300 * kNs + 0.5));
    EXPECT_EQ(store.Put(x.data(), 300, -1.0, t0), 0);
    EXPECT_EQ(store.Put(x.data(), 200, -1.0, later, IqSampleStore::Loss::Before), 0);
    std::vector<cf32> out(300);
    int32_t written = 0;
    for (const auto& [n, stamp] : {std::pair{100, double(t0)}, {250, t0 + 100 * kNs}, {150, later + 50 * kNs}})
        EXPECT_NEAR(double(store.Take(out.data(), n, false, 0, nullptr, 0, &written).stamp), stamp, 1.0) << n;
}

// A gap (an overflow's emptying, a block reported lost, a block that never
// came) is reported by every read of the outputs the filters' memory (20)
// carries it into.
TEST(IqSampleStore, GapsAreReportedWhereTheyAre) {
    using Loss = IqSampleStore::Loss;
    IqSampleStore store(1000, kNs, 20);
    const auto x = Ramp(0, 600);
    std::vector<int16_t> out(2 * 1000);
    std::vector<double> trig(2, -7);
    int32_t written = 0;
    auto take = [&](int64_t n) { return store.Take(out.data(), n, true, 0, trig.data(), 2, &written); };

    EXPECT_EQ(store.Put(x.data(), 600, 5.0, 0), 0);
    EXPECT_EQ(store.Put(x.data(), 400, -1.0, 0), 600); // 600 + 400 reaches the capacity: all 600 go
    EXPECT_EQ(store.Available(), 400);
    IqSampleStore::Taken t = take(400);
    EXPECT_EQ(t.count, 400);
    EXPECT_TRUE(t.gap);
    EXPECT_EQ(written, 0); // the dropped block's trigger went with it
    EXPECT_EQ(out[2 * 399], 32767); // 399 * 32768 saturates
    EXPECT_EQ(out[2 * 399 + 1], -32768);
    EXPECT_EQ(out[0], 0);

    // Stream positions from here: 0..299 clean, 300..499 lost in (spoiling up
    // to 519), 500..599 clean, a gap before 600 (spoiling 600..619), clean on.
    EXPECT_EQ(store.Put(x.data(), 300, -1.0, 0), 0);
    EXPECT_EQ(store.Put(x.data(), 200, -1.0, 0, Loss::Within), 0);
    EXPECT_EQ(store.Put(x.data(), 100, -1.0, 0), 0);
    EXPECT_EQ(store.Put(x.data(), 100, -1.0, 0, Loss::Before), 0);
    EXPECT_EQ(store.Put(x.data(), 100, -1.0, 0), 0);
    for (const auto& [n, gap] : {std::pair{300, false}, {100, true}, {150, true}, {30, false}, {30, true}, {5, true},
                                 {10, true}, {175, false}}) {
        t = take(n);
        EXPECT_EQ(t.count, n);
        EXPECT_EQ(t.gap, gap) << n;
    }
    EXPECT_EQ(store.Put(x.data(), 300, 1.0, 0, Loss::Within), 0);
    store.Purge(); // a purge forgets what it threw away, gaps included
    EXPECT_EQ(store.Available(), 0);
    EXPECT_EQ(take(10).count, 0);
    EXPECT_EQ(store.Put(x.data(), 10, -1.0, 0), 0);
    EXPECT_FALSE(take(10).gap);
}

} // namespace
