// `lx530 flash`: backs up, checks and rewrites an analyzer's flash through
// its boot loader: boot image, FPGA program, calibration record, run image.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace lx::cli {

struct FlashOptions {
    std::string action;          // the sub-subcommand that ran
    std::string path;            // backup folder or image file
    std::optional<int32_t> serial;    // analyzer to take (default: the first)
    std::optional<int32_t> newSerial; // serial to patch into an image (default: the analyzer's)
    bool fromCache = false;      // write-cal: the calibration cache file
    bool yes = false;            // consent to erasing the boot sector
};

// Adds `flash` and its actions to `app`.
CLI::App* AddFlashCommand(CLI::App& app, FlashOptions& options);

// Runs the action; the exit code, or lx::cli::Failure.
int RunFlash(const FlashOptions& options, bool json);

} // namespace lx::cli
