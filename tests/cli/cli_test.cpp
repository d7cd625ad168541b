// The lx530 tool's command line, reports and flash commands.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "lx_api.h"
#include "../boot/test_image.h"
#include "main.h"
#include "report.h"
#include "tool_run.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::HasSubstr;
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

struct OutputCase {
    const char* name;
    std::vector<std::string> args;
    std::vector<std::string> expected; // on stdout
};

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
        OutputCase{"ListNothingAttached", {"list"}, {"No LX530 attached"}},
        OutputCase{"Help", {"--help"}, {"Usage: lx530", "--sim", "--json", "list", "info"}},
        OutputCase{"Version", {"--version"}, {std::string("lx_api ") + lxGetAPIVersion()}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CliTest, ListAsJson) {
    const Result r = Run({"--json", "list", "--sim", "--sim-serial=99999999"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(Parse(r), json::parse(R"({"devices": [{"serial": 99999999, "personality": "run firmware",
                                                     "simulated": true}]})"));
    EXPECT_EQ(Parse(Run({"list", "--json"})), json::parse(R"({"devices": []})"));
}

// That the report carries each reading (their accuracy: tests/e2e).
TEST_F(CliTest, InfoReportsTheScene) {
    const std::string file = WriteFile("scene.json", R"({"temperature_c": 47.6, "supply_v": 13.7, "supply_a": 2.345,
                                                        "firmware": [3, 14, 159]})");
    const Result r = Run({"info", "--sim=" + file, "--sim-serial", "31415926", "--json"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const json doc = Parse(r);
    EXPECT_EQ(doc["serial"], 31415926);
    EXPECT_EQ(doc["firmware"], json::parse(R"({"major": 3, "minor": 14, "revision": 159, "version": "3.14.159"})"));
    // Within the resolution of the status packet's encoding.
    EXPECT_NEAR(doc["temperature_c"].get<double>(), 47.6, 0.25);
    EXPECT_NEAR(doc["supply_voltage_v"].get<double>(), 13.7, 0.00553);
    EXPECT_NEAR(doc["supply_current_a"].get<double>(), 2.345, 0.002);
    // The fan powers up set to 45 degrees and runs 30 % there, +10 % per degree above.
    EXPECT_NEAR(doc["fan"]["set_point_c"].get<double>(), 45.0, 1.0 / 16);
    EXPECT_NEAR(doc["fan"]["reading_percent"].get<double>(), 56.0, 2.5 + 0.078125);
    // The simulator's factory record is dated 2024-06-01 12:00 UTC; it has no GPS receiver yet.
    EXPECT_EQ(doc["calibration_date"]["utc"], "2024-06-01T12:00:00Z");
    EXPECT_EQ(doc["gps"], json::parse(R"({"state": 0, "status": "no fix", "fix": null})"));
    EXPECT_EQ(doc["warnings"], json::array());

    const std::string text = Run({"--sim=" + file, "--sim-serial=31415926", "info"}).out;
    for (const char* s : {"3.14.159\n", "31415926 (simulated)"}) EXPECT_THAT(text, HasSubstr(s));
}

// A corrupt record warns and reports all the same; a GPS fix is in the
// report straight after the open.
TEST_F(CliTest, InfoOfACorruptOrUnprogrammedRecordAndAGpsFix) {
    WriteFile("corrupt.json", R"({"calibration": "corrupt", "temperature_c": 31})");
    const Result text = Run({"--sim={dir}/corrupt.json", "info"});
    EXPECT_EQ(text.exitCode, 0) << text.err;
    EXPECT_THAT(text.err, HasSubstr("lx530: warning: opening the first analyzer: Invalid calibration data (6)"));
    EXPECT_THAT(text.out, HasSubstr("31.00 C"));
    EXPECT_EQ(Parse(Run({"--sim={dir}/corrupt.json", "info", "--json"}))["warnings"],
              json::parse(R"([{"what": "opening the first analyzer", "status": 6, "text": "Invalid calibration data"}])"));

    WriteFile("gps.json", R"({"calibration": "unprogrammed", "gps": {"fix": true, "latitude": -33.8568,
        "longitude": 151.2153, "altitude_m": 58.5, "utc": "2026-11-21T12:00:00Z"}})");
    const json fix = Parse(Run({"--sim={dir}/gps.json", "info", "--json"}))["gps"];
    EXPECT_EQ(fix["state"], 1);
    EXPECT_NEAR(fix["fix"]["latitude_deg"].get<double>(), -33.8568, 2e-6);
    EXPECT_NEAR(fix["fix"]["longitude_deg"].get<double>(), 151.2153, 2e-6);
    EXPECT_NEAR(fix["fix"]["altitude_m"].get<double>(), 58.5, 0.05);
    const std::string out = Run({"--sim={dir}/gps.json", "info"}).out;
    for (const char* s : {"2026-11-21T12:00:", "lat -33.8568", "never programmed"}) EXPECT_THAT(out, HasSubstr(s));
}

struct FailureCase {
    const char* name;
    std::vector<std::string> args;
    const char* scene; // written to {dir}/scene.json when given
    int exitCode;
    std::vector<std::string> messages;
};

class FailureTest : public CliTest, public ::testing::WithParamInterface<FailureCase> {};

// Exit code 2: refused before any analyzer is opened (no --sim: an attempt to
// open one would fail with 1). Nothing on stdout, and no output file left
// behind, not even one created up front before the analyzer failed.
TEST_P(FailureTest, ExitsWithAMessageAndNoReport) {
    const auto& c = GetParam();
    if (c.scene) WriteFile("scene.json", c.scene);
    const Result r = Run(c.args);
    EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, HasSubstr("lx530: "));
    for (const auto& m : c.messages) EXPECT_THAT(r.err, HasSubstr(m));
    for (const auto& e : fs::directory_iterator(dir_)) {
        const std::string name = e.path().filename().string();
        EXPECT_TRUE(name.rfind("out", 0) == 0 || name.rfind("err", 0) == 0 || name.rfind("cache", 0) == 0 ||
                    name == "scene.json")
            << "left behind: " << name;
    }
}

// A sweep with a CSV output, then `more`.
std::vector<std::string> Sweep(std::vector<std::string> more) {
    more.insert(more.begin(), {"sweep", "--csv", "{dir}/trace.csv"});
    return more;
}

const FailureCase kFailures[] = {
        FailureCase{"MissingSceneFile", {"--sim={dir}/missing.json", "list"}, nullptr, 2, {"missing.json", "No such file"}},
        FailureCase{"SceneIsADirectory", {"--sim={dir}", "list"}, nullptr, 2, {"cannot read scene file"}},
        FailureCase{"SceneNotJson", {"--sim={dir}/scene.json", "info"}, "{\"temperature_c\": }", 1,
                    {"scene.json", "Invalid parameter specified (-2)", "not valid JSON"}},
        FailureCase{"UnknownSubcommand", {"frobnicate"}, nullptr, 2, {"unknown subcommand 'frobnicate'"}},
        FailureCase{"NoSubcommand", {"--json"}, nullptr, 2, {"subcommand is required"}},
        FailureCase{"UnknownOption", {"list", "--frob"}, nullptr, 2, {"--frob"}},
        FailureCase{"SimSerialOutOfRange", {"--sim", "--sim-serial", "1234567", "list"}, nullptr, 2, {"--sim-serial"}},
        FailureCase{"SerialNotANumber", {"info", "--serial", "abc"}, nullptr, 2, {"--serial"}},
        FailureCase{"NothingAttached", {"info"}, nullptr, 1, {"lx530: opening the first analyzer: Device not found (-1)"}},
        FailureCase{"SweepBadSuffix", Sweep({"--start", "100x", "--stop", "1G"}), nullptr, 2,
                    {"--start: '100x' is not a frequency"}},
        FailureCase{"SweepStartAboveStop", Sweep({"--start", "2G", "--stop", "1G"}), nullptr, 2,
                    {"--start must be below --stop"}},
        FailureCase{"SweepNegativeStart", Sweep({"--start=-5M", "--stop", "1G"}), nullptr, 2, {"cannot be negative"}},
        FailureCase{"SweepZeroSpan", Sweep({"--center", "1G", "--span", "0"}), nullptr, 2, {"--span must be above 0"}},
        FailureCase{"SweepStartWithoutStop", Sweep({"--start", "1G"}), nullptr, 2, {"--start requires --stop"}},
        FailureCase{"SweepStartAndCenter", Sweep({"--start", "1G", "--stop", "2G", "--center", "1G", "--span", "1M"}),
                    nullptr, 2, {"excludes"}},
        FailureCase{"SweepUnknownWindow", Sweep({"--window", "kaiser"}), nullptr, 2,
                    {"--window: 'kaiser' is not one of flattop|nuttall|blackman|hamming|gaussian|rect"}},
        FailureCase{"SweepBadTime", Sweep({"--sweep-time", "5min"}), nullptr, 2, {"--sweep-time: '5min' is not a time"}},
        FailureCase{"SweepAttenuatorTooHigh", Sweep({"--atten", "7"}), nullptr, 2, {"--atten: '7'"}},
        FailureCase{"SweepTinyPng", Sweep({"--png", "{dir}/a.png", "--png-size", "100x100"}), nullptr, 2,
                    {"--png-size: '100x100'"}},
        FailureCase{"SweepUnwritableFile", Sweep({"--rtl-power", "{dir}/no/such/folder.csv"}), nullptr, 2,
                    {"cannot write", "No such file or directory"}},
        FailureCase{"SweepOneFileForTwoOutputs", Sweep({"--png", "{dir}/./trace.csv"}), nullptr, 2,
                    {"named for two outputs"}},
        FailureCase{"SweepSceneTwice", Sweep({"--sim={dir}/scene.json", "--scene", "{dir}/scene.json"}), nullptr, 2,
                    {"either"}},
        FailureCase{"SweepSimSerialWithoutSim", Sweep({"--sim-serial", "12345678"}), nullptr, 2,
                    {"--sim-serial needs --sim"}},
        FailureCase{"SweepSerialNotAttached", Sweep({"--sim", "--serial", "12345678"}), nullptr, 1,
                    {"opening analyzer 12345678: Device not found (-1)"}},
        FailureCase{"RtUnknownWindow", {"rt", "--sim", "--window", "kaiser"}, nullptr, 2, {"--window"}},
        FailureCase{"RtBadSpan", {"rt", "--sim", "--span", "wide"}, nullptr, 2, {"--span"}},
        FailureCase{"RtZeroFrameScale", {"rt", "--sim", "--frame-scale", "0"}, nullptr, 2, {"--frame-scale"}},
        FailureCase{"RtOneFileForTwoOutputs", {"rt", "--sim", "--png", "{dir}/a.png", "--csv", "{dir}/a.png"}, nullptr,
                    2, {"two outputs"}},
        FailureCase{"IqRateAboveTheDevice", {"iq", "--sim", "--rate", "1M", "--output", "{dir}/x"}, nullptr, 2, {}},
        FailureCase{"IqDecimationNotAPowerOfTwo", {"iq", "--sim", "--decimation", "3", "--output", "{dir}/x"}, nullptr,
                    2, {}},
        FailureCase{"IqUnknownFormat", {"iq", "--sim", "--output", "{dir}/x", "--raw", "{dir}/y", "--format", "cs8"},
                    nullptr, 2, {}},
        FailureCase{"IqNegativeDuration", {"iq", "--sim", "--duration", "-1s", "--output", "{dir}/x"}, nullptr, 2, {}},
        FailureCase{"IqRateAndDecimation", {"iq", "--sim", "--rate", "60k", "--decimation", "1024", "--output", "{dir}/x"},
                    nullptr, 2, {}},
        FailureCase{"IqNoOutput", {"iq", "--sim"}, nullptr, 2, {}},
        FailureCase{"AudioUnknownType", {"audio", "--sim", "--output", "{dir}/a.wav", "--type", "fmx"}, nullptr, 2, {}},
        FailureCase{"AudioZeroDuration", {"audio", "--sim", "--output", "{dir}/a.wav", "--duration", "0s"}, nullptr, 2, {}},
        FailureCase{"AudioBadCentre", {"audio", "--sim", "--output", "{dir}/a.wav", "--center", "x"}, nullptr, 2, {}},
        FailureCase{"AudioNegativeBandwidth", {"audio", "--sim", "--output", "{dir}/a.wav", "--if-bandwidth", "-3k"},
                    nullptr, 2, {}}};
INSTANTIATE_TEST_SUITE_P(Cli, FailureTest, ::testing::ValuesIn(kFailures),
                         [](const auto& info) { return std::string(info.param.name); });

// One parser reused, as the fuzz target uses it, answers every command line
// as a fresh one does whatever it parsed before (a scene, a serial or a span
// left over from the last line would change the answer).
TEST(CommandLine, ReusedAnswersAsAFreshOne) {
    std::vector<std::vector<std::string>> lines = {{"sweep", "--scene", "s.json", "--start", "1G", "--stop", "2G"},
                                                   {"--sim", "sweep"},
                                                   {"sweep", "--center", "1G", "--span", "1M"},
                                                   {"list", "--sim", "--sim-serial", "23456789"}};
    for (const auto& c : kFailures) lines.push_back(c.args);
    const auto check = [](lx::cli::CommandLine& cl, const std::vector<std::string>& args) {
        std::vector<const char*> argv{"lx530"};
        for (const auto& a : args) argv.push_back(a.c_str());
        return cl.Check(static_cast<int>(argv.size()), argv.data());
    };
    std::vector<int> fresh;
    testing::internal::CaptureStderr(); // the refusals' messages
    for (const auto& b : lines) {
        lx::cli::CommandLine cl;
        fresh.push_back(check(cl, b));
    }
    lx::cli::CommandLine reused;
    for (const auto& a : lines) {
        for (size_t k = 0; k < lines.size(); ++k) {
            check(reused, a);
            EXPECT_EQ(check(reused, lines[k]), fresh[k]) << lines[k][0] << " after " << a[0];
        }
    }
    testing::internal::GetCapturedStderr();
    EXPECT_NE(std::count(fresh.begin(), fresh.end(), 0), 0); // both kinds are in the table
    EXPECT_NE(std::count(fresh.begin(), fresh.end(), 2), 0);
}

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
        const Result crc = RunCommand(dir_, std::string(LX_TEST_PYTHON) +
                                                " -c 'import sys,zlib; print(zlib.crc32(open(sys.argv[1],\"rb\").read()))' " +
                                                Quote(file));
        EXPECT_EQ(std::stoul(crc.out), region["crc32"].get<uint32_t>()) << file;
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

    const std::string good = testimage::WriteFile("run.img", testimage::Build({.boot = false})),
                      bad = testimage::WriteFile("bad.img", testimage::Build({.boot = false, .badChecksum = true}));
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
