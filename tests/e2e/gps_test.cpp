// GPS fed by the simulated analyzer's receiver.

#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <tuple>

#include "e2e_support.h"

namespace {

struct Fix {
    uint32_t updated = 0;
    int64_t time = 0;
    double lat = 0, lon = 0, alt = 0;
    std::string text;
    LxStatus status = lxNoError;
};

Fix ReadFix(int32_t h, int32_t refresh = 1) {
    Fix f;
    char buf[2100] = {};
    int32_t len = sizeof buf;
    f.status = lxGetGPSInfo(h, refresh, &f.updated, &f.time, &f.lat, &f.lon, &f.alt, buf, &len);
    f.text.assign(buf, len > 0 ? size_t(len - 1) : 0);
    return f;
}

uint32_t State(int32_t h) { return e2e::Get(lxGetGPSState, h); }

class Gps : public e2e::SimTest {
protected:
    // One device second later, and a fresh housekeeping read.
    Fix NextSecond(int32_t h) {
        lxSimAdvanceTimeMs(1000);
        return ReadFix(h);
    }
};

// Southern and western hemispheres, minutes that round into the next degree,
// a year end and a leap day crossed while the analyzer opens.
TEST_F(Gps, SyntheticFixComesBackWithPositionAltitudeAndTime) {
    const struct { const char* gps; double lat, lon, alt; int64_t utc; } cases[] = {
        {R"("latitude": -33.8568, "longitude": 151.2153, "altitude_m": 58.5, "utc": "2026-11-21T12:00:00Z")",
         -33.8568, 151.2153, 58.5, 1795262400},
        {R"("latitude": 51.068098, "longitude": -114.095645, "altitude_m": 1102.4, "utc": "2026-12-31T23:59:58Z")",
         51.068098, -114.095645, 1102.4, 1798761598},
        {R"("latitude": 0.99999999, "longitude": -0.5, "altitude_m": -12.5, "utc": "2028-02-28T23:59:59Z")", 1.0,
         -0.5, -12.5, 1835395199},
    };
    int32_t serial = 30000300;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.gps);
        // The receiver's clock starts at the scene's UTC at the attach.
        const uint64_t attachedAtMs = VirtualMs();
        const int32_t h = AttachAndOpen(++serial, std::string(R"({"gps": {"fix": true, )") + c.gps + "}}");
        Fix f = NextSecond(h);
        ASSERT_EQ(f.status, lxNoError);
        EXPECT_EQ(f.updated, 1u);
        // ddmm.mmmm carries 1e-4 minutes: 1.7e-6 degrees.
        EXPECT_NEAR(f.lat, c.lat, 2e-6);
        EXPECT_NEAR(f.lon, c.lon, 2e-6);
        EXPECT_NEAR(f.alt, c.alt, 0.05);
        const int64_t elapsed = static_cast<int64_t>((VirtualMs() - attachedAtMs) / 1000);
        EXPECT_NEAR(double(f.time), double(c.utc + elapsed), 2.0);

        // Time moves with the device's seconds; nothing new without a refresh.
        const Fix g = NextSecond(h), same = ReadFix(h, 0);
        EXPECT_EQ(g.time, f.time + 1);
        EXPECT_EQ(std::make_pair(same.updated, same.time), std::make_pair(0u, g.time));
        lxCloseDevice(h);
    }
}

TEST_F(Gps, NoFixAndLossClearThePositionAndTheTextFitsItsBuffer) {
    const int32_t h = AttachAndOpen(30000302, R"({"gps": {"fix": true, "latitude": 10, "longitude": 20}})");
    NextSecond(h); // the first message may still be on its way, by where the open left the pulses
    ASSERT_EQ(NextSecond(h).lat, 10.0);
    // Status V: position and time gone.
    ASSERT_EQ(lxSimSetScene(30000302, R"({"gps": {"fix": false}})"), lxNoError);
    NextSecond(h);
    const Fix v = NextSecond(h);
    EXPECT_EQ(std::make_tuple(v.lat, v.lon, v.alt, v.time, State(h)), std::make_tuple(0.0, 0.0, 0.0, int64_t{0}, 0u));

    // A quiet receiver's fix holds under three seconds from its last pulse.
    // (The message in flight at a scene change tells the old state.)
    ASSERT_EQ(lxSimSetScene(30000302, R"({"gps": {"fix": true, "latitude": 10, "longitude": 20}})"), lxNoError);
    NextSecond(h);
    ASSERT_EQ(NextSecond(h).lat, 10.0);
    ASSERT_EQ(lxSimSetScene(30000302, R"({"gps": {"fix": true, "latitude": 10, "longitude": 20, "receiver": "silent"}})"),
              lxNoError);
    EXPECT_EQ(NextSecond(h).lat, 10.0);
    NextSecond(h); // two to three seconds: held or lost, by where the reads fall between pulses
    NextSecond(h);
    const Fix lost = NextSecond(h);
    EXPECT_EQ(std::make_tuple(lost.lat, lost.time, State(h)), std::make_tuple(0.0, int64_t{0}, 0u));
    // A text buffer of one byte gets only the terminator; of none, nothing.
    char buf[4] = {'x', 'x', 'x', 'x'};
    for (int32_t asked : {1, 0}) {
        int32_t len = asked;
        EXPECT_EQ(lxGetGPSInfo(h, 0, nullptr, nullptr, nullptr, nullptr, nullptr, buf, &len), lxNoError);
        EXPECT_EQ(len, asked);
        EXPECT_EQ(std::string(buf, 4), std::string("\0xxx", 4));
    }
}

struct LogCase {
    const char* file;
    const char* rmcTime; // replay until the RMC sentence of this time arrives
    double lat, lon, alt;
    int64_t seconds;
};

class GpsLog : public Gps, public ::testing::WithParamInterface<LogCase> {};

// Values derived by hand from the sentences in the logs.
TEST_P(GpsLog, ReplayedReceiverGivesThePositionAndTimeWrittenInIt) {
    const auto& c = GetParam();
    const std::string scene = std::string(R"({"gps": {"nmea_log": ")") + LX_TEST_DATA_DIR + "/nmea/" + c.file + "\"}}";
    // Set after the open, whose boot loader passage would play the log away.
    const int32_t h = AttachAndOpen(30000310);
    ASSERT_EQ(lxSimSetScene(30000310, scene.c_str()), lxNoError);
    Fix f;
    bool reached = false;
    for (int i = 0; i < 120 && !reached; ++i) {
        f = NextSecond(h);
        reached = f.text.find(std::string("RMC,") + c.rmcTime) != std::string::npos;
    }
    ASSERT_TRUE(reached) << c.rmcTime;
    EXPECT_NEAR(f.lat, c.lat, 1e-9);
    EXPECT_NEAR(f.lon, c.lon, 1e-9);
    EXPECT_NEAR(f.alt, c.alt, 1e-9);
    EXPECT_EQ(f.time, c.seconds);
    EXPECT_EQ(State(h), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Logs, GpsLog,
    ::testing::Values(LogCase{"bu353s4.log", "030720.000", -(37 + 47.0875 / 60), 175 + 18.8938 / 60, 59.8,
                              1419995241},
                      LogCase{"quectel-L70.log", "150120.000", 51 + 4.0859 / 60, -(114 + 5.7388 / 60), 1102.3,
                              1646838081},
                      LogCase{"mtk-3301.log", "081436.000", 52 + 12.982135 / 60, 6 + 53.101394 / 60, 102.907,
                              1219479277}),
    [](const auto& info) {
        std::string n = info.param.file;
        return n.substr(0, n.find_first_of("-."));
    });

TEST_F(Gps, DisciplinedTuneWordIsRecordedInTheTimebaseFile) {
    constexpr int32_t serial = 30000320;
    Open(serial, R"({"gps": {"fix": true}})");
    const std::string path = e2e::CacheFile(serial, "gps");
    const uint16_t coarseBefore = e2e::Get(lxAdminGetCoarseTuneVal, h);
    uint32_t holdover = 9, when = 9;
    ASSERT_EQ(lxGetGPSHoldoverInfo(h, &holdover, &when), lxNoError);
    EXPECT_EQ(holdover, 0u);

    ASSERT_EQ(lxSetGPSTimebaseUpdate(h, 1), lxNoError);
    struct stat st{};
    int seconds = 0;
    bool sawDisciplined = false;
    for (; seconds < 40 && stat(path.c_str(), &st) != 0; ++seconds) {
        NextSecond(h);
        sawDisciplined |= State(h) == 2;
    }
    ASSERT_EQ(stat(path.c_str(), &st), 0) << "no timebase file after " << seconds << " s";
    EXPECT_TRUE(sawDisciplined);
    EXPECT_EQ(st.st_size, 64);
    // At least 8 counts moved, one count per second, before the record.
    EXPECT_GE(seconds, 8);
    unsigned char rec[64] = {};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(rec), 64);
    EXPECT_EQ(std::memcmp(rec, "lxg\0\1", 5), 0);
    int64_t tune = 0;
    std::memcpy(&tune, rec + 16, 8);
    const uint16_t coarseAfter = e2e::Get(lxAdminGetCoarseTuneVal, h);
    EXPECT_EQ(tune, coarseAfter);
    EXPECT_GE(int(coarseAfter) - int(coarseBefore), 8);
    ASSERT_EQ(lxGetGPSHoldoverInfo(h, &holdover, &when), lxNoError);
    EXPECT_EQ(holdover, 1u);
    EXPECT_NEAR(double(when), double(std::time(nullptr)), 5.0);

    // The next open of the same analyzer starts from the recorded value.
    ASSERT_EQ(lxCloseDevice(h), lxNoError);
    ASSERT_EQ(lxOpenDeviceBySerial(&h, serial), lxNoError);
    EXPECT_EQ(e2e::Get(lxAdminGetCoarseTuneVal, h), coarseAfter);
}

} // namespace
