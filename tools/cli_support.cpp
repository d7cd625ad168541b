#include "cli_support.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "lx_sim.h"
#include "plot.h"

namespace lx::cli {

namespace {

std::string SerialText(int32_t serial) {
    char buf[16];
    std::snprintf(buf, sizeof buf, serial >= 0 ? "%08d" : "%d", static_cast<int>(serial));
    return buf;
}

std::string ReadSceneFile(const std::string& path) {
    errno = 0;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const int err = errno;
        throw Failure(kExitUsage, "cannot read scene file '" + path + "': " +
                                      (err ? std::strerror(err) : "cannot open"));
    }
    std::ostringstream text;
    text << in.rdbuf();
    // rdbuf() of a directory opens fine on Linux and then fails to read.
    if (in.bad() || text.fail()) throw Failure(kExitUsage, "cannot read scene file '" + path + "'");
    return text.str();
}

} // namespace

void AddAnalyzerOptions(CLI::App& cmd, std::optional<std::string>& scene, std::optional<int32_t>& serial) {
    cmd.add_option("--scene", scene, "Attach a simulated LX530 with this scene first (as --sim=FILE)")
        ->type_name("FILE");
    cmd.add_option("--serial", serial, "Serial number of the analyzer to open (default: the first)")
        ->type_name("SERIAL");
}

void AddInputOptions(CLI::App& cmd, double& refLevel, std::string& attenuator) {
    cmd.add_option("--ref-level", refLevel, "Reference level in dBm, at most 20 (default -20)")->type_name("DBM");
    cmd.add_option("--atten", attenuator, "Attenuator: auto, or 0..6 steps of 5 dB (default auto)")
        ->type_name("auto|STEP");
}

std::optional<int32_t> AttenuatorStep(const std::string& text) {
    if (text == "auto") return -1;
    int step = -1;
    const auto r = std::from_chars(text.data(), text.data() + text.size(), step);
    if (r.ec != std::errc() || r.ptr != text.data() + text.size() || step < 0 || step > 6) return std::nullopt;
    return step;
}

int32_t InputAttenuator(double refLevel, const std::string& attenuator, const std::string& hint) {
    if (!std::isfinite(refLevel)) throw Failure(kExitUsage, "--ref-level must be a number of dBm", hint);
    const auto step = AttenuatorStep(attenuator);
    if (!step) throw Failure(kExitUsage, "--atten: '" + attenuator + "' is neither 'auto' nor a step 0..6 (5 dB each)", hint);
    return *step;
}

std::pair<int, int> PlotSizeOption(const std::string& text, const std::string& hint) {
    const auto size = ParsePlotSize(text);
    if (!size)
        throw Failure(kExitUsage,
                      "--png-size: '" + text + "' is not WIDTHxHEIGHT with sides of " + std::to_string(kMinPlotSide) +
                          " .. " + std::to_string(kMaxPlotSide),
                      hint);
    return *size;
}

void RefuseSharedOutputs(const std::vector<const std::optional<std::string>*>& outputs, const std::string& hint) {
    for (size_t i = 0; i < outputs.size(); ++i)
        for (size_t j = i + 1; j < outputs.size(); ++j)
            if (*outputs[i] && *outputs[j] &&
                std::filesystem::path(**outputs[i]).lexically_normal() ==
                    std::filesystem::path(**outputs[j]).lexically_normal())
                throw Failure(kExitUsage, "'" + **outputs[i] + "' is named for two outputs", hint);
}

OutputFile::OutputFile(const std::string& path, const std::string& usageHint) : path_(path) {
    errno = 0;
    stream_.open(path, std::ios::binary | std::ios::trunc);
    if (!stream_) {
        const int err = errno;
        throw Failure(kExitUsage, "cannot write '" + path + "': " + (err ? std::strerror(err) : "cannot open"),
                      usageHint);
    }
}

OutputFile::~OutputFile() {
    if (kept_) return;
    stream_.close();
    std::error_code ec;
    std::filesystem::remove(path_, ec);
}

void OutputFile::Finish() {
    stream_.close();
    if (!stream_) throw Failure(kExitFailure, "writing '" + path_ + "' failed");
}

void Check(LxStatus status, const std::string& what, std::vector<Warning>* warnings) {
    if (status < 0) {
        std::string hint;
        if (status == lxDeviceNotFoundErr)
            hint = "'lx530 list' shows the analyzers that can be opened; --sim attaches a simulated one";
        throw Failure(kExitFailure, what + ": " + StatusText(status), hint);
    }
    if (status > 0) {
        std::fprintf(stderr, "lx530: warning: %s: %s\n", what.c_str(), StatusText(status).c_str());
        if (warnings) warnings->push_back({what, status});
    }
}

SimulatedAnalyzer::SimulatedAnalyzer(int32_t serial, const std::optional<std::string>& sceneFile)
    : serial_(serial) {
    std::string scene;
    if (sceneFile) scene = ReadSceneFile(*sceneFile);
    const LxStatus s = lxSimAttach(serial, sceneFile ? scene.c_str() : nullptr);
    if (s == lxNoError) return;
    if (!sceneFile) Check(s, "attaching simulated LX530 " + SerialText(serial));
    // The simulator says only "invalid parameter"; tell broken JSON apart
    // from a well-formed scene with a bad key or value.
    std::string hint;
    try {
        const auto doc = nlohmann::json::parse(scene);
        (void)doc;
        hint = "the scene has an unknown key, a wrong type or a value out of range (docs/simulator.md lists them)";
    } catch (const nlohmann::json::parse_error& e) {
        hint = "the scene is not valid JSON: " + std::string(e.what());
    }
    throw Failure(kExitFailure, "scene file '" + *sceneFile + "' rejected by the simulator: " + StatusText(s),
                  hint);
}

SimulatedAnalyzer::~SimulatedAnalyzer() { (void)lxSimDetach(serial_); }

OpenAnalyzer::OpenAnalyzer(std::optional<int32_t> serial, std::vector<Warning>& warnings) {
    int32_t handle = -1;
    if (serial) {
        const LxStatus s = lxOpenDeviceBySerial(&handle, *serial);
        // A warning still opened the analyzer: take the handle before judging.
        if (s >= 0) handle_ = handle;
        Check(s, "opening analyzer " + SerialText(*serial), &warnings);
    } else {
        const LxStatus s = lxOpenDevice(&handle);
        if (s >= 0) handle_ = handle;
        Check(s, "opening the first analyzer", &warnings);
    }
}

OpenAnalyzer::~OpenAnalyzer() {
    if (handle_ < 0) return;
    const LxStatus s = lxCloseDevice(handle_);
    if (s < 0) std::fprintf(stderr, "lx530: closing the analyzer: %s\n", StatusText(s).c_str());
}

void OpenAnalyzer::Close() {
    const int32_t handle = handle_;
    handle_ = -1;
    Check(lxCloseDevice(handle), "closing the analyzer");
}

std::vector<int32_t> AttachedSerials() {
    std::vector<int32_t> serials(16);
    // Grow until the list fits; the bound only guards against a list that
    // never stops filling the array.
    while (serials.size() <= 4096) {
        int32_t count = static_cast<int32_t>(serials.size());
        Check(lxGetDeviceList(serials.data(), &count), "listing analyzers");
        if (count < 0 || count > static_cast<int32_t>(serials.size()))
            throw Failure(kExitFailure, "listing analyzers: the library returned a count of " +
                                            std::to_string(count));
        if (count < static_cast<int32_t>(serials.size())) {
            serials.resize(static_cast<size_t>(count));
            return serials;
        }
        serials.resize(serials.size() * 2);
    }
    throw Failure(kExitFailure, "listing analyzers: more than 4096 found");
}

std::optional<bool> SimulatedPersonality(int32_t serial) {
    int32_t run = 0;
    if (lxSimGetPersonality(serial, &run) != lxNoError) return std::nullopt;
    return run != 0;
}

} // namespace lx::cli
