#include "cli_support.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "lx_sim.h"

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
