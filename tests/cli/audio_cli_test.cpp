// `lx530 audio` as a user runs it, on a simulated analyzer: the WAV file it
// writes is 30 kS/s mono of the asked length and carries the scene's AM
// depth as its level (measured by tests/e2e/audio_reference.py, which reads
// the file with Python's own WAV reader); wrong command lines leave no file.
#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string Capture(const std::string& cmd, int* code) {
    std::string out;
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (!p) return out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int st = pclose(p);
    *code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return out;
}

TEST(AudioCli, WavOfTheScenesAmTone) {
    std::string tmpl = (fs::temp_directory_path() / "lx530-audio-XXXXXX").string();
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
    const fs::path dir = tmpl;
    std::ofstream(dir / "scene.json") << R"({"temperature_c": 45, "noise_floor_dbm_hz": -160, "emitters": [
        {"kind": "am", "frequency_hz": 1.2e6, "power_dbm": -40, "depth": 0.5, "audio_hz": 1000}]})";
    const std::string tool = "XDG_CACHE_HOME=" + (dir / "cache").string() + " " + LX530_PATH + " audio --scene " +
                             (dir / "scene.json").string() + " --center 1.2M --type am --output " +
                             (dir / "am.wav").string();
    int code = -1;
    const std::string out = Capture(tool + " --duration 2s --json", &code);
    ASSERT_EQ(code, 0) << out;
    EXPECT_EQ(json::parse(out)["samples"], 60000);
    const std::string measured =
        Capture(std::string(LX_TEST_PYTHON) + " " + LX_TEST_SOURCE_DIR + "/tests/e2e/audio_reference.py sinad " +
                    (dir / "am.wav").string() + " 1000 1.0",
                &code);
    ASSERT_EQ(code, 0) << measured;
    const json m = json::parse(measured);
    EXPECT_EQ(m["rate"], 30000);
    EXPECT_EQ(m["samples"], 30000); // the second after the first
    EXPECT_NEAR(m["rms_dbfs"].get<double>(), 20 * std::log10(0.5 / std::sqrt(2.0)), 1.0);

    fs::remove(dir / "am.wav");
    for (const char* bad : {" --type fmx", " --duration 0s", " --center x", " --if-bandwidth -3k"}) {
        EXPECT_EQ((Capture(tool + bad, &code), code), 2) << bad;
        EXPECT_FALSE(fs::exists(dir / "am.wav")) << bad;
    }
    fs::remove_all(dir);
}

} // namespace
