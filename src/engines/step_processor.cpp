#include "engines/step_processor.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "common/lx_assert.h"
#include "dsp/kernels.h"
#include "dsp/simd.h"

namespace lx::engines {

namespace {

// 50 ohm: mV = sqrt(P[mW] * 1e-3 * 50) * 1e3 = sqrt(P[mW]) * 223.6.
constexpr float kMilliVoltsPerSqrtMilliWatt = 223.6f;
// dBm -> mV: 10^((x + 46.9897) / 20).
constexpr double kDbmToMvOffset = 46.9897;

// The loops below take an input and an output that are either the same array
// or do not overlap.
LX_SQRT_CLONES void SqrtLoop(const float* in, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = std::sqrt(in[i]);
}

LX_DSP_CLONES void SquareLoop(const float* in, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = in[i] * in[i];
}

LX_DSP_CLONES void ScaleLoop(const float* in, float s, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = in[i] * s;
}

LX_DSP_CLONES void AddLoop(const float* in, float s, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = in[i] + s;
}

// out = 10^((in + 46.9897) / 20) * gain: dBm to mV into 50 ohm, as 2^t with
// t = (in + 46.9897) log2(10) / 20 in double. t is rounded to k by the
// 1.5 * 2^52 trick (no conversion to an integer: NaN stays defined and NaN),
// 2^(t - k) comes from its Taylor series to the 9th power (relative error
// under 3e-10 on [-1/2, 1/2]) and 2^k goes into the exponent bits. Inputs
// beyond +-6000 dB (inf included) are clamped there first, where the float
// result is already inf or 0; the clamp blends integer masks, since a float
// select keeps gcc from vectorising the loop. Written with exp() the loop ran
// scalar, one libm call per bin.
LX_DSP_CLONES void DbmToMilliVoltLoop(const float* in, float gain, float* out, int64_t n) {
    constexpr double kLog2TenOver20 = 0.16609640474436813;
    constexpr double kRound = 6755399441055744.0; // 1.5 * 2^52
    constexpr double kLn2 = 0.6931471805599453;
    constexpr uint32_t kLimit = 0x45bb8000u;      // 6000.0f
    for (int64_t i = 0; i < n; ++i) {
        const uint32_t b = std::bit_cast<uint32_t>(in[i]);
        const uint32_t mag = b & 0x7fffffffu;
        const uint32_t big = 0u - static_cast<uint32_t>(mag > kLimit && mag <= 0x7f800000u);
        const float x = std::bit_cast<float>((b & ~big) | (((b & 0x80000000u) | kLimit) & big));
        const double t = (static_cast<double>(x) + kDbmToMvOffset) * kLog2TenOver20;
        const double shifted = t + kRound;
        const double k = shifted - kRound;
        const double f = (t - k) * kLn2;
        const double p =
            1.0 + f * (1.0 + f * (1.0 / 2 + f * (1.0 / 6 + f * (1.0 / 24 + f * (1.0 / 120 + f * (1.0 / 720 +
            f * (1.0 / 5040 + f * (1.0 / 40320 + f * (1.0 / 362880)))))))));
        // The low bits of `shifted` hold k (two's complement); 1023 + k is the exponent.
        const uint64_t e = (std::bit_cast<uint64_t>(shifted) + 1023u) << 52;
        out[i] = static_cast<float>(p * std::bit_cast<double>(e) * static_cast<double>(gain));
    }
}

LX_DSP_CLONES void AccumulateLoop(double* __restrict sum, const float* __restrict s, int64_t n) {
    for (int64_t i = 0; i < n; ++i) sum[i] += static_cast<double>(s[i]);
}

LX_DSP_CLONES void StoreLoop(double* __restrict sum, const float* __restrict s, int64_t n) {
    for (int64_t i = 0; i < n; ++i) sum[i] = static_cast<double>(s[i]);
}

LX_DSP_CLONES void MeanLoop(const double* __restrict sum, double inv, float* __restrict out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = static_cast<float>(sum[i] * inv);
}

// a = a * (1 - w) + s * w
LX_DSP_CLONES void BlendLoop(float* __restrict a, const float* __restrict s, float keep, float w, int64_t n) {
    for (int64_t i = 0; i < n; ++i) a[i] = a[i] * keep + s[i] * w;
}

// a = a * (1 - r) + s * r, then min/max updated with a.
LX_DSP_CLONES void VideoLoop(float* __restrict a, const float* __restrict s, float keep, float r,
                             float* __restrict mn, float* __restrict mx, int64_t n) {
    for (int64_t i = 0; i < n; ++i) {
        const float v = a[i] * keep + s[i] * r;
        a[i] = v;
        mn[i] = v < mn[i] ? v : mn[i];
        mx[i] = v > mx[i] ? v : mx[i];
    }
}

} // namespace

bool StepConfigValid(const StepProcessorConfig& c) {
    return dsp::IsPowerOf2(c.fftSize) && c.fftSize >= 64 && c.fftSize <= dsp::kMaxFftSize &&
           c.windowLength >= 2 && c.windowLength <= c.fftSize && c.averageCount >= 1 && c.vbwRatio > 0.0 &&
           c.vbwRatio <= 1.0 && c.detector >= 0 && c.detector <= 1 && c.videoUnits >= 0 && c.videoUnits <= 3 &&
           c.scale >= 0 && c.scale <= 2 && c.windowType >= 0 && c.windowType <= 5;
}

StepProcessor::StepProcessor(const StepProcessorConfig& config)
    : config_(config),
      valid_(StepConfigValid(config)),
      // An invalid size builds an unusable FFT object without a report; the
      // configuration check above already said no.
      fft_(config.windowType, 0, valid_ ? config.fftSize : 64, valid_ ? config.fftSize - config.windowLength : 0) {
    if (!valid_) return;
    const int64_t n = config_.fftSize;
    spectrum_.resize(n);
    segment_.resize(n);
    min_.resize(n);
    max_.resize(n);
    if (config_.videoUnits != static_cast<int32_t>(VideoUnits::kSample)) {
        if (config_.detector == static_cast<int32_t>(Detector::kAverage)) {
            if (SegmentCount() > 1) sum_.resize(n);
        } else {
            video_.resize(n);
        }
    }
    valid_ = fft_.valid();
    Begin();
}

int64_t StepProcessor::SegmentCount() const noexcept {
    return config_.videoUnits == static_cast<int32_t>(VideoUnits::kSample) ? 1 : config_.averageCount;
}

int64_t StepProcessor::SamplesNeeded() const noexcept {
    return (SegmentCount() - 1) * static_cast<int64_t>(hop()) + config_.windowLength;
}

void StepProcessor::Begin() noexcept { Begin(0, config_.fftSize); }

void StepProcessor::Begin(int64_t keepFirst, int64_t keepCount) noexcept {
    const int64_t n = config_.fftSize;
    lo_ = std::clamp<int64_t>(keepFirst, 0, n);
    hi_ = std::clamp<int64_t>(keepFirst + std::max<int64_t>(keepCount, 0), lo_, n);
    taken_ = 0;
    weight_ = 1.0;
    tracing_ = false;
    if (!valid_) return;
    // The average's sum is stored by the first segment, and a step of one
    // segment keeps its spectrum where it is: nothing of theirs to clear.
    // The video filter starts from zero; min and max are the traces of a
    // Finish before any segment.
    if (config_.detector == static_cast<int32_t>(Detector::kAverage) &&
        config_.videoUnits != static_cast<int32_t>(VideoUnits::kSample))
        return;
    const auto clear = [&](auto& v) {
        if (v.size() > 0) std::fill(v.span().begin() + lo_, v.span().begin() + hi_, 0);
    };
    clear(min_);
    clear(max_);
    clear(video_);
}

void StepProcessor::SegmentSpectrum(const cf32* segment, float* out) noexcept {
    const int64_t half = config_.fftSize / 2;
    cf32* x = spectrum_.span().data();
    const dsp::DspStatus st = fft_.Transform(segment, x);
    LX_ASSERT_TEXT(st == dsp::DspStatus::kOk, "status == ippStsNoErr", "src/dsp");
    // FFT bins 0..N/2-1 are the upper half of the band: they go to outputs
    // N/2..N-1, so that output 0 is the lowest frequency. Only the kept
    // outputs [lo_, hi_) are formed.
    const bool db = config_.videoUnits == static_cast<int32_t>(VideoUnits::kLog);
    const auto power = [&](const cf32* from, float* to, int64_t count) {
        if (count <= 0) return;
        if (db)
            dsp::PowerDb(from, to, count);
        else
            dsp::Power(from, to, count);
    };
    const int64_t lowEnd = std::min(hi_, half);   // outputs [lo_, lowEnd) from FFT bins + half
    const int64_t highBegin = std::max(lo_, half); // outputs [highBegin, hi_) from FFT bins - half
    power(x + half + lo_, out + lo_, lowEnd - lo_);
    power(x + (highBegin - half), out + highBegin, hi_ - highBegin);
    if (config_.videoUnits == static_cast<int32_t>(VideoUnits::kVoltage)) SqrtLoop(out + lo_, out + lo_, hi_ - lo_);
}

void StepProcessor::AddSegment(const cf32* segment) noexcept {
    if (!valid_ || segment == nullptr || taken_ >= SegmentCount()) return;
    const int64_t lo = lo_, n = hi_ - lo_;
    if (config_.videoUnits == static_cast<int32_t>(VideoUnits::kSample)) {
        SegmentSpectrum(segment, min_.span().data());
        std::memcpy(max_.span().data() + lo, min_.span().data() + lo, sizeof(float) * static_cast<size_t>(n));
        ++taken_;
        return;
    }
    SegmentSpectrum(segment, segment_.span().data());
    const float* s = segment_.span().data() + lo;
    ++taken_;
    if (config_.detector == static_cast<int32_t>(Detector::kAverage)) {
        // One segment per step (VBW >= RBW): Finish takes segment_ as it is.
        if (SegmentCount() == 1) return;
        if (taken_ == 1)
            StoreLoop(sum_.span().data() + lo, s, n);
        else
            AccumulateLoop(sum_.span().data() + lo, s, n);
        return;
    }
    float* a = video_.span().data() + lo;
    const double r = config_.vbwRatio;
    if (weight_ > r) {
        // Warm-up: a plain running mean until its weight reaches the video
        // filter's; these segments never reach the traces.
        BlendLoop(a, s, static_cast<float>(1.0 - weight_), static_cast<float>(weight_), n);
        weight_ = 1.0 / static_cast<double>(taken_ + 1);
        return;
    }
    const float keep = static_cast<float>(1.0 - r);
    const float rf = static_cast<float>(r);
    if (!tracing_) {
        BlendLoop(a, s, keep, rf, n);
        std::memcpy(min_.span().data() + lo, a, sizeof(float) * static_cast<size_t>(n));
        std::memcpy(max_.span().data() + lo, a, sizeof(float) * static_cast<size_t>(n));
        tracing_ = true;
        return;
    }
    VideoLoop(a, s, keep, rf, min_.span().data() + lo, max_.span().data() + lo, n);
}

void StepProcessor::Finish(float gainDb, float* minOut, float* maxOut) noexcept {
    if (!valid_ || minOut == nullptr || maxOut == nullptr) return;
    const int64_t lo = lo_, n = hi_ - lo_;
    const size_t bytes = sizeof(float) * static_cast<size_t>(n);
    float* mn = minOut + lo;
    float* mx = maxOut + lo;
    if (config_.videoUnits != static_cast<int32_t>(VideoUnits::kSample) &&
        config_.detector == static_cast<int32_t>(Detector::kAverage)) {
        // One trace: converted once and copied.
        if (taken_ == 0) {
            std::fill(mn, mn + n, 0.0f);
            ConvertToScale(config_, gainDb, mn, n);
        } else if (SegmentCount() == 1) {
            ConvertToScale(config_, gainDb, segment_.span().data() + lo, mn, n);
        } else {
            MeanLoop(sum_.span().data() + lo, 1.0 / static_cast<double>(taken_), mn, n);
            ConvertToScale(config_, gainDb, mn, n);
        }
        std::memcpy(mx, mn, bytes);
        return;
    }
    std::memcpy(mn, min_.span().data() + lo, bytes);
    std::memcpy(mx, max_.span().data() + lo, bytes);
    ConvertToScale(config_, gainDb, mn, n);
    ConvertToScale(config_, gainDb, mx, n);
}

void StepProcessor::Process(const cf32* samples, float gainDb, float* minOut, float* maxOut) noexcept {
    Process(samples, gainDb, minOut, maxOut, 0, config_.fftSize);
}

void StepProcessor::Process(const cf32* samples, float gainDb, float* minOut, float* maxOut, int64_t keepFirst,
                            int64_t keepCount) noexcept {
    if (!valid_ || samples == nullptr) return;
    Begin(keepFirst, keepCount);
    const int64_t segments = SegmentCount();
    const int64_t h = hop();
    for (int64_t k = 0; k < segments; ++k) AddSegment(samples + k * h);
    Finish(gainDb, minOut, maxOut);
}

void StepProcessor::ConvertToScale(const StepProcessorConfig& c, float gainDb, float* v, int64_t n) noexcept {
    ConvertToScale(c, gainDb, v, v, n);
}

void StepProcessor::ConvertToScale(const StepProcessorConfig& c, float gainDb, const float* in, float* out,
                                   int64_t n) noexcept {
    if (in == nullptr || out == nullptr || n <= 0) return;
    const bool linear = c.scale == static_cast<int32_t>(Scale::kLinear);
    const bool gain = c.scale != static_cast<int32_t>(Scale::kLogNoStepGain);
    const float dbGain = gain ? gainDb : 0.0f;
    const float linGain = static_cast<float>(std::pow(10.0, static_cast<double>(gainDb) * 0.05));
    const auto copy = [&] {
        if (in != out) std::memcpy(out, in, sizeof(float) * static_cast<size_t>(n));
    };
    switch (static_cast<VideoUnits>(c.videoUnits)) {
    case VideoUnits::kLog:
        if (linear)
            DbmToMilliVoltLoop(in, linGain, out, n);
        else if (dbGain != 0.0f)
            AddLoop(in, dbGain, out, n);
        else
            copy();
        return;
    case VideoUnits::kVoltage:
        if (linear) {
            ScaleLoop(in, kMilliVoltsPerSqrtMilliWatt * linGain, out, n);
        } else {
            SquareLoop(in, out, n);
            dsp::PowerToDb(out, out, n, dbGain);
        }
        return;
    case VideoUnits::kPower:
    case VideoUnits::kSample:
        if (linear) {
            SqrtLoop(in, out, n);
            ScaleLoop(out, kMilliVoltsPerSqrtMilliWatt * linGain, out, n);
        } else {
            dsp::PowerToDb(in, out, n, dbGain);
        }
        return;
    }
    copy();
}

} // namespace lx::engines
