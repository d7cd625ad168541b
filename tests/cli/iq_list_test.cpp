// `lx530 list FREQ...` against the scene, its SigMF metadata against the
// schema (iq_check.py), and its refusals.
#include <cmath>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "../support/tone_power.h"
#include "tool_run.h"

namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using namespace clitest;

constexpr double kOffset = 100e3;

class IqList : public ::testing::Test {
protected:
    TempDir tmp;
    const fs::path dir = tmp.path;
    void SetUp() override {
        // Tones kOffset above 19.2 MHz (band 0, mirrored), 915.84 MHz and 5.80224 GHz:
        // steps on the 960 kHz tuning grid, which the analyzer tunes exactly, so the
        // step frequency is at 0 Hz of the samples (docs/iq_sweep_list.md).
        std::ofstream(dir / "scene.json") << R"({"noise_floor_dbm_hz": -160, "emitters": [)"
                                             R"({"kind": "tone", "frequency_hz": 19300000, "power_dbm": -30},)"
                                             R"({"kind": "tone", "frequency_hz": 915940000, "power_dbm": -30},)"
                                             R"({"kind": "tone", "frequency_hz": 5802340000, "power_dbm": -30}]})";
    }
    Result Tool(const std::vector<std::string>& args) { return RunTool(dir, args); }
    // The schema's verdict on a recording's metadata (iq_check.py): "" when valid.
    std::string SchemaErrors(const std::string& base) {
        const std::string schema = std::string(LX_TEST_SHARED_DIR) + "/data/sigmf/sigmf-schema.json";
        const Result r = RunPython(dir, "tests/cli/iq_check.py", Quote(schema) + " " + Quote(base) + " 0 0");
        return r.exitCode == 0 ? "" : r.out + r.err;
    }
};

template <typename T>
std::vector<T> ReadSamples(const fs::path& p) {
    const std::string raw = Slurp(p);
    std::vector<T> v(raw.size() / sizeof(T));
    std::memcpy(v.data(), raw.data(), v.size() * sizeof(T));
    return v;
}

// One recording, a capture per step and pass, each holding the -30 dBm tone.
TEST_F(IqList, OneRecordingWithACapturePerStep) {
    const Result r = Tool({"list", "19.2M", "915.84M", "5.80224G", "--samples", "10000", "--passes", "2", "--scene", "{dir}/scene.json",
                        "--sigmf", "{dir}/rec", "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(SchemaErrors((dir / "rec").string()), "");
    const json meta = json::parse(Slurp(dir / "rec.sigmf-meta"));
    const json out = json::parse(r.out);
    const auto x = ReadSamples<float>(dir / "rec.sigmf-data");
    ASSERT_EQ(x.size(), size_t(2 * 6 * 10000));
    ASSERT_EQ(meta["captures"].size(), 6u);
    EXPECT_EQ(meta["global"]["core:datatype"], "cf32_le");
    const double hz[] = {19.2e6, 915.84e6, 5.80224e9};
    for (size_t i = 0; i < 6; ++i) {
        const json& c = meta["captures"][i];
        EXPECT_EQ(c["core:sample_start"], int64_t(i) * 10000);
        EXPECT_EQ(c["core:frequency"], hz[i % 3]);
        EXPECT_NEAR(ToneDbm(x.data() + 2 * 10000 * i, 10000, kOffset), -30.0, 0.2) << i;
        // The band power: the tone over -160 dBm/Hz across 61.44 MHz.
        EXPECT_NEAR(out["steps"][i]["power_dbm"].get<double>(), -30.0, 0.2) << i;
        if (i > 0) {
            EXPECT_GT(out["steps"][i]["time_ns"].get<uint64_t>(), out["steps"][i - 1]["time_ns"].get<uint64_t>());
        }
    }
}

// One recording per step from a CSV file, raw int16: the metadata's scale
// calibrates them; CSV fields left empty take the options' values.
TEST_F(IqList, PerStepRecordingsFromCsv) {
    std::ofstream(dir / "steps.csv") << "frequency,ref_level,atten,samples\n915.84M,-20,,4096\n# a comment\n5.80224G,,auto\n";
    const Result r = Tool({"list", "--csv", "{dir}/steps.csv", "--samples", "6000", "--format", "ci16", "--per-step", "--sigmf",
                        "{dir}/step", "--scene", "{dir}/scene.json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("-30."));
    const int64_t n[] = {4096, 6000};
    for (int k = 0; k < 2; ++k) {
        const fs::path base = dir / ("step-" + std::to_string(k));
        EXPECT_EQ(SchemaErrors(base.string()), "");
        const json meta = json::parse(Slurp(base.string() + ".sigmf-meta"));
        const auto q = ReadSamples<int16_t>(base.string() + ".sigmf-data");
        ASSERT_EQ(q.size(), size_t(2 * n[k]));
        const double scale = meta["captures"][0]["lx530:scale"];
        EXPECT_NEAR(ToneDbm(q.data(), n[k], kOffset) + 20 * std::log10(scale / 32768.0), -30.0, 0.2) << k;
    }
}

// Bad command lines and files: exit 2 with the reason, no files left behind.
TEST_F(IqList, CommandLineFailures) {
    std::ofstream(dir / "bad.csv") << "915M\n2.4G,loud\n";
    const struct { std::vector<std::string> args; const char* says; } cases[] = {
        {{"list", "--csv", "{dir}/bad.csv", "--scene", "{dir}/scene.json", "--sigmf", "{dir}/x"}, "bad.csv:2"},
        {{"list", "--passes", "2"}, "need frequencies or --csv"},
        {{"list", "1G", "--per-step"}, "--per-step needs --sigmf"},
        {{"list", "1G", "--samples", "0"}, "--samples"},
        {{"list", "20T"}, "not a frequency"},
        {{"list", "1G", "--scene", "{dir}/scene.json", "--sigmf", "{dir}/no/such/dir/x"}, "cannot write"},
    };
    for (const auto& c : cases) {
        const Result r = Tool(c.args);
        EXPECT_EQ(r.exitCode, 2) << c.args[1];
        EXPECT_THAT(r.err, HasSubstr(c.says));
    }
    for (const auto& e : fs::directory_iterator(dir)) EXPECT_EQ(e.path().extension().string().find(".sigmf"), std::string::npos) << e.path();
}

} // namespace
