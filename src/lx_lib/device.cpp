#include "lx_lib/device.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "cal/cal_record.h"
#include "cal/correction.h"
#include "common/lx_assert.h"
#include "lx_command/command_list.h"
#include "lx_command/encoders.h"
#include "lx_command/status_packet.h"
#include "lx_lib/cal_files.h"

namespace lx {

namespace {

constexpr uint32_t kHousekeepingMaxAgeMs = 1000;
constexpr uint32_t kHousekeepingReadBytes = 4 * kAuxPacketBytes;
constexpr uint32_t kStandbyWord = 0x2C00035F;
constexpr uint32_t kPowerUpBandWord = 0x2CA803CA;

// The last entry of the record's tune table and its time; 0x8000 and 0 when
// the table is empty.
void LastTuneEntry(const uint8_t* cal, uint16_t& value, uint64_t& time) {
    value = 0x8000;
    time = 0;
    for (int i = 0; i < kCalTuneEntries; ++i) {
        const uint16_t v = CalTuneValue(cal, i);
        if (v == kCalTuneListEnd) break;
        value = v;
        time = CalTuneTime(cal, i);
    }
}

} // namespace

uint64_t NowMs() {
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

Device::Device(std::unique_ptr<usb::UsbTransport> transport)
    : transport_(std::move(transport)), cal_(calSizeBytes) {
    BuildDummyCal(cal_.data());
    const uint8_t* read = transport_->CalImage();
    if (read && CalIsProgrammed(read)) std::memcpy(cal_.data(), read, calSizeBytes);

    uint64_t tuneTime = 0;
    LastTuneEntry(cal_.data(), coarseTune, tuneTime);
    if (LoadTimebaseFile(transport_->Serial(), timebase) &&
        static_cast<uint64_t>(timebase.timeSeconds) > tuneTime)
        coarseTune = timebase.tune;
    appliedTune = coarseTune;
}

Device::~Device() { StopEngine(); }

LxStatus Device::SendWords(const std::vector<uint32_t>& words) {
    WaitForTransport();
    CommandList list;
    list.BeginBlock();
    for (uint32_t w : words) {
        if (list.FreeWordsInBlock() == 0) list.BeginBlock();
        list.Push(w);
    }
    transport_->Send(list);
    return transport_->LinkStatus();
}

LxStatus Device::SendWord(uint32_t word) { return SendWords({word}); }

LxStatus Device::Initialise() {
    std::vector<uint32_t> init(kInitSequenceMaxWords);
    init.resize(static_cast<size_t>(EncodeInitSequence(init.data())));
    SendWords(init);
    powerState = 0;
    transport_->Sleep(50);
    SendWord(MakeWord(0x2D, reference != 1 ? 1 : 0));
    SendWord(MakeWord(0x2F, gpsTimebaseUpdate == 1 ? 1 : 0));
    WriteCoarseTune(coarseTune);
    RefreshHousekeeping();
    if (firmware[2] < 4) oldFirmware = true;
    return transport_->CalInvalid() ? lxInvalidCalData : lxNoError;
}

LxStatus Device::SetPowerState(uint32_t state) {
    if (state == powerState) return lxNoError;
    if (InStreamingMode()) return lxInvalidConfigurationErr;
    if (state == 1) {
        SendWord(kStandbyWord);
    } else {
        std::vector<uint32_t> words(1 + kSynthTableWords);
        words[0] = kPowerUpBandWord;
        EncodeSynthTable(words.data() + 1);
        SendWords(words);
        transport_->Sleep(50);
    }
    powerState = state;
    return transport_->LinkStatus();
}

int Device::TuneTemperatureOffset() const {
    const int i = std::clamp(correctionIndex, 0, kCalTempSlots - 2);
    const double f = std::isfinite(correctionFraction) ? std::clamp(correctionFraction, 0.0, 1.0) : 0.0;
    const double a = CalTuneOffset(cal_.data(), i);
    const double b = CalTuneOffset(cal_.data(), i + 1);
    double off;
    if (f == 0.0)
        off = a;
    else if (f == 1.0)
        off = b;
    else {
        const double ff = static_cast<float>(f);
        off = a * (1.0 - ff) + ff * b;
    }
    return static_cast<int>(off); // toward zero
}

LxStatus Device::WriteCoarseTune(uint16_t value) {
    if (InStreamingMode()) return lxInvalidConfigurationErr;
    coarseTune = value;
    appliedTune = static_cast<uint16_t>(TuneTemperatureOffset() + value);
    return SendWord(MakeWord(0x2E, appliedTune));
}

LxStatus Device::RefreshHousekeeping() {
    // An engine's acquisition owns the link: answer with what was last decoded.
    if (TransportClaimed()) return transport_->LinkStatus();
    CommandList list;
    list.BeginBlock();
    EncodeTransferRequest(list, 0, 4);
    transport_->Send(list);
    transport_->BeginRead(0, kHousekeepingReadBytes, 2000);
    const usb::TransferResult r = transport_->FinishRead(0);
    if (r.timedOut || r.transferred != r.requested || !r.buffer) {
        DebugOutput("Aux data xfer failed\n");
        return transport_->LinkStatus();
    }
    TakeStatusPacket(r.buffer);
    return lxNoError;
}

LxStatus Device::RefreshHousekeepingIfStale() {
    if (NowMs() - lastHousekeepingMs <= kHousekeepingMaxAgeMs && lastHousekeepingMs != 0)
        return lxNoError;
    return RefreshHousekeeping();
}

gps::GpsPacketFields GpsFieldsOf(const uint8_t* rec) {
    const uint64_t recSamples = AuxRead<uint64_t>(rec, kAuxSampleCounterOffset);
    gps::GpsPacketFields f;
    f.gpsStatusWord = AuxRead<uint32_t>(rec, kAuxGpsStatusOffset);
    f.pulseTick = AuxPulseCounter(rec);
    f.blockTick = recSamples;
    f.deviceStatusWord = AuxRead<uint32_t>(rec, kAuxStatusWordOffset);
    f.uartRing = rec + kAuxUartRingOffset;
    f.nmeaArea = rec + kAuxUartRingOffset;
    return f;
}

bool Device::TakeStatusPacket(const uint8_t* rec) {
    auxInvalid = HasAuxMagic(rec) ? 0 : 1;
    if (auxInvalid) return false;
    lastHousekeepingMs = NowMs();
    firmware[0] = AuxRead<uint16_t>(rec, kAuxFirmwareMajorOffset);
    firmware[1] = AuxRead<uint16_t>(rec, kAuxFirmwareMinorOffset);
    firmware[2] = AuxRead<uint32_t>(rec, kAuxFirmwareRevisionOffset);
    temperature = TemperatureFromWord(AuxRead<uint16_t>(rec, kAuxTemperatureOffset));
    supplyVoltage = AuxRead<uint16_t>(rec, kAuxSupplyVoltageOffset) * kAuxSupplyVoltageScale;
    supplyCurrent = AuxRead<uint16_t>(rec, kAuxSupplyCurrentOffset) * kAuxSupplyCurrentScale;
    fan = AuxRead<uint16_t>(rec, kAuxFanOffset) * kAuxFanScale;
    fanSetPoint = AuxRead<uint16_t>(rec, kAuxFanSetPointOffset) * kAuxFanSetPointScale;
    statusWord = AuxRead<uint32_t>(rec, kAuxStatusWordOffset);

    const uint64_t recSamples = AuxRead<uint64_t>(rec, kAuxSampleCounterOffset);
    const uint64_t recPulses = AuxPulseCounter(rec);
    if (sampleCounter != kUnsetStamp) {
        if (pulseCounter != kUnsetStamp) {
            if (recPulses != pulseCounter) {
                stampChanged = 1;
                pulseCounter = recPulses;
                pulseInterval = recPulses - sampleCounter;
            } else {
                stampChanged = 0;
            }
        } else {
            pulseCounter = recPulses;
            stampChanged = 0;
        }
    }
    sampleCounter = recSamples + sampleOffset;

    gps::TakeStatusPacket(gps, GpsFieldsOf(rec), hwDecimation, gps::HostNowNs());

    // Timebase follow-up: while the device disciplines its oscillator to the
    // GPS, remember where it went so the next open starts there.
    bool fix, disciplined;
    {
        std::lock_guard<std::mutex> lock(gps.mutex);
        fix = gps.nmea.fixValid;
        disciplined = gps.statusBit;
    }
    const uint16_t deviceTune = AuxRead<uint16_t>(rec, kAuxOscTuneWordOffset);
    if (fix && disciplined && std::abs(int(deviceTune) - int(appliedTune)) >= 8) {
        appliedTune = deviceTune;
        coarseTune = static_cast<uint16_t>(deviceTune - TuneTemperatureOffset());
        timebase.valid = true;
        timebase.timeSeconds = gps::HostNowNs() / 1000000000LL;
        timebase.tune = coarseTune;
        SaveTimebaseFile(transport_->Serial(), timebase);
    }
    return true;
}

void Device::ComputeCorrectionBracket() {
    if (correctionMode == 0) {
        correctionTemperature = temperature;
        const TemperatureBracketResult b = TemperatureBracket(cal_.data(), temperature);
        correctionIndex = b.slot;
        correctionFraction = b.fraction;
    } else {
        correctionIndex = manualCorrectionIndex;
        correctionFraction = 0.0;
        if (correctionIndex >= 6) {
            correctionIndex = 5;
            correctionFraction = 1.0;
        }
    }
}

void Device::StopEngine() {
    for (auto& e : engines) {
        if (!e) continue;
        const std::shared_ptr<Engine> doomed = std::move(e); // the slot is cleared first
        doomed->Stop();
    }
    ReleaseTransport();
    traceCorrection.clear();
    traceCorrectionAdditive = true;
    mode = 0;
}

void Device::ClaimTransport() {
    std::unique_lock<std::mutex> lock(claimMutex_);
    claimCv_.wait(lock, [&] { return !claimed_.load(); });
    claimed_.store(true);
    // Before the engine's threads start: a stream must not allocate.
    transport_->ReserveReadSlots();
}

void Device::ReleaseTransport() {
    {
        std::lock_guard<std::mutex> lock(claimMutex_);
        claimed_.store(false);
    }
    claimCv_.notify_all();
}

void Device::WaitForTransport() {
    std::unique_lock<std::mutex> lock(claimMutex_);
    claimCv_.wait(lock, [&] { return !claimed_.load(); });
}

LxStatus Device::Configure(int32_t requested) {
    StopEngine();
    if (const LxStatus s = SetPowerState(0); s != lxNoError) return s;
    RefreshHousekeepingIfStale();
    ComputeCorrectionBracket();
    temperatureAtConfigure = temperature;
    sampleCounter = pulseCounter = kUnsetStamp;
    stampChanged = pulseInterval = 0;
    bool gpsHeld;
    {
        std::lock_guard<std::mutex> lock(gps.mutex);
        gpsHeld = gps.nmea.fixValid && gpsTimebaseUpdate == 1;
    }
    if (!gpsHeld) {
        if (const LxStatus s = WriteCoarseTune(coarseTune); s != lxNoError) return s;
    }
    health.Reset();
    const LxStatus s = SetupMode(*this, requested);
    if (s < 0) {
        StopEngine();
        return s;
    }
    mode = requested;
    return s;
}

// ---- timebase file -------------------------------------------------------------

namespace {
constexpr size_t kTimebaseFileBytes = 64;
}

std::string TimebaseFilePath(int32_t serial) {
    const std::string folder = CacheFolder();
    if (folder.empty()) return {};
    char name[32];
    std::snprintf(name, sizeof name, "lx%08dgps.bin", serial);
    return folder + name;
}

bool LoadTimebaseFile(int32_t serial, TimebaseCache& out) {
    const std::string path = TimebaseFilePath(serial);
    if (path.empty()) return false;
    std::ifstream in(path, std::ios::binary);
    uint8_t buf[kTimebaseFileBytes];
    if (!in.read(reinterpret_cast<char*>(buf), sizeof buf)) return false;
    if (std::memcmp(buf, "lxg\0", 4) != 0 || LoadLE<uint32_t>(buf + 4) != 1) return false;
    out.valid = true;
    out.timeSeconds = LoadLE<int64_t>(buf + 8);
    out.tune = static_cast<uint16_t>(LoadLE<int64_t>(buf + 16));
    return true;
}

void SaveTimebaseFile(int32_t serial, const TimebaseCache& tb) {
    const std::string path = TimebaseFilePath(serial);
    if (path.empty()) return;
    uint8_t buf[kTimebaseFileBytes] = {};
    std::memcpy(buf, "lxg\0", 4);
    StoreLE<uint32_t>(buf + 4, 1);
    StoreLE<int64_t>(buf + 8, tb.timeSeconds);
    StoreLE<int64_t>(buf + 16, static_cast<int64_t>(tb.tune));
    // Written aside and renamed, so a crash never leaves half a record.
    const std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        if (!out) return;
        out.write(reinterpret_cast<const char*>(buf), sizeof buf);
        out.flush();
        LX_ASSERT(out.good(), "src/lx_lib");
        if (!out.good()) {
            out.close();
            std::remove(tmp.c_str());
            return;
        }
    }
    if (std::rename(tmp.c_str(), path.c_str()) != 0) std::remove(tmp.c_str());
}

} // namespace lx
