#include "lx_command/encoders.h"

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <limits>

#include "common/lx_assert.h"

namespace lx {

namespace {

constexpr const char* kModule = "src/lx_command";

// floor() of a double as an integer, saturated so that absurd or non-finite
// frequencies give wrong words rather than undefined behaviour.
int64_t FloorToInt(double v) {
    if (std::isnan(v)) return 0;
    v = std::floor(v);
    if (v <= -9.0e18) return std::numeric_limits<int64_t>::min();
    if (v >= 9.0e18) return std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(v);
}

uint32_t Low32(int64_t v) { return static_cast<uint32_t>(v); }

void PushSpacers(CommandList& list) {
    list.Push(kSpacerWord);
    list.Push(kSpacerWord);
    list.Push(kSpacerWord);
}

struct BandPath {
    uint32_t a, b, c;
};
constexpr BandPath kBandPaths[kBandCount] = {
    {168, 3, 2},  {168, 226, 1}, {168, 210, 1}, {168, 186, 1}, {168, 138, 1},
    {168, 8, 1},  {104, 60, 0},  {168, 56, 1},  {168, 80, 1},  {104, 84, 0},
    {104, 100, 0}, {60, 9, 3},   {60, 17, 3},   {104, 12, 0},  {62, 17, 3},
};
constexpr BandPath kFallbackPath = {168, 3, 1};

// Output divider by synthesizer frequency: the first row with f above the
// threshold; 256 below the last one.
struct DividerRow {
    double above;
    int divider;
};
constexpr DividerRow kDividerRows[] = {
    {7.5e9, 1},    {3.75e9, 2},   {1.875e9, 4}, {1.4375e9, 6}, {9.425e8, 8},
    {6.4e8, 12},   {4.74e8, 16},  {3.2e8, 24},  {2.37e8, 32},  {1.6e8, 48},
    {1.185e8, 64}, {8e7, 96},     {5.925e7, 128}, {4e7, 192},
};

struct DividerCodeRow {
    int divider;
    int code;
};
// 96 -> 11: the device's code 10 is unused, so 96 skips it.
constexpr DividerCodeRow kDividerCodes[] = {
    {1, 0},   {2, 0},   {4, 1},   {6, 2},    {8, 3},    {12, 4},   {16, 5},  {24, 6},
    {32, 7},  {48, 8},  {64, 9},  {96, 11},  {128, 12}, {192, 13}, {256, 14},
};

struct VcoRow {
    double below; // row selected when v is below this (the last row takes the rest)
    double lo, hi;
    double tStart, tEnd, sStart, sEnd, thirdStart, thirdEnd;
};
constexpr VcoRow kVcoRows[] = {
    {8.6e9, 7.5e9, 8.6e9, 164, 12, 299, 240, 73.0, 114.0},
    {9.8e9, 8.6e9, 9.8e9, 165, 16, 356, 247, 61.0, 121.0},
    {10.8e9, 9.8e9, 10.8e9, 158, 19, 324, 224, 98.0, 132.0},
    {12.0e9, 10.8e9, 12.0e9, 140, 0, 383, 244, 106.0, 141.0},
    {12.9e9, 12.0e9, 12.9e9, 183, 36, 205, 146, 170.0, 215.0},
    {13.9e9, 12.9e9, 13.9e9, 155, 6, 242, 163, 172.0, 218.0},
    {0, 13.9e9, 15.0e9, 175, 19, 323, 244, 182.0, 239.0}, // also extrapolates above 15 GHz
};

constexpr uint32_t kSynthTableEntries[] = {
    0x2496,   0x2494,   0x4E016F, 0x4B08C0, 0x3C0000, 0x2E07FC, 0x2DC0F2, 0x2C32A3,
    0x2B0000, 0x2A0000, 0x270080, 0x260000, 0x250404, 0x24004B, 0x1F43EC, 0x11012C,
    0x0E1E70, 0x090604, 0x0740B2, 0x040D43, 0x010808, 0x2494,   0x249C,
};
static_assert(1 + 5 * std::size(kSynthTableEntries) == kSynthTableWords);
constexpr size_t kSynthLongSettleAfter = 21; // the entry followed by the long settle

constexpr double kSynthRefHz = 122.88e6;
constexpr double kSynthFracStepHz = 960000.0;

} // namespace

void EncodeTransferRequest(CommandList& list, uint32_t iqPkts, uint32_t auxPkts) {
    LX_ASSERT(iqPkts <= 255, kModule);
    LX_ASSERT(auxPkts <= 4, kModule);
    list.Push(MakeWord(kOpTransferRequest, (iqPkts == 0 ? 0x800u : 0u) | (auxPkts << 8) | iqPkts));
    list.Push(MakeWord(kOpTransferSecond, 1));
    PushSpacers(list);
    list.AddPacketTotals(iqPkts, auxPkts);
}

void EncodeCaptureControl(CommandList& list, uint32_t value) {
    list.Push(MakeWord(kOpCaptureControl, value));
    list.Push(MakeWord(kOpSettle, 0x50));
    PushSpacers(list);
}

uint16_t QuantiseTap(float x) {
    if (std::isnan(x)) return 0;
    double q = std::floor(static_cast<double>(x) * 32767.0 + 0.5);
    if (q > 32767.0) q = 32767.0;
    if (q < -32768.0) q = -32768.0;
    return static_cast<uint16_t>(static_cast<int16_t>(q));
}

void EncodeFilterTaps(CommandList& list, std::span<const float, 2 * kFilterTapPairs> taps) {
    // The last pair goes out as zeros anyway, so two missing words are tolerated
    // here (Push reports them); fewer free words than that is a planning error.
    if (list.FreeWordsInBlock() < 62) {
        LX_ASSERT(false, kModule);
        return;
    }
    for (int i = 0; i < kFilterTapPairs; ++i) {
        const bool last = i == kFilterTapPairs - 1;
        const uint16_t a = last ? 0 : QuantiseTap(taps[2 * size_t(i)]);
        const uint16_t b = last ? 0 : QuantiseTap(taps[2 * size_t(i) + 1]);
        list.Push(MakeWord(kOpTapBankA + uint32_t(i), a));
        list.Push(MakeWord(kOpTapBankB + uint32_t(i), b));
    }
}

void EncodeFilterTaps(CommandList& list, const float (&taps)[kFilterTapPairs][2]) {
    EncodeFilterTaps(list, std::span<const float, 2 * kFilterTapPairs>(&taps[0][0], 2 * kFilterTapPairs));
}

uint32_t BandWord(int band, uint32_t gainField) {
    const BandPath p = (band >= 0 && band < kBandCount) ? kBandPaths[band] : kFallbackPath;
    return (p.a << 16) | (p.b << 8) | 0x80u | (p.c << 5) | (gainField & 0x1F);
}

int TuneBand(double rfHz, bool altPath) {
    if (rfHz < 38.4e6) return 0;
    if (rfHz < 61.44e6) return 1;
    if (rfHz < 122.88e6) return 2;
    if (rfHz < 276.48e6) return 3;
    if (rfHz < 576e6) return 4;
    if (rfHz < 698.88e6) return 5;
    if (rfHz < 944.64e6 && !altPath) return 13;
    if (rfHz < 975.36e6) return 6;
    if (rfHz < 1405.44e6) return 7;
    if (rfHz < 1958.4e6) return 8;
    if (rfHz < 2880e6) return 9;
    if (rfHz < 5429.76e6) return 10;
    if (rfHz >= 11635.2e6 && !altPath) return 14;
    return rfHz < 8409.6e6 ? 11 : 12;
}

bool IsHighBand(int band) { return band == 11 || band == 12 || band == 14; }

bool BandDoublesSynth(int band) {
    switch (band) {
    case 1: case 2: case 3: case 4: case 5: case 7: case 8: return true;
    default: return false;
    }
}

int OutputDivider(double synthHz) {
    for (const DividerRow& row : kDividerRows)
        if (synthHz > row.above) return row.divider;
    return 256;
}

int DividerCode(int divider) {
    for (const DividerCodeRow& row : kDividerCodes)
        if (row.divider == divider) return row.code;
    return -1;
}

VcoRangeFields VcoRange(double v) {
    size_t i = 0;
    while (i + 1 < std::size(kVcoRows) && !(v < kVcoRows[i].below)) ++i;
    const VcoRow& row = kVcoRows[i];
    const double frac = (v - row.lo) / (row.hi - row.lo);
    VcoRangeFields f;
    f.r = static_cast<int>(i) + 1;
    f.t = FloorToInt((row.tEnd - row.tStart) * frac + row.tStart + 0.5);
    f.s = FloorToInt((row.sEnd - row.sStart) * frac + row.sStart + 0.5);
    f.third = (row.thirdEnd - row.thirdStart) * frac + row.thirdStart;
    return f;
}

int EncodeTune(TuningState& state, uint32_t* out, double loHz, double rfHz, uint8_t ifLevel,
               uint32_t gainField, uint32_t value2A, bool altPath) {
    const int band = TuneBand(rfHz, altPath);
    const bool high = IsHighBand(band);
    const double f = BandDoublesSynth(band) ? 2.0 * loHz : loHz;
    const int d = OutputDivider(f);
    const double vco = d * f;
    state.divider = d;
    state.vcoHz = vco;

    const int64_t n = FloorToInt(vco / kSynthRefHz);
    const int64_t frac = FloorToInt((vco - static_cast<double>(n) * kSynthRefHz) / kSynthFracStepHz + 0.5);
    uint32_t p;
    if (f < 4e6) p = 2723;
    else if (f < 4.5e6) p = 4003;
    else p = high ? 12899 : 12899 + 64;
    const VcoRangeFields range = VcoRange(vco);

    int k = 0;
    out[k++] = MakeWord(kOpIfLevel, 0) + ifLevel;
    out[k++] = MakeWord(kOpBand, 0) + BandWord(band, gainField);
    out[k++] = 0x204E0001u + 2u * Low32(range.t);
    out[k++] = 0x2014C048u + (static_cast<uint32_t>(range.r) << 11);
    out[k++] = 0x20110000u + Low32(range.s);
    if (high) out[k++] = d == 1 ? 0x202E07FDu : 0x202E07FCu;
    out[k++] = 0x202C0000u | p;
    out[k++] = 0x202B0000u | Low32(frac);
    out[k++] = 0x20240000u | Low32(n);
    out[k++] = 0x10000100u;
    out[k++] = 0;
    out[k++] = 0;
    out[k++] = 0;
    out[k++] = d == 2 ? 0x201F03ECu : 0x201F43ECu;
    out[k++] = 0x204B0000u | (static_cast<uint32_t>(DividerCode(d) + 32) << 6);
    out[k++] = 0x2000251Cu;
    out[k++] = MakeWord(kOpTune2A, 0) + value2A;
    out[k++] = 0x10000800u;
    out[k++] = 0;
    out[k++] = 0;
    out[k++] = 0;
    out[k++] = 0x11008000u;
    out[k++] = 0;
    out[k++] = 0;
    out[k++] = 0;
    return k;
}

int EncodeSynthTable(uint32_t* out) {
    int k = 0;
    out[k++] = 0;
    for (size_t i = 0; i < std::size(kSynthTableEntries); ++i) {
        out[k++] = kSynthTableEntries[i] | 0x20000000u;
        out[k++] = i == kSynthLongSettleAfter ? 0x100C8000u : 0x10000050u;
        out[k++] = 0;
        out[k++] = 0;
        out[k++] = 0;
    }
    return k;
}

int EncodeInitSequence(uint32_t* out) {
    int k = 0;
    auto put = [&](std::initializer_list<uint32_t> words) {
        for (uint32_t w : words) out[k++] = w;
    };
    put({0x2CA803CA}); // band 0 path, gain field 10
    put({0x2E00A000, 0x1000A000, 0, 0, 0});
    put({0x2E00A000, 0x1000A000, 0, 0, 0});
    put({0x230D80A3, 0x230D80A2, 0x10000A00, 0, 0, 0});
    put({0x230001F4, 0x23060001, 0x1000A000, 0, 0});
    // Default decimation filter: only tap 16 of each bank is set, a pass-through.
    for (uint32_t op = kOpTapBankA; op < kOpTapBankB + kFilterTapPairs; ++op) {
        uint32_t operand = 0;
        if (op == kOpTapBankA + 16) operand = 0x41F4;
        if (op == kOpTapBankB + 16) operand = 0x4000;
        out[k++] = MakeWord(op, operand);
    }
    put({0x2A000018});
    put({0x107F0000, 0, 0, 0});
    put({0x22000000, 0x103F0000, 0, 0, 0});
    put({0x22000001, 0x230D80A3, 0x230D80A2, 0x10000A00, 0, 0, 0, 0x230001F4, 0x23060001});
    k += EncodeSynthTable(out + k);
    put({0x26000000, 0x10000A00, 0, 0, 0});
    put({0x3F000240});
    return k;
}

void EncodeStopBlock(CommandList& list) {
    list.BeginBlock();
    list.Push(kStopWord);
}

} // namespace lx
