// The tool's streaming subcommands: their files, read back by independent
// parsers, against the scene.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tool_run.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace clitest;

struct ToolRun : ::testing::Test { TempDir dir; };
using RealTimeTool = ToolRun;
using IqCli = ToolRun;
using AudioCli = ToolRun;

// `lx530 rt` as the README runs it.
TEST_F(RealTimeTool, TheReadmeRunShowsTheScene) {
    const std::string scene = std::string(LX_TEST_SOURCE_DIR) + "/scenes/realtime.json";
    const Result r = RunTool(dir.path, {"rt", "--scene", scene, "--center", "2.44G", "--span", "40M", "--rbw", "30k",
                                        "--frame-ref", "-20", "--frame-scale", "110", "--frames", "3", "--png",
                                        "{dir}/density.png", "--waterfall", "{dir}/waterfall.png", "--csv",
                                        "{dir}/last.csv", "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const auto doc = json::parse(r.out);
    EXPECT_EQ(doc["frames_read"], 3);
    EXPECT_EQ(doc["last_frame"], 2);
    EXPECT_NEAR(doc["peak"]["frequency_hz"].get<double>(), 2437.0e6, 2 * doc["actual"]["bin_hz"].get<double>());
    EXPECT_NEAR(doc["peak"]["level_dbm"].get<double>(), -35.0, 1.0); // Nuttall: up to 0.8 dB of scalloping
    EXPECT_NEAR(doc["actual"]["poi_s"].get<double>(), 1.5 * 8192 / 61.44e6, 1e-12); // Nuttall at 30 kHz: 4138 points in 8192

    // The CSV's max column peaks at each tone of the scene, at its level.
    std::ifstream csv(dir.path / "last.csv");
    std::string line;
    std::getline(csv, line);
    EXPECT_EQ(line, "frequency_hz,min_dbm,max_dbm");
    std::vector<double> f, mx;
    while (std::getline(csv, line)) {
        double a = 0, b = 0, c = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "%lf,%lf,%lf", &a, &b, &c), 3) << line;
        f.push_back(a);
        mx.push_back(c);
        EXPECT_LE(b, c) << line;
    }
    EXPECT_EQ(f.size(), doc["actual"]["trace_points"].get<size_t>());
    for (const auto& [hz, dbm] : {std::pair{2437.0e6, -35.0}, {2426.5e6, -58.0}, {2451.2e6, -80.0}}) {
        double best = -1e9;
        for (size_t i = 0; i < f.size(); ++i)
            if (std::fabs(f[i] - hz) < 20e3) best = std::max(best, mx[i]);
        EXPECT_NEAR(best, dbm, 1.0) << hz;
    }
    // Written (the PNG writer itself is read back by Pillow in sweep_test.cpp).
    for (const char* png : {"density.png", "waterfall.png"}) EXPECT_GT(fs::file_size(dir.path / png), 10000u) << png;
}

// `lx530 iq`: a valid SigMF recording of the scene's tone, with the GPS
// position and a time stamp to the nanosecond.
TEST_F(IqCli, SigmfRecordingOfTheScene) {
    std::ofstream(dir.path / "scene.json") << R"({"emitters": [{"kind": "tone", "frequency_hz": 1000.01e6,
        "power_dbm": -30}], "temperature_c": 45, "pacing": "realtime", "noise_floor_dbm_hz": -170,
        "gps": {"latitude": -33.8568, "longitude": 151.2153, "altitude_m": 12.5}})";
    for (const char* format : {"cf32", "ci16"}) {
        SCOPED_TRACE(format);
        const std::string base = (dir.path / format).string();
        // A loaded host may overrun the paced stream: the tool then opens a new
        // capture segment, and the tone is measured on one segment only.
        json summary = json::object();
        for (int attempt = 0; attempt < 3 && summary.value("segments", 0) != 1; ++attempt) {
            const Result r = RunTool(dir.path, {"iq", "--scene", "{dir}/scene.json", "--center", "1G", "--rate", "60k",
                                                "--duration", "1.3s", "--json", "--format", format, "--output", base});
            ASSERT_EQ(r.exitCode, 0) << r.err;
            summary = json::parse(r.out);
        }
        ASSERT_EQ(summary["segments"], 1);
        EXPECT_EQ(summary["samples"], 78000);
        EXPECT_EQ(fs::file_size(base + ".sigmf-data"), 78000u * (format[1] == 'f' ? 8 : 4));
        EXPECT_EQ(summary["health"]["samples_delivered"], 78000);

        std::ifstream in(base + ".sigmf-meta");
        const json meta = json::parse(in);
        EXPECT_EQ(meta["global"]["core:datatype"], std::string(format) + "_le");
        EXPECT_EQ(meta["global"]["core:sample_rate"], 60000.0);
        const json& at = meta["global"]["core:geolocation"]["coordinates"];
        ASSERT_EQ(at.size(), 3u);
        EXPECT_NEAR(at[0].get<double>(), 151.2153, 1e-4); // longitude first
        EXPECT_NEAR(at[1].get<double>(), -33.8568, 1e-4);
        EXPECT_NEAR(at[2].get<double>(), 12.5, 0.05);
        const json& cap = meta["captures"][0];
        EXPECT_EQ(cap["core:sample_start"], 0);
        EXPECT_EQ(cap["core:frequency"], 1e9);
        EXPECT_EQ(cap["core:datetime"].get<std::string>().size(), std::string("2026-11-21T12:00:00.123456789Z").size());

        const Result check = RunPython(dir.path, "tests/cli/iq_check.py",
                                       std::string(LX_TEST_SHARED_DIR) + "/data/sigmf/sigmf-schema.json " + base +
                                           " 10000 " + std::to_string(summary["correction_db"].get<double>()));
        ASSERT_EQ(check.exitCode, 0) << check.err;
        EXPECT_NEAR(json::parse(check.out)["tone_dbm"].get<double>(), -30.0, 0.1);
    }
}

// `lx530 audio`: the scene's AM depth as the WAV's level
// (tests/e2e/audio_reference.py, Python's own WAV reader).
TEST_F(AudioCli, WavOfTheScenesAmTone) {
    std::ofstream(dir.path / "scene.json") << R"({"temperature_c": 45, "noise_floor_dbm_hz": -160, "emitters": [
        {"kind": "am", "frequency_hz": 1.2e6, "power_dbm": -40, "depth": 0.5, "audio_hz": 1000}]})";
    const Result r = RunTool(dir.path, {"audio", "--scene", "{dir}/scene.json", "--center", "1.2M", "--type", "am",
                                        "--output", "{dir}/am.wav", "--duration", "2s", "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(json::parse(r.out)["samples"], 60000);
    const Result m =
        RunPython(dir.path, "tests/e2e/audio_reference.py", "sinad " + Quote(dir.path / "am.wav") + " 1000 1.0");
    ASSERT_EQ(m.exitCode, 0) << m.err;
    const json level = json::parse(m.out);
    EXPECT_EQ(level["rate"], 30000);
    EXPECT_EQ(level["samples"], 30000); // the second after the first
    EXPECT_NEAR(level["rms_dbfs"].get<double>(), 20 * std::log10(0.5 / std::sqrt(2.0)), 1.0);
}

} // namespace
