// Flash through the boot loader: NOR semantics and erase timing. The factory
// record is judged by what the host makes of it (tests/usb, tests/e2e).
#include "sim_test_util.h"

using namespace simtest;

namespace {

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

} // namespace
