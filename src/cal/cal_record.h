// The calibration record (LX530CalData): a flat little-endian image of
// calSizeBytes that every instrument carries in flash from page 4096 on and
// that the host caches byte for byte on disk.
//
// Offsets below are bytes from the image start. Index helpers give element
// indexes within a table; the Cal* accessors read and the SetCal* ones write a
// field at an index. Temperature slots 0..6, attenuation steps 0..6, frequency
// indexes 0..489. Nothing here keeps state; everything is thread-safe on
// distinct images.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lx_command/little_endian.h"

namespace lx {

inline constexpr size_t calSizeBytes = 0x200000;

inline constexpr int kCalTempSlots = 7;
inline constexpr int kCalAttenSteps = 7;
inline constexpr int kCalFreqIndexes = 490;
inline constexpr int kCalResponsePoints = 13;   // values per (slot, frequency) in tables A..C
inline constexpr int kCalResponseDEPoints = 4000; // values per slot in tables D and E
inline constexpr int kCalTuneEntries = 64;

inline constexpr uint32_t kCalMagic = 0xF0000000;
inline constexpr uint32_t kCalChecksummedFormat = 1;
inline constexpr uint16_t kCalTuneListEnd = 0xFFFF;
inline constexpr uint64_t kCalDateUnprogrammed = ~uint64_t{0};

// ---- field offsets -----------------------------------------------------------
inline constexpr size_t kCalMagicOffset = 0;          // u32
inline constexpr size_t kCalFormatOffset = 4;         // u32
inline constexpr size_t kCalReserved8Offset = 8;      // 8 bytes
inline constexpr size_t kCalDateOffset = 16;          // u64; all ones: never programmed
inline constexpr size_t kCalTempRangeOffset = 24;     // u32 temperature-range code
inline constexpr size_t kCalChecksumOffset = 28;      // u32
inline constexpr size_t kCalTuneValuesOffset = 32;    // u16[64], first 0xFFFF ends the list
inline constexpr size_t kCalTuneTimesOffset = 160;    // u64[64]
inline constexpr size_t kCalHeaderBytes = 672;        // everything before the tune offsets
inline constexpr size_t kCalTuneOffsetsOffset = 672;  // i16[7]
inline constexpr size_t kCalReserved686Offset = 686;  // u16
inline constexpr size_t kCalTempPointsOffset = 688;   // f32[7], degrees C, ascending
inline constexpr size_t kCalIfLevelsOffset = 716;     // u8[490]
inline constexpr size_t kCalReserved1206Offset = 1206; // u16
inline constexpr size_t kCalAmplitudeOffset = 1208;   // f32[7][7][490]: slot, atten, freq
inline constexpr size_t kCalResponseAOffset = 97248;  // f32[7][490][13]: slot, freq, k
inline constexpr size_t kCalResponseBOffset = 275608;
inline constexpr size_t kCalResponseCOffset = 453968;
inline constexpr size_t kCalResponseDOffset = 632328; // f32[7][4000]: slot, j
inline constexpr size_t kCalResponseEOffset = 744328;
inline constexpr size_t kCalReservedTailOffset = 856328; // to the end, 0xFF

// The checksum covers the 32-bit words from the tune offsets to the end.
inline constexpr size_t kCalChecksumFirstWord = kCalTuneOffsetsOffset / 4; // 168

inline constexpr size_t kCalAmplitudeValues = size_t{kCalTempSlots} * kCalAttenSteps * kCalFreqIndexes;
inline constexpr size_t kCalResponseValues = size_t{kCalTempSlots} * kCalFreqIndexes * kCalResponsePoints;
inline constexpr size_t kCalResponseDEValues = size_t{kCalTempSlots} * kCalResponseDEPoints;

static_assert(kCalTempPointsOffset + 4 * kCalTempSlots == kCalIfLevelsOffset);
static_assert(kCalIfLevelsOffset + kCalFreqIndexes == kCalReserved1206Offset);
static_assert(kCalAmplitudeOffset + 4 * kCalAmplitudeValues == kCalResponseAOffset);
static_assert(kCalResponseAOffset + 4 * kCalResponseValues == kCalResponseBOffset);
static_assert(kCalResponseBOffset + 4 * kCalResponseValues == kCalResponseCOffset);
static_assert(kCalResponseCOffset + 4 * kCalResponseValues == kCalResponseDOffset);
static_assert(kCalResponseDOffset + 4 * kCalResponseDEValues == kCalResponseEOffset);
static_assert(kCalResponseEOffset + 4 * kCalResponseDEValues == kCalReservedTailOffset);

// ---- element indexes within a table ----------------------------------------------
inline constexpr size_t AmplitudeOffsetIndex(int slot, int atten, int freq) {
    return (size_t(slot) * kCalAttenSteps + size_t(atten)) * kCalFreqIndexes + size_t(freq);
}
// Tables A, B and C.
inline constexpr size_t ResponseIndex(int slot, int freq, int k) {
    return (size_t(slot) * kCalFreqIndexes + size_t(freq)) * kCalResponsePoints + size_t(k);
}
// Tables D and E.
inline constexpr size_t ResponseDEIndex(int slot, int j) {
    return size_t(slot) * kCalResponseDEPoints + size_t(j);
}

// ---- typed access -----------------------------------------------------------
template <typename T>
inline T CalRead(const uint8_t* cal, size_t offset) { return LoadLE<T>(cal + offset); }
template <typename T>
inline void CalWrite(uint8_t* cal, size_t offset, T value) { StoreLE<T>(cal + offset, value); }

inline uint32_t CalMagicField(const uint8_t* c) { return CalRead<uint32_t>(c, kCalMagicOffset); }
inline uint32_t CalFormat(const uint8_t* c) { return CalRead<uint32_t>(c, kCalFormatOffset); }
inline uint64_t CalDate(const uint8_t* c) { return CalRead<uint64_t>(c, kCalDateOffset); }
inline uint32_t CalTempRangeCode(const uint8_t* c) { return CalRead<uint32_t>(c, kCalTempRangeOffset); }
inline uint32_t CalChecksumField(const uint8_t* c) { return CalRead<uint32_t>(c, kCalChecksumOffset); }
inline uint16_t CalTuneValue(const uint8_t* c, int i) {
    return CalRead<uint16_t>(c, kCalTuneValuesOffset + 2 * size_t(i));
}
inline uint64_t CalTuneTime(const uint8_t* c, int i) {
    return CalRead<uint64_t>(c, kCalTuneTimesOffset + 8 * size_t(i));
}
inline int16_t CalTuneOffset(const uint8_t* c, int slot) {
    return CalRead<int16_t>(c, kCalTuneOffsetsOffset + 2 * size_t(slot));
}
inline float CalTempPoint(const uint8_t* c, int slot) {
    return CalRead<float>(c, kCalTempPointsOffset + 4 * size_t(slot));
}
inline uint8_t CalIfLevel(const uint8_t* c, int freq) { return c[kCalIfLevelsOffset + size_t(freq)]; }
inline float CalAmplitude(const uint8_t* c, int slot, int atten, int freq) {
    return CalRead<float>(c, kCalAmplitudeOffset + 4 * AmplitudeOffsetIndex(slot, atten, freq));
}
inline float CalResponseA(const uint8_t* c, int slot, int freq, int k) {
    return CalRead<float>(c, kCalResponseAOffset + 4 * ResponseIndex(slot, freq, k));
}
inline float CalResponseB(const uint8_t* c, int slot, int freq, int k) {
    return CalRead<float>(c, kCalResponseBOffset + 4 * ResponseIndex(slot, freq, k));
}
inline float CalResponseC(const uint8_t* c, int slot, int freq, int k) {
    return CalRead<float>(c, kCalResponseCOffset + 4 * ResponseIndex(slot, freq, k));
}
inline float CalResponseD(const uint8_t* c, int slot, int j) {
    return CalRead<float>(c, kCalResponseDOffset + 4 * ResponseDEIndex(slot, j));
}
inline float CalResponseE(const uint8_t* c, int slot, int j) {
    return CalRead<float>(c, kCalResponseEOffset + 4 * ResponseDEIndex(slot, j));
}

inline void SetCalMagic(uint8_t* c, uint32_t v) { CalWrite(c, kCalMagicOffset, v); }
inline void SetCalFormat(uint8_t* c, uint32_t v) { CalWrite(c, kCalFormatOffset, v); }
inline void SetCalDate(uint8_t* c, uint64_t v) { CalWrite(c, kCalDateOffset, v); }
inline void SetCalTempRangeCode(uint8_t* c, uint32_t v) { CalWrite(c, kCalTempRangeOffset, v); }
inline void SetCalChecksumField(uint8_t* c, uint32_t v) { CalWrite(c, kCalChecksumOffset, v); }
inline void SetCalTuneValue(uint8_t* c, int i, uint16_t v) {
    CalWrite(c, kCalTuneValuesOffset + 2 * size_t(i), v);
}
inline void SetCalTuneTime(uint8_t* c, int i, uint64_t v) {
    CalWrite(c, kCalTuneTimesOffset + 8 * size_t(i), v);
}
inline void SetCalTuneOffset(uint8_t* c, int slot, int16_t v) {
    CalWrite(c, kCalTuneOffsetsOffset + 2 * size_t(slot), v);
}
inline void SetCalTempPoint(uint8_t* c, int slot, float v) {
    CalWrite(c, kCalTempPointsOffset + 4 * size_t(slot), v);
}
inline void SetCalIfLevel(uint8_t* c, int freq, uint8_t v) { c[kCalIfLevelsOffset + size_t(freq)] = v; }
inline void SetCalAmplitude(uint8_t* c, int slot, int atten, int freq, float v) {
    CalWrite(c, kCalAmplitudeOffset + 4 * AmplitudeOffsetIndex(slot, atten, freq), v);
}
inline void SetCalResponseA(uint8_t* c, int slot, int freq, int k, float v) {
    CalWrite(c, kCalResponseAOffset + 4 * ResponseIndex(slot, freq, k), v);
}
inline void SetCalResponseB(uint8_t* c, int slot, int freq, int k, float v) {
    CalWrite(c, kCalResponseBOffset + 4 * ResponseIndex(slot, freq, k), v);
}
inline void SetCalResponseC(uint8_t* c, int slot, int freq, int k, float v) {
    CalWrite(c, kCalResponseCOffset + 4 * ResponseIndex(slot, freq, k), v);
}
inline void SetCalResponseD(uint8_t* c, int slot, int j, float v) {
    CalWrite(c, kCalResponseDOffset + 4 * ResponseDEIndex(slot, j), v);
}
inline void SetCalResponseE(uint8_t* c, int slot, int j, float v) {
    CalWrite(c, kCalResponseEOffset + 4 * ResponseDEIndex(slot, j), v);
}

// ---- operations ---------------------------------------------------------------
// 32-bit wrap-around sum of the words from kCalChecksumFirstWord to the end
// for format 1 records; 0 for any other format.
uint32_t CalChecksum(const uint8_t* image);
// Magic 0xF0000000 and the checksum field equal to CalChecksum.
bool ValidateCalImage(const uint8_t* image);
// The largest of the calibration date and the times of the tune values
// before the first 0xFFFF (at most 64).
uint64_t CalNewestDate(const uint8_t* image);
// True when the date is not all ones.
bool CalIsProgrammed(const uint8_t* image);

// a when x is exactly 0, b when exactly 1, otherwise (1 - x) * a + x * b in
// single precision: the end points are taken without rounding from the blend.
float TempInterpolate(float a, float b, float x);

// Amplitude correction in dB between slots tempSlot and tempSlot + 1. The
// frequency index is 1-based (reduced by one, clamped to 0..489), the
// attenuation step is clamped to 0..6 and the slot to 0..5.
float CalAmplitudeOffset(const uint8_t* cal, int tempSlot, float tempFraction, int attenStep,
                         int frequencyIndex);

// Nominal temperature of a slot, -30 + 15 * index with the index clamped to 0..6.
double CalTempFromIndex(int index);

// Fills a record whose every correction is neutral and whose date reads as
// never programmed (the placeholder a device runs with before its own record
// is known).
void BuildDummyCal(uint8_t* cal);

// Makes slot toSlot a copy of slot fromSlot: its temperature becomes
// temperature(fromSlot) + 15 * (toSlot - fromSlot), and the amplitude values
// and tables A..E are copied. IF levels and tune offsets are left alone.
// Returns false, touching nothing, for a slot outside 0..6.
bool PropagateSingleTempCal(uint8_t* cal, int fromSlot, int toSlot);

} // namespace lx
