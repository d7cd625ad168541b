// The scene a simulated LX530 measures: what is at its input and the
// conditions it runs in. Parsed from JSON (schema and defaults in
// docs/simulator.md); immutable once parsed, shared by pointer.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lx::sim {

struct ToneEmitter {
    double frequencyHz = 0;
    double powerDbm = 0;
    double phaseDeg = 0;
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
};

// Parses a scene. Null or empty text is the default scene. On failure returns
// null and puts a one-line reason into *error (when given).
std::shared_ptr<const Scene> ParseScene(const char* json, std::string* error = nullptr);

} // namespace lx::sim
