// Silence must never leave a non-finite value in the audio (the high-pass
// would carry it for good); a decayed AM mean restarts at 0.1.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "engines/audio_engine.h"

namespace {

using lx::dsp::cf32;
using namespace lx::engines;

TEST(AudioDemodulator, SilenceStaysFiniteAndRenewsTheState) {
    Demodulator d(PlanAudio(lx::AudioSettings{}));
    std::vector<cf32> zero(kAudioInputBlock), carrier(kAudioInputBlock, cf32(0.06f, -0.08f)); // |s| = 0.1
    std::vector<float> out(kAudioInputBlock);
    for (int32_t type : {kAudioAm, kAudioUpper}) {
        // The AM mean loses a factor e^-0.25 a block, the sideband level
        // e^-0.16: from 0.1 below the smallest normal float in 341 and 530
        // blocks of silence.
        int renewedAt = -1;
        for (int b = 0; b < 1000 && renewedAt < 0; ++b) {
            const double before = type == kAudioAm ? d.amMean() : d.sidebandLevel();
            d.Run(type, zero.data(), out.data());
            for (float v : out) ASSERT_TRUE(std::isfinite(v)) << type << " block " << b;
            const double after = type == kAudioAm ? d.amMean() : d.sidebandLevel();
            if (after > before) renewedAt = b;
        }
        EXPECT_GT(renewedAt, 300) << type;
        EXPECT_EQ(type == kAudioAm ? d.amMean() : d.sidebandLevel(), 0.1) << type;
    }
    // The mean starts at the returning carrier's level: no modulation seen.
    d.Run(kAudioAm, carrier.data(), out.data());
    for (float v : out) ASSERT_LT(std::fabs(v), 1e-5f);
}

} // namespace
