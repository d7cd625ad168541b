// The run firmware's data plane: how answers fill IN transfers, the status
// packet and the samples. (Faults: tests/faults, tests/usb_umockdev.)
#include <thread>

#include "sim_test_util.h"

using namespace simtest;

namespace {

using DataPlaneTest = SimTest;

struct BoundaryCase {
    const char* name;
    std::vector<std::vector<uint32_t>> blocks; // sent before the reads
    std::vector<std::pair<uint32_t, int64_t>> reads; // (length, bytes expected; -1: times out)
};

std::vector<uint32_t> Cat(std::initializer_list<std::vector<uint32_t>> parts) {
    std::vector<uint32_t> out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST_F(DataPlaneTest, AnswersEndTransfersAsTheDeviceSendsThem) {
    const BoundaryCase cases[] = {
        {"one aux packet ends a 32 KiB read short", {Request(0, 1)}, {{32768, 8192}}},
        {"four aux packets fill it exactly", {Request(0, 4)}, {{32768, 32768}}},
        {"an aux-only answer ends even a longer read", {Request(0, 4)}, {{65536, 32768}}},
        {"leftover goes to the next reads", {Request(0, 4)}, {{8192, 8192}, {16384, 16384}, {32768, 8192}}},
        {"two answers in one block are two transfers", {Cat({Request(0, 1), Request(0, 2)})}, {{32768, 8192}, {32768, 16384}}},
        {"a streaming block of 127 + 1 fills 1 MiB", {Request(127, 1)}, {{1048576, 1048576}}},
        {"I/Q packets go out in fours", {Request(3, 0)}, {{32768, -1}}},
        {"and continue across requests", {Request(3, 0), Request(2, 0)}, {{32768, 32768}, {32768, -1}}},
        {"a sweep's filler completes the last buffer", {Request(3, 0), Request(2, 0), Request(3, 0)}, {{65536, 65536}}},
        {"nothing requested, nothing sent", {}, {{8192, -1}}},
    };
    int32_t serial = 70000000;
    for (const BoundaryCase& c : cases) {
        SCOPED_TRACE(c.name);
        ++serial;
        ASSERT_EQ(lxSimAttach(serial, nullptr), lxNoError);
        auto d = Open(serial);
        ASSERT_NE(d, nullptr);
        for (const auto& b : c.blocks) ASSERT_TRUE(Send(*d, b));
        for (const auto& [length, expected] : c.reads) {
            const ReadResult r = Read(*d, length, 100);
            if (expected < 0) {
                EXPECT_EQ(r.wait, WaitResult::TimedOut);
            } else {
                EXPECT_EQ(r.wait, WaitResult::Completed);
                EXPECT_EQ(static_cast<int64_t>(r.data.size()), expected);
            }
        }
    }
}

// The stream is one ordered byte stream: I/Q packets first, then the aux
// packets, across however many transfers the host reads it in. An answer
// with I/Q packets sends no short packet: it shares its DMA buffer with the
// next answer.
TEST_F(DataPlaneTest, PacketsArriveInRequestOrder) {
    ASSERT_EQ(lxSimAttach(70000100, nullptr), lxNoError);
    auto d = Open(70000100);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(Send(*d, Request(2, 1)));
    EXPECT_EQ(Read(*d, 5000, 50).wait, WaitResult::TimedOut) << "three packets do not fill a buffer";
    ASSERT_TRUE(Send(*d, Request(0, 1)));
    std::vector<uint8_t> all;
    for (auto [len, got] : {std::pair{5000u, 5000u}, {20000u, 20000u}, {8000u, 7768u}}) {
        const ReadResult r = Read(*d, len);
        EXPECT_EQ(r.data.size(), got);
        all.insert(all.end(), r.data.begin(), r.data.end());
    }
    ASSERT_EQ(all.size(), 4u * 8192u);
    EXPECT_NE(U32(&all[0]), 0x41555831u);
    EXPECT_NE(U32(&all[8192]), 0x41555831u);
    EXPECT_EQ(U32(&all[2 * 8192]), 0x41555831u);
    EXPECT_EQ(U32(&all[3 * 8192]), 0x41555831u);
    EXPECT_EQ(Read(*d, 32768, 50).wait, WaitResult::TimedOut);
}

// A settle word's count (ticks) passes on the timeline before the next data.
TEST_F(DataPlaneTest, SettleWordCountElapsesAsDeviceTime) {
    ASSERT_EQ(lxSimAttach(70000310, nullptr), lxNoError);
    auto d = Open(70000310);
    ASSERT_NE(d, nullptr);
    for (const uint32_t count : {0x50u, 0x801u, 0x7F0000u}) {
        ASSERT_TRUE(Send(*d, Cat({Request(1, 1), {0x10000000u | count, 0, 0, 0}, Request(1, 1)})));
        const ReadResult r = Read(*d, 32768);
        ASSERT_EQ(r.data.size(), 32768u);
        EXPECT_EQ(U64(&r.data[3 * 8192 + 32]) - U64(&r.data[8192 + 32]), 2u * 2048 + (count + 1) / 2 * 2) << count;
    }
}

// Clipping at the 16-bit limits sets bit 0x100 of the status word of the
// next status packet, once.
TEST_F(DataPlaneTest, AdcOverflowBitFollowsClipping) {
    struct Case { double power; bool overflow; };
    for (const Case& c : {Case{-40.0, false}, Case{-20.0, false}, Case{5.0, true}, Case{20.0, true}}) {
        SCOPED_TRACE(c.power);
        const int32_t serial = 73000000 + static_cast<int32_t>(c.power + 100);
        Instrument in = Bring(serial, ToneScene(RowCentre(40) + 1e6, c.power));
        ASSERT_NE(in.dev, nullptr);
        ASSERT_TRUE(Send(*in.dev, TuneAndCapture(in, 40, 0, 3, 1)));
        ASSERT_TRUE(Send(*in.dev, Request(0, 1)));
        const ReadResult r = Read(*in.dev, 4 * 8192);
        ASSERT_EQ(r.data.size(), 4u * 8192u);
        bool railed = false;
        for (size_t i = 0; i < 3 * 8192; i += 2) {
            const auto v = static_cast<int16_t>(U16(&r.data[i]));
            railed |= v == 32767 || v == -32768;
        }
        EXPECT_EQ(railed, c.overflow);
        EXPECT_EQ((U32(&r.data[3 * 8192 + 48]) & 0x100) != 0, c.overflow);
        const ReadResult next = Read(*in.dev, 8192);
        ASSERT_EQ(next.data.size(), 8192u);
        EXPECT_EQ(U32(&next.data[48]) & 0x100, 0u) << "reported once, then cleared";
        lxSimDetach(serial);
    }
}

// Paced delivery runs no faster than the sample rate.
TEST_F(DataPlaneTest, RealtimePacingHoldsTheSampleRate) {
    ASSERT_EQ(lxSimAttach(74000002, R"({"pacing": "realtime"})"), lxNoError);
    auto d = Open(74000002);
    ASSERT_NE(d, nullptr);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(Send(*d, Request(127, 1)));
    for (int i = 0; i < 4; ++i) ASSERT_EQ(Read(*d, 1048576, 2000).data.size(), 1048576u);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(seconds, 4 * 127 * 2048 / kFs * 0.98);

    // A host that reads too late finds the data-loss bit (0x200) in the
    // status packet behind the overwritten samples; one that keeps up does not.
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(Send(*d, Request(127, 1)));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    ReadResult r = Read(*d, 1048576, 2000);
    ASSERT_EQ(r.data.size(), 1048576u);
    EXPECT_NE(U32(&r.data[127 * 8192 + 48]) & 0x200, 0u);
    ASSERT_EQ(Read(*d, 1048576, 2000).data.size(), 1048576u);
    // The stream ran on without a request for longer than the device's
    // 34 ms buffer holds: the next one finds its samples gone. After a stop
    // word a request starts a new capture instead.
    for (const bool stop : {false, true}) {
        std::this_thread::sleep_for(std::chrono::milliseconds(80));
        ASSERT_TRUE(Send(*d, stop ? Cat({{0x32000000u}, Request(127, 1)}) : Request(127, 1)));
        r = Read(*d, 1048576, 2000);
        ASSERT_EQ(r.data.size(), 1048576u);
        EXPECT_EQ((U32(&r.data[127 * 8192 + 48]) & 0x200) != 0, !stop) << stop;
    }
}

// What lies beyond the band of capture code 3 is filtered out, never folded
// in: 9 MHz is inside code 2's 30.72 MS/s but would land at 9 - 15.36 =
// -6.36 MHz in code 3's. The tone reads about -10 dBFS; without it the stream
// is the ADC's own noise, near -92 dBFS. (A tone's level and phase at every
// decimation: tests/e2e/iq_test.cpp.)
TEST_F(DataPlaneTest, NothingAliasesIntoTheDecimatedBand) {
    ASSERT_EQ(lxSimAttach(76100000, ToneScene(RowCentre(40) + 9.0e6, -20.0, -200.0).c_str()), lxNoError);
    auto d = Open(76100000);
    ASSERT_NE(d, nullptr);
    const auto powerDb = [&](uint32_t code, uint32_t packets) {
        lx::TuningState st;
        uint32_t w[lx::kTuneMaxWords];
        std::vector<uint32_t> words(w, w + lx::EncodeTune(st, w, RowLo(40), RowCentre(40), 4, 0, 24, false));
        words.push_back(0x30000000u | code);
        for (uint32_t r : Request(packets, 0)) words.push_back(r);
        EXPECT_TRUE(Send(*d, words));
        const ReadResult r = Read(*d, packets * 8192);
        EXPECT_EQ(r.data.size(), packets * 8192u);
        double p = 0;
        for (const auto& v : Samples(r.data, r.data.size() / 8192)) p += std::norm(v);
        return 10 * std::log10(p / (packets * 2048.0));
    };
    EXPECT_GT(powerDb(2, 4), -20.0);
    const double withTone = powerDb(3, 16);
    ASSERT_EQ(lxSimSetScene(76100000, R"({"noise_floor_dbm_hz": -200})"), lxNoError);
    EXPECT_NEAR(withTone, powerDb(3, 16), 0.2);
}

} // namespace
