// `lx530 iq` run as a user runs it, on a simulated analyzer: the SigMF
// recording it writes validates against the SigMF schema (python3-jsonschema)
// and holds the scene's tone at its power (NumPy on the data file), with the
// position of the scene's GPS receiver and a time stamp to the nanosecond.
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tool_run.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace clitest;

class IqCli : public ::testing::Test {
protected:
    void SetUp() override {
        std::ofstream(dir_ / "scene.json") << R"({"emitters": [{"kind": "tone", "frequency_hz": 1000.01e6,
            "power_dbm": -30}], "temperature_c": 45, "pacing": "realtime", "noise_floor_dbm_hz": -170,
            "gps": {"latitude": -33.8568, "longitude": 151.2153, "altitude_m": 12.5}})";
    }
    TempDir tmp_;
    const fs::path dir_ = tmp_.path;
};

TEST_F(IqCli, SigmfRecordingOfTheScene) {
    for (const char* format : {"cf32", "ci16"}) {
        SCOPED_TRACE(format);
        const std::string base = (dir_ / format).string();
        const Result r = RunTool(dir_, {"iq", "--scene", "{dir}/scene.json", "--center", "1G", "--rate", "60k",
                                        "--duration", "1.3s", "--json", "--format", format, "--output", base});
        ASSERT_EQ(r.exitCode, 0) << r.err;
        const json summary = json::parse(r.out);
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

        const Result check = RunPython(dir_, "tests/cli/iq_check.py",
                                       std::string(LX_TEST_SHARED_DIR) + "/data/sigmf/sigmf-schema.json " + base +
                                           " 10000 " + std::to_string(summary["correction_db"].get<double>()));
        ASSERT_EQ(check.exitCode, 0) << check.err;
        EXPECT_NEAR(json::parse(check.out)["tone_dbm"].get<double>(), -30.0, 0.1);
    }
}

} // namespace
