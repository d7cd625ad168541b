// The real-time engine from inside the library, on a simulated analyzer:
// every sample the analyzer delivered is transformed (the spectra count is
// the samples over half an FFT), none is lost, and a stop leaves the link
// clean for its next user. The analyzer runs in slow motion (realtime
// pacing at a tenth of the rate), so that a loaded machine keeps up too.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "api/registry.h"
#include "dsp/kernels.h"
#include "engines/realtime_engine.h"
#include "lx_api.h"
#include "lx_sim.h"

namespace {

using namespace lx;

class RealTimeEngineStream : public ::testing::TestWithParam<double> {
protected:
    static constexpr int32_t kSerial = 41000201;
    int32_t handle = -1;
    Device* dev = nullptr;

    void SetUp() override {
        const char* scene = R"({"emitters": [{"kind": "tone", "frequency_hz": 2.4012e9, "power_dbm": -30}],
                               "noise_floor_dbm_hz": -150, "pacing": "realtime", "pace_rate": 0.1})";
        ASSERT_EQ(lxSimAttach(kSerial, scene), lxNoError);
        ASSERT_EQ(lxOpenDeviceBySerial(&handle, kSerial), lxNoError);
        dev = api::LookUp(handle);
        ASSERT_NE(dev, nullptr);
    }
    void TearDown() override {
        lxCloseDevice(handle);
        lxSimDetachAll();
    }
};

// The smallest FFT (1 MHz, rectangular: 128 points) and the largest (2 kHz,
// flat-top: 65,536 points).
TEST_P(RealTimeEngineStream, EverySampleDeliveredIsTransformed) {
    dev->realTime.centre = 2.4e9;
    dev->realTime.span = 40e6;
    dev->realTime.rbw = GetParam();
    dev->realTime.window = GetParam() > 1e5 ? 5 : 0;
    ASSERT_EQ(lxSimResetCounters(kSerial), lxNoError);
    ASSERT_EQ(dev->Configure(2), lxNoError);
    auto* engine = static_cast<engines::RealTimeEngine*>(dev->engines[kRealTimeEngine].get());
    ASSERT_NE(engine, nullptr);
    const int64_t n = engine->plan().fftSize;
    int32_t count = -1;
    for (int i = 0; i < 12; ++i) {
        ASSERT_EQ(lxGetRealTimeFrame(handle, nullptr, nullptr, nullptr, nullptr, &count, nullptr), lxNoError)
            << "frame " << i << ", lost spectra " << engine->LostSpectra(); // none lost anywhere
        ASSERT_EQ(count, i);
    }
    engine->Stop();

    LxSimCounters c{};
    ASSERT_EQ(lxSimGetCounters(kSerial, &c), lxNoError);
    const int64_t delivered = int64_t(c.iqPackets) * 2048;
    const int64_t taken = engine->SamplesReceived();
    // What the analyzer sent is what the engine took in, but for the thirteen
    // transfers (twelve reads and the extra request) drained at the stop.
    EXPECT_EQ(delivered - taken, 13 * 127 * 2048);
    EXPECT_GT(taken, 12 * engine->plan().spectraPerFrame * n / 2);
    // 50 % overlap: one spectrum per N/2 samples, the first after N.
    EXPECT_EQ(engine->SpectraProduced(), (taken - n) / (n / 2) + 1);
    EXPECT_EQ(engine->LostSpectra(), 0);
    EXPECT_EQ(dev->RefreshHousekeeping(), lxNoError); // nothing stale on the link
    EXPECT_EQ(dev->auxInvalid, 0u);
}

INSTANTIATE_TEST_SUITE_P(FftSizes, RealTimeEngineStream, ::testing::Values(1e6, 2e3));

// The density row of the engine's row pass (a logarithm of its own, from the
// float's exponent and a polynomial) against the row rule in double
// precision, over a dense sweep of levels through every row of frames coarse
// and fine: the same row unless the level is within 3e-5 dB of a boundary.
TEST(RealTimeRows, SweepMatchesTheExactRowAwayFromBoundaries) {
    const struct {
        double top, range, gain; // A (dBm), B (dB), step gain (dB)
    } frames[] = {{0, 100, 0}, {-40, 60, 7.5}, {-90, 10, -3.25}, {30, 250, 1}};
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (const auto& fr : frames) {
        const double rowsPerDb = 2.56 * 100.0 / fr.range, bottom = fr.top - fr.range - fr.gain;
        const int n = 256 * 64;
        std::vector<dsp::cf32> x(n);
        for (int i = 0; i < n; ++i) { // 2 dB beyond either end
            const double db = bottom - 2 + (fr.range + 4) * (i + u(rng)) / n;
            x[size_t(i)] = std::polar(float(std::pow(10.0, db / 20)), float(6.283185307179586 * u(rng)));
        }
        std::vector<float> p(n);
        std::vector<uint8_t> rows(n);
        ASSERT_EQ(dsp::PowerAndRowsLog(x.data(), p.data(), rows.data(), n, float(rowsPerDb),
                                       float((fr.gain + fr.range - fr.top) * rowsPerDb)),
                  dsp::DspStatus::kOk);
        int edge = 0;
        for (int i = 0; i < n; ++i) {
            const double exact = (10 * std::log10(double(p[size_t(i)])) + fr.gain + fr.range - fr.top) * rowsPerDb;
            const int want = int(std::floor(std::clamp(exact, 0.0, 255.0) + 0.5));
            if (rows[size_t(i)] == want) continue;
            ++edge;
            EXPECT_LT(std::fabs(exact - std::floor(exact) - 0.5) / rowsPerDb, 3e-5) << fr.range << " " << exact;
        }
        EXPECT_LE(edge, n / 1000) << fr.range;
    }
}

} // namespace
