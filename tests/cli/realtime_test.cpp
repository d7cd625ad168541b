// `lx530 rt` as the README runs it, on a simulated analyzer: the report and
// the last frame's CSV put the scene's strongest tone at its frequency and
// level, and the pictures are written.
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
using namespace clitest;

class RealTimeTool : public ::testing::Test {
protected:
    TempDir tmp;
    const fs::path dir = tmp.path;
};

TEST_F(RealTimeTool, TheReadmeRunShowsTheScene) {
    const std::string scene = std::string(LX_TEST_SOURCE_DIR) + "/scenes/realtime.json";
    const Result r = RunTool(dir, {"rt", "--scene", scene, "--center", "2.44G", "--span", "40M", "--rbw", "30k",
                                   "--frame-ref", "-20", "--frame-scale", "110", "--frames", "3", "--png",
                                   "{dir}/density.png", "--waterfall", "{dir}/waterfall.png", "--csv", "{dir}/last.csv",
                                   "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const auto doc = nlohmann::json::parse(r.out);
    EXPECT_EQ(doc["frames_read"], 3);
    EXPECT_EQ(doc["last_frame"], 2);
    EXPECT_NEAR(doc["peak"]["frequency_hz"].get<double>(), 2437.0e6, 2 * doc["actual"]["bin_hz"].get<double>());
    EXPECT_NEAR(doc["peak"]["level_dbm"].get<double>(), -35.0, 1.0); // Nuttall: up to 0.8 dB of scalloping
    EXPECT_NEAR(doc["actual"]["poi_s"].get<double>(), 1.5 * 8192 / 61.44e6, 1e-12); // Nuttall at 30 kHz: 4138 points in 8192

    // The CSV's max column peaks at each tone of the scene, at its level.
    std::ifstream csv(dir / "last.csv");
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
    for (const char* png : {"density.png", "waterfall.png"}) {
        std::ifstream in(dir / png, std::ios::binary);
        char magic[8] = {};
        in.read(magic, 8);
        EXPECT_EQ(std::string(magic + 1, 3), "PNG") << png;
        EXPECT_GT(fs::file_size(dir / png), 10000u) << png;
    }
}

} // namespace
