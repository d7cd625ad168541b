#include "sweep.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <vector>

#include <strings.h>

#include "cli_support.h"
#include "lx_api.h"
#include "plot.h"
#include "sweep_report.h"

namespace lx::cli {

namespace {

// Names on the command line, by the value the library takes.
constexpr std::array<const char*, 2> kDetectors = {"avg", "minmax"};
constexpr std::array<const char*, 4> kUnits = {"log", "voltage", "power", "sample"};
constexpr std::array<const char*, 3> kScales = {"log", "lin", "lognogain"};
constexpr std::array<const char*, 6> kWindows = {"flattop", "nuttall", "blackman", "hamming", "gaussian", "rect"};

template <size_t N> std::string Choices(const std::array<const char*, N>& names) {
    std::string out;
    for (const char* n : names) out += (out.empty() ? "" : "|") + std::string(n);
    return out;
}

// The library's defaults, which a bare `lx530 sweep` keeps.
constexpr double kDefaultStart = 9000.0, kDefaultStop = 1.5e10;

constexpr const char* kSweepHint = "Run 'lx530 sweep --help' for usage.";

Failure Usage(const std::string& message) { return Failure(kExitUsage, message, kSweepHint); }

// The library's value of a name, in any case.
template <size_t N>
int32_t Named(const std::string& option, const std::string& text, const std::array<const char*, N>& names) {
    for (size_t i = 0; i < N; ++i)
        if (strcasecmp(text.c_str(), names[i]) == 0) return static_cast<int32_t>(i);
    throw Usage(option + ": '" + text + "' is not one of " + Choices(names));
}

double Frequency(const std::string& option, const std::string& text) {
    const auto v = ParseFrequency(text);
    if (!v) throw Usage(option + ": '" + text + "' is not a frequency (examples: 9000, 100k, 433.92M, 2.4G)");
    if (*v < 0) throw Usage(option + ": a frequency cannot be negative (" + text + ")");
    return *v;
}

// The settings the command line asks for, checked.
struct Settings {
    double start = kDefaultStart, stop = kDefaultStop;
    double rbw = 0, vbw = 0, sweepTime = 0;
    int32_t attenuator = -1;
    int32_t detector = 0, units = 0, scale = 0, window = 0;
};

Settings Resolve(const SweepOptions& o) {
    Settings s;
    if (o.start) {
        s.start = Frequency("--start", *o.start);
        s.stop = Frequency("--stop", *o.stop);
        if (!(s.start < s.stop))
            throw Usage("--start must be below --stop (" + *o.start + " .. " + *o.stop + ")");
    } else if (o.center) {
        const double centre = Frequency("--center", *o.center);
        const double span = Frequency("--span", *o.span);
        if (!(span > 0)) throw Usage("--span must be above 0 (" + *o.span + ")");
        // As lxSetSweepCenterSpan forms them.
        s.start = centre - span * 0.5;
        s.stop = span * 0.5 + centre;
    }
    s.rbw = Frequency("--rbw", o.rbw);
    if (!(s.rbw > 0)) throw Usage("--rbw must be above 0 (" + o.rbw + ")");
    s.vbw = o.vbw ? Frequency("--vbw", *o.vbw) : s.rbw;
    if (!(s.vbw > 0)) throw Usage("--vbw must be above 0 (" + *o.vbw + ")");
    const auto t = ParseSeconds(o.sweepTime);
    if (!t) throw Usage("--sweep-time: '" + o.sweepTime + "' is not a time (examples: 100us, 20ms, 1.5s)");
    if (!(*t > 0)) throw Usage("--sweep-time must be above 0 (" + o.sweepTime + ")");
    s.sweepTime = *t;
    s.detector = Named("--detector", o.detector, kDetectors);
    s.units = Named("--units", o.units, kUnits);
    s.scale = Named("--scale", o.scale, kScales);
    s.window = Named("--window", o.window, kWindows);

    s.attenuator = InputAttenuator(o.refLevel, o.attenuator, kSweepHint);
    return s;
}

std::string SpanText(double start, double stop) {
    return FormatFrequency(start) + " .. " + FormatFrequency(stop);
}

std::string StepText(int32_t step) { return step < 0 ? std::string("auto") : std::to_string(step); }

// lxGetSweep's warning once per kind over many sweeps, not once per sweep.
void CheckSweep(LxStatus status, std::set<LxStatus>& seen, std::vector<Warning>& warnings) {
    if (status > 0 && !seen.insert(status).second) return;
    Check(status, "sweeping", &warnings);
    if (status == lxADCOverflow)
        std::fprintf(stderr, "lx530: the input overloads the analyzer: raise --ref-level or --atten\n");
}

} // namespace

CLI::App* AddSweepCommand(CLI::App& app, SweepOptions& o) {
    auto* cmd = app.add_subcommand(
        "sweep", "Measure a swept spectrum: peak table, and on request CSV, rtl_power CSV and PNG plot");

    auto* start = cmd->add_option("--start", o.start, "Start frequency (default 9k)")->type_name("FREQ");
    auto* stop = cmd->add_option("--stop", o.stop, "Stop frequency (default 15G)")->type_name("FREQ");
    auto* center = cmd->add_option("--center", o.center, "Centre frequency, with --span")->type_name("FREQ");
    auto* span = cmd->add_option("--span", o.span, "Span, with --center")->type_name("FREQ");
    start->needs(stop);
    stop->needs(start);
    center->needs(span);
    span->needs(center);
    for (auto* a : {start, stop})
        for (auto* b : {center, span}) a->excludes(b);

    cmd->add_option("--rbw", o.rbw, "Resolution bandwidth (default 30k)")->type_name("FREQ");
    cmd->add_option("--vbw", o.vbw, "Video bandwidth, RBW/10000 .. RBW (default: the RBW)")->type_name("FREQ");
    cmd->add_option("--sweep-time", o.sweepTime,
                    "Sweep time, 1us .. 100s; longer buys more averaging (default 1us)")
        ->type_name("TIME");
    cmd->add_option("--detector", o.detector, "Detector (default avg)")->type_name(Choices(kDetectors));
    cmd->add_option("--units", o.units, "Video units (default power)")->type_name(Choices(kUnits));
    cmd->add_option("--scale", o.scale, "dBm, mV, or dBm without the per-step gain correction (default log)")
        ->type_name(Choices(kScales));
    cmd->add_option("--window", o.window, "FFT window (default flattop)")->type_name(Choices(kWindows));
    AddInputOptions(*cmd, o.refLevel, o.attenuator);
    cmd->add_option("--count", o.count,
                    "Sweeps to run; the min trace holds the lowest and the max trace the highest "
                    "value of every point across them (default 1)")
        ->check(CLI::Range(1, 1000000))
        ->type_name("N");
    cmd->add_option("--peaks", o.peaks, "Peaks to list, strongest first; 0: none (default 5)")
        ->check(CLI::Range(0, 1000))
        ->type_name("N");
    AddAnalyzerOptions(*cmd, o.scene, o.serial);
    cmd->add_option("--csv", o.csv, "Write the traces: frequency_hz,min,max per point")->type_name("FILE");
    cmd->add_option("--rtl-power", o.rtlPower, "Write the max trace as rtl_power's CSV")->type_name("FILE");
    cmd->add_option("--png", o.png, "Plot the traces and peaks into a PNG")->type_name("FILE");
    cmd->add_option("--png-size", o.pngSize, "Size of the PNG in pixels (default 1280x720)")->type_name("WxH");
    cmd->footer("Frequencies take k, M, G suffixes (100k, 2.4G); times s, ms, us.\n"
                "Peaks: local maxima of the max trace 10 dB or more above its median (more on a noisy\n"
                "trace) and 6 dB above their surroundings.\n"
                "Global options (before or after the subcommand): --sim[=SCENE.json], --sim-serial N, --json.");
    return cmd;
}

int RunSweep(const SweepOptions& o, bool json) {
    const Settings s = Resolve(o);
    std::optional<std::pair<int, int>> size;
    if (o.png) size = PlotSizeOption(o.pngSize, kSweepHint);
    RefuseSharedOutputs({&o.csv, &o.rtlPower, &o.png}, kSweepHint);
    std::optional<OutputFile> csv, rtl, png;
    if (o.csv) csv.emplace(*o.csv, kSweepHint);
    if (o.rtlPower) rtl.emplace(*o.rtlPower, kSweepHint);
    if (o.png) png.emplace(*o.png, kSweepHint);

    SweepSummary sum;
    sum.requestedStart = s.start;
    sum.requestedStop = s.stop;
    sum.rbw = s.rbw;
    sum.vbw = s.vbw;
    sum.sweepTime = s.sweepTime;
    sum.refLevel = o.refLevel;
    sum.attenuator = s.attenuator;
    sum.detector = kDetectors[static_cast<size_t>(s.detector)];
    sum.units = kUnits[static_cast<size_t>(s.units)];
    sum.scale = kScales[static_cast<size_t>(s.scale)];
    sum.window = kWindows[static_cast<size_t>(s.window)];
    sum.sweeps = o.count;
    sum.linear = s.scale == lxScaleLinear;

    Trace trace;
    trace.linear = sum.linear;
    std::time_t startedAt = 0;
    {
        OpenAnalyzer analyzer(o.serial, sum.warnings);
        const int32_t h = analyzer.Handle();
        auto& w = sum.warnings;
        Check(lxSetSweepStartStop(h, s.start, s.stop), "setting the span to " + SpanText(s.start, s.stop), &w);
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g s", s.sweepTime);
        Check(lxSetSweepCoupling(h, s.rbw, s.vbw, s.sweepTime),
              "setting RBW " + FormatFrequency(s.rbw) + ", VBW " + FormatFrequency(s.vbw) + ", sweep time " +
                  seconds,
              &w);
        Check(lxSetSweepDetector(h, s.detector, s.units), "setting the detector", &w);
        Check(lxSetSweepScale(h, s.scale), "setting the scale", &w);
        Check(lxSetSweepWindow(h, s.window), "setting the window", &w);
        char ref[64];
        std::snprintf(ref, sizeof ref, "setting the reference level to %g dBm", o.refLevel);
        Check(lxSetRefLevel(h, o.refLevel), ref, &w);
        Check(lxSetAttenuator(h, s.attenuator), "setting the attenuator to " + StepText(s.attenuator), &w);

        const LxStatus configured = lxConfigure(h, lxModeSweep);
        if (configured == lxInvalidConfigurationErr)
            throw Failure(kExitFailure, "configuring the sweep: " + StatusText(configured),
                          std::string("lx_api ") + lxGetAPIVersion() +
                              " offers no swept spectrum for these settings");
        Check(configured, "configuring the sweep", &w);
        Check(lxGetSweepParameters(h, &sum.actualRbw, &sum.actualVbw, &sum.actualStart, &sum.binSize,
                                   &sum.sweepLength),
              "reading the sweep parameters", &w);
        if (sum.sweepLength <= 0 || !(sum.binSize > 0))
            throw Failure(kExitFailure, "the library set up a sweep of " + std::to_string(sum.sweepLength) +
                                            " points " + std::to_string(sum.binSize) + " Hz apart");
        const auto n = static_cast<size_t>(sum.sweepLength);
        trace.start = sum.actualStart;
        trace.binSize = sum.binSize;

        startedAt = std::time(nullptr);
        std::vector<float> lo(n), hi(n);
        std::set<LxStatus> seen;
        for (int k = 0; k < o.count; ++k) {
            CheckSweep(lxGetSweep(h, lo.data(), hi.data(), &sum.timestamp), seen, w);
            if (k == 0) {
                trace.min = lo;
                trace.max = hi;
                continue;
            }
            for (size_t i = 0; i < n; ++i) {
                trace.min[i] = std::min(trace.min[i], lo[i]);
                trace.max[i] = std::max(trace.max[i], hi[i]);
            }
        }
        sum.serial = 0;
        Check(lxGetSerialNumber(h, &sum.serial), "reading the serial number", &w);
        analyzer.Close();
    }
    sum.simulated = SimulatedPersonality(static_cast<int32_t>(sum.serial)).has_value();
    sum.peaks = FindPeaks(trace, static_cast<size_t>(o.peaks));

    if (csv) {
        WriteCsv(csv->Stream(), trace);
        csv->Finish();
        sum.files.push_back(csv->Path());
    }
    if (rtl) {
        WriteRtlPower(rtl->Stream(), trace, startedAt, o.count);
        rtl->Finish();
        sum.files.push_back(rtl->Path());
    }
    if (png) {
        png->Finish(); // PLplot writes the file by its name
        char serial[16];
        std::snprintf(serial, sizeof serial, "%08u", sum.serial);
        PlotOptions options;
        options.title = std::string("LX530 ") + serial + (sum.simulated ? " (simulated)" : "");
        options.subtitle = "Swept spectrum  " + FormatFrequency(sum.actualStart, sum.binSize) + " .. " +
                        FormatFrequency(sum.ActualStop(), sum.binSize) + ",  " +
                        std::to_string(sum.sweepLength) + " points " +
                        FormatFrequency(sum.binSize, sum.binSize / 1000) + " apart";
        options.settings = SettingsRows(sum);
        options.width = size->first;
        options.height = size->second;
        options.refLevel = o.refLevel;
        WritePlot(png->Path(), trace, sum.peaks, options);
        sum.files.push_back(png->Path());
    }

    const std::string out = json ? SweepJson(sum).dump(2) + "\n" : SweepText(sum);
    std::fputs(out.c_str(), stdout);
    for (auto* f : {&csv, &rtl, &png})
        if (*f) (*f)->Keep();
    return kExitOk;
}

} // namespace lx::cli
