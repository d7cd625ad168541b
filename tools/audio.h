// `lx530 audio`: demodulates AM, FM, USB, LSB or CW at a centre frequency and
// writes the audio as a WAV file (30 kS/s, mono, 16-bit), with a level meter
// on a terminal and a summary (level, peak, blocks after a loss) at the end.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace lx::cli {

struct AudioOptions {
    std::string center = "97.1M";
    std::string type = "fm";
    std::optional<std::string> ifBandwidth; // default by type
    std::string lowPass = "12k";
    std::string highPass = "100";
    double deemphasisUs = 75;
    std::string duration = "5s";
    std::string output = "audio.wav";
    std::optional<std::string> scene;
    std::optional<int32_t> serial;
    bool noMeter = false;
};

CLI::App* AddAudioCommand(CLI::App& app, AudioOptions& options);
int RunAudio(const AudioOptions& options, bool json);

} // namespace lx::cli
