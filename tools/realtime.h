// `lx530 rt`: sets up the real-time spectrum on an analyzer, reads a number
// of frames and reports the last one: a summary (text or JSON) and, on
// request, a density PNG with the max trace over it, a waterfall PNG of the
// max traces of every frame read, and a CSV of the last frame's traces.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace lx::cli {

// The command line as given; unset values keep the library's defaults.
struct RealTimeOptions {
    std::string center = "1G", span = "40M", rbw = "30k";
    std::string window = "nuttall", detector = "minmax", scale = "log";
    double frameRef = 0, frameScale = 100;
    double refLevel = -20;
    std::string attenuator = "auto";
    int frames = 40;
    std::optional<std::string> scene;
    std::optional<int32_t> serial;
    std::optional<std::string> png, waterfall, csv;
    std::string pngSize = "1280x720";
};

CLI::App* AddRealTimeCommand(CLI::App& app, RealTimeOptions& options);

// Runs it; the exit code, or lx::cli::Failure.
int RunRealTime(const RealTimeOptions& options, bool json);

} // namespace lx::cli
