// Devices through the public API on simulated analyzers: the registry, the
// handle check of every per-device export, preset, housekeeping readings.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <string>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::SimTest;

class Registry : public SimTest {};

TEST_F(Registry, NineOpenAndATenthIsRefusedWithoutTouchingTheBus) {
    for (int32_t i = 0; i < 10; ++i) ASSERT_EQ(lxSimAttach(30000001 + i, nullptr), lxNoError);
    for (int32_t i = 0; i < 9; ++i) {
        int32_t h = -1;
        ASSERT_EQ(lxOpenDeviceBySerial(&h, 30000001 + i), lxNoError);
        EXPECT_EQ(h, i); // lowest free slot first
    }
    std::vector<uint64_t> opensBefore;
    for (int32_t i = 0; i < 10; ++i) opensBefore.push_back(Counters(30000001 + i).opens);
    int32_t h = 77;
    EXPECT_EQ(lxOpenDeviceBySerial(&h, 30000010), lxMaxDevicesConnectedErr);
    EXPECT_EQ(h, 77);
    for (int32_t i = 0; i < 10; ++i) EXPECT_EQ(Counters(30000001 + i).opens, opensBefore[size_t(i)]);
}

// A count of 0 or less asks for nothing and is left alone.
TEST_F(Registry, DeviceListCountsAndLeavesOutOpenDevices) {
    ASSERT_EQ(lxSimAttach(30000031, nullptr), lxNoError);
    ASSERT_EQ(lxSimAttach(30000032, nullptr), lxNoError);
    const auto list = [](int32_t count) {
        std::vector<int32_t> serials(4);
        EXPECT_EQ(lxGetDeviceList(serials.data(), &count), lxNoError);
        serials.resize(size_t(std::max(count, 0)));
        return std::make_pair(count, serials);
    };
    EXPECT_EQ(list(4).second, (std::vector<int32_t>{30000031, 30000032}));
    EXPECT_EQ(list(0).first, 0);
    EXPECT_EQ(list(-1).first, -1);
    int32_t count = 4;
    EXPECT_EQ(lxGetDeviceList(nullptr, &count), lxNullPtrErr);
    int32_t h = -1;
    ASSERT_EQ(lxOpenDevice(&h), lxNoError); // the first one found
    EXPECT_EQ(list(4).second, std::vector<int32_t>{30000032});
}

TEST_F(Registry, PersonalityOfAttachedAnalyzers) {
    ASSERT_EQ(lxSimAttach(30000035, nullptr), lxNoError);
    int32_t id = 0;
    ASSERT_EQ(lxSimAttachRaw("LX530 Boot", "30000036", nullptr, &id), lxNoError);
    ASSERT_EQ(lxSimAttachRaw("LX530X", "30000037", nullptr, &id), lxNoError);
    const struct {
        int32_t serial;
        LxStatus status;
        int32_t personality;
    } cases[] = {{30000035, lxNoError, 1}, {30000036, lxNoError, 0}, {30000037, lxNoError, -1},
                 {30000038, lxDeviceNotFoundErr, 99}};
    for (const auto& c : cases) {
        int32_t p = 99;
        EXPECT_EQ(lxGetDevicePersonality(c.serial, &p), c.status) << c.serial;
        EXPECT_EQ(p, c.personality) << c.serial;
    }
}

TEST_F(Registry, CorruptCalibrationWarnsAndStillHandsOutAValidHandle) {
    const int32_t h = AttachAndOpen(30000051, R"({"calibration": "corrupt"})", lxInvalidCalData);
    ASSERT_EQ(h, 0);
    uint32_t serial = 0;
    EXPECT_EQ(lxGetSerialNumber(h, &serial), lxNoError);
    EXPECT_EQ(serial, 30000051u);
    bool has = false;
    EXPECT_EQ(lxAdminDeviceHasCorrections(h, &has), lxNoError);
    EXPECT_TRUE(has);
}

TEST_F(Registry, UnprogrammedAnalyzerRunsWithNeutralCorrections) {
    const int32_t h = AttachAndOpen(30000052, R"({"calibration": "unprogrammed"})");
    bool has = true;
    EXPECT_EQ(lxAdminDeviceHasCorrections(h, &has), lxNoError);
    EXPECT_FALSE(has);
    uint32_t date = 0;
    EXPECT_EQ(lxGetCalDate(h, &date), lxNoError);
    EXPECT_EQ(date, 0xFFFFFFFFu);
}

TEST_F(Registry, PresetSendsTheAnalyzerAwayAndFreesTheHandle) {
    int32_t none = 55;
    EXPECT_EQ(lxOpenDevice(&none), lxDeviceNotFoundErr);
    EXPECT_EQ(lxOpenDeviceBySerial(&none, 30000041), lxDeviceNotFoundErr);
    EXPECT_EQ(none, 55); // a failed open leaves no handle
    const int32_t h = AttachAndOpen(30000061);
    const uint64_t t0 = VirtualMs();
    EXPECT_EQ(lxPresetDevice(h), lxNoError);
    EXPECT_GE(VirtualMs() - t0, 6000u);
    int32_t mode = 0;
    EXPECT_EQ(lxGetCurrentMode(h, &mode), lxInvalidDeviceErr);
    int32_t run = -1;
    ASSERT_EQ(lxSimGetPersonality(30000061, &run), lxNoError);
    EXPECT_EQ(run, 0); // in its boot loader until opened again
    int32_t again = -1;
    EXPECT_EQ(lxOpenDeviceBySerial(&again, 30000061), lxNoError);
    EXPECT_EQ(again, h);
}

struct SceneCase { const char* name; double temperature, volts, amps; uint32_t major, minor, revision; };

class DiagnosticsScene : public SimTest, public ::testing::WithParamInterface<SceneCase> {};

TEST_P(DiagnosticsScene, ReadingsEqualTheSceneWithinTheirResolution) {
    const auto& c = GetParam();
    char scene[256];
    std::snprintf(scene, sizeof scene,
                  R"({"temperature_c": %.4f, "supply_v": %.4f, "supply_a": %.4f, "firmware": [%u, %u, %u]})",
                  c.temperature, c.volts, c.amps, c.major, c.minor, c.revision);
    const int32_t h = AttachAndOpen(30000081, scene);
    float v = 0, a = 0, t = 0;
    EXPECT_EQ(lxGetDeviceDiagnostics(h, &v, &a, &t), lxNoError);
    EXPECT_NEAR(t, c.temperature, 0.125 + 1e-6);
    EXPECT_NEAR(v, c.volts, 0.00553 / 2 + 1e-6);
    EXPECT_NEAR(a, c.amps, 0.002 / 2 + 1e-6);
    uint32_t v3[3] = {};
    EXPECT_EQ(lxGetFirmwareVersion(h, &v3[0], &v3[1], &v3[2]), lxNoError);
    EXPECT_EQ(std::vector<uint32_t>(v3, v3 + 3), (std::vector<uint32_t>{c.major, c.minor, c.revision}));
    // Each output is optional.
    EXPECT_EQ(lxGetDeviceDiagnostics(h, nullptr, nullptr, &t), lxNoError);
    EXPECT_EQ(lxGetFirmwareVersion(h, v3, nullptr, v3), lxNullPtrErr);
}

INSTANTIATE_TEST_SUITE_P(
    Scenes, DiagnosticsScene,
    ::testing::Values(SceneCase{"warm", 41.3, 12.34, 1.567, 1, 2, 5},
                      SceneCase{"belowZero", -7.6, 11.0, 0.9, 2, 0, 17},
                      SceneCase{"justBelowZero", -0.25, 13.8, 2.001, 3, 14, 4},
                      SceneCase{"cold", -39.9, 9.5, 0.25, 1, 0, 3}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Registry, TwoConfiguresWithinOneSecondReadHousekeepingOnce) {
    const int32_t h = AttachAndOpen(30000091);
    // Let the record from the open age past one second.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const uint64_t aux0 = Counters(30000091).auxPackets;
    // Mode 0 goes through the housekeeping age rule and is refused before
    // any set-up: two calls take milliseconds, even on a loaded machine or
    // under a sanitizer, where a set-up could take the second past the age.
    EXPECT_EQ(lxConfigure(h, 0), lxInvalidParameterErr);
    EXPECT_EQ(lxConfigure(h, 0), lxInvalidParameterErr);
    EXPECT_EQ(Counters(30000091).auxPackets - aux0, 4u); // one refresh reads four aux packets
}

TEST_F(Registry, ConfiguringModeZeroIsRefusedAndLeavesTheAnalyzerIdleAndOn) {
    const int32_t h = AttachAndOpen(30000092);
    ASSERT_EQ(lxSetPowerState(h, 1), lxNoError);
    EXPECT_EQ(lxConfigure(h, 0), lxInvalidParameterErr);
    int32_t mode = -1;
    uint32_t power = 9;
    EXPECT_EQ(lxGetCurrentMode(h, &mode), lxNoError);
    EXPECT_EQ(lxGetPowerState(h, &power), lxNoError);
    EXPECT_EQ(std::make_pair(mode, power), std::make_pair(0, 0u));
}

TEST_F(Registry, FanSetPointComesBackTruncatedToASixteenthOfADegree) {
    const int32_t h = AttachAndOpen(30000093);
    struct { float asked, reported; } cases[] = {{30.07f, 481 / 16.0f}, {70.0f, 60.0f}, {-5.0f, 0.0f}, {45.5f, 45.5f}};
    for (const auto& c : cases) {
        ASSERT_EQ(lxSetFanSetPoint(h, c.asked), lxNoError);
        float sp = -1, fan = -1;
        ASSERT_EQ(lxGetFanSettings(h, &sp, &fan), lxNoError);
        EXPECT_FLOAT_EQ(sp, c.reported) << c.asked;
        EXPECT_GE(fan, 0.0f);
    }
}

} // namespace

// An application that exits with an analyzer open and streaming (no close):
// the library closes it on the way out, after other statics are gone, and
// must not touch freed memory doing so (the sanitizer builds see it).
TEST(ExitWithoutClose, StreamingAnalyzerIsClosedCleanly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            int32_t h = -1;
            if (lxSimAttach(42000901, R"({"pacing": "realtime"})") != lxNoError ||
                lxOpenDeviceBySerial(&h, 42000901) != lxNoError || lxSetIQSampleRate(h, 64) != lxNoError ||
                lxConfigure(h, lxModeIQ) != lxNoError)
                std::exit(3);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}
