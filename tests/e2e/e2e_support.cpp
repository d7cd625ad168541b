#include "e2e_support.h"

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

double Pace(double want) {
    const char* v = std::getenv("LX_SIM_PACE_RATE");
    const double cap = v != nullptr && *v != '\0' ? std::atof(v) : 1.0;
    return cap >= 0.1 && cap < want ? cap : want;
}

std::string PaceKey(double want) { return ", \"pace_rate\": " + std::to_string(Pace(want)); }

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

std::string CacheFile(int32_t serial, const char* suffix) {
    char name[64];
    std::snprintf(name, sizeof name, "/halvorn/cal_files/lx%08d%s.bin", serial, suffix);
    return std::string(std::getenv("XDG_CACHE_HOME")) + name;
}

bool CachedRecord(int32_t serial, LX530CalData* out) { return lxCalCorrectionLoadFromFile(CacheFile(serial).c_str(), out); }

std::string UtcText(int64_t seconds) {
    const time_t secs = static_cast<time_t>(seconds);
    tm utc{};
    gmtime_r(&secs, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

} // namespace e2e
