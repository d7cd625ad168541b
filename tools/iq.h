// `lx530 iq`: records an I/Q stream as a SigMF recording (BASE.sigmf-data and
// BASE.sigmf-meta) or as raw samples, with a progress bar on a terminal and a
// summary with the stream-health counters at the end.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace lx::cli {

struct IqOptions {
    std::string center = "1G";
    std::optional<std::string> rate;       // sample rate; 61.44M / a power of two
    std::optional<int32_t> decimation;     // or the decimation itself
    std::optional<std::string> bandwidth;  // default: the widest the rate allows
    std::string filter = "on";
    std::string format = "cf32";
    std::optional<std::string> duration;
    std::optional<int64_t> samples;
    std::optional<std::string> trigger;    // rising | falling
    double refLevel = -20;
    std::string attenuator = "auto";
    std::optional<std::string> output;     // SigMF base name
    std::optional<std::string> raw;
    std::optional<std::string> scene;
    std::optional<int32_t> serial;
    bool noProgress = false;
};

CLI::App* AddIqCommand(CLI::App& app, IqOptions& options);
int RunIq(const IqOptions& options, bool json);

// ---- the recording's metadata (no library calls; checked by tests/cli) ----

struct IqSegment {
    int64_t sampleStart = 0;  // in the file
    int64_t globalIndex = 0;  // in the stream, counting what was lost
    uint64_t timeNs = 0;      // of the segment's first sample, ns since 1970
};
struct IqTrigger {
    int64_t sample = 0;       // in the file
    double position = 0;      // fractional, as the library reported it
};
struct IqRecording {
    std::string datatype;     // cf32_le or ci16_le
    double sampleRate = 0, centre = 0, bandwidth = 0;
    float correctionDb = 0;
    std::string hw, recorder;
    std::optional<std::array<double, 3>> position; // latitude, longitude, altitude
    std::vector<IqSegment> segments;
    std::vector<IqTrigger> triggers;
};

// "2026-11-21T12:00:00.123456789Z".
std::string FormatUtcNs(uint64_t ns);
nlohmann::ordered_json SigmfMeta(const IqRecording& r);

} // namespace lx::cli
