// The lx530 tool, run as a user runs it: a separate process on a simulated
// analyzer, its output compared with the scene it was given.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "lx_api.h"
#include "../boot/test_image.h"
#include "report.h"
#include "tool_run.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;
using namespace clitest;

class CliTest : public ::testing::Test {
protected:
    std::string WriteFile(const std::string& name, const std::string& text) {
        const fs::path p = dir_ / name;
        std::ofstream(p) << text;
        return p.string();
    }

    Result Run(std::vector<std::string> args) { return RunTool(dir_, std::move(args)); }

    static json Parse(const Result& r) {
        json doc;
        EXPECT_NO_THROW(doc = json::parse(r.out)) << r.out;
        return doc;
    }

    TempDir tmp_;
    const fs::path dir_ = tmp_.path;
};

// ---- outputs -----------------------------------------------------------------

struct OutputCase {
    const char* name;
    std::vector<std::string> args;
    std::vector<std::string> expected; // on stdout
};

void PrintTo(const OutputCase& c, std::ostream* os) { *os << c.name; }

class OutputTest : public CliTest, public ::testing::WithParamInterface<OutputCase> {};

TEST_P(OutputTest, Succeeds) {
    const Result r = Run(GetParam().args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");
    for (const auto& e : GetParam().expected) EXPECT_THAT(r.out, HasSubstr(e));
}

INSTANTIATE_TEST_SUITE_P(
    Cli, OutputTest,
    ::testing::Values(
        OutputCase{"ListSimulated", {"--sim", "list"}, {"10000001  run firmware  simulated"}},
        OutputCase{"GlobalOptionsAfterSubcommand", {"list", "--sim", "--sim-serial", "23456789"}, {"23456789  run firmware"}},
        OutputCase{"ListNothingAttached", {"list"}, {"No LX530 attached"}},
        OutputCase{"Help", {"--help"}, {"Usage: lx530", "--sim", "--json", "list", "info"}},
        OutputCase{"ListHelp", {"list", "--help"}, {"Usage: lx530 list"}},
        OutputCase{"InfoHelp", {"info", "--help"}, {"Usage: lx530 info", "--serial"}},
        OutputCase{"Version", {"--version"}, {std::string("lx_api ") + lxGetAPIVersion()}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CliTest, ListAsJson) {
    const Result r = Run({"--json", "list", "--sim", "--sim-serial=99999999"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(Parse(r), json::parse(R"({"devices": [{"serial": 99999999, "personality": "run firmware",
                                                     "simulated": true}]})"));
    EXPECT_EQ(Parse(Run({"list", "--json"})), json::parse(R"({"devices": []})"));
}

// ---- info --------------------------------------------------------------------

struct SceneCase {
    const char* name;
    double temperature, voltage, current;
    uint32_t firmware[3];
    std::optional<double> fanPercent; // the simulated fan: 30 % at the set point, +10 % per degree above
};

void PrintTo(const SceneCase& c, std::ostream* os) { *os << c.name; }

class InfoSceneTest : public CliTest, public ::testing::WithParamInterface<SceneCase> {};

// Resolution of the status packet's encoding.
constexpr double kTempStep = 0.25, kVoltStep = 0.00553, kAmpStep = 0.002;

TEST_P(InfoSceneTest, ReportsTheScene) {
    const auto& c = GetParam();
    const json scene = {{"temperature_c", c.temperature},
                        {"supply_v", c.voltage},
                        {"supply_a", c.current},
                        {"firmware", {c.firmware[0], c.firmware[1], c.firmware[2]}}};
    const std::string file = WriteFile("scene.json", scene.dump());

    const Result r = Run({"info", "--sim=" + file, "--sim-serial", "31415926", "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const json doc = Parse(r);
    EXPECT_EQ(doc["serial"], 31415926);
    EXPECT_EQ(doc["firmware"]["major"], c.firmware[0]);
    EXPECT_EQ(doc["firmware"]["minor"], c.firmware[1]);
    EXPECT_EQ(doc["firmware"]["revision"], c.firmware[2]);
    EXPECT_NEAR(doc["temperature_c"].get<double>(), c.temperature, kTempStep);
    EXPECT_NEAR(doc["supply_voltage_v"].get<double>(), c.voltage, kVoltStep);
    EXPECT_NEAR(doc["supply_current_a"].get<double>(), c.current, kAmpStep);
    // 45 degrees is the set point the analyzer powers up with.
    EXPECT_NEAR(doc["fan"]["set_point_c"].get<double>(), 45.0, 1.0 / 16);
    if (c.fanPercent) {
        EXPECT_NEAR(doc["fan"]["reading_percent"].get<double>(), *c.fanPercent, 10 * kTempStep + 0.078125);
    }
    // The simulator's factory record is dated 2024-06-01 12:00 UTC; it has no GPS receiver yet.
    EXPECT_EQ(doc["calibration_date"]["utc"], "2024-06-01T12:00:00Z");
    EXPECT_EQ(doc["gps"], json::parse(R"({"state": 0, "status": "no fix", "fix": null})"));
    EXPECT_EQ(doc["warnings"], json::array());

    const Result text = Run({"--sim=" + file, "--sim-serial=31415926", "info"});
    EXPECT_THAT(text.out, HasSubstr(doc["firmware"]["version"].get<std::string>() + "\n"));
    EXPECT_THAT(text.out, HasSubstr("31415926 (simulated)"));
}

INSTANTIATE_TEST_SUITE_P(
    Cli, InfoSceneTest,
    ::testing::Values(SceneCase{"HotAndBusy", 47.6, 13.7, 2.345, {3, 14, 159}, 56.0},
                      SceneCase{"BelowZeroWideRevision", -12.6, 5.2, 0.25, {0, 65535, 4294967295u}, std::nullopt},
                      SceneCase{"LowSupply", 25.1, 0.4, 0.0, {1, 0, 0}, std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CliTest, CorruptCalibrationWarnsAndStillReports) {
    const std::string file = WriteFile("corrupt.json", R"({"calibration": "corrupt", "temperature_c": 31})");
    const Result text = Run({"--sim=" + file, "info"});
    EXPECT_EQ(text.exitCode, 0) << text.err;
    EXPECT_THAT(text.err, HasSubstr("lx530: warning: opening the first analyzer: Invalid calibration data (6)"));
    EXPECT_THAT(text.out, HasSubstr("31.00 C"));

    const Result js = Run({"--sim=" + file, "info", "--json"});
    EXPECT_EQ(js.exitCode, 0) << js.err;
    EXPECT_EQ(Parse(js)["warnings"], json::parse(R"([{"what": "opening the first analyzer", "status": 6,
                                                      "text": "Invalid calibration data"}])"));
}

// A GPS receiver in the scene: the fix, position and time reach the report
// straight after the open (no waiting for the next message). An analyzer
// whose record was never programmed says so.
TEST_F(CliTest, InfoReportsTheGpsFixAndAnUnprogrammedRecord) {
    const std::string file = WriteFile("gps.json", R"({"calibration": "unprogrammed", "gps": {"fix": true,
        "latitude": -33.8568, "longitude": 151.2153, "altitude_m": 58.5, "utc": "2026-11-21T12:00:00Z"}})");
    const Result js = Run({"--sim=" + file, "info", "--json"});
    ASSERT_EQ(js.exitCode, 0) << js.err;
    const json doc = Parse(js);
    EXPECT_EQ(doc["gps"]["state"], 1);
    EXPECT_NEAR(doc["gps"]["fix"]["latitude_deg"].get<double>(), -33.8568, 2e-6);
    EXPECT_NEAR(doc["gps"]["fix"]["longitude_deg"].get<double>(), 151.2153, 2e-6);
    EXPECT_NEAR(doc["gps"]["fix"]["altitude_m"].get<double>(), 58.5, 0.05);
    const Result text = Run({"--sim=" + file, "info"});
    EXPECT_THAT(text.out, HasSubstr("2026-11-21T12:00:"));
    EXPECT_THAT(text.out, HasSubstr("lat -33.8568"));
    EXPECT_THAT(text.out, HasSubstr("never programmed"));
}

// ---- failures ----------------------------------------------------------------

struct FailureCase {
    const char* name;
    std::vector<std::string> args;
    const char* scene; // written to {dir}/scene.json when given
    int exitCode;
    std::vector<std::string> messages;
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class FailureTest : public CliTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(FailureTest, ExitsWithAMessageAndNoReport) {
    const auto& c = GetParam();
    if (c.scene) WriteFile("scene.json", c.scene);
    const Result r = Run(c.args);
    EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, HasSubstr("lx530: "));
    for (const auto& m : c.messages) EXPECT_THAT(r.err, HasSubstr(m));
}

INSTANTIATE_TEST_SUITE_P(
    Cli, FailureTest,
    ::testing::Values(
        FailureCase{"MissingSceneFile", {"--sim={dir}/missing.json", "list"}, nullptr, 2, {"missing.json", "No such file"}},
        FailureCase{"SceneIsADirectory", {"--sim={dir}", "list"}, nullptr, 2, {"cannot read scene file"}},
        FailureCase{"SceneNotJson", {"--sim={dir}/scene.json", "info"}, "{\"temperature_c\": }", 1,
                    {"scene.json", "Invalid parameter specified (-2)", "not valid JSON"}},
        FailureCase{"SceneUnknownKey", {"info", "--sim={dir}/scene.json"}, "{\"temprature_c\": 30}", 1,
                    {"scene.json", "(-2)", "unknown key"}},
        FailureCase{"UnknownSubcommand", {"frobnicate"}, nullptr, 2, {"unknown subcommand 'frobnicate'"}},
        FailureCase{"NoSubcommand", {"--json"}, nullptr, 2, {"subcommand is required"}},
        FailureCase{"UnknownOption", {"list", "--frob"}, nullptr, 2, {"--frob"}},
        FailureCase{"SimSerialOutOfRange", {"--sim", "--sim-serial", "1234567", "list"}, nullptr, 2, {"--sim-serial"}},
        FailureCase{"SerialNotANumber", {"info", "--serial", "abc"}, nullptr, 2, {"--serial"}},
        FailureCase{"NothingAttached", {"info"}, nullptr, 1, {"lx530: opening the first analyzer: Device not found (-1)"}},
        FailureCase{"SerialNotAttached", {"--sim", "info", "--serial", "12345678"}, nullptr, 1,
                    {"opening analyzer 12345678: Device not found (-1)"}}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- what the simulator cannot produce yet: a GPS fix, an unprogrammed date ---

} // namespace

// ---- flash ---------------------------------------------------------------------

namespace {

TEST_F(CliTest, FlashBackupVerifyWriteAndRefusals) {
    Result r = Run({"--sim", "--json", "flash", "backup", "{dir}/bk"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const json manifest = json::parse(Slurp(dir_ / "bk" / "manifest.json"));
    EXPECT_EQ(Parse(r), manifest);
    ASSERT_EQ(manifest["regions"].size(), 4u);
    for (const auto& region : manifest["regions"]) {
        // The CRC-32 of each file, by Python's zlib.
        const fs::path file = dir_ / "bk" / region["file"].get<std::string>();
        EXPECT_EQ(fs::file_size(file), region["bytes"].get<size_t>());
        const std::string crc = fs::path(dir_ / "crc").string();
        std::system((std::string(LX_TEST_PYTHON) + " -c 'import sys,zlib; print(zlib.crc32(open(sys.argv[1],\"rb\").read()))' " +
                     Quote(file) + " > " + Quote(crc)).c_str());
        EXPECT_EQ(std::stoul(Slurp(crc)), region["crc32"].get<uint32_t>()) << file;
    }
    // The analyzer's own boot image, with its serial in the descriptor.
    const std::string boot = Slurp(dir_ / "bk" / "boot.bin");
    EXPECT_EQ(boot.substr(0, 2), "CY");
    EXPECT_NE(boot.find(std::string("1\0""0\0""0\0""0\0""0\0""0\0""0\0""1", 15)), std::string::npos);

    // A fresh simulated analyzer of the same serial matches; a changed byte does not.
    EXPECT_EQ(Run({"--sim", "flash", "verify", "{dir}/bk"}).exitCode, 0);
    {
        std::fstream f(dir_ / "bk" / "cal.bin", std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(5000);
        f.put('\x42');
    }
    r = Run({"--sim", "flash", "verify", "{dir}/bk"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_THAT(r.out, HasSubstr("cal   backup file damaged"));
    EXPECT_THAT(r.out, HasSubstr("run   matches"));

    const std::string good = (dir_ / "run.img").string(), bad = (dir_ / "bad.img").string();
    for (const auto& [path, spec] : {std::pair{good, testimage::Spec{.boot = false}},
                                     std::pair{bad, testimage::Spec{.boot = false, .badChecksum = true}}}) {
        const auto img = testimage::Build(spec);
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(img.data()), static_cast<std::streamsize>(img.size()));
    }
    r = Run({"--sim", "flash", "write-run", good});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("Wrote and verified"));
    struct Refusal {
        std::vector<std::string> args;
        const char* why;
    } refusals[] = {{{"write-run", bad}, "checksum is wrong"},
                    {{"write-run", "{dir}/bk/run.bin"}, "no serial placeholder"},
                    {{"write-boot", good}, "no \"FW Ver\""},
                    {{"write-boot", testimage::WriteFile("b.img", testimage::Build({}))}, "give --yes"}};
    for (auto& c : refusals) {
        c.args.insert(c.args.begin(), {"--sim", "flash"});
        r = Run(c.args);
        EXPECT_EQ(r.exitCode, 2) << c.why;
        EXPECT_THAT(r.err, HasSubstr(c.why));
    }
}

} // namespace
