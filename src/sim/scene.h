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

// An audio programme for a modulated emitter: a mono file resampled to
// kAudioRateHz, played in a loop from device time 0. Samples in full-scale
// units (a full-scale sine peaks at 1). `quadrature` is its Hilbert
// transform (for single sideband).
inline constexpr double kAudioRateHz = 240000.0; // 61.44 MHz / 256
inline constexpr int kAdcSamplesPerAudioSample = 256;
struct AudioTrack {
    std::string path;
    std::vector<float> samples;
    std::vector<float> quadrature;
};

// On/off keying on the device timeline, in ADC samples: on for `width`
// samples from start + k * period, k = 0 .. count - 1 (count < 0: for ever).
struct Gate {
    int64_t start = 0;
    int64_t width = 0;
    int64_t period = 0; // 0: one burst
    int64_t count = 1;
    std::optional<int64_t> startUtc; // placed by the GPS receiver's clock; start is then the offset from it
};

// One signal at the input port (docs/simulator.md, "Emitters").
struct Emitter {
    enum class Kind : uint8_t { Tone, Burst, Am, Fm, Ssb };
    Kind kind = Kind::Tone;
    double frequencyHz = 0; // carrier
    double powerDbm = 0;    // unmodulated carrier (tone, burst, am, fm) or sideband (ssb)
    double phaseDeg = 0;
    std::optional<Gate> gate;  // tone duty cycle, burst
    double depth = 0;          // am
    double deviationHz = 0;    // fm, peak for a full-scale audio
    double preemphasisS = 0;   // fm, 0: none
    bool upper = true;         // ssb
    double audioHz = 1000;     // sine programme
    std::shared_ptr<const AudioTrack> audio; // file programme instead of the sine
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
    // How long after its pulse the receiver's message reaches the UART.
    uint64_t messageDelayTicks = 300 * 122880;
};

// The external trigger input: pulses whose leading edge (of `polarity`)
// falls at each time, the opposite edge `width` later; times in ADC samples.
struct TriggerScene {
    std::vector<int64_t> edges; // explicit list, ascending
    int64_t start = 0, period = 0, count = 0; // or a train (period > 0; count < 0: for ever)
    int64_t width = 61;                       // ~1 us
    bool risingFirst = true;
};

enum class CalibrationContent : uint8_t { Factory, Unprogrammed, Corrupt };
enum class Pacing : uint8_t { Fast, Realtime };

struct Scene {
    std::vector<Emitter> emitters;
    double noiseFloorDbmHz = -160.0;
    double temperatureC = 25.0;
    double supplyV = 12.0;
    double supplyA = 1.2;
    std::array<uint32_t, 3> firmware{1, 2, 5}; // major, minor, revision
    CalibrationContent calibration = CalibrationContent::Factory;
    Pacing pacing = Pacing::Fast;
    // Realtime pacing: the fraction of real time the device clock runs at
    // (1: 61.44 MS/s of wall-clock time; 0.25: a second of signal takes four).
    double paceRate = 1.0;
    bool dithering = true;
    std::shared_ptr<const GpsScene> gps; // null: no receiver fitted
    std::shared_ptr<const TriggerScene> trigger; // null: nothing on the trigger input
};

// Parses a scene. Null or empty text is the default scene. On failure returns
// null and puts a one-line reason into *error (when given).
std::shared_ptr<const Scene> ParseScene(const char* json, std::string* error = nullptr);

} // namespace lx::sim
