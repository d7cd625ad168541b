// The run firmware's data plane: how answers fill IN transfers, and what the
// decimating capture lets through.
#include <chrono>
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
        {"four aux packets, a whole buffer, still end a longer read", {Request(0, 4)}, {{65536, 32768}}},
        {"leftover goes to the next reads", {Request(0, 4)}, {{8192, 8192}, {16384, 16384}, {32768, 8192}}},
        {"two answers in one block are two transfers", {Cat({Request(0, 1), Request(0, 2)})}, {{32768, 8192}, {32768, 16384}}},
        {"a streaming block of 127 + 1 fills 1 MiB", {Request(127, 1)}, {{1048576, 1048576}}},
        {"I/Q packets go out in fours, across requests", {Request(3, 0), Request(2, 0)}, {{32768, 32768}, {32768, -1}}},
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

// What lies beyond the band of capture code 3 is filtered out, never folded
// in: 9 MHz is inside code 2's 30.72 MS/s but would land at 9 - 15.36 =
// -6.36 MHz in code 3's. The tone reads about -10 dBFS; without it the stream
// is the ADC's own noise, near -92 dBFS.
TEST_F(DataPlaneTest, NothingAliasesIntoTheDecimatedBand) {
    ASSERT_EQ(lxSimAttach(76100000, ToneScene(RowCentre(40) + 9.0e6, -20.0, -200.0).c_str()), lxNoError);
    auto d = Open(76100000);
    ASSERT_NE(d, nullptr);
    const auto powerDb = [&](uint32_t code, uint32_t packets) {
        std::vector<uint32_t> words = TuneWords(40);
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

// Paced, the FIFO (34 ms) drains into any transfer the host has queued: a
// block whose transfer was queued in time is whole however late the host
// comes to reap it; one whose transfer is queued 100 ms late lost samples.
// The status packet behind the block says which (status bit 9).
TEST_F(DataPlaneTest, PacedLossFollowsWhenTheTransferWasQueuedNotWhenItWasReaped) {
    int32_t serial = 76200000;
    for (const bool queuedLate : {false, true}) {
        SCOPED_TRACE(queuedLate ? "queued late" : "queued at once, reaped late");
        // At the real rate whatever LX_SIM_PACE_RATE says: 100 ms is then
        // three times the FIFO.
        ASSERT_EQ(lxSimAttach(++serial, R"({"pacing": "realtime", "pace_rate": 1})"), lxNoError);
        auto d = Open(serial);
        ASSERT_NE(d, nullptr);
        constexpr uint32_t kBytes = 64 * 8192; // 63 I/Q packets and the status packet
        std::vector<uint8_t> buf(kBytes);
        ASSERT_TRUE(Send(*d, Request(63, 1)));
        std::unique_ptr<lx::usb::BulkTransfer> t;
        if (!queuedLate) t = d->BeginBulk(Endpoint::BulkIn, buf.data(), kBytes);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (queuedLate) t = d->BeginBulk(Endpoint::BulkIn, buf.data(), kBytes);
        ASSERT_EQ(d->WaitBulk(*t, 2000), WaitResult::Completed);
        ASSERT_EQ(d->FinishBulk(*t), kBytes);
        EXPECT_EQ((U32(buf.data() + 63 * 8192 + 48) >> 9) & 1, queuedLate ? 1u : 0u);
    }
}

} // namespace
