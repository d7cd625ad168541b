#include "audio.h"

#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli_support.h"
#include "lx_api.h"
#include "sweep_report.h"

namespace lx::cli {

namespace {

constexpr const char* kAudioHint = "Run 'lx530 audio --help' for usage.";
constexpr int kRate = 30000;
constexpr int kBlock = 1000;

Failure Usage(const std::string& message) { return Failure(kExitUsage, message, kAudioHint); }

double Frequency(const std::string& option, const std::string& text) {
    const auto v = ParseFrequency(text);
    if (!v || !std::isfinite(*v) || *v <= 0)
        throw Usage(option + ": '" + text + "' is not a frequency above 0 (examples: 100k, 2.4G)");
    return *v;
}

struct TypeInfo {
    int32_t type;
    double ifBandwidth; // default
};
const std::map<std::string, TypeInfo> kTypes = {
    {"am", {lxAudioAM, 10e3}}, {"fm", {lxAudioFM, 200e3}}, {"usb", {lxAudioUSB, 3e3}},
    {"lsb", {lxAudioLSB, 3e3}}, {"cw", {lxAudioCW, 1e3}}};

// libsndfile writes through the OutputFile's stream, which owns the file's
// fate (removed unless the command completes).
sf_count_t VLength(void* user) {
    auto& s = *static_cast<std::ofstream*>(user);
    const auto here = s.tellp();
    s.seekp(0, std::ios::end);
    const auto end = s.tellp();
    s.seekp(here);
    return static_cast<sf_count_t>(end);
}
sf_count_t VSeek(sf_count_t offset, int whence, void* user) {
    auto& s = *static_cast<std::ofstream*>(user);
    const auto dir = whence == SEEK_SET ? std::ios::beg : whence == SEEK_CUR ? std::ios::cur : std::ios::end;
    s.seekp(static_cast<std::streamoff>(offset), dir);
    return static_cast<sf_count_t>(s.tellp());
}
sf_count_t VRead(void*, sf_count_t, void*) { return 0; }
sf_count_t VWrite(const void* p, sf_count_t n, void* user) {
    auto& s = *static_cast<std::ofstream*>(user);
    s.write(static_cast<const char*>(p), static_cast<std::streamsize>(n));
    return s ? n : 0;
}
sf_count_t VTell(void* user) { return static_cast<sf_count_t>(static_cast<std::ofstream*>(user)->tellp()); }

double Db(double v) { return v > 0 ? 20 * std::log10(v) : -200.0; }

// A level meter on stderr: RMS bar and peak of the last blocks, ten times a second.
class Meter {
public:
    explicit Meter(bool on) : on_(on) {}
    void Show(double rms, double peak, double seconds, double total) {
        if (!on_) return;
        const auto now = std::chrono::steady_clock::now();
        if (seconds < total && now - last_ < std::chrono::milliseconds(100)) return;
        last_ = now;
        constexpr int width = 40; // -60 .. 0 dBFS
        const int filled = std::clamp(static_cast<int>((Db(rms) + 60) / 60 * width), 0, width);
        std::fprintf(stderr, "\r[%s%s] %6.1f dBFS rms, peak %6.1f  %5.1f / %.1f s",
                     std::string(size_t(filled), '#').c_str(), std::string(size_t(width - filled), ' ').c_str(), Db(rms),
                     Db(peak), seconds, total);
        if (seconds >= total) std::fputc('\n', stderr);
    }

private:
    bool on_;
    std::chrono::steady_clock::time_point last_{};
};

} // namespace

CLI::App* AddAudioCommand(CLI::App& app, AudioOptions& o) {
    auto* cmd = app.add_subcommand("audio", "Demodulate AM, FM, USB, LSB or CW and write the audio as a WAV file");
    cmd->add_option("--center", o.center, "Centre (carrier) frequency (default 97.1M)")->type_name("FREQ");
    cmd->add_option("--type", o.type, "Demodulation (default fm)")->type_name("am|fm|usb|lsb|cw");
    cmd->add_option("--if-bandwidth", o.ifBandwidth,
                    "IF bandwidth, 500 .. 250k (default am 10k, fm 200k, usb/lsb 3k, cw 1k)")
        ->type_name("FREQ");
    cmd->add_option("--low-pass", o.lowPass, "Audio low-pass, 1k .. 12k (default 12k)")->type_name("FREQ");
    cmd->add_option("--high-pass", o.highPass, "Audio high-pass, 20 .. 1k (default 100)")->type_name("FREQ");
    cmd->add_option("--deemphasis", o.deemphasisUs, "FM de-emphasis in microseconds, 1 .. 100 (default 75)")
        ->type_name("US");
    cmd->add_option("--duration", o.duration, "How long to record (default 5s)")->type_name("TIME");
    cmd->add_option("--output", o.output, "The WAV file to write (default audio.wav)")->type_name("FILE");
    AddAnalyzerOptions(*cmd, o.scene, o.serial);
    cmd->add_flag("--no-meter", o.noMeter, "No level meter, even on a terminal");
    cmd->footer("Frequencies take k, M, G suffixes (100k, 2.4G); times s, ms.\n"
                "Full scale: AM 100 % modulation; FM (2 pi / 3) x deviation / IF bandwidth; USB, LSB and CW a\n"
                "line at the signal's peak level. CW sounds a carrier on the centre at 520 Hz.\n"
                "Global options (before or after the subcommand): --sim[=SCENE.json], --sim-serial N, --json.");
    return cmd;
}

int RunAudio(const AudioOptions& o, bool json) {
    const double centre = Frequency("--center", o.center);
    const auto type = kTypes.find(o.type);
    if (type == kTypes.end()) throw Usage("--type: am, fm, usb, lsb or cw");
    const double ifBandwidth = o.ifBandwidth ? Frequency("--if-bandwidth", *o.ifBandwidth) : type->second.ifBandwidth;
    const double lowPass = Frequency("--low-pass", o.lowPass), highPass = Frequency("--high-pass", o.highPass);
    if (!(o.deemphasisUs > 0)) throw Usage("--deemphasis must be above 0");
    const auto seconds = ParseSeconds(o.duration);
    if (!seconds || !(*seconds > 0) || *seconds > 86400) throw Usage("--duration: a time above 0, at most 24 h (5s, 500ms)");
    const int64_t blocks = std::max<int64_t>(1, std::llround(*seconds * kRate / kBlock));

    OutputFile out(o.output, kAudioHint);
    SF_VIRTUAL_IO io{VLength, VSeek, VRead, VWrite, VTell};
    SF_INFO info{};
    info.samplerate = kRate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* wav = sf_open_virtual(&io, SFM_WRITE, &info, &out.Stream());
    if (!wav) throw Failure(kExitFailure, "writing " + o.output + ": " + sf_strerror(nullptr));
    sf_command(wav, SFC_SET_CLIPPING, nullptr, SF_TRUE);

    std::vector<Warning> warnings;
    double set[5] = {};
    int64_t lossy = 0, clipped = 0;
    double sumSquares = 0, peak = 0;
    try {
        OpenAnalyzer analyzer(o.serial, warnings);
        const int32_t h = analyzer.Handle();
        Check(lxSetAudioCenterFreq(h, centre), "setting the centre", &warnings);
        Check(lxSetAudioType(h, type->second.type), "setting the type", &warnings);
        Check(lxSetAudioFilters(h, ifBandwidth, lowPass, highPass), "setting the filters", &warnings);
        Check(lxSetAudioFMDeemphasis(h, o.deemphasisUs), "setting the de-emphasis", &warnings);
        Check(lxGetAudioSettings(h, &set[0], nullptr, &set[1], &set[2], &set[3], &set[4]), "reading the settings");
        Check(lxConfigure(h, lxModeAudio), "configuring audio", &warnings);
        Meter meter(!o.noMeter && !json && isatty(STDERR_FILENO));
        std::vector<float> b(kBlock);
        double recentSquares = 0, recentPeak = 0;
        for (int64_t i = 0; i < blocks; ++i) {
            const LxStatus st = lxGetAudio(h, b.data());
            if (st < 0) Check(st, "reading audio");
            if (st == lxUncalData) ++lossy;
            else if (st > 0) Check(st, "reading audio", &warnings);
            for (float v : b) {
                sumSquares += double(v) * v;
                recentSquares += double(v) * v;
                peak = std::max(peak, double(std::fabs(v)));
                recentPeak = std::max(recentPeak, double(std::fabs(v)));
                clipped += std::fabs(v) > 1.0f;
            }
            if (sf_writef_float(wav, b.data(), kBlock) != kBlock)
                throw Failure(kExitFailure, "writing " + o.output + ": " + sf_strerror(wav));
            if (i % 3 == 2 || i + 1 == blocks) {
                meter.Show(std::sqrt(recentSquares / (3.0 * kBlock)), recentPeak, double(i + 1) * kBlock / kRate,
                           double(blocks) * kBlock / kRate);
                recentSquares = recentPeak = 0;
            }
        }
        analyzer.Close();
    } catch (...) {
        sf_close(wav);
        throw;
    }
    if (sf_close(wav) != 0) throw Failure(kExitFailure, "writing " + o.output);
    out.Finish();
    out.Keep();

    const double rms = std::sqrt(sumSquares / double(blocks * kBlock));
    if (json) {
        nlohmann::ordered_json j;
        j["file"] = o.output;
        j["type"] = o.type;
        j["center_hz"] = set[0];
        j["if_bandwidth_hz"] = set[1];
        j["low_pass_hz"] = set[2];
        j["high_pass_hz"] = set[3];
        j["deemphasis_us"] = set[4];
        j["sample_rate_hz"] = kRate;
        j["samples"] = blocks * kBlock;
        j["rms_dbfs"] = Db(rms);
        j["peak_dbfs"] = Db(peak);
        j["clipped_samples"] = clipped;
        j["blocks_after_loss"] = lossy;
        std::fputs((j.dump(2) + "\n").c_str(), stdout);
    } else {
        std::printf("%s at %s, IF %s, audio %s .. %s: %.1f s at 30 kS/s\n", o.type.c_str(),
                    FormatFrequency(set[0]).c_str(), FormatFrequency(set[1]).c_str(), FormatFrequency(set[3]).c_str(),
                    FormatFrequency(set[2]).c_str(), double(blocks * kBlock) / kRate);
        std::printf("Level %.1f dBFS rms, peak %.1f dBFS, %lld sample(s) clipped\n", Db(rms), Db(peak),
                    static_cast<long long>(clipped));
        if (lossy > 0)
            std::printf("%lld block(s) follow lost samples (the host fell behind the stream)\n",
                        static_cast<long long>(lossy));
        std::printf("Wrote %s\n", o.output.c_str());
    }
    return kExitOk;
}

} // namespace lx::cli
