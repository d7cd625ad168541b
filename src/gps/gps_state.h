// GPS state of one device: the receiver's NMEA text as the status packets
// carry it, the parsed fix, and the anchoring of device ticks to GPS time.
//
// Threads: status packets are taken in on one thread at a time (the caller's
// thread during a housekeeping refresh, an engine's USB thread while it
// streams); the API getters read from the caller's thread. The NMEA copy,
// the parsed fields and the message counters are guarded by `mutex`; the
// anchor fields are written only by the intake thread. No other lock is
// taken while `mutex` is held.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

#include "gps/nmea.h"

namespace lx::gps {

// 122.88 MHz device ticks.
inline constexpr double kNsPerTick = 8.138020833333334;
// About 2.98 s without a new message while the fix is valid: the GPS is lost.
inline constexpr uint64_t kLossTicks = 366000000;
inline constexpr size_t kNmeaBufferBytes = 2048;
inline constexpr uint32_t kNoSequence = 0xFFFFFFFFu;

struct GpsState {
    mutable std::mutex mutex;

    // Guarded by mutex.
    NmeaState nmea;
    std::array<char, kNmeaBufferBytes + 1> text{}; // raw NMEA, NUL-terminated
    size_t textLength = 0;
    uint32_t messageCounter = 0;   // +1 for every new NMEA message
    uint32_t counterAtLastRead = 0;
    bool statusBit = false;        // bit 10 of the last status word: timebase follows the GPS

    // Intake thread only.
    // 2-bit message sequence of the last message; none before the first
    // packet, so that the first packet's message is always taken (a device
    // whose sequence happens to stand at 0 would otherwise hide its fix for
    // a second).
    uint32_t sequence = kNoSequence;
    uint64_t messageTick = 0;   // pulse tick the last message's first packet reported: the pulse it describes
    bool anchored = false;
    uint64_t anchorTick = 0;
    int64_t anchorTimeNs = 0;
    int64_t deviceTimeNs = 0;   // time stamp of the last block taken in
};

// Where a status packet carries what the GPS intake reads. The fields sit in
// the status-packet layout; they are passed in so that this module does not
// depend on it.
struct GpsPacketFields {
    uint32_t gpsStatusWord = 0; // bits 9..17 ring write index, 18..19 sequence, 20..28 read index
    uint64_t pulseTick = 0;     // tick of the receiver's latest pulse when the packet was written
    uint64_t blockTick = 0;     // the packet's sample counter: tick of the block it follows
    uint32_t deviceStatusWord = 0;
    const uint8_t* uartRing = nullptr;     // 512 words of the receiver's UART ring
    const uint8_t* nmeaArea = nullptr;     // the 2048-byte area copied when the GPS is lost
};

// Takes one status packet in: new NMEA message, loss after kLossTicks, time
// anchoring. `hwDecimation` is the streaming mode's hardware decimation
// (1 outside streaming); `hostNowNs` the host clock, used only before the
// first fix. Returns the device time of the block (ns since 1970).
int64_t TakeStatusPacket(GpsState& g, const GpsPacketFields& p, int hwDecimation, int64_t hostNowNs);

// Host clock in ns since 1970, to 100 ns.
int64_t HostNowNs();

} // namespace lx::gps
