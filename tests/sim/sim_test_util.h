// Helpers for driving a simulated LX530 the way a host does: through the
// backend interface only, with command words written out by hand.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../common/python_reference.h"
#include "../support/sim_readings.h"
#include "cal/correction.h"
#include "lx_command/encoders.h"
#include "lx_sim.h"
#include "sim/factory_image.h"
#include "sim/sim_backend.h"

namespace simtest {

using lx::usb::Endpoint;
using lx::usb::UsbDevice;
using lx::usb::WaitResult;

inline lx::usb::UsbBackend& Bus() { return lx::sim::Backend(); }

// Opens the enumerated device whose serial string is `serial`; null if absent.
inline std::unique_ptr<UsbDevice> Open(int32_t serial) {
    for (int i = 0, n = Bus().DeviceCount(); i < n; ++i)
        if (auto d = Bus().Open(i); d && d->Identity().serial == std::to_string(serial)) return d;
    return nullptr;
}

inline std::vector<std::string> EnumeratedSerials() {
    std::vector<std::string> out;
    for (int i = 0, n = Bus().DeviceCount(); i < n; ++i)
        if (auto d = Bus().Open(i)) out.push_back(d->Identity().serial);
    return out;
}

// Words as one or more 512-word blocks, the rest filled with 0x00000001.
inline bool Send(UsbDevice& d, const std::vector<uint32_t>& words) {
    for (size_t at = 0; at < words.size() || at == 0; at += 512) {
        std::vector<uint8_t> block(2048);
        for (size_t i = 0; i < 512; ++i) {
            const uint32_t w = at + i < words.size() ? words[at + i] : 0x00000001u;
            for (int b = 0; b < 4; ++b) block[4 * i + b] = static_cast<uint8_t>(w >> (8 * b));
        }
        auto t = d.BeginBulk(Endpoint::BulkOut, block.data(), 2048);
        if (d.WaitBulk(*t, 2000) != WaitResult::Completed || d.FinishBulk(*t) != 2048) return false;
        if (words.size() <= at + 512) break;
    }
    return true;
}

struct ReadResult {
    WaitResult wait = WaitResult::Failed;
    std::vector<uint8_t> data; // the bytes moved (FinishBulk's count)
};

// One IN transfer; on a time-out it is aborted and finished as a host does.
inline ReadResult Read(UsbDevice& d, uint32_t length, uint32_t timeoutMs = 500) {
    ReadResult r;
    r.data.resize(length);
    auto t = d.BeginBulk(Endpoint::BulkIn, r.data.data(), length);
    r.wait = d.WaitBulk(*t, timeoutMs);
    if (r.wait == WaitResult::TimedOut) {
        d.AbortEndpoint(Endpoint::BulkIn);
        d.WaitBulk(*t, 2000);
    }
    r.data.resize(d.FinishBulk(*t));
    return r;
}

// The transfer-request word and its four companions.
inline std::vector<uint32_t> Request(uint32_t iq, uint32_t aux) {
    return {0x31000000u | (iq == 0 ? 0x800u : 0u) | (aux << 8) | iq, 0x14000001u, 0x01000000u, 0x01000000u,
            0x01000000u};
}

inline uint32_t U32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }
inline uint16_t U16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
inline uint64_t U64(const uint8_t* p) { return U32(p) | static_cast<uint64_t>(U32(p + 4)) << 32; }

// A scene of one tone over the noise floor.
inline std::string ToneScene(double hz, double dbm, double noise = -170) {
    return R"({"noise_floor_dbm_hz": )" + std::to_string(noise) + R"(, "emitters": [{"kind": "tone", "frequency_hz": )" +
           std::to_string(hz) + R"(, "power_dbm": )" + std::to_string(dbm) + "}]}";
}

constexpr double kFs = 61.44e6;

// Grid rows: LO = row tuning frequency, capture centre = row centre.
inline double RowLo(int row) { return row <= 1 ? 61.44e6 : row * 30.72e6; } // rows used here are 1 and >= 11
inline double RowCentre(int row) { return row <= 1 ? 23.04e6 : RowLo(row) - 23.04e6; }

// The host's temperature bracket over the factory record's slot temperatures
// (-30 to 60 degrees in steps of 15).
inline lx::CalBracket FactoryBracket(double tempC) {
    const double slots = (tempC + 30.0) / 15.0;
    if (slots <= 0.0) return {0, 0.0f};
    if (slots >= 6.0) return {5, 1.0f};
    const int k = static_cast<int>(slots);
    return {k, static_cast<float>(slots - k)};
}

// A calibrated instrument with the factory's calibration record (the record
// read through the boot loader: tests/usb, tests/usb_umockdev).
struct Instrument {
    std::unique_ptr<UsbDevice> dev;
    std::vector<uint8_t> cal;
    uint16_t tuneWord = 0; // the record's tune value plus its offset at 25 degrees

    // The equaliser the host sends for a grid row, and the step gain that
    // goes with it (amplitude table plus the equaliser's level term).
    lx::StepCorrection Equaliser(int stepIndex) const {
        return lx::BuildStepCorrection(cal.data(), FactoryBracket(25.0), stepIndex, lx::FineCell(RowCentre(stepIndex)));
    }
    double Correction(int attenStep, int stepIndex) const {
        return lx::StepGainDb(cal.data(), FactoryBracket(25.0), attenStep, stepIndex, Equaliser(stepIndex));
    }
};

inline Instrument Bring(int32_t serial, const std::string& scene) {
    Instrument in;
    in.cal = lx::sim::BuildFactoryCalRecord();
    EXPECT_EQ(lxSimAttach(serial, scene.c_str()), lxNoError);
    in.dev = Open(serial);
    EXPECT_NE(in.dev, nullptr);
    int last = 0;
    while (last < 63 && U16(&in.cal[32 + 2 * (last + 1)]) != 0xFFFF) ++last;
    const auto offset = [&](int s) { return static_cast<int16_t>(U16(&in.cal[672 + 2 * s])); };
    const double off = offset(3) + (25.0 - 15.0) / 15.0 * (offset(4) - offset(3));
    in.tuneWord = static_cast<uint16_t>(U16(&in.cal[32 + 2 * last]) + static_cast<int>(off));
    return in;
}

// Words that tune to grid row `row` (LO = row tuning frequency, capture
// centre = row centre), as the host's encoders write them.
inline std::vector<uint32_t> TuneWords(int row, uint8_t ifLevel = 4, uint32_t gainField = 0) {
    lx::TuningState st;
    uint32_t w[lx::kTuneMaxWords];
    return {w, w + lx::EncodeTune(st, w, RowLo(row), RowCentre(row), ifLevel, gainField, 24, false)};
}

// The row's tune words with attenuation step `atten` and the record's IF
// level, then its equaliser taps, the tune word and a request.
inline std::vector<uint32_t> TuneAndCapture(const Instrument& in, int row, int atten, uint32_t iq, uint32_t aux,
                                            uint32_t captureCode = 0) {
    std::vector<uint32_t> out = TuneWords(row, in.cal[716 + row - 1], 5 * uint32_t(atten));
    lx::CommandList taps;
    taps.BeginBlock();
    lx::EncodeFilterTaps(taps, in.Equaliser(row).taps);
    out.insert(out.end(), taps.Words().begin(), taps.Words().begin() + 2 * lx::kFilterTapPairs);
    out.push_back(0x2E000000u | in.tuneWord);
    out.push_back(0x30000000 | captureCode);
    const auto req = Request(iq, aux);
    out.insert(out.end(), req.begin(), req.end());
    return out;
}

inline std::vector<std::complex<double>> Samples(const std::vector<uint8_t>& bytes, size_t packets) {
    std::vector<std::complex<double>> x(packets * 2048);
    for (size_t i = 0; i < x.size(); ++i) {
        const auto re = static_cast<int16_t>(U16(&bytes[4 * i]));
        const auto im = static_cast<int16_t>(U16(&bytes[4 * i + 2]));
        x[i] = {(re - 576) / 32768.0, (im - 576) / 32768.0};
    }
    return x;
}

// The values signal_ref.py MEASURE prints for samples taken at `rate`.
inline std::map<std::string, double> Measure(const std::string& measure, const std::vector<std::complex<double>>& x,
                                             double rate, const std::string& args = "") {
    const std::vector<std::complex<float>> f(x.begin(), x.end());
    const std::string bytes(reinterpret_cast<const char*>(f.data()), f.size() * sizeof f[0]);
    std::map<std::string, double> values;
    for (const auto& [name, v] : lxtest::RunReference("sim/signal_ref.py", measure + " {dir}/x.c64 " + std::to_string(rate) +
                                                                              " " + args + " > {dir}/out.txt",
                                                      {{"x.c64", bytes}}))
        if (!v.empty()) values[name] = v[0];
    return values;
}

// Every test starts and ends with an empty bus.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override { lxSimDetachAll(); }
    void TearDown() override { lxSimDetachAll(); }
};

} // namespace simtest
