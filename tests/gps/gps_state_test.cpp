#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "gps/gps_state.h"

namespace {

using lx::gps::GpsPacketFields;
using lx::gps::GpsState;

constexpr char kFixText[] =
    "$GPGGA,120000.000,4807.0380,N,01131.0000,E,1,08,0.9,545.4,M,46.9,M,,*00\r\n"
    "$GPRMC,120000.000,A,4807.0380,N,01131.0000,E,0.0,0.0,211126,,,A*00\r\n";
constexpr char kVoidText[] = "$GPRMC,120005.000,V,,,,,0.0,0.0,211126,,,N*00\r\n";
// 2026-11-21 12:00:00 UTC plus the one second the RMC time is taken later.
constexpr int64_t kFixSeconds = 1795262400 + 1;

// A status packet's GPS pieces: the text is placed in the ring from word
// `readIndex` on, wrapping at 512 words.
struct Packet {
    std::vector<uint8_t> ring = std::vector<uint8_t>(2048, 0);
    GpsPacketFields f;
    // `tick` is the packet's block tick; the receiver's latest pulse is
    // `pulse` (by default the packet's own tick).
    Packet(const std::string& text, uint32_t seq, uint64_t tick, uint32_t readIndex = 0, int64_t pulse = -1) {
        const size_t words = (text.size() + 3) / 4;
        for (size_t i = 0; i < text.size(); ++i) ring[((readIndex + i / 4) % 512) * 4 + i % 4] = uint8_t(text[i]);
        const uint32_t writeIndex = static_cast<uint32_t>((readIndex + words) % 512);
        f.gpsStatusWord = (readIndex << 20) | (seq << 18) | (writeIndex << 9);
        f.blockTick = tick;
        f.pulseTick = pulse < 0 ? tick : static_cast<uint64_t>(pulse);
        f.uartRing = ring.data();
        f.nmeaArea = ring.data();
    }
};

int64_t Ns(double ticks) { return static_cast<int64_t>(std::floor(ticks * 8.138020833333334 + 0.5)); }

// The first packet's message is new whatever its sequence number.
TEST(GpsIntake, NewMessageIsCopiedAcrossTheRingWrapAndParsed) {
    GpsState g;
    Packet p(kFixText, 0, 1000, 500); // starts 12 words before the wrap
    const int64_t t = lx::gps::TakeStatusPacket(g, p.f, 1, 42);
    EXPECT_EQ(std::string(g.text.data()), kFixText);
    EXPECT_TRUE(g.nmea.fixValid);
    EXPECT_NEAR(g.nmea.latitude, 48.1173, 1e-9);
    EXPECT_EQ(g.messageCounter, 1u);
    // Anchored to the fix: the pipeline delay of 2048 - 98 ticks at
    // decimation 1, and no time since the message.
    EXPECT_EQ(t, kFixSeconds * 1000000000LL + Ns(2048 - 98));
}

// The receiver sends its message a while after the pulse it describes: the
// fix's time belongs to the pulse the packet reports, not to the packet; the
// pipeline delay depends on the decimation.
TEST(GpsIntake, MessageIsAnchoredAtItsPulseNotAtThePacketCarryingIt) {
    const struct { uint64_t late; int d1; double delay; } cases[] = {
        {0, 1, 2048 - 98}, {36864000, 1, 2048 - 98}, {110592000, 1, 2048 - 98}, // 0, 0.3 s, 0.9 s
        {0, 2, 4096 - 176}, {0, 4, 8192 - 176 - 136}};
    for (const auto& c : cases) {
        GpsState g;
        const uint64_t pulse = 5 * 122880000ULL;
        Packet p(kFixText, 1, pulse + c.late, 0, static_cast<int64_t>(pulse));
        EXPECT_EQ(lx::gps::TakeStatusPacket(g, p.f, c.d1, 0), kFixSeconds * 1000000000LL + Ns(c.delay + double(c.late)))
            << c.late << " " << c.d1;
    }
}

TEST(GpsIntake, SameSequenceIsNotANewMessageAndTimeRunsOnFromTheAnchor) {
    GpsState g;
    Packet first(kFixText, 2, 5000);
    const int64_t t0 = lx::gps::TakeStatusPacket(g, first.f, 1, 0);
    Packet later("garbage that must not be parsed\r\n", 2, 5000 + 122880000);
    const int64_t t1 = lx::gps::TakeStatusPacket(g, later.f, 1, 0);
    EXPECT_EQ(g.messageCounter, 1u);
    EXPECT_TRUE(g.nmea.fixValid);
    // With the fix still valid the anchor is recomputed from the message
    // tick: one second of ticks later is one second later.
    EXPECT_EQ(t1 - t0, Ns(2048 - 98 + 122880000) - Ns(2048 - 98));
}

TEST(GpsIntake, SilenceOfMoreThanTheLossTimeDropsTheFix) {
    GpsState g;
    Packet fix(kFixText, 1, 100);
    lx::gps::TakeStatusPacket(g, fix.f, 1, 0);
    Packet quietAtLimit("", 1, 100 + lx::gps::kLossTicks);
    lx::gps::TakeStatusPacket(g, quietAtLimit.f, 1, 0);
    EXPECT_TRUE(g.nmea.fixValid); // exactly the limit is not yet lost
    Packet quiet("", 1, 101 + lx::gps::kLossTicks);
    std::memcpy(quiet.ring.data(), "RAW", 3);
    lx::gps::TakeStatusPacket(g, quiet.f, 1, 0);
    EXPECT_FALSE(g.nmea.fixValid);
    EXPECT_EQ(g.textLength, 2048u);
    EXPECT_EQ(std::string(g.text.data(), 3), "RAW");
}

TEST(GpsIntake, VoidFixKeepsTheAnchorAndStampsRunOn) {
    GpsState g;
    Packet fix(kFixText, 1, 1000);
    const int64_t t0 = lx::gps::TakeStatusPacket(g, fix.f, 1, 0);
    Packet lost(kVoidText, 2, 1000 + 61440000);
    const int64_t t1 = lx::gps::TakeStatusPacket(g, lost.f, 1, 0);
    EXPECT_FALSE(g.nmea.fixValid);
    // Anchor tick is the fix packet's tick; half a second of ticks later.
    EXPECT_EQ(t1, t0 + Ns(61440000));
}

TEST(GpsIntake, BeforeAnyFixTheHostClockAnchors) {
    GpsState g;
    Packet none("", 0, 777);
    EXPECT_EQ(lx::gps::TakeStatusPacket(g, none.f, 1, 123456700), 123456700);
    Packet later("", 0, 777 + 122880);
    EXPECT_EQ(lx::gps::TakeStatusPacket(g, later.f, 1, 999), 123456700 + Ns(122880));
}

// Found by fuzzing: a corrupt packet's tick, far from the anchor, made the
// time arithmetic overflow (undefined behaviour). It now saturates.
TEST(GpsIntake, TickFarFromTheAnchorSaturatesInsteadOfOverflowing) {
    GpsState g;
    Packet first("", 0, 0);
    lx::gps::TakeStatusPacket(g, first.f, 1, 1000);
    Packet far("", 0, ~uint64_t{0});
    const int64_t t = lx::gps::TakeStatusPacket(g, far.f, 1, 0);
    EXPECT_GT(t, int64_t{9'000'000'000'000'000'000});
    Packet fix(kFixText, 1, 0, 0, static_cast<int64_t>(uint64_t{1} << 62));
    EXPECT_LT(lx::gps::TakeStatusPacket(g, fix.f, 1, 0), 0); // anchored far before the pulse
}

} // namespace
