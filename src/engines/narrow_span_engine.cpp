#include "engines/narrow_span_engine.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <span>

#include "common/lx_assert.h"
#include "dsp/kernels.h"
#include "engines/sweep_engine.h"
#include "engines/sweep_support.h"
#include "lx_command/encoders.h"
#include "lx_command/status_packet.h"
#include "usb/usb_transport.h"

namespace lx::engines {

namespace {

int64_t CeilDiv(int64_t a, int64_t b) { return (a + b - 1) / b; }

int32_t Log2(int32_t v) {
    int32_t k = 0;
    while ((1 << (k + 1)) <= v) ++k;
    return k;
}

// Words a transfer request takes: the request, its second word, three spacers.
constexpr size_t kRequestWords = 5;

} // namespace

int32_t NarrowSpanDecimation(double span) {
    const double usableBW = kUsableCaptureHz;
    LX_ASSERT(span < usableBW, "src/lx_lib");
    if (!(span < kUndecimatedSpanHz)) return 1;
    int32_t d = 2;
    while (d < kMaxSpanDecimation && kUsableCaptureHz / (2.0 * d) > span) d *= 2;
    return d;
}

uint32_t NarrowSpanPlan::CaptureCode() const { return static_cast<uint32_t>(Log2(deviceDecimation)) + 1; }

double NarrowSpanPlan::ShiftCyclesPerSample() const {
    return -(centre - capture.captureCentreHz) / (kAdcRateHz / deviceDecimation);
}

NarrowSpanPlan PlanNarrowSpan(const SweepSettings& s, int32_t attenuator, double refLevelDbm) {
    NarrowSpanPlan n;
    n.sweep = PlanFromSettings(s);
    SweepPlan& p = n.sweep;

    const double span = s.stop - s.start;
    n.decimation = NarrowSpanDecimation(span);
    n.deviceDecimation = std::min(n.decimation, kMaxDeviceDecimation);
    n.hostDecimation = n.decimation > kMaxDeviceDecimation ? n.decimation / kMaxDeviceDecimation : 1;
    n.decimatedRate = kAdcRateHz / n.decimation;
    const double fsD = n.decimatedRate;

    p.windowFactor = WindowFactor(s.window);
    const double length = std::floor(p.windowFactor * fsD / s.rbw);
    int64_t L = std::isfinite(length) ? static_cast<int64_t>(std::min(length, 4e9)) : kNarrowMaxWindowLength;
    if (L % 2 != 0) --L;
    p.rbwLimited = L > kNarrowMaxWindowLength;
    p.windowLength = static_cast<int32_t>(std::clamp<int64_t>(L, kNarrowMinWindowLength, kNarrowMaxWindowLength));
    int32_t fft = 1;
    while (fft < p.windowLength) fft <<= 1;
    p.fftSize = std::clamp(fft, kMinFftSize, kNarrowMaxFftSize);
    p.zeroPad = p.fftSize - p.windowLength;

    p.vbwRatio = std::min(s.vbw / s.rbw, 1.0);
    p.averageCount = static_cast<int64_t>(std::ceil(1.0 / p.vbwRatio));
    p.hop = p.fftSize / 4;
    // The full FFT length, not the window length, as the last segment's
    // extent: the difference is a little slack at the end of the capture.
    int64_t samples = (p.averageCount - 1) * p.hop + p.fftSize;
    const double t = std::floor(s.sweepTime / (kSamplesPerPacket / fsD) * kSamplesPerPacket);
    const int64_t T = t > 0 ? static_cast<int64_t>(std::min(t, 1e15)) : 0;
    if (samples < T) {
        p.averageCount = (T - p.windowLength) / p.hop + 1;
        samples = T;
    }

    const int64_t H = n.hostDecimation;
    int64_t packets = CeilDiv(samples, kSamplesPerPacket) * H;
    if (H >= 2) ++packets; // the FIR's 2048 inputs of fill before its first output counts
    packets = CeilDiv(packets, 4) * 4;
    n.packets = packets;
    p.packetsPerStep = static_cast<int32_t>(std::min<int64_t>(packets, std::numeric_limits<int32_t>::max()));
    p.stepCount = 1;

    p.binSize = fsD / p.fftSize;
    int64_t len = static_cast<int64_t>(std::floor(span / p.binSize + 0.5)) + 2;
    len = std::clamp<int64_t>(len, 2, p.fftSize);
    if (len % 2 != 0) ++len;
    p.sweepLength = static_cast<int32_t>(len);
    n.firstOutputBin = (p.fftSize - p.sweepLength) / 2;

    n.centre = (s.start + s.stop) / 2.0;
    p.actualRbw = p.windowFactor * fsD / p.windowLength;
    p.vbw = s.vbw;
    p.actualStart = n.centre - (p.sweepLength / 2) * p.binSize;
    p.attenuation = SweepAttenuation(attenuator, refLevelDbm);

    n.capture = PlanCapture(n.centre);
    SweepStep st;
    st.index = n.capture.step;
    st.tuningFrequency = n.capture.tunedLoHz;
    st.centreFrequency = n.capture.captureCentreHz;
    st.lowEdge = p.actualStart;
    st.highEdge = p.actualStart + p.sweepLength * p.binSize;
    st.firstBin = n.firstOutputBin;
    st.binCount = p.sweepLength;
    st.isFirstBand = n.capture.mirrored;
    p.firstStep = p.lastStep = st.index;
    p.steps.push_back(st);
    return n;
}

void FillNarrowSpanCorrection(NarrowSpanPlan& plan, const uint8_t* cal, CalBracket bracket) {
    SweepStep& st = plan.sweep.steps.front();
    st.correction = BuildCaptureCorrection(cal, bracket, plan.capture.step, plan.capture.captureCentreHz);
    st.gainOffset = StepGainDb(cal, bracket, plan.sweep.attenuation, plan.capture.step, st.correction);
    st.ifLevel = StepIfLevel(cal, plan.capture.step);
}

CommandList BuildNarrowSpanCommands(const NarrowSpanPlan& plan, TuningState& tuning) {
    CommandList list;
    list.BeginBlock();
    const SweepStep& st = plan.sweep.steps.front();
    uint32_t words[kTuneMaxWords];
    const uint32_t gainField = static_cast<uint32_t>(plan.sweep.attenuation) * 5;
    const int count = EncodePlanTune(tuning, words, plan.capture, st.ifLevel, gainField, kTuneValue2A);
    for (int i = 0; i < count; ++i) list.Push(words[i]);
    EncodeFilterTaps(list, st.correction.taps);
    EncodeCaptureControl(list, plan.CaptureCode());
    int64_t left = plan.packets;
    while (left > 0) {
        // A block keeps one word free for the end word that follows.
        if (list.FreeWordsInBlock() < kRequestWords + 1) list.BeginBlock();
        const auto k = static_cast<uint32_t>(std::min<int64_t>(left, kMaxIqPacketsPerRequest));
        EncodeTransferRequest(list, k, 0);
        left -= k;
    }
    list.Push(kEndOfStepWord);
    return list;
}

// ---- engine -------------------------------------------------------------------------

NarrowSpanEngine::NarrowSpanEngine(Device& device, NarrowSpanPlan plan, CommandList commands)
    : device_(device),
      plan_(std::move(plan)),
      commands_(std::move(commands)),
      statusRecord_(kAuxRecordBytes),
      shifter_(plan_.ShiftCyclesPerSample(), kRawBufferSamples, 1),
      processor_(plan_.sweep.ProcessorConfig()) {
    LX_ASSERT(processor_.valid(), "src/engines");
    statusRequest_.BeginBlock();
    EncodeTransferRequest(statusRequest_, 0, 1);

    const int64_t H = plan_.hostDecimation;
    raw_.resize(kRawBufferSamples);
    const int64_t chunk = kRawBufferSamples / H + 1;
    if (H > 1) {
        filtered_.resize(chunk);
        ComplexVector taps;
        taps.resize(kHostFirTaps);
        const double cutoff = kHostFirCutoff / static_cast<double>(H);
        const bool designed = dsp::DesignFirLowPass(taps.span().data(), kHostFirTaps, cutoff) == dsp::DspStatus::kOk;
        LX_ASSERT(designed, "src/engines");
        const bool ready =
            fir_.Init(taps.span().data(), kHostFirTaps, static_cast<int>(H)) == dsp::DspStatus::kOk;
        LX_ASSERT(ready, "src/engines");
    }
    // Room for one window with the samples after it, and two reads' worth
    // more: the buffer is compacted only once per hop or more.
    decimated_.resize(int64_t{plan_.sweep.windowLength} + plan_.sweep.hop + 2 * chunk);
    min_.resize(plan_.sweep.fftSize);
    max_.resize(plan_.sweep.fftSize);
}

LxStatus NarrowSpanEngine::Start() {
    {
        std::lock_guard<std::mutex> lock(runMutex_);
        if (pending_) return lxSweepAlreadyActiveErr;
        if (stopped_) return lxInvalidConfigurationErr;
        pending_ = true;
    }
    device_.ClaimTransport();
    return lxNoError;
}

void NarrowSpanEngine::Wait() {
    {
        std::lock_guard<std::mutex> lock(runMutex_);
        if (!pending_ || stopped_ || running_) return;
        running_ = true;
    }
    usb::UsbTransport& link = device_.Transport();
    link.SetFramingError(false);
    held_ = heldFirst_ = segment_ = 0;
    fillLeft_ = plan_.hostDecimation > 1 ? (kHostFirTaps - 1) / plan_.hostDecimation : 0;
    fir_.Reset();
    processor_.Begin(plan_.firstOutputBin, plan_.sweep.sweepLength);

    int slotCursor = 0;
    const bool statusValid = Acquire(slotCursor) && ReadStatusPacket(slotCursor);
    device_.ReleaseTransport();

    float* mn = min_.span().data();
    float* mx = max_.span().data();
    const int64_t n = plan_.sweep.fftSize;
    const SweepStep& st = plan_.sweep.steps.front();
    if (processor_.SegmentsTaken() > 0) {
        processor_.Finish(st.gainOffset, mn, mx);
    } else {
        const float empty = plan_.sweep.scale == static_cast<int32_t>(Scale::kLinear) ? 0.0f : dsp::kPowerFloorDb;
        std::fill(mn, mn + n, empty);
        std::fill(mx, mx + n, empty);
    }
    {
        std::lock_guard<std::mutex> lock(runMutex_);
        statusValid_ = statusValid;
        running_ = false;
    }
    runCv_.notify_all();
}

LxStatus NarrowSpanEngine::Result(float* minTrace, float* maxTrace, uint64_t* timestamp) {
    bool statusValid;
    {
        std::lock_guard<std::mutex> lock(runMutex_);
        if (!pending_) return lxNoError;
        pending_ = false;
        statusValid = statusValid_;
        statusValid_ = false;
    }
    const float* mn = min_.span().data();
    const float* mx = max_.span().data();
    const size_t bytes = sizeof(float) * static_cast<size_t>(plan_.sweep.sweepLength);
    if (minTrace) std::memcpy(minTrace, mn + plan_.firstOutputBin, bytes);
    if (maxTrace) std::memcpy(maxTrace, mx + plan_.firstOutputBin, bytes);

    SweepWarnings w;
    const uint64_t stamp = TakeEndOfSweepStatus(device_, statusRecord_.data(), statusValid, w);
    if (timestamp) *timestamp = stamp;
    return SweepStatus(w);
}

LxStatus NarrowSpanEngine::Run(float* minTrace, float* maxTrace, uint64_t* timestamp) {
    if (const LxStatus s = Start(); s != lxNoError) return s;
    Wait();
    return Result(minTrace, maxTrace, timestamp);
}

void NarrowSpanEngine::Stop() {
    std::unique_lock<std::mutex> lock(runMutex_);
    stopped_ = true;
    runCv_.wait(lock, [&] { return !running_; });
}

bool NarrowSpanEngine::Acquire(int& slotCursor) {
    usb::UsbTransport& link = device_.Transport();
    const std::vector<uint32_t>& words = commands_.Words();
    const std::vector<uint32_t>& blockPackets = commands_.IqPacketTotals();
    const size_t blocks = commands_.BlockCount();
    const int64_t total = plan_.packets;

    // Transfers finish in the order they began, so a read is only waited for
    // after the command block that asks for its packets went out.
    struct Flight {
        int slot = 0;
        bool read = false;
        int32_t packets = 0;
    };
    constexpr int kMaxFlights = kMaxCommandBlocksInFlight + kMaxTransfersInFlight;
    std::array<Flight, kMaxFlights> flights{};
    int head = 0, inFlight = 0, writes = 0, reads = 0;
    size_t nextBlock = 0;
    int64_t requested = 0, issued = 0;
    bool failed = false;

    for (;;) {
        while (!failed) {
            const int slot = slotCursor;
            Flight f{slot, false, 0};
            if (nextBlock < blocks && writes < kMaxCommandBlocksInFlight) {
                const std::span<const uint32_t> block(words.data() + nextBlock * CMD_SIZE_WORDS, CMD_SIZE_WORDS);
                link.BeginWrite(slot, block, kTransferTimeoutMs);
                requested += blockPackets[nextBlock++];
                ++writes;
            } else {
                // The device moves whole 32 KiB buffers: read what full
                // buffers of requested packets deliver.
                const int64_t readable = std::min(requested, total) / 4 * 4 - issued;
                if (reads >= kMaxTransfersInFlight || readable < 4) break;
                f.read = true;
                f.packets = static_cast<int32_t>(std::min<int64_t>(readable, kReadBatchPackets));
                link.BeginRead(slot, static_cast<uint32_t>(f.packets) * kBytesPerPacket, kTransferTimeoutMs);
                issued += f.packets;
                ++reads;
            }
            flights[static_cast<size_t>((head + inFlight) % kMaxFlights)] = f;
            ++inFlight;
            slotCursor = (slotCursor + 1) % usb::kSlotCount;
        }
        if (inFlight == 0) break;
        const Flight f = flights[static_cast<size_t>(head)];
        head = (head + 1) % kMaxFlights;
        --inFlight;
        const usb::TransferResult r = f.read ? link.FinishRead(f.slot) : link.FinishWrite(f.slot);
        (f.read ? reads : writes) -= 1;
        if (r.timedOut || r.transferred != r.requested || (f.read && r.buffer == nullptr)) {
            failed = true; // the link status says why; what is in flight still finishes
            continue;
        }
        if (f.read && !failed) TakePackets(r.buffer, f.packets);
    }
    return !failed && issued == total;
}

void NarrowSpanEngine::TakePackets(const uint8_t* data, int32_t packets) {
    const int64_t count = int64_t{packets} * kSamplesPerPacket;
    cf32* x = raw_.span().data();
    dsp::ConvertIq16(reinterpret_cast<const int16_t*>(data), x, count);
    if (plan_.capture.mirrored) {
        // Band 0 delivers RF F at C - F: the conjugate puts it at F - C, so
        // every later stage sees frequencies in their natural order.
        auto* f = reinterpret_cast<float*>(x);
        for (int64_t i = 0; i < count; ++i) f[2 * i + 1] = -f[2 * i + 1];
    }
    shifter_.Shift(x, x, count);
    if (plan_.hostDecimation > 1) {
        int64_t written = 0;
        fir_.Run(x, count, filtered_.span().data(), &written);
        const int64_t drop = std::min(fillLeft_, written);
        fillLeft_ -= drop;
        Consume(filtered_.span().data() + drop, written - drop);
    } else {
        Consume(x, count);
    }
}

void NarrowSpanEngine::Consume(const cf32* x, int64_t count) {
    const int64_t L = plan_.sweep.windowLength;
    const int64_t hop = plan_.sweep.hop;
    cf32* buf = decimated_.span().data();
    const int64_t capacity = decimated_.size();
    while (count > 0 && processor_.NeedsMore()) {
        if (held_ == capacity) {
            // Keep what the next segment still needs, from its start on (the
            // buffer holds more than a window, so that start is in it or
            // beyond it, and something goes).
            const int64_t keepFrom = std::clamp<int64_t>(segment_ * hop - heldFirst_, 0, held_);
            std::memmove(static_cast<void*>(buf), buf + keepFrom, sizeof(cf32) * static_cast<size_t>(held_ - keepFrom));
            held_ -= keepFrom;
            heldFirst_ += keepFrom;
        }
        const int64_t take = std::min(count, capacity - held_);
        std::memcpy(static_cast<void*>(buf + held_), x, sizeof(cf32) * static_cast<size_t>(take));
        held_ += take;
        x += take;
        count -= take;
        while (processor_.NeedsMore() && segment_ * hop + L <= heldFirst_ + held_) {
            processor_.AddSegment(buf + (segment_ * hop - heldFirst_));
            ++segment_;
        }
    }
}

bool NarrowSpanEngine::ReadStatusPacket(int& slotCursor) {
    usb::UsbTransport& link = device_.Transport();
    const int writeSlot = slotCursor;
    const int readSlot = (slotCursor + 1) % usb::kSlotCount;
    slotCursor = (slotCursor + 2) % usb::kSlotCount;
    link.BeginWrite(writeSlot, std::span<const uint32_t>(statusRequest_.Words()), kTransferTimeoutMs);
    link.BeginRead(readSlot, static_cast<uint32_t>(kAuxRecordBytes), kTransferTimeoutMs);
    const usb::TransferResult w = link.FinishWrite(writeSlot);
    const usb::TransferResult r = link.FinishRead(readSlot);
    if (w.timedOut || r.timedOut || r.transferred != kAuxRecordBytes || r.buffer == nullptr) return false;
    std::memcpy(statusRecord_.data(), r.buffer, kAuxRecordBytes);
    return true;
}

// ---- set-up -------------------------------------------------------------------------

LxStatus SetupNarrowSpan(Device& dev) {
    NarrowSpanPlan plan = PlanNarrowSpan(dev.sweep, dev.attenuator, dev.refLevel);
    const CalBracket bracket{dev.correctionIndex, static_cast<float>(dev.correctionFraction)};
    FillNarrowSpanCorrection(plan, dev.Cal(), bracket);
    TuningState tuning;
    CommandList commands = BuildNarrowSpanCommands(plan, tuning);
    SweepResults figures;
    figures.actualRbw = plan.sweep.actualRbw;
    figures.actualVbw = plan.sweep.vbw;
    figures.actualStart = plan.sweep.actualStart;
    figures.binSize = plan.sweep.binSize;
    figures.sweepLength = plan.sweep.sweepLength;
    std::vector<float> correction = SweepTraceCorrection(plan.sweep);
    const bool additive = plan.sweep.scale == static_cast<int32_t>(Scale::kLog);
    const bool rbwLimited = plan.sweep.rbwLimited;

    dev.engines[kNarrowSpanEngine].reset();
    // May throw (no memory): the device then keeps nothing of this set-up.
    dev.engines[kNarrowSpanEngine] = std::make_unique<NarrowSpanEngine>(dev, std::move(plan), std::move(commands));
    dev.sweepResults = figures;
    dev.traceCorrection = std::move(correction);
    dev.traceCorrectionAdditive = additive;
    return rbwLimited ? lxSettingClamped : lxNoError;
}

} // namespace lx::engines
