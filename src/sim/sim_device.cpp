#include "sim/sim_device.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstring>
#include <functional>
#include <numbers>

#include "lx_command/status_packet.h"
#include "sim/factory_image.h"

namespace lx::sim {

namespace {

std::atomic<uint64_t> gVirtualMs{0};

constexpr uint32_t kFillerWord = 0x00000001;
constexpr uint32_t kFlushFlag = 0x800;

constexpr uint8_t kRequestBusyPoll = 0xC2;
constexpr uint8_t kRequestFanSetPoint = 0xC3;
constexpr uint8_t kRequestReboot = 0xE0;

// The first edge of the trigger input of the wanted polarity (0 rising, 1
// falling) on an ADC sample in [from, to), if any. The input is sampled with
// the ADC clock: an edge is reported on the sample at or after it.
std::optional<uint64_t> FirstTriggerEdge(const TriggerScene& t, uint32_t edge, uint64_t from, uint64_t to) {
    const int64_t shift = ((edge == 0) == t.risingFirst) ? 0 : t.width;
    const auto a = static_cast<int64_t>(from), b = static_cast<int64_t>(to);
    if (t.period > 0) {
        const int64_t first = t.start + shift;
        int64_t k = a > first ? (a - first + t.period - 1) / t.period : 0;
        if (t.count >= 0 && k >= t.count) return std::nullopt;
        const int64_t e = first + k * t.period;
        if (e < b) return static_cast<uint64_t>(e);
        return std::nullopt;
    }
    const auto it = std::lower_bound(t.edges.begin(), t.edges.end(), a - shift);
    if (it != t.edges.end() && *it + shift < b) return static_cast<uint64_t>(*it + shift);
    return std::nullopt;
}

uint16_t Raw16(double value, double scale) {
    return static_cast<uint16_t>(std::clamp(std::lround(value / scale), 0L, 65535L));
}

uint64_t NextRandom(uint64_t& s) {
    s ^= s >> 12;
    s ^= s << 25;
    s ^= s >> 27;
    return s * 0x2545F4914F6CDD1DULL;
}

} // namespace

uint64_t VirtualNowMs() { return gVirtualMs.load(std::memory_order_acquire); }
void AdvanceVirtualMs(uint64_t ms) { gVirtualMs.fetch_add(ms, std::memory_order_acq_rel); }

// ---------------------------------------------------------------------------

SimTransfer::~SimTransfer() {
    if (!device_) return;
    std::lock_guard lk(device_->mu_);
    auto& q = device_->inQueue_;
    q.erase(std::remove(q.begin(), q.end(), this), q.end());
}

SimDevice::SimDevice(int32_t id, std::string product, std::string serial, std::shared_ptr<const Scene> scene)
    : id_(id), serial_(std::move(serial)), product_(std::move(product)), scene_(std::move(scene)) {
    runFirmware_ = product_ != "LX530 Boot";
    usbSerial_ = serial_;
    presentAtMs_ = VirtualNowMs();
    virtualSeenMs_ = presentAtMs_;
    origin_ = idleMark_ = blockTime_ = Clock::now();
    gps_.Configure(scene_->gps);
    rng_ = 0x9E3779B97F4A7C15ULL ^ (static_cast<uint64_t>(id) << 17) ^ std::hash<std::string>{}(serial_);
    if (rng_ == 0) rng_ = 1;
    ProgramFactoryFlash(flash_, serial_, scene_->calibration);
    PrepareSynthesis();
}

int32_t SimDevice::SerialNumber() const {
    if (serial_.size() != 8) return -1;
    int32_t v = 0;
    for (char c : serial_) {
        if (c < '0' || c > '9') return -1;
        v = v * 10 + (c - '0');
    }
    return v;
}

bool SimDevice::Alive(uint64_t generation) const {
    return attached_ && generation == generation_ && VirtualNowMs() >= presentAtMs_;
}

bool SimDevice::PresentNow(usb::DeviceIdentity* identity, uint64_t* generation) {
    std::lock_guard lk(mu_);
    if (!attached_ || VirtualNowMs() < presentAtMs_) return false;
    if (identity) {
        identity->vendorId = romLoader_ ? kRomVendorId : usb::kVendorId;
        identity->productId = romLoader_ ? kRomProductId : usb::kProductId;
        identity->product = product_;
        identity->serial = usbSerial_;
    }
    if (generation) *generation = generation_;
    return true;
}

void SimDevice::CountOpen() {
    std::lock_guard lk(mu_);
    ++counters_.opens;
}

bool SimDevice::HandleValid(uint64_t generation) {
    std::lock_guard lk(mu_);
    return Alive(generation);
}

// ---- vendor requests --------------------------------------------------------

bool SimDevice::TakeFault(int32_t& fault) {
    if (fault == 0) return false;
    if (fault > 0) --fault;
    return true;
}

int SimDevice::ControlIn(uint64_t generation, uint8_t request, uint8_t* data, uint16_t length) {
    std::lock_guard lk(mu_);
    if (!Alive(generation) || (data == nullptr && length > 0)) return -1;
    // The device stalls requests it does not know; the ROM loader knows none of these.
    if (request != kRequestBusyPoll || romLoader_) return -1;
    uint8_t reply[4] = {0, 0, 0, 0};
    const bool stayBusy = TakeFault(faultStayBusy_);
    reply[1] = (stayBusy || VirtualNowMs() < busyUntilMs_) ? 1 : 0;
    const uint16_t n = std::min<uint16_t>(length, 4);
    if (n > 0) std::memcpy(data, reply, n);
    ++counters_.vendorRequests;
    return n;
}

int SimDevice::ControlOut(uint64_t generation, uint8_t request, uint16_t value, uint16_t index, const uint8_t* data,
                          uint16_t length) {
    std::lock_guard lk(mu_);
    if (!Alive(generation) || (data == nullptr && length > 0)) return -1;
    if (romLoader_) return request == kRequestRamWrite ? RomRequest(value, index, data, length) : -1;
    switch (request) {
    case kRequestReboot:
        // Both personalities restart from the boot sector; the request itself
        // completes before the device drops off the bus.
        ++counters_.vendorRequests;
        BootFromFlash(kReenumerateMs);
        return 0;
    case kRequestFanSetPoint:
        if (!runFirmware_ || length < 2) return -1;
        run_.fanSetPointRaw = static_cast<uint16_t>(data[0] | data[1] << 8);
        ++counters_.vendorRequests;
        return 2;
    default:
        return -1;
    }
}

int SimDevice::RomRequest(uint16_t /*address low: RAM fills in order*/, uint16_t index, const uint8_t* data, uint16_t length) {
    ++counters_.vendorRequests;
    if (index == 0xFFFF && length == 4) {
        // The jump: only an image whose words add up to its checksum runs.
        const bool whole = !ram_.empty() && LoadLE<uint32_t>(data) == ramSum_;
        std::vector<uint8_t> ram = std::move(ram_);
        ram_.clear();
        ramSum_ = 0;
        if (!whole) return -1;
        flashVersion_ = FlashFirmwareVersion(flash_);
        Reenumerate(Mode::Loader, FirmwareSerial(ram, "LX530 Boot"));
        return 4;
    }
    for (uint16_t k = 0; k + 4 <= length; k += 4) ramSum_ += LoadLE<uint32_t>(data + k);
    ram_.insert(ram_.end(), data, data + length / 4 * 4);
    return length;
}

void SimDevice::BootFromFlash(uint64_t absentMs) {
    const FirmwareInfo boot = InspectFlashImage(flash_, kBootImagePage, "LX530 Boot");
    flashVersion_ = FlashFirmwareVersion(flash_);
    if (boot.valid)
        Reenumerate(Mode::Loader, boot.serial, absentMs);
    else
        Reenumerate(Mode::Rom, "", absentMs);
}

void SimDevice::StartInRomLoader() {
    std::lock_guard lk(mu_);
    flash_.EraseSector(kBootImagePage);
    romLoader_ = true;
    runFirmware_ = false;
    product_ = kRomProduct;
    usbSerial_.clear();
}

void SimDevice::Reenumerate(Mode mode, std::string usbSerial, uint64_t absentMs) {
    // The tick counter and the GPS receiver run on through the restart.
    const auto now = Clock::now();
    SyncTime(now);
    RunGps();
    ++generation_;
    ++counters_.reenumerations;
    runFirmware_ = mode == Mode::Run;
    romLoader_ = mode == Mode::Rom;
    product_ = mode == Mode::Run ? "LX530" : mode == Mode::Loader ? "LX530 Boot" : kRomProduct;
    usbSerial_ = std::move(usbSerial);
    ram_.clear();
    ramSum_ = 0;
    presentAtMs_ = VirtualNowMs() + absentMs;
    busyUntilMs_ = std::max(busyUntilMs_, presentAtMs_ + kBootBusyMs);
    FailPending();
    items_.clear();
    shortPackets_.clear();
    producedEnd_ = committedEnd_ = delivered_ = 0;
    run_ = RunState{};
    origin_ = now - WallTime(static_cast<double>(samplePos_), scene_->paceRate);
    idleMark_ = now;
    pendingIq_ = 0;
    pendingStatus_ = 0;
}

void SimDevice::SyncTime(Clock::time_point now) {
    const uint64_t virtualMs = VirtualNowMs();
    const uint64_t dv = virtualMs - std::min(virtualMs, virtualSeenMs_);
    virtualSeenMs_ = std::max(virtualMs, virtualSeenMs_);
    samplePos_ += dv * (kTicksPerMs / 2);
    if (scene_->pacing == Pacing::Realtime) {
        // The ADC ran on while nothing was requested.
        origin_ -= WallTime(static_cast<double>(dv * (kTicksPerMs / 2)), scene_->paceRate);
        const double elapsed = std::chrono::duration<double>(now - origin_).count();
        samplePos_ = std::max(samplePos_, static_cast<uint64_t>(std::max(0.0, elapsed) * fe::kSampleRateHz *
                                                                scene_->paceRate));
    } else if (pendingIq_ == 0 && now > idleMark_) {
        samplePos_ += static_cast<uint64_t>(std::chrono::duration<double>(now - idleMark_).count() * fe::kSampleRateHz);
        idleMark_ = now;
    }
}

void SimDevice::RunGps() {
    // The reference follows the tune word: a moved word retunes what comes next.
    if (gps_.RunTo(DeviceTick(), run_.osc, scene_->temperatureC)) run_.config.reset();
}

void SimDevice::FailPending() {
    for (SimTransfer* t : inQueue_) t->state_ = SimTransfer::State::Failed;
    inQueue_.clear();
    cv_.notify_all();
}

// ---- bulk transfers ---------------------------------------------------------

std::unique_ptr<usb::BulkTransfer> SimDevice::BeginBulk(uint64_t generation, usb::Endpoint ep, uint8_t* buffer,
                                                        uint32_t length) {
    auto t = std::make_unique<SimTransfer>();
    t->device_ = shared_from_this();
    t->ep_ = ep;
    t->buffer_ = buffer;
    t->length_ = length;
    std::lock_guard lk(mu_);
    if (!Alive(generation) || romLoader_ || (buffer == nullptr && length > 0)) {
        t->state_ = SimTransfer::State::Failed;
        return t;
    }
    t->submitted_ = Clock::now();
    if (ep == usb::Endpoint::BulkOut) {
        if (TakeFault(faultOutStall_)) {
            t->stalled_ = true; // never taken: the host times out and aborts it
            return t;
        }
        // The device takes a command block as soon as it arrives. The boot
        // loader fails the transfer of a block whose flash operation failed.
        outFailed_ = false;
        ExecuteBlock(buffer, length);
        if (outFailed_) {
            t->state_ = SimTransfer::State::Failed;
        } else {
            t->actual_ = length;
            t->state_ = SimTransfer::State::Done;
            ++counters_.outTransfers;
        }
        cv_.notify_all();
        return t;
    }
    t->stalled_ = TakeFault(faultStall_);
    t->shortFault_ = TakeFault(faultShort_);
    inQueue_.push_back(t.get());
    return t;
}

usb::WaitResult SimDevice::WaitBulk(SimTransfer& t, uint32_t timeoutMs) {
    std::unique_lock lk(mu_);
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    if (t.ep_ == usb::Endpoint::BulkOut && t.stalled_) return usb::WaitResult::TimedOut;
    for (;;) {
        if (t.state_ == SimTransfer::State::Done) return usb::WaitResult::Completed;
        if (t.state_ == SimTransfer::State::Failed) return usb::WaitResult::Failed;
        const auto next = Pump();
        if (t.state_ != SimTransfer::State::Pending) continue;
        // A stalled endpoint never answers: there is nothing to wait for.
        if (!inQueue_.empty() && inQueue_.front()->stalled_) return usb::WaitResult::TimedOut;
        const auto now = Clock::now();
        if (now >= deadline) return usb::WaitResult::TimedOut;
        cv_.wait_until(lk, std::min(deadline, next));
    }
}

void SimDevice::AbortEndpoint(uint64_t generation, usb::Endpoint ep) {
    std::lock_guard lk(mu_);
    if (ep != usb::Endpoint::BulkIn || generation != generation_) return;
    Pump();
    // What the device already sent into the first transfer stays there.
    bool first = true;
    for (SimTransfer* t : inQueue_) {
        if (first && !t->stalled_) {
            const uint64_t avail = std::min(committedEnd_, ReadyEnd(Clock::now()));
            uint64_t n = avail > delivered_ ? avail - delivered_ : 0;
            n = std::min<uint64_t>(n, t->length_);
            if (!shortPackets_.empty()) n = std::min(n, shortPackets_.front() - delivered_);
            Deliver(t->buffer_, n, t->submitted_);
            t->actual_ = static_cast<uint32_t>(n);
        }
        first = false;
        t->state_ = SimTransfer::State::Done;
    }
    inQueue_.clear();
    cv_.notify_all();
}

uint32_t SimDevice::FinishBulk(SimTransfer& t) {
    std::lock_guard lk(mu_);
    return t.state_ == SimTransfer::State::Done ? t.actual_ : 0;
}

uint64_t SimDevice::ReadyEnd(Clock::time_point now) const {
    if (scene_->pacing != Pacing::Realtime) return producedEnd_;
    uint64_t end = delivered_;
    for (const OutItem& it : items_) {
        if (it.readyAt > now) break;
        end = it.start + it.size;
    }
    return end;
}

SimDevice::Clock::time_point SimDevice::Pump() {
    const bool paced = scene_->pacing == Pacing::Realtime;
    while (!inQueue_.empty()) {
        SimTransfer* t = inQueue_.front();
        if (t->stalled_) break;
        while (!shortPackets_.empty() && shortPackets_.front() <= delivered_) shortPackets_.pop_front();
        uint64_t target = delivered_ + t->length_;
        if (!shortPackets_.empty()) target = std::min(target, shortPackets_.front());
        if (committedEnd_ < target) break;
        if (paced && target > delivered_) {
            // The packet holding the transfer's last byte must have been captured.
            for (const OutItem& it : items_) {
                if (it.start + it.size >= target) {
                    if (it.readyAt > Clock::now()) return it.readyAt;
                    break;
                }
            }
        }
        const uint64_t n = target - delivered_;
        Deliver(t->buffer_, n, t->submitted_);
        t->actual_ = static_cast<uint32_t>(t->shortFault_ ? (n >= 8 ? n - 8 : 0) : n);
        t->state_ = SimTransfer::State::Done;
        ++counters_.inTransfers;
        inQueue_.pop_front();
    }
    return Clock::time_point::max();
}

void SimDevice::Deliver(uint8_t* dst, uint64_t n, Clock::time_point submitted) {
    while (n > 0 && !items_.empty()) {
        OutItem& it = items_.front();
        const uint64_t off = delivered_ - it.start;
        const uint64_t take = std::min<uint64_t>(n, it.size - off);
        const bool whole = off == 0 && take == it.size;
        if (whole && it.bytes.empty() && it.kind == OutItem::Kind::Iq &&
            reinterpret_cast<uintptr_t>(dst) % alignof(int16_t) == 0) {
            RenderItem(it, dst, submitted);
        } else {
            if (it.bytes.empty()) {
                it.bytes.resize(it.size);
                RenderItem(it, it.bytes.data(), submitted);
            }
            std::memcpy(dst, it.bytes.data() + off, take);
        }
        dst += take;
        n -= take;
        delivered_ += take;
        if (delivered_ == it.start + it.size) {
            if (it.kind == OutItem::Kind::Iq) {
                ++counters_.iqPackets;
                if (pendingIq_ > 0 && --pendingIq_ == 0) idleMark_ = Clock::now();
            }
            if (it.kind == OutItem::Kind::Aux) ++counters_.auxPackets;
            items_.pop_front();
        }
    }
}

void SimDevice::RenderItem(OutItem& it, uint8_t* dst, Clock::time_point submitted) {
    const Scene& scene = *scene_;
    switch (it.kind) {
    case OutItem::Kind::Bytes:
        return; // flash reads carry their content from the start
    case OutItem::Kind::Iq: {
        const RenderPlan& plan = PlanFor(it.config);
        // sampleIndex counts ADC samples and is a multiple of the decimation
        // (QueueTransferRequest).
        if (RenderIqPacket(plan, it.sampleIndex, NextRandom(rng_), reinterpret_cast<int16_t*>(dst)))
            pendingStatus_ |= fe::kStatusAdcOverflow;
        // The FIFO drains into a transfer as soon as the host has queued
        // one (DMA needs no host thread): a packet is lost only if it waited
        // in the FIFO longer than the FIFO lasts for a buffer to go to. When
        // the host thread comes to reap, which is when it is rendered here,
        // does not matter.
        if (scene.pacing == Pacing::Realtime &&
            submitted - it.readyAt >
                std::chrono::duration<double>(DeviceBufferSeconds(plan.decimation) / scene.paceRate))
            pendingStatus_ |= fe::kStatusDataLoss;
        return;
    }
    case OutItem::Kind::Aux: {
        std::memset(dst, 0, kAuxPacketBytes);
        const bool bad = TakeFault(faultBadMagic_);
        AuxWrite<uint32_t>(dst, kAuxMagicOffset, bad ? ~kAuxMagic : kAuxMagic);
        AuxWrite<uint32_t>(dst, kAuxFirmwareRevisionOffset, scene.firmware[2]);
        // A version stored with the boot image wins over the scene's.
        const bool stored = flashVersion_ >= 0;
        AuxWrite<uint16_t>(dst, kAuxFirmwareMinorOffset,
                           static_cast<uint16_t>(stored ? flashVersion_ & 0xFF : scene.firmware[1]));
        AuxWrite<uint16_t>(dst, kAuxFirmwareMajorOffset,
                           static_cast<uint16_t>(stored ? flashVersion_ >> 8 : scene.firmware[0]));
        // Behind a block of B samples at decimation D1 the counter K places
        // the block's first sample at antenna tick K - 2 D1 B + L(D1)
        // (lx_command/status_packet.h); alone, it is the device's tick.
        const int64_t pipeline = it.blockSpan > 0 ? PipelineOffsetTicks(it.blockDecimation) : 0;
        AuxWrite<uint64_t>(dst, kAuxSampleCounterOffset, 2 * it.sampleIndex - static_cast<uint64_t>(pipeline));
        if (it.blockSpan > 0 && scene.trigger) {
            if (const auto edge = FirstTriggerEdge(*scene.trigger, it.triggerEdge, it.blockFirst,
                                                   it.blockFirst + it.blockSpan)) {
                AuxWrite<uint32_t>(dst, kAuxTriggerFlagsOffset, kAuxTriggerExternal);
                AuxWrite<uint32_t>(dst, kAuxTriggerPositionOffset, static_cast<uint32_t>(2 * (*edge - it.blockFirst)));
            }
        }
        AuxWrite<uint16_t>(dst, kAuxOscTuneWordOffset, it.gps.tuneWord);
        uint32_t status = pendingStatus_ | (it.lateLoss ? fe::kStatusDataLoss : 0u);
        if (!scene.dithering) status |= kAuxStatusNoDither;
        if (it.gps.timebaseFollowsGps) status |= kAuxStatusGpsTimebase;
        AuxWrite<uint32_t>(dst, kAuxStatusWordOffset, status);
        pendingStatus_ = 0;
        AuxWritePulseCounter(dst, it.gps.pulseTick);
        AuxWrite<uint32_t>(dst, kAuxGpsStatusOffset, it.gps.statusWord);
        static_assert(sizeof(UartRing) == kAuxUartRingBytes);
        if (it.gps.ring) std::memcpy(dst + kAuxUartRingOffset, it.gps.ring->data(), kAuxUartRingBytes);
        AuxWrite<uint16_t>(dst, kAuxSupplyVoltageOffset, Raw16(scene.supplyV, 0.00553));
        AuxWrite<uint16_t>(dst, kAuxSupplyCurrentOffset, Raw16(scene.supplyA, 0.002));
        // The fan controller runs the fan harder the further the instrument is
        // above its set point; the reading is the duty cycle in percent.
        const double setPoint = run_.fanSetPointRaw * 0.0625;
        const double duty = std::clamp(30.0 + 10.0 * (scene.temperatureC - setPoint), 0.0, 100.0);
        AuxWrite<uint16_t>(dst, kAuxFanOffset, Raw16(duty, 0.078125));
        AuxWrite<uint16_t>(dst, kAuxFanSetPointOffset, run_.fanSetPointRaw);
        AuxWrite<uint16_t>(dst, kAuxTemperatureOffset, TemperatureToWord(static_cast<float>(scene.temperatureC)));
        return;
    }
    }
}

// ---- command interpreter ------------------------------------------------------

void SimDevice::Log(uint32_t w) {
    log_[(logHead_ + logCount_) % kCommandLogWords] = w;
    if (logCount_ < kCommandLogWords)
        ++logCount_;
    else
        logHead_ = (logHead_ + 1) % kCommandLogWords;
}

void SimDevice::ExecuteBlock(const uint8_t* data, uint32_t length) {
    const size_t count = length / 4;
    blockTime_ = Clock::now(); // the device executes a block in one instant
    std::vector<uint32_t> words(count);
    for (size_t i = 0; i < count; ++i) words[i] = LoadLE<uint32_t>(data + 4 * i);
    counters_.commandBlocks += (length + 2047) / 2048;
    const uint64_t generation = generation_;
    for (size_t i = 0; i < count && generation == generation_; ++i) {
        const uint32_t w = words[i];
        if (w == kFillerWord) continue;
        Log(w);
        ++counters_.commandWords;
        if (runFirmware_) {
            ExecuteRunWord(w);
        } else if (!ExecuteBootWord(words.data(), count, i)) {
            break;
        }
    }
}

bool SimDevice::ExecuteBootWord(const uint32_t* words, size_t count, size_t& i) {
    const uint32_t w = words[i];
    const uint32_t page = w & 0xFFFF;
    switch (w >> 16) {
    case 0xFFFA:
        if (w == 0xFFFA0003) {
            // A run image that is not whole does not start: the loader stays.
            const FirmwareInfo run = InspectFlashImage(flash_, kRunImagePage, "LX530");
            if (!run.valid) return true;
            Reenumerate(Mode::Run, run.serial);
            return false;
        }
        return true;
    case 0xFFFC:
        if (TakeFault(faultErase_)) {
            outFailed_ = true; // the chip reports the failure; the sector is as it was
            return false;
        }
        flash_.EraseSector(page);
        ++counters_.flashPageErases;
        busyUntilMs_ = std::max(busyUntilMs_, VirtualNowMs()) + kEraseBusyMs;
        return true;
    case 0xFFFD: {
        OutItem it;
        it.kind = OutItem::Kind::Bytes;
        it.start = producedEnd_;
        it.size = kFlashReadBytes;
        it.readyAt = Clock::now();
        it.bytes.resize(kFlashReadBytes);
        flash_.Read(page, it.bytes);
        items_.push_back(std::move(it));
        producedEnd_ += kFlashReadBytes;
        ++counters_.flashReads;
        Commit(true, kFlashReadBytes);
        return true;
    }
    case 0xFFFE: {
        // 256 data words follow in the same block; missing ones program nothing.
        uint8_t data[NorFlash::kPageBytes];
        std::memset(data, 0xFF, sizeof data);
        for (size_t k = 0; k < 256 && i + 1 < count; ++k) StoreLE<uint32_t>(data + 4 * k, words[++i]);
        if (TakeFault(faultProgram_)) {
            outFailed_ = true; // the chip reports the failure; the page is as it was
            return false;
        }
        if (TakeFault(faultPowerLoss_)) {
            // The supply fails half way through the page: what was programmed
            // stays, the rest of the page and of the sector does not come.
            flash_.Program(page, {data, NorFlash::kPageBytes / 2});
            outFailed_ = true;
            BootFromFlash(kPowerOffMs);
            return false;
        }
        const auto zero = std::find_if(std::begin(data), std::end(data), [](uint8_t b) { return b != 0xFF; });
        if (zero != std::end(data) && TakeFault(faultBitFlip_)) {
            // A weak cell: one bit that should be programmed stays set, and
            // nothing tells the host but reading the page back.
            const unsigned cleared = ~*zero & 0xFFu;
            *zero |= static_cast<uint8_t>(cleared & (~cleared + 1u)); // its lowest programmed bit
        }
        flash_.Program(page, data);
        ++counters_.flashPageWrites;
        busyUntilMs_ = std::max(busyUntilMs_, VirtualNowMs()) + kWriteBusyMs;
        return true;
    }
    default:
        return true; // the loader ignores run-firmware words
    }
}

void SimDevice::ExecuteRunWord(uint32_t w) {
    const uint32_t op = w >> 24;
    const uint32_t operand = w & 0xFFFFFF;
    switch (op) {
    case 0x20: // synthesizer register write
        run_.synth.reg[(operand >> 16) & 0x7F] = static_cast<uint16_t>(operand);
        run_.config.reset();
        break;
    case 0x24:
        run_.ifLevel = static_cast<uint8_t>(operand);
        run_.config.reset();
        break;
    case 0x2C:
        run_.bandOperand = operand;
        run_.config.reset();
        run_.streaming = false;
        break;
    case 0x2E:
        // Pulses before this word steered the old word.
        SyncTime(blockTime_);
        RunGps();
        run_.osc.tuneWord = static_cast<uint16_t>(operand);
        run_.osc.autoTarget.reset();
        run_.config.reset();
        break;
    case 0x2D:
        run_.reference = operand;
        break;
    case 0x2F: {
        SyncTime(blockTime_);
        RunGps();
        const bool follow = (operand & 1) != 0;
        if (follow != run_.osc.followGps) run_.osc.autoTarget.reset();
        run_.osc.followGps = follow;
        break;
    }
    case 0x28: // to the GPS receiver's UART: two bytes, little-endian
    case 0x29:
        gpsInput_.push_back(static_cast<uint8_t>(operand));
        gpsInput_.push_back(static_cast<uint8_t>(operand >> 8));
        while (gpsInput_.size() > kGpsInputBytes) gpsInput_.pop_front();
        break;
    case 0x27:
        run_.gpio = operand & 0xFF;
        break;
    case kOpTriggerEdge:
        run_.triggerEdge = operand & 1;
        break;
    case 0x30:
        run_.captureControl = operand;
        run_.config.reset();
        run_.streaming = false;
        break;
    case 0x32: // stop: the next request starts a new capture
        run_.streaming = false;
        break;
    case 0x10: {
        // Settle: the device waits `count` ticks before it goes on, so the
        // next data starts that much later on the timeline.
        SyncTime(blockTime_);
        samplePos_ += (operand + 1) / 2;
        break;
    }
    case 0x31:
        QueueTransferRequest(w);
        break;
    default:
        if (op >= 0x40 && op <= 0x7F) {
            run_.taps[op - 0x40] = static_cast<uint16_t>(operand);
            run_.config.reset();
        }
        // Settle, spacer, stop, converter, power-up, switch and GPIO UART words
        // change nothing the simulation models; the log keeps them.
        break;
    }
}

std::shared_ptr<const CaptureConfig> SimDevice::CurrentConfig() {
    if (run_.config) return run_.config;
    auto c = std::make_shared<CaptureConfig>();
    const fe::RfPath path = fe::DecodeBandWord(run_.bandOperand);
    c->band = path.band;
    c->attenuationDb = path.attenuationDb;
    c->ifLevel = run_.ifLevel;
    c->tuneWord = run_.osc.tuneWord;
    c->filter = fe::DeviceFilter(run_.taps);
    c->decimation = fe::DecimationForCode(run_.captureControl);
    if (path.band >= 0) {
        const double synth = fe::SynthOutputHz(run_.synth, fe::BandUsesHighOutput(path.band));
        c->locked = synth > 0;
        c->loHz = fe::LoHz(path.band, synth);
        c->centreHz = fe::CaptureCentreHz(path.band, c->loHz);
    }
    run_.config = c;
    return c;
}

void SimDevice::QueueTransferRequest(uint32_t w) {
    if (TakeFault(faultNoAnswer_)) return;
    const uint32_t iq = w & 0xFF;
    const uint32_t aux = (w >> 8) & 0x7;
    const bool paced = scene_->pacing == Pacing::Realtime;
    const auto now = Clock::now();
    SyncTime(blockTime_);
    RunGps();
    const auto readyOf = [&](uint64_t sampleEnd) {
        if (!paced) return now;
        return origin_ + WallTime(static_cast<double>(sampleEnd), scene_->paceRate);
    };
    auto config = iq > 0 ? CurrentConfig() : nullptr;
    const uint64_t before = producedEnd_;
    const uint64_t factor = config ? static_cast<uint64_t>(config->decimation) : 1;
    // The decimator keeps the ADC samples whose index is a multiple of its
    // factor: a decimated capture starts on the next such sample.
    uint64_t pos = iq > 0 ? (samplePos_ + factor - 1) / factor * factor : samplePos_;
    // A paced stream captures on between requests into the device's FIFO: a
    // request that comes while the samples after the last one are still held
    // continues the stream without a gap; later, they have been overwritten,
    // and the stream goes on from the present with the loss reported.
    bool lateLoss = false;
    if (iq > 0 && paced && run_.streaming && pos > run_.streamEnd) {
        const auto held = static_cast<uint64_t>(DeviceBufferSeconds(static_cast<int>(factor)) * fe::kSampleRateHz);
        if (pos - run_.streamEnd <= held)
            pos = run_.streamEnd;
        else
            lateLoss = true;
    }
    for (uint32_t k = 0; k < iq; ++k) {
        OutItem it;
        it.kind = OutItem::Kind::Iq;
        it.start = producedEnd_;
        it.size = kIqPacketBytes;
        it.sampleIndex = pos;
        pos += kIqPacketSamples * factor;
        it.readyAt = readyOf(pos);
        it.config = config;
        items_.push_back(std::move(it));
        producedEnd_ += kIqPacketBytes;
        ++pendingIq_;
    }
    const uint64_t blockSpan = iq * static_cast<uint64_t>(kIqPacketSamples) * factor;
    // Device time never runs backwards; a continued stream's samples may lie
    // in its past.
    samplePos_ = std::max(samplePos_, pos);
    if (iq > 0) {
        run_.streaming = true;
        run_.streamEnd = pos;
    }
    AuxGps gps;
    if (aux > 0) {
        // The status packets report the receiver and the reference as of
        // their own tick, behind this request's samples.
        RunGps();
        gps.statusWord = gps_.StatusWord();
        gps.pulseTick = gps_.PulseTick();
        gps.timebaseFollowsGps = run_.osc.followGps && gps_.HasFix();
        gps.tuneWord = run_.osc.tuneWord;
        gps.ring = gps_.Ring();
    }
    for (uint32_t k = 0; k < aux; ++k) {
        OutItem it;
        it.kind = OutItem::Kind::Aux;
        it.start = producedEnd_;
        it.size = kAuxPacketBytes;
        it.sampleIndex = pos;
        it.readyAt = readyOf(pos);
        it.gps = gps;
        it.blockFirst = pos - blockSpan;
        it.blockSpan = blockSpan;
        it.blockDecimation = static_cast<int>(factor);
        it.triggerEdge = run_.triggerEdge;
        it.lateLoss = lateLoss;
        items_.push_back(std::move(it));
        producedEnd_ += kAuxPacketBytes;
    }
    Commit((w & kFlushFlag) != 0, producedEnd_ - before);
}

void SimDevice::Commit(bool shortPacket, uint64_t answerBytes) {
    if (shortPacket) {
        const bool partial = producedEnd_ > committedEnd_;
        committedEnd_ = producedEnd_;
        if ((answerBytes > 0 || partial) &&
            (shortPackets_.empty() || shortPackets_.back() != producedEnd_))
            shortPackets_.push_back(producedEnd_);
    } else {
        committedEnd_ += (producedEnd_ - committedEnd_) / kDmaBufferBytes * kDmaBufferBytes;
    }
}

namespace {
bool SameCapture(const CaptureConfig& a, const CaptureConfig& b) {
    return a.band == b.band && a.attenuationDb == b.attenuationDb && a.ifLevel == b.ifLevel && a.locked == b.locked &&
           a.loHz == b.loHz && a.centreHz == b.centreHz && a.tuneWord == b.tuneWord &&
           a.decimation == b.decimation && a.filter.taps() == b.filter.taps();
}
} // namespace

const RenderPlan& SimDevice::PlanFor(const std::shared_ptr<const CaptureConfig>& config) {
    if (config == planConfig_ && scene_ == planScene_) return plan_;
    planConfig_ = config;
    planScene_ = scene_;
    // A step list retunes for every step and comes back to the same tunings
    // pass after pass: plans are kept per tuning for the scene in force
    // (working one out takes milliseconds, longer than a step's data).
    if (planCacheScene_ != scene_) {
        planCache_.clear();
        planCacheScene_ = scene_;
    }
    for (const auto& [c, plan] : planCache_)
        if (SameCapture(*c, *config)) return plan_ = plan;
    ComputePlan(*config);
    // A gate placed in UTC depends on the receiver's pulses as well: not kept.
    const bool utc = std::any_of(scene_->emitters.begin(), scene_->emitters.end(),
                                 [](const Emitter& e) { return e.gate && e.gate->startUtc; });
    if (!utc) {
        if (planCache_.size() == kPlanCacheSize) planCache_.pop_front();
        planCache_.emplace_back(config, plan_);
    }
    return plan_;
}

void SimDevice::ComputePlan(const CaptureConfig& config) {
    const Scene& s = *scene_;
    const CaptureConfig& c = config;
    plan_ = RenderPlan{};
    const int R = std::max(c.decimation, 1);
    plan_.decimation = R;
    const double k = 1.0 + fe::ReferenceError(c.tuneWord, s.temperatureC);
    const double fs = fe::kSampleRateHz * k;
    const double centre = c.centreHz * k;
    // Noise: the scene's density through the front end (gain at the centre,
    // IF response) plus the ADC's own, both through the device filter and
    // the decimator. The decimator keeps 1/R of the band and of the noise
    // power: the density stays, the delivered samples carry 1/R of it.
    const double adcNoise = std::pow(10.0, (fe::kAdcNoiseDbfsPerHz + 10.0 * std::log10(fe::kSampleRateHz)) / 10.0);
    double sceneNoise = 0;
    if (c.band >= 0) {
        const double g = fe::GainDb(c.band, c.locked ? centre : 0.0, c.attenuationDb, s.temperatureC, c.ifLevel);
        sceneNoise = std::pow(10.0, (s.noiseFloorDbmHz + g + 10.0 * std::log10(fs)) / 10.0);
    }
    plan_.noiseShape = NoiseShape([&](double cyclesOut) {
        const double hz = cyclesOut * fs / R;
        const double ifr = c.band >= 0 ? std::norm(fe::IfResponseAt(c.band, hz, s.temperatureC)) : 0.0;
        const double dec = fe::DecimatorResponse(cyclesOut, R);
        return (sceneNoise * ifr + adcNoise) * std::norm(c.filter.Response(cyclesOut / R)) * dec * dec / R;
    });
    if (c.band < 0 || !c.locked) return;
    const bool mirrored = fe::BandMirrored(c.band);
    // A component at RF frequency f with peak amplitude `amplitude` at the
    // input, through the front end: null when the capture does not pass it.
    const auto component = [&](double f, double amplitude, double phaseCycles) -> std::optional<ToneComponent> {
        const double offset = f - centre;
        const double baseband = mirrored ? -offset : offset;
        // Cycles per delivered sample: beyond the decimated band the
        // decimator takes a component out, never folds it in.
        const double cycles = baseband / fs * R;
        const std::complex<double> response = fe::IfResponseAt(c.band, baseband, s.temperatureC) *
                                              c.filter.Response(baseband / fs) * fe::DecimatorResponse(cycles, R);
        if (std::abs(response) <= 0.0) return std::nullopt;
        const double g = fe::GainDb(c.band, f, c.attenuationDb, s.temperatureC, c.ifLevel);
        ToneComponent t;
        t.amplitude = static_cast<float>(amplitude * std::pow(10.0, g / 20.0) * std::abs(response));
        t.cyclesPerSample = cycles;
        t.phaseCycles = (mirrored ? -phaseCycles : phaseCycles) + std::arg(response) / (2.0 * std::numbers::pi);
        return t;
    };
    for (const Emitter& e : s.emitters) {
        const double a = std::pow(10.0, e.powerDbm / 20.0); // peak of the unmodulated carrier, sqrt(mW)
        const double phase = e.phaseDeg / 360.0;
        const bool sine = !e.audio;
        if (e.kind == Emitter::Kind::Tone && !e.gate) {
            if (auto t = component(e.frequencyHz, a, phase)) plan_.tones.push_back(*t);
            continue;
        }
        if (e.kind == Emitter::Kind::Ssb && sine) {
            const double f = e.frequencyHz + (e.upper ? e.audioHz : -e.audioHz);
            if (auto t = component(f, a, phase)) plan_.tones.push_back(*t);
            continue;
        }
        const auto carrier = component(e.frequencyHz, a, phase);
        if (!carrier) continue;
        ModulatedComponent m;
        m.kind = e.kind;
        m.carrier = *carrier;
        m.gate = e.gate;
        if (m.gate && m.gate->startUtc) {
            const auto at = gps_.SampleOfUtc(*m.gate->startUtc, c.tuneWord, s.temperatureC);
            if (!at) continue; // no receiver clock to place it by
            m.gate->start += *at;
            m.gate->startUtc.reset();
        }
        m.audioCyclesPerAdcSample = e.audioHz / fe::kSampleRateHz;
        m.depth = static_cast<float>(e.depth);
        m.sideband = (e.upper != mirrored) ? 1.0f : -1.0f;
        m.audio = e.audio;
        if (e.kind == Emitter::Kind::Fm) {
            if (e.audio) {
                m.fmCycles = FmPhaseTable(*e.audio, mirrored ? -e.deviationHz : e.deviationHz, e.preemphasisS);
            } else {
                // Pre-emphasis 1 + j 2 pi f tau lifts and advances the sine.
                const std::complex<double> pre(1.0, 2.0 * std::numbers::pi * e.audioHz * e.preemphasisS);
                m.fmPeakCycles =
                    static_cast<float>((mirrored ? -1 : 1) * e.deviationHz * std::abs(pre) / (2.0 * std::numbers::pi * e.audioHz));
                m.audioPhaseCycles = std::arg(pre) / (2.0 * std::numbers::pi);
            }
        }
        plan_.modulated.push_back(std::move(m));
    }
}

// ---- lx_sim.h side --------------------------------------------------------------

void SimDevice::Detach() {
    std::lock_guard lk(mu_);
    attached_ = false;
    ++generation_;
    FailPending();
}

void SimDevice::SetScene(std::shared_ptr<const Scene> scene) {
    std::lock_guard lk(mu_);
    // Time up to now passed under the old scene, its receiver included.
    const auto now = Clock::now();
    SyncTime(now);
    RunGps();
    if (scene->calibration != scene_->calibration) ProgramCalibration(flash_, scene->calibration);
    if (scene->pacing == Pacing::Realtime &&
        (scene_->pacing != Pacing::Realtime || scene->paceRate != scene_->paceRate)) {
        // Continue the ADC timeline from where the unpaced stream (or the
        // clock at its former rate) left it.
        origin_ = now - WallTime(static_cast<double>(samplePos_), scene->paceRate);
    }
    if (scene->pacing != Pacing::Realtime) idleMark_ = now;
    gps_.Configure(scene->gps);
    scene_ = std::move(scene);
    cv_.notify_all();
}

bool SimDevice::InjectFault(int32_t fault, int32_t count) {
    std::lock_guard lk(mu_);
    switch (fault) {
    case lxSimFaultNone:
        faultStall_ = faultShort_ = faultBadMagic_ = faultNoAnswer_ = faultStayBusy_ = 0;
        faultProgram_ = faultErase_ = faultOutStall_ = faultBitFlip_ = faultPowerLoss_ = 0;
        break;
    case lxSimFaultFlashProgram: faultProgram_ = count; break;
    case lxSimFaultFlashErase: faultErase_ = count; break;
    case lxSimFaultOutStall: faultOutStall_ = count; break;
    case lxSimFaultFlashBitFlip: faultBitFlip_ = count; break;
    case lxSimFaultPowerLoss: faultPowerLoss_ = count; break;
    case lxSimFaultStall: faultStall_ = count; break;
    case lxSimFaultShortTransfer: faultShort_ = count; break;
    case lxSimFaultBadMagic: faultBadMagic_ = count; break;
    case lxSimFaultNoAnswer: faultNoAnswer_ = count; break;
    case lxSimFaultStayBusy: faultStayBusy_ = count; break;
    default: return false;
    }
    cv_.notify_all();
    return true;
}

LxSimCounters SimDevice::Counters() {
    std::lock_guard lk(mu_);
    return counters_;
}

void SimDevice::ResetCounters() {
    std::lock_guard lk(mu_);
    counters_ = LxSimCounters{};
}

bool SimDevice::RunFirmware() {
    std::lock_guard lk(mu_);
    return runFirmware_;
}

bool SimDevice::RomLoader() {
    std::lock_guard lk(mu_);
    return romLoader_;
}

size_t SimDevice::CommandLog(uint32_t* words, size_t capacity) {
    std::lock_guard lk(mu_);
    const size_t n = std::min(capacity, logCount_);
    for (size_t i = 0; words && i < n; ++i) words[i] = log_[(logHead_ + i) % kCommandLogWords];
    return logCount_;
}

void SimDevice::ClearCommandLog() {
    std::lock_guard lk(mu_);
    logHead_ = logCount_ = 0;
}

size_t SimDevice::GpsInput(uint8_t* bytes, size_t capacity) {
    std::lock_guard lk(mu_);
    const size_t n = std::min(capacity, gpsInput_.size());
    if (bytes) std::copy_n(gpsInput_.begin(), n, bytes);
    return gpsInput_.size();
}

} // namespace lx::sim
