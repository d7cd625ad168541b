// `lx530 audio` as a user runs it, on a simulated analyzer: the WAV file it
// writes is 30 kS/s mono of the asked length and carries the scene's AM
// depth as its level (measured by tests/e2e/audio_reference.py, which reads
// the file with Python's own WAV reader).
#include <cmath>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tool_run.h"

namespace {

using nlohmann::json;
using namespace clitest;

TEST(AudioCli, WavOfTheScenesAmTone) {
    TempDir dir;
    std::ofstream(dir.path / "scene.json") << R"({"temperature_c": 45, "noise_floor_dbm_hz": -160, "emitters": [
        {"kind": "am", "frequency_hz": 1.2e6, "power_dbm": -40, "depth": 0.5, "audio_hz": 1000}]})";
    const Result r = RunTool(dir.path, {"audio", "--scene", "{dir}/scene.json", "--center", "1.2M", "--type", "am",
                                        "--output", "{dir}/am.wav", "--duration", "2s", "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(json::parse(r.out)["samples"], 60000);
    const Result m = RunPython(dir.path, "tests/e2e/audio_reference.py", "sinad " + Quote(dir.path / "am.wav") + " 1000 1.0");
    ASSERT_EQ(m.exitCode, 0) << m.err;
    const json level = json::parse(m.out);
    EXPECT_EQ(level["rate"], 30000);
    EXPECT_EQ(level["samples"], 30000); // the second after the first
    EXPECT_NEAR(level["rms_dbfs"].get<double>(), 20 * std::log10(0.5 / std::sqrt(2.0)), 1.0);
}

} // namespace
