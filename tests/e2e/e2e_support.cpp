#include "e2e_support.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <cstdlib>
#include <filesystem>

namespace e2e {

namespace {
// Every test process gets a calibration cache folder of its own, so that no
// test sees another's cache files and nothing lands in the user's home.
struct PrivateCacheFolder {
    std::string path;
    PrivateCacheFolder() {
        const char* base = std::getenv("XDG_CACHE_HOME");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/lx-e2e-XXXXXX";
        std::filesystem::create_directories(std::filesystem::path(tmpl).parent_path());
        if (mkdtemp(tmpl.data())) {
            path = tmpl;
            setenv("XDG_CACHE_HOME", path.c_str(), 1);
        }
    }
    ~PrivateCacheFolder() {
        std::error_code ec;
        if (!path.empty()) std::filesystem::remove_all(path, ec);
    }
};
PrivateCacheFolder g_cache;
} // namespace

void SimTest::TearDown() {
    for (int32_t h = 0; h < 9; ++h) lxCloseDevice(h);
    lxSimDetachAll();
}

int32_t SimTest::AttachAndOpen(int32_t serial, const std::string& scene, LxStatus expected) {
    EXPECT_EQ(lxSimAttach(serial, scene.c_str()), lxNoError) << serial;
    int32_t h = -1;
    EXPECT_EQ(lxOpenDeviceBySerial(&h, serial), expected) << serial;
    return h;
}

std::vector<uint32_t> SimTest::CommandLog(int32_t serial) {
    int32_t count = 0;
    EXPECT_EQ(lxSimGetCommandLog(serial, nullptr, 0, &count), lxNoError);
    std::vector<uint32_t> words(static_cast<size_t>(count));
    EXPECT_EQ(lxSimGetCommandLog(serial, words.data(), count, &count), lxNoError);
    words.resize(static_cast<size_t>(count));
    return words;
}

LxSimCounters SimTest::Counters(int32_t serial) {
    LxSimCounters c{};
    EXPECT_EQ(lxSimGetCounters(serial, &c), lxNoError);
    return c;
}

uint64_t SimTest::VirtualMs() {
    uint64_t ms = 0;
    EXPECT_EQ(lxSimGetVirtualTimeMs(&ms), lxNoError);
    return ms;
}

std::string SceneOf(const std::vector<Tone>& tones, double noiseDbmHz, const std::string& keys,
                    const std::string& emitters) {
    std::string s = "{\"emitters\": [" + emitters;
    for (const Tone& t : tones) {
        char b[128];
        std::snprintf(b, sizeof b, "%s{\"kind\": \"tone\", \"frequency_hz\": %.6f, \"power_dbm\": %.3f}",
                      s.back() == '[' ? "" : ", ", t.hz, t.dbm);
        s += b;
    }
    char b[64];
    std::snprintf(b, sizeof b, "], \"noise_floor_dbm_hz\": %.2f", noiseDbmHz);
    return s + b + (keys.empty() ? "" : ", " + keys) + "}";
}

int64_t Trace::PeakIndex(double hz) const {
    const int64_t c = std::llround((hz - start) / bin);
    int64_t best = std::clamp<int64_t>(c, 0, length - 1);
    for (int64_t i = std::max<int64_t>(c - 3, 0); i <= std::min<int64_t>(c + 3, length - 1); ++i)
        if (mx[size_t(i)] > mx[size_t(best)]) best = i;
    return best;
}

void SetSweep(int32_t h, double start, double stop, double rbw, double vbw, double sweepTime, int32_t detector,
              int32_t units, int32_t scale, int32_t window) {
    for (LxStatus s : {lxSetSweepStartStop(h, start, stop), lxSetSweepCoupling(h, rbw, vbw, sweepTime),
                       lxSetSweepDetector(h, detector, units), lxSetSweepScale(h, scale), lxSetSweepWindow(h, window)})
        EXPECT_EQ(s, lxNoError);
}

bool ConfigureSweep(int32_t h, Trace& t) {
    EXPECT_EQ(lxConfigure(h, 1), lxNoError);
    if (lxGetSweepParameters(h, &t.rbw, &t.vbw, &t.start, &t.bin, &t.length) != lxNoError) return false;
    t.mn.assign(size_t(std::max(t.length, 0)), NAN);
    t.mx.assign(size_t(std::max(t.length, 0)), NAN);
    return t.length > 0;
}

void ReadSweep(int32_t h, Trace& t) { t.status = lxGetSweep(h, t.mn.data(), t.mx.data(), &t.stamp); }

Trace MeasureSweep(int32_t h) {
    Trace t;
    if (ConfigureSweep(h, t)) ReadSweep(h, t);
    return t;
}

double HalfHeightCrossing(const std::vector<float>& x, int64_t p) {
    auto mag = [&](int64_t i) { return std::hypot(x[size_t(2 * i)], x[size_t(2 * i + 1)]); };
    const double top = mag(p + 200);
    int64_t i = p - 60;
    while (i < p + 60 && mag(i) < top / 2) ++i;
    return double(i - 1) + (top / 2 - mag(i - 1)) / (mag(i) - mag(i - 1));
}

bool CachedRecord(int32_t serial, LX530CalData* out) {
    char name[64];
    std::snprintf(name, sizeof name, "/halvorn/cal_files/lx%08d.bin", serial);
    const std::string path = std::string(std::getenv("XDG_CACHE_HOME")) + name;
    return lxCalCorrectionLoadFromFile(path.c_str(), out);
}

std::string UtcText(int64_t seconds) {
    const time_t secs = static_cast<time_t>(seconds);
    tm utc{};
    gmtime_r(&secs, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

} // namespace e2e
