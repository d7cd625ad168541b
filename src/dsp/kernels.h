// Vector kernels on sample blocks: conversion of raw device samples, element-wise
// products, power and power in dB.
//
// Valid argument ranges (for every function)
//   count >= 0; count == 0 does nothing. Pointers must hold `count` elements
//   (complex or float as named). A null pointer with count > 0, or a negative
//   count, answers kBadArgument and writes nothing.
//   Output may be the same array as an input (exactly, not shifted); other overlaps
//   are not allowed.
//
// Accuracy of the dB kernels: the logarithm is our own (exponent split plus an
// atanh series on a mantissa in [0.707, 1.414)). Against a double-precision
// 10*log10 the error stays within one ulp of the float result plus 2e-6 dB:
// measured 5.7e-6 dB at most for |result| < 100 dB and 2.3e-5 dB over the whole
// normal float range (where one ulp of a result beyond 256 dB is 3e-5 dB).
// Powers of zero, subnormal or negative powers read kPowerFloorDb (+ offset);
// NaN stays NaN; an infinite power reads +inf. (ln(p) * 4.342944622039795, as
// the sweep engine's dB is written, is 4.5e-8 of the value below 10 log10(p).)
#pragma once

#include <cstdint>

#include "dsp/dsp_status.h"

namespace lx::dsp {

// The device's DC offset in raw counts and the raw full-scale factor.
inline constexpr int kRawDcOffset = 576;
inline constexpr float kRawScale = 1.0f / 32768.0f;

// Below the smallest normal float power: far under any signal the instrument sees.
inline constexpr float kPowerFloorDb = -380.0f;

// dst[k] = (saturate16(I - 576) + j saturate16(Q - 576)) * 2^-15 for `count`
// interleaved I/Q pairs (2 * count int16 values).
DspStatus ConvertIq16(const int16_t* src, cf32* dst, int64_t count) noexcept;

// dst[k] = ConvertIq16(src)[k] * window[k]: conversion and a real window in one
// pass over the samples, for the streaming spectrum paths (about 1.2x the
// time of the conversion alone, against 2x for a separate window pass).
// src, window and dst must not overlap (the sizes differ: no in-place form).
DspStatus ConvertIq16Windowed(const int16_t* src, const float* window, cf32* dst, int64_t count) noexcept;

// out[k] = a[k] * b[k] on plain floats. Used with a window stored twice per
// sample (w0, w0, w1, w1, ...) to window complex data as 2 * count floats.
DspStatus MultiplyFloats(const float* a, const float* b, float* out, int64_t count) noexcept;

// out[k] = a[k] * s.
DspStatus ScaleFloats(const float* a, float s, float* out, int64_t count) noexcept;

// out[k] = a[k] * b[k], complex.
DspStatus ComplexMultiply(const cf32* a, const cf32* b, cf32* out, int64_t count) noexcept;

// out[k] = |x[k]|^2.
DspStatus Power(const cf32* x, float* out, int64_t count) noexcept;

// out[k] = 10 log10(|x[k]|^2) + offsetDb.
DspStatus PowerDb(const cf32* x, float* out, int64_t count, float offsetDb = 0.0f) noexcept;

// out[k] = 10 log10(p[k]) + offsetDb.
DspStatus PowerToDb(const float* p, float* out, int64_t count, float offsetDb = 0.0f) noexcept;

// Power and amplitude row of spectrum bins in one pass (density displays):
//   power[k] = |x[k]|^2 and rows[k] = clamp(round(10 log10(power[k]) * rowsPerDb + rowOffset), 0, 255)
// with a logarithm of its own (exponent split, polynomial on the mantissa,
// within 3e-7 dB: the row is the exact one unless the level lies within a
// few 1e-5 dB of a row boundary, where float rounding decides); a power below
// the smallest normal float (zero) lands in row 0.
DspStatus PowerAndRowsLog(const cf32* x, float* power, uint8_t* rows, int64_t count, float rowsPerDb,
                          float rowOffset) noexcept;
// The same with rows[k] = clamp(round(sqrt(power[k]) * rowsPerAmplitude), 0, 255).
DspStatus PowerAndRowsLinear(const cf32* x, float* power, uint8_t* rows, int64_t count,
                             float rowsPerAmplitude) noexcept;

} // namespace lx::dsp
