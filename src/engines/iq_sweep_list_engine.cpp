#include "engines/iq_sweep_list_engine.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>
#include <span>

#include "common/lx_assert.h"
#include "dsp/kernels.h"
#include "engines/sweep_engine.h"
#include "engines/sweep_plan.h"
#include "engines/sweep_support.h"
#include "gps/gps_state.h"
#include "lx_command/encoders.h"
#include "lx_command/status_packet.h"
#include "usb/usb_transport.h"

namespace lx::engines {

namespace {

// Words a transfer request takes: the request, its second word, three spacers.
constexpr size_t kRequestWords = 5;
constexpr uint32_t kStatusBitsMask = kAuxStatusAdcOverflow | kAuxStatusDataLoss;
// A slot's own bit beside the device's: a status packet of the pass lacked its magic.
constexpr uint32_t kBadPacketBit = 1u << 31;

void EncodeStep(CommandList& list, SweepListStepPlan& st, const StepCorrection& corr, uint8_t ifLevel,
                TuningState& tuning) {
    list.BeginBlock();
    st.firstBlock = list.BlockCount() - 1;
    uint32_t words[kTuneMaxWords];
    const uint32_t gainField = static_cast<uint32_t>(st.attenuation) * 5;
    const int count = EncodePlanTune(tuning, words, st.capture, ifLevel, gainField, kTuneValue2A);
    for (int i = 0; i < count; ++i) list.Push(words[i]);
    EncodeFilterTaps(list, corr.taps);
    EncodeCaptureControl(list, kCaptureNoDecimation);
    int64_t left = st.packets;
    do {
        // Room for this request, the closing zero-length request and the end word.
        if (list.FreeWordsInBlock() < 2 * kRequestWords + 1) list.BeginBlock();
        const auto k = static_cast<uint32_t>(std::min<int64_t>(left, kMaxIqPacketsPerRequest));
        left -= k;
        EncodeTransferRequest(list, k, left == 0 ? 1 : 0);
    } while (left > 0);
    // The device moves whole 32 KiB buffers; a request without packets sends
    // what is left at once, so a step never waits for the next one's data.
    EncodeTransferRequest(list, 0, 0);
    list.Push(kEndOfStepWord);
    st.blockCount = list.BlockCount() - st.firstBlock;
}

} // namespace

SweepListPlan PlanSweepList(const IqSweepListSettings& settings, const uint8_t* cal, CalBracket bracket) {
    SweepListPlan plan;
    plan.dataType = settings.dataType;
    plan.uncorrected = settings.uncorrected != 0;
    TuningState tuning;
    int64_t offset = 0;
    for (const IqSweepListStep& s : settings.steps) {
        SweepListStepPlan st;
        st.frequency = s.frequency;
        st.samples = s.sampleCount;
        st.packets = (int64_t{s.sampleCount} + kSamplesPerPacket - 1) / kSamplesPerPacket;
        st.attenuation = SweepAttenuation(s.attenuator, s.refLevel);
        st.capture = PlanCapture(s.frequency);
        const StepCorrection corr = BuildStepCorrection(cal, bracket, st.capture.step, st.capture.fineCell);
        st.substituted = corr.substituted;
        float gain = StepGainDb(cal, bracket, st.attenuation, st.capture.step, corr);
        // Band 0 rises towards DC; the fixed roll-off at the step frequency
        // takes it out (empty from 8.7 MHz up).
        const std::vector<float> rolloff = RolloffCurve(s.frequency, 1.0, 1);
        if (!rolloff.empty()) gain += rolloff.front();
        st.gainDb = gain;
        st.scale = static_cast<float>(std::pow(10.0, static_cast<double>(gain) / 20.0));
        // After a band-0 capture is conjugated RF F sits at F - C in both cases.
        st.shiftCycles = -(s.frequency - st.capture.captureCentreHz) / kSweepListShiftRateHz;
        st.outputOffset = offset;
        offset += s.sampleCount;
        EncodeStep(plan.commands, st, corr, StepIfLevel(cal, st.capture.step), tuning);
        plan.steps.push_back(st);
    }
    plan.totalSamples = offset;
    return plan;
}

void ConvertSweepListPacket(const int16_t* raw, int64_t n, int64_t first, const SweepListStepPlan& st,
                            const std::complex<float>* tone, float scale, bool asFloat, void* destination,
                            std::complex<float>* work) {
    std::complex<float>* x = work;
    auto* xf = reinterpret_cast<float*>(x);
    dsp::ConvertIq16(raw, x, n);
    if (st.capture.mirrored) {
        // Band 0 delivers RF F at C - F: the conjugate puts it at F - C.
        for (int64_t i = 0; i < n; ++i) xf[2 * i + 1] = -xf[2 * i + 1];
    }
    dsp::ComplexMultiply(x, tone, x, n);
    // The tone table covers one packet; this packet's phase comes from its
    // first sample's index, in double precision.
    const double turns = st.shiftCycles * static_cast<double>(first);
    const double phase = 2.0 * std::numbers::pi * (turns - std::floor(turns));
    const float cr = static_cast<float>(std::cos(phase)) * scale;
    const float ci = static_cast<float>(std::sin(phase)) * scale;
    const int64_t at = st.outputOffset + first;
    if (asFloat) {
        float* out = static_cast<float*>(destination) + 2 * at;
        for (int64_t i = 0; i < n; ++i) {
            const float re = xf[2 * i], im = xf[2 * i + 1];
            out[2 * i] = re * cr - im * ci;
            out[2 * i + 1] = re * ci + im * cr;
        }
        return;
    }
    // Round to nearest (ties to even) by adding and taking away 1.5 * 2^23:
    // exact for the clamped range and, unlike lrint, vectorised.
    constexpr float kRound = 12582912.0f;
    int16_t* out = static_cast<int16_t*>(destination) + 2 * at;
    for (int64_t i = 0; i < n; ++i) {
        const float re = xf[2 * i], im = xf[2 * i + 1];
        const float a = std::clamp((re * cr - im * ci) * 32768.0f, -32768.0f, 32767.0f);
        const float b = std::clamp((re * ci + im * cr) * 32768.0f, -32768.0f, 32767.0f);
        out[2 * i] = static_cast<int16_t>(static_cast<int32_t>((a + kRound) - kRound));
        out[2 * i + 1] = static_cast<int16_t>(static_cast<int32_t>((b + kRound) - kRound));
    }
}

// ---- engine -------------------------------------------------------------------------

IqSweepListEngine::IqSweepListEngine(Device& device, SweepListPlan plan)
    : device_(device), plan_(std::move(plan)), requests_(kSweepListSlots) {
    tones_.resize(plan_.steps.size());
    for (size_t k = 0; k < plan_.steps.size(); ++k) {
        tones_[k].resize(kSamplesPerPacket);
        std::complex<float>* t = tones_[k].span().data();
        const double w = 2.0 * std::numbers::pi * plan_.steps[k].shiftCycles;
        for (int i = 0; i < kSamplesPerPacket; ++i)
            t[i] = std::complex<float>(static_cast<float>(std::cos(w * i)), static_cast<float>(std::sin(w * i)));
    }
    work_.resize(kSamplesPerPacket);
    temperatureAtConfigure_ = device_.temperatureAtConfigure;
    temperature_.store(device_.temperature);
    workers_.AddWakeEvent(&wake_);
    workers_.Start("KD IQ Sweep List Interface Thread", ThreadPriority::TimeCritical, [this] { InterfaceThread(); });
}

IqSweepListEngine::~IqSweepListEngine() { Stop(); }

void IqSweepListEngine::Stop() {
    workers_.Stop();
    for (Slot& s : slots_) s.done.Set();
}

bool IqSweepListEngine::AnyActive() const {
    return std::any_of(slots_.begin(), slots_.end(), [](const Slot& s) { return s.active.load(); });
}

LxStatus IqSweepListEngine::Start(int32_t slot, void* destination, uint64_t* stamps) {
    if (slot < 0 || slot >= kSweepListSlots) return lxInvalidParameterErr;
    Slot& s = slots_[static_cast<size_t>(slot)];
    bool idle = false;
    if (!s.active.compare_exchange_strong(idle, true)) return lxSweepAlreadyActiveErr;
    s.destination = destination;
    s.stamps = stamps;
    s.statusBits.store(0);
    s.done.Reset();
    if (!workers_.running()) {
        s.done.Set(); // stopped: nothing will run; Finish answers at once
        return lxNoError;
    }
    requests_.push(slot); // at most one per slot: never beyond its bound
    wake_.Set();
    return lxNoError;
}

LxStatus IqSweepListEngine::Finish(int32_t slot) {
    if (slot < 0 || slot >= kSweepListSlots) return lxInvalidParameterErr;
    Slot& s = slots_[static_cast<size_t>(slot)];
    if (!s.active.load()) return lxSweepAlreadyActiveErr;
    s.done.Wait();
    const uint32_t bits = s.statusBits.load();
    s.active.store(false);
    const LxStatus link = device_.Transport().LinkStatus();
    if (link != lxNoError) return link;
    if (bits & kBadPacketBit) return lxFramingErr;
    if (bits & kAuxStatusDataLoss) return lxUncalData;
    if (bits & kAuxStatusAdcOverflow) return lxADCOverflow;
    if (std::fabs(temperature_.load() - temperatureAtConfigure_) > kTempDriftLimitC) return lxTempDrift;
    return lxNoError;
}

void IqSweepListEngine::CompleteRequest(int32_t request) { slots_[static_cast<size_t>(request)].done.Set(); }

// ---- interface thread ---------------------------------------------------------------

void IqSweepListEngine::InterfaceThread() {
    usb::UsbTransport& link = device_.Transport();
    const std::vector<uint32_t>& words = plan_.commands.Words();
    const auto stepCount = static_cast<int32_t>(plan_.steps.size());

    std::array<Flight, kSweepListMaxTransfers> flights{};
    int head = 0, inFlight = 0, transferSlot = 0;
    std::array<bool, kSweepListSlots> open{}; // taken from the queue, not yet complete

    // Where the issuing stands: request, step, next block, next packet.
    bool haveRequest = false, failed = false;
    int32_t request = 0, step = 0;
    size_t block = 0;
    int64_t packet = 0;
    bool statusAsked = false;

    auto completeOpen = [&] {
        for (int32_t r = 0; r < kSweepListSlots; ++r)
            if (open[static_cast<size_t>(r)]) {
                open[static_cast<size_t>(r)] = false;
                CompleteRequest(r);
            }
        haveRequest = false;
    };

    for (;;) {
        const bool running = workers_.running();
        while (inFlight < kSweepListMaxTransfers && !failed) {
            if (!haveRequest) {
                if (!running || requests_.empty()) break;
                request = requests_.front();
                requests_.pop();
                open[static_cast<size_t>(request)] = true;
                haveRequest = true;
                step = 0;
                block = 0;
                packet = 0;
                statusAsked = false;
                if (stepCount == 0) {
                    open[static_cast<size_t>(request)] = false;
                    CompleteRequest(request);
                    haveRequest = false;
                    continue;
                }
            }
            const SweepListStepPlan& st = plan_.steps[static_cast<size_t>(step)];
            const bool begun = block > 0;
            // A stop starts no new step; one under way is read to its end.
            if (!begun && !running) break;
            Flight f;
            f.transferSlot = transferSlot;
            f.request = request;
            f.step = step;
            if (block < st.blockCount) {
                const size_t b = st.firstBlock + block++;
                link.BeginWrite(transferSlot, std::span<const uint32_t>(words.data() + b * CMD_SIZE_WORDS, CMD_SIZE_WORDS),
                                kTransferTimeoutMs);
            } else {
                const int64_t left = st.packets - packet;
                const auto k = static_cast<int32_t>(std::min<int64_t>(left, kSweepListReadPackets));
                f.read = true;
                f.firstPacket = packet;
                f.packets = k;
                f.status = k == left && k < kSweepListReadPackets;
                const uint32_t bytes = static_cast<uint32_t>(k + (f.status ? 1 : 0)) * kBytesPerPacket;
                link.BeginRead(transferSlot, bytes, kTransferTimeoutMs);
                packet += k;
                statusAsked = f.status;
                if (statusAsked) {
                    block = 0;
                    packet = 0;
                    statusAsked = false;
                    if (++step == stepCount) haveRequest = false;
                }
            }
            flights[static_cast<size_t>((head + inFlight) % kSweepListMaxTransfers)] = f;
            ++inFlight;
            transferSlot = (transferSlot + 1) % usb::kSlotCount;
        }

        if (inFlight == 0) {
            if (failed) {
                // Everything queued so far shares the failure: the link
                // status tells its callers. Later requests run again.
                failed = false;
                completeOpen();
                while (!requests_.empty()) {
                    CompleteRequest(requests_.front());
                    requests_.pop();
                }
                continue;
            }
            if (!running) {
                completeOpen();
                return;
            }
            if (!haveRequest && requests_.empty()) wake_.Wait();
            continue;
        }

        const Flight f = flights[static_cast<size_t>(head)];
        head = (head + 1) % kSweepListMaxTransfers;
        --inFlight;
        const usb::TransferResult r = f.read ? link.FinishRead(f.transferSlot) : link.FinishWrite(f.transferSlot);
        if (r.timedOut || r.transferred != r.requested || (f.read && r.buffer == nullptr)) {
            failed = true; // what is in flight still finishes
            continue;
        }
        if (!f.read || failed) continue;
        if (workers_.running()) TakeRead(f, r.buffer);
        if (f.status && f.step == stepCount - 1 && open[static_cast<size_t>(f.request)]) {
            open[static_cast<size_t>(f.request)] = false;
            CompleteRequest(f.request);
        }
    }
}

void IqSweepListEngine::TakeRead(const Flight& f, const uint8_t* data) {
    const SweepListStepPlan& st = plan_.steps[static_cast<size_t>(f.step)];
    Slot& slot = slots_[static_cast<size_t>(f.request)];
    const bool asFloat = plan_.dataType == 0;
    const float scale = asFloat && !plan_.uncorrected ? st.scale : 1.0f;
    const std::complex<float>* tone = tones_[static_cast<size_t>(f.step)].span().data();
    std::complex<float>* x = work_.span().data();

    for (int32_t p = 0; p < f.packets && slot.destination != nullptr; ++p) {
        const int64_t first = (f.firstPacket + p) * kSamplesPerPacket;
        const int64_t n = std::min<int64_t>(kSamplesPerPacket, int64_t{st.samples} - first);
        if (n <= 0) break;
        ConvertSweepListPacket(reinterpret_cast<const int16_t*>(data + int64_t{p} * kBytesPerPacket), n, first, st,
                               tone, scale, asFloat, slot.destination, x);
    }
    if (!f.status) return;

    const uint8_t* record = data + int64_t{f.packets} * kBytesPerPacket;
    const bool valid = device_.TakeStatusPacket(record);
    if (valid) {
        slot.statusBits.fetch_or(device_.statusWord & kStatusBitsMask);
        temperature_.store(device_.temperature);
    } else {
        slot.statusBits.fetch_or(kBadPacketBit);
    }
    if (slot.stamps) {
        const double ticks = 2.0 * static_cast<double>(st.packets * kSamplesPerPacket);
        const auto span = static_cast<int64_t>(ticks * gps::kNsPerTick); // toward zero
        slot.stamps[f.step] = valid ? static_cast<uint64_t>(device_.gps.deviceTimeNs - span) : 0;
    }
}

// ---- set-up -------------------------------------------------------------------------

LxStatus SetupIqSweepList(Device& dev) {
    if (dev.iqSweepList.steps.empty()) return lxInvalidConfigurationErr;
    SweepListPlan plan = PlanSweepList(dev.iqSweepList, dev.Cal(),
                                       CalBracket{dev.correctionIndex, static_cast<float>(dev.correctionFraction)});
    dev.engines[kIqSweepListEngine].reset();
    dev.hwDecimation = 1;
    dev.sampleOffset = static_cast<uint64_t>(kSweepListPipelineTicks);
    // May throw (no memory, no thread): the device then keeps nothing of this set-up.
    dev.engines[kIqSweepListEngine] = std::make_unique<IqSweepListEngine>(dev, std::move(plan));
    return lxNoError;
}

} // namespace lx::engines
