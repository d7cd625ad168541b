// Shared pieces of the end-to-end tests: they drive the library through its
// public headers only, on simulated analyzers.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "lx_api.h"
#include "lx_sim.h"

namespace e2e {

// Closes every handle and unplugs every simulated analyzer after each test.
class SimTest : public ::testing::Test {
protected:
    void TearDown() override;
    // Attaches a simulated analyzer and opens it; fails the test otherwise.
    int32_t AttachAndOpen(int32_t serial, const std::string& scene = "",
                          LxStatus expected = lxNoError);
    std::vector<uint32_t> CommandLog(int32_t serial);
    LxSimCounters Counters(int32_t serial);
    uint64_t VirtualMs();
    void Open(int32_t serial, const std::string& scene = "") { h = AttachAndOpen(serial, scene); }
    int32_t h = -1;
};

// What a one-output getter reports; the test fails when it refuses.
template <typename T>
T Get(LxStatus (*get)(int32_t, T*), int32_t h) {
    T v{};
    EXPECT_EQ(get(h, &v), lxNoError);
    return v;
}

// A loaded host may fall behind a paced analyzer and say so (lxUncalData):
// the data still arrive, and tests about something else accept it.
inline bool Delivered(LxStatus s) { return s == lxNoError || s == lxUncalData; }

inline int64_t Strongest(const std::vector<float>& v) { return std::max_element(v.begin(), v.end()) - v.begin(); }

struct Tone { double hz, dbm; };

// A scene of tones over a noise floor, with more emitters and keys as JSON
// text ("{...}, {...}" and "\"key\": value, ...").
std::string SceneOf(const std::vector<Tone>& tones, double noiseDbmHz = -150.0, const std::string& keys = "",
                    const std::string& emitters = "");

// A swept trace and its figures.
struct Trace {
    LxStatus status = lxNoError;
    std::vector<float> mn, mx;
    double rbw = 0, vbw = 0, start = 0, bin = 0;
    int32_t length = 0;
    uint64_t stamp = 0;

    int64_t PeakIndex(double hz) const; // the largest max-trace value within 3 bins of hz
    double Frequency(int64_t i) const { return start + static_cast<double>(i) * bin; }
};

// Sweep settings (detector, units, scale, window as their enumerations).
void SetSweep(int32_t h, double start, double stop, double rbw, double vbw, double sweepTime, int32_t detector = 0,
              int32_t units = 2, int32_t scale = 0, int32_t window = 0);
// Configures mode 1 and sizes the trace; false when there is none.
bool ConfigureSweep(int32_t h, Trace& t);
void ReadSweep(int32_t h, Trace& t);
Trace MeasureSweep(int32_t h);

// The calibration record the library cached for a serial (the analyzer's own
// factory record after its first open).
bool CachedRecord(int32_t serial, LX530CalData* out);

// A whole UTC second as a scene's "start_utc" wants it: 2031-05-06T07:08:09Z.
std::string UtcText(int64_t seconds);

// Where |x| (interleaved I/Q) rises through half its level 200 samples after
// p, looked for within 60 samples of p and interpolated between samples.
double HalfHeightCrossing(const std::vector<float>& x, int64_t p);

} // namespace e2e
