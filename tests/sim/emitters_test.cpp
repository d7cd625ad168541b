// What the scene puts at the input, measured in the captured samples by
// NumPy/SciPy (signal_ref.py), levels through the factory calibration.
#include <cmath>
#include <numbers>

#include "lx_command/encoders.h"
#include "lx_command/status_packet.h"
#include "sim_test_util.h"

using namespace simtest;

namespace {

using EmitterTest = SimTest;

constexpr int kRow = 40; // band 9 around 1.2 GHz
const double kCentre = RowCentre(kRow);

std::string Scene(const std::string& emitters, double noise = -170) {
    return R"({"noise_floor_dbm_hz": )" + std::to_string(noise) + R"(, "emitters": [)" + emitters + "]}";
}

// One request of `iq` packets and a status packet at capture code `code`:
// the samples, the status packet, and the ADC sample index of the first
// sample, from the status packet's counter and the device's pipeline offset.
struct Capture { std::vector<std::complex<double>> x; int64_t s0 = 0; std::vector<uint8_t> status; };
Capture Take(const Instrument& in, uint32_t iq, uint32_t code) {
    Capture c;
    const int64_t d1 = code == 3 ? 4 : code == 2 ? 2 : 1;
    EXPECT_TRUE(Send(*in.dev, TuneAndCapture(in, kRow, 0, iq, 1, code)));
    const ReadResult r = Read(*in.dev, (iq + 1) * 8192, 5000);
    EXPECT_EQ(r.data.size(), (iq + 1) * 8192u);
    if (r.data.size() != (iq + 1) * 8192u) return c;
    c.x = Samples(r.data, iq);
    c.status.assign(r.data.end() - 8192, r.data.end());
    const auto k = static_cast<int64_t>(U64(&c.status[lx::kAuxSampleCounterOffset]));
    c.s0 = (k - 2 * d1 * int64_t(iq) * 2048 + lx::PipelineOffsetTicks(int(d1))) / 2;
    return c;
}

// A bad scene is refused, naming what is wrong; the scene before it stays.
TEST_F(EmitterTest, BadScenesAreRefusedNamingTheKeyAndThePreviousSceneStays) {
    const std::string data = LX_TEST_DATA_DIR, wav = data + "/audio/melody_8k.wav", nmea = data + "/nmea/";
    const auto tone = [](const std::string& more) {
        return Scene(R"({"kind": "tone", "frequency_hz": 1e9, "power_dbm": -30)" + more + "}");
    };
    const auto burst = [](const std::string& more) {
        return Scene(R"({"kind": "burst", "frequency_hz": 1e9, "power_dbm": -30, "width_s": 1e-3)" + more + "}");
    };
    const auto audio = [](const std::string& kindAndMore) {
        return Scene(R"({"frequency_hz": 1e9, "power_dbm": -30, )" + kindAndMore + "}");
    };
    const std::pair<std::string, const char*> cases[] = {
        {"{", ""}, {"[]", "object"},
        {R"({"temprature_c": 20})", "temprature_c"}, {R"({"temperature_c": "hot"})", "temperature_c"},
        {R"({"temperature_c": 120})", "temperature_c"}, {R"({"dithering": 0})", "dithering"},
        {R"({"firmware": [1, 2]})", "firmware"}, {R"({"firmware": [1, 2.5, 3]})", "firmware"},
        {R"({"calibration": "fresh"})", "calibration"}, {R"({"emitters": {}})", "emitters"},
        {Scene(R"({"kind": "chirp", "frequency_hz": 1e9, "power_dbm": -30})"), "chirp"},
        {Scene(R"({"kind": "tone", "frequency_hz": 1e9})"), "power_dbm"},
        {tone(R"(, "width": 1)"), "width"}, {Scene(R"({"kind": "tone", "frequency_hz": 1e9, "power_dbm": 31})"), "power_dbm"},
        {tone(R"(, "on_s": 1e-3)"), "off_s"}, {tone(R"(, "depth": 0.5)"), "depth"},
        {Scene(R"({"kind": "burst", "frequency_hz": 1e9, "power_dbm": -30})"), "width_s"},
        {burst(R"(, "period_s": 1e-3)"), "period_s"}, {burst(R"(, "count": 3)"), "count"},
        {burst(R"(, "start_utc": "2026-11-21T12:00:05Z")"), "start_utc"},
        {audio(R"("kind": "am", "depth": 1.5, "audio_hz": 1000)"), "depth"},
        {audio(R"("kind": "am", "depth": 0.5)"), "audio_hz"},
        {audio(R"("kind": "fm", "audio_hz": 1000)"), "deviation_hz"},
        {audio(R"("kind": "ssb", "sideband": "middle", "audio_hz": 1000)"), "sideband"},
        {audio(R"("kind": "fm", "deviation_hz": 5e3, "audio_file": "/no/such.wav")"), "audio_file"},
        {R"({"trigger": {"period_s": 1e-3, "width_s": 2e-3}})", "width_s"},
        {R"({"trigger": {"times_s": [2, 1]}})", "times_s"},
        {R"({"gps": 1})", "gps"}, {R"({"gps": {"latitude": 90.5}})", "latitude"},
        {R"({"gps": {"longitude": -181}})", "longitude"}, {R"({"gps": {"fix": "yes"}})", "fix"},
        {R"({"gps": {"utc": "2026-02-29T00:00:00Z"}})", "utc"}, {R"({"gps": {"utc": "1999-12-31T23:59:59Z"}})", "utc"},
        {R"({"gps": {"utc": "2026-11-21 12:00:00"}})", "utc"}, {R"({"gps": {"receiver": "off"}})", "receiver"},
        {R"({"gps": {"disciplined_tune": 65536}})", "disciplined_tune"}, {R"({"gps": {"speed": 1}})", "speed"},
        {R"({"gps": {"nmea_log": "/nonexistent/file.log"}})", ""},
        {R"({"gps": {"nmea_log": ")" + nmea + R"(README.md"}})", ""}, // no RMC, GGA or ZDA
        {R"({"gps": {"nmea_log": ")" + nmea + R"(bu353s4.log", "latitude": 10}})", "nmea_log"},
        {R"({"pacing": "realtime", "pace_rate": 0.05})", "pace_rate"}, {R"({"pace_rate": 0.5})", "pace_rate"},
    };
    const std::string good = ToneScene(kCentre + 2e6, -30);
    Instrument in = Bring(77000001, good);
    ASSERT_NE(in.dev, nullptr);
    char why[256];
    for (const auto& [scene, named] : cases) {
        SCOPED_TRACE(scene);
        EXPECT_EQ(lxSimAttach(77000002, scene.c_str()), lxInvalidParameterErr);
        EXPECT_EQ(lxSimSetScene(77000001, scene.c_str()), lxInvalidParameterErr);
        ASSERT_EQ(lxSimGetSceneError(why, sizeof why), lxNoError);
        EXPECT_NE(std::string(why).find(named), std::string::npos) << why;
    }
    EXPECT_EQ(EnumeratedSerials(), std::vector<std::string>{"77000001"});
    EXPECT_EQ(lxSimSetScene(77000001, audio(R"("kind": "am", "depth": 0.5, "audio_file": ")" + wav + "\"").c_str()),
              lxNoError);
    ASSERT_EQ(lxSimGetSceneError(why, sizeof why), lxNoError);
    EXPECT_STREQ(why, "");
    // A refused scene changed nothing: the tone is still at its power.
    ASSERT_EQ(lxSimSetScene(77000001, good.c_str()), lxNoError);
    ASSERT_EQ(lxSimSetScene(77000001, cases[10].first.c_str()), lxInvalidParameterErr);
    const Capture c = Take(in, 7, 0);
    const auto lines = Measure("lines", c.x, kFs, "fc=2e6 fa=1e5");
    EXPECT_NEAR(lines.at("carrier") + in.Correction(0, kRow), -30.0, 0.2);
}

// Fresh Gaussian noise in every packet, at the scene's density, decimated too.
TEST_F(EmitterTest, NoiseIsGaussianIndependentAndAtTheScenesDensity) {
    const struct { uint32_t code; double rate; const char* freqs; } cases[] = {
        {0, kFs, "-14e6,-11e6,-8e6,-5e6,-2e6,2e6,5e6,8e6,11e6,14e6"},
        {3, kFs / 4, "-5e6,-2e6,2e6,5e6"},
    };
    Instrument in = Bring(77000010, Scene("", -130));
    ASSERT_NE(in.dev, nullptr);
    for (const auto& k : cases) {
        SCOPED_TRACE(k.code);
        const Capture c = Take(in, 255, k.code);
        const auto m = Measure("noise", c.x, k.rate, std::string("freqs=") + k.freqs);
        for (int i = 0; m.count("density" + std::to_string(i)); ++i)
            EXPECT_NEAR(m.at("density" + std::to_string(i)) + in.Correction(0, kRow), -130.0, 0.2) << k.freqs << " " << i;
        EXPECT_LT(m.at("packet_r"), 0.01);
        EXPECT_LT(m.at("tail_z"), 4.0);
        EXPECT_NEAR(m.at("kurtosis"), 3.0, 0.05);
    }
}

// Burst edges on the ADC samples their times name, at full rate and decimated.
TEST_F(EmitterTest, BurstEdgesLandOnTheirSamples) {
    const double start = 1.235e-3, width = 20e-6, period = 100e-6;
    Instrument in = Bring(77000020, Scene(R"({"kind": "burst", "frequency_hz": )" + std::to_string(kCentre + 3e6) +
                                          R"(, "power_dbm": -35, "start_s": )" + std::to_string(start) +
                                          R"(, "width_s": 2e-5, "period_s": 1e-4})"));
    ASSERT_NE(in.dev, nullptr);
    const int64_t s = std::llround(start * kFs), w = std::llround(width * kFs), p = std::llround(period * kFs);
    for (const auto& [code, d] : {std::pair{0u, 1}, {3u, 4}}) {
        SCOPED_TRACE(code);
        const Capture c = Take(in, 63, code);
        ASSERT_GT(c.s0, s);
        // The first rise and the first fall after the capture's first sample
        // (it may start inside a burst).
        const auto after = [&](int64_t edge) { return edge + ((c.s0 - edge) / p + 1) * p; };
        const int64_t rise = after(s), fall = after(s + w);
        const auto m = Measure("burst", c.x, kFs / d);
        EXPECT_EQ(m.at("rise0"), double((rise - c.s0 + d - 1) / d));
        EXPECT_EQ(m.at("fall0"), double((fall - c.s0 + d - 1) / d));
        EXPECT_EQ(m.at("rise1"), double((rise + p - c.s0 + d - 1) / d));
        EXPECT_NEAR(m.at("on_power") + in.Correction(0, kRow), -35.0, 0.2);
    }
}

// AM, FM and SSB with a sine programme against their definitions: AM's
// carrier and depth from the envelope, FM's peak deviation from the
// instantaneous frequency (pre-emphasis lifts it by |1 + j 2 pi f tau|),
// SSB's one line at the sideband's power with the carrier and the other
// sideband absent.
TEST_F(EmitterTest, ModulatedCarriersFollowTheirDefinitions) {
    const double fc = 1.5e6, fa = 3000.0;
    const std::string at = R"("frequency_hz": )" + std::to_string(kCentre + fc) + R"(, "power_dbm": -30, "audio_hz": 3000)";
    const double lift = std::hypot(1.0, 2 * std::numbers::pi * fa * 75e-6);
    Instrument in = Bring(77000030, Scene(R"({"kind": "am", "depth": 0.6, )" + at + "}"));
    ASSERT_NE(in.dev, nullptr);
    const double corr = in.Correction(0, kRow);
    const auto take = [&](const std::string& emitter, const char* measure) {
        EXPECT_EQ(lxSimSetScene(77000030, Scene(emitter).c_str()), lxNoError);
        const Capture c = Take(in, 63, 3);
        return Measure(measure, c.x, kFs / 4, "fc=" + std::to_string(fc) + " fa=" + std::to_string(fa) + " dev=5000");
    };
    auto m = take(R"({"kind": "am", "depth": 0.6, )" + at + "}", "am");
    EXPECT_NEAR(m.at("depth"), 0.6, 0.01);
    EXPECT_NEAR(m.at("carrier_power") + corr, -30.0, 0.2);
    m = take(R"({"kind": "fm", "deviation_hz": 5000, )" + at + "}", "fm");
    EXPECT_NEAR(m.at("deviation"), 5000.0, 50.0);
    EXPECT_NEAR(m.at("carrier_power") + corr, -30.0, 0.2);
    m = take(R"({"kind": "fm", "deviation_hz": 5000, "preemphasis_s": 75e-6, )" + at + "}", "fm");
    EXPECT_NEAR(m.at("deviation"), 5000.0 * lift, 50.0);
    for (const bool upper : {true, false}) {
        SCOPED_TRACE(upper);
        m = take(std::string(R"({"kind": "ssb", "sideband": ")") + (upper ? "upper" : "lower") + "\", " + at + "}",
                 "lines");
        EXPECT_NEAR(m.at(upper ? "upper" : "lower") + corr, -30.0, 0.2);
        EXPECT_LT(m.at(upper ? "lower" : "upper") + corr, -90.0);
        EXPECT_LT(m.at("carrier") + corr, -90.0);
    }
}

} // namespace
