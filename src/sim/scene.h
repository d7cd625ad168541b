// The scene a simulated LX530 measures: what is at its input and the
// conditions it runs in. Parsed from JSON (schema and defaults in
// docs/simulator.md); immutable once parsed, shared by pointer.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace lx::sim {

struct ToneEmitter {
    double frequencyHz = 0;
    double powerDbm = 0;
    double phaseDeg = 0;
};

// One message of a replayed receiver log: one second's burst of sentences,
// each ended by CR LF.
struct NmeaMessage {
    std::string text;
    bool fix = false; // its RMC said A (a message without RMC keeps the previous state)
};

// The GPS receiver fitted to the instrument: a synthetic one, or the replay of
// a recorded log.
struct GpsScene {
    enum class Source : uint8_t { Synthetic, Log };
    Source source = Source::Synthetic;
    bool sending = true; // "receiver": "on"; false: "silent"
    // Synthetic receiver.
    bool fix = true;
    double latitudeDeg = 48.1173;   // north positive
    double longitudeDeg = 11.516667; // east positive
    double altitudeM = 545.4;
    int64_t utcSeconds = 1795262400; // 2026-11-21T12:00:00Z
    // Replay.
    std::string logPath;
    std::shared_ptr<const std::vector<NmeaMessage>> log;
    // Tune word the disciplined reference settles on; none: 20 above the word
    // in use when disciplining begins.
    std::optional<uint16_t> disciplinedTune;
};

enum class CalibrationContent : uint8_t { Factory, Unprogrammed, Corrupt };
enum class Pacing : uint8_t { Fast, Realtime };

struct Scene {
    std::vector<ToneEmitter> tones;
    double noiseFloorDbmHz = -160.0;
    double temperatureC = 25.0;
    double supplyV = 12.0;
    double supplyA = 1.2;
    std::array<uint32_t, 3> firmware{1, 2, 5}; // major, minor, revision
    CalibrationContent calibration = CalibrationContent::Factory;
    Pacing pacing = Pacing::Fast;
    bool dithering = true;
    std::shared_ptr<const GpsScene> gps; // null: no receiver fitted
};

// Parses a scene. Null or empty text is the default scene. On failure returns
// null and puts a one-line reason into *error (when given).
std::shared_ptr<const Scene> ParseScene(const char* json, std::string* error = nullptr);

} // namespace lx::sim
