#include "dsp/kernels.h"

#include <bit>
#include <cstring>
#include <limits>

#include "dsp/simd.h"

namespace lx::dsp {

namespace {

constexpr float kDbPerNeper = 4.342944819032518f;      // 10 / ln(10)
constexpr float kDbPerOctaveHi = 3.01025390625f;        // 10 log10(2) to 16 bits: e * hi is exact
constexpr float kDbPerOctaveLo = 4.60503898120912e-05f;  // the rest of 10 log10(2)

inline float ConvertOne(int16_t raw) {
    int v = static_cast<int>(raw) - kRawDcOffset;
    v = v < -32768 ? -32768 : v; // only the low side can leave the int16 range
    return static_cast<float>(v);
}

LX_DSP_CLONES void ConvertLoop(const int16_t* src, float* dst, int64_t n) {
    for (int64_t i = 0; i < n; ++i) dst[i] = ConvertOne(src[i]) * kRawScale;
}

// Blocks of 8 samples: the block's window values are spread to one per float
// first, so the conversion runs as the same straight float loop as
// ConvertLoop with one more multiply. Written over I/Q pairs, gcc splits and
// re-interleaves the pairs with shuffles, and the loop took twice the time
// of the conversion alone.
constexpr int64_t kWindowBlock = 8;

LX_WIDE_CLONES void ConvertWindowLoop(const int16_t* __restrict src, const float* __restrict w, float* __restrict dst,
                                     int64_t n) {
    const int64_t body = n / kWindowBlock * kWindowBlock;
    for (int64_t b = 0; b < body; b += kWindowBlock) {
        float g[2 * kWindowBlock];
        for (int64_t k = 0; k < kWindowBlock; ++k) g[2 * k] = g[2 * k + 1] = w[b + k] * kRawScale;
        for (int64_t k = 0; k < 2 * kWindowBlock; ++k) dst[2 * b + k] = ConvertOne(src[2 * b + k]) * g[k];
    }
    for (int64_t i = body; i < n; ++i) {
        const float g = w[i] * kRawScale;
        dst[2 * i] = ConvertOne(src[2 * i]) * g;
        dst[2 * i + 1] = ConvertOne(src[2 * i + 1]) * g;
    }
}

LX_DSP_CLONES void MultiplyLoop(const float* a, const float* b, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = a[i] * b[i];
}

LX_DSP_CLONES void ScaleLoop(const float* a, float s, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = a[i] * s;
}

LX_DSP_CLONES void ComplexMultiplyLoop(const float* a, const float* b, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) {
        const float ar = a[2 * i], ai = a[2 * i + 1], br = b[2 * i], bi = b[2 * i + 1];
        out[2 * i] = ar * br - ai * bi;
        out[2 * i + 1] = ar * bi + ai * br;
    }
}

LX_DSP_CLONES void PowerLoop(const float* x, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) {
        const float re = x[2 * i], im = x[2 * i + 1];
        out[i] = re * re + im * im;
    }
}

// 10 log10(p) + offset for a positive normal p = m 2^e with m in
// [sqrt(1/2), sqrt(2)): ln m = 2 atanh(s), s = (m - 1)/(m + 1), |s| < 0.172; the
// series to s^9 leaves under 1e-9 of ln m, so the float arithmetic sets the error.
// Zero, subnormal and negative p give values far below -300 dB (not special-cased).
inline float DbOfNormal(uint32_t bits, float offset) {
    const int32_t e = static_cast<int32_t>(bits - 0x3f3504f3u) >> 23;
    const float m = std::bit_cast<float>(bits - (static_cast<uint32_t>(e) << 23));
    const float s = (m - 1.0f) / (m + 1.0f);
    const float s2 = s * s;
    const float series = 1.0f + s2 * (1.0f / 3 + s2 * (1.0f / 5 + s2 * (1.0f / 7 + s2 * (1.0f / 9))));
    const float fe = static_cast<float>(e);
    return fe * kDbPerOctaveHi + (fe * kDbPerOctaveLo + kDbPerNeper * (2.0f * s * series)) + offset;
}

// Round to nearest within 0..255. The clamp works on the float's bits as
// signed integers (their order is the floats' for v >= 0; every negative v is
// below 0) with masks: gcc turns a float select on a computed value into a
// branch (the arithmetic could trap), and integer selects too in the AVX2
// copy, and either keeps the loop scalar.
// +inf and +NaN read 255.
inline uint8_t Row(float v) {
    constexpr int32_t kTop = std::bit_cast<int32_t>(255.0f);
    const int32_t b = std::bit_cast<int32_t>(v);
    const uint32_t neg = 0u - static_cast<uint32_t>(b < 0);
    const uint32_t big = 0u - static_cast<uint32_t>(b > kTop);
    const uint32_t c = (static_cast<uint32_t>(b) & ~neg & ~big) | (static_cast<uint32_t>(kTop) & big);
    return static_cast<uint8_t>(static_cast<int32_t>(std::bit_cast<float>(c) + 0.5f));
}

// 10 log10(m) for m in [sqrt(1/2), sqrt(2)), as a polynomial in s = m - 1
// (Chebyshev fit of degree 8): within 3e-7 dB, i.e. 1e-6 of a row at 3 rows
// per dB, and no division, which the atanh form of DbOfNormal needs and which
// bounds the row loop's throughput. The rows only: the traces' dB go through
// ToDbLoop.
inline float DbOfMantissa(float s) {
    // Written out: a coefficient table in a loop is not unrolled at -O2 and
    // keeps the caller's loop scalar.
    float r = -0.417381674f;
    r = r * s + 0.705598593f;
    r = r * s - 0.757283032f;
    r = r * s + 0.864325523f;
    r = r * s - 1.08360708f;
    r = r * s + 1.44771314f;
    r = r * s - 2.17151403f;
    r = r * s + 4.34294462f;
    return r * s + 1.24933521e-07f;
}

LX_WIDE_CLONES void PowerRowsLogLoop(const float* x, float* __restrict power, uint8_t* __restrict rows, int64_t n,
                                     float scale, float offset) {
    for (int64_t i = 0; i < n; ++i) {
        const float re = x[2 * i], im = x[2 * i + 1];
        const float p = re * re + im * im;
        power[i] = p;
        // p is never negative. Below the smallest normal (0 included) the
        // split gives a finite value that the select replaces: row 0.
        const uint32_t bits = std::bit_cast<uint32_t>(p);
        const int32_t e = static_cast<int32_t>(bits - 0x3f3504f3u) >> 23;
        const float s = std::bit_cast<float>(bits - (static_cast<uint32_t>(e) << 23)) - 1.0f;
        const float fe = static_cast<float>(e);
        const float db = fe * kDbPerOctaveHi + (fe * kDbPerOctaveLo + DbOfMantissa(s));
        // Blended with a mask: a select is turned into a branch around the
        // arithmetic above, and the loop stays scalar.
        const uint32_t low = 0u - static_cast<uint32_t>(bits < 0x00800000u);
        const uint32_t v = std::bit_cast<uint32_t>(db * scale + offset) | low; // -NaN: below every row
        rows[i] = Row(std::bit_cast<float>(v));
    }
}

LX_WIDE_SQRT_CLONES void PowerRowsLinearLoop(const float* x, float* __restrict power, uint8_t* __restrict rows,
                                             int64_t n, float scale) {
    for (int64_t i = 0; i < n; ++i) {
        const float re = x[2 * i], im = x[2 * i + 1];
        const float p = re * re + im * im;
        power[i] = p;
        rows[i] = Row(std::sqrt(p) * scale);
    }
}

// out[i] = 10 log10(p[i]) + offset, with the special values below.
LX_DSP_CLONES void ToDbLoop(const float* p, float* out, int64_t n, float offset) {
    for (int64_t i = 0; i < n; ++i) {
        const uint32_t bits = std::bit_cast<uint32_t>(p[i]);
        float r = DbOfNormal(bits, offset);
        // Special values, classified on the bits and blended with masks: written as
        // selects, gcc sinks the division into a branch and the loop stays scalar.
        const uint32_t low = 0u - static_cast<uint32_t>(bits - 0x00800000u >= 0x7f000000u); // 0, subnormal, < 0
        const uint32_t inf = 0u - static_cast<uint32_t>(bits == 0x7f800000u);
        const uint32_t nan = 0u - static_cast<uint32_t>((bits & 0x7fffffffu) > 0x7f800000u);
        uint32_t rb = std::bit_cast<uint32_t>(r);
        rb = (rb & ~low) | (std::bit_cast<uint32_t>(kPowerFloorDb + offset) & low);
        rb = (rb & ~inf) | (0x7f800000u & inf);
        rb = (rb & ~nan) | (0x7fc00000u & nan);
        out[i] = std::bit_cast<float>(rb);
    }
}

bool Bad(const void* a, const void* b, int64_t count) { return count < 0 || (count > 0 && (!a || !b)); }

const float* F(const cf32* p) { return reinterpret_cast<const float*>(p); }
float* F(cf32* p) { return reinterpret_cast<float*>(p); }

} // namespace

DspStatus ConvertIq16(const int16_t* src, cf32* dst, int64_t count) noexcept {
    if (Bad(src, dst, count)) return DspStatus::kBadArgument;
    ConvertLoop(src, F(dst), 2 * count);
    return DspStatus::kOk;
}

DspStatus ConvertIq16Windowed(const int16_t* src, const float* window, cf32* dst, int64_t count) noexcept {
    if (Bad(src, dst, count) || Bad(window, dst, count)) return DspStatus::kBadArgument;
    ConvertWindowLoop(src, window, F(dst), count);
    return DspStatus::kOk;
}

DspStatus MultiplyFloats(const float* a, const float* b, float* out, int64_t count) noexcept {
    if (Bad(a, b, count) || Bad(a, out, count)) return DspStatus::kBadArgument;
    MultiplyLoop(a, b, out, count);
    return DspStatus::kOk;
}

DspStatus ScaleFloats(const float* a, float s, float* out, int64_t count) noexcept {
    if (Bad(a, out, count)) return DspStatus::kBadArgument;
    ScaleLoop(a, s, out, count);
    return DspStatus::kOk;
}

DspStatus ComplexMultiply(const cf32* a, const cf32* b, cf32* out, int64_t count) noexcept {
    if (Bad(a, b, count) || Bad(a, out, count)) return DspStatus::kBadArgument;
    ComplexMultiplyLoop(F(a), F(b), F(out), count);
    return DspStatus::kOk;
}

DspStatus Power(const cf32* x, float* out, int64_t count) noexcept {
    if (Bad(x, out, count)) return DspStatus::kBadArgument;
    PowerLoop(F(x), out, count);
    return DspStatus::kOk;
}

DspStatus PowerDb(const cf32* x, float* out, int64_t count, float offsetDb) noexcept {
    if (Bad(x, out, count)) return DspStatus::kBadArgument;
    // Two passes over L1-sized pieces: the power loop and the dB loop each vectorise.
    constexpr int64_t kPiece = 1024;
    alignas(64) float power[kPiece];
    for (int64_t done = 0; done < count; done += kPiece) {
        const int64_t n = count - done < kPiece ? count - done : kPiece;
        PowerLoop(F(x + done), power, n);
        ToDbLoop(power, out + done, n, offsetDb);
    }
    return DspStatus::kOk;
}

DspStatus PowerToDb(const float* p, float* out, int64_t count, float offsetDb) noexcept {
    if (Bad(p, out, count)) return DspStatus::kBadArgument;
    ToDbLoop(p, out, count, offsetDb);
    return DspStatus::kOk;
}

namespace {

// The vector loops store 32 rows at a time; a tail shorter than that would
// run the scalar epilogue, which costs more than the body for the short
// spans of small FFTs. The tail therefore goes through a padded block.
constexpr int64_t kRowBlock = 32;

template <typename Loop>
void WithPaddedTail(const cf32* x, float* power, uint8_t* rows, int64_t count, Loop loop) {
    const int64_t body = count / kRowBlock * kRowBlock;
    if (body > 0) loop(F(x), power, rows, body);
    const int64_t rest = count - body;
    if (rest == 0) return;
    alignas(64) float xt[2 * kRowBlock] = {};
    alignas(64) float pt[kRowBlock];
    alignas(64) uint8_t rt[kRowBlock];
    std::memcpy(xt, x + body, sizeof(cf32) * static_cast<size_t>(rest));
    loop(xt, pt, rt, kRowBlock);
    std::memcpy(power + body, pt, sizeof(float) * static_cast<size_t>(rest));
    std::memcpy(rows + body, rt, static_cast<size_t>(rest));
}

} // namespace

DspStatus PowerAndRowsLog(const cf32* x, float* power, uint8_t* rows, int64_t count, float rowsPerDb,
                          float rowOffset) noexcept {
    if (Bad(x, power, count) || Bad(x, rows, count)) return DspStatus::kBadArgument;
    WithPaddedTail(x, power, rows, count, [&](const float* a, float* p, uint8_t* r, int64_t n) {
        PowerRowsLogLoop(a, p, r, n, rowsPerDb, rowOffset);
    });
    return DspStatus::kOk;
}

DspStatus PowerAndRowsLinear(const cf32* x, float* power, uint8_t* rows, int64_t count,
                             float rowsPerAmplitude) noexcept {
    if (Bad(x, power, count) || Bad(x, rows, count)) return DspStatus::kBadArgument;
    WithPaddedTail(x, power, rows, count, [&](const float* a, float* p, uint8_t* r, int64_t n) {
        PowerRowsLinearLoop(a, p, r, n, rowsPerAmplitude);
    });
    return DspStatus::kOk;
}

} // namespace lx::dsp
