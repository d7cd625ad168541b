// `lx530 sweep`: its peak search against SciPy's, whole runs against the
// scene, their files read back by independent parsers (Pillow for the PNG).
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "plot.h"
#include "sweep_report.h"
#include "tool_run.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;
using namespace lx::cli;
using namespace clitest;

std::vector<std::string> Split(const std::string& line, const std::string& sep) {
    std::vector<std::string> out;
    size_t at = 0;
    for (size_t next; (next = line.find(sep, at)) != std::string::npos; at = next + sep.size())
        out.push_back(line.substr(at, next - at));
    out.push_back(line.substr(at));
    return out;
}

// The lines of a text that ends each with a newline.
std::vector<std::string> Lines(const std::string& text) {
    auto lines = Split(text, "\n");
    lines.pop_back();
    return lines;
}

// Runs the reference script; its JSON answer, or null after a failure.
json Reference(const std::string& args) {
    static TempDir dir;
    const Result r = RunPython(dir.path, "tests/cli/sweep_reference.py", args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return r.exitCode == 0 ? json::parse(r.out) : json();
}

Trace MakeTrace(double start, double bin, std::vector<float> max, bool linear = false) {
    Trace t;
    t.start = start;
    t.binSize = bin;
    t.linear = linear;
    t.min = max;
    for (auto& v : t.min) v = linear ? v / 2 : v - 6;
    t.max = std::move(max);
    return t;
}

TEST(SweepQuantities, FrequenciesAndTimes) {
    const std::optional<double> no;
    const struct { const char* text; std::optional<double> hz, seconds; } cases[] = {
        {"9000", 9000, 9000},        {"100k", 100e3, no},      {"2.4G", 2.4e9, no},     {"2.4g", 2.4e9, no},
        {"433.92m", 433.92e6, no},   {"433.92MHz", 433.92e6, no}, {"1.5e-3", 1.5e-3, 1.5e-3}, {"50Hz", 50, no},
        {"-5M", -5e6, no},           {"10ms", no, 10e-3},      {"250us", no, 250e-6},   {"2s", no, 2},
        {"100x", no, no},            {"100 k", no, no},        {"k", no, no},           {"100kHzz", no, no},
        {"nan", no, no},             {"1e400", no, no},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ParseFrequency(c.text), c.hz) << c.text;
        EXPECT_EQ(ParseSeconds(c.text), c.seconds) << c.text;
    }
}

TEST(SweepPeaks, AgreeWithScipy) {
    const json ref = Reference("peaks");
    ASSERT_FALSE(ref.is_null());
    for (const auto& c : ref["cases"]) {
        SCOPED_TRACE(c["name"].get<std::string>());
        std::vector<float> values;
        for (double v : c["values"]) values.push_back(static_cast<float>(v));
        const Trace t = MakeTrace(1e6, 1000, values, c["linear"]);

        EXPECT_NEAR(PeakFloor(t), c["floor"].get<double>(), 1e-6);
        std::vector<size_t> found;
        for (const auto& p : FindPeaks(t, 1000)) {
            found.push_back(p.index);
            EXPECT_DOUBLE_EQ(p.frequency, 1e6 + 1000.0 * static_cast<double>(p.index));
            EXPECT_EQ(p.level, values[p.index]);
        }
        EXPECT_EQ(found, c["peaks"].get<std::vector<size_t>>());

        // The table keeps the strongest.
        const auto two = FindPeaks(t, 2);
        ASSERT_EQ(two.size(), std::min<size_t>(2, found.size()));
        for (size_t k = 0; k < two.size(); ++k) EXPECT_EQ(two[k].index, found[k]);
    }
}

// What the SciPy cases cannot pose: plateaus at the end, non-numbers, twins.
TEST(SweepPeaks, EdgesPlateausAndNonNumbers) {
    // Each pattern sits in a quiet trace of -100 dBm: 50 points before it
    // (`atEnd`: none after it), so that the noise floor is -90 dBm.
    struct Case {
        const char* name;
        std::vector<float> pattern;
        bool atEnd;
        std::vector<size_t> peaks; // indices into the pattern
    };
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    const Case cases[] = {
        {"rising to the last point", {-90, -80, -70, -60}, true, {}},
        {"plateau at the last point", {-90, -60, -60}, true, {}},
        {"shoulder plateau below a higher point", {-60, -60, -40, -100}, false, {2}},
        {"NaN and -inf are no levels", {nan, -100, -40, -inf, -100}, false, {2}},
        {"twins of one height both count", {-50, -53, -50, -100}, false, {0, 2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<float> values(50, -100.0f);
        values.insert(values.end(), c.pattern.begin(), c.pattern.end());
        if (!c.atEnd) values.insert(values.end(), 50, -100.0f);
        std::vector<size_t> found;
        for (const auto& p : FindPeaks(MakeTrace(0, 1, values), 10)) found.push_back(p.index - 50);
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, c.peaks);
    }
    EXPECT_TRUE(FindPeaks(MakeTrace(0, 1, {-100, -100, -20, -100, -100}), 0).empty());
}

TEST(SweepPlot, SpikeSurvivesDecimation) {
    struct Case { size_t points, columns, spike; };
    for (const auto& c : {Case{193335, 883, 28928}, Case{193335, 883, 193334}, Case{1000, 883, 0},
                          Case{500, 883, 250}, Case{884, 883, 883}}) {
        SCOPED_TRACE(std::to_string(c.points) + " points in " + std::to_string(c.columns) + " columns");
        std::vector<float> v(c.points);
        for (size_t i = 0; i < v.size(); ++i) v[i] = -110.0f + static_cast<float>((i * 7919) % 13) * 0.5f;
        v[c.spike] = -20.0f;
        const Trace t = MakeTrace(1e8, 15000, v);
        const Envelope e = Decimate(t, t.max, c.columns);
        ASSERT_EQ(e.hi.size(), std::min(c.points, c.columns));
        const auto top = std::max_element(e.hi.begin(), e.hi.end());
        EXPECT_EQ(*top, -20.0);
        // Drawn where it is: within the span of points its column covers.
        const double pointsPerColumn = static_cast<double>(c.points) / static_cast<double>(e.hi.size());
        EXPECT_NEAR(e.frequency[static_cast<size_t>(top - e.hi.begin())], t.FrequencyAt(c.spike),
                    pointsPerColumn * t.binSize);
        EXPECT_EQ(*std::min_element(e.lo.begin(), e.lo.end()), -110.0);
        EXPECT_TRUE(std::is_sorted(e.frequency.begin(), e.frequency.end()));
    }
}

// The max trace's yellow, the min trace's blue and the markers' red over the
// background, as the reference script's arguments.
const char* const kTraceColours = "'[[255, 214, 0], [40, 170, 255], [255, 90, 70]]' '[12, 16, 22]'";

// Whole runs on a simulated analyzer (refused command lines: cli_test.cpp).

struct Tone { double hz, dbm; };
const Tone kTones[] = {{500e6, -30.0}, {1.2e9, -55.0}};

struct RunCase { const char* name; std::vector<std::string> args; };

struct Outcome { Result result; json doc; std::string csv, rtlPower; fs::path png; };

// One run of the tool per case on the two-tone scene, shared by its checks.
const Outcome& RunOnce(const RunCase& c) {
    static std::map<std::string, Outcome> runs;
    static TempDir dir;
    auto it = runs.find(c.name);
    if (it != runs.end()) return it->second;
    const fs::path d = dir.path / c.name;
    fs::create_directories(d);
    json scene = {{"noise_floor_dbm_hz", -160}, {"emitters", json::array()}};
    for (const auto& t : kTones)
        scene["emitters"].push_back({{"kind", "tone"}, {"frequency_hz", t.hz}, {"power_dbm", t.dbm}});
    std::ofstream(d / "scene.json") << scene.dump();
    std::vector<std::string> args = {"sweep", "--scene", "{dir}/scene.json", "--start", "100M", "--stop", "2G",
                                     "--rbw", "100k", "--json", "--csv", "{dir}/trace.csv", "--rtl-power",
                                     "{dir}/rtl.csv", "--png", "{dir}/plot.png", "--png-size", "900x500"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    Outcome o;
    o.result = RunTool(d, args);
    if (o.result.exitCode == 0) o.doc = json::parse(o.result.out, nullptr, false);
    o.csv = Slurp(d / "trace.csv");
    o.rtlPower = Slurp(d / "rtl.csv");
    o.png = d / "plot.png";
    return runs.emplace(c.name, std::move(o)).first->second;
}

// Ran and reported; fails the test otherwise.
const Outcome* Ran(const RunCase& c) {
    const Outcome& o = RunOnce(c);
    EXPECT_EQ(o.result.exitCode, 0) << o.result.err;
    EXPECT_THAT(o.result.err, Not(HasSubstr("lx530:"))) << "no warning expected";
    if (o.result.exitCode != 0 || o.doc.is_discarded()) return nullptr;
    return &o;
}

// The CSV's min and max columns.
std::pair<std::vector<double>, std::vector<double>> Columns(const std::string& csv) {
    std::vector<double> min, max;
    for (const auto& line : Lines(csv)) {
        if (line.rfind("frequency", 0) == 0) continue;
        const auto f = Split(line, ",");
        min.push_back(std::stod(f[1]));
        max.push_back(std::stod(f[2]));
    }
    return {min, max};
}

// The q-quantile of the values (the sorted point q (n - 1), rounded down).
double Quantile(std::vector<double> v, double q) {
    const auto k = static_cast<size_t>(q * static_cast<double>(v.size() - 1));
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
    return v[k];
}

const RunCase kMinMaxOnce{"MinMaxMillivoltsOnce",
                          {"--scale", "lin", "--units", "voltage", "--detector", "minmax", "--vbw", "30k"}};
const RunCase kMinMaxHeld{"HeldMinMaxMillivolts",
                          {"--scale", "lin", "--units", "voltage", "--detector", "minmax", "--vbw", "30k",
                           "--count", "3"}};

class SweepRun : public ::testing::TestWithParam<RunCase> {};

TEST_P(SweepRun, PeakTableNamesTheScenesTones) {
    const Outcome* o = Ran(GetParam());
    ASSERT_NE(o, nullptr);
    const double bin = o->doc["sweep"]["bin_size_hz"];
    const auto& peaks = o->doc["peaks"];
    ASSERT_EQ(peaks.size(), std::size(kTones)) << peaks.dump(2);
    // Strongest first, which is the scene's order.
    for (size_t k = 0; k < std::size(kTones); ++k) {
        EXPECT_NEAR(peaks[k]["frequency_hz"].get<double>(), kTones[k].hz, bin) << k;
        EXPECT_NEAR(peaks[k]["dbm"].get<double>(), kTones[k].dbm, 0.5) << k;
    }
}

// The CSV: one row per trace point, from the actual start in bin steps, min
// not above max, the peaks' levels at their indices. The rtl_power file: the
// same max trace.
TEST_P(SweepRun, TraceFilesHoldEveryPoint) {
    const Outcome* o = Ran(GetParam());
    ASSERT_NE(o, nullptr);
    const auto& sweep = o->doc["sweep"];
    const double start = sweep["actual_start_hz"], bin = sweep["bin_size_hz"];
    const bool linear = sweep["level_unit"] == "mV";
    const auto lines = Lines(o->csv);
    ASSERT_EQ(lines.size(), sweep["sweep_length"].get<size_t>() + 1);
    EXPECT_EQ(lines[0], linear ? "frequency_hz,min_mv,max_mv" : "frequency_hz,min_dbm,max_dbm");
    std::vector<float> max;
    for (size_t i = 1; i < lines.size(); ++i) {
        const auto f = Split(lines[i], ",");
        ASSERT_EQ(f.size(), 3u) << lines[i];
        ASSERT_DOUBLE_EQ(std::stod(f[0]), start + bin * static_cast<double>(i - 1)) << "row " << i;
        ASSERT_LE(std::stof(f[1]), std::stof(f[2])) << "min above max in row " << i;
        max.push_back(std::stof(f[2]));
    }
    for (const auto& p : o->doc["peaks"]) EXPECT_EQ(max[p["index"].get<size_t>()], p["level"].get<float>());

    // Lines that abut, each with its local date and time, edges, bin and
    // sweep count; levels in dBm to 0.01 dB (0 dBm is 223.607 mV into 50 ohm).
    const auto places = [](const std::string& text) {
        const size_t dot = text.find('.');
        return dot == std::string::npos ? 0 : int(text.size() - dot - 1);
    };
    size_t point = 0;
    double previousHigh = start;
    for (const auto& line : Lines(o->rtlPower)) {
        const auto f = Split(line, ", ");
        ASSERT_GE(f.size(), 7u) << line;
        std::tm tm{};
        ASSERT_NE(strptime((f[0] + " " + f[1]).c_str(), "%Y-%m-%d %H:%M:%S", &tm), nullptr) << line;
        tm.tm_isdst = -1;
        EXPECT_LT(std::fabs(std::difftime(std::time(nullptr), std::mktime(&tm))), 3600) << line;
        EXPECT_TRUE(places(f[2]) == 0 && places(f[3]) == 0 && places(f[4]) == 2) << line;
        const double low = std::stod(f[2]), high = std::stod(f[3]);
        EXPECT_NEAR(low, previousHigh, 0.5) << "lines abut";
        EXPECT_NEAR(std::stod(f[4]), bin, 0.005);
        EXPECT_NEAR(high - low, bin * static_cast<double>(f.size() - 6), 1.0);
        EXPECT_LE(high - low, kRtlPowerChunkHz + 1.0);
        previousHigh = high;
        EXPECT_EQ(f[5], std::to_string(sweep["sweeps"].get<int>()));
        for (size_t k = 6; k < f.size() && point < max.size(); ++k, ++point) {
            const double dbm = linear ? 20 * std::log10(max[point] / 223.60680) : max[point];
            EXPECT_EQ(places(f[k]), 2) << f[k];
            EXPECT_NEAR(std::stod(f[k]), dbm, 0.0051) << "point " << point;
        }
    }
    EXPECT_EQ(point, max.size());
}

// The PNG as Pillow reads it: its size, the traces and markers in their colours.
TEST_P(SweepRun, PngOfTheRequestedSize) {
    const Outcome* o = Ran(GetParam());
    ASSERT_NE(o, nullptr);
    const json png = Reference("png " + Quote(o->png.string()) + " " + kTraceColours);
    ASSERT_FALSE(png.is_null());
    EXPECT_EQ(png["format"], "PNG");
    EXPECT_EQ(png["width"], 900);
    EXPECT_EQ(png["height"], 500);
    // The traces run across the graticule (600 of the 900 columns), the min
    // trace below the max one in dBm (in mV both lie on the zero line);
    // markers over both tones.
    EXPECT_GT(png["colours"][0]["columns"].get<int>(), 450) << "max trace";
    if (o->doc["sweep"]["level_unit"] == "dBm") {
        EXPECT_GT(png["colours"][1]["columns"].get<int>(), 450) << "min trace";
    }
    EXPECT_GT(png["colours"][2]["pixels"].get<int>(), 60) << "markers";
}

INSTANTIATE_TEST_SUITE_P(
    Sweep, SweepRun,
    // Three sweeps held, in millivolts through the voltage video path.
    ::testing::Values(RunCase{"AveragedDbm", {}}, kMinMaxHeld),
    [](const auto& info) { return std::string(info.param.name); });

// Each point of the held max trace is the highest of three independent noise
// readings, so its median over the trace is the 0.5^(1/3) quantile of one
// sweep's; the held min trace mirrors it. A tool that kept the last sweep
// would sit at the median, 1.5 dB or more away.
TEST(SweepHold, ThreeSweepsHoldTheirExtremes) {
    const Outcome* once = Ran(kMinMaxOnce);
    const Outcome* held = Ran(kMinMaxHeld);
    ASSERT_TRUE(once && held);
    const auto [onceMin, onceMax] = Columns(once->csv);
    const auto [heldMin, heldMax] = Columns(held->csv);
    ASSERT_EQ(onceMax.size(), heldMax.size());
    const double q = std::pow(0.5, 1.0 / 3.0);
    auto db = [](double mv) { return 20 * std::log10(mv); };
    EXPECT_NEAR(db(Quantile(heldMax, 0.5)), db(Quantile(onceMax, q)), 0.3);
    EXPECT_NEAR(db(Quantile(heldMin, 0.5)), db(Quantile(onceMin, 1 - q)), 0.3);
}

TEST(SweepWarnings, ClampedSettingsAreReportedAndTheSweepRuns) {
    struct Case { std::vector<std::string> args; std::string warning; };
    const Case cases[] = {
        {{"--start", "100M", "--stop", "20G", "--rbw", "1M"},
         "lx530: warning: setting the span to 100.000 MHz .. 20.000 GHz: Setting clamped (1)"},
        {{"--start", "100M", "--stop", "200M", "--rbw", "100k", "--vbw", "1M"},
         "lx530: warning: setting RBW 100.000 kHz, VBW 1.000 MHz, sweep time 1e-06 s: Setting clamped (1)"},
    };
    TempDir dir;
    for (const auto& c : cases) {
        std::vector<std::string> args = {"sweep", "--sim"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const Result r = RunTool(dir.path, args);
        EXPECT_EQ(r.exitCode, 0) << r.err;
        EXPECT_THAT(r.err, HasSubstr(c.warning));
        EXPECT_THAT(r.out, HasSubstr("Span"));
    }
}

} // namespace
