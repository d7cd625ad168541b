#include "engines/audio_engine.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
#include <vector>

#include "common/lx_assert.h"

namespace lx::engines {

namespace {

constexpr float kIfCutoffLimit = 0.49f;
// The IF low-pass is the windowed design whose -6 dB point is its cutoff, put
// at the band's edge: the outer kilohertz of the IF bandwidth is 3 to 6 dB
// down (FM at 5 kHz deviation in 15 kHz reaches about 30 dB SINAD; see
// docs/audio.md).
constexpr double kFmGainHz = 160000.0;
constexpr double kDeemphasisScale = 0.3275;
constexpr double kChebyshevRippleDb = 0.2;
constexpr double kStateReset = 0.1;
constexpr double kHilbertScale = 0.6366197723675394; // 2 / pi
constexpr float kPi = std::numbers::pi_v<float>;

// The decay factors of the AM mean and the sideband level, per sample.
// 2.71828 rather than e, as the analyzer's software has always had it.
const double kAmDecay = std::pow(2.71828, -1.5625e-5);
const double kLevelDecay = std::pow(2.71828, -1e-5);

// A state that no longer carries information starts again from 0.1: a
// non-finite one, and one that silence (an all-zero input) has let decay
// below any level a signal can have. Left there, the mean would get stuck
// in the denormals and the first samples of a returning carrier would come
// out 64000 times too loud.
double Renewed(double v) {
    return std::isfinite(v) && v >= std::numeric_limits<float>::min() ? v : kStateReset;
}

// |s[k]| in single precision.
void Magnitudes(const cf32* s, float* out, int n) {
    const float* f = reinterpret_cast<const float*>(s);
    for (int k = 0; k < n; ++k) out[k] = std::sqrt(f[2 * k] * f[2 * k] + f[2 * k + 1] * f[2 * k + 1]);
}

// A non-finite value (0 / 0 after a silent stretch) must not reach the
// filters: the high-pass would carry it forever.
void ZeroNonFinite(float* x, int n) {
    for (int k = 0; k < n; ++k) x[k] = std::isfinite(x[k]) ? x[k] : 0.0f;
}

std::vector<cf32> Design(int taps, double cutoff) {
    std::vector<cf32> h(static_cast<size_t>(taps));
    const bool ok = dsp::DesignFirLowPass(h.data(), taps, cutoff) == dsp::DspStatus::kOk;
    LX_ASSERT(ok, "src/engine_audio");
    return h;
}

void Check(dsp::DspStatus s) {
    if (s == dsp::DspStatus::kNoMemory) throw std::bad_alloc();
    const bool ok = s == dsp::DspStatus::kOk;
    LX_ASSERT(ok, "src/engine_audio");
}

} // namespace

AudioPlan PlanAudio(const AudioSettings& s) {
    AudioPlan p;
    p.settings = s;
    p.streamCentre = s.centre + (s.type == kAudioCw ? kAudioCwOffsetHz : 0.0);
    p.ifCutoff = 0.5f * static_cast<float>(s.ifBandwidth) / static_cast<float>(kAudioInputRateHz);
    if (p.ifCutoff >= 0.5f) p.ifCutoff = kIfCutoffLimit;
    p.lowPassCutoff = s.lowPass / kAudioInputRateHz;
    p.highPassCutoff = s.highPass / kAudioRateHz;
    p.deemphasisCutoff = kDeemphasisScale / s.deemphasisUs;
    return p;
}

void HilbertTaps(float* taps) {
    // (2 / pi) / m for odd m = n - 1023, unwindowed: its Gibbs ripple limits
    // the unwanted sideband to 25..35 dB down between 200 Hz and 1 kHz.
    for (int n = 0; n < kHilbertTaps; ++n) {
        const int m = n - kHilbertDelay;
        taps[n] = m % 2 == 0 ? 0.0f : static_cast<float>(kHilbertScale / m);
    }
}

// ---- demodulators ---------------------------------------------------------------

Demodulator::Demodulator(const AudioPlan& plan, int firMethod)
    : fmGain_(static_cast<float>(kFmGainHz / plan.settings.ifBandwidth)) {
    Check(deemphasis_.Design(plan.deemphasisCutoff, kChebyshevRippleDb, 1, dsp::kIirLowPass));
    std::vector<float> h(kHilbertTaps);
    HilbertTaps(h.data());
    std::vector<cf32> c(h.begin(), h.end());
    Check(hilbert_.Init(c.data(), kHilbertTaps, firMethod));
    hilbertIo_.resize(kAudioInputBlock);
}

void Demodulator::Run(int32_t type, const cf32* s, float* out) noexcept {
    switch (type) {
    case kAudioAm: Am(s, out); break;
    case kAudioFm: Fm(s, out); break;
    case kAudioUpper: Sideband(true, s, out); break;
    case kAudioLower:
    case kAudioCw: Sideband(false, s, out); break;
    default: break;
    }
}

// The carrier level follows the magnitude with a 133 ms time constant; the
// output is the envelope's relative deviation from it: the modulation.
void Demodulator::Am(const cf32* s, float* out) noexcept {
    Magnitudes(s, out, kAudioInputBlock);
    const double a = kAmDecay;
    double m = amMean_;
    for (int k = 0; k < kAudioInputBlock; ++k) {
        const double x = out[k];
        m = (1 - a) * x + a * m;
        out[k] = static_cast<float>((x - m) / m);
    }
    amMean_ = Renewed(m);
    ZeroNonFinite(out, kAudioInputBlock);
}

void Demodulator::Fm(const cf32* s, float* out) noexcept {
    const float* f = reinterpret_cast<const float*>(s);
    for (int k = 0; k < kAudioInputBlock; ++k) out[k] = std::atan2(f[2 * k + 1], f[2 * k]);
    float prev = fmPhase_;
    const float gain = fmGain_;
    for (int k = 0; k < kAudioInputBlock; ++k) {
        const float phase = out[k];
        float d = phase - prev;
        if (d > kPi)
            d -= 2 * kPi;
        else if (d < -kPi)
            d += 2 * kPi;
        out[k] = d * gain;
        prev = phase;
    }
    fmPhase_ = prev;
    deemphasis_.Run(out, out, kAudioInputBlock);
}

// Phasing method: I through the Hilbert filter (negated for the lower
// sideband) plus Q delayed by the filter's 1023 samples, over a level that
// jumps to every peak of 2|s| and decays with a 0.2 s time constant.
void Demodulator::Sideband(bool upper, const cf32* s, float* out) noexcept {
    constexpr int n = kAudioInputBlock;
    Magnitudes(s, out, n);
    const double b = kLevelDecay;
    double level = level_;
    for (int k = 0; k < n; ++k) {
        const double y = static_cast<float>(2 * out[k]);
        level = y > level ? y : (1 - b) * y + b * level;
    }
    level_ = Renewed(level);

    const float sign = upper ? 1.0f : -1.0f;
    const float* f = reinterpret_cast<const float*>(s);
    auto* io = reinterpret_cast<float*>(hilbertIo_.span().data());
    for (int k = 0; k < n; ++k) {
        io[2 * k] = sign * f[2 * k];
        io[2 * k + 1] = 0;
    }
    hilbert_.Run(hilbertIo_.span().data(), hilbertIo_.span().data(), n);
    const float inv = static_cast<float>(1.0 / level_);
    for (int k = 0; k < kHilbertDelay; ++k) out[k] = (delayed_[static_cast<size_t>(k)] + io[2 * k]) * inv;
    for (int k = kHilbertDelay; k < n; ++k) out[k] = (f[2 * (k - kHilbertDelay) + 1] + io[2 * k]) * inv;
    for (int k = 0; k < kHilbertDelay; ++k) delayed_[static_cast<size_t>(k)] = f[2 * (n - kHilbertDelay + k) + 1];
    ZeroNonFinite(out, n);
}

// ---- engine -------------------------------------------------------------------------

AudioChain::AudioChain(const AudioPlan& plan, int firMethod)
    : type_(plan.settings.type), demod_(plan, firMethod) {
    const auto ifTaps = Design(kAudioFirTaps, plan.ifCutoff);
    Check(ifFilter_.Init(ifTaps.data(), kAudioFirTaps, firMethod));
    const auto lpTaps = Design(kAudioFirTaps, plan.lowPassCutoff);
    Check(lowPass_.Init(lpTaps.data(), kAudioFirTaps, kAudioKeep, firMethod));
    Check(highPass_.Design(plan.highPassCutoff, kChebyshevRippleDb, 2, dsp::kIirHighPass));
    filtered_.resize(kAudioInputBlock);
    kept_.resize(kAudioBlock);
    demodulated_.resize(kAudioInputBlock);
}

void AudioChain::Process(const cf32* in, float* out) noexcept {
    cf32* work = filtered_.span().data();
    float* audio = demodulated_.span().data();
    ifFilter_.Run(in, work, kAudioInputBlock);
    demod_.Run(type_, work, audio);
    for (int k = 0; k < kAudioInputBlock; ++k) work[k] = cf32(audio[k], 0.0f);
    int64_t kept = 0;
    lowPass_.Run(work, kAudioInputBlock, kept_.span().data(), &kept);
    LX_ASSERT(kept == kAudioBlock, "src/engine_audio");
    const cf32* k16 = kept_.span().data();
    for (int k = 0; k < kAudioBlock; ++k) out[k] = k16[k].real();
    highPass_.Run(out, out, kAudioBlock);
}

AudioEngine::AudioEngine(std::unique_ptr<IqEngine> iq, const AudioPlan& plan)
    : plan_(plan), iq_(std::move(iq)), chain_(plan_) {
    input_.resize(kAudioInputBlock);
    ringStatus_.fill(lxNoError);
    workers_.SetStopHook([this] {
        iq_->Stop(); // a pending I/Q read returns
        std::lock_guard<std::mutex> lock(ringMutex_);
        stopped_ = true;
        ringCv_.notify_all();
    });
    workers_.Start("LX Audio Thread", ThreadPriority::AboveNormal, [this] { Worker(); });
}

AudioEngine::~AudioEngine() { Stop(); }

void AudioEngine::Stop() { workers_.Stop(); }

void AudioEngine::Worker() {
    cf32* in = input_.span().data();
    while (workers_.running()) {
        int32_t loss = 0;
        const LxStatus st = iq_->Read(in, kAudioInputBlock, nullptr, 0, nullptr, 0, &loss, nullptr);
        if (!workers_.running()) break;
        if (st < 0) {
            std::lock_guard<std::mutex> lock(ringMutex_);
            ended_ = st;
            ringCv_.notify_all();
            return;
        }
        chain_.Process(in, block_.data());
        const LxStatus warning = (loss != 0 || st == lxUncalData) ? lxUncalData : st;
        std::lock_guard<std::mutex> lock(ringMutex_);
        const size_t slot = static_cast<size_t>(written_ % kAudioRingBlocks);
        std::memcpy(ring_.data() + slot * kAudioBlock, block_.data(), sizeof(float) * kAudioBlock);
        ringStatus_[slot] = warning;
        ++written_;
        ringCv_.notify_all();
    }
}

LxStatus AudioEngine::WaitBlock() {
    std::unique_lock<std::mutex> lock(ringMutex_);
    ringCv_.wait(lock, [&] { return written_ > read_ || stopped_ || ended_ != lxNoError; });
    if (written_ > read_) return lxNoError; // what was made before an end is still delivered
    return ended_ != lxNoError ? ended_ : lxInvalidConfigurationErr;
}

bool AudioEngine::TakeBlock(float* dst, LxStatus* status) {
    std::lock_guard<std::mutex> lock(ringMutex_);
    if (written_ == read_) return false;
    bool lapped = false;
    if (written_ - read_ > kAudioRingBlocks) {
        read_ = written_ - kAudioRingBlocks;
        lapped = true;
    }
    const size_t slot = static_cast<size_t>(read_ % kAudioRingBlocks);
    std::memcpy(dst, ring_.data() + slot * kAudioBlock, sizeof(float) * kAudioBlock);
    *status = lapped ? lxUncalData : ringStatus_[slot];
    ++read_;
    return true;
}

// ---- set-up -----------------------------------------------------------------------------

LxStatus SetupAudio(Device& dev) {
    const AudioPlan plan = PlanAudio(dev.audio);
    IqSettings s = dev.iq;
    s.centre = plan.streamCentre;
    s.decimation = kAudioDecimation;
    s.bandwidth = kAudioIqBandwidthHz;
    s.dataType = 0;
    s.softwareFilter = true;
    LxStatus status = lxNoError;
    std::unique_ptr<IqEngine> iq = StartIqStream(dev, s, &status);
    if (!iq) return status;
    try {
        dev.engines[kAudioEngine] = std::make_shared<AudioEngine>(std::move(iq), plan);
    } catch (...) {
        dev.ReleaseTransport(); // the I/Q engine is gone with its claim
        throw;
    }
    return lxNoError;
}

} // namespace lx::engines
