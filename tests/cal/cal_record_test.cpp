// Calibration record operations and the calibration exports. Expected values
// come from the record's byte layout written out literally here, not from the
// library's offset constants.
#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "cal/cal_record.h"
#include "lx_api.h"

namespace {

constexpr size_t kSize = 2097152;

std::unique_ptr<LX530CalData> NewRecord(uint8_t fill) {
    auto r = std::make_unique<LX530CalData>();
    std::memset(r->raw, fill, kSize);
    return r;
}

// Little-endian fields, as the record holds them (so does this host).
template <typename T>
void Put(uint8_t* p, size_t off, T v) { std::memcpy(p + off, &v, sizeof v); }
float GetF(const uint8_t* p, size_t off) {
    float f;
    std::memcpy(&f, p + off, 4);
    return f;
}

TEST(CalRecord, ChecksumAndValidation) {
    struct Case { uint32_t magic, format, checksumField; bool valid; };
    // Words 168 .. 524287 sum to 0x80000000 + 0x80000001 + 5 = 6 after wrapping;
    // word 167 (before the checksummed range) must not count.
    const Case cases[] = {
        {0xF0000000, 1, 6, true},
        {0xF0000000, 1, 7, false},
        {0xF0000000, 2, 0, true},   // other formats carry no checksum
        {0xF0000000, 2, 6, false},
        {0xF0000000, 0xFFFFFFFF, 0, true},
        {0xF0000001, 1, 6, false},
        {0x000000F0, 1, 6, false},  // magic in the wrong byte order
    };
    auto rec = NewRecord(0);
    Put<uint32_t>(rec->raw, 4 * 167, 0x12345678);
    Put<uint32_t>(rec->raw, 4 * 168, 0x80000000);
    Put<uint32_t>(rec->raw, 4 * 1000, 5);
    Put<uint32_t>(rec->raw, kSize - 4, 0x80000001);
    for (const Case& c : cases) {
        Put<uint32_t>(rec->raw, 0, c.magic);
        Put<uint32_t>(rec->raw, 4, c.format);
        Put<uint32_t>(rec->raw, 28, c.checksumField);
        EXPECT_EQ(lx::ValidateCalImage(rec->raw), c.valid) << std::hex << c.magic << " " << c.format;
        EXPECT_EQ(lx::CalChecksum(rec->raw), c.format == 1 ? 6u : 0u);
    }
}

TEST(CalRecord, NewestDate) {
    struct Case { uint64_t date; std::vector<std::pair<uint16_t, uint64_t>> tunes; uint64_t newest; };
    const Case cases[] = {
        {500, {{0xFFFF, 9000}, {0x8000, 9000}}, 500},         // empty list: the date alone
        {500, {{0x8000, 5}, {0x8001, 900}, {0x8002, 7}, {0xFFFF, 99999}}, 900},
        {500, {{0x8000, 5}, {0x8001, 6}}, 500},
        {~0ull, {{0x8000, 5}}, ~0ull},                         // never programmed
        {0, {{0, 1}, {0xFFFE, 2}}, 2},                         // 0 and 0xFFFE are ordinary values
    };
    for (const Case& c : cases) {
        auto rec = NewRecord(0);
        Put<uint64_t>(rec->raw, 16, c.date);
        for (int i = 0; i < 64; ++i) Put<uint16_t>(rec->raw, 32 + 2 * size_t(i), 0x7000); // all valid ...
        for (size_t i = 0; i < c.tunes.size(); ++i) {
            Put<uint16_t>(rec->raw, 32 + 2 * i, c.tunes[i].first);
            Put<uint64_t>(rec->raw, 160 + 8 * i, c.tunes[i].second);
        }
        if (c.tunes.back().first != 0xFFFF) Put<uint16_t>(rec->raw, 32 + 2 * c.tunes.size(), 0xFFFF); // ... to an end
        EXPECT_EQ(lx::CalNewestDate(rec->raw), c.newest);
        EXPECT_EQ(lxCalGetCorrectionCalDate(rec.get()), c.newest);
    }
    // A full list of 64 without an end mark: all 64 times count, nothing beyond.
    auto rec = NewRecord(0);
    for (int i = 0; i < 64; ++i) Put<uint16_t>(rec->raw, 32 + 2 * size_t(i), 0x8000);
    Put<uint64_t>(rec->raw, 160 + 8 * 63, 777);
    Put<uint64_t>(rec->raw, 160 + 8 * 64, 1ull << 60); // where a 65th time would sit
    EXPECT_EQ(lx::CalNewestDate(rec->raw), 777u);
    EXPECT_EQ(lxCalGetCorrectionCalDate(nullptr), 0u);
}

TEST(CalRecord, TempFromIndexClamps) {
    const std::pair<int, double> cases[] = {{-3, -30}, {0, -30}, {1, -15}, {3, 15}, {6, 60}, {9, 60}};
    for (auto [i, t] : cases) EXPECT_EQ(lxCalGetTempFromIndex(i), t) << i;
}

TEST(CalRecord, DummyRecordEveryRegion) {
    auto rec = NewRecord(0xA5); // garbage: every byte must be written
    lxCalBuildDummyCorrections(rec.get());
    struct Region { size_t begin, end; int byte; float value; };
    const Region regions[] = {
        {0, 672, 0xFF, 0},          {672, 686, 0x00, 0},         {686, 716, 0xFF, 0},
        {716, 1206, 0x04, 0},       {1206, 1208, 0xFF, 0},       {1208, 97248, -1, 0.0f},
        {97248, 275608, -1, 1.0f},  {275608, 632328, -1, 0.0f},  {632328, 744328, -1, 1.0f},
        {744328, 856328, -1, 0.0f}, {856328, kSize, 0xFF, 0},
    };
    for (const Region& r : regions) {
        for (size_t off = r.begin; off < r.end; off += r.byte >= 0 ? 1 : 4) {
            if (r.byte >= 0) {
                ASSERT_EQ(rec->raw[off], r.byte) << "byte " << off;
            } else {
                ASSERT_EQ(GetF(rec->raw, off), r.value) << "float at " << off;
            }
        }
    }
    EXPECT_FALSE(kdCalDoesCorrectionsExist(rec.get()));
    EXPECT_EQ(lxCalGetCorrectionCalDate(rec.get()), ~0ull);
    Put<uint64_t>(rec->raw, 16, ~0ull >> 8 | 0xFEull << 56); // one bit clear is programmed
    EXPECT_TRUE(kdCalDoesCorrectionsExist(rec.get()));
    EXPECT_FALSE(kdCalDoesCorrectionsExist(nullptr));
}

// Per-slot strides of the slot-indexed tables, from the record layout.
struct Table { size_t offset, slotBytes; };
const Table kSlotTables[] = {
    {1208, 7 * 490 * 4},    {97248, 490 * 13 * 4}, {275608, 490 * 13 * 4},
    {453968, 490 * 13 * 4}, {632328, 4000 * 4},    {744328, 4000 * 4},
};

TEST(CalRecord, PropagateCopiesOneSlot) {
    for (auto [from, to] : {std::pair{2, 5}, std::pair{6, 0}}) {
        auto rec = NewRecord(0);
        for (size_t i = 672; i < kSize; ++i) rec->raw[i] = uint8_t(i * 2654435761u >> 13);
        for (int s = 0; s < 7; ++s) Put<float>(rec->raw, 688 + 4 * size_t(s), -31.5f + 15.0f * float(s));
        std::vector<uint8_t> before(rec->raw, rec->raw + kSize);

        lxCalPropagateSingleTempCal(rec.get(), from, to);

        std::vector<uint8_t> expected = before;
        Put<float>(expected.data(), 688 + 4 * size_t(to), -31.5f + 15.0f * float(from) + 15.0f * float(to - from));
        for (const Table& t : kSlotTables)
            std::memcpy(expected.data() + t.offset + t.slotBytes * size_t(to),
                        before.data() + t.offset + t.slotBytes * size_t(from), t.slotBytes);
        // Everything else, IF levels and tune offsets included, is as it was.
        EXPECT_TRUE(std::memcmp(rec->raw, expected.data(), kSize) == 0) << from << "->" << to;
        EXPECT_EQ(GetF(rec->raw, 688 + 4 * size_t(to)), to == 5 ? 43.5f : -31.5f);
    }
}

TEST(CalRecord, PropagateOutOfRangeChangesNothing) {
    auto rec = NewRecord(0x5A);
    for (auto [from, to] : {std::pair{-1, 3}, std::pair{3, 7}, std::pair{100000, 0}}) {
        lxCalPropagateSingleTempCal(rec.get(), from, to);
        for (size_t i = 0; i < kSize; ++i) ASSERT_EQ(rec->raw[i], 0x5A) << from << "->" << to;
    }
}

float AmplitudeValue(int slot, int atten, int freq) {
    return float(slot * 100 + atten * 10) + float(freq) / 512.0f; // exact in single precision
}

TEST(CalRecord, AmplitudeOffsetClampsAndInterpolates) {
    auto rec = NewRecord(0);
    for (int s = 0; s < 7; ++s)
        for (int a = 0; a < 7; ++a)
            for (int f = 0; f < 490; ++f)
                Put<float>(rec->raw, 1208 + 4 * size_t((s * 7 + a) * 490 + f), AmplitudeValue(s, a, f));
    struct Case { int slot; float x; int atten, freqIndex; float expected; };
    const Case cases[] = {
        {2, 0.0f, 3, 1, AmplitudeValue(2, 3, 0)},     // 1-based frequency index
        {2, 0.0f, 3, 0, AmplitudeValue(2, 3, 0)},     // 0 reads index 0 too
        {2, 0.0f, 3, 490, AmplitudeValue(2, 3, 489)},
        {2, 0.0f, 3, 1000, AmplitudeValue(2, 3, 489)},
        {2, 0.0f, -1, 100, AmplitudeValue(2, 0, 99)},
        {2, 0.0f, 9, 100, AmplitudeValue(2, 6, 99)},
        {2, 1.0f, 3, 100, AmplitudeValue(3, 3, 99)},
        {5, 1.0f, 6, 490, AmplitudeValue(6, 6, 489)},
        {0, 0.5f, 0, 1, 50.0f},                        // (0 + 100) / 2
        {1, 0.25f, 1, 1, 135.0f},                      // 110 * 0.75 + 210 * 0.25
        {6, 0.0f, 0, 1, AmplitudeValue(5, 0, 0)},      // no bracket starts at slot 6
        {-3, 0.0f, 0, 1, AmplitudeValue(0, 0, 0)},
    };
    for (const Case& c : cases)
        EXPECT_EQ(lx::CalAmplitudeOffset(rec->raw, c.slot, c.x, c.atten, c.freqIndex), c.expected)
            << c.slot << " " << c.x << " " << c.atten << " " << c.freqIndex;
}

TEST(CalRecord, TempInterpolateEndsAreExact) {
    const float inf = std::numeric_limits<float>::infinity();
    // Taking the blend at the ends would give NaN (0 * inf); the ends are taken as they are.
    EXPECT_EQ(lx::TempInterpolate(inf, 2.0f, 1.0f), 2.0f);
    EXPECT_EQ(lx::TempInterpolate(2.0f, inf, 0.0f), 2.0f);
    // Blended in single precision (NumPy float32): 17.89886474609375; the same
    // blend in double precision rounds to 17.898862838745117 instead.
    const float a = std::bit_cast<float>(3255976218u), b = std::bit_cast<float>(1108015415u),
                x = std::bit_cast<float>(1061390012u);
    EXPECT_EQ(lx::TempInterpolate(a, b, x), 17.89886474609375f);
}

TEST(CalRecord, LoadFromFileTakesAWholeRecordOrNothing) {
    const std::string base = ::testing::TempDir() + "lx_cal_load_" + std::to_string(getpid()) + "_";
    const auto write = [&](const char* name, size_t bytes, uint8_t fill) {
        const std::string data(bytes, char(fill));
        std::ofstream(base + name, std::ios::binary).write(data.data(), std::streamsize(bytes));
        return base + name;
    };
    auto rec = NewRecord(0x11);
    struct Case { const char* name; size_t bytes; bool ok; };
    for (const Case& c : {Case{"short.bin", kSize - 1, false}, Case{"empty.bin", 0, false},
                          Case{"exact.bin", kSize, true}, Case{"long.bin", kSize + 100, true}}) {
        std::memset(rec->raw, 0x11, kSize);
        EXPECT_EQ(lxCalCorrectionLoadFromFile(write(c.name, c.bytes, 0x22).c_str(), rec.get()), c.ok) << c.name;
        const uint8_t want = c.ok ? 0x22 : 0x11; // a failed load leaves the record alone
        EXPECT_EQ(rec->raw[0], want) << c.name;
        EXPECT_EQ(rec->raw[kSize - 1], want) << c.name;
    }
    EXPECT_FALSE(lxCalCorrectionLoadFromFile((base + "missing.bin").c_str(), rec.get()));
    EXPECT_FALSE(lxCalCorrectionLoadFromFile(::testing::TempDir().c_str(), rec.get())); // a directory
    EXPECT_FALSE(lxCalCorrectionLoadFromFile(nullptr, rec.get()));
    EXPECT_FALSE(lxCalCorrectionLoadFromFile(write("x.bin", kSize, 1).c_str(), nullptr));
    for (const char* name : {"short.bin", "empty.bin", "exact.bin", "long.bin", "x.bin"})
        std::remove((base + name).c_str());
}

} // namespace
