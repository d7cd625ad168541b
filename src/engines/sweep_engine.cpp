#include "engines/sweep_engine.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <span>
#include <thread>

#include "common/lx_assert.h"
#include "dsp/kernels.h"
#include "engines/sweep_support.h"
#include "lx_command/encoders.h"
#include "lx_command/status_packet.h"
#include "usb/usb_transport.h"

namespace lx::engines {

namespace {

int64_t RoundUp(int64_t v, int64_t m) { return (v + m - 1) / m * m; }

} // namespace

SweepEngine::SweepEngine(Device& device, SweepPlan plan, CommandList commands)
    : device_(device),
      plan_(std::move(plan)),
      commands_(std::move(commands)),
      stepSamples_(plan_.SamplesPerStep()),
      dataPackets_(int64_t{plan_.stepCount} * plan_.packetsPerStep),
      statusRecord_(kAuxRecordBytes) {
    const int64_t S = stepSamples_;
    longSteps_ = 3 * S > kStoreLimitSamples;
    if (!longSteps_) {
        capacity_ = kStoreBaseSamples / S * S;
        if (capacity_ < 3 * S) capacity_ = 3 * S;
        const int64_t whole = std::min<int64_t>(plan_.stepCount, kStoreLimitSamples / S) * S;
        if (whole > capacity_) capacity_ = whole;
    } else {
        // Packets never straddle the wrap: the ring is whole packets.
        capacity_ = std::max(kStoreBaseSamples / kSamplesPerPacket * kSamplesPerPacket,
                             RoundUp(4 * (int64_t{plan_.windowLength} + plan_.hop), kSamplesPerPacket));
        tail_ = plan_.windowLength;
    }
    store_.resize(capacity_ + tail_);

    traceOffset_.resize(plan_.steps.size());
    traceCount_.resize(plan_.steps.size());
    int64_t offset = 0;
    for (size_t k = 0; k < plan_.steps.size(); ++k) {
        traceOffset_[k] = offset;
        traceCount_[k] = plan_.steps[k].binCount;
        offset += plan_.steps[k].binCount;
    }
    const int64_t stitched = plan_.StitchedLength();
    if (!plan_.steps.empty()) traceCount_.back() += static_cast<int32_t>(stitched - offset);
    // The caller's copy may reach past the stitched bins when the stop lies
    // within two bins of the last step's usable band: those points read 0.
    const int64_t traceLength = std::max<int64_t>(stitched, int64_t{plan_.startBinOffset} + plan_.sweepLength);
    minTrace_.resize(traceLength);
    maxTrace_.resize(traceLength);
    std::fill(minTrace_.span().begin() + stitched, minTrace_.span().end(), 0.0f);
    std::fill(maxTrace_.span().begin() + stitched, maxTrace_.span().end(), 0.0f);

    // The first work thread's processor is built here, so that a lack of
    // memory shows at configure. The second thread builds its own as it
    // starts: each processor generates its window (20 ms at 2^20 points), and
    // configure need not wait for two.
    processors_.resize(kWorkThreads);
    scratchMin_.resize(kWorkThreads);
    scratchMax_.resize(kWorkThreads);
    BuildProcessor(0);
    LX_ASSERT(processors_[0]->valid(), "src/engines");
    stepDone_.assign(plan_.steps.size(), 0);
    nextClaim_ = plan_.stepCount; // nothing to claim before the first Start

    workers_.AddWakeEvent(&usbWake_);
    workers_.SetStopHook([this] {
        { std::lock_guard<std::mutex> lock(workMutex_); }
        workCv_.notify_all();
    });
    workers_.Start("Sweep USB Thread", ThreadPriority::TimeCritical, [this] { UsbThread(); });
    for (int i = 0; i < kWorkThreads; ++i)
        workers_.Start("Sweep Work Thread", ThreadPriority::Normal, [this, i] { WorkThread(i); });
}

SweepEngine::~SweepEngine() { Stop(); }

void SweepEngine::Stop() {
    workers_.Stop();
    // A Result waiting on another thread returns (with what there is).
    usbDone_.Set();
    workDone_.Set();
}

// ---- caller's side ----------------------------------------------------------------

LxStatus SweepEngine::Start() {
    bool idle = false;
    if (!pending_.compare_exchange_strong(idle, true)) return lxSweepAlreadyActiveErr;
    usbDone_.Reset();
    workDone_.Reset();
    cpuOverrun_.store(false);
    statusValid_.store(false);
    device_.Transport().SetFramingError(false);
    remaining_.store(plan_.stepCount);
    {
        std::lock_guard<std::mutex> lock(workMutex_);
        written_.store(0);
        released_.store(0);
        usbFailed_.store(false);
        nextClaim_ = 0;
        consumed_ = 0;
        releasedSteps_ = 0;
        std::fill(stepDone_.begin(), stepDone_.end(), 0);
    }
    device_.ClaimTransport();
    requests_.push(Request{plan_.TotalPackets()});
    usbWake_.Set();
    return lxNoError;
}

void SweepEngine::Wait() {
    if (!pending_.load()) return;
    usbDone_.Wait();
    workDone_.Wait();
}

LxStatus SweepEngine::Result(float* minTrace, float* maxTrace, uint64_t* timestamp) {
    if (!pending_.load()) return lxNoError;
    Wait();

    const size_t bytes = sizeof(float) * static_cast<size_t>(plan_.sweepLength);
    if (minTrace) std::memcpy(minTrace, minTrace_.span().data() + plan_.startBinOffset, bytes);
    if (maxTrace) std::memcpy(maxTrace, maxTrace_.span().data() + plan_.startBinOffset, bytes);

    // The status packet read behind the sweep's samples: the device's
    // overflow and loss bits for the whole sweep, and its temperature and
    // time as the sweep ended. Taken in here, on the caller's thread, which
    // owns the device's housekeeping fields.
    SweepWarnings w;
    const uint64_t stamp = TakeEndOfSweepStatus(device_, statusRecord_.data(), statusValid_.load(), w);
    if (timestamp) *timestamp = stamp;
    pending_.store(false);
    w.cpuOverrun = cpuOverrun_.load();
    return SweepStatus(w);
}

// ---- USB thread ---------------------------------------------------------------------

void SweepEngine::UsbThread() {
    // Touch every page of the store once before the first sweep: a page
    // fault per 4 KiB in the middle of a paced stream costs the time the
    // analyzer's buffer does not have.
    store_.zero();
    for (;;) {
        while (workers_.running() && requests_.empty()) usbWake_.Wait();
        if (!workers_.running()) return;
        Acquire();
        requests_.pop();
        device_.ReleaseTransport();
        usbDone_.Set();
    }
}

void SweepEngine::PublishWritten(int64_t samples) {
    {
        std::lock_guard<std::mutex> lock(workMutex_);
        written_.store(samples);
    }
    workCv_.notify_all();
}

void SweepEngine::StoreSamples(const uint8_t* data, int64_t firstPacket, int32_t packets) {
    const int64_t last = std::min(firstPacket + packets, dataPackets_); // filler packets are dropped
    cf32* store = store_.span().data();
    for (int64_t p = firstPacket; p < last;) {
        const int64_t pos = (p * kSamplesPerPacket) % capacity_;
        const int64_t run = std::min((capacity_ - pos) / kSamplesPerPacket, last - p);
        const auto* src = reinterpret_cast<const int16_t*>(data + (p - firstPacket) * kBytesPerPacket);
        const int64_t count = run * kSamplesPerPacket;
        dsp::ConvertIq16(src, store + pos, count);
        if (pos < tail_) {
            const int64_t mirrored = std::min(tail_ - pos, count);
            std::memcpy(static_cast<void*>(store + capacity_ + pos), store + pos, sizeof(cf32) * static_cast<size_t>(mirrored));
        }
        p += run;
    }
}

void SweepEngine::Acquire() {
    usb::UsbTransport& link = device_.Transport();
    const std::vector<uint32_t>& words = commands_.Words();
    const std::vector<uint32_t>& blockPackets = commands_.IqPacketTotals();
    const size_t blocks = commands_.BlockCount();
    const int64_t total = plan_.TotalPackets();

    struct Flight {
        int slot = 0;
        bool read = false;
        int64_t firstPacket = 0;
        int32_t packets = 0;
    };
    std::array<Flight, kMaxTransfersInFlight> flights{};
    int head = 0, inFlight = 0;
    int slotCursor = 0;
    auto nextSlot = [&] {
        const int s = slotCursor;
        slotCursor = (slotCursor + 1) % usb::kSlotCount;
        return s;
    };
    auto push = [&](const Flight& f) {
        flights[static_cast<size_t>((head + inFlight) % kMaxTransfersInFlight)] = f;
        ++inFlight;
    };

    size_t nextBlock = 0;
    int64_t requested = 0; // packets the written blocks ask for
    int64_t issued = 0;    // packets covered by reads begun
    int64_t received = 0;  // packets read
    int64_t target = total;
    bool failed = false, stopping = false, stopBlockSent = false;
    std::array<uint32_t, CMD_SIZE_WORDS> stopBlock{};

    for (;;) {
        if (!stopping && !workers_.running()) {
            // Stop: no more steps. Whatever is requested is still read, and a
            // buffer the device holds back until it is full is completed, so
            // the next user of the link finds nothing stale.
            stopping = true;
            const int64_t rest = requested % 4;
            stopBlockSent = nextBlock >= blocks; // the list's own filler already went
            if (!stopBlockSent) {
                CommandList tailList;
                tailList.BeginBlock();
                tailList.Push(kEndOfStepWord);
                if (rest != 0) EncodeTransferRequest(tailList, static_cast<uint32_t>(4 - rest), 0);
                std::copy(tailList.Words().begin(), tailList.Words().end(), stopBlock.begin());
                target = requested + (rest != 0 ? 4 - rest : 0);
            }
        }
        bool noRoom = false;
        while (inFlight < kMaxTransfersInFlight && !failed) {
            if (stopping && !stopBlockSent) {
                const int slot = nextSlot();
                link.BeginWrite(slot, std::span<const uint32_t>(stopBlock), kTransferTimeoutMs);
                push({slot, false, 0, 0});
                requested = target;
                stopBlockSent = true;
                continue;
            }
            if (!stopping && nextBlock < blocks && requested - received < kLookaheadPackets) {
                const int slot = nextSlot();
                link.BeginWrite(slot, std::span<const uint32_t>(words.data() + nextBlock * CMD_SIZE_WORDS, CMD_SIZE_WORDS),
                                kTransferTimeoutMs);
                push({slot, false, 0, 0});
                requested += blockPackets[nextBlock];
                ++nextBlock;
                continue;
            }
            // The device sends whole 32 KiB buffers: read only what full
            // buffers of requested packets will deliver.
            const int64_t readable = requested / 4 * 4 - issued;
            if (readable < 4) break;
            const int32_t k = static_cast<int32_t>(std::min<int64_t>(readable, kReadBatchPackets));
            if (!stopping) {
                const int64_t end = std::min(issued + k, dataPackets_) * kSamplesPerPacket;
                if (end - released_.load() > capacity_) {
                    noRoom = true;
                    break;
                }
            }
            const int slot = nextSlot();
            link.BeginRead(slot, static_cast<uint32_t>(k) * kBytesPerPacket, kTransferTimeoutMs);
            push({slot, true, issued, k});
            issued += k;
        }
        if (inFlight == 0) {
            if (failed || received >= target) break;
            // Nothing in flight and nothing to begin can only mean a full
            // store; anything else would spin for ever.
            LX_ASSERT(noRoom, "src/engines");
            if (!noRoom) {
                failed = true;
                break;
            }
            // The work threads are behind: wait for them to free space.
            cpuOverrun_.store(true);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        const Flight f = flights[static_cast<size_t>(head)];
        head = (head + 1) % kMaxTransfersInFlight;
        --inFlight;
        const usb::TransferResult r = f.read ? link.FinishRead(f.slot) : link.FinishWrite(f.slot);
        if (r.timedOut || r.transferred != r.requested) {
            failed = true;
            continue;
        }
        if (!f.read) continue;
        received += f.packets;
        if (!stopping && !failed) {
            StoreSamples(r.buffer, f.firstPacket, f.packets);
            PublishWritten(std::min(received, dataPackets_) * kSamplesPerPacket);
        }
    }

    if (failed) {
        {
            std::lock_guard<std::mutex> lock(workMutex_);
            usbFailed_.store(true);
        }
        workCv_.notify_all();
        return;
    }
    if (!stopping) ReadStatusPacket(slotCursor);
}

void SweepEngine::ReadStatusPacket(int& slotCursor) {
    usb::UsbTransport& link = device_.Transport();
    CommandList request;
    request.BeginBlock();
    EncodeTransferRequest(request, 0, 1);
    const int writeSlot = slotCursor;
    const int readSlot = (slotCursor + 1) % usb::kSlotCount;
    slotCursor = (slotCursor + 2) % usb::kSlotCount;
    link.BeginWrite(writeSlot, std::span<const uint32_t>(request.Words()), kTransferTimeoutMs);
    link.BeginRead(readSlot, static_cast<uint32_t>(kAuxRecordBytes), kTransferTimeoutMs);
    const usb::TransferResult w = link.FinishWrite(writeSlot);
    const usb::TransferResult r = link.FinishRead(readSlot);
    if (w.timedOut || r.timedOut || r.transferred != kAuxRecordBytes || r.buffer == nullptr) return;
    std::memcpy(statusRecord_.data(), r.buffer, kAuxRecordBytes);
    statusValid_.store(true);
}

// ---- work threads -------------------------------------------------------------------

void SweepEngine::BuildProcessor(int id) {
    const size_t i = static_cast<size_t>(id);
    scratchMin_[i].resize(plan_.fftSize);
    scratchMax_[i].resize(plan_.fftSize);
    processors_[i] = std::make_unique<StepProcessor>(plan_.ProcessorConfig());
}

void SweepEngine::WorkThread(int id) {
    if (!processors_[static_cast<size_t>(id)]) {
        try {
            BuildProcessor(id);
        } catch (const std::exception&) {
            return; // no memory for a second processor: the first thread does every step
        }
    }
    for (;;) {
        int32_t k = 0;
        {
            std::unique_lock<std::mutex> lock(workMutex_);
            workCv_.wait(lock, [&] {
                if (!workers_.running()) return true;
                if (nextClaim_ >= plan_.stepCount) return false;
                if (usbFailed_.load()) return true;
                if (longSteps_) return consumed_ >= nextClaim_;
                return written_.load() >= (int64_t{nextClaim_} + 1) * stepSamples_;
            });
            if (!workers_.running()) return;
            k = nextClaim_++;
        }
        if (longSteps_)
            ProcessLongStep(id, k);
        else
            ProcessWholeStep(id, k);
    }
}

void SweepEngine::ProcessWholeStep(int id, int32_t k) {
    const int64_t first = int64_t{k} * stepSamples_;
    const bool have = written_.load() >= first + stepSamples_;
    if (have) {
        const cf32* x = store_.span().data() + first % capacity_;
        const auto [keepFirst, keepCount] = KeptBins(k);
        processors_[static_cast<size_t>(id)]->Process(x, plan_.steps[static_cast<size_t>(k)].gainOffset,
                                                      scratchMin_[static_cast<size_t>(id)].span().data(),
                                                      scratchMax_[static_cast<size_t>(id)].span().data(),
                                                      keepFirst, keepCount);
    }
    EmitStep(id, k, have);
    {
        // Space goes back in stream order: a step finished ahead of an
        // earlier one waits for it.
        std::lock_guard<std::mutex> lock(workMutex_);
        stepDone_[static_cast<size_t>(k)] = 1;
        while (releasedSteps_ < plan_.stepCount && stepDone_[static_cast<size_t>(releasedSteps_)]) ++releasedSteps_;
        released_.store(int64_t{releasedSteps_} * stepSamples_);
    }
    CompleteStep(k);
}

void SweepEngine::ProcessLongStep(int id, int32_t k) {
    StepProcessor& sp = *processors_[static_cast<size_t>(id)];
    const int64_t first = int64_t{k} * stepSamples_;
    const int64_t hop = plan_.hop;
    const int64_t segments = sp.SegmentCount();
    const cf32* store = store_.span().data();
    bool have = true;
    const auto [keepFirst, keepCount] = KeptBins(k);
    sp.Begin(keepFirst, keepCount);
    for (int64_t j = 0; j < segments; ++j) {
        const int64_t start = first + j * hop;
        const int64_t need = start + plan_.windowLength;
        if (written_.load() < need) {
            std::unique_lock<std::mutex> lock(workMutex_);
            workCv_.wait(lock, [&] { return written_.load() >= need || usbFailed_.load() || !workers_.running(); });
        }
        if (written_.load() < need) {
            have = false;
            break;
        }
        sp.AddSegment(store + start % capacity_);
        released_.store(std::min(start + hop, first + stepSamples_));
    }
    released_.store(first + stepSamples_);
    {
        std::lock_guard<std::mutex> lock(workMutex_);
        consumed_ = k + 1;
    }
    workCv_.notify_all();
    if (have)
        sp.Finish(plan_.steps[static_cast<size_t>(k)].gainOffset, scratchMin_[static_cast<size_t>(id)].span().data(),
                  scratchMax_[static_cast<size_t>(id)].span().data());
    EmitStep(id, k, have);
    CompleteStep(k);
}

std::pair<int64_t, int64_t> SweepEngine::KeptBins(int32_t k) const {
    const SweepStep& st = plan_.steps[static_cast<size_t>(k)];
    const int64_t first = st.firstBin, count = traceCount_[static_cast<size_t>(k)];
    if (!st.isFirstBand) return {first, count};
    // EmitStep reads bin (n - j) mod n for the trace's bins j.
    const int64_t n = plan_.fftSize;
    if (first == 0) return {0, n};
    return {n - (first + count - 1), count};
}

void SweepEngine::EmitStep(int id, int32_t k, bool haveData) {
    const SweepStep& st = plan_.steps[static_cast<size_t>(k)];
    const int64_t off = traceOffset_[static_cast<size_t>(k)];
    const int64_t count = traceCount_[static_cast<size_t>(k)];
    float* mnOut = minTrace_.span().data() + off;
    float* mxOut = maxTrace_.span().data() + off;
    if (!haveData) {
        const float empty = plan_.scale == static_cast<int32_t>(Scale::kLinear) ? 0.0f : dsp::kPowerFloorDb;
        std::fill(mnOut, mnOut + count, empty);
        std::fill(mxOut, mxOut + count, empty);
        return;
    }
    const float* mn = scratchMin_[static_cast<size_t>(id)].span().data();
    const float* mx = scratchMax_[static_cast<size_t>(id)].span().data();
    if (st.isFirstBand) {
        // The band down to 0 Hz arrives mirrored: RF above the capture centre
        // lies below it in the samples. Mirror about the centre bin (n/2
        // stays put) so that every bin keeps its frequency.
        const int64_t n = plan_.fftSize;
        for (int64_t i = 0; i < count; ++i) {
            const int64_t src = (n - (st.firstBin + i)) & (n - 1);
            mnOut[i] = mn[src];
            mxOut[i] = mx[src];
        }
        return;
    }
    std::memcpy(mnOut, mn + st.firstBin, sizeof(float) * static_cast<size_t>(count));
    std::memcpy(mxOut, mx + st.firstBin, sizeof(float) * static_cast<size_t>(count));
}

void SweepEngine::CompleteStep(int32_t) {
    if (remaining_.fetch_sub(1) == 1) workDone_.Set();
}

// ---- set-up -------------------------------------------------------------------------

LxStatus SetupSweep(Device& dev) {
    SweepPlan plan = PlanSweep(dev.sweep, dev.attenuator, dev.refLevel);
    FillStepCorrections(plan, dev.Cal(),
                        CalBracket{dev.correctionIndex, static_cast<float>(dev.correctionFraction)});
    TuningState tuning;
    CommandList commands = BuildSweepCommands(plan, dev.gpioPort, dev.gpioSwitches,
                                              dev.flags[kDeviceFlagAltPath] != 0, tuning);
    SweepResults figures;
    figures.actualRbw = plan.actualRbw;
    figures.actualVbw = plan.vbw;
    figures.actualStart = plan.actualStart;
    figures.binSize = plan.binSize;
    figures.sweepLength = plan.sweepLength;
    std::vector<float> correction = SweepTraceCorrection(plan);
    const bool additive = plan.scale == static_cast<int32_t>(Scale::kLog);
    const bool rbwLimited = plan.rbwLimited;

    dev.engines[kSweepEngine].reset(); // stopped and joined before the new one starts
    // May throw (no memory, no thread): the device then keeps nothing of this set-up.
    auto engine = std::make_unique<SweepEngine>(dev, std::move(plan), std::move(commands));
    dev.engines[kSweepEngine] = std::move(engine);
    dev.sweepResults = figures;
    dev.traceCorrection = std::move(correction);
    dev.traceCorrectionAdditive = additive;
    return rbwLimited ? lxSettingClamped : lxNoError;
}

} // namespace lx::engines
