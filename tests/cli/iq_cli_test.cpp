// `lx530 iq` run as a user runs it, on a simulated analyzer: the SigMF
// recording it writes validates against the SigMF schema (python3-jsonschema)
// and holds the scene's tone at its power (NumPy on the data file), with the
// position of the scene's GPS receiver and a time stamp to the nanosecond.
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string Capture(const std::string& cmd, int* code) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int st = pclose(p);
    *code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return out;
}

class IqCli : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "lx530-iq-XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        std::ofstream(dir_ / "scene.json") << R"({"emitters": [{"kind": "tone", "frequency_hz": 1000.01e6,
            "power_dbm": -30}], "temperature_c": 45, "pacing": "realtime", "noise_floor_dbm_hz": -170,
            "gps": {"latitude": -33.8568, "longitude": 151.2153, "altitude_m": 12.5}})";
    }
    void TearDown() override { fs::remove_all(dir_); }
    fs::path dir_;
};

TEST_F(IqCli, SigmfRecordingOfTheScene) {
    for (const char* format : {"cf32", "ci16"}) {
        SCOPED_TRACE(format);
        const std::string base = (dir_ / format).string();
        int code = -1;
        const std::string out = Capture("XDG_CACHE_HOME=" + (dir_ / "cache").string() + " " + LX530_PATH +
                                            " iq --scene " + (dir_ / "scene.json").string() +
                                            " --center 1G --rate 60k --duration 1.3s --json --format " + format +
                                            " --output " + base,
                                        &code);
        ASSERT_EQ(code, 0) << out;
        const json summary = json::parse(out);
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

        const std::string check = std::string(LX_TEST_PYTHON) + " " + LX_TEST_SOURCE_DIR + "/tests/cli/iq_check.py " +
                                  LX_TEST_SHARED_DIR + "/data/sigmf/sigmf-schema.json " + base + " 10000 " +
                                  std::to_string(summary["correction_db"].get<double>());
        const std::string result = Capture(check, &code);
        ASSERT_EQ(code, 0) << result;
        EXPECT_NEAR(json::parse(result)["tone_dbm"].get<double>(), -30.0, 0.1);
    }
}

// Wrong command lines are refused before any analyzer is touched.
TEST_F(IqCli, RefusesBadOptions) {
    const std::vector<std::string> bad = {"--rate 1M --output x", "--decimation 3 --output x", "--output x --raw y --format cs8",
                                          "--duration -1s --output x", "--rate 60k --decimation 1024 --output x", ""};
    for (const auto& args : bad) {
        int code = -1;
        Capture(std::string(LX530_PATH) + " iq --sim " + args + " 2>/dev/null", &code);
        EXPECT_EQ(code, 2) << args;
    }
}

} // namespace
