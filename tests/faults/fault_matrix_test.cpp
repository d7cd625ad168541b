// Each transport fault, injected at open, at configure or into a running
// measurement of every mode: every call returns in time with a documented
// status, a persisting fault is reported and never followed by data passed as
// good, the analyzer measures again once it is gone, and no engine thread
// outlives its handle.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"

namespace {

constexpr int32_t kSerial = 41000901;
// The transfer time-out (2 s) and a set-up, with room for a loaded machine:
// a hang, not a speed, is what this catches.
constexpr auto kCallBound = std::chrono::milliseconds(5000);

std::string Threads() {
    std::string out, name;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        if (std::getline(std::ifstream(task.path() / "comm"), name)) out += name + "\n";
    return out;
}

int ThreadCount() {
    const std::string t = Threads();
    return static_cast<int>(std::count(t.begin(), t.end(), '\n'));
}

bool Documented(LxStatus s) {
    // lxGetErrorString names every status of the table and only those.
    return std::strcmp(lxGetErrorString(s), lxGetErrorString(static_cast<LxStatus>(-999))) != 0;
}

// One measurement mode: its settings, its configure and one result call.
struct Activity {
    const char* name;
    std::function<void(int32_t)> set;
    int32_t mode;
    std::function<LxStatus(int32_t)> read;
};

std::vector<float> a(1 << 20), b(1 << 20), c(1 << 20);

const Activity kActivities[] = {
    {"sweep", [](int32_t h) { lxSetSweepStartStop(h, 990e6, 1010e6), lxSetSweepCoupling(h, 100e3, 100e3, 1e-3); },
     lxModeSweep, [](int32_t h) { return lxGetSweep(h, a.data(), b.data(), nullptr); }},
    {"realtime", [](int32_t h) { lxSetRealTimeCenterSpan(h, 1e9, 20e6), lxSetRealTimeRBW(h, 100e3); },
     lxModeRealTime, [](int32_t h) {
         int32_t n = 0;
         return lxGetRealTimeFrame(h, c.data(), nullptr, a.data(), b.data(), &n, nullptr);
     }},
    {"iq", [](int32_t h) { lxSetIQCenterFreq(h, 1e9), lxSetIQSampleRate(h, 8); }, lxModeIQ,
     [](int32_t h) { return lxGetIQ(h, a.data(), 65536, nullptr, 0, nullptr, 0, nullptr, nullptr); }},
    {"list", [](int32_t h) {
         lxSetIQSweepListSteps(h, 2), lxSetIQSweepListFreq(h, 0, 1e9), lxSetIQSweepListFreq(h, 1, 2e9);
         lxSetIQSweepListSampleCount(h, 0, 16384), lxSetIQSweepListSampleCount(h, 1, 16384);
     },
     lxModeIQSweepList, [](int32_t h) { return lxIQSweepListGetSweep(h, a.data(), nullptr); }},
    {"audio", [](int32_t h) { lxSetAudioCenterFreq(h, 1e9), lxSetAudioType(h, lxAudioAM); }, lxModeAudio,
     [](int32_t h) { return lxGetAudio(h, a.data()); }},
};

enum class When { Open, Configure, Running };

struct Fault {
    const char* name;
    int32_t fault; // 0: an unplug
    int32_t count;
    LxStatus running; // what a running measurement reports (lxNoError: not checked)
};

const Fault kFaults[] = {
    {"unplug", 0, 0, lxNoError},
    {"stall", lxSimFaultStall, -1, lxNoError},
    {"no_answer", lxSimFaultNoAnswer, -1, lxNoError},
    {"short_transfer", lxSimFaultShortTransfer, 1, lxConnectionLostErr},
    {"bad_magic", lxSimFaultBadMagic, 1, lxFramingErr},
    {"out_stall", lxSimFaultOutStall, 1, lxNoError},
};

struct Case { Fault fault; int activity; When when; };

std::string Name(const ::testing::TestParamInfo<Case>& i) {
    static const char* const kWhen[] = {"at_open", "at_configure", "running"};
    return std::string(i.param.fault.name) + "_" + kActivities[i.param.activity].name + "_" +
           kWhen[static_cast<int>(i.param.when)];
}

// Paced at half the real rate: an instrumented host still measures cleanly
// between faults.
class FaultMatrix : public ::testing::TestWithParam<Case> {
protected:
    void TearDown() override { lxSimDetachAll(); }
    static std::string Scene() {
        return R"({"noise_floor_dbm_hz": -150, "pacing": "realtime")" + e2e::PaceKey(0.5) +
               R"(, "emitters": [{"kind": "tone", "frequency_hz": 1.0001e9, "power_dbm": -30}]})";
    }

    // The process's threads once an analyzer has been open and one not there
    // looked for (libusb's context and hotplug thread live on).
    static int Baseline() {
        static const int n = [] {
            int32_t h = -1;
            lxSimAttach(kSerial, Scene().c_str());
            if (lxOpenDeviceBySerial(&h, kSerial) >= 0) lxCloseDevice(h);
            lxSimDetach(kSerial);
            lxOpenDeviceBySerial(&h, kSerial);
            return ThreadCount();
        }();
        return n;
    }
    bool faulty = false; // calls are timed while a fault is active
    std::chrono::steady_clock::duration longest{};

    LxStatus Timed(const std::function<LxStatus()>& call, const char* what) {
        const auto t0 = std::chrono::steady_clock::now();
        const LxStatus s = call();
        if (faulty) {
            const auto took = std::chrono::steady_clock::now() - t0;
            longest = std::max(longest, took);
            EXPECT_LT(took, kCallBound) << what << " returned " << s;
        }
        EXPECT_TRUE(Documented(s)) << what << " returned " << s;
        return s;
    }
    void Inject(const Fault& f) {
        faulty = true;
        ASSERT_EQ(f.fault == 0 ? lxSimDetach(kSerial) : lxSimInjectFault(kSerial, f.fault, f.count), lxNoError);
    }
    void Clear(const Fault& f) {
        faulty = false;
        ASSERT_EQ(f.fault == 0 ? lxSimAttach(kSerial, Scene().c_str()) : lxSimInjectFault(kSerial, lxSimFaultNone, 0),
                  lxNoError);
    }
    // Reads until a clean result: a fresh stream may start with a warning.
    LxStatus Measure(int32_t h, const Activity& act) {
        act.set(h);
        LxStatus s = Timed([&] { return lxConfigure(h, act.mode); }, "configure");
        for (int i = 0; i < 20 && s >= 0; ++i)
            if ((s = Timed([&] { return act.read(h); }, act.name)) == lxNoError) break;
        return s;
    }
};

TEST_P(FaultMatrix, EveryCallReturnsAndTheAnalyzerComesBack) {
    const Case& k = GetParam();
    const Activity& act = kActivities[k.activity];
    const bool persists = k.fault.count < 0 || k.fault.fault == 0;
    const int threads = Baseline();
    ASSERT_EQ(lxSimAttach(kSerial, Scene().c_str()), lxNoError);

    int32_t h = -1;
    LxStatus s = lxNoError;
    if (k.when == When::Open) Inject(k.fault);
    s = Timed([&] { return lxOpenDeviceBySerial(&h, kSerial); }, "open");
    if (s >= 0) {
        if (k.when == When::Running) {
            ASSERT_EQ(Measure(h, act), lxNoError);
        }
        if (k.when != When::Open) Inject(k.fault);
        s = k.when == When::Running ? lxNoError : Measure(h, act);
        bool failed = s < 0;
        for (int i = 0; i < 40 && s >= 0 && !failed; ++i) failed = (s = Timed([&] { return act.read(h); }, act.name)) < 0;
        RecordProperty("reported", s);
        if (k.when == When::Running && k.fault.running != lxNoError) {
            EXPECT_EQ(s, k.fault.running);
        }
        if (persists) {
            EXPECT_TRUE(failed) << "a persistent fault was never reported";
            if (failed) {
                EXPECT_LT(Timed([&] { return act.read(h); }, act.name), 0) << "data after the link failed";
            }
        }
        EXPECT_EQ(Timed([&] { return lxCloseDevice(h); }, "close"), lxNoError);
    } else {
        EXPECT_TRUE(persists || k.fault.fault == lxSimFaultOutStall) << "open failed on " << k.fault.name << ": " << s;
        EXPECT_LT(h, 0);
    }

    RecordProperty("longest_call_ms",
                   static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(longest).count()));

    Clear(k.fault);
    h = -1;
    ASSERT_EQ(lxOpenDeviceBySerial(&h, kSerial), lxNoError);
    EXPECT_EQ(Measure(h, act), lxNoError);
    EXPECT_EQ(lxCloseDevice(h), lxNoError);
    ASSERT_EQ(lxSimDetach(kSerial), lxNoError);
    for (int i = 0; i < 100 && ThreadCount() > threads; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(ThreadCount(), threads) << "threads outlived the handle:\n" << Threads();
}

std::vector<Case> Cases() {
    std::vector<Case> out;
    for (const Fault& f : kFaults) {
        out.push_back({f, 0, When::Open});
        for (int a = 0; a < static_cast<int>(std::size(kActivities)); ++a) {
            out.push_back({f, a, When::Running});
            if (f.count != 1 || f.fault == lxSimFaultOutStall) out.push_back({f, a, When::Configure});
        }
    }
    return out;
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultMatrix, ::testing::ValuesIn(Cases()), Name);

} // namespace
