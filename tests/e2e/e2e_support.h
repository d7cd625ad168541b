// Shared pieces of the end-to-end tests: they drive the library through its
// public headers only, on simulated analyzers.
#pragma once

#include <gtest/gtest.h>

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
};

// The calibration record the library cached for a serial (the analyzer's own
// factory record after its first open).
bool CachedRecord(int32_t serial, LX530CalData* out);

// A whole UTC second as a scene's "start_utc" wants it: 2031-05-06T07:08:09Z.
std::string UtcText(int64_t seconds);

} // namespace e2e
