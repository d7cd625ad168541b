// Audio demodulation on simulated analyzers, checked against the modulation
// the scene puts on its carriers.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::SimTest;
constexpr double kRate = 30000.0;
constexpr int kBlock = 1000;

std::string Scene(const std::string& emitters, const std::string& keys = "") {
    return R"({"temperature_c": 45, "noise_floor_dbm_hz": -160, "pacing": "realtime")" + keys + R"(, "emitters": [)" +
           emitters + "]}";
}

struct Tone {
    double amplitude = 0, sinad = 0; // dB: the tone against everything else
};
// Least-squares fit of a tone at f (an integer number of cycles in x) and
// its DC; the residual is the noise and distortion.
Tone FitTone(const std::vector<double>& x, double f) {
    const double w = 2 * std::numbers::pi * f / kRate, n = double(x.size());
    double c = 0, s = 0, mean = 0;
    for (size_t k = 0; k < x.size(); ++k) {
        c += x[k] * std::cos(w * double(k));
        s += x[k] * std::sin(w * double(k));
        mean += x[k];
    }
    c *= 2 / n, s *= 2 / n, mean /= n;
    double rest = 0;
    for (size_t k = 0; k < x.size(); ++k) {
        const double e = x[k] - mean - c * std::cos(w * double(k)) - s * std::sin(w * double(k));
        rest += e * e;
    }
    const double a = std::hypot(c, s);
    return {a, 10 * std::log10(a * a / 2 / (rest / n))};
}

class Audio : public SimTest {
protected:
    static constexpr int32_t kSerial = 42000501;

    static void Start(int32_t h, double centre, int32_t type, double ifBandwidth, double highPass = 100,
                      double deemphasis = 75) {
        ASSERT_EQ(lxSetAudioCenterFreq(h, centre), lxNoError);
        ASSERT_EQ(lxSetAudioType(h, type), lxNoError);
        ASSERT_EQ(lxSetAudioFilters(h, ifBandwidth, 12000, highPass), lxNoError);
        ASSERT_EQ(lxSetAudioFMDeemphasis(h, deemphasis), lxNoError);
        ASSERT_EQ(lxConfigure(h, lxModeAudio), lxNoError);
    }
    // `blocks` consecutive blocks without a loss after `settle` (the level
    // trackers start from 0.1); a loss starts the run again, for up to 30 s.
    static std::vector<double> Record(int32_t h, int settle, int blocks) {
        std::vector<float> b(kBlock);
        std::vector<double> x;
        int skip = settle;
        for (int i = 0; i < settle + blocks + 900 && x.size() < size_t(blocks * kBlock); ++i) {
            const LxStatus st = lxGetAudio(h, b.data());
            EXPECT_TRUE(st == lxNoError || st == lxUncalData) << st;
            if (st != lxNoError) {
                x.clear();
                skip = settle;
            } else if (skip > 0) {
                --skip;
            } else {
                x.insert(x.end(), b.begin(), b.end());
            }
        }
        EXPECT_EQ(x.size(), size_t(blocks * kBlock)) << "no " << blocks << " blocks without a loss";
        return x;
    }
};

struct ToneCase {
    const char* name;
    const char* emitter;
    int32_t type;
    double ifBandwidth, audioHz;
    double amplitude; // of the recovered tone: the depth, (2 pi / 3) dev / IF bw, 1 for a line; 0: unwanted
    double bound;     // dB: the least SINAD of a wanted tone, the most level of an unwanted one
};

// Each type recovers its modulation (CW: a carrier, at 520 Hz) at full scale
// and SINAD >= 40 dB; the other sideband (CW: its image) is suppressed. The
// filters allow less in three (docs/audio.md): FM in 15 kHz (31.7 dB SINAD),
// the other sideband (35.6 dB) and the CW image (28.6 dB).
TEST_F(Audio, EveryTypeRecoversItsToneCleanly) {
    constexpr double f0 = 145e6;
    const ToneCase cases[] = {
        {"AM", R"({"kind": "am", "frequency_hz": 145e6, "power_dbm": -30, "depth": 0.5, "audio_hz": 1000})", lxAudioAM,
         10000, 1000, 0.5, 40},
        {"FM", R"({"kind": "fm", "frequency_hz": 145e6, "power_dbm": -40, "deviation_hz": 5000, "audio_hz": 1000})",
         lxAudioFM, 15000, 1000, 2 * std::numbers::pi / 3 * 5000 / 15000, 30},
        {"USB", R"({"kind": "ssb", "frequency_hz": 145e6, "power_dbm": -40, "sideband": "upper", "audio_hz": 1000})",
         lxAudioUSB, 6000, 1000, 1, 40},
        {"LSB", R"({"kind": "ssb", "frequency_hz": 145e6, "power_dbm": -40, "sideband": "lower", "audio_hz": 1000})",
         lxAudioLSB, 6000, 1000, 1, 40},
        {"CW", R"({"kind": "tone", "frequency_hz": 145e6, "power_dbm": -40})", lxAudioCW, 3000, 520, 1, 40},
        {"USB as LSB", R"({"kind": "ssb", "frequency_hz": 145e6, "power_dbm": -40, "sideband": "upper", "audio_hz": 1000})",
         lxAudioLSB, 6000, 1000, 0, -34},
        {"LSB as USB", R"({"kind": "ssb", "frequency_hz": 145e6, "power_dbm": -40, "sideband": "lower", "audio_hz": 1000})",
         lxAudioUSB, 6000, 1000, 0, -34},
        {"CW image", R"({"kind": "tone", "frequency_hz": 145.00104e6, "power_dbm": -40})", lxAudioCW, 3000, 520, 0, -27},
    };
    const int32_t h = AttachAndOpen(kSerial, Scene(""));
    for (const ToneCase& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(lxSimSetScene(kSerial, Scene(c.emitter).c_str()), lxNoError);
        Start(h, f0, c.type, c.ifBandwidth);
        const Tone t = FitTone(Record(h, 45, 30), c.audioHz);
        if (c.amplitude > 0) {
            EXPECT_NEAR(20 * std::log10(t.amplitude / c.amplitude), 0.0, 0.7);
            EXPECT_GE(t.sinad, c.bound);
        } else {
            EXPECT_LE(20 * std::log10(t.amplitude), c.bound);
        }
    }
}

// Two analyzers demodulate AM carriers 30 dB apart at once; each output
// keeps its own depth (a shared carrier mean would scale it).
TEST_F(Audio, TwoAnalyzersDemodulateIndependently) {
    struct Side {
        int32_t serial;
        double dbm, depth, hz;
        int32_t h = -1;
        std::vector<double> x;
    } sides[] = {{42000511, -20, 0.5, 1000, -1, {}}, {42000512, -50, 0.3, 700, -1, {}}};
    for (Side& s : sides) {
        char e[200];
        std::snprintf(e, sizeof e, R"({"kind": "am", "frequency_hz": 50e6, "power_dbm": %g, "depth": %g, "audio_hz": %g})",
                      s.dbm, s.depth, s.hz);
        // Two full-rate streams at once are more than an instrumented host on
        // two cores keeps up with: half pace.
        s.h = AttachAndOpen(s.serial, Scene(e, e2e::PaceKey(0.5)));
        Start(s.h, 50e6, lxAudioAM, 10000);
    }
    std::thread other([&] { sides[1].x = Record(sides[1].h, 45, 30); });
    sides[0].x = Record(sides[0].h, 45, 30);
    other.join();
    for (const Side& s : sides) {
        const Tone t = FitTone(s.x, s.hz);
        EXPECT_NEAR(20 * std::log10(t.amplitude / s.depth), 0.0, 0.5) << s.serial;
        EXPECT_GE(t.sinad, 40.0) << s.serial;
    }
}

// A spoken sentence on a broadcast FM carrier against its source (SciPy).
TEST_F(Audio, SpokenSentenceOnFm) {
    const auto dir = std::filesystem::temp_directory_path() / ("lx-audio-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const std::string wav = (dir / "sentence.wav").string(), rec = (dir / "recovered.f32").string();
    ASSERT_EQ(std::system(("espeak-ng -w " + wav + " 'Tuning the receiver to ninety seven point one megahertz.'").c_str()), 0);
    const int32_t h = AttachAndOpen(kSerial, Scene(R"({"kind": "fm", "frequency_hz": 97.1e6, "power_dbm": -40,
        "deviation_hz": 75000, "audio_file": ")" + wav + R"("})"));
    Start(h, 97.1e6, lxAudioFM, 200000, 20, 1);
    const std::vector<double> x = Record(h, 15, 45);
    {
        std::vector<float> f(x.begin(), x.end());
        std::ofstream(rec, std::ios::binary).write(reinterpret_cast<const char*>(f.data()), std::streamsize(4 * f.size()));
    }
    const std::string cmd = std::string(LX_TEST_PYTHON) + " " + LX_TEST_SOURCE_DIR + "/tests/e2e/audio_reference.py correlate " +
                            wav + " " + rec;
    std::FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char out[256] = {};
    const size_t n = std::fread(out, 1, sizeof out - 1, p);
    ASSERT_EQ(pclose(p), 0) << out;
    const std::string s(out, n);
    const double corr = std::atof(s.c_str() + s.find(':') + 1);
    EXPECT_GE(corr, 0.95) << s;
    std::filesystem::remove_all(dir);
}

// A reader 1 s behind the ring is told once and reads on. (The first test's
// records run across the ring's end.)
TEST_F(Audio, RingRunsOnAndAReaderBehindIsTold) {
    const int32_t h = AttachAndOpen(kSerial, Scene(R"({"kind": "fm", "frequency_hz": 1e9, "power_dbm": -40,
        "deviation_hz": 5000, "audio_hz": 750})"));
    Start(h, 1e9, lxAudioFM, 15000);
    // 2 s without reading (250 packets make a block).
    const uint64_t start = Get(lxSimGetCounters, kSerial).iqPackets;
    while (Get(lxSimGetCounters, kSerial).iqPackets < start + 250 * 60) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::vector<float> b(kBlock);
    EXPECT_EQ(lxGetAudio(h, b.data()), lxUncalData);
    EXPECT_GE(FitTone(Record(h, 0, 30), 750).sinad, 30.0); // FM in 15 kHz: see the first test
}

} // namespace
