// Shared pieces of the end-to-end tests, which use the public headers only.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "../support/sim_readings.h"

namespace e2e {

// Closes every handle and unplugs every simulated analyzer after each test.
class SimTest : public ::testing::Test {
protected:
    void TearDown() override;
    // Attaches a simulated analyzer and opens it; fails the test otherwise.
    int32_t AttachAndOpen(int32_t serial, const std::string& scene = "",
                          LxStatus expected = lxNoError);
    std::vector<uint32_t> CommandLog(int32_t serial);
    void Open(int32_t serial, const std::string& scene = "") { h = AttachAndOpen(serial, scene); }
    int32_t h = -1;
};

using ::Get;

// A loaded host may fall behind a paced analyzer and say so: the data still arrive.
inline bool Delivered(LxStatus s) { return s == lxNoError || s == lxUncalData; }

inline int64_t Strongest(const std::vector<float>& v) { return std::max_element(v.begin(), v.end()) - v.begin(); }

struct Tone { double hz, dbm; };

// A scene of tones over a noise floor, with more emitters and keys as JSON
// text ("{...}, {...}" and "\"key\": value, ...").
std::string SceneOf(const std::vector<Tone>& tones, double noiseDbmHz = -150.0, const std::string& keys = "",
                    const std::string& emitters = "");

// A scene's "pace_rate" key for a test that wants `want`: no faster than
// LX_SIM_PACE_RATE, the pace a sanitizer run gives every paced analyzer
// (an instrumented host falls behind a faster one). Pace() is that pace.
double Pace(double want = 1.0);
std::string PaceKey(double want);

// The library's cache file of a serial ("" the calibration record, "gps" the
// timebase record), and the calibration record it holds.
std::string CacheFile(int32_t serial, const char* suffix = "");
bool CachedRecord(int32_t serial, LX530CalData* out);

// A whole UTC second as a scene's "start_utc" wants it: 2031-05-06T07:08:09Z.
std::string UtcText(int64_t seconds);

} // namespace e2e
