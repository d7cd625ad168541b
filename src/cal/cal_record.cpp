#include "cal/cal_record.h"

#include <algorithm>
#include <cstring>

namespace lx {

uint32_t CalChecksum(const uint8_t* image) {
    if (CalFormat(image) != kCalChecksummedFormat) return 0;
    uint32_t sum = 0;
    for (size_t off = kCalChecksumFirstWord * 4; off < calSizeBytes; off += 4)
        sum += LoadLE<uint32_t>(image + off);
    return sum;
}

bool ValidateCalImage(const uint8_t* image) {
    return CalMagicField(image) == kCalMagic && CalChecksumField(image) == CalChecksum(image);
}

uint64_t CalNewestDate(const uint8_t* image) {
    uint64_t newest = CalDate(image);
    for (int i = 0; i < kCalTuneEntries && CalTuneValue(image, i) != kCalTuneListEnd; ++i)
        newest = std::max(newest, CalTuneTime(image, i));
    return newest;
}

bool CalIsProgrammed(const uint8_t* image) { return CalDate(image) != kCalDateUnprogrammed; }

float TempInterpolate(float a, float b, float x) {
    if (x == 0.0f) return a;
    if (x == 1.0f) return b;
    return (1.0f - x) * a + x * b;
}

float CalAmplitudeOffset(const uint8_t* cal, int tempSlot, float tempFraction, int attenStep,
                         int frequencyIndex) {
    const int freq = std::clamp(frequencyIndex - 1, 0, kCalFreqIndexes - 1);
    const int atten = std::clamp(attenStep, 0, kCalAttenSteps - 1);
    // The bracket never names slot 6 as its lower end; clamping keeps a bad
    // bracket inside the amplitude table.
    const int slot = std::clamp(tempSlot, 0, kCalTempSlots - 2);
    return TempInterpolate(CalAmplitude(cal, slot, atten, freq), CalAmplitude(cal, slot + 1, atten, freq),
                           tempFraction);
}

double CalTempFromIndex(int index) {
    return -30.0 + 15.0 * std::clamp(index, 0, kCalTempSlots - 1);
}

namespace {
void FillFloats(uint8_t* cal, size_t offset, size_t count, float value) {
    uint8_t pattern[4];
    StoreLE<float>(pattern, value);
    for (size_t i = 0; i < count; ++i) std::memcpy(cal + offset + 4 * i, pattern, 4);
}
} // namespace

void BuildDummyCal(uint8_t* cal) {
    std::memset(cal, 0xFF, kCalHeaderBytes);
    for (int s = 0; s < kCalTempSlots; ++s) SetCalTuneOffset(cal, s, 0);
    // The slot temperatures stay 0xFF bytes, as the reserved word before them.
    std::memset(cal + kCalReserved686Offset, 0xFF, kCalIfLevelsOffset - kCalReserved686Offset);
    std::memset(cal + kCalIfLevelsOffset, 4, kCalFreqIndexes);
    std::memset(cal + kCalReserved1206Offset, 0xFF, kCalAmplitudeOffset - kCalReserved1206Offset);
    FillFloats(cal, kCalAmplitudeOffset, kCalAmplitudeValues, 0.0f);
    FillFloats(cal, kCalResponseAOffset, kCalResponseValues, 1.0f);
    FillFloats(cal, kCalResponseBOffset, kCalResponseValues, 0.0f);
    FillFloats(cal, kCalResponseCOffset, kCalResponseValues, 0.0f);
    FillFloats(cal, kCalResponseDOffset, kCalResponseDEValues, 1.0f);
    FillFloats(cal, kCalResponseEOffset, kCalResponseDEValues, 0.0f);
    std::memset(cal + kCalReservedTailOffset, 0xFF, calSizeBytes - kCalReservedTailOffset);
}

bool PropagateSingleTempCal(uint8_t* cal, int fromSlot, int toSlot) {
    if (fromSlot < 0 || fromSlot >= kCalTempSlots || toSlot < 0 || toSlot >= kCalTempSlots) return false;
    if (fromSlot == toSlot) return true;
    SetCalTempPoint(cal, toSlot, CalTempPoint(cal, fromSlot) + 15.0f * static_cast<float>(toSlot - fromSlot));

    auto copy = [&](size_t tableOffset, size_t from, size_t to, size_t values) {
        std::memmove(cal + tableOffset + 4 * to, cal + tableOffset + 4 * from, 4 * values);
    };
    const size_t amplitudePerSlot = size_t{kCalAttenSteps} * kCalFreqIndexes;
    copy(kCalAmplitudeOffset, AmplitudeOffsetIndex(fromSlot, 0, 0), AmplitudeOffsetIndex(toSlot, 0, 0),
         amplitudePerSlot);
    const size_t responsePerSlot = size_t{kCalFreqIndexes} * kCalResponsePoints;
    for (size_t table : {kCalResponseAOffset, kCalResponseBOffset, kCalResponseCOffset})
        copy(table, ResponseIndex(fromSlot, 0, 0), ResponseIndex(toSlot, 0, 0), responsePerSlot);
    for (size_t table : {kCalResponseDOffset, kCalResponseEOffset})
        copy(table, ResponseDEIndex(fromSlot, 0), ResponseDEIndex(toSlot, 0), kCalResponseDEPoints);
    return true;
}

} // namespace lx
