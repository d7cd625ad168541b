#include <gtest/gtest.h>

#include <complex>
#include <cstdint>
#include <limits>

#include "common/lx_assert.h"
#include "dsp_vector/aligned_vector.h"

namespace {

template <typename T>
class AlignedVectorTest : public ::testing::Test {};
using ElementTypes = ::testing::Types<std::complex<float>, float, double, uint8_t>;
TYPED_TEST_SUITE(AlignedVectorTest, ElementTypes);

// A small block from the heap and one large enough to be mapped.
TYPED_TEST(AlignedVectorTest, ResizeReleaseAndMoveKeepTheInvariant) {
    lx::AssertionCapture cap;
    for (const int64_t n : {int64_t{1001}, static_cast<int64_t>((1 << 20) / sizeof(TypeParam) + 3)}) {
        lx::AlignedVector<TypeParam> v;
        EXPECT_TRUE(v.empty());
        for (int pass = 0; pass < 2; ++pass) { // the second reuses freed memory: still zeros
            v.resize(n);
            ASSERT_EQ(v.size(), n);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(v.span().data()) % lx::kSampleAlignment, 0u);
            int64_t nonzero = 0;
            for (int64_t i = 0; i < n; ++i) nonzero += v[i] != TypeParam{};
            EXPECT_EQ(nonzero, 0);
            for (int64_t i = 0; i < n; ++i) v[i] = static_cast<TypeParam>(i % 100 + 1);
        }

        lx::AlignedVector<TypeParam> w(std::move(v));
        EXPECT_TRUE(v.empty());
        EXPECT_EQ(v.span().data(), nullptr);
        EXPECT_EQ(w.size(), n);
        EXPECT_EQ(w[n - 1], static_cast<TypeParam>((n - 1) % 100 + 1));

        v = std::move(w);
        EXPECT_EQ(v.size(), n);
        v.resize(0);
        EXPECT_TRUE(v.empty());
        EXPECT_EQ(v.span().data(), nullptr);
        v.resize(3);
        v.release();
        EXPECT_TRUE(v.empty());
    }
    EXPECT_EQ(cap.count(), 0u);
}

// Out-of-range access and a negative resize are reported and change nothing.
TYPED_TEST(AlignedVectorTest, BadAccessAndResizeAreReportedAndTouchNothing) {
    lx::AlignedVector<TypeParam> v(8);
    for (int64_t i = 0; i < 8; ++i) v[i] = static_cast<TypeParam>(7);
    const TypeParam* before = v.span().data();
    for (int64_t pos : {int64_t{-1}, int64_t{8}, int64_t{1} << 40, std::numeric_limits<int64_t>::min()}) {
        lx::AssertionCapture cap;
        v[pos] = static_cast<TypeParam>(1);
        EXPECT_EQ(cap.count(), 1u) << pos;
        EXPECT_TRUE(cap.saw("mem && pos < capacity", "src/dsp_vector")) << pos;
    }
    lx::AssertionCapture cap;
    v.resize(-1);
    EXPECT_TRUE(cap.saw("false", "src/dsp_vector"));
    EXPECT_EQ(v.span().data(), before);
    EXPECT_EQ(v.size(), 8);
    for (int64_t i = 0; i < 8; ++i) EXPECT_EQ(v[i], static_cast<TypeParam>(7));
    lx::AlignedVector<TypeParam> empty;
    EXPECT_EQ(empty.data(), nullptr);
    EXPECT_TRUE(cap.saw("mem && pos < capacity", "src/dsp_vector"));
}

} // namespace
