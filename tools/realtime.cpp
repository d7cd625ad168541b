#include "realtime.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <set>
#include <vector>

#include <nlohmann/json.hpp>
#include <strings.h>

#include "cli_support.h"
#include "lx_api.h"
#include "plot.h"
#include "sweep_report.h"

namespace lx::cli {

namespace {

constexpr std::array<const char*, 2> kDetectors = {"avg", "minmax"};
constexpr std::array<const char*, 3> kScales = {"log", "lin", "lognogain"};
constexpr std::array<const char*, 6> kWindows = {"flattop", "nuttall", "blackman", "hamming", "gaussian", "rect"};

constexpr const char* kRtHint = "Run 'lx530 rt --help' for usage.";

Failure Usage(const std::string& message) { return Failure(kExitUsage, message, kRtHint); }

template <size_t N> std::string Choices(const std::array<const char*, N>& names) {
    std::string out;
    for (const char* n : names) out += (out.empty() ? "" : "|") + std::string(n);
    return out;
}

template <size_t N>
int32_t Named(const std::string& option, const std::string& text, const std::array<const char*, N>& names) {
    for (size_t i = 0; i < N; ++i)
        if (strcasecmp(text.c_str(), names[i]) == 0) return static_cast<int32_t>(i);
    throw Usage(option + ": '" + text + "' is not one of " + Choices(names));
}

double Frequency(const std::string& option, const std::string& text) {
    const auto v = ParseFrequency(text);
    if (!v || *v <= 0) throw Usage(option + ": '" + text + "' is not a frequency above 0 (examples: 100k, 2.4G)");
    return *v;
}

std::string Fixed(const char* format, double v) {
    char b[64];
    std::snprintf(b, sizeof b, format, v);
    return b;
}

// What was set up and what came back.
struct Summary {
    uint32_t serial = 0;
    bool simulated = false;
    double centre = 0, span = 0, rbw = 0;
    std::string window, detector, scale;
    double frameRef = 0, frameScale = 0, refLevel = 0;
    int32_t attenuator = -1;
    double actualRbw = 0, start = 0, binSize = 0, poi = 0;
    int32_t sweepLength = 0, width = 0, height = 0;
    int frames = 0;
    int32_t lastFrame = -1;
    uint64_t timestamp = 0;
    std::vector<Warning> warnings;
    std::vector<std::string> files;
    bool linear = false;
    double peakHz = 0, peakLevel = 0;
};

nlohmann::json Json(const Summary& s) {
    nlohmann::json j;
    j["serial"] = s.serial;
    j["simulated"] = s.simulated;
    j["requested"] = {{"center_hz", s.centre}, {"span_hz", s.span}, {"rbw_hz", s.rbw}, {"window", s.window},
                      {"detector", s.detector}, {"scale", s.scale}, {"frame_ref_level", s.frameRef},
                      {"frame_scale_db", s.frameScale}, {"ref_level_dbm", s.refLevel}};
    j["actual"] = {{"rbw_hz", s.actualRbw}, {"start_hz", s.start}, {"bin_hz", s.binSize},
                   {"trace_points", s.sweepLength}, {"frame_width", s.width}, {"frame_height", s.height},
                   {"poi_s", s.poi}};
    j["frames_read"] = s.frames;
    j["last_frame"] = s.lastFrame;
    j["timestamp_ns"] = s.timestamp;
    j["peak"] = {{"frequency_hz", s.peakHz}, {s.linear ? "level_mv" : "level_dbm", s.peakLevel}};
    j["warnings"] = nlohmann::json::array();
    for (const Warning& w : s.warnings) j["warnings"].push_back({{"what", w.what}, {"status", int(w.status)}});
    j["files"] = s.files;
    return j;
}

std::string Text(const Summary& s) {
    std::string out;
    char b[512];
    std::snprintf(b, sizeof b, "LX530 %08u%s  real-time spectrum\n", s.serial, s.simulated ? " (simulated)" : "");
    out += b;
    out += "  span        " + FormatFrequency(s.start, s.binSize) + " .. " +
           FormatFrequency(s.start + s.binSize * (s.sweepLength - 1), s.binSize) + ", " +
           std::to_string(s.sweepLength) + " points " + FormatFrequency(s.binSize, s.binSize / 1000) + " apart\n";
    out += "  RBW         " + FormatFrequency(s.actualRbw, s.actualRbw / 1000) + " (" + s.window + ")\n";
    out += "  POI         " + Fixed("%.2f us", s.poi * 1e6) + ": shorter signals may read low\n";
    out += "  frame       " + std::to_string(s.width) + " x " + std::to_string(s.height) + " cells, " +
           (s.linear ? Fixed("0 .. %.4g mV", std::pow(10.0, (s.frameRef + 46.9897) / 20.0))
                     : Fixed("%.1f", s.frameRef - s.frameScale) + Fixed(" .. %.1f dBm", s.frameRef)) +
           "\n";
    out += "  frames      " + std::to_string(s.frames) + " read, last number " + std::to_string(s.lastFrame) + "\n";
    out += "  peak        " + FormatFrequency(s.peakHz, s.binSize) +
           (s.linear ? Fixed("  %.4g mV", s.peakLevel) : Fixed("  %.2f dBm", s.peakLevel)) + " (max trace)\n";
    for (const Warning& w : s.warnings) out += "  warning     " + w.what + ": " + StatusText(w.status) + "\n";
    for (const std::string& f : s.files) out += "  wrote       " + f + "\n";
    return out;
}

std::vector<std::pair<std::string, std::string>> Rows(const Summary& s) {
    return {{"RBW", FormatFrequency(s.actualRbw, s.actualRbw / 1000)},
            {"window", s.window},
            {"detector", s.detector},
            {"POI", Fixed("%.2f us", s.poi * 1e6)},
            {"frame top", s.linear ? Fixed("%.4g mV", std::pow(10.0, (s.frameRef + 46.9897) / 20.0))
                                   : Fixed("%.1f dBm", s.frameRef)},
            {"frame range", s.linear ? std::string("linear") : Fixed("%.1f dB", s.frameScale)},
            {"points", std::to_string(s.sweepLength)},
            {"frames", std::to_string(s.frames)}};
}

} // namespace

CLI::App* AddRealTimeCommand(CLI::App& app, RealTimeOptions& o) {
    auto* cmd = app.add_subcommand(
        "rt", "Real-time spectrum: gap-free frames with a density (persistence) frame; PNGs and CSV on request");
    cmd->add_option("--center", o.center, "Centre frequency, 9k .. 15G (default 1G)")->type_name("FREQ");
    cmd->add_option("--span", o.span, "Span, 200k .. 40M (default 40M)")->type_name("FREQ");
    cmd->add_option("--rbw", o.rbw, "Resolution bandwidth, 2k .. 1M (default 30k)")->type_name("FREQ");
    cmd->add_option("--window", o.window, "FFT window (default nuttall)")->type_name(Choices(kWindows));
    cmd->add_option("--detector", o.detector, "Trace detector (default minmax)")->type_name(Choices(kDetectors));
    cmd->add_option("--scale", o.scale, "dBm, mV, or dBm without the gain correction (default log)")
        ->type_name(Choices(kScales));
    cmd->add_option("--frame-ref", o.frameRef, "Level at the top of the density frame, dBm (default 0)")
        ->type_name("DBM");
    cmd->add_option("--frame-scale", o.frameScale, "Levels the density frame spans, dB (default 100)")
        ->type_name("DB");
    AddInputOptions(*cmd, o.refLevel, o.attenuator);
    cmd->add_option("--frames", o.frames, "Frames to read, 1/30 s each (default 40)")
        ->check(CLI::Range(1, 100000))
        ->type_name("N");
    AddAnalyzerOptions(*cmd, o.scene, o.serial);
    cmd->add_option("--png", o.png, "Draw the last density frame with its max trace into a PNG")->type_name("FILE");
    cmd->add_option("--waterfall", o.waterfall, "Draw the max traces of all frames as a waterfall PNG")
        ->type_name("FILE");
    cmd->add_option("--csv", o.csv, "Write the last frame's traces: frequency_hz,min,max per point")
        ->type_name("FILE");
    cmd->add_option("--png-size", o.pngSize, "Size of the PNGs in pixels (default 1280x720)")->type_name("WxH");
    cmd->footer("Frequencies take k, M, G suffixes (100k, 2.4G).\n"
                "Global options (before or after the subcommand): --sim[=SCENE.json], --sim-serial N, --json.");
    return cmd;
}

int RunRealTime(const RealTimeOptions& o, bool json) {
    Summary s;
    s.centre = Frequency("--center", o.center);
    s.span = Frequency("--span", o.span);
    s.rbw = Frequency("--rbw", o.rbw);
    const int32_t window = Named("--window", o.window, kWindows);
    const int32_t detector = Named("--detector", o.detector, kDetectors);
    const int32_t scale = Named("--scale", o.scale, kScales);
    s.window = kWindows[size_t(window)];
    s.detector = kDetectors[size_t(detector)];
    s.scale = kScales[size_t(scale)];
    s.linear = scale == lxScaleLinear;
    if (!std::isfinite(o.frameRef)) throw Usage("--frame-ref must be a number of dBm");
    if (!(o.frameScale > 0) || !std::isfinite(o.frameScale)) throw Usage("--frame-scale must be above 0 dB");
    s.frameRef = o.frameRef;
    s.frameScale = o.frameScale;
    s.refLevel = o.refLevel;
    s.attenuator = InputAttenuator(o.refLevel, o.attenuator, kRtHint);
    std::optional<std::pair<int, int>> size;
    if (o.png || o.waterfall) size = PlotSizeOption(o.pngSize, kRtHint);
    RefuseSharedOutputs({&o.png, &o.waterfall, &o.csv}, kRtHint);
    std::optional<OutputFile> png, waterfall, csv;
    if (o.png) png.emplace(*o.png);
    if (o.waterfall) waterfall.emplace(*o.waterfall);
    if (o.csv) csv.emplace(*o.csv);

    std::vector<float> density, mn, mx;
    std::vector<std::vector<float>> history;
    {
        OpenAnalyzer analyzer(o.serial, s.warnings);
        const int32_t h = analyzer.Handle();
        auto& w = s.warnings;
        Check(lxSetRealTimeCenterSpan(h, s.centre, s.span),
              "setting centre " + FormatFrequency(s.centre) + " and span " + FormatFrequency(s.span), &w);
        Check(lxSetRealTimeRBW(h, s.rbw), "setting the RBW to " + FormatFrequency(s.rbw), &w);
        Check(lxSetRealTimeWindow(h, window), "setting the window", &w);
        Check(lxSetRealTimeDetector(h, detector), "setting the detector", &w);
        Check(lxSetRealTimeScale(h, scale, o.frameRef, o.frameScale), "setting the scale", &w);
        Check(lxSetRefLevel(h, o.refLevel), Fixed("setting the reference level to %g dBm", o.refLevel), &w);
        Check(lxSetAttenuator(h, s.attenuator), "setting the attenuator", &w);
        Check(lxConfigure(h, lxModeRealTime), "configuring the real-time spectrum", &w);
        Check(lxGetRealTimeParameters(h, &s.actualRbw, &s.sweepLength, &s.start, &s.binSize, &s.width, &s.height,
                                      &s.poi),
              "reading the real-time parameters", &w);
        if (s.sweepLength <= 0 || s.width <= 0 || s.height <= 0)
            throw Failure(kExitFailure, "the library set up frames of " + std::to_string(s.width) + " x " +
                                            std::to_string(s.height) + " cells");
        density.resize(size_t(s.width) * size_t(s.height));
        mn.resize(size_t(s.sweepLength));
        mx.resize(size_t(s.sweepLength));
        std::set<LxStatus> seen;
        for (int k = 0; k < o.frames; ++k) {
            const LxStatus st = lxGetRealTimeFrame(h, density.data(), nullptr, mn.data(), mx.data(), &s.lastFrame,
                                                   &s.timestamp);
            // One warning per kind over the whole run.
            if (st < 0 || seen.insert(st).second) Check(st, "reading frame " + std::to_string(k), &w);
            ++s.frames;
            if (waterfall) history.push_back(mx);
        }
        Check(lxGetSerialNumber(h, &s.serial), "reading the serial number", &w);
        analyzer.Close();
    }
    s.simulated = SimulatedPersonality(static_cast<int32_t>(s.serial)).has_value();
    const auto peak = std::max_element(mx.begin(), mx.end()) - mx.begin();
    s.peakHz = s.start + s.binSize * static_cast<double>(peak);
    s.peakLevel = mx[size_t(peak)];

    char serial[16];
    std::snprintf(serial, sizeof serial, "%08u", s.serial);
    PlotOptions options;
    options.title = std::string("LX530 ") + serial + (s.simulated ? " (simulated)" : "");
    options.settings = Rows(s);
    if (size) {
        options.width = size->first;
        options.height = size->second;
    }
    const std::string span = FormatFrequency(s.start, s.binSize) + " .. " +
                             FormatFrequency(s.start + s.binSize * (s.sweepLength - 1), s.binSize);
    if (csv) {
        auto& out = csv->Stream();
        out << "frequency_hz," << (s.linear ? "min_mv,max_mv" : "min_dbm,max_dbm") << "\n";
        char line[96];
        for (size_t i = 0; i < mx.size(); ++i) {
            std::snprintf(line, sizeof line, "%.3f,%.3f,%.3f\n", s.start + s.binSize * double(i), mn[i], mx[i]);
            out << line;
        }
        csv->Finish();
        s.files.push_back(csv->Path());
    }
    if (png) {
        png->Finish(); // PLplot writes the file by its name
        DensityPicture d;
        d.start = s.start;
        d.binSize = s.binSize;
        d.linear = s.linear;
        if (s.linear) {
            const double topMv = std::pow(10.0, (o.frameRef + 46.9897) / 20.0);
            d.bottom = 0;
            d.rowStep = topMv / 255.0;
        } else {
            d.bottom = o.frameRef - o.frameScale;
            d.rowStep = o.frameScale / 256.0;
        }
        d.width = s.width;
        d.height = s.height;
        d.density = density;
        d.maxTrace = mx;
        options.subtitle = "Density of the last 39 frames (frame " + std::to_string(s.lastFrame) + ")  " + span;
        WriteDensityPlot(png->Path(), d, options);
        s.files.push_back(png->Path());
    }
    if (waterfall) {
        waterfall->Finish();
        WaterfallPicture wf;
        wf.start = s.start;
        wf.binSize = s.binSize;
        wf.linear = s.linear;
        wf.frames = std::move(history);
        options.subtitle = "Max trace of each frame, oldest at the bottom  " + span;
        WriteWaterfallPlot(waterfall->Path(), wf, options);
        s.files.push_back(waterfall->Path());
    }
    const std::string out = json ? Json(s).dump(2) + "\n" : Text(s);
    std::fputs(out.c_str(), stdout);
    for (auto* f : {&png, &waterfall, &csv})
        if (*f) (*f)->Keep();
    return kExitOk;
}

} // namespace lx::cli
