// Every export of the public headers with bad input: each call returns a
// listed status within 2.5 s, and a refused call changes no setting. An
// export without a row fails the first test.

#include <chrono>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "e2e_support.h"

namespace {

constexpr int32_t kSerial = 31000001;

struct Arg { int64_t i = 0; double d = 0; void* p = nullptr; };
using Args = std::vector<Arg>;

template <typename T>
T Conv(const Arg& a) {
    if constexpr (std::is_pointer_v<T>) return static_cast<T>(a.p);
    else if constexpr (std::is_floating_point_v<T>) return static_cast<T>(a.d);
    else if constexpr (std::is_same_v<T, bool>) return a.i != 0;
    else return static_cast<T>(a.i);
}

// The result as an integer: a status, a value, or whether a pointer came back.
template <typename R, typename... Ps, size_t... K>
int64_t Invoke(R (*fn)(Ps...), const Args& a, std::index_sequence<K...>) {
    if constexpr (std::is_void_v<R>) return fn(Conv<Ps>(a[K])...), 0;
    else if constexpr (std::is_pointer_v<R>) return fn(Conv<Ps>(a[K])...) != nullptr;
    else if constexpr (std::is_floating_point_v<R>) return std::isfinite(fn(Conv<Ps>(a[K])...));
    else return static_cast<int64_t>(fn(Conv<Ps>(a[K])...));
}

// Parameter kinds, one word each: h handle, b boot handle, p pointer that must
// not be null, o optional pointer, d number, e<lo>:<hi> enumeration, i
// integer, c count or capacity, u unsigned, s serial, t text. Flags after '|':
// v returns a value, not a status; n NaN is legal; z does nothing, returns 0.
struct Row {
    std::string name;
    size_t arity;
    std::function<int64_t(const Args&)> call;
    std::string kinds;
    std::string Params() const { return kinds.substr(0, kinds.find('|')); }
    bool Flag(char f) const { return kinds.find('|') != std::string::npos && kinds.find(f, kinds.find('|')) != std::string::npos; }
};

template <typename R, typename... Ps>
Row MakeRow(const char* name, R (*fn)(Ps...), const char* kinds) {
    return {name, sizeof...(Ps), [fn](const Args& a) { return Invoke(fn, a, std::index_sequence_for<Ps...>{}); }, kinds};
}
#define ROW(fn, kinds) MakeRow(#fn, &fn, kinds)

const std::vector<Row>& Rows() {
    static const std::vector<Row> rows = {
        ROW(lxGetErrorString, "e-101:6|v"),
        ROW(lxGetAPIVersion, "|v"),
        ROW(lxGetDeviceList, "o p"),
        ROW(lxGetDevicePersonality, "s p"),
        ROW(lxOpenDevice, "p"),
        ROW(lxOpenDeviceBySerial, "p s"),
        ROW(lxCloseDevice, "h"),
        ROW(lxPresetDevice, "h"),
        ROW(lxConfigure, "h e0:5"),
        ROW(lxAbort, "h"),
        ROW(lxGetCurrentMode, "h p"),
        ROW(lxSetRefLevel, "h d"),
        ROW(lxGetRefLevel, "h p"),
        ROW(lxSetAttenuator, "h i"),
        ROW(lxGetAttenuator, "h p"),
        ROW(lxSetSweepStartStop, "h d d"),
        ROW(lxSetSweepCenterSpan, "h d d"),
        ROW(lxSetSweepCoupling, "h d d d"),
        ROW(lxSetSweepDetector, "h e0:1 e0:3"),
        ROW(lxSetSweepScale, "h e0:2"),
        ROW(lxSetSweepWindow, "h e0:5"),
        ROW(lxSetSweepGPIOSwitching, "h o o c"),
        ROW(lxSetSweepGPIOSwitchingDisabled, "h"),
        ROW(lxGetSweepParameters, "h o o o o o"),
        ROW(lxGetSweep, "h o o o"),
        ROW(lxSetRealTimeCenterSpan, "h d d"),
        ROW(lxSetRealTimeRBW, "h d"),
        ROW(lxSetRealTimeDetector, "h e0:1"),
        ROW(lxSetRealTimeScale, "h e0:2 d d"),
        ROW(lxSetRealTimeWindow, "h e0:5"),
        ROW(lxGetRealTimeParameters, "h o o o o o o o"),
        ROW(lxGetRealTimeFrame, "h o o o o o o"),
        ROW(lxSetIQSweepListDataType, "h e0:1"),
        ROW(lxSetIQSweepListCorrected, "h i"),
        ROW(lxSetIQSweepListSteps, "h i"),
        ROW(lxGetIQSweepListSteps, "h p"),
        ROW(lxSetIQSweepListFreq, "h i d"),
        ROW(lxSetIQSweepListRef, "h i d"),
        ROW(lxSetIQSweepListAtten, "h i i"),
        ROW(lxSetIQSweepListSampleCount, "h i u"),
        ROW(lxIQSweepListGetCorrections, "h p"),
        ROW(lxIQSweepListStartSweep, "h e0:15 p o"),
        ROW(lxIQSweepListFinishSweep, "h e0:15"),
        ROW(lxIQSweepListGetSweep, "h p o"),
        ROW(lxSetIQDataType, "h e0:1"),
        ROW(lxSetIQCenterFreq, "h d"),
        ROW(lxGetIQCenterFreq, "h p|z"),
        ROW(lxSetIQSampleRate, "h i"),
        ROW(lxSetIQSoftwareFilter, "h i"),
        ROW(lxSetIQBandwidth, "h d"),
        ROW(lxSetIQTriggerSentinel, "d|n"),
        ROW(lxSetIQExtTriggerEdge, "h i"),
        ROW(lxSetIQQueueSize, "h i"),
        ROW(lxGetIQParameters, "h o o"),
        ROW(lxGetIQCorrection, "h p"),
        ROW(lxGetIQ, "h p c o c o i o o"),
        ROW(lxSetAudioCenterFreq, "h d"),
        ROW(lxSetAudioType, "h e0:4"),
        ROW(lxSetAudioFilters, "h d d d"),
        ROW(lxSetAudioFMDeemphasis, "h d"),
        ROW(lxGetAudioSettings, "h o o o o o o"),
        ROW(lxGetAudio, "h p"),
        ROW(lxSetPowerState, "h u"),
        ROW(lxGetPowerState, "h p"),
        ROW(lxGetSerialNumber, "h p"),
        ROW(lxGetFirmwareVersion, "h o o o"),
        ROW(lxGetCalDate, "h p"),
        ROW(lxGetDeviceDiagnostics, "h o o o"),
        ROW(lxSetReference, "h u"),
        ROW(lxGetReference, "h p"),
        ROW(lxSetGPIOPort, "h u"),
        ROW(lxGetGPIOPort, "h p"),
        ROW(lxSetUARTBaudRate, "h d"),
        ROW(lxGetUARTBaudRate, "h p"),
        ROW(lxWriteUARTDirect, "h u"),
        ROW(lxSetGPSTimebaseUpdate, "h u"),
        ROW(lxGetGPSTimebaseUpdate, "h p"),
        ROW(lxGetGPSHoldoverInfo, "h o o"),
        ROW(lxGetGPSState, "h p"),
        ROW(lxGetGPSInfo, "h i o o o o o o o"),
        ROW(lxWriteToGPS, "h p c"),
        ROW(lxSetFanSetPoint, "h d"),
        ROW(lxGetFanSettings, "h o o"),
        ROW(lxGetStreamHealth, "h p"),
        ROW(lxCalCorrectionLoadFromFile, "t o|v"),
        ROW(lxCalBuildDummyCorrections, "o|v"),
        ROW(lxCalGetCorrectionCalDate, "o|v"),
        ROW(lxCalGetTempFromIndex, "i|v"),
        ROW(lxCalPropagateSingleTempCal, "o i i|v"),
        ROW(kdCalDoesCorrectionsExist, "o|v"),
        ROW(lxAdminGetTempRange, "h p"),
        ROW(lxAdminHasDithering, "h p"),
        ROW(lxAdminSetCorrectionMode, "h e0:1"),
        ROW(lxAdminSetCorrectionIndex, "h i"),
        ROW(lxAdminManualLoadCorrections, "h p"),
        ROW(lxAdminDeviceHasCorrections, "h p"),
        ROW(lxAdminGetCoarseTuneVal, "h p"),
        ROW(lxAdminSetCoarseTuneVal, "h u"),
        ROW(lxBootStrap, "p t"),
        ROW(lxBootOpenDevice, "p"),
        ROW(lxBootOpenDeviceBySerial, "p s"),
        ROW(lxBootCloseDevice, "b"),
        ROW(lxBootGetSerial, "b p"),
        ROW(lxBootReadFlashPage, "b u p"),
        ROW(lxBootWriteFlashPage, "b u p"),
        ROW(lxBootClearFlashPage, "b u"),
        ROW(lxBootClearBootSector, "b"),
        ROW(lxBootClearRunSector, "b"),
        ROW(lxBootClearFPGAProgram, "b o"),
        ROW(lxBootClearCorrections, "b o"),
        ROW(lxBootWriteFPGAProgram, "b t o"),
        ROW(lxBootWriteCorrections, "b p o"),
        ROW(lxBootWriteRunSector, "b t s"),
        ROW(lxBootWriteBootSector, "b t s"),
        ROW(lxAdminGetFullBandIQ, "h d p"),
        ROW(lxSimAttach, "s t"),
        ROW(lxSimAttachRomLoader, "s t"),
        ROW(lxSimDetach, "s"),
        ROW(lxSimSetScene, "s t"),
        ROW(lxSimGetSceneError, "o c"),
        ROW(lxSimAttachRaw, "t t t p"),
        ROW(lxSimDetachId, "i"),
        ROW(lxSimDetachAll, ""),
        ROW(lxSimInjectFault, "s e0:14 i"),
        ROW(lxSimGetCounters, "s p"),
        ROW(lxSimResetCounters, "s"),
        ROW(lxSimGetPersonality, "s p"),
        ROW(lxSimGetVirtualTimeMs, "p"),
        ROW(lxSimGetCommandLog, "s o c p"),
        ROW(lxSimClearCommandLog, "s"),
        ROW(lxSimGetGpsInput, "s o c p"),
        ROW(lxSimAdvanceTimeMs, "u"), // last: it moves the clock every analyzer runs on
    };
    return rows;
}

// The names the headers declare: each declaration starts a line with LX_API.
std::set<std::string> HeaderExports() {
    std::set<std::string> names;
    for (const char* header : {"/include/lx_api.h", "/include/lx_sim.h"}) {
        std::ifstream in(std::string(LX_TEST_SOURCE_DIR) + header);
        for (std::string line; std::getline(in, line);) {
            const size_t paren = line.find('(');
            if (line.rfind("LX_API ", 0) != 0 || paren == std::string::npos) continue;
            const size_t begin = line.find_last_of(" *", paren - 1);
            names.insert(line.substr(begin + 1, paren - begin - 1));
        }
    }
    return names;
}

bool Listed(int64_t s) { return (s >= -11 && s <= 6) || s == -100 || s == -101; }

std::vector<std::string> Words(const std::string& s) {
    std::istringstream in(s);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

// Everything a refused call must leave alone, as the getters report it.
std::vector<double> Take(int32_t h) {
    std::vector<double> s;
    auto add = [&](LxStatus st, std::initializer_list<double> v) { s.push_back(st), s.insert(s.end(), v); };
    double d1 = 0, d2 = 0, d3 = 0, d4 = 0, d5 = 0;
    int32_t i1 = 0, i2 = 0, i3 = 0;
    uint32_t u = 0;
    float f = 0;
    uint16_t tune = 0;
    add(lxGetCurrentMode(h, &i1), {double(i1)});
    add(lxGetRefLevel(h, &d1), {d1});
    add(lxGetAttenuator(h, &i1), {double(i1)});
    add(lxGetSweepParameters(h, &d1, &d2, &d3, &d4, &i1), {d1, d2, d3, d4, double(i1)});
    add(lxGetRealTimeParameters(h, &d1, &i1, &d2, &d3, &i2, &i3, &d4), {d1, double(i1), d2, d3, double(i2), double(i3), d4});
    add(lxGetIQParameters(h, &d1, &d2), {d1, d2});
    add(lxGetIQSweepListSteps(h, &i1), {double(i1)});
    add(lxGetAudioSettings(h, &d1, &i1, &d2, &d3, &d4, &d5), {d1, double(i1), d2, d3, d4, d5});
    add(lxGetPowerState(h, &u), {double(u)});
    add(lxGetReference(h, &u), {double(u)});
    add(lxGetGPIOPort(h, &u), {double(u)});
    add(lxGetUARTBaudRate(h, &f), {double(f)});
    add(lxGetGPSTimebaseUpdate(h, &u), {double(u)});
    add(lxAdminGetCoarseTuneVal(h, &tune), {double(tune)});
    return s;
}

class BadInput : public e2e::SimTest {};

TEST_F(BadInput, EveryExportHasARowAndEveryRowMatchesItsExport) {
    std::set<std::string> rows;
    for (const Row& r : Rows()) {
        rows.insert(r.name);
        EXPECT_EQ(Words(r.Params()).size(), r.arity) << r.name << ": kinds \"" << r.kinds << "\"";
    }
    const std::set<std::string> exports = HeaderExports();
    for (const auto& name : exports) EXPECT_TRUE(rows.count(name)) << name << " has no row";
    for (const auto& name : rows) EXPECT_TRUE(exports.count(name)) << name << " is not in the headers";
}

TEST_F(BadInput, EveryCallReturnsAListedStatusAndARefusalChangesNothing) {
    const int32_t h = AttachAndOpen(kSerial);
    ASSERT_EQ(h, 0);
    // A handle that was open and is closed now, and one never opened.
    const int32_t closed = AttachAndOpen(kSerial + 1), neverOpened = 7;
    ASSERT_EQ(lxCloseDevice(closed), lxNoError);
    // Generous, separate buffers: a call's output lands in its own.
    std::vector<std::vector<uint8_t>> buffers(9, std::vector<uint8_t>(sizeof(LX530CalData) + 4096));
    const double kNan = std::numeric_limits<double>::quiet_NaN(), kInf = std::numeric_limits<double>::infinity();
    constexpr int64_t kMin = std::numeric_limits<int32_t>::min(), kMax = std::numeric_limits<int32_t>::max();
    using Ok = std::function<bool(int64_t)>;
    const Ok listed = Listed, refused = [](int64_t s) { return Listed(s) && s < 0; };
    const auto is = [](int64_t want) -> Ok { return [want](int64_t s) { return s == want; }; };

    for (const Row& row : Rows()) {
        const std::vector<std::string> kinds = Words(row.Params());
        if (kinds.size() != row.arity) continue; // reported by the test above
        const bool boot = row.Params().find('b') != std::string::npos;
        Args base(kinds.size());
        for (size_t k = 0; k < kinds.size(); ++k) {
            const std::string& kind = kinds[k];
            if (kind == "h") base[k].i = h;
            else if (kind == "p" || kind == "o") base[k].p = buffers[k].data();
            else if (kind == "t") base[k].p = const_cast<char*>("");
            else if (kind == "s") base[k].i = kSerial;
            else if (kind == "d") base[k].d = 1e6;
            else if (kind[0] == 'e') base[k].i = std::stoll(kind.substr(1));
            else if (kind == "c") base[k].i = 16;
            else if (kind != "b") base[k].i = 1;
        }
        struct Variant { Args args; std::string what; Ok ok; bool mayChange; };
        std::vector<Variant> variants;
        for (size_t k = 0; k < kinds.size(); ++k) {
            const std::string& kind = kinds[k];
            auto with = [&](auto set, const std::string& what, Ok ok, bool mayChange = true) {
                Args a = base;
                set(a[k]);
                variants.push_back({a, "argument " + std::to_string(k) + " " + what, ok, mayChange});
            };
            auto ints = [&](std::initializer_list<int64_t> vs, const std::string& what, Ok ok, bool mayChange = true) {
                for (int64_t v : vs) with([v](Arg& a) { a.i = v; }, what + " " + std::to_string(v), ok, mayChange);
            };
            if (kind == "h") {
                ints({-1, 9, closed, neverOpened, 1000, kMin}, "handle", is(lxInvalidDeviceErr), false);
                // The handle is checked before anything else.
                Args a(kinds.size());
                for (size_t j = 0; j < kinds.size(); ++j) a[j].d = kNan, a[j].i = j == k ? -1 : kMin;
                variants.push_back({a, "handle -1 with every other argument bad", is(lxInvalidDeviceErr), false});
            } else if (kind == "b") {
                ints({-1, 1, 9}, "boot handle", refused, false);
            } else if (kind == "p") {
                // Boot calls check the slot first: with none, that is the status.
                with([](Arg& a) { a.p = nullptr; }, "null", boot ? refused : is(lxNullPtrErr), false);
            } else if (kind == "o" || kind == "t") {
                with([](Arg& a) { a.p = nullptr; }, "null", listed);
            } else if (kind == "d") {
                with([&](Arg& a) { a.d = kNan; }, "NaN", row.Flag('n') ? listed : refused, row.Flag('n'));
                for (double v : {kInf, -kInf, 0.0, -1e300, 1e300}) with([v](Arg& a) { a.d = v; }, std::to_string(v), listed);
            } else if (kind[0] == 'e') {
                const auto colon = kind.find(':');
                // Setters refuse the value itself; other calls may first refuse
                // the mode they are called in.
                const bool setter = row.name.rfind("lxSet", 0) == 0 || row.name.rfind("lxAdminSet", 0) == 0;
                ints({std::stoll(kind.substr(1, colon - 1)) - 1, std::stoll(kind.substr(colon + 1)) + 1}, "enumeration",
                     row.Flag('v') ? Ok([](int64_t) { return true; }) : setter ? is(lxInvalidParameterErr) : refused, false);
            } else if (kind == "c") {
                ints({0, -1, kMin}, "count", listed);
            } else if (kind == "i" || kind == "u" || kind == "s") {
                ints({0, -1, kMin, kMax, 1000000000}, "", listed);
            }
        }

        for (const Variant& v : variants) {
            const std::vector<double> before = Take(h);
            const auto t0 = std::chrono::steady_clock::now();
            const int64_t s = row.call(v.args);
            const std::string where = row.name + ", " + v.what + ": returned " + std::to_string(s);
            EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(2500)) << where;
            if (!row.Flag('v')) {
                EXPECT_TRUE(row.Flag('z') ? s == 0 : v.ok(s)) << where;
                if (s < 0 || !v.mayChange) {
                    EXPECT_EQ(Take(h), before) << where << ": a refused call changed a setting";
                }
            }
            // Whatever happened, the analyzer still answers and nothing was
            // left running.
            uint32_t serial = 0;
            ASSERT_EQ(lxGetSerialNumber(h, &serial), lxNoError) << where;
            lxAbort(h);
            lxSimInjectFault(kSerial, 0, 0);
            for (int32_t other = 1; other < 9; ++other) lxCloseDevice(other);
            lxBootCloseDevice(0);
        }
    }
}

// A heap buffer of exactly the length an export's comment gives, then a guard,
// all filled with a pattern: a call may write its whole length and nothing
// past it (ASan sees the heap; this guard catches it in every build).
template <typename T>
class Exact {
public:
    explicit Exact(size_t n) : n_(n), bytes_((n + 64) * sizeof(T), kPattern) {}
    T* get() { return reinterpret_cast<T*>(bytes_.data()); }
    bool WroteLast() const { return !Untouched(n_ - 1, n_); }
    bool WrotePast() const { return !Untouched(n_, n_ + 64); }

private:
    static constexpr uint8_t kPattern = 0xA5;
    bool Untouched(size_t from, size_t to) const {
        return std::all_of(bytes_.begin() + std::ptrdiff_t(from * sizeof(T)), bytes_.begin() + std::ptrdiff_t(to * sizeof(T)),
                           [](uint8_t b) { return b == kPattern; });
    }
    size_t n_;
    std::vector<uint8_t> bytes_;
};

template <typename... B>
void ExpectExactlyFilled(const char* what, const B&... buffers) {
    int k = 0;
    for (const bool ok : {(buffers.WroteLast() && !buffers.WrotePast())...})
        EXPECT_TRUE(ok) << what << ", buffer " << k++;
}

// Every export that fills an array the caller sized from the documentation:
// whole, and not a byte beyond. Lengths that are not a whole packet or block
// of the device's are the ones that would show a copy rounded up.
TEST_F(BadInput, BuffersOfTheDocumentedLengthAreFilledAndNotOverrun) {
    Open(kSerial, e2e::SceneOf({{1.0001e9, -30.0}}));

    ASSERT_EQ(lxSetSweepCenterSpan(h, 1e9, 20e6), lxNoError);
    ASSERT_EQ(lxConfigure(h, lxModeSweep), lxNoError);
    int32_t length = 0;
    ASSERT_EQ(lxGetSweepParameters(h, nullptr, nullptr, nullptr, nullptr, &length), lxNoError);
    Exact<float> sweepMin{size_t(length)}, sweepMax{size_t(length)};
    ASSERT_TRUE(e2e::Delivered(lxGetSweep(h, sweepMin.get(), sweepMax.get(), nullptr)));
    ExpectExactlyFilled("sweep", sweepMin, sweepMax);

    ASSERT_EQ(lxConfigure(h, lxModeRealTime), lxNoError);
    int32_t width = 0, height = 0;
    ASSERT_EQ(lxGetRealTimeParameters(h, nullptr, &length, nullptr, nullptr, &width, &height, nullptr), lxNoError);
    const size_t cells = size_t(width) * size_t(height);
    Exact<float> frame{cells}, alpha{cells}, rtMin{size_t(length)}, rtMax{size_t(length)};
    ASSERT_TRUE(e2e::Delivered(lxGetRealTimeFrame(h, frame.get(), alpha.get(), rtMin.get(), rtMax.get(), nullptr, nullptr)));
    ExpectExactlyFilled("real-time frame", frame, alpha, rtMin, rtMax);

    const uint32_t steps[] = {2048, 1000, 4095};
    ASSERT_EQ(lxSetIQSweepListSteps(h, 3), lxNoError);
    for (int32_t s = 0; s < 3; ++s) ASSERT_EQ(lxSetIQSweepListSampleCount(h, s, steps[s]), lxNoError);
    for (const int32_t type : {0, 1}) {
        ASSERT_EQ(lxSetIQSweepListDataType(h, type), lxNoError);
        ASSERT_EQ(lxConfigure(h, lxModeIQSweepList), lxNoError);
        Exact<uint8_t> pass((2048 + 1000 + 4095) * (type == 0 ? 8u : 4u));
        Exact<uint64_t> stamps(3);
        Exact<float> corrections(3);
        ASSERT_TRUE(e2e::Delivered(lxIQSweepListGetSweep(h, pass.get(), stamps.get())));
        ASSERT_EQ(lxIQSweepListGetCorrections(h, corrections.get()), lxNoError);
        ExpectExactlyFilled(type == 0 ? "sweep list, float" : "sweep list, int16", pass, stamps, corrections);
    }

    for (const int32_t type : {0, 1}) {
        ASSERT_EQ(lxSetIQDataType(h, type), lxNoError);
        ASSERT_EQ(lxSetIQSampleRate(h, 64), lxNoError);
        ASSERT_EQ(lxConfigure(h, lxModeIQ), lxNoError);
        Exact<uint8_t> iq(1001 * (type == 0 ? 8u : 4u));
        Exact<double> triggers(1);
        ASSERT_TRUE(e2e::Delivered(lxGetIQ(h, iq.get(), 1001, triggers.get(), 1, nullptr, 0, nullptr, nullptr)));
        ExpectExactlyFilled(type == 0 ? "I/Q, float" : "I/Q, int16", iq, triggers);
    }

    ASSERT_EQ(lxConfigure(h, lxModeAudio), lxNoError);
    Exact<float> audio(1000);
    ASSERT_TRUE(e2e::Delivered(lxGetAudio(h, audio.get())));
    ExpectExactlyFilled("audio", audio);

    Exact<float> band(16384);
    ASSERT_EQ(lxAdminGetFullBandIQ(h, 1e9, band.get()), lxNoError);
    ExpectExactlyFilled("full-band I/Q", band);

    // A list shorter than the analyzers attached: as many as it holds.
    ASSERT_EQ(lxSimAttach(kSerial + 1, nullptr), lxNoError);
    ASSERT_EQ(lxSimAttach(kSerial + 2, nullptr), lxNoError);
    Exact<int32_t> serials(2);
    int32_t count = 2;
    ASSERT_EQ(lxGetDeviceList(serials.get(), &count), lxNoError);
    EXPECT_EQ(count, 2);
    ExpectExactlyFilled("device list", serials);

    ASSERT_EQ(lxCloseDevice(h), lxNoError);
    h = -1;
    int32_t boot = -1;
    ASSERT_EQ(lxBootOpenDeviceBySerial(&boot, kSerial), lxNoError);
    Exact<uint8_t> flash(32768);
    ASSERT_EQ(lxBootReadFlashPage(boot, 4096, flash.get()), lxNoError);
    ExpectExactlyFilled("flash read", flash);
    EXPECT_EQ(lxBootCloseDevice(boot), lxNoError);
}

} // namespace
