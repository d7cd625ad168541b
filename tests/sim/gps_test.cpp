// The simulated GPS receiver, device time and the disciplined reference, seen
// as a host sees them: status packets decoded here by hand, NMEA times checked
// by the C library. Fixes, replayed logs and the discipline's walk:
// tests/e2e/gps_test.cpp, through the host.
#include <chrono>
#include <complex>
#include <ctime>
#include <numbers>
#include <thread>

#include "lx_command/encoders.h"
#include "lx_command/status_packet.h"
#include "sim_test_util.h"

using namespace simtest;

namespace {

using GpsTest = SimTest;

constexpr uint64_t kSecond = 122880000; // device ticks
constexpr uint64_t kMs = 122880;
constexpr int64_t kDefaultUtc = 1795262400; // 2026-11-21T12:00:00Z

struct Aux {
    uint64_t tick = 0, pulse = 0;
    uint32_t gps = 0;
    uint16_t tune = 0;
    std::string text; // the ring from the read index up to the write index
    uint32_t Seq() const { return gps >> 18 & 3; }
};

Aux Decode(const uint8_t* p) {
    Aux a{U64(p + 32), U64(p + 16), U32(p + 92), U16(p + 44), {}};
    std::string bytes;
    for (uint32_t w = a.gps >> 20 & 0x1FF; w != (a.gps >> 9 & 0x1FF); w = (w + 1) % 512)
        bytes.append(reinterpret_cast<const char*>(p + 4096 + 4 * w), 4);
    a.text = bytes.c_str();
    EXPECT_LT(bytes.size() - a.text.size(), 4u) << "at most one word of NUL padding";
    return a;
}

Aux Poll(UsbDevice& d) {
    EXPECT_TRUE(Send(d, Request(0, 1)));
    const ReadResult r = Read(d, 8192);
    EXPECT_EQ(r.data.size(), 8192u);
    return r.data.size() == 8192 ? Decode(r.data.data()) : Aux{};
}

void Advance(uint64_t ms) { ASSERT_EQ(lxSimAdvanceTimeMs(ms), lxNoError); }

std::string Utc(int64_t t, const char* format) {
    const time_t tt = static_cast<time_t>(t);
    tm parts{};
    gmtime_r(&tt, &parts);
    char buf[32];
    std::strftime(buf, sizeof buf, format, &parts);
    return buf;
}

TEST_F(GpsTest, SilentReceiverAndNoReceiverSendNothingWhileTimeGoesOn) {
    ASSERT_EQ(lxSimAttach(80000200, R"({"gps": {}})"), lxNoError);
    ASSERT_EQ(lxSimAttach(80000201, nullptr), lxNoError);
    auto d = Open(80000200), none = Open(80000201);
    ASSERT_TRUE(d && none);
    // On frequency (the right word at 25 degrees: pulses every kSecond ticks),
    // and past the message delay: polls whole seconds apart each see the
    // message of the pulse before them.
    ASSERT_TRUE(Send(*d, {0x2E008040u}));
    Advance(2500);
    const Aux before = Poll(*d);
    ASSERT_EQ(lxSimSetScene(80000200, R"({"gps": {"receiver": "silent"}})"), lxNoError);
    // A refused scene (tests/sim/emitters_test.cpp) leaves the receiver as it is: silent, same clock.
    EXPECT_EQ(lxSimSetScene(80000200, R"({"gps": {"latitude": 90.5}})"), lxInvalidParameterErr);
    Aux a;
    for (int i = 0; i < 4; ++i) {
        Advance(1000);
        a = Poll(*d);
        EXPECT_EQ(a.Seq(), before.Seq());
        EXPECT_EQ(a.text, before.text) << "the ring keeps the last message";
        const Aux n = Poll(*none);
        EXPECT_EQ(n.gps | n.pulse, 0u);
    }
    EXPECT_GT(a.tick - before.tick, 366000000u) << "long enough for a host to call the GPS lost";
    // Back on, it goes on with the second its clock has reached.
    ASSERT_EQ(lxSimSetScene(80000200, R"({"gps": {}})"), lxNoError);
    const uint64_t silentUntil = a.tick / kSecond;
    Advance(1000);
    a = Poll(*d);
    const uint64_t k = a.tick / kSecond;
    EXPECT_EQ(a.Seq(), (before.Seq() + k - silentUntil) % 4);
    EXPECT_NE(a.text.find("RMC," + Utc(kDefaultUtc + static_cast<int64_t>(k) - 1, "%H%M%S")), std::string::npos)
        << a.text;
}

// The samples come from the reference the tune word sets, whether the host
// wrote the word or the discipline walked it there.
TEST_F(GpsTest, DisciplinedWordRetunesTheReference) {
    const double lo = RowLo(300), centre = RowCentre(300), tone = centre + 1e6;
    const uint16_t target = 0x8040 + 1000;
    std::string scene = ToneScene(tone, -20, -200);
    scene.insert(scene.size() - 1, R"(, "gps": {"disciplined_tune": )" + std::to_string(target) + "}");
    ASSERT_EQ(lxSimAttach(80000600, scene.c_str()), lxNoError);
    auto d = Open(80000600);
    ASSERT_NE(d, nullptr);
    lx::TuningState st;
    uint32_t tune[lx::kTuneMaxWords];
    std::vector<uint32_t> words(tune, tune + lx::EncodeTune(st, tune, lo, centre, 4, 0, 24, false));
    words.push_back(0x2E008040u);
    ASSERT_TRUE(Send(*d, words));
    // Baseband frequency of a clean tone: least-squares slope of its unwrapped phase.
    const auto measure = [&] {
        EXPECT_TRUE(Send(*d, Request(4, 0)));
        const ReadResult r = Read(*d, 32768);
        EXPECT_EQ(r.data.size(), 32768u);
        const double n = 8192, mid = (n - 1) / 2;
        double phase = 0, sxy = 0, sxx = 0;
        std::complex<double> last;
        for (size_t i = 0; i < 8192 && r.data.size() == 32768; ++i) {
            const std::complex<double> x(static_cast<int16_t>(U16(&r.data[4 * i])) - 576,
                                         static_cast<int16_t>(U16(&r.data[4 * i + 2])) - 576);
            phase += i == 0 ? std::arg(x) : std::arg(x * std::conj(last));
            last = x;
            sxy += (static_cast<double>(i) - mid) * phase; // the mean phase drops out: sum(i - mid) = 0
            sxx += (static_cast<double>(i) - mid) * (static_cast<double>(i) - mid);
        }
        return sxy / sxx * 61.44e6 / (2 * std::numbers::pi);
    };
    const double atFactoryWord = measure();
    EXPECT_NEAR(atFactoryWord, 1e6, 1e3) << "the tone is in view";
    ASSERT_TRUE(Send(*d, {0x2F000001u}));
    Advance(1001000);
    EXPECT_EQ(Poll(*d).tune, target);
    const double walked = measure();
    ASSERT_TRUE(Send(*d, {0x2F000000u, 0x2E000000u | target}));
    EXPECT_NEAR(walked, measure(), 0.1);
    // 0.3 ppb per count: the reference runs fast, so the tone sits lower.
    EXPECT_NEAR(atFactoryWord - walked, tone * 1000 * 0.3e-9, 30.0);
}

TEST_F(GpsTest, DeviceTimeAdvancesWithVirtualTimeAndIdleRealTime) {
    ASSERT_EQ(lxSimAttach(80000800, nullptr), lxNoError);
    auto d = Open(80000800);
    ASSERT_NE(d, nullptr);
    // Streaming (I/Q requested, not yet taken): samples and virtual time only.
    ASSERT_TRUE(Send(*d, Request(1, 1)));
    Advance(1234);
    ASSERT_TRUE(Send(*d, Request(1, 1)));
    const ReadResult r = Read(*d, 32768);
    ASSERT_EQ(r.data.size(), 32768u);
    EXPECT_EQ(U64(&r.data[3 * 8192 + 32]) - U64(&r.data[8192 + 32]), 2 * 2048 + 1234 * kMs);
    // Idle: virtual time and real time.
    for (uint64_t ms : {0ull, 1ull, 3000ull, 86400000ull}) {
        const uint64_t v0 = VirtualMs();
        const auto wall0 = std::chrono::steady_clock::now();
        const uint64_t t0 = Poll(*d).tick;
        Advance(ms);
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        const uint64_t t1 = Poll(*d).tick;
        const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
        EXPECT_EQ(VirtualMs() - v0, ms);
        EXPECT_GE(t1 - t0, (ms + 3) * kMs) << ms;
        EXPECT_LE(t1 - t0, ms * kMs + static_cast<uint64_t>(wall * 122.88e6)) << ms;
    }
    const uint64_t v = VirtualMs();
    EXPECT_EQ(lxSimAdvanceTimeMs(1000000001), lxInvalidParameterErr);
    EXPECT_EQ(VirtualMs(), v);
}

} // namespace
