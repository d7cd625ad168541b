// The real-time engine from inside the library, on a simulated analyzer:
// every sample the analyzer delivered is transformed (the spectra count is
// the samples over half an FFT), none is lost, and a stop leaves the link
// clean for its next user. The analyzer runs in slow motion (realtime
// pacing at a tenth of the rate), so that a loaded machine keeps up too.
#include <gtest/gtest.h>

#include "api/registry.h"
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

} // namespace
