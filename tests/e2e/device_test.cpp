// Devices on simulated analyzers: the registry, preset, housekeeping readings.

#include <cstdio>
#include <string>
#include <vector>

#include "e2e_support.h"

namespace {

class Registry : public e2e::SimTest {};

// The list leaves out open analyzers (a count of 0 or less asks for nothing
// and is left alone); nine open, and a tenth is refused.
TEST_F(Registry, NineOpenAndATenthIsRefused) {
    const auto list = [](int32_t count) {
        std::vector<int32_t> serials(16);
        EXPECT_EQ(lxGetDeviceList(serials.data(), &count), lxNoError);
        serials.resize(size_t(std::max(count, 0)));
        return std::make_pair(count, serials);
    };
    for (int32_t i = 0; i < 10; ++i) ASSERT_EQ(lxSimAttach(30000001 + i, nullptr), lxNoError);
    EXPECT_EQ(list(16).second.size(), 10u);
    EXPECT_EQ(list(0).first, 0);
    EXPECT_EQ(list(-1).first, -1);
    for (int32_t i = 0; i < 9; ++i) {
        int32_t h = -1;
        ASSERT_EQ(lxOpenDevice(&h), lxNoError); // the first one found
        EXPECT_EQ(h, i);                        // in the lowest free slot
        EXPECT_EQ(list(16).second.front(), 30000002 + i);
    }
    int32_t h = 77;
    EXPECT_EQ(lxOpenDeviceBySerial(&h, 30000010), lxMaxDevicesConnectedErr);
    EXPECT_EQ(h, 77);
}

TEST_F(Registry, PersonalityOfAttachedAnalyzers) {
    int32_t id = 0;
    ASSERT_EQ(lxSimAttach(30000035, nullptr), lxNoError);
    ASSERT_EQ(lxSimAttachRaw("LX530 Boot", "30000036", nullptr, &id), lxNoError);
    ASSERT_EQ(lxSimAttachRaw("LX530X", "30000037", nullptr, &id), lxNoError);
    const struct { int32_t serial; LxStatus status; int32_t personality; } cases[] = {
        {30000035, lxNoError, 1}, {30000036, lxNoError, 0}, {30000037, lxNoError, -1}, {30000038, lxDeviceNotFoundErr, 99}};
    for (const auto& c : cases) {
        int32_t p = 99;
        EXPECT_EQ(lxGetDevicePersonality(c.serial, &p), c.status) << c.serial;
        EXPECT_EQ(p, c.personality) << c.serial;
    }
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
    int32_t mode = 0, again = -1;
    EXPECT_EQ(lxGetCurrentMode(h, &mode), lxInvalidDeviceErr);
    EXPECT_EQ(Get(lxSimGetPersonality, 30000061), 0); // in its boot loader until opened again
    EXPECT_EQ(lxOpenDeviceBySerial(&again, 30000061), lxNoError);
    EXPECT_EQ(again, h);
}

// Readings equal the scene's within their resolution, either side of 0 C.
TEST_F(Registry, DiagnosticsAndFirmwareOfTheScene) {
    const struct { double temperature, volts, amps; uint32_t major, minor, revision; } cases[] = {
        {41.3, 12.34, 1.567, 1, 2, 5}, {-7.6, 11.0, 0.9, 2, 0, 17}, {-0.25, 13.8, 2.001, 3, 14, 4}, {-39.9, 9.5, 0.25, 1, 0, 3}};
    int32_t serial = 30000081;
    for (const auto& c : cases) {
        char scene[256];
        std::snprintf(scene, sizeof scene,
                      R"({"temperature_c": %.4f, "supply_v": %.4f, "supply_a": %.4f, "firmware": [%u, %u, %u]})",
                      c.temperature, c.volts, c.amps, c.major, c.minor, c.revision);
        const int32_t h = AttachAndOpen(serial++, scene);
        float v = 0, a = 0, t = 0;
        EXPECT_EQ(lxGetDeviceDiagnostics(h, &v, &a, &t), lxNoError);
        EXPECT_NEAR(t, c.temperature, 0.125 + 1e-6);
        EXPECT_NEAR(v, c.volts, 0.00553 / 2 + 1e-6);
        EXPECT_NEAR(a, c.amps, 0.002 / 2 + 1e-6);
        uint32_t v3[3] = {};
        EXPECT_EQ(lxGetFirmwareVersion(h, &v3[0], &v3[1], &v3[2]), lxNoError);
        EXPECT_EQ(std::vector<uint32_t>(v3, v3 + 3), (std::vector<uint32_t>{c.major, c.minor, c.revision}));
    }
}

TEST_F(Registry, ConfiguringModeZeroIsRefusedAndLeavesTheAnalyzerIdleAndOn) {
    const int32_t h = AttachAndOpen(30000092);
    ASSERT_EQ(lxSetPowerState(h, 1), lxNoError);
    EXPECT_EQ(lxConfigure(h, 0), lxInvalidParameterErr);
    EXPECT_EQ(Get(lxGetCurrentMode, h), 0);
    EXPECT_EQ(Get(lxGetPowerState, h), 0u);
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
