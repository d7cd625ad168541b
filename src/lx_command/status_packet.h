// Layout of the aux (status) packet: the 8192-byte record the instrument
// returns after the I/Q packets of a transfer, and in answer to a request for
// aux packets alone (housekeeping refresh, handshake).
//
// This header is the one definition of the layout for both sides: the host
// decodes packets with it, the simulated instrument writes them with it. All
// fields are little-endian; offsets are bytes from the packet's start.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lx_command/encoders.h"
#include "lx_command/little_endian.h"

namespace lx {

inline constexpr size_t kAuxRecordBytes = kAuxPacketBytes;
inline constexpr uint32_t kAuxMagic = 0x41555831; // bytes 0x31 'X' 'U' 'A' in stream order

// ---- housekeeping fields ----------------------------------------------------
inline constexpr size_t kAuxMagicOffset = 0;             // u32
inline constexpr size_t kAuxFirmwareRevisionOffset = 4;  // u32
inline constexpr size_t kAuxPulseCounterLowOffset = 16;  // u32, low half of the pulse counter
inline constexpr size_t kAuxPulseCounterHighOffset = 20; // u32, high half
inline constexpr size_t kAuxSampleCounterOffset = 32;    // u64
inline constexpr size_t kAuxOscTuneWordOffset = 44;      // u16, tune word the device uses now
inline constexpr size_t kAuxStatusWordOffset = 48;       // u32, device status word
inline constexpr size_t kAuxSupplyVoltageOffset = 68;    // u16 raw
inline constexpr size_t kAuxSupplyCurrentOffset = 74;    // u16 raw
inline constexpr size_t kAuxFirmwareMinorOffset = 76;    // u16
inline constexpr size_t kAuxFirmwareMajorOffset = 78;    // u16
inline constexpr size_t kAuxFanOffset = 80;              // u16 raw
inline constexpr size_t kAuxFanSetPointOffset = 82;      // u16 raw
inline constexpr size_t kAuxTemperatureOffset = 88;      // u16, see TemperatureFromWord

// Raw-to-unit factors of the housekeeping readings.
inline constexpr float kAuxSupplyVoltageScale = 0.00553f; // volts per count
inline constexpr float kAuxSupplyCurrentScale = 0.002f;   // amperes per count
inline constexpr float kAuxFanScale = 0.078125f;
inline constexpr float kAuxFanSetPointScale = 0.0625f;    // degrees C per count

// Device status word bits.
inline constexpr uint32_t kAuxStatusNoDither = 1u << 0;
inline constexpr uint32_t kAuxStatusAdcOverflow = 0x100;
inline constexpr uint32_t kAuxStatusDataLoss = 0x200;
inline constexpr uint32_t kAuxStatusGpsTimebase = 1u << 10; // timebase follows the GPS

// ---- GPS UART ring ----------------------------------------------------------
// The device forwards its GPS receiver's NMEA text in a ring of 512 32-bit
// words starting at word 1024 of the packet.
inline constexpr size_t kAuxUartRingOffset = 4096;
inline constexpr size_t kAuxUartRingWords = 512;
inline constexpr size_t kAuxUartRingBytes = kAuxUartRingWords * 4;

// ---- GPS status, trigger and tick fields --------------------------------------
// GPS status word: bits 9..17 ring write index, 18..19 message sequence (moves
// with every new NMEA message), 20..28 ring read index (in 32-bit words). The
// tick of the block the packet follows is the sample counter above.
inline constexpr size_t kAuxGpsStatusOffset = 92; // u32

// Trigger fields: flags (bit 0: an external trigger edge fell within the block
// the packet follows) and the edge's position in 122.88 MHz ticks from the
// antenna time of that block's first sample.
inline constexpr size_t kAuxTriggerFlagsOffset = 56;    // u32
inline constexpr size_t kAuxTriggerPositionOffset = 60; // u32
inline constexpr uint32_t kAuxTriggerExternal = 1u << 0;

// ---- time of the samples -------------------------------------------------------
// The sample counter K (kAuxSampleCounterOffset) in the packet behind a block of
// B delivered samples at hardware decimation D1 is the tick at which the block's
// last sample left the pipeline: the block's first sample is the antenna signal
// at tick K - 2*D1*B + PipelineOffsetTicks(D1), each further sample 2*D1 ticks
// later. The sweep list (D1 = 1, one block per step) uses the offset of D1 = 1.
inline constexpr uint64_t kDeviceTicksPerSecond = 122880000;
inline constexpr int64_t PipelineOffsetTicks(int hwDecimation) {
    return hwDecimation == 4 ? 7880 : hwDecimation == 2 ? 3920 : 1950;
}
inline constexpr int64_t kSweepListPipelineTicks = 1950;

static_assert(kAuxUartRingOffset + kAuxUartRingBytes <= kAuxRecordBytes);

// ---- access ---------------------------------------------------------------
template <typename T>
inline T AuxRead(const uint8_t* record, size_t offset) { return LoadLE<T>(record + offset); }
template <typename T>
inline void AuxWrite(uint8_t* record, size_t offset, T value) { StoreLE<T>(record + offset, value); }

inline bool HasAuxMagic(const uint8_t* record) {
    return AuxRead<uint32_t>(record, kAuxMagicOffset) == kAuxMagic;
}

inline uint64_t AuxPulseCounter(const uint8_t* record) {
    return static_cast<uint64_t>(AuxRead<uint32_t>(record, kAuxPulseCounterHighOffset)) << 32 |
           AuxRead<uint32_t>(record, kAuxPulseCounterLowOffset);
}
inline void AuxWritePulseCounter(uint8_t* record, uint64_t value) {
    AuxWrite<uint32_t>(record, kAuxPulseCounterLowOffset, static_cast<uint32_t>(value));
    AuxWrite<uint32_t>(record, kAuxPulseCounterHighOffset, static_cast<uint32_t>(value >> 32));
}

// The temperature word holds an 11-bit two's-complement count of 0.25 degrees
// in bits 2..12 (bit 12 the sign).
inline float TemperatureFromWord(uint16_t word) {
    const int t = (word >> 2) & 0x3FF;
    if (word & 0x1000) return static_cast<float>(-(1024 - t)) * 0.25f;
    return static_cast<float>(t) * 0.25f;
}
// Nearest representable temperature, saturated to -256 .. +255.75 degrees
// (NaN gives 0).
inline uint16_t TemperatureToWord(float celsius) {
    if (celsius != celsius) return 0;
    float q = celsius * 4.0f;
    if (q < -1024.0f) q = -1024.0f;
    if (q > 1023.0f) q = 1023.0f;
    const int counts = static_cast<int>(q < 0 ? q - 0.5f : q + 0.5f);
    return static_cast<uint16_t>((static_cast<unsigned>(counts) & 0x7FF) << 2);
}

} // namespace lx
