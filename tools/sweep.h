// `lx530 sweep`: sets up a swept spectrum on an analyzer, runs it one or more
// times and reports it as a peak table (text or JSON) and, on request, as a
// CSV of the traces, rtl_power's CSV and a PNG plot.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace lx::cli {

// The command line as given; RunSweep checks it before touching a device.
// Unset numbers take the library's defaults, so a bare `lx530 sweep` measures
// what a freshly opened analyzer would.
struct SweepOptions {
    std::optional<std::string> start, stop, center, span;
    std::string rbw = "30k";
    std::optional<std::string> vbw; // the RBW when not given
    std::string sweepTime = "1us";
    std::string detector = "avg", units = "power", scale = "log", window = "flattop";
    double refLevel = -20;
    std::string attenuator = "auto";
    int count = 1;
    int peaks = 5;
    std::optional<std::string> scene;
    std::optional<int32_t> serial;
    std::optional<std::string> csv, rtlPower, png;
    std::string pngSize = "1280x720";
};

// Adds the subcommand and its options to `app`, filling `options`.
CLI::App* AddSweepCommand(CLI::App& app, SweepOptions& options);

// Runs the sweep; the exit code, or lx::cli::Failure.
int RunSweep(const SweepOptions& options, bool json);

} // namespace lx::cli
