// What the scene puts at the input, measured in the captured samples by an
// independent reference (tests/sim/signal_ref.py, NumPy/SciPy): noise
// statistics, burst edges, each modulation against its textbook definition,
// and sound-file programmes recovered by demodulation. Levels are read
// through the device's own factory calibration, as a host would.
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

std::string Scene(const std::string& emitters, double noise = -170, const std::string& more = "") {
    return R"({"noise_floor_dbm_hz": )" + std::to_string(noise) + R"(, "emitters": [)" + emitters + "]" + more + "}";
}

// `requests` requests of `iq` packets (each followed by a status packet) at
// capture code `code`: the samples, and the ADC sample index of the first, from
// the first status packet's counter and the device's pipeline offset.
struct Capture {
    std::vector<std::complex<double>> x;
    int64_t s0 = 0;
    std::vector<std::vector<uint8_t>> status;
};
Capture Take(const Instrument& in, uint32_t iq, uint32_t code, int requests = 1) {
    Capture c;
    const uint32_t d1 = code == 3 ? 4 : code == 2 ? 2 : 1;
    // All requests go out before the first read, as a streaming host keeps
    // them ahead: the device's timeline then runs on without a gap.
    for (int r = 0; r < requests; ++r)
        EXPECT_TRUE(Send(*in.dev, r == 0 ? TuneAndCapture(in, kRow, 0, iq, 1, code) : Request(iq, 1)));
    for (int r = 0; r < requests; ++r) {
        const ReadResult rr = Read(*in.dev, (iq + 1) * 8192, 5000);
        EXPECT_EQ(rr.data.size(), (iq + 1) * 8192u);
        if (rr.data.size() != (iq + 1) * 8192u) return c;
        const auto x = Samples(rr.data, iq);
        c.x.insert(c.x.end(), x.begin(), x.end());
        c.status.emplace_back(rr.data.end() - 8192, rr.data.end());
        if (r == 0) {
            const auto k = static_cast<int64_t>(U64(&c.status[0][lx::kAuxSampleCounterOffset]));
            c.s0 = (k - 2 * d1 * int64_t(iq) * 2048 + lx::PipelineOffsetTicks(int(d1))) / 2;
        }
    }
    return c;
}

std::string Args(std::initializer_list<std::pair<const char*, double>> kv) {
    std::string s;
    for (const auto& [k, v] : kv) s += std::string(" ") + k + "=" + std::to_string(v);
    return s;
}

TEST_F(EmitterTest, BadEmittersAreRefusedNamingTheKeyAndThePreviousSceneStays) {
    const std::string wav = std::string(LX_TEST_DATA_DIR) + "/audio/melody_8k.wav";
    const struct {
        const char* emitter;
        const char* named;
    } cases[] = {
        {R"({"kind": "chirp", "frequency_hz": 1e9, "power_dbm": -30})", "chirp"},
        {R"({"kind": "tone", "frequency_hz": 1e9})", "power_dbm"},
        {R"({"kind": "tone", "frequency_hz": 1e9, "power_dbm": -30, "on_s": 1e-3})", "off_s"},
        {R"({"kind": "tone", "frequency_hz": 1e9, "power_dbm": -30, "depth": 0.5})", "depth"},
        {R"({"kind": "burst", "frequency_hz": 1e9, "power_dbm": -30})", "width_s"},
        {R"({"kind": "burst", "frequency_hz": 1e9, "power_dbm": -30, "width_s": 1e-3, "period_s": 1e-3})", "period_s"},
        {R"({"kind": "burst", "frequency_hz": 1e9, "power_dbm": -30, "width_s": 1e-3, "count": 3})", "count"},
        {R"({"kind": "burst", "frequency_hz": 1e9, "power_dbm": -30, "width_s": 1e-3, "start_utc": "2026-11-21T12:00:05Z"})", "start_utc"},
        {R"({"kind": "am", "frequency_hz": 1e9, "power_dbm": -30, "depth": 1.5, "audio_hz": 1000})", "depth"},
        {R"({"kind": "am", "frequency_hz": 1e9, "power_dbm": -30, "depth": 0.5})", "audio_hz"},
        {R"({"kind": "fm", "frequency_hz": 1e9, "power_dbm": -30, "audio_hz": 1000})", "deviation_hz"},
        {R"({"kind": "ssb", "frequency_hz": 1e9, "power_dbm": -30, "sideband": "middle", "audio_hz": 1000})", "sideband"},
        {R"({"kind": "fm", "frequency_hz": 1e9, "power_dbm": -30, "deviation_hz": 5e3, "audio_file": "/no/such.wav"})", "audio_file"},
    };
    const std::string good = Scene(R"({"kind": "tone", "frequency_hz": )" + std::to_string(kCentre + 2e6) +
                                   R"(, "power_dbm": -30})");
    Instrument in = Bring(77000001, good);
    ASSERT_NE(in.dev, nullptr);
    char why[256];
    for (const auto& c : cases) {
        SCOPED_TRACE(c.emitter);
        EXPECT_EQ(lxSimAttach(77000002, Scene(c.emitter).c_str()), lxInvalidParameterErr);
        EXPECT_EQ(lxSimSetScene(77000001, Scene(c.emitter).c_str()), lxInvalidParameterErr);
        ASSERT_EQ(lxSimGetSceneError(why, sizeof why), lxNoError);
        EXPECT_NE(std::string(why).find(c.named), std::string::npos) << why;
    }
    EXPECT_EQ(lxSimSetScene(77000001, R"({"trigger": {"period_s": 1e-3, "width_s": 2e-3}})"), lxInvalidParameterErr);
    EXPECT_EQ(lxSimSetScene(77000001, R"({"trigger": {"times_s": [2, 1]}})"), lxInvalidParameterErr);
    EXPECT_EQ(lxSimSetScene(77000001, Scene(R"({"kind": "am", "frequency_hz": 1e9, "power_dbm": -30, "depth": 0.5,
                                              "audio_file": ")" + wav + "\"}").c_str()), lxNoError);
    ASSERT_EQ(lxSimGetSceneError(why, sizeof why), lxNoError);
    EXPECT_STREQ(why, "");
    // A refused scene changed nothing: the tone is still at its power.
    ASSERT_EQ(lxSimSetScene(77000001, good.c_str()), lxNoError);
    ASSERT_EQ(lxSimSetScene(77000001, Scene(cases[0].emitter).c_str()), lxInvalidParameterErr);
    const Capture c = Take(in, 7, 0);
    const auto lines = Measure("lines", c.x, kFs, Args({{"fc", 2e6}, {"fa", 1e5}}));
    EXPECT_NEAR(lines.at("carrier") + in.Correction(0, kRow), -30.0, 0.2);
}

// Fresh Gaussian noise in every packet, at the scene's density across the
// capture and in a decimated one.
TEST_F(EmitterTest, NoiseIsGaussianIndependentAndAtTheScenesDensity) {
    const struct {
        uint32_t code;
        double rate;
        const char* freqs;
    } cases[] = {
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

// A burst train switches on and off on the ADC samples its times name, at
// its power, at the full rate and decimated.
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

// A trigger edge given the same time as a burst is reported on the burst's
// first sample; the edge word picks which edge of the pulse is reported.
TEST_F(EmitterTest, TriggerEdgeAndBurstStartedTogetherLandOnTheSameSample) {
    const double width = 5e-6;
    Instrument in = Bring(77000025, Scene(R"({"kind": "burst", "frequency_hz": )" + std::to_string(kCentre + 3e6) +
                                              R"(, "power_dbm": -35, "start_s": 1.235e-3, "width_s": 2e-5, "period_s": 1e-4})",
                                          -170, R"(, "trigger": {"start_s": 1.235e-3, "period_s": 1e-4, "width_s": 5e-6})"));
    ASSERT_NE(in.dev, nullptr);
    for (const auto& [code, d] : {std::pair{0u, 1}, {3u, 4}})
        for (const uint32_t edge : {0u, 1u}) {
            SCOPED_TRACE(std::to_string(code) + (edge ? " falling" : " rising"));
            ASSERT_TRUE(Send(*in.dev, {lx::TriggerEdgeWord(edge)}));
            const Capture c = Take(in, 63, code);
            const auto m = Measure("burst", c.x, kFs / d);
            const uint8_t* st = c.status[0].data();
            ASSERT_EQ(U32(st + lx::kAuxTriggerFlagsOffset) & lx::kAuxTriggerExternal, lx::kAuxTriggerExternal);
            // Ticks from the block's first sample, 2 per ADC sample: the
            // delivered sample at or after the edge.
            const int64_t adc = U32(st + lx::kAuxTriggerPositionOffset) / 2;
            const int64_t widthSamples = edge ? std::llround(width * kFs) : 0;
            // A block that starts inside a pulse reports its fall first: the
            // burst the test sees then rises with the next pulse.
            int64_t rise = adc - widthSamples;
            if (rise < 0) rise += std::llround(1e-4 * kFs);
            EXPECT_EQ(double((rise + d - 1) / d), m.at("rise0"));
        }
    // Without pulses on the input the flags stay clear.
    ASSERT_EQ(lxSimSetScene(77000025, Scene("").c_str()), lxNoError);
    EXPECT_EQ(U32(Take(in, 63, 0).status[0].data() + lx::kAuxTriggerFlagsOffset), 0u);
}

// A burst given a UTC second starts on the pulse the GPS receiver gave for
// that second: ahead of it, and long after it when the reference ran at
// another rate in between (a train of one burst per device second, caught
// two periods on, after the host retuned the reference far from where it
// ran when the pulse fell).
TEST_F(EmitterTest, BurstAtAUtcSecondStartsOnItsPulse) {
    for (const int64_t periods : {0, 2}) {
        SCOPED_TRACE(periods);
        const auto serial = static_cast<int32_t>(77000027 + periods);
        Instrument in = Bring(serial, Scene(R"({"kind": "burst", "frequency_hz": )" + std::to_string(kCentre + 3e6) +
                                                R"(, "power_dbm": -35, "start_utc": "2026-11-21T12:00:05Z", "width_s": 1e-4, "period_s": 1})",
                                            -170, R"(, "gps": {"utc": "2026-11-21T12:00:00Z"})"));
        ASSERT_NE(in.dev, nullptr);
        // 3 ppm fast until the capture retunes it.
        ASSERT_TRUE(Send(*in.dev, {0x2E000000u | (in.tuneWord + 10000u)}));
        // Pulse k is UTC 12:00:00 + k: the burst belongs to pulse 5, near tick 5 s.
        ASSERT_TRUE(Send(*in.dev, Request(0, 1)));
        const ReadResult r = Read(*in.dev, 8192);
        ASSERT_EQ(r.data.size(), 8192u);
        uint64_t now = U64(&r.data[lx::kAuxSampleCounterOffset]);
        ASSERT_LT(now, 4900 * 122880u);
        uint64_t pulse = 0;
        if (periods > 0) { // past pulse 5: its tick, as reported
            ASSERT_EQ(lxSimAdvanceTimeMs((5 * 122880000 - now) / 122880 + 400), lxNoError);
            ASSERT_TRUE(Send(*in.dev, Request(0, 1)));
            const ReadResult p = Read(*in.dev, 8192);
            ASSERT_EQ(p.data.size(), 8192u);
            pulse = lx::AuxPulseCounter(p.data.data());
            now = U64(&p.data[lx::kAuxSampleCounterOffset]);
        }
        // An idle device's time runs on with the wall clock: start 50 ms early
        // and capture 200 ms, decimated.
        const uint64_t target = 5 * 122880000 + uint64_t(periods) * 122880000;
        ASSERT_LT(now, target - 60 * 122880u);
        ASSERT_EQ(lxSimAdvanceTimeMs((target - now) / 122880 - 50), lxNoError);
        const Capture c = Take(in, 255, 3, 6);
        if (periods == 0) pulse = lx::AuxPulseCounter(c.status.back().data());
        ASSERT_GT(pulse, 4 * 122880000u);
        const int64_t at = (static_cast<int64_t>(pulse) + 1) / 2 + periods * 61440000 - c.s0; // ADC samples into the capture
        ASSERT_GT(at, 0) << "the capture began after the burst";
        const auto m = Measure("burst", c.x, kFs / 4);
        EXPECT_EQ(m.at("rise0"), double((at + 3) / 4));
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
    const auto take = [&](const std::string& emitter, const char* measure, double audio) {
        EXPECT_EQ(lxSimSetScene(77000030, Scene(emitter).c_str()), lxNoError);
        const Capture c = Take(in, 63, 3);
        return Measure(measure, c.x, kFs / 4, Args({{"fc", fc}, {"fa", audio}, {"dev", 5e3}}));
    };
    auto m = take(R"({"kind": "am", "depth": 0.6, )" + at + "}", "am", fa);
    EXPECT_NEAR(m.at("depth"), 0.6, 0.01);
    EXPECT_NEAR(m.at("carrier_power") + corr, -30.0, 0.2);
    m = take(R"({"kind": "fm", "deviation_hz": 5000, )" + at + "}", "fm", fa);
    EXPECT_NEAR(m.at("deviation"), 5000.0, 50.0);
    EXPECT_NEAR(m.at("carrier_power") + corr, -30.0, 0.2);
    m = take(R"({"kind": "fm", "deviation_hz": 5000, "preemphasis_s": 75e-6, )" + at + "}", "fm", fa);
    EXPECT_NEAR(m.at("deviation"), 5000.0 * lift, 50.0);
    for (const bool upper : {true, false}) {
        SCOPED_TRACE(upper);
        m = take(std::string(R"({"kind": "ssb", "sideband": ")") + (upper ? "upper" : "lower") + "\", " + at + "}",
                 "lines", fa);
        EXPECT_NEAR(m.at(upper ? "upper" : "lower") + corr, -30.0, 0.2);
        EXPECT_LT(m.at(upper ? "lower" : "upper") + corr, -90.0);
        EXPECT_LT(m.at("carrier") + corr, -90.0);
    }
}

// A sound file's programme, demodulated from the rendered I/Q, is the file's
// audio at the device time it plays (the file loops from device time 0).
TEST_F(EmitterTest, SoundFileProgrammesComeBackOut) {
    const std::string wav = std::string(LX_TEST_DATA_DIR) + "/audio/melody_8k.wav";
    const double fc = 1.0e6;
    const std::string at = R"("frequency_hz": )" + std::to_string(kCentre + fc) + R"(, "power_dbm": -30, "audio_file": ")" +
                           wav + "\"";
    Instrument in = Bring(77000040, Scene(""));
    ASSERT_NE(in.dev, nullptr);
    const struct {
        const char* kind;
        std::string emitter;
        double sideDb; // sign of upper-over-lower, 0: either
    } cases[] = {
        {"am", R"({"kind": "am", "depth": 0.8, )" + at + "}", 0},
        {"fm", R"({"kind": "fm", "deviation_hz": 5000, )" + at + "}", 0},
        {"usb", R"({"kind": "ssb", "sideband": "upper", )" + at + "}", 1},
        {"lsb", R"({"kind": "ssb", "sideband": "lower", )" + at + "}", -1},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.kind);
        ASSERT_EQ(lxSimSetScene(77000040, Scene(k.emitter).c_str()), lxNoError);
        const Capture c = Take(in, 255, 3, 2);
        const auto m = Measure("audio", c.x, kFs / 4,
                               Args({{"fc", fc}, {"s0", double(c.s0)}}) + " kind=" + k.kind + " file=" + wav);
        EXPECT_GT(m.at("corr"), 0.98);
        EXPECT_EQ(m.at("lag"), 0.0);
        if (k.sideDb != 0) {
            EXPECT_GT(k.sideDb * m.at("upper_over_lower"), 20.0);
        }
    }
}

} // namespace
