// The device's decimation (capture control 2 and 3): judged against the same
// device's full-rate stream and the scene, with the filter left as a
// pass-through so that only the decimator stands between the two.
#include <fftw3.h>

#include <cmath>
#include <complex>
#include <numbers>

#include "lx_command/encoders.h"
#include "sim_test_util.h"

using namespace simtest;

namespace {

using DecimationTest = SimTest;
using cd = std::complex<double>;

std::string ToneScene(double hz, double dbm, double noise) {
    return R"({"noise_floor_dbm_hz": )" + std::to_string(noise) +
           R"(, "emitters": [{"kind": "tone", "frequency_hz": )" + std::to_string(hz) + R"(, "power_dbm": )" +
           std::to_string(dbm) + "}]}";
}

std::vector<uint32_t> Tune(int row, uint32_t code) {
    lx::TuningState st;
    uint32_t words[lx::kTuneMaxWords];
    const int n = lx::EncodeTune(st, words, RowLo(row), RowCentre(row), 4, 0, 24, false);
    std::vector<uint32_t> out(words, words + n);
    out.push_back(0x30000000u | code);
    return out;
}

// Samples of `packets` packets requested after tuning with capture code `code`.
std::vector<cd> Capture(UsbDevice& d, int row, uint32_t code, uint32_t packets) {
    std::vector<uint32_t> words = Tune(row, code);
    const auto req = Request(packets, 0);
    words.insert(words.end(), req.begin(), req.end());
    EXPECT_TRUE(Send(d, words));
    const ReadResult r = Read(d, packets * 8192);
    EXPECT_EQ(r.data.size(), packets * 8192u);
    return Samples(r.data, r.data.size() / 8192);
}

double MeanPowerDb(const std::vector<cd>& x) {
    double p = 0;
    for (const cd& v : x) p += std::norm(v);
    return 10 * std::log10(p / double(x.size()));
}

// A tone inside the decimated band comes out at its offset, now in cycles of
// the slower rate, at the level the full-rate stream shows; band 0 keeps its
// mirroring.
TEST_F(DecimationTest, ToneKeepsItsFrequencyAndLevel) {
    struct Case {
        int row;
        uint32_t code;
        double offset; // F - C
    };
    const Case cases[] = {
        {40, 2, 9.7e6},  {40, 2, -11.5e6}, {40, 3, 1.234e6}, {40, 3, -5.9e6},
        {1, 3, -2.5e6},  // band 0: appears at +2.5 MHz
        {120, 3, 4.4e6}, {300, 2, -0.35e6},
    };
    int32_t serial = 76000000;
    for (const Case& c : cases) {
        SCOPED_TRACE("row " + std::to_string(c.row) + " code " + std::to_string(c.code) + " offset " +
                     std::to_string(c.offset));
        ASSERT_EQ(lxSimAttach(++serial, ToneScene(RowCentre(c.row) + c.offset, -30.0, -200.0).c_str()), lxNoError);
        auto d = Open(serial);
        ASSERT_NE(d, nullptr);
        const int factor = c.code == 2 ? 2 : 4;
        const Peak full = StrongestTone(Capture(*d, c.row, 1, 8), 1.0);
        const Peak dec = StrongestTone(Capture(*d, c.row, c.code, 8), 1.0);
        const double baseband = c.row == 1 ? -c.offset : c.offset;
        // The reference runs on its power-on tune word here: 19 ppb off.
        EXPECT_NEAR(full.frequencyHz * kFs, baseband, 30.0 + 2e-8 * RowCentre(c.row));
        EXPECT_NEAR(dec.frequencyHz * kFs / factor, full.frequencyHz * kFs, 20.0);
        EXPECT_NEAR(dec.powerDbfs, full.powerDbfs, 0.02);
        lxSimDetach(serial);
    }
}

// What lies beyond the decimated band is filtered out, never folded in.
TEST_F(DecimationTest, NothingAliasesIntoTheDecimatedBand) {
    ASSERT_EQ(lxSimAttach(76100000, ToneScene(RowCentre(40) + 9.0e6, -20.0, -200.0).c_str()), lxNoError);
    auto d = Open(76100000);
    ASSERT_NE(d, nullptr);
    // 9 MHz is within 30.72 MS/s (code 2) but beyond 15.36 MS/s (code 3),
    // where it would land at 9 - 15.36 = -6.36 MHz.
    // The tone reads about -10 dBFS; without it the stream is the ADC's own
    // noise and quantisation, near -92 dBFS at 15.36 MS/s.
    EXPECT_GT(MeanPowerDb(Capture(*d, 40, 2, 4)), -20.0);
    const double withTone = MeanPowerDb(Capture(*d, 40, 3, 16));
    ASSERT_EQ(lxSimSetScene(76100000, R"({"noise_floor_dbm_hz": -200})"), lxNoError);
    EXPECT_NEAR(withTone, MeanPowerDb(Capture(*d, 40, 3, 16)), 0.2);
}

// A decimated packet spans 2048 R ADC samples: the status packet's counter
// moves by 2 ticks per ADC sample, and a tone runs on without a phase step
// across packets and requests.
TEST_F(DecimationTest, PacketsSpanTheDecimatedTimeAndJoinInPhase) {
    const double offset = 1.2345e6;
    ASSERT_EQ(lxSimAttach(76300000, ToneScene(RowCentre(20) + offset, -20.0, -200.0).c_str()), lxNoError);
    auto d = Open(76300000);
    ASSERT_NE(d, nullptr);
    for (const auto& [code, factor] : {std::pair{0u, 1}, {2u, 2}, {3u, 4}}) {
        SCOPED_TRACE(code);
        std::vector<uint32_t> words = Tune(20, code);
        // Each status packet alone in its request: it ends the IN transfer.
        for (const auto& r : {Request(4, 0), Request(0, 1), Request(8, 0), Request(0, 1)})
            words.insert(words.end(), r.begin(), r.end());
        ASSERT_TRUE(Send(*d, words));
        std::vector<cd> x;
        uint64_t counter[2] = {};
        for (int k = 0; k < 2; ++k) {
            const uint32_t packets = k == 0 ? 4 : 8;
            const ReadResult r = Read(*d, packets * 8192 + 8192);
            ASSERT_EQ(r.data.size(), packets * 8192u + 8192u);
            const auto part = Samples(r.data, packets);
            x.insert(x.end(), part.begin(), part.end());
            counter[k] = U64(&r.data[packets * 8192 + 32]);
        }
        EXPECT_EQ(counter[1] - counter[0], 2u * 8u * 2048u * static_cast<uint64_t>(factor));
        const double step = 2 * std::numbers::pi * offset * factor / kFs;
        double worst = 0;
        for (size_t i = 1; i < x.size(); ++i) {
            const double e = std::arg(x[i] * std::conj(x[i - 1])) - step;
            worst = std::max(worst, std::abs(std::remainder(e, 2 * std::numbers::pi)));
        }
        EXPECT_LT(worst, 0.01);
    }
}

} // namespace
