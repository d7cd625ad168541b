// The simulated LX530's GPS receiver, its UART ring, and the GPS-disciplined
// reference oscillator.
//
// Receiver model
//   Device time is the 122.88 MHz tick counter, which runs at the reference
//   oscillator's rate: a GPS second lasts kTicksPerSecond * (1 + e) ticks, e
//   the reference's error for the tune word in use and the temperature. The
//   first pulse falls on tick kTicksPerSecond, each further one a GPS second
//   later. After each pulse the receiver sends one message over its UART (the
//   burst of sentences that describes the second which has just ended); it
//   reaches the UART the scene's message delay (300 ms by default) after the
//   pulse. So a host must anchor "RMC time + 1 s" at the pulse tick that the
//   first status packet carrying the message reports, not at that packet.
//   The receiver's clock is set when a scene fits it: the message of the next
//   pulse describes the scene's `utc` (a log replay starts with its first
//   message). A later scene with the same `utc` (or the same log) keeps the
//   clock running, so a test can silence the receiver or drop its fix
//   without a jump in time.
//
// UART ring
//   512 words. Each message is written from the previous write index on,
//   NUL-padded to a whole word; the read index is where it starts, the
//   write index where it ends. The 2-bit sequence counts messages.
//
// Disciplining
//   While the host has asked for it (word 0x2F, operand bit 0) and the
//   receiver has a fix, every pulse moves the tune word one count toward the
//   disciplined value. The device sees a fix from a message whose RMC says A
//   until one says otherwise, the receiver falls silent or its log ends.
//
// Not thread-safe: the owning SimDevice calls it with its mutex held.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/front_end.h"
#include "sim/scene.h"

namespace lx::sim {

inline constexpr uint64_t kTicksPerSecond = 122880000;
inline constexpr uint64_t kTicksPerMs = kTicksPerSecond / 1000;
inline constexpr size_t kUartRingWords = 512;
// One message must leave the ring's read and write indexes apart.
inline constexpr size_t kMaxMessageBytes = (kUartRingWords - 1) * 4;

using UartRing = std::array<uint8_t, kUartRingWords * 4>;

// The reference oscillator's tune word and what steers it.
struct Oscillator {
    uint16_t tuneWord = fe::kResetTuneWord;
    bool followGps = false;               // the host's word 0x2F
    std::optional<uint16_t> autoTarget;   // chosen when disciplining first engages
};

// ---- NMEA text -------------------------------------------------------------------

// "ddmm.mmmm,N" (latitude) or "dddmm.mmmm,E" (longitude), minutes rounded to
// four decimals.
std::string FormatCoordinate(double degrees, bool latitude);
// "$" + body + "*" + checksum + CR LF.
std::string Sentence(const std::string& body);
// The synthetic receiver's message for the second starting at `utcSeconds`:
// RMC then GGA. Without a fix the status is V and the position fields are empty.
std::string SyntheticMessage(const GpsScene& g, int64_t utcSeconds);

// "YYYY-MM-DDTHH:MM:SSZ" (years 2000..2099) as seconds since 1970.
std::optional<int64_t> ParseUtc(const std::string& text);

// Reads a receiver log: '#' lines are comments, every other non-empty line a
// sentence. Sentences are grouped into one-second messages by the time field
// of RMC, GGA and ZDA; untimed sentences stay with the second they follow
// (those before the first timed one join the first message). Null and a
// reason when the file cannot be read or holds no timed sentence.
std::shared_ptr<const std::vector<NmeaMessage>> LoadNmeaLog(const std::string& path, std::string* error);

// ---- the receiver ------------------------------------------------------------------

class GpsReceiver {
public:
    GpsReceiver();

    // Fits the scene's receiver (null: none). Run it up to the present
    // first: its clock starts at the last pulse run.
    void Configure(std::shared_ptr<const GpsScene> gps);

    // Runs the receiver and the oscillator's discipline over every pulse up
    // to tick `t`, the reference at tempC. Returns true when the tune word moved.
    bool RunTo(uint64_t t, Oscillator& osc, double tempC);

    // GPS status word: ring write index (bits 9..17), sequence (18..19), read
    // index (20..28).
    uint32_t StatusWord() const;
    // Tick of the last pulse given with a fix (0 before the first).
    uint64_t PulseTick() const { return pulseTick_; }
    // The ADC sample at which the synthetic receiver's clock says UTC second
    // `utcSeconds` begins (its pulse); none without a synthetic receiver.
    std::optional<int64_t> SampleOfUtc(int64_t utcSeconds, uint16_t tuneWord, double tempC) const;
    bool HasFix() const { return gps_ && gps_->sending && fix_; }
    std::shared_ptr<const UartRing> Ring() const { return ring_; }

private:
    void Deliver(const std::string& text);
    // Discipline over `pulses` pulses with the receiver's fix state `fix`.
    bool Discipline(Oscillator& osc, bool fix, uint64_t pulses) const;

    std::shared_ptr<const GpsScene> gps_;
    struct Pending {
        uint64_t at = 0; // tick at which the message reaches the UART
        std::string text;
    };
    // Where the pulses fell: from pulse `first` on, one every `interval`
    // ticks, until the next segment (the reference's rate moved). Kept so
    // that a time named in UTC is placed where its pulse really was, not
    // where the present rate would put it.
    struct Segment {
        uint64_t first = 1;
        double tick = static_cast<double>(kTicksPerSecond);
        double interval = static_cast<double>(kTicksPerSecond);
    };
    // Tick of pulse k (pulses before the first segment at its rate).
    double PulseAt(int64_t k) const;

    uint64_t pulsesDone_ = 0; // pulses 1..pulsesDone_ have been run
    std::deque<Segment> history_{Segment{}}; // ascending `first`; pulse pulsesDone_ + 1 is already placed
    std::optional<Pending> pending_; // the last pulse's message, on its way
    uint64_t clockPulse_ = 0; // the pulse before the receiver's first message
    uint64_t messages_ = 0;
    bool fix_ = false;
    uint64_t pulseTick_ = 0;
    std::shared_ptr<const UartRing> ring_;
    uint32_t readIndex_ = 0, writeIndex_ = 0;
};

} // namespace lx::sim
