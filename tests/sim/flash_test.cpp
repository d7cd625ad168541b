// Flash through the boot loader: NOR semantics, and the factory calibration
// record checked with arithmetic of its own.
#include <numeric>

#include "sim_test_util.h"

using namespace simtest;

namespace {

constexpr uint32_t kCalPage = 4096;
constexpr size_t kCalBytes = 0x200000;

class FlashTest : public SimTest {
protected:
    // A device in its boot loader, idle.
    std::unique_ptr<UsbDevice> BootDevice(const char* serial, const char* scene = nullptr) {
        int32_t id = 0;
        EXPECT_EQ(lxSimAttachRaw("LX530 Boot", serial, scene, &id), lxNoError);
        return Open(serial);
    }

    static std::vector<uint8_t> ReadFlash(UsbDevice& d, uint32_t page) {
        EXPECT_TRUE(Send(d, {0xFFFD0000u | page}));
        ReadResult r = Read(d, 32768, 2000);
        EXPECT_EQ(r.wait, WaitResult::Completed);
        EXPECT_EQ(r.data.size(), 32768u);
        return r.data;
    }

    static void WritePage(UsbDevice& d, uint32_t page, const std::vector<uint8_t>& bytes) {
        std::vector<uint32_t> words{0xFFFE0000u | page};
        for (size_t i = 0; i < 1024; i += 4) words.push_back(U32(&bytes[i]));
        ASSERT_TRUE(Send(d, words));
    }

    static std::vector<uint8_t> ReadRecord(UsbDevice& d) {
        std::vector<uint8_t> rec;
        for (uint32_t i = 0; i < 64; ++i) {
            auto part = ReadFlash(d, kCalPage + 32 * i);
            rec.insert(rec.end(), part.begin(), part.end());
        }
        return rec;
    }
};

std::vector<uint8_t> Pattern(uint8_t seed) {
    std::vector<uint8_t> v(1024);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint8_t>(seed * 37 + i * 11 + (i >> 3));
    return v;
}

TEST_F(FlashTest, NorSemantics) {
    auto d = BootDevice("60000001");
    ASSERT_NE(d, nullptr);
    constexpr uint32_t kSector = 8192; // an unused sector (pages 8192..8447)

    // Never written: 0xFF.
    for (uint8_t b : ReadFlash(*d, kSector)) ASSERT_EQ(b, 0xFF);

    // A second write can only clear bits: the result is the AND of both.
    const auto a = Pattern(1), b = Pattern(2);
    WritePage(*d, kSector + 1, a);
    WritePage(*d, kSector + 1, b);
    const auto block = ReadFlash(*d, kSector);
    for (size_t i = 0; i < 1024; ++i) {
        ASSERT_EQ(block[i], 0xFF) << i;                                   // page 8192 untouched
        ASSERT_EQ(block[1024 + i], static_cast<uint8_t>(a[i] & b[i])) << i; // page 8193
    }

    // Erase takes the whole 256-page sector and nothing beyond it.
    WritePage(*d, kSector + 255, a);
    WritePage(*d, kSector + 256, a);
    ASSERT_TRUE(Send(*d, {0xFFFC0000u | kSector}));
    for (uint8_t x : ReadFlash(*d, kSector)) ASSERT_EQ(x, 0xFF);
    const auto tail = ReadFlash(*d, kSector + 224);
    for (size_t i = 0; i < 1024; ++i) ASSERT_EQ(tail[31 * 1024 + i], 0xFF);
    const auto next = ReadFlash(*d, kSector + 256);
    EXPECT_TRUE(std::equal(a.begin(), a.end(), next.begin()));
    // After the erase, a write lands whole again.
    WritePage(*d, kSector + 1, b);
    const auto rewritten = ReadFlash(*d, kSector);
    EXPECT_TRUE(std::equal(b.begin(), b.end(), rewritten.begin() + 1024));

    LxSimCounters c{};
    ASSERT_EQ(lxSimGetCounters(60000001, &c), lxNoError);
    EXPECT_EQ(c.flashPageWrites, 5u);
    EXPECT_EQ(c.flashPageErases, 1u);
    EXPECT_EQ(c.flashReads, 6u);
}

TEST_F(FlashTest, EraseAndWriteKeepTheLoaderBusyForAVirtualWhile) {
    auto d = BootDevice("60000002");
    ASSERT_NE(d, nullptr);
    uint8_t reply[4];
    ASSERT_TRUE(Send(*d, {0xFFFC0000u | 8192}));
    ASSERT_EQ(d->ControlIn(0xC2, 0, 0, reply, 4, 100), 4);
    EXPECT_EQ(reply[1], 1);
    int polls = 0;
    while (reply[1] == 1 && polls < 100) {
        Bus().Sleep(100);
        ASSERT_EQ(d->ControlIn(0xC2, 0, 0, reply, 4, 100), 4);
        ++polls;
    }
    EXPECT_EQ(reply[1], 0);
    EXPECT_GE(polls, 2) << "an erase should take a while";
    EXPECT_LE(polls, 20) << "an erase should end well inside the host's 2 s pause";
}

uint32_t WordSum(const std::vector<uint8_t>& rec, size_t from) {
    uint32_t s = 0;
    for (size_t i = from; i < rec.size(); i += 4) s += U32(&rec[i]);
    return s;
}

float F32(const uint8_t* p) {
    const uint32_t u = U32(p);
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

TEST_F(FlashTest, FactoryRecordIsWellFormed) {
    auto d = BootDevice("60000003");
    ASSERT_NE(d, nullptr);
    const auto rec = ReadRecord(*d);
    ASSERT_EQ(rec.size(), kCalBytes);

    EXPECT_EQ(U32(&rec[0]), 0xF0000000u);
    EXPECT_EQ(U32(&rec[4]), 1u);
    const uint64_t date = U64(&rec[16]);
    EXPECT_NE(date, ~uint64_t{0});
    EXPECT_GT(date, 1500000000u); // seconds since 1970, after 2017
    EXPECT_EQ(U32(&rec[28]), WordSum(rec, 672));

    // Tune table: a few entries, times not after the calibration date, then the end marker.
    int entries = 0;
    while (entries < 64 && U16(&rec[32 + 2 * entries]) != 0xFFFF) {
        EXPECT_LE(U64(&rec[160 + 8 * entries]), date);
        ++entries;
    }
    EXPECT_GE(entries, 1);
    EXPECT_LT(entries, 64);

    for (int s = 0; s < 7; ++s) EXPECT_FLOAT_EQ(F32(&rec[688 + 4 * s]), -30.0f + 15.0f * s);
    for (int i = 0; i < 490; ++i) {
        EXPECT_GE(rec[716 + i], 1);
        EXPECT_LE(rec[716 + i], 15);
    }
    // Amplitude corrections: finite, and more attenuation needs more correction.
    for (int s = 0; s < 7; ++s)
        for (int i = 0; i < 490; ++i)
            for (int a = 1; a < 7; ++a) {
                const float lo = F32(&rec[1208 + 4 * ((s * 7 + a - 1) * 490 + i)]);
                const float hi = F32(&rec[1208 + 4 * ((s * 7 + a) * 490 + i)]);
                ASSERT_GT(hi - lo, 4.0f) << s << " " << a << " " << i;
                ASSERT_LT(hi - lo, 6.0f) << s << " " << a << " " << i;
            }
    // Response tables: a front end within 1.5 dB of flat (magnitudes, phases
    // and flatness bounded), no service trim; reserved tail erased.
    const struct {
        size_t offset, count;
        float lo, hi;
    } tables[] = {{97248, 7 * 490 * 13, 0.84f, 1.19f}, {275608, 7 * 490 * 13, -0.2f, 0.2f},
                  {453968, 7 * 490 * 13, -1.5f, 1.5f},  {632328, 7 * 4000, 0.84f, 1.19f},
                  {744328, 7 * 4000, 0.0f, 0.0f}};
    for (const auto& t : tables)
        for (size_t k = 0; k < t.count; ++k) {
            ASSERT_GE(F32(&rec[t.offset + 4 * k]), t.lo) << t.offset << " " << k;
            ASSERT_LE(F32(&rec[t.offset + 4 * k]), t.hi) << t.offset << " " << k;
        }
    for (size_t i = 856328; i < kCalBytes; ++i) ASSERT_EQ(rec[i], 0xFF) << i;
}

TEST_F(FlashTest, CalibrationSceneVariants) {
    auto corrupt = BootDevice("60000004", R"({"calibration": "corrupt"})");
    ASSERT_NE(corrupt, nullptr);
    auto rec = ReadRecord(*corrupt);
    EXPECT_EQ(U32(&rec[0]), 0xF0000000u);
    EXPECT_NE(U64(&rec[16]), ~uint64_t{0});
    EXPECT_NE(U32(&rec[28]), WordSum(rec, 672));

    auto blank = BootDevice("60000005", R"({"calibration": "unprogrammed"})");
    ASSERT_NE(blank, nullptr);
    rec = ReadRecord(*blank);
    EXPECT_EQ(std::count(rec.begin(), rec.end(), 0xFF), static_cast<long>(kCalBytes));

    // A scene change reprograms the record; the factory one checks out again.
    ASSERT_EQ(lxSimSetScene(60000005, R"({"calibration": "factory"})"), lxNoError);
    rec = ReadRecord(*blank);
    EXPECT_EQ(U32(&rec[28]), WordSum(rec, 672));
}

} // namespace
