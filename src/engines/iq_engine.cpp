#include "engines/iq_engine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <span>
#include <thread>

#include "common/lx_assert.h"
#include "dsp/fft.h"
#include "dsp/kernels.h"
#include "engines/sweep_engine.h"
#include "engines/sweep_support.h"
#include "gps/gps_state.h"
#include "lx_command/encoders.h"
#include "lx_command/status_packet.h"
#include "usb/usb_transport.h"

namespace lx::engines {

namespace {

std::atomic<double> g_triggerSentinel{0.0};

int32_t Log2(int32_t v) {
    int32_t k = 0;
    while ((1 << (k + 1)) <= v) ++k;
    return k;
}

constexpr double kStage2InputHz = 15.36e6;
constexpr double kStage3InputHz = 960000.0;
constexpr int32_t kStage2MaxFactor = 16;
// Status word bits the reader reports as warnings.
constexpr uint32_t kOverflowBit = kAuxStatusAdcOverflow;
constexpr uint32_t kLossBit = kAuxStatusDataLoss;

std::vector<cf32> LowPass(int taps, double cutoff) {
    std::vector<cf32> h(static_cast<size_t>(taps));
    const bool ok = dsp::DesignFirLowPass(h.data(), taps, cutoff) == dsp::DspStatus::kOk;
    LX_ASSERT(ok, "src/engines");
    return h;
}

} // namespace

double IqTriggerSentinel() { return g_triggerSentinel.load(); }
void SetIqTriggerSentinel(double value) { g_triggerSentinel.store(value); }

int IqStageTaps(int32_t factor) {
    switch (factor) {
    case 2: return 257;
    case 4: return 513;
    case 8: return 1025;
    default: return 2049;
    }
}

uint32_t IqPlan::CaptureCode() const { return static_cast<uint32_t>(Log2(d1)) + 1; }

int64_t IqPlan::SettleOutputs() const {
    if (stage1Taps > 0) return stage1Taps - 1;
    if (stage2Taps == 0) return 0;
    const int64_t after2 = (stage2Taps - 1 + stage2 - 1) / stage2;
    return stage3Taps > 0 ? (after2 + stage3Taps - 1 + stage3 - 1) / stage3 : after2;
}

double IqPlan::ShiftCyclesPerSample() const {
    return -(centre - capture.captureCentreHz) / (kAdcSampleRateHz / d1);
}

IqPlan PlanIq(const IqSettings& s, int32_t attenuatorSetting, double refLevelDbm) {
    IqPlan p;
    p.centre = s.centre;
    p.decimation = s.decimation;
    p.softwareFilter = s.softwareFilter;
    p.dataType = s.dataType;
    p.queueSize = std::clamp(s.queueSize, 2, 16);
    p.triggerEdge = static_cast<uint32_t>(s.triggerEdge);
    const int32_t D = p.decimation;
    p.sampleRate = kAdcSampleRateHz / D;
    const double maxBw = D == 1 ? kIqMaxBandwidthD1Hz : kIqBandwidthLimitHz / D;
    p.bandwidth = std::clamp(s.bandwidth, kIqMinBandwidthHz, maxBw);
    p.attenuation = SweepAttenuation(attenuatorSetting, refLevelDbm);
    p.capture = PlanCapture(p.centre);

    LX_ASSERT(dsp::IsPowerOf2(D), "src/lx_lib");
    p.d1 = std::min(D, 4);
    LX_ASSERT(dsp::IsPowerOf2(p.d1), "src/lx_lib");
    p.host = D >= 5 ? D / 4 : 1;
    p.stage2 = std::min(p.host, kStage2MaxFactor);
    p.stage3 = p.host > kStage2MaxFactor ? p.host / kStage2MaxFactor : 1;
    p.packets = 64 / p.d1 - 1;
    p.blockSamples = int64_t{p.packets} * kSamplesPerPacket;
    p.nsPerSample = 1e9 / p.sampleRate;
    p.groupDelay = 0;
    if (D <= 4) {
        if (p.softwareFilter) {
            p.stage1Taps = kIqSingleStageTaps;
            p.stage1Cutoff = 0.5 * p.bandwidth / p.sampleRate;
            p.groupDelay += (kIqSingleStageTaps - 1) / 2 * D;
        }
    } else {
        p.stage2Taps = IqStageTaps(p.stage2);
        p.stage2Cutoff = p.stage3 > 1 ? kIqStage3Stage2Cutoff : 0.5 * p.bandwidth / kStage2InputHz;
        p.groupDelay += (p.stage2Taps - 1) / 2 * 4.0;
        if (p.stage3 > 1) {
            p.stage3Taps = IqStageTaps(p.stage3);
            p.stage3Cutoff = 0.5 * p.bandwidth / kStage3InputHz;
            p.groupDelay += (p.stage3Taps - 1) / 2 * 4.0 * p.stage2;
        }
    }
    return p;
}

void FillIqCorrection(IqPlan& p, const uint8_t* cal, CalBracket bracket) {
    p.correction = BuildStepCorrection(cal, bracket, p.capture.step, p.capture.fineCell);
    p.correctionDb = StepGainDb(cal, bracket, p.attenuation, p.capture.step, p.correction);
    p.ifLevel = StepIfLevel(cal, p.capture.step);
}

CommandList BuildIqSetupCommands(const IqPlan& p, TuningState& tuning) {
    CommandList list;
    list.BeginBlock();
    uint32_t words[kTuneMaxWords];
    const uint32_t gainField = static_cast<uint32_t>(p.attenuation) * 5;
    const int count = EncodePlanTune(tuning, words, p.capture, p.ifLevel, gainField, kTuneValue2A);
    for (int i = 0; i < count; ++i) list.Push(words[i]);
    EncodeFilterTaps(list, p.correction.taps);
    EncodeCaptureControl(list, p.CaptureCode());
    list.Push(TriggerEdgeWord(p.triggerEdge));
    return list;
}

// ---- sample store -------------------------------------------------------------------

IqSampleStore::IqSampleStore(int64_t capacity, double nsPerSample, int64_t settle)
    : capacity_(std::max<int64_t>(capacity, 1)), nsPerSample_(nsPerSample), settle_(std::max<int64_t>(settle, 0)),
      ring_(capacity_) {
    triggers_.reserve(1024);
    gaps_.reserve(1024);
    stamps_.reserve(kMaxStoredBlocks);
}

void IqSampleStore::EmptyLocked() {
    readIndex_ += available_;
    write_ = read_ = available_ = 0;
    triggers_.clear();
    gaps_.clear();
    stamps_.clear();
}

int64_t IqSampleStore::Put(const cf32* x, int64_t n, double triggerAt, int64_t stamp, Loss loss) {
    std::lock_guard<std::mutex> lock(mutex_);
    int64_t dropped = 0;
    if (available_ + n >= capacity_) {
        dropped = available_;
        EmptyLocked();
        gaps_.push_back({readIndex_, readIndex_});
        if (n >= capacity_) { // a block longer than the store (D = 8192 holds 3750)
            dropped += n - (capacity_ - 1);
            x += n - (capacity_ - 1);
            stamp += static_cast<int64_t>(std::floor((n - (capacity_ - 1)) * nsPerSample_ + 0.5));
            triggerAt -= static_cast<double>(n - (capacity_ - 1));
            n = capacity_ - 1;
        }
    }
    // The lists never grow while streaming: beyond 1024 pending entries (a
    // reader half a second behind a trigger every block) the rest go unlisted.
    const int64_t at = readIndex_ + available_;
    if (loss != Loss::None && gaps_.size() < gaps_.capacity()) {
        // The filters' memory carries the gap `settle` samples further.
        const int64_t spoiled = loss == Loss::Within ? n + settle_ : std::max<int64_t>(settle_, 1);
        gaps_.push_back({at, at + spoiled - 1});
    }
    cf32* ring = ring_.data();
    const int64_t first = std::min(n, capacity_ - write_);
    std::memcpy(static_cast<void*>(ring + write_), x, sizeof(cf32) * static_cast<size_t>(first));
    std::memcpy(static_cast<void*>(ring), x + first, sizeof(cf32) * static_cast<size_t>(n - first));
    write_ = (write_ + n) % capacity_;
    if (triggerAt >= 0 && triggers_.size() < triggers_.capacity())
        triggers_.push_back(static_cast<double>(readIndex_ + available_) + triggerAt);
    // Blocks are at least a few samples long, so the list stays short (about
    // 250 at any rate); should it fill, the oldest block is dated from the next.
    if (stamps_.size() == kMaxStoredBlocks) stamps_.erase(stamps_.begin());
    stamps_.emplace_back(at, stamp);
    available_ += n;
    return dropped;
}

void IqSampleStore::Purge() {
    std::lock_guard<std::mutex> lock(mutex_);
    EmptyLocked();
}

int64_t IqSampleStore::Available() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return available_;
}

namespace {

// Float to int16 with rounding to nearest and saturation, x 2^15.
void ToInt16(const cf32* src, int16_t* dst, int64_t n) {
    const float* f = reinterpret_cast<const float*>(src);
    for (int64_t i = 0; i < 2 * n; ++i) {
        const float v = std::nearbyint(f[i] * 32768.0f);
        dst[i] = static_cast<int16_t>(std::clamp(v, -32768.0f, 32767.0f));
    }
}

} // namespace

IqSampleStore::Taken IqSampleStore::Take(void* dst, int64_t max, bool int16, int64_t base, double* triggers, int32_t m,
                                         int32_t* written) {
    std::lock_guard<std::mutex> lock(mutex_);
    Taken t;
    if (available_ == 0 || max <= 0) return t;
    const int64_t n = std::min(max, available_);
    t.count = n;
    // The block this read starts in (the first listed when it has gone).
    auto block = std::upper_bound(stamps_.begin(), stamps_.end(), readIndex_,
                                  [](int64_t v, const std::pair<int64_t, int64_t>& b) { return v < b.first; });
    if (block != stamps_.begin()) --block;
    t.stamp = block->second + static_cast<int64_t>(std::floor(static_cast<double>(readIndex_ - block->first) * nsPerSample_ + 0.5));
    const cf32* ring = ring_.data();
    const int64_t first = std::min(n, capacity_ - read_);
    if (int16) {
        auto* out = static_cast<int16_t*>(dst);
        ToInt16(ring + read_, out, first);
        ToInt16(ring, out + 2 * first, n - first);
    } else {
        auto* out = static_cast<cf32*>(dst);
        std::memcpy(static_cast<void*>(out), ring + read_, sizeof(cf32) * static_cast<size_t>(first));
        std::memcpy(static_cast<void*>(out + first), ring, sizeof(cf32) * static_cast<size_t>(n - first));
    }
    // Ranges this read reaches into are reported; those it reaches past go.
    const int64_t last = readIndex_ + n - 1;
    size_t done = 0;
    for (const auto& [from, to] : gaps_) {
        if (from > last) break;
        t.gap = true;
        if (to <= last) ++done;
    }
    gaps_.erase(gaps_.begin(), gaps_.begin() + static_cast<std::ptrdiff_t>(done));
    const double end = static_cast<double>(readIndex_ + n);
    size_t used = 0;
    while (used < triggers_.size() && triggers_[used] < end) {
        if (triggers && *written < m) triggers[(*written)++] = static_cast<double>(base) + (triggers_[used] - readIndex_);
        ++used;
    }
    triggers_.erase(triggers_.begin(), triggers_.begin() + static_cast<std::ptrdiff_t>(used));
    read_ = (read_ + n) % capacity_;
    available_ -= n;
    readIndex_ += n;
    // Blocks wholly read go; the one the next read starts in stays.
    size_t gone = 0;
    while (gone + 1 < stamps_.size() && stamps_[gone + 1].first <= readIndex_) ++gone;
    stamps_.erase(stamps_.begin(), stamps_.begin() + static_cast<std::ptrdiff_t>(gone));
    return t;
}

// ---- engine ---------------------------------------------------------------------------

IqEngine::IqEngine(Device& device, IqPlan plan, const CommandList& setup)
    : device_(device),
      plan_(std::move(plan)),
      scale_(static_cast<float>(std::sqrt(std::pow(10.0, plan_.correctionDb / 10.0)))),
      shifter_(plan_.ShiftCyclesPerSample(), static_cast<int>(plan_.blockSamples), plan_.d1 >= 4 ? 1 : 0),
      ring_(2 * plan_.blockSamples * kIqRingSlots),
      temperature_(device.temperature),
      store_(plan_.StoreCapacity(), plan_.nsPerSample, plan_.SettleOutputs()) {
    const int64_t B = plan_.blockSamples;
    request_.BeginBlock();
    EncodeTransferRequest(request_, static_cast<uint32_t>(plan_.packets), 1);
    input_.resize(B);
    workA_.resize(B);
    workB_.resize(B);
    if (plan_.stage1Taps > 0) {
        const auto h = LowPass(plan_.stage1Taps, plan_.stage1Cutoff);
        const bool ok = fir1_.Init(h.data(), plan_.stage1Taps) == dsp::DspStatus::kOk;
        LX_ASSERT(ok, "src/engines");
    }
    if (plan_.stage2Taps > 0) {
        const auto h = LowPass(plan_.stage2Taps, plan_.stage2Cutoff);
        const bool ok = fir2_.Init(h.data(), plan_.stage2Taps, plan_.stage2) == dsp::DspStatus::kOk;
        LX_ASSERT(ok, "src/engines");
    }
    if (plan_.stage3Taps > 0) {
        const auto h = LowPass(plan_.stage3Taps, plan_.stage3Cutoff);
        const bool ok = fir3_.Init(h.data(), plan_.stage3Taps, plan_.stage3) == dsp::DspStatus::kOk;
        LX_ASSERT(ok, "src/engines");
    }
    slotTrigger_.fill(-1.0);
    device_.Transport().SetFramingError(false);

    workers_.AddWakeEvent(&blockReady_);
    workers_.AddWakeEvent(&dataReady_);
    workers_.SetStopHook([this] { filled_.store(kIqRingSlots); });
    // The acquisition thread drives the transport until the engine is
    // stopped; housekeeping calls answer from the last status packet meanwhile.
    device_.ClaimTransport();
    // Everything slow (filter design, FFT plans, the populated store) is done:
    // tune and start the capture now, and the first request follows at once.
    if (!setup.Words().empty() && !device_.Transport().Send(setup)) return; // the set-up reports the link status
    workers_.Start(plan_.decimation <= 4 ? "LX IQ Filter Thread" : "LX IQ DS and Filter Thread",
                   ThreadPriority::AboveNormal, [this] { FilterThread(); });
    workers_.Start("LX IQ Acquisition Thread", ThreadPriority::TimeCritical, [this] { AcquisitionThread(); });
}

IqEngine::~IqEngine() {
    Stop();
    device_.hwDecimation = 1;
    device_.sampleOffset = 0;
}

void IqEngine::Stop() { workers_.Stop(); }

void IqEngine::AcquisitionThread() {
    usb::UsbTransport& link = device_.Transport();
    const int K = plan_.queueSize;
    const uint32_t readBytes = static_cast<uint32_t>(plan_.packets + 1) * kBytesPerPacket;
    const std::span<const uint32_t> block(request_.Words().data(), CMD_SIZE_WORDS);
    std::vector<bool> queued(static_cast<size_t>(K), false);
    auto queue = [&](int i) {
        const bool r = link.BeginRead(i, readBytes, kTransferTimeoutMs);
        const bool w = r && link.BeginWrite(i, block, kTransferTimeoutMs);
        if (r && !w) link.FinishRead(i); // never leave a read behind without its request
        queued[static_cast<size_t>(i)] = r && w;
        // Only a link without a device refuses a transfer: it is lost.
        if (!(r && w) && link.LinkStatus() == lxNoError) link.SetLinkStatus(lxConnectionLostErr);
    };
    for (int i = 0; i < K; ++i) queue(i);

    int i = 0;
    while (workers_.running()) {
        bool ok = queued[static_cast<size_t>(i)];
        if (ok) {
            const usb::TransferResult r = link.FinishRead(i);
            const usb::TransferResult w = link.FinishWrite(i);
            queued[static_cast<size_t>(i)] = false;
            ok = !r.timedOut && !w.timedOut && r.transferred == readBytes && r.buffer != nullptr;
            if (ok && workers_.running()) ProcessBlock(r.buffer);
        }
        if (!ok) {
            StreamHealth::Add(device_.health.transportErrors, 1);
            dataReady_.Set(); // a reader waiting for samples looks at the link
            std::this_thread::sleep_for(std::chrono::milliseconds(kIqPauseAfterFailureMs));
        }
        if (workers_.running()) queue(i);
        i = (i + 1) % K;
    }

    // End of stream: the device still answers what was asked for; take it all
    // so the next user of the link finds nothing stale.
    CommandList stop;
    EncodeStopBlock(stop);
    const int stopSlot = K;
    if (link.BeginWrite(stopSlot, std::span<const uint32_t>(stop.Words()).last(CMD_SIZE_WORDS), kTransferTimeoutMs))
        link.FinishWrite(stopSlot);
    for (int n = 0; n < K; ++n, i = (i + 1) % K) {
        if (!queued[static_cast<size_t>(i)]) continue;
        link.FinishRead(i);
        link.FinishWrite(i);
    }
}

void IqEngine::ProcessBlock(const uint8_t* data) {
    usb::UsbTransport& link = device_.Transport();
    const int64_t B = plan_.blockSamples;
    const uint8_t* rec = data + static_cast<size_t>(plan_.packets) * kBytesPerPacket;
    double trigger = -1.0;
    bool deviceLoss = false;
    IqSampleStore::Loss loss = IqSampleStore::Loss::None;
    int64_t stamp;
    if (HasAuxMagic(rec)) {
        const uint32_t word = AuxRead<uint32_t>(rec, kAuxStatusWordOffset);
        if (word & kOverflowBit) overflowSeen_.store(true);
        // The sample counter runs on with the ADC whether or not the host asks:
        // a block that does not follow the last one tick for tick has samples
        // missing before it, reported or not.
        const uint64_t tick = AuxRead<uint64_t>(rec, kAuxSampleCounterOffset);
        const uint64_t blockTicks = 2ULL * static_cast<uint64_t>(plan_.d1) * static_cast<uint64_t>(B);
        const bool jumped = haveTick_ && tick != lastTick_ + blockTicks;
        // The shift stays locked to the device's timeline across samples it
        // skipped: after a gap a tone keeps its phase against the stamps.
        if (jumped && tick > lastTick_ + blockTicks)
            pendingSkip_ += static_cast<int64_t>((tick - lastTick_ - blockTicks) / (2ULL * static_cast<uint64_t>(plan_.d1)));
        lastTick_ = tick;
        haveTick_ = true;
        deviceLoss = (word & kLossBit) != 0 || jumped;
        // A jump puts the gap before the block; the bit alone says samples
        // went somewhere before or in it.
        if (deviceLoss) loss = jumped ? IqSampleStore::Loss::Before : IqSampleStore::Loss::Within;
        if (deviceLoss) lossSeen_.store(true);
        device_.health.TakeStatusWord(jumped ? word | kLossBit : word, kOverflowBit, kLossBit);
        temperature_.store(TemperatureFromWord(AuxRead<uint16_t>(rec, kAuxTemperatureOffset)));
        const int64_t deviceNs = gps::TakeStatusPacket(device_.gps, GpsFieldsOf(rec), plan_.d1, gps::HostNowNs());
        const double twoG = 2.0 * plan_.groupDelay;
        stamp = static_cast<int64_t>(-twoG * gps::kNsPerTick) -
                static_cast<int64_t>(2.0 * plan_.d1 * static_cast<double>(B) * gps::kNsPerTick) + deviceNs;
        if (AuxRead<uint32_t>(rec, kAuxTriggerFlagsOffset) & kAuxTriggerExternal) {
            const double t = AuxRead<uint32_t>(rec, kAuxTriggerPositionOffset);
            trigger = (twoG + t) / (2.0 * plan_.decimation);
        }
    } else {
        link.SetFramingError(true);
        // No time from this packet: the block follows the last one.
        stamp = lastStamp_ + static_cast<int64_t>(std::floor(static_cast<double>(B) * 2.0 * plan_.d1 * gps::kNsPerTick + 0.5));
    }
    lastStamp_ = stamp;

    if (filled_.load(std::memory_order_acquire) >= kIqRingSlots) {
        // The filters are a whole ring behind: this block is lost. The gap
        // lies behind the blocks still in the ring, before the next one that
        // gets in: that one carries it to the store.
        StreamHealth::Add(device_.health.samplesDropped, static_cast<uint64_t>(plan_.OutputsPerBlock()));
        pendingSkip_ += B;
        pendingLoss_ = IqSampleStore::Loss::Before;
        return;
    }
    loss = std::max(loss, pendingLoss_); // Within wins: it covers the start too
    pendingLoss_ = IqSampleStore::Loss::None;
    // Raw: the copy is all the time-critical thread spends on the samples.
    std::memcpy(ring_.data() + static_cast<int64_t>(write_) * 2 * B, data, sizeof(int16_t) * 2 * static_cast<size_t>(B));
    slotTrigger_[static_cast<size_t>(write_)] = trigger;
    slotLoss_[static_cast<size_t>(write_)] = loss;
    slotStamp_[static_cast<size_t>(write_)] = stamp;
    slotSkip_[static_cast<size_t>(write_)] = pendingSkip_;
    pendingSkip_ = 0;
    filled_.fetch_add(1, std::memory_order_acq_rel);
    blockReady_.Set();
    write_ = (write_ + 1) % kIqRingSlots;
}

cf32* IqEngine::ConvertSlot(int r) {
    const int64_t B = plan_.blockSamples;
    cf32* x = input_.span().data();
    if (const int64_t skip = slotSkip_[static_cast<size_t>(r)]; skip > 0) shifter_.Skip(skip);
    dsp::ConvertIq16(ring_.data() + static_cast<int64_t>(r) * 2 * B, x, B);
    if (plan_.capture.mirrored) {
        // Band 0 delivers RF F at C - F: the conjugate puts it right side up.
        auto* f = reinterpret_cast<float*>(x);
        for (int64_t k = 0; k < B; ++k) f[2 * k + 1] = -f[2 * k + 1];
    }
    shifter_.Shift(x, x, B);
    return x;
}

void IqEngine::FilterThread() {
    const int64_t B = plan_.blockSamples;
    int r = 0;
    for (;;) {
        while (workers_.running() && filled_.load(std::memory_order_acquire) == 0) blockReady_.Wait();
        if (!workers_.running()) return;
        cf32* in = ConvertSlot(r);
        const cf32* out = in;
        int64_t n = B;
        if (plan_.stage1Taps > 0) {
            fir1_.Run(in, workA_.span().data(), B);
            out = workA_.span().data();
        } else if (plan_.stage2Taps > 0) {
            fir2_.Run(in, B, workA_.span().data(), &n);
            out = workA_.span().data();
            if (plan_.stage3Taps > 0) {
                int64_t n3 = 0;
                fir3_.Run(workA_.span().data(), n, workB_.span().data(), &n3);
                n = n3;
                out = workB_.span().data();
            }
        }
        const int64_t dropped =
            store_.Put(out, n, slotTrigger_[static_cast<size_t>(r)], slotStamp_[static_cast<size_t>(r)],
                       slotLoss_[static_cast<size_t>(r)]);
        if (dropped > 0) StreamHealth::Add(device_.health.samplesDropped, static_cast<uint64_t>(dropped));
        dataReady_.Set();
        filled_.fetch_sub(1, std::memory_order_acq_rel);
        r = (r + 1) % kIqRingSlots;
    }
}

LxStatus IqEngine::Read(void* dst, int32_t count, double* triggers, int32_t triggerCount, uint64_t* timestamp,
                        int32_t purge, int32_t* sampleLoss, int32_t* remaining) {
    usb::UsbTransport& link = device_.Transport();
    if (purge == 1) store_.Purge();
    const bool int16 = plan_.dataType == 1;
    const size_t elem = int16 ? 2 * sizeof(int16_t) : sizeof(cf32);
    const int32_t m = triggers ? std::max(triggerCount, 0) : 0;
    int32_t written = 0;
    int64_t delivered = 0;
    bool first = true, gap = false;
    while (delivered < count && workers_.running()) {
        if (const LxStatus s = link.LinkStatus(); s != lxNoError) return s;
        const IqSampleStore::Taken t = store_.Take(static_cast<uint8_t*>(dst) + static_cast<size_t>(delivered) * elem,
                                                   count - delivered, int16, delivered, triggers, m, &written);
        if (t.count == 0) {
            dataReady_.WaitFor(100); // the stream keeps it coming; the link is looked at again
            continue;
        }
        if (first && timestamp) *timestamp = static_cast<uint64_t>(t.stamp);
        first = false;
        gap = gap || t.gap;
        delivered += t.count;
    }
    for (int32_t k = written; k < m; ++k) triggers[k] = IqTriggerSentinel();
    if (remaining) *remaining = static_cast<int32_t>(std::min<int64_t>(store_.Available(), INT32_MAX));
    if (sampleLoss) *sampleLoss = gap ? 1 : 0;
    if (!int16) dsp::ScaleFloats(static_cast<float*>(dst), scale_, static_cast<float*>(dst), 2 * delivered);
    StreamHealth::Add(device_.health.samplesDelivered, static_cast<uint64_t>(delivered));

    LxStatus status = lxNoError;
    if (std::fabs(temperature_.load() - device_.temperatureAtConfigure) > kTempDriftLimitC) status = lxTempDrift;
    if (overflowSeen_.exchange(false)) status = lxADCOverflow;
    if (lossSeen_.exchange(false)) status = lxUncalData;
    if (link.FramingError()) status = lxFramingErr;
    return status;
}

// ---- set-ups ---------------------------------------------------------------------------

std::unique_ptr<IqEngine> StartIqStream(Device& dev, const IqSettings& settings, LxStatus* status) {
    IqPlan plan = PlanIq(settings, dev.attenuator, dev.refLevel);
    FillIqCorrection(plan, dev.Cal(), CalBracket{dev.correctionIndex, static_cast<float>(dev.correctionFraction)});
    TuningState tuning;
    const CommandList commands = BuildIqSetupCommands(plan, tuning);
    // The device's pipeline offset for this hardware decimation (time anchoring).
    dev.hwDecimation = plan.d1;
    dev.sampleOffset = static_cast<uint64_t>(PipelineOffsetTicks(plan.d1));
    // The engine sends the set-up commands once it is built, just before its
    // first request: nothing slow may stand between the capture's start and
    // the request that takes its first samples.
    auto engine = std::make_unique<IqEngine>(dev, std::move(plan), commands);
    if (const LxStatus s = dev.Transport().LinkStatus(); s < 0) {
        *status = s;
        return nullptr;
    }
    return engine;
}

LxStatus SetupIq(Device& dev) {
    dev.engines[kIqEngine].reset();
    LxStatus status = lxNoError;
    std::unique_ptr<IqEngine> engine = StartIqStream(dev, dev.iq, &status);
    if (!engine) return status;
    dev.iqResults = IqResults{engine->plan().sampleRate, engine->plan().bandwidth};
    dev.engines[kIqEngine] = std::move(engine);
    return lxNoError;
}

CommandList BuildFullBandCommands(double f, TuningState& tuning) {
    CommandList list;
    list.BeginBlock();
    int64_t k = static_cast<int64_t>(std::floor(f / 3.84e6 + 0.5));
    k = (k + 7) / 8 * 8;
    const int r = static_cast<int>(k / 8);
    double centre = r >= 11 ? r * 3.072e7 - 2.304e7 : StepTableRow(r).centreHz;
    if (f == 0) {
        f = 6.144e7;
        centre = 2.304e7;
    }
    uint32_t words[kTuneMaxWords];
    const int n = EncodeTune(tuning, words, f, centre, 4, 0, 24, false);
    for (int i = 0; i < n; ++i) list.Push(words[i]);
    EncodeCaptureControl(list, 0);
    EncodeTransferRequest(list, 4, 0);
    return list;
}

LxStatus SetupFullBand(Device& dev) {
    TuningState tuning;
    CommandList commands = BuildFullBandCommands(dev.fullBandFrequency, tuning);
    dev.engines[kFullBandEngine] = std::make_unique<FullBandCapture>(std::move(commands));
    return lxNoError;
}

} // namespace lx::engines
