#include "sim/synthesis.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <random>

#include "sim/front_end.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace lx::sim {

namespace {

constexpr uint32_t kNoiseEntries = 1u << 18;
constexpr int kN = kIqPacketSamples;
constexpr int kLanes = 16; // tone recurrence runs this many phasors side by side

// Separate I and Q arrays, padded by one packet so that a packet read at any
// offset below kNoiseEntries never wraps.
struct NoiseTable {
    std::vector<float> re, im;
    NoiseTable() : re(kNoiseEntries + kN), im(kNoiseEntries + kN) {
        std::mt19937_64 rng(0x4C583533305EEDULL);
        std::normal_distribution<float> g(0.0f, std::numbers::sqrt2_v<float> / 2.0f);
        for (uint32_t i = 0; i < kNoiseEntries; ++i) {
            re[i] = g(rng);
            im[i] = g(rng);
        }
        std::copy_n(re.begin(), kN, re.begin() + kNoiseEntries);
        std::copy_n(im.begin(), kN, im.begin() + kNoiseEntries);
    }
};

const NoiseTable& Noise() {
    static const NoiseTable table;
    return table;
}

void AddTone(const ToneComponent& t, uint64_t firstSample, float* __restrict re, float* __restrict im) {
    // Start phase from the absolute index in extended precision: a recurrence
    // carried across packets would drift; this restarts exact every packet.
    long double start = static_cast<long double>(t.cyclesPerSample) * static_cast<long double>(firstSample) +
                        t.phaseCycles;
    start -= std::floor(start);
    const double w = 2.0 * std::numbers::pi * t.cyclesPerSample;
    float pr[kLanes], pi[kLanes];
    for (int l = 0; l < kLanes; ++l) {
        const double ph = 2.0 * std::numbers::pi * static_cast<double>(start) + w * l;
        pr[l] = static_cast<float>(t.amplitude * std::cos(ph));
        pi[l] = static_cast<float>(t.amplitude * std::sin(ph));
    }
    const float sr = static_cast<float>(std::cos(w * kLanes));
    const float si = static_cast<float>(std::sin(w * kLanes));
    for (int k = 0; k < kN; k += kLanes) {
        for (int l = 0; l < kLanes; ++l) {
            re[k + l] += pr[l];
            im[k + l] += pi[l];
            const float nr = pr[l] * sr - pi[l] * si;
            const float ni = pr[l] * si + pi[l] * sr;
            pr[l] = nr;
            pi[l] = ni;
        }
    }
}

// Full scale, DC offset, rounding, saturation and clip detection.
bool Quantise(const float* __restrict re, const float* __restrict im, int16_t* __restrict out) {
    constexpr float kScale = static_cast<float>(fe::kFullScaleCounts);
    constexpr float kOffset = static_cast<float>(fe::kDcOffsetCounts);
#if defined(__SSE2__)
    const __m128 scale = _mm_set1_ps(kScale), offset = _mm_set1_ps(kOffset);
    const __m128 hi = _mm_set1_ps(32767.5f), lo = _mm_set1_ps(-32768.5f);
    __m128 clip = _mm_setzero_ps();
    for (int i = 0; i < kN; i += 8) {
        const __m128 r0 = _mm_add_ps(_mm_mul_ps(_mm_load_ps(re + i), scale), offset);
        const __m128 r1 = _mm_add_ps(_mm_mul_ps(_mm_load_ps(re + i + 4), scale), offset);
        const __m128 i0 = _mm_add_ps(_mm_mul_ps(_mm_load_ps(im + i), scale), offset);
        const __m128 i1 = _mm_add_ps(_mm_mul_ps(_mm_load_ps(im + i + 4), scale), offset);
        clip = _mm_or_ps(clip, _mm_or_ps(_mm_cmpge_ps(r0, hi), _mm_cmple_ps(r0, lo)));
        clip = _mm_or_ps(clip, _mm_or_ps(_mm_cmpge_ps(r1, hi), _mm_cmple_ps(r1, lo)));
        clip = _mm_or_ps(clip, _mm_or_ps(_mm_cmpge_ps(i0, hi), _mm_cmple_ps(i0, lo)));
        clip = _mm_or_ps(clip, _mm_or_ps(_mm_cmpge_ps(i1, hi), _mm_cmple_ps(i1, lo)));
        // cvtps rounds to nearest even; packs saturates to the 16-bit range
        // (a float beyond the 32-bit range converts to INT_MIN, so clamp first).
        const __m128 bigHi = _mm_set1_ps(1e9f), bigLo = _mm_set1_ps(-1e9f);
        const __m128i ri = _mm_packs_epi32(_mm_cvtps_epi32(_mm_max_ps(_mm_min_ps(r0, bigHi), bigLo)),
                                           _mm_cvtps_epi32(_mm_max_ps(_mm_min_ps(r1, bigHi), bigLo)));
        const __m128i ii = _mm_packs_epi32(_mm_cvtps_epi32(_mm_max_ps(_mm_min_ps(i0, bigHi), bigLo)),
                                           _mm_cvtps_epi32(_mm_max_ps(_mm_min_ps(i1, bigHi), bigLo)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * i), _mm_unpacklo_epi16(ri, ii));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * i + 8), _mm_unpackhi_epi16(ri, ii));
    }
    return _mm_movemask_ps(clip) != 0;
#else
    bool clipped = false;
    for (int i = 0; i < kN; ++i) {
        const float v[2] = {re[i] * kScale + kOffset, im[i] * kScale + kOffset};
        for (int c = 0; c < 2; ++c) {
            float x = v[c];
            if (!(x < 32767.5f) || !(x > -32768.5f)) clipped = true;
            x = std::clamp(x, -32768.0f, 32767.0f);
            out[2 * i + c] = static_cast<int16_t>(std::nearbyint(x));
        }
    }
    return clipped;
#endif
}

} // namespace

uint32_t NoiseTableSize() { return kNoiseEntries; }

bool RenderIqPacket(const RenderPlan& plan, uint64_t firstSample, uint32_t noiseOffset, int16_t* out) {
    alignas(64) float re[kN];
    alignas(64) float im[kN];
    const NoiseTable& noise = Noise();
    const uint32_t o = noiseOffset % kNoiseEntries;
    const float* __restrict nr = noise.re.data() + o;
    const float* __restrict ni = noise.im.data() + o;
    const float s = plan.noiseSigma;
    for (int i = 0; i < kN; ++i) {
        re[i] = s * nr[i];
        im[i] = s * ni[i];
    }
    for (const ToneComponent& t : plan.tones) AddTone(t, firstSample, re, im);
    return Quantise(re, im, out);
}

} // namespace lx::sim
