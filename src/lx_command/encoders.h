// Encoders of the instrument's command words.
//
// A command word is opcode << 24 | 24-bit operand. The device core and every
// measurement set-up build their command lists from these functions only, and
// the simulated instrument decodes the same words, so each word's layout lives
// here once. Encoders are pure functions of their arguments (EncodeTune also
// updates the caller's TuningState); they hold no state and are thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "lx_command/command_list.h"

namespace lx {

// ---- opcodes ------------------------------------------------------------
inline constexpr uint32_t kOpSettle = 0x10;         // settle count; three spacer/zero words follow
inline constexpr uint32_t kOpTuneEnd = 0x11;        // closes a tuning sequence
inline constexpr uint32_t kOpTransferSecond = 0x14; // second word of a transfer request
inline constexpr uint32_t kOpSynth = 0x20;          // synthesizer register << 16 | value
inline constexpr uint32_t kOpPowerUp = 0x22;
inline constexpr uint32_t kOpConverter = 0x23;      // converter register write
inline constexpr uint32_t kOpIfLevel = 0x24;        // front-end IF level byte
inline constexpr uint32_t kOpSwitches = 0x26;
inline constexpr uint32_t kOpTune2A = 0x2A;
inline constexpr uint32_t kOpBand = 0x2C;           // RF path, operand from BandWord
inline constexpr uint32_t kOpReference = 0x2D;
inline constexpr uint32_t kOpOscTune = 0x2E;        // reference oscillator tune word
inline constexpr uint32_t kOpGpsTimebase = 0x2F;
inline constexpr uint32_t kOpCaptureControl = 0x30;
inline constexpr uint32_t kOpTransferRequest = 0x31;
inline constexpr uint32_t kOpStop = 0x32;
inline constexpr uint32_t kOpTriggerEdge = 0x33;   // external trigger edge the device reports
inline constexpr uint32_t kOpPowerUpDone = 0x3F;
inline constexpr uint32_t kOpTapBankA = 0x40;       // 0x40..0x5F: first value of tap pair i
inline constexpr uint32_t kOpTapBankB = 0x60;       // 0x60..0x7F: second value of tap pair i

inline constexpr uint32_t MakeWord(uint32_t opcode, uint32_t operand) {
    return (opcode << 24) | (operand & 0xFFFFFF);
}

inline constexpr uint32_t kSpacerWord = 0x01000000;

// The edge of the external trigger input that the device reports in its status
// packets: 0 rising, 1 falling (the I/Q trigger-edge setting). The protocol has
// no word for it, so it takes the free opcode after the stop word; it holds
// until the next such word or a power-up.
inline constexpr uint32_t kTriggerEdgeRising = 0;
inline constexpr uint32_t kTriggerEdgeFalling = 1;
inline constexpr uint32_t TriggerEdgeWord(uint32_t edge) { return MakeWord(kOpTriggerEdge, edge & 1u); }
inline constexpr uint32_t kStopWord = 0x32000000;

// ---- transfer requests ----------------------------------------------------
inline constexpr size_t kAuxPacketBytes = 8192;
inline constexpr uint32_t kMaxIqPacketsPerRequest = 255;
inline constexpr uint32_t kMaxAuxPacketsPerRequest = 4;

// Five words: the request, 0x14000001, three spacers. Asserts "iqPkts <= 255"
// and "auxPkts <= 4"; adds the counts to the current block's totals.
void EncodeTransferRequest(CommandList& list, uint32_t iqPkts, uint32_t auxPkts);

// Five words: 0x30 | value (24 bits), settle 0x50, three spacers.
void EncodeCaptureControl(CommandList& list, uint32_t value);

// ---- decimation-filter taps ------------------------------------------------
inline constexpr int kFilterTapPairs = 32;

// One tap as the device takes it: floor(x * 32767 + 0.5) in 16-bit two's
// complement. Values beyond +-1 saturate (0x7FFF / 0x8000) rather than wrap
// into the opposite sign; NaN gives 0.
uint16_t QuantiseTap(float x);

// 64 words: for each pair i, (0x40 + i) << 24 | q(a) then (0x60 + i) << 24 | q(b).
// Pair 31 is always sent as zeros. Needs 62 free words in the current block,
// otherwise the assertion "false" fires and nothing is written.
void EncodeFilterTaps(CommandList& list, const float (&taps)[kFilterTapPairs][2]);
// The same taps interleaved: a0, b0, a1, b1, ... a31, b31.
void EncodeFilterTaps(CommandList& list, std::span<const float, 2 * kFilterTapPairs> taps);

// ---- RF path ---------------------------------------------------------------
inline constexpr int kBandCount = 15;

// 24-bit operand of the 0x2C word: A << 16 | B << 8 | 0x80 | C << 5 | gainField
// (5 bits; callers pass attenuation step * 5). Bands outside 0..14 give the
// fallback path A = 168, B = 3, C = 1.
uint32_t BandWord(int band, uint32_t gainField);

// RF path for an input frequency. altPath (a per-device flag) excludes bands
// 13 and 14.
int TuneBand(double rfHz, bool altPath);
// Bands 11, 12 and 14 run the synthesizer in its high-band configuration.
bool IsHighBand(int band);
// Bands whose mixer runs at twice the synthesizer frequency request 2 * LO.
bool BandDoublesSynth(int band);

// ---- synthesizer -------------------------------------------------------------
struct TuningState {
    int32_t divider = 0;
    double vcoHz = 0;
};

// Output divider for a synthesizer frequency (1, 2, 4, 6, ... 192, 256).
int OutputDivider(double synthHz);
// Register code of a divider. 96 maps to 11 (code 10 is skipped on purpose);
// -1 for a value that is not a divider.
int DividerCode(int divider);

// Fields taken from the VCO range table: row R (1..7), T and S rounded half up,
// and the third interpolated value (unrounded; the tuning words do not use it).
// Above 15 GHz row 7 extrapolates.
struct VcoRangeFields {
    int r = 0;
    int64_t t = 0;
    int64_t s = 0;
    double third = 0;
};
VcoRangeFields VcoRange(double vcoHz);

inline constexpr int kTuneMaxWords = 25;

// Writes one tuning sequence (24 words, 25 for high bands) to out, which must
// hold kTuneMaxWords, and returns the count. Updates state with the chosen
// divider and VCO frequency.
int EncodeTune(TuningState& state, uint32_t* out, double loHz, double rfHz, uint8_t ifLevel,
               uint32_t gainField, uint32_t value2A, bool altPath);

inline constexpr int kSynthTableWords = 116;
// The synthesizer's default register table; returns kSynthTableWords.
int EncodeSynthTable(uint32_t* out);

inline constexpr int kInitSequenceWords = 227;
inline constexpr int kInitSequenceMaxWords = kInitSequenceWords;
// The power-up sequence; out must hold kInitSequenceMaxWords. Returns the count.
int EncodeInitSequence(uint32_t* out);

// Starts a new block that holds only the stop word.
void EncodeStopBlock(CommandList& list);

// ---- boot loader (only while the device runs its boot loader) -----------------
// Flash pages are 1024 bytes; page numbers are below 0x10000.
inline constexpr uint32_t kBootStartRunImageWord = 0xFFFA0003;
inline constexpr uint32_t BootEraseFlashWord(uint32_t page) { return 0xFFFC0000u | page; }
// Reads 32 KiB (32 pages) from page on.
inline constexpr uint32_t BootReadFlashWord(uint32_t page) { return 0xFFFD0000u | page; }
// Followed by 256 data words (one page).
inline constexpr uint32_t BootWriteFlashWord(uint32_t page) { return 0xFFFE0000u | page; }

} // namespace lx
