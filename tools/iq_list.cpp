#include "iq_list.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "cli_support.h"
#include "lx_api.h"
#include "sigmf.h"
#include "sweep_report.h"

namespace lx::cli {

namespace {

constexpr double kSampleRate = 61.44e6;
constexpr int kMaxSteps = 1000;
constexpr int kInFlight = 2; // passes queued ahead while the last one is written out

constexpr const char* kListHint = "Run 'lx530 list --help' for usage.";

Failure Usage(const std::string& message) { return Failure(kExitUsage, message, kListHint); }

std::string Trim(std::string s) {
    const auto b = s.find_first_not_of(" \t\r");
    const auto e = s.find_last_not_of(" \t\r");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

std::optional<double> Number(const std::string& t) {
    double v = 0;
    const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
    if (r.ec != std::errc() || r.ptr != t.data() + t.size() || !std::isfinite(v)) return std::nullopt;
    return v;
}

std::optional<uint32_t> SampleCount(const std::string& t) {
    unsigned long long v = 0;
    const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
    if (r.ec != std::errc() || r.ptr != t.data() + t.size() || v < 1 || v > 100000000ull) return std::nullopt;
    return static_cast<uint32_t>(v);
}

double StepFrequency(const std::string& where, const std::string& text) {
    const auto v = ParseFrequency(text);
    if (!v || *v < 9e3 || *v > 1.5e10)
        throw Usage(where + ": '" + text + "' is not a frequency from 9k to 15G (examples: 100M, 2.4G)");
    return *v;
}

// Power in dBm of a step's samples (calibrated floats, or int16 times the
// step's factor / 32768).
double StepPowerDbm(const void* data, int64_t n, bool int16, float scale) {
    double sum = 0;
    if (int16) {
        const auto* q = static_cast<const int16_t*>(data);
        for (int64_t i = 0; i < 2 * n; ++i) sum += double(q[i]) * q[i];
        sum *= double(scale) * scale / (32768.0 * 32768.0);
    } else {
        const auto* f = static_cast<const float*>(data);
        for (int64_t i = 0; i < 2 * n; ++i) sum += double(f[i]) * f[i];
    }
    return n > 0 && sum > 0 ? 10.0 * std::log10(sum / double(n)) : -INFINITY;
}

struct Row {
    int pass = 0, step = 0;
    double frequency = 0;
    uint32_t samples = 0;
    double powerDbm = 0;
    uint64_t timeNs = 0;
};

std::string PowerText(double dbm) {
    char b[32];
    std::snprintf(b, sizeof b, std::isfinite(dbm) ? "%.2f dBm" : "-inf dBm", dbm);
    return b;
}

} // namespace

bool IqListOptions::AnyGiven(const CLI::App& cmd) const {
    for (const char* name : {"--samples", "--ref-level", "--atten", "--passes", "--format", "--sigmf",
                             "--per-step", "--scene", "--serial"})
        if (cmd.get_option(name)->count() > 0) return true;
    return false;
}

std::vector<ListStep> ParseListCsv(std::istream& in, const std::string& name, const ListStep& defaults) {
    std::vector<ListStep> steps;
    std::string line;
    bool headerSeen = false;
    for (int number = 1; std::getline(in, line); ++number) {
        if (const auto hash = line.find('#'); hash != std::string::npos) line.resize(hash);
        if (Trim(line).empty()) continue;
        std::vector<std::string> f;
        std::stringstream ss(line);
        for (std::string field; std::getline(ss, field, ',');) f.push_back(Trim(field));
        const std::string where = name + ":" + std::to_string(number);
        if (f.size() > 4) throw Usage(where + ": more than 4 fields (frequency, ref level, attenuation, samples)");
        if (!headerSeen && steps.empty() && !ParseFrequency(f[0])) {
            headerSeen = true; // "frequency,ref_level,..."
            continue;
        }
        ListStep s = defaults;
        s.frequencyHz = StepFrequency(where, f[0]);
        if (f.size() > 1 && !f[1].empty()) {
            const auto v = Number(f[1]);
            if (!v) throw Usage(where + ": reference level '" + f[1] + "' is not a number of dBm");
            s.refLevel = *v;
        }
        if (f.size() > 2 && !f[2].empty()) {
            const auto v = AttenuatorStep(f[2]);
            if (!v) throw Usage(where + ": attenuation '" + f[2] + "' is neither 'auto' nor 0..6");
            s.attenuator = *v;
        }
        if (f.size() > 3 && !f[3].empty()) {
            const auto v = SampleCount(f[3]);
            if (!v) throw Usage(where + ": sample count '" + f[3] + "' is not 1 .. 100000000");
            s.samples = *v;
        }
        steps.push_back(s);
    }
    return steps;
}

void AddIqListOptions(CLI::App& cmd, IqListOptions& o) {
    cmd.add_option("frequencies", o.frequencies, "Step frequencies (an I/Q sweep list instead of the analyzer list)")
        ->type_name("FREQ...");
    cmd.add_option("--csv", o.csv, "Steps from a CSV file: frequency[,ref level dBm[,atten auto|0..6[,samples]]]")
        ->type_name("FILE");
    cmd.add_option("--samples", o.samples, "Samples per step, 1 .. 100000000 (default 16384)")->type_name("N");
    AddInputOptions(cmd, o.refLevel, o.attenuator);
    cmd.add_option("--passes", o.passes, "Passes of the list (default 1)")->check(CLI::Range(1, 1000000))->type_name("N");
    cmd.add_option("--format", o.format, "Sample format: cf32 (calibrated, sqrt(mW)) or ci16 (raw) (default cf32)")
        ->type_name("cf32|ci16");
    cmd.add_option("--sigmf", o.sigmf, "Write the samples as SigMF: BASE.sigmf-data and BASE.sigmf-meta")
        ->type_name("BASE");
    cmd.add_flag("--per-step", o.perStep,
                 "One SigMF recording per step (BASE-STEP, or BASE-PASS-STEP with several passes) instead of one "
                 "recording with a capture segment per step");
    AddAnalyzerOptions(cmd, o.scene, o.serial);
    cmd.footer("Without frequencies: lists the attached analyzers.\n"
               "With them: an I/Q capture of --samples at 61.44 MS/s centred on each frequency, per pass;\n"
               "prints each step's power (dBm over the 61.44 MHz band) and the time of its first sample.\n"
               "Frequencies take k, M, G suffixes (100k, 2.4G). CSV fields left empty take the options' values.\n"
               "Global options (before or after the subcommand): --sim[=SCENE.json], --sim-serial N, --json.");
}

int RunIqList(const IqListOptions& o, bool json) {
    ListStep defaults;
    defaults.refLevel = o.refLevel;
    defaults.attenuator = InputAttenuator(o.refLevel, o.attenuator, kListHint);
    const auto samples = SampleCount(o.samples);
    if (!samples) throw Usage("--samples: '" + o.samples + "' is not 1 .. 100000000");
    defaults.samples = *samples;
    if (o.format != "cf32" && o.format != "ci16") throw Usage("--format: '" + o.format + "' is neither cf32 nor ci16");
    const bool int16 = o.format == "ci16";
    if (o.perStep && !o.sigmf) throw Usage("--per-step needs --sigmf");

    std::vector<ListStep> steps;
    for (const std::string& f : o.frequencies) {
        ListStep s = defaults;
        s.frequencyHz = StepFrequency("frequency", f);
        steps.push_back(s);
    }
    if (o.csv) {
        std::ifstream in(*o.csv);
        if (!in) throw Usage("cannot read '" + *o.csv + "'");
        const auto rows = ParseListCsv(in, *o.csv, defaults);
        steps.insert(steps.end(), rows.begin(), rows.end());
    }
    if (steps.empty()) throw Usage("the list has no steps");
    if (steps.size() > size_t(kMaxSteps)) throw Usage("the list has more than 1000 steps");

    // Output files first: a path that cannot be written fails before the analyzer is touched.
    SigmfGlobal global;
    global.type = int16 ? SigmfType::Ci16 : SigmfType::Cf32;
    global.sampleRate = kSampleRate;
    global.recorder = std::string("lx530 ") + LX530_VERSION + " (lx_api " + lxGetAPIVersion() + ")";
    global.description = int16 ? "LX530 I/Q sweep list; raw int16: multiply by lx530:scale / 32768 for sqrt(mW)"
                               : "LX530 I/Q sweep list; calibrated: |x|^2 is the power in mW";
    std::vector<std::unique_ptr<SigmfWriter>> writers;
    const size_t stepCount = steps.size();
    auto writerFor = [&](int pass, size_t step) -> SigmfWriter* {
        if (!o.sigmf) return nullptr;
        return writers[o.perStep ? size_t(pass) * stepCount + step : 0].get();
    };
    int64_t total = 0;
    for (const ListStep& s : steps) total += s.samples;
    const int bytes = int16 ? 4 : 8;
    std::vector<Warning> warnings;
    std::vector<Row> rows;
    uint32_t serial = 0;
    try {
        if (o.sigmf && o.perStep) {
            for (int p = 0; p < o.passes; ++p)
                for (size_t k = 0; k < stepCount; ++k) {
                    const std::string base =
                        *o.sigmf + (o.passes > 1 ? "-" + std::to_string(p + 1) : "") + "-" + std::to_string(k);
                    writers.push_back(std::make_unique<SigmfWriter>(base, global));
                }
        } else if (o.sigmf) {
            writers.push_back(std::make_unique<SigmfWriter>(*o.sigmf, global));
        }
    } catch (const SigmfError& e) {
        throw Usage(e.what()); // a path that cannot be written, before the analyzer is touched
    }
    try {
        // The buffers outlive the analyzer: closing it on an error stops
        // requests that may still be writing into them.
        const int depth = std::min(o.passes, kInFlight);
        std::vector<std::vector<char>> buf(size_t(depth), std::vector<char>(size_t(total) * size_t(bytes)));
        std::vector<std::vector<uint64_t>> stamps(size_t(depth), std::vector<uint64_t>(stepCount, 0));
        OpenAnalyzer analyzer(o.serial, warnings);
        const int32_t h = analyzer.Handle();
        Check(lxGetSerialNumber(h, &serial), "reading the serial number", &warnings);
        char hw[64];
        std::snprintf(hw, sizeof hw, "LX530 %08u", serial);
        for (auto& w : writers) {
            w->Global().hw = hw;
            w->Global().extra["lx530:serial"] = serial;
        }

        Check(lxSetIQSweepListSteps(h, int32_t(stepCount)), "setting " + std::to_string(stepCount) + " steps", &warnings);
        for (size_t k = 0; k < stepCount; ++k) {
            const ListStep& s = steps[k];
            const std::string what = "step " + std::to_string(k) + " (" + FormatFrequency(s.frequencyHz) + ")";
            Check(lxSetIQSweepListFreq(h, int32_t(k), s.frequencyHz), what + ": frequency", &warnings);
            Check(lxSetIQSweepListRef(h, int32_t(k), s.refLevel), what + ": reference level", &warnings);
            Check(lxSetIQSweepListAtten(h, int32_t(k), s.attenuator), what + ": attenuation", &warnings);
            Check(lxSetIQSweepListSampleCount(h, int32_t(k), s.samples), what + ": sample count", &warnings);
        }
        Check(lxSetIQSweepListDataType(h, int16 ? 1 : 0), "setting the sample format", &warnings);
        Check(lxSetIQSweepListCorrected(h, 1), "turning the corrections on", &warnings);
        const LxStatus configured = lxConfigure(h, lxModeIQSweepList);
        if (configured == lxInvalidConfigurationErr)
            throw Failure(kExitFailure, "configuring the sweep list: " + StatusText(configured));
        Check(configured, "configuring the sweep list", &warnings);
        std::vector<float> scale(stepCount);
        Check(lxIQSweepListGetCorrections(h, scale.data()), "reading the step corrections", &warnings);

        for (int p = 0; p < depth; ++p)
            Check(lxIQSweepListStartSweep(h, p, buf[size_t(p)].data(), stamps[size_t(p)].data()),
                  "starting pass " + std::to_string(p + 1), &warnings);
        std::set<LxStatus> seen;
        for (int p = 0; p < o.passes; ++p) {
            const int slot = p % depth;
            // A warning once per kind over many passes, not once per pass.
            const LxStatus finished = lxIQSweepListFinishSweep(h, slot);
            if (finished <= 0 || seen.insert(finished).second) Check(finished, "pass " + std::to_string(p + 1), &warnings);
            const char* data = buf[size_t(slot)].data();
            int64_t at = 0;
            for (size_t k = 0; k < stepCount; ++k) {
                const ListStep& s = steps[k];
                const char* x = data + at * bytes;
                rows.push_back({p + 1, int(k), s.frequencyHz, s.samples, StepPowerDbm(x, s.samples, int16, scale[k]),
                                stamps[size_t(slot)][k]});
                if (SigmfWriter* w = writerFor(p, k)) {
                    SigmfCapture c;
                    c.frequencyHz = s.frequencyHz;
                    c.timeNs = stamps[size_t(slot)][k];
                    c.extra = {{"lx530:pass", p + 1}, {"lx530:step", k}, {"lx530:scale", scale[k]},
                               {"lx530:reference_level_dbm", s.refLevel}, {"lx530:attenuation", s.attenuator}};
                    w->AddCapture(std::move(c));
                    w->Append(x, s.samples);
                }
                at += s.samples;
            }
            if (p + depth < o.passes)
                Check(lxIQSweepListStartSweep(h, slot, buf[size_t(slot)].data(), stamps[size_t(slot)].data()),
                      "starting pass " + std::to_string(p + depth + 1), &warnings);
        }
        analyzer.Close();
        for (auto& w : writers) w->Commit();
    } catch (const SigmfError& e) {
        throw Failure(kExitFailure, e.what());
    }

    const bool simulated = SimulatedPersonality(static_cast<int32_t>(serial)).has_value();
    std::vector<std::string> files;
    for (const auto& w : writers) {
        files.push_back(w->DataPath());
        files.push_back(w->MetaPath());
    }
    if (json) {
        nlohmann::ordered_json j;
        j["serial"] = serial;
        j["simulated"] = simulated;
        j["sample_rate_hz"] = kSampleRate;
        j["format"] = o.format;
        j["passes"] = o.passes;
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const Row& r : rows)
            list.push_back({{"pass", r.pass}, {"step", r.step}, {"frequency_hz", r.frequency}, {"samples", r.samples},
                            {"power_dbm", std::isfinite(r.powerDbm) ? nlohmann::ordered_json(r.powerDbm) : nullptr},
                            {"time", SigmfDatetime(r.timeNs)}, {"time_ns", r.timeNs}});
        j["steps"] = list;
        j["files"] = files;
        nlohmann::ordered_json ws = nlohmann::ordered_json::array();
        for (const Warning& w : warnings) ws.push_back({{"what", w.what}, {"status", int(w.status)}, {"text", lxGetErrorString(w.status)}});
        j["warnings"] = ws;
        std::fputs((j.dump(2) + "\n").c_str(), stdout);
        return kExitOk;
    }
    std::printf("LX530 %08u%s  I/Q sweep list: %zu steps x %d pass%s at 61.44 MS/s, %s\n", serial,
                simulated ? " (simulated)" : "", stepCount, o.passes, o.passes == 1 ? "" : "es", o.format.c_str());
    std::printf("%4s %5s %16s %10s %12s  %s\n", "pass", "step", "frequency", "samples", "power", "time of first sample (UTC)");
    for (const Row& r : rows)
        std::printf("%4d %5d %16s %10u %12s  %s\n", r.pass, r.step, FormatFrequency(r.frequency).c_str(), r.samples,
                    PowerText(r.powerDbm).c_str(), SigmfDatetime(r.timeNs).c_str());
    for (const std::string& f : files) std::printf("wrote %s\n", f.c_str());
    return kExitOk;
}

} // namespace lx::cli
