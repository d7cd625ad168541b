// `lx530 rt` as the README runs it, on a simulated analyzer: the report and
// the last frame's CSV put the scene's strongest tone at its frequency and
// level, the pictures are written, and bad command lines are refused before
// any analyzer is touched.
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
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

struct ToolRun {
    int exitCode = -1;
    std::string out, err;
};

std::string Slurp(const fs::path& p) {
    std::ifstream in(p);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

class RealTimeTool : public ::testing::Test {
protected:
    fs::path dir;
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "lx530-rt-XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir = tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    ToolRun Tool(const std::string& args) {
        const std::string cmd = "cd '" + dir.string() + "' && XDG_CACHE_HOME='" + (dir / "cache").string() + "' '" +
                                LX530_PATH + "' " + args + " >out 2>err";
        const int status = std::system(cmd.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Slurp(dir / "out"), Slurp(dir / "err")};
    }
};

TEST_F(RealTimeTool, TheReadmeRunShowsTheScene) {
    const std::string scene = std::string(LX_TEST_SOURCE_DIR) + "/scenes/realtime.json";
    const ToolRun r = Tool("rt --scene '" + scene +
                       "' --center 2.44G --span 40M --rbw 30k --frame-ref -20 --frame-scale 110 --frames 3 "
                       "--png density.png --waterfall waterfall.png --csv last.csv --json");
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

TEST_F(RealTimeTool, BadCommandLinesAreRefusedBeforeTheAnalyzer) {
    const struct {
        const char* args;
        const char* says;
    } cases[] = {{"rt --sim --window kaiser", "--window"},
                 {"rt --sim --span wide", "--span"},
                 {"rt --sim --frame-scale 0", "--frame-scale"},
                 {"rt --sim --atten 9", "--atten"},
                 {"rt --sim --png a.png --csv a.png", "two outputs"},
                 {"rt --sim --png-size 10x10 --png a.png", "--png-size"}};
    for (const auto& c : cases) {
        const ToolRun r = Tool(c.args);
        EXPECT_EQ(r.exitCode, 2) << c.args;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << c.args << ": " << r.err;
        EXPECT_FALSE(fs::exists(dir / "a.png")) << c.args;
    }
}

} // namespace
