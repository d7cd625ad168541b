#include "engines/realtime_engine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <span>
#include <thread>
#include <vector>

#include "common/lx_assert.h"
#include "dsp/kernels.h"
#include "dsp/simd.h"
#include "dsp/window.h"
#include "engines/step_processor.h"
#include "engines/sweep_plan.h"
#include "lx_command/status_packet.h"
#include "usb/usb_transport.h"

namespace lx::engines {

namespace {

constexpr int64_t kBlockSamples = int64_t{kRtBlockPackets} * kSamplesPerPacket;    // 260,096
constexpr size_t kBlockSampleBytes = static_cast<size_t>(kBlockSamples) * 4;       // 1,040,384
constexpr float kMilliVoltsPerSqrtMilliWatt = 223.6f;
constexpr double kDbmToMvOffset = 46.9897;
constexpr auto kReaderPoll = std::chrono::milliseconds(1);

constexpr int64_t kStrideAlign = 32;
// Kept bins per power-and-row pass at most (a batch's staging stays in L1).
constexpr int64_t kBatchBins = 2048;
// Spectra the accumulator takes in one go at most, in ring entries: it
// publishes its progress after each.
constexpr int64_t kAccumChunkEntries = 65536;
constexpr int64_t kPrefetchStep = 32; // int16 values per cache line

// k spectra `stride` apart; n a multiple of the vector width (the padded
// stride), so no scalar tail runs.
LX_WIDE_CLONES void MinMaxLoop(const float* __restrict p, int64_t stride, int64_t k, float* __restrict mn,
                               float* __restrict mx, int64_t n) {
    for (int64_t j = 0; j < k; ++j, p += stride)
        for (int64_t i = 0; i < n; ++i) {
            mn[i] = p[i] < mn[i] ? p[i] : mn[i];
            mx[i] = p[i] > mx[i] ? p[i] : mx[i];
        }
}

LX_WIDE_CLONES void SumLoop(const float* __restrict p, int64_t stride, int64_t k, double* __restrict sum, int64_t n) {
    for (int64_t j = 0; j < k; ++j, p += stride)
        for (int64_t i = 0; i < n; ++i) sum[i] += static_cast<double>(p[i]);
}

// One count per bin: the cell is the bin's column times 256 plus its row.
void CountLoop(const uint8_t* __restrict rows, int64_t stride, int64_t k, uint16_t* __restrict count, int64_t n,
               int shift) {
    for (int64_t j = 0; j < k; ++j, rows += stride)
        for (int64_t i = 0; i < n; ++i) ++count[((i >> shift) << 8) + rows[i]];
}

// density = sum += cur - oldest (the oldest frame leaves, this one enters).
LX_DSP_CLONES void DensityLoop(const uint16_t* __restrict cur, const uint16_t* __restrict oldest,
                               uint32_t* __restrict sum, uint32_t* __restrict density, int64_t n) {
    for (int64_t i = 0; i < n; ++i) {
        const uint32_t v = sum[i] + cur[i] - oldest[i];
        sum[i] = v;
        density[i] = v;
    }
}

// 1 where hit, else the previous value faded (0 stays 0).
LX_DSP_CLONES void AlphaLoop(const uint16_t* __restrict cur, const float* __restrict prev, float* __restrict alpha,
                             int64_t n) {
    for (int64_t i = 0; i < n; ++i) alpha[i] = cur[i] != 0 ? 1.0f : prev[i] * kAlphaDecay;
}

int64_t ThreadCpuNs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

uint64_t WallClockNs() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
}

} // namespace

RealTimeEngine::RealTimeEngine(Device& device, RealTimePlan plan, CommandList start, CommandList transfer)
    : device_(device),
      plan_(std::move(plan)),
      start_(std::move(start)),
      transfer_(std::move(transfer)),
      spectrumCapacity_(kRtSpectrumRingFloats / std::max(plan_.fftSize, 1)),
      stride_((plan_.sweepLength + kStrideAlign - 1) / kStrideAlign * kStrideAlign),
      batch_(std::max<int64_t>(1, kBatchBins / stride_)) {
    const int64_t n = plan_.fftSize;
    const int64_t len = plan_.sweepLength;
    const int64_t cells = int64_t{plan_.frameWidth} * kFrameHeight;
    LX_ASSERT_TEXT(dsp::IsPowerOf2(n), "IsPowerOf2(n)", "src/dsp");

    // resize() hands every block over zeroed and faulted in: no page fault
    // lands in the streaming threads, and the pads below start at zero.
    samples_.resize(2 * (kRtRingSamples + n));

    // The window over its own samples only, normalised to mean 1 over the N
    // points and carrying the FFT's 1/N: w / sum(w).
    {
        std::vector<double> w(static_cast<size_t>(plan_.windowLength));
        dsp::GenerateWindow(plan_.window, w.data(), plan_.windowLength);
        double sum = 0;
        for (double v : w) sum += v;
        // Alternating in sign over the N points: the transform's output then
        // comes in frequency order (bin N/2 the capture centre), and the kept
        // bins are one contiguous run.
        window_.resize(plan_.windowLength);
        for (int64_t i = 0; i < plan_.windowLength; ++i) {
            const double sign = (plan_.ZeroPadBefore() + i) % 2 != 0 ? -1.0 : 1.0;
            window_[i] = static_cast<float>(sign * w[static_cast<size_t>(i)] / sum);
        }
    }
    {
        // Row of a value v: (v + B - A) * 2.56 * 100 / B on the dB scales, with v =
        // 10 log10(p) + gain; v * 255 / (A in mV) on the linear one, v = sqrt(p) * 223.6 * gain.
        const double gainDb = plan_.scale == static_cast<int32_t>(Scale::kLogNoStepGain) ? 0.0 : plan_.gainDb;
        const double rowsPerDb = 2.56 * 100.0 / plan_.frameScale;
        rowsPerDb_ = static_cast<float>(rowsPerDb);
        rowOffset_ = static_cast<float>((gainDb + plan_.frameScale - plan_.frameRefLevel) * rowsPerDb);
        rowsPerAmplitude_ = static_cast<float>(kMilliVoltsPerSqrtMilliWatt * std::pow(10.0, plan_.gainDb / 20.0) *
                                               255.0 / std::pow(10.0, (plan_.frameRefLevel + kDbmToMvOffset) / 20.0));
    }
    fft_ = dsp::FftPlan::Get(static_cast<int>(n));
    LX_ASSERT_TEXT(fft_ != nullptr, "status == ippStsNoErr", "src/dsp");
    fftIn_.resize(n); // the zero padding is never written again
    fftOut_.resize(n + stride_); // the row pass reads up to a stride from firstKeptBin < N
    gathered_.resize(batch_ * stride_); // the pad after each spectrum's bins stays zero
    rows_.resize(spectrumCapacity_ * stride_);

    power_.resize(batch_ * stride_);
    minAcc_.resize(stride_);
    maxAcc_.resize(stride_);
    sumAcc_.resize(stride_);
    ResetAccumulators();
    traces_.resize(kTraceSlots * 2 * stride_);
    densitySum_.resize(cells);
    while ((int32_t{1} << columnShift_) < plan_.decimation) ++columnShift_;
    slots_ = std::make_unique<Slot[]>(kFrameSlots);
    for (int i = 0; i < kFrameSlots; ++i) {
        Slot& s = slots_[i];
        s.minTrace.resize(len);
        s.maxTrace.resize(len);
        s.count.resize(cells);
        s.density.resize(cells);
        s.alpha.resize(cells);
    }
    statusQueue_.resize(kRtStatusQueue * kAuxRecordBytes);
    device_.Transport().SetFramingError(false);

    workers_.AddWakeEvent(&fftWake_);
    workers_.AddWakeEvent(&accumWake_);
    // The USB thread drives the transport until the engine is stopped;
    // housekeeping calls answer from the last status packet meanwhile.
    device_.ClaimTransport();
    workers_.Start("LX Real Time USB Thread", ThreadPriority::TimeCritical, [this] { UsbThread(); });
    workers_.Start("LX Real Time FFT Thread", ThreadPriority::AboveNormal, [this] { FftThread(); });
    workers_.Start("LX Real Time Accum Thread", ThreadPriority::AboveNormal, [this] { AccumThread(); });
    // The reader must find slot 0 held until its frame is complete.
    accumReady_.Wait();
}

RealTimeEngine::~RealTimeEngine() { Stop(); }

void RealTimeEngine::Stop() { workers_.Stop(); }

// ---- USB thread ---------------------------------------------------------------------

void RealTimeEngine::UsbThread() {
    usb::UsbTransport& link = device_.Transport();
    const std::span<const uint32_t> block(transfer_.Words());
    LX_ASSERT_TEXT(!block.empty(), "false", "src/lx_command");
    if (block.empty() || !link.Send(start_)) {
        usbFailed_.store(true);
        usbDone_.store(true, std::memory_order_release);
        fftWake_.Set();
        return;
    }
    // One request more than reads in flight: when every read has completed
    // before the host re-queues one (a fast device), the device still holds
    // a request and streams on without a gap.
    link.BeginWrite(kRtLeadSlot, block, kRtTransferTimeoutMs);
    link.FinishWrite(kRtLeadSlot);
    for (int i = 0; i < kRtTransfersInFlight; ++i) {
        link.BeginRead(i, kRtTransferBytes, kRtTransferTimeoutMs);
        link.BeginWrite(i, block, kRtTransferTimeoutMs);
    }
    int slot = 0;
    while (workers_.running()) {
        const usb::TransferResult w = link.FinishWrite(slot);
        const usb::TransferResult r = link.FinishRead(slot);
        if (w.timedOut || r.timedOut || r.transferred != kRtTransferBytes || r.buffer == nullptr) {
            usbFailed_.store(true);
            StreamHealth::Add(device_.health.transportErrors, 1);
            // Wake a reader that waits on the slot lock: it sees the failure.
            break;
        }
        TakeBlock(r.buffer);
        if (slot == 0) {
            // The full intake of one status packet in twelve.
            std::lock_guard<std::mutex> lock(statusMutex_);
            const int at = (statusHead_ + statusCount_) % kRtStatusQueue;
            std::memcpy(statusQueue_.data() + static_cast<size_t>(at) * kAuxRecordBytes, r.buffer + kBlockSampleBytes,
                        kAuxRecordBytes);
            if (statusCount_ < kRtStatusQueue)
                ++statusCount_;
            else
                statusHead_ = (statusHead_ + 1) % kRtStatusQueue; // the oldest goes
        }
        link.BeginRead(slot, kRtTransferBytes, kRtTransferTimeoutMs);
        link.BeginWrite(slot, block, kRtTransferTimeoutMs);
        slot = (slot + 1) % kRtTransfersInFlight;
    }

    // Stop the stream, then take what is still in flight so that nothing is
    // left outstanding on the link.
    CommandList stop;
    EncodeStopBlock(stop);
    link.BeginWrite(kRtStopSlot, std::span<const uint32_t>(stop.Words()), kRtTransferTimeoutMs);
    link.FinishWrite(kRtStopSlot);
    const int first = usbFailed_.load() ? (slot + 1) % kRtTransfersInFlight : slot;
    for (int k = 0; k < kRtTransfersInFlight; ++k) {
        const int i = (first + k) % kRtTransfersInFlight;
        if (usbFailed_.load() && i == slot) continue; // already finished
        link.FinishWrite(i);
        link.FinishRead(i);
    }
    // The lead request's data.
    link.BeginRead(kRtLeadSlot, kRtTransferBytes, kRtTransferTimeoutMs);
    link.FinishRead(kRtLeadSlot);
    usbDone_.store(true, std::memory_order_release);
    fftWake_.Set();
}

void RealTimeEngine::TakeBlock(const uint8_t* data) {
    const uint8_t* status = data + kBlockSampleBytes;
    if (!HasAuxMagic(status)) {
        framing_.store(true);
        device_.Transport().SetFramingError(true);
    } else {
        // Every packet: the device keeps these bits until it sends a status packet.
        const uint32_t word = AuxRead<uint32_t>(status, kAuxStatusWordOffset);
        if (word & kAuxStatusAdcOverflow) adcOverflow_.store(true);
        if (word & kAuxStatusDataLoss) dataLoss_.store(true);
        device_.health.TakeStatusWord(word, kAuxStatusAdcOverflow, kAuxStatusDataLoss);
        if (received_.load(std::memory_order_relaxed) == 0) {
            // The block's first sample left the antenna at K - 2 B + L(1).
            const auto k = static_cast<int64_t>(AuxRead<uint64_t>(status, kAuxSampleCounterOffset));
            firstTick_.store(k - 2 * kBlockSamples + PipelineOffsetTicks(1), std::memory_order_relaxed);
        }
    }

    const int64_t w = written_.load(std::memory_order_relaxed);
    if (w + kBlockSamples - released_.load(std::memory_order_acquire) > kRtRingSamples) {
        // The FFT thread is a whole ring behind. Waiting here holds the
        // stream up: an analyzer then overruns its own buffer and says so
        // (data-loss bit), a simulated one just waits.
        ringWaits_.fetch_add(1, std::memory_order_relaxed);
        const auto heldFrom = std::chrono::steady_clock::now();
        // The FFT thread runs until this thread is done, also on stop, so
        // room always comes.
        do {
            fftWake_.Set();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } while (w + kBlockSamples - released_.load(std::memory_order_acquire) > kRtRingSamples);
        // Rounded up: a hold of any length shows, so a loss with none is known to be a host stall.
        const auto held = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - heldFrom);
        StreamHealth::Add(device_.health.streamHeldMs, static_cast<uint64_t>(held.count()));
    }
    const int64_t n = plan_.fftSize;
    const auto* src = reinterpret_cast<const int16_t*>(data);
    int16_t* ring = samples_.span().data();
    for (int64_t done = 0; done < kBlockSamples;) {
        const int64_t pos = (w + done) % kRtRingSamples;
        const int64_t run = std::min(kBlockSamples - done, kRtRingSamples - pos);
        std::memcpy(ring + 2 * pos, src + 2 * done, static_cast<size_t>(run) * 4);
        // The first N samples of the ring again after its end.
        if (pos < n) {
            const int64_t m = std::min(run, n - pos);
            std::memcpy(ring + 2 * (kRtRingSamples + pos), src + 2 * done, static_cast<size_t>(m) * 4);
        }
        done += run;
    }
    written_.store(w + kBlockSamples, std::memory_order_release);
    received_.fetch_add(kBlockSamples, std::memory_order_relaxed);
    fftWake_.Set();
}

// ---- FFT thread ---------------------------------------------------------------------

void RealTimeEngine::PowerAndRows(const cf32* x, float* power, uint8_t* rows, int64_t count) const {
    if (plan_.scale == static_cast<int32_t>(Scale::kLinear))
        dsp::PowerAndRowsLinear(x, power, rows, count, rowsPerAmplitude_);
    else
        dsp::PowerAndRowsLog(x, power, rows, count, rowsPerDb_, rowOffset_);
}

// Transforms `count` spectra, the first at stream sample r and the index-th
// spectrum that enters a frame, into the ring at rows (count * stride_
// entries), and folds their power into the frame's traces.
void RealTimeEngine::TransformBatch(int64_t r, int64_t index, int64_t count, uint8_t* rows) {
    const int64_t n = plan_.fftSize;
    const int64_t len = plan_.sweepLength;
    const int64_t before = plan_.ZeroPadBefore();
    const int16_t* ring = samples_.span().data();
    cf32* in = fftIn_.span().data();
    cf32* out = fftOut_.span().data();
    cf32* gathered = gathered_.span().data();
    float* power = power_.span().data();
    const bool mirrored = plan_.capture.mirrored;
    const int64_t first = (mirrored ? n - plan_.firstKeptBin : plan_.firstKeptBin) & (n - 1);
    // The output is in frequency order (the window alternates in sign), so
    // the kept bins are one run up from firstKeptBin, and a lone spectrum's
    // row pass reads them in place (out_ has room for the stride's pad).
    // Batched spectra are gathered into one block for one row pass; a
    // mirrored capture reads its bins down from N - firstKeptBin.
    const bool gather = batch_ > 1 || mirrored || first + len > n;
    const int64_t step = mirrored ? -1 : 1;
    for (int64_t j = 0; j < count; ++j) {
        const int64_t pos = (r + j * (n / 2)) % kRtRingSamples;
        dsp::ConvertIq16Windowed(ring + 2 * (pos + before), window_.span().data(), in + before, plan_.windowLength);
        // The next spectrum's new half, on its way while this one is
        // transformed: the USB thread wrote it on the other core.
        const int16_t* next = ring + 2 * ((pos + n) % kRtRingSamples);
        for (int64_t b = 0; b < n; b += kPrefetchStep) __builtin_prefetch(next + b, 0, 2);
        const dsp::DspStatus st = fft_->Execute(in, out);
        LX_ASSERT_TEXT(st == dsp::DspStatus::kOk, "status == ippStsNoErr", "src/dsp");
        cf32* g = gathered + j * stride_;
        if (!mirrored && first + len <= n) {
            if (gather) std::memcpy(g, out + first, sizeof(cf32) * static_cast<size_t>(len));
        } else {
            for (int64_t i = 0; i < len; ++i) g[i] = out[(first + step * i) & (n - 1)];
        }
    }
    // The row pass over whole strides (the pad is never counted), so that it
    // never takes a scalar tail.
    PowerAndRows(gather ? gathered : out + first, power, rows, count * stride_);
    // The power into the frame's traces, which are handed over at the frame's end.
    const int64_t f = plan_.spectraPerFrame;
    for (int64_t j = 0; j < count;) {
        const int64_t run = std::min(count - j, f - (index + j) % f);
        if (plan_.detector == static_cast<int32_t>(Detector::kAverage))
            SumLoop(power + j * stride_, stride_, run, sumAcc_.span().data(), stride_);
        else
            MinMaxLoop(power + j * stride_, stride_, run, minAcc_.span().data(), maxAcc_.span().data(), stride_);
        j += run;
        if ((index + j) % f == 0) PublishTraces((index + j) / f - 1);
    }
}

// The traces of frame `frame`, complete, for the accumulator to take when it
// closes the frame (see traces_).
void RealTimeEngine::PublishTraces(int64_t frame) {
    float* mn = traces_.span().data() + (frame % kTraceSlots) * 2 * stride_;
    float* mx = mn + stride_;
    const size_t bytes = sizeof(float) * static_cast<size_t>(stride_);
    if (plan_.detector == static_cast<int32_t>(Detector::kAverage)) {
        const double inv = 1.0 / static_cast<double>(plan_.spectraPerFrame);
        const double* sum = sumAcc_.span().data();
        for (int64_t i = 0; i < stride_; ++i) mx[i] = static_cast<float>(sum[i] * inv);
        std::memcpy(mn, mx, bytes);
    } else {
        std::memcpy(mn, minAcc_.span().data(), bytes);
        std::memcpy(mx, maxAcc_.span().data(), bytes);
    }
    ResetAccumulators();
}

void RealTimeEngine::FftThread() {
    const int64_t n = plan_.fftSize;
    const int64_t half = n / 2;
    const int64_t wake = plan_.WakeInterval();
    int64_t r = 0;
    int64_t produced = 0;
    int64_t consumed = 0; // as last seen: read again only when the ring looks full
    for (;;) {
        // On stop, what the USB thread wrote is still transformed: the
        // spectra account for every sample taken from the link.
        const bool last = !workers_.running() && usbDone_.load(std::memory_order_acquire);
        int64_t written = written_.load(std::memory_order_acquire);
        while (written - r >= n || (written = written_.load(std::memory_order_acquire)) - r >= n) {
            int64_t room = spectrumCapacity_ - (produced - consumed);
            if (room <= 0) {
                consumed = consumed_.load(std::memory_order_acquire);
                room = spectrumCapacity_ - (produced - consumed);
            }
            if (room <= 0) {
                // The accumulator is a whole ring behind. Wait for it while the
                // sample ring can still take the stream; only when waiting
                // would hold up the USB thread is the spectrum given up.
                if (written_.load(std::memory_order_acquire) - r + 2 * kBlockSamples < kRtRingSamples) {
                    accumWake_.Set();
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                    continue;
                }
                lostSpectra_.fetch_add(1, std::memory_order_relaxed);
                StreamHealth::Add(device_.health.spectraLost, 1);
                lostSinceRead_.store(true, std::memory_order_relaxed);
                r += half;
            } else {
                const int64_t slot = produced % spectrumCapacity_;
                const int64_t count =
                    std::min({batch_, (written - r - n) / half + 1, room, spectrumCapacity_ - slot});
                TransformBatch(r, produced, count, rows_.span().data() + slot * stride_);
                produced += count;
                produced_.store(produced, std::memory_order_release);
                if (produced / wake != (produced - count) / wake) accumWake_.Set();
                r += count * half;
            }
            released_.store(r, std::memory_order_release);
        }
        fftCpuNs_.store(ThreadCpuNs(), std::memory_order_relaxed);
        if (last) break;
        fftWake_.Wait();
    }
    fftDone_.store(true, std::memory_order_release);
    accumWake_.Set();
}

// ---- accumulator thread ---------------------------------------------------------------

void RealTimeEngine::ResetAccumulators() {
    sumAcc_.zero();
    std::fill_n(minAcc_.span().data(), stride_, std::numeric_limits<float>::infinity());
    std::fill_n(maxAcc_.span().data(), stride_, -std::numeric_limits<float>::infinity());
}

void RealTimeEngine::CloseFrame(int32_t cur) {
    Slot& s = slots_[cur];
    const int64_t cells = int64_t{plan_.frameWidth} * kFrameHeight;
    const size_t bytes = sizeof(float) * static_cast<size_t>(plan_.sweepLength);
    const float* mn = traces_.span().data() + (frameNumber_ % kTraceSlots) * 2 * stride_;
    std::memcpy(s.minTrace.span().data(), mn, bytes);
    std::memcpy(s.maxTrace.span().data(), mn + stride_, bytes);
    // The next slot holds the oldest frame still counted: it leaves the sum,
    // so the density covers the 39 most recent frames.
    const Slot& oldest = slots_[(cur + 1) % kFrameSlots];
    DensityLoop(s.count.span().data(), oldest.count.span().data(), densitySum_.span().data(), s.density.span().data(),
                cells);
    const Slot& prev = slots_[(cur + kFrameSlots - 1) % kFrameSlots];
    AlphaLoop(s.count.span().data(), prev.alpha.span().data(), s.alpha.span().data(), cells);
    s.frameNumber = frameNumber_++;
    s.timestamp = WallClockNs();
}

void RealTimeEngine::AccumThread() {
    const int64_t chunk = std::max<int64_t>(1, kAccumChunkEntries / stride_);
    int32_t cur = 0;
    std::unique_lock<std::mutex> lock(slots_[0].mutex);
    accumReady_.Set();
    int64_t inFrame = 0;
    int64_t consumed = 0;
    for (;;) {
        const bool last = !workers_.running() && fftDone_.load(std::memory_order_acquire);
        // The FFT thread's count is read again only when what was seen is done.
        int64_t produced = produced_.load(std::memory_order_acquire);
        while (consumed < produced || consumed < (produced = produced_.load(std::memory_order_acquire))) {
            const int64_t at = consumed % spectrumCapacity_;
            const int64_t count = std::min({produced - consumed, plan_.spectraPerFrame - inFrame,
                                            spectrumCapacity_ - at, chunk});
            CountLoop(rows_.span().data() + at * stride_, stride_, count, slots_[cur].count.span().data(),
                      plan_.sweepLength, columnShift_);
            consumed += count;
            if (consumed / kRtConsumedBatch != (consumed - count) / kRtConsumedBatch)
                consumed_.store(consumed, std::memory_order_release);
            inFrame += count;
            if (inFrame < plan_.spectraPerFrame) continue;
            CloseFrame(cur);
            const int32_t next = (cur + 1) % kFrameSlots;
            std::unique_lock<std::mutex> nextLock(slots_[next].mutex);
            std::swap(lock, nextLock);
            nextLock.unlock();
            cur = next;
            slots_[cur].count.zero();
            inFrame = 0;
        }
        consumed_.store(consumed, std::memory_order_release);
        accumCpuNs_.store(ThreadCpuNs(), std::memory_order_relaxed);
        if (last) break;
        accumWake_.Wait();
    }
}

// ---- caller's side ------------------------------------------------------------------

LxStatus RealTimeEngine::Frame(float* frame, float* alpha, float* minTrace, float* maxTrace, int32_t* frameCount,
                               uint64_t* timestamp) {
    usb::UsbTransport& link = device_.Transport();
    Slot& s = slots_[readSlot_];
    // Polled rather than a timed lock: the wait must end when the stream
    // fails (the accumulator then holds the slot for good).
    std::unique_lock<std::mutex> lock(s.mutex, std::defer_lock);
    while (!lock.try_lock()) {
        std::this_thread::sleep_for(kReaderPoll);
        if (usbFailed_.load() || !workers_.running()) {
            if (frameCount) *frameCount = 0;
            if (timestamp) *timestamp = 0;
            const LxStatus l = link.LinkStatus();
            return l != lxNoError ? l : lxConnectionLostErr;
        }
    }
    const int64_t len = plan_.sweepLength;
    const int64_t width = plan_.frameWidth;
    const size_t bytes = sizeof(float) * static_cast<size_t>(len);
    if (minTrace) std::memcpy(minTrace, s.minTrace.span().data(), bytes);
    if (maxTrace) std::memcpy(maxTrace, s.maxTrace.span().data(), bytes);
    if (frame) {
        // A cell hit by every spectrum of all 39 frames reads 39 / 40.
        const float scale = static_cast<float>(
            1.0 / (static_cast<double>(plan_.spectraPerFrame) * plan_.decimation * kFrameSlots));
        const uint32_t* d = s.density.span().data();
        for (int64_t c = 0; c < width; ++c)
            for (int64_t row = 0; row < kFrameHeight; ++row)
                frame[row * width + c] = static_cast<float>(d[c * kFrameHeight + row]) * scale;
    }
    if (alpha) {
        const float* a = s.alpha.span().data();
        for (int64_t c = 0; c < width; ++c)
            for (int64_t row = 0; row < kFrameHeight; ++row) alpha[row * width + c] = a[c * kFrameHeight + row];
    }
    if (frameCount) *frameCount = s.frameNumber;
    if (timestamp) *timestamp = s.timestamp;
    lock.unlock();
    readSlot_ = (readSlot_ + 1) % kFrameSlots;

    StepProcessorConfig units;
    units.videoUnits = static_cast<int32_t>(VideoUnits::kPower);
    units.scale = plan_.scale;
    StepProcessor::ConvertToScale(units, plan_.gainDb, minTrace, minTrace ? len : 0);
    StepProcessor::ConvertToScale(units, plan_.gainDb, maxTrace, maxTrace ? len : 0);

    // The status packets queued since the last read, into the device.
    {
        std::vector<uint8_t> record(kAuxRecordBytes);
        for (;;) {
            {
                std::lock_guard<std::mutex> q(statusMutex_);
                if (statusCount_ == 0) break;
                std::memcpy(record.data(), statusQueue_.data() + static_cast<size_t>(statusHead_) * kAuxRecordBytes,
                            kAuxRecordBytes);
                statusHead_ = (statusHead_ + 1) % kRtStatusQueue;
                --statusCount_;
            }
            device_.TakeStatusPacket(record.data());
        }
    }

    const bool lostSpectra = lostSinceRead_.exchange(false);
    // Weakest first, each later one replacing the earlier.
    LxStatus status = lxNoError;
    if (std::fabs(device_.temperature - device_.temperatureAtConfigure) > 2.0f) status = lxTempDrift;
    if (adcOverflow_.exchange(false)) status = lxADCOverflow;
    if (dataLoss_.exchange(false) || lostSpectra) status = lxUncalData;
    if (framing_.exchange(false)) status = lxFramingErr;
    if (const LxStatus l = link.LinkStatus(); l != lxNoError) status = l;
    return status;
}

// ---- set-up -------------------------------------------------------------------------

LxStatus SetupRealTime(Device& dev) {
    RealTimePlan plan = PlanRealTime(dev.realTime, dev.attenuator, dev.refLevel);
    const CalBracket bracket{dev.correctionIndex, static_cast<float>(dev.correctionFraction)};
    FillRealTimeCorrection(plan, dev.Cal(), bracket);
    TuningState tuning;
    CommandList start = BuildRealTimeStartCommands(plan, tuning);
    CommandList transfer = BuildRealTimeTransferCommands();
    RealTimeResults r;
    r.actualRbw = plan.actualRbw;
    r.sweepLength = plan.sweepLength;
    r.actualStart = plan.actualStart;
    r.binSize = plan.binSize;
    r.frameWidth = plan.frameWidth;
    r.frameHeight = kFrameHeight;
    r.minSignalDuration = plan.poiSeconds;

    dev.engines[kRealTimeEngine].reset();
    dev.hwDecimation = 1;
    // May throw (no memory, no thread): the device then keeps nothing of this set-up.
    dev.engines[kRealTimeEngine] =
        std::make_unique<RealTimeEngine>(dev, std::move(plan), std::move(start), std::move(transfer));
    dev.realTimeResults = r;
    return lxNoError;
}

} // namespace lx::engines
