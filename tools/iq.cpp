#include "iq.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <vector>

#include "cli_support.h"
#include "lx_api.h"
#include "sweep_report.h"

namespace lx::cli {

namespace {

constexpr const char* kIqHint = "Run 'lx530 iq --help' for usage.";
constexpr double kAdcRate = 61.44e6;
constexpr int32_t kMaxDecimation = 8192;
constexpr int32_t kChunkBytes = 1 << 20; // one read: 1 MiB of samples
constexpr int32_t kTriggerSlots = 256;

Failure Usage(const std::string& message) { return Failure(kExitUsage, message, kIqHint); }

double Frequency(const std::string& option, const std::string& text) {
    const auto v = ParseFrequency(text);
    if (!v || !std::isfinite(*v)) throw Usage(option + ": '" + text + "' is not a frequency (examples: 100k, 2.4G)");
    return *v;
}

bool IsPowerOf2(int64_t v) { return v > 0 && (v & (v - 1)) == 0; }

struct Settings {
    double centre = 0;
    int32_t decimation = 1;
    double bandwidth = 1e12; // the library limits it to what the rate allows
    bool filter = true;
    int32_t type = 0;        // 0 cf32, 1 ci16
    int64_t samples = 0;
    int32_t edge = -1;       // -1: no trigger edge set
    int32_t attenuator = -1;
};

Settings Resolve(const IqOptions& o) {
    Settings s;
    s.centre = Frequency("--center", o.center);
    if (s.centre < 0) throw Usage("--center cannot be negative");
    if (o.rate && o.decimation) throw Usage("give either --rate or --decimation");
    if (o.decimation) {
        s.decimation = *o.decimation;
        if (!IsPowerOf2(s.decimation) || s.decimation > kMaxDecimation)
            throw Usage("--decimation must be a power of two, 1 .. 8192");
    } else if (o.rate) {
        const double r = Frequency("--rate", *o.rate);
        const double d = r > 0 ? kAdcRate / r : 0;
        const auto di = static_cast<int64_t>(std::llround(d));
        if (!(r > 0) || std::fabs(d - static_cast<double>(di)) > 1e-9 * d || !IsPowerOf2(di) || di > kMaxDecimation)
            throw Usage("--rate: " + *o.rate + " is not 61.44M divided by a power of two up to 8192 "
                        "(61.44M, 30.72M, 15.36M, 7.68M, 3.84M, 1.92M, 960k ... 7.5k)");
        s.decimation = static_cast<int32_t>(di);
    }
    if (o.bandwidth) {
        s.bandwidth = Frequency("--bandwidth", *o.bandwidth);
        if (!(s.bandwidth > 0)) throw Usage("--bandwidth must be above 0");
    }
    if (o.filter != "on" && o.filter != "off") throw Usage("--filter: on or off");
    s.filter = o.filter == "on";
    if (o.format != "cf32" && o.format != "ci16") throw Usage("--format: cf32 or ci16");
    s.type = o.format == "ci16" ? 1 : 0;
    const double rate = kAdcRate / s.decimation;
    if (o.duration && o.samples) throw Usage("give either --duration or --samples");
    if (o.samples) {
        if (*o.samples < 1) throw Usage("--samples must be at least 1");
        s.samples = *o.samples;
    } else {
        const std::string text = o.duration.value_or("1s");
        const auto t = ParseSeconds(text);
        if (!t || !(*t > 0)) throw Usage("--duration: '" + text + "' is not a time above 0 (examples: 10ms, 2.5s)");
        s.samples = std::max<int64_t>(1, static_cast<int64_t>(std::llround(*t * rate)));
    }
    if (o.trigger) {
        if (*o.trigger != "rising" && *o.trigger != "falling") throw Usage("--trigger: rising or falling");
        s.edge = *o.trigger == "falling" ? 1 : 0;
    }
    s.attenuator = InputAttenuator(o.refLevel, o.attenuator, kIqHint);
    if (!o.output && !o.raw) throw Usage("name an output: --output BASE (SigMF) or --raw FILE");
    return s;
}

// A progress bar on stderr, redrawn at most ten times a second.
class Progress {
public:
    Progress(bool on, int64_t total) : on_(on), total_(total) {}
    void Show(int64_t done) {
        if (!on_) return;
        const auto now = std::chrono::steady_clock::now();
        if (done < total_ && now - last_ < std::chrono::milliseconds(100)) return;
        last_ = now;
        const int width = 40;
        const int filled = static_cast<int>(width * static_cast<double>(done) / static_cast<double>(total_));
        std::fprintf(stderr, "\r[%s%s] %3d%%  %lld / %lld samples", std::string(size_t(filled), '#').c_str(),
                     std::string(size_t(width - filled), ' ').c_str(), static_cast<int>(100.0 * done / total_),
                     static_cast<long long>(done), static_cast<long long>(total_));
        if (done >= total_) std::fputc('\n', stderr);
    }

private:
    bool on_;
    int64_t total_;
    std::chrono::steady_clock::time_point last_{};
};

} // namespace

std::string FormatUtcNs(uint64_t ns) {
    const auto secs = static_cast<std::time_t>(ns / 1000000000ULL);
    std::tm tm{};
    gmtime_r(&secs, &tm);
    char b[64];
    std::snprintf(b, sizeof b, "%04d-%02d-%02dT%02d:%02d:%02d.%09lluZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<unsigned long long>(ns % 1000000000ULL));
    return b;
}

nlohmann::ordered_json SigmfMeta(const IqRecording& r) {
    nlohmann::ordered_json g;
    g["core:datatype"] = r.datatype;
    g["core:sample_rate"] = r.sampleRate;
    g["core:version"] = "1.2.5";
    g["core:hw"] = r.hw;
    g["core:recorder"] = r.recorder;
    char d[256];
    std::snprintf(d, sizeof d,
                  "LX530 I/Q, bandwidth %.6g Hz; %s (amplitude correction %.3f dB%s)", r.bandwidth,
                  r.datatype == "cf32_le" ? "samples in sqrt(mW), corrected" : "raw samples, full scale 32767",
                  static_cast<double>(r.correctionDb), r.datatype == "cf32_le" ? " applied" : ": add it to the power");
    g["core:description"] = d;
    if (r.position) {
        const auto& p = *r.position;
        g["core:geolocation"] = {{"type", "Point"}, {"coordinates", {p[1], p[0], p[2]}}};
    }
    nlohmann::ordered_json captures = nlohmann::ordered_json::array();
    for (const IqSegment& s : r.segments)
        captures.push_back({{"core:sample_start", s.sampleStart},
                            {"core:global_index", s.globalIndex},
                            {"core:frequency", r.centre},
                            {"core:datetime", FormatUtcNs(s.timeNs)}});
    nlohmann::ordered_json annotations = nlohmann::ordered_json::array();
    for (const IqTrigger& t : r.triggers) {
        char c[96];
        std::snprintf(c, sizeof c, "external trigger edge at sample %.3f", t.position);
        annotations.push_back({{"core:sample_start", t.sample}, {"core:sample_count", 1}, {"core:label", "trigger"},
                               {"core:comment", c}});
    }
    nlohmann::ordered_json meta;
    meta["global"] = g;
    meta["captures"] = captures;
    meta["annotations"] = annotations;
    return meta;
}

CLI::App* AddIqCommand(CLI::App& app, IqOptions& o) {
    auto* cmd = app.add_subcommand("iq", "Record an I/Q stream as a SigMF recording or raw samples");
    cmd->add_option("--center", o.center, "Centre frequency (default 1G)")->type_name("FREQ");
    cmd->add_option("--rate", o.rate, "Sample rate: 61.44M divided by a power of two up to 8192 (default 61.44M)")
        ->type_name("RATE");
    cmd->add_option("--decimation", o.decimation, "Or the decimation itself, 1, 2, 4 ... 8192")->type_name("D");
    cmd->add_option("--bandwidth", o.bandwidth, "Filter bandwidth (default: the widest the rate allows)")
        ->type_name("FREQ");
    cmd->add_option("--filter", o.filter, "Host low-pass at rates of 15.36M and up (default on)")
        ->type_name("on|off");
    cmd->add_option("--format", o.format,
                    "cf32: complex float, corrected, sqrt(mW); ci16: complex int16 as the analyzer "
                    "delivers it (default cf32)")
        ->type_name("cf32|ci16");
    cmd->add_option("--duration", o.duration, "How long to record (default 1s)")->type_name("TIME");
    cmd->add_option("--samples", o.samples, "Or how many samples")->type_name("N");
    cmd->add_option("--trigger", o.trigger, "Report edges of the external trigger input as annotations")
        ->type_name("rising|falling");
    AddInputOptions(*cmd, o.refLevel, o.attenuator);
    cmd->add_option("--output", o.output, "Write BASE.sigmf-data and BASE.sigmf-meta")->type_name("BASE");
    cmd->add_option("--raw", o.raw, "Write the samples alone, interleaved I, Q")->type_name("FILE");
    AddAnalyzerOptions(*cmd, o.scene, o.serial);
    cmd->add_flag("--no-progress", o.noProgress, "No progress bar, even on a terminal");
    cmd->footer("Frequencies take k, M, G suffixes (100k, 2.4G); times s, ms, us.\n"
                "After a loss (the host fell half a second behind) the recording goes on in a new capture\n"
                "segment whose core:global_index counts the samples lost.\n"
                "Global options (before or after the subcommand): --sim[=SCENE.json], --sim-serial N, --json.");
    return cmd;
}

int RunIq(const IqOptions& o, bool json) {
    const Settings s = Resolve(o);
    const std::string dataPath = o.output ? *o.output + ".sigmf-data" : *o.raw;
    std::optional<OutputFile> data, meta;
    data.emplace(dataPath, kIqHint);
    if (o.output) meta.emplace(*o.output + ".sigmf-meta", kIqHint);

    IqRecording rec;
    rec.datatype = s.type == 0 ? "cf32_le" : "ci16_le";
    rec.centre = s.centre;
    rec.recorder = std::string("lx530 ") + LX530_VERSION;
    std::vector<Warning> warnings;
    LxStreamHealth health{};
    int64_t written = 0;
    uint32_t serial = 0;
    {
        OpenAnalyzer analyzer(o.serial, warnings);
        const int32_t h = analyzer.Handle();
        Check(lxSetIQCenterFreq(h, s.centre), "setting the centre to " + FormatFrequency(s.centre), &warnings);
        Check(lxSetIQSampleRate(h, s.decimation), "setting the decimation to " + std::to_string(s.decimation),
              &warnings);
        Check(lxSetIQBandwidth(h, s.bandwidth), "setting the bandwidth", &warnings);
        Check(lxSetIQSoftwareFilter(h, s.filter ? 1 : 0), "setting the filter", &warnings);
        Check(lxSetIQDataType(h, s.type), "setting the format", &warnings);
        if (s.edge >= 0) Check(lxSetIQExtTriggerEdge(h, s.edge), "setting the trigger edge", &warnings);
        Check(lxSetRefLevel(h, o.refLevel), "setting the reference level", &warnings);
        Check(lxSetAttenuator(h, s.attenuator), "setting the attenuator", &warnings);
        Check(lxSetIQTriggerSentinel(NAN), "setting the trigger sentinel");
        Check(lxConfigure(h, lxModeIQ), "configuring the I/Q stream", &warnings);
        Check(lxGetIQParameters(h, &rec.sampleRate, &rec.bandwidth), "reading the I/Q parameters", &warnings);
        Check(lxGetIQCorrection(h, &rec.correctionDb), "reading the amplitude correction", &warnings);
        Check(lxGetSerialNumber(h, &serial), "reading the serial number", &warnings);
        const bool simulated = SimulatedPersonality(static_cast<int32_t>(serial)).has_value();
        char hw[64];
        std::snprintf(hw, sizeof hw, "LX530 %08u%s", serial, simulated ? " (simulated)" : "");
        rec.hw = hw;

        const size_t elem = s.type == 0 ? 8 : 4;
        const int64_t chunk = kChunkBytes / static_cast<int64_t>(elem);
        std::vector<char> buf(static_cast<size_t>(chunk) * elem);
        std::vector<double> triggers(kTriggerSlots);
        Progress progress(!o.noProgress && !json && isatty(STDERR_FILENO), s.samples);
        const double nsPerSample = 1e9 / rec.sampleRate;
        uint64_t firstNs = 0;
        bool seen[6] = {};
        while (written < s.samples) {
            const auto n = static_cast<int32_t>(std::min(chunk, s.samples - written));
            uint64_t stamp = 0;
            int32_t loss = 0;
            const LxStatus st =
                lxGetIQ(h, buf.data(), n, triggers.data(), kTriggerSlots, &stamp, 0, &loss, nullptr);
            if (st > 0 && st < 6 && !seen[st]) {
                seen[st] = true;
                Check(st, "streaming", &warnings);
            } else if (st < 0) {
                Check(st, "streaming", &warnings);
            }
            if (written == 0) {
                firstNs = stamp;
                rec.segments.push_back({0, 0, stamp});
            } else if (loss) {
                const auto global = static_cast<int64_t>(std::llround(double(stamp - firstNs) / nsPerSample));
                rec.segments.push_back({written, std::max(global, written), stamp});
            }
            for (double t : triggers) {
                if (std::isnan(t)) break;
                rec.triggers.push_back({written + static_cast<int64_t>(std::floor(t)), static_cast<double>(written) + t});
            }
            data->Stream().write(buf.data(), static_cast<std::streamsize>(static_cast<size_t>(n) * elem));
            written += n;
            progress.Show(written);
        }
        Check(lxGetStreamHealth(h, &health), "reading the stream health", &warnings);
        uint32_t gps = 0;
        if (lxGetGPSState(h, &gps) == lxNoError && gps >= lxGPSFix) {
            std::array<double, 3> p{};
            if (lxGetGPSInfo(h, 0, nullptr, nullptr, &p[0], &p[1], &p[2], nullptr, nullptr) == lxNoError)
                rec.position = p;
        }
        analyzer.Close();
    }
    data->Finish();
    if (meta) {
        meta->Stream() << SigmfMeta(rec).dump(2) << "\n";
        meta->Finish();
    }

    nlohmann::ordered_json summary;
    summary["files"] = o.output ? std::vector<std::string>{dataPath, *o.output + ".sigmf-meta"}
                                : std::vector<std::string>{dataPath};
    summary["samples"] = written;
    summary["format"] = rec.datatype;
    summary["sample_rate_hz"] = rec.sampleRate;
    summary["center_hz"] = rec.centre;
    summary["bandwidth_hz"] = rec.bandwidth;
    summary["correction_db"] = rec.correctionDb;
    summary["first_sample_utc"] = rec.segments.empty() ? "" : FormatUtcNs(rec.segments.front().timeNs);
    summary["segments"] = rec.segments.size();
    summary["triggers"] = rec.triggers.size();
    summary["health"] = {{"samples_delivered", health.samplesDelivered}, {"samples_dropped", health.samplesDropped},
                         {"data_loss_events", health.dataLossEvents},
                         {"adc_overflow_events", health.adcOverflowEvents},
                         {"transport_errors", health.transportErrors}};
    if (json) {
        std::fputs((summary.dump(2) + "\n").c_str(), stdout);
    } else {
        std::printf("Recorded %lld samples (%s) at %s, centre %s, bandwidth %s\n", static_cast<long long>(written),
                    rec.datatype.c_str(), FormatFrequency(rec.sampleRate).c_str(),
                    FormatFrequency(rec.centre).c_str(), FormatFrequency(rec.bandwidth).c_str());
        std::printf("First sample %s; %zu capture segment(s), %zu trigger(s); correction %.2f dB\n",
                    summary["first_sample_utc"].get<std::string>().c_str(), rec.segments.size(),
                    rec.triggers.size(), static_cast<double>(rec.correctionDb));
        std::printf("Stream health: %llu delivered, %llu dropped, %llu data-loss and %llu ADC-overflow events, "
                    "%llu transport errors\n",
                    static_cast<unsigned long long>(health.samplesDelivered),
                    static_cast<unsigned long long>(health.samplesDropped),
                    static_cast<unsigned long long>(health.dataLossEvents),
                    static_cast<unsigned long long>(health.adcOverflowEvents),
                    static_cast<unsigned long long>(health.transportErrors));
        for (const auto& f : summary["files"]) std::printf("Wrote %s\n", f.get<std::string>().c_str());
    }
    data->Keep();
    if (meta) meta->Keep();
    return kExitOk;
}

} // namespace lx::cli
