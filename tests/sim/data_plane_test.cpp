// The run firmware's data plane: how answers fill IN transfers, the status
// packet, faults, and the physics of the samples, judged against the scene
// through the device's own factory calibration record.
#include <fftw3.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <thread>

#include "cal/correction.h"
#include "lx_command/encoders.h"
#include "sim_test_util.h"

using namespace simtest;

namespace {

using DataPlaneTest = SimTest;

// ---- how answers fill IN transfers --------------------------------------------------

struct BoundaryCase {
    const char* name;
    std::vector<std::vector<uint32_t>> blocks; // sent before the reads
    std::vector<std::pair<uint32_t, int64_t>> reads; // (length, bytes expected; -1: times out)
};

std::vector<uint32_t> Cat(std::initializer_list<std::vector<uint32_t>> parts) {
    std::vector<uint32_t> out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST_F(DataPlaneTest, AnswersEndTransfersAsTheDeviceSendsThem) {
    const BoundaryCase cases[] = {
        {"one aux packet ends a 32 KiB read short", {Request(0, 1)}, {{32768, 8192}}},
        {"four aux packets fill it exactly", {Request(0, 4)}, {{32768, 32768}}},
        {"an aux-only answer ends even a longer read", {Request(0, 4)}, {{65536, 32768}}},
        {"leftover goes to the next reads", {Request(0, 4)}, {{8192, 8192}, {16384, 16384}, {32768, 8192}}},
        {"two answers in one block are two transfers", {Cat({Request(0, 1), Request(0, 2)})}, {{32768, 8192}, {32768, 16384}}},
        {"a streaming block of 127 + 1 fills 1 MiB", {Request(127, 1)}, {{1048576, 1048576}}},
        {"I/Q packets go out in fours", {Request(3, 0)}, {{32768, -1}}},
        {"and continue across requests", {Request(3, 0), Request(2, 0)}, {{32768, 32768}, {32768, -1}}},
        {"a sweep's filler completes the last buffer", {Request(3, 0), Request(2, 0), Request(3, 0)}, {{65536, 65536}}},
        {"nothing requested, nothing sent", {}, {{8192, -1}}},
    };
    int32_t serial = 70000000;
    for (const BoundaryCase& c : cases) {
        SCOPED_TRACE(c.name);
        ++serial;
        ASSERT_EQ(lxSimAttach(serial, nullptr), lxNoError);
        auto d = Open(serial);
        ASSERT_NE(d, nullptr);
        for (const auto& b : c.blocks) ASSERT_TRUE(Send(*d, b));
        for (const auto& [length, expected] : c.reads) {
            const ReadResult r = Read(*d, length, 100);
            if (expected < 0) {
                EXPECT_EQ(r.wait, WaitResult::TimedOut);
            } else {
                EXPECT_EQ(r.wait, WaitResult::Completed);
                EXPECT_EQ(static_cast<int64_t>(r.data.size()), expected);
            }
        }
    }
}

// The stream is one ordered byte stream: I/Q packets first, then the aux
// packets, across however many transfers the host reads it in. An answer
// with I/Q packets sends no short packet: it shares its DMA buffer with the
// next answer.
TEST_F(DataPlaneTest, PacketsArriveInRequestOrder) {
    ASSERT_EQ(lxSimAttach(70000100, nullptr), lxNoError);
    auto d = Open(70000100);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(Send(*d, Request(2, 1)));
    EXPECT_EQ(Read(*d, 5000, 50).wait, WaitResult::TimedOut) << "three packets do not fill a buffer";
    ASSERT_TRUE(Send(*d, Request(0, 1)));
    std::vector<uint8_t> all;
    for (auto [len, got] : {std::pair{5000u, 5000u}, {20000u, 20000u}, {8000u, 7768u}}) {
        const ReadResult r = Read(*d, len);
        EXPECT_EQ(r.data.size(), got);
        all.insert(all.end(), r.data.begin(), r.data.end());
    }
    ASSERT_EQ(all.size(), 4u * 8192u);
    EXPECT_NE(U32(&all[0]), 0x41555831u);
    EXPECT_NE(U32(&all[8192]), 0x41555831u);
    EXPECT_EQ(U32(&all[2 * 8192]), 0x41555831u);
    EXPECT_EQ(U32(&all[3 * 8192]), 0x41555831u);
    EXPECT_EQ(Read(*d, 32768, 50).wait, WaitResult::TimedOut);
    LxSimCounters c{};
    ASSERT_EQ(lxSimGetCounters(70000100, &c), lxNoError);
    EXPECT_EQ(c.iqPackets, 2u);
    EXPECT_EQ(c.auxPackets, 2u);
    EXPECT_EQ(c.inTransfers, 3u);
    EXPECT_EQ(c.outTransfers, 2u);
    EXPECT_EQ(c.commandBlocks, 2u);
    EXPECT_EQ(c.commandWords, 10u);
}

// ---- the status packet -------------------------------------------------------------------

// Decoded here with the arithmetic of the housekeeping record, not with any
// shared helper.
double DecodeTemperature(uint16_t w) {
    const int t = (w >> 2) & 0x3FF;
    return (w & 0x1000) ? -(1024 - t) * 0.25 : t * 0.25;
}

TEST_F(DataPlaneTest, StatusPacketCarriesTheScenesHousekeeping) {
    struct Case {
        double temp, volts, amps;
        uint32_t major, minor, revision;
    };
    const Case cases[] = {{25.0, 12.0, 1.2, 1, 2, 5}, {-1.0, 11.7, 0.85, 2, 3, 7}, {-7.25, 5.0, 0.0, 0, 0, 3},
                          {60.5, 13.8, 2.5, 65535, 65535, 100000}};
    ASSERT_EQ(lxSimAttach(70000200, nullptr), lxNoError);
    auto d = Open(70000200);
    ASSERT_NE(d, nullptr);
    for (const Case& c : cases) {
        const std::string scene = "{\"temperature_c\": " + std::to_string(c.temp) +
                                  ", \"supply_v\": " + std::to_string(c.volts) +
                                  ", \"supply_a\": " + std::to_string(c.amps) + ", \"firmware\": [" +
                                  std::to_string(c.major) + ", " + std::to_string(c.minor) + ", " +
                                  std::to_string(c.revision) + "]}";
        SCOPED_TRACE(scene);
        ASSERT_EQ(lxSimSetScene(70000200, scene.c_str()), lxNoError);
        ASSERT_TRUE(Send(*d, Request(0, 4)));
        const ReadResult r = Read(*d, 32768);
        ASSERT_EQ(r.data.size(), 32768u);
        for (int p = 0; p < 4; ++p) {
            const uint8_t* a = &r.data[8192 * p];
            EXPECT_EQ(U32(a), 0x41555831u);
            EXPECT_EQ(U32(a + 4), c.revision);
            EXPECT_EQ(U16(a + 76), c.minor);
            EXPECT_EQ(U16(a + 78), c.major);
            EXPECT_DOUBLE_EQ(DecodeTemperature(U16(a + 88)), c.temp);
            EXPECT_NEAR(U16(a + 68) * 0.00553, c.volts, 0.00553 / 2);
            EXPECT_NEAR(U16(a + 74) * 0.002, c.amps, 0.001);
            EXPECT_EQ(U16(a + 82), 45 * 16) << "power-on fan set point";
            EXPECT_EQ(U32(a + 48) & 0x301, 0u) << "dithering on, no overflow, no loss";
        }
    }
}

TEST_F(DataPlaneTest, SampleCounterCountsTicksOfTheSamplesSent) {
    ASSERT_EQ(lxSimAttach(70000300, nullptr), lxNoError);
    auto d = Open(70000300);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(Send(*d, Cat({Request(0, 1), Request(5, 1), Request(0, 1)})));
    std::vector<uint64_t> counters;
    for (uint32_t len : {8192u, 6u * 8192u, 8192u}) {
        const ReadResult r = Read(*d, len);
        ASSERT_EQ(r.data.size(), len);
        counters.push_back(U64(&r.data[len - 8192 + 32]));
    }
    // Two 122.88 MHz ticks per sample at 61.44 MS/s; aux packets take no samples.
    EXPECT_EQ(counters[1] - counters[0], 2u * 5 * 2048);
    EXPECT_EQ(counters[2], counters[1]);
}

// ---- faults -------------------------------------------------------------------------------

TEST_F(DataPlaneTest, FaultsAffectExactlyTheNextOccasions) {
    ASSERT_EQ(lxSimAttach(70000400, nullptr), lxNoError);
    auto d = Open(70000400);
    ASSERT_NE(d, nullptr);

    // Stall: the transfer never completes; the data stays for the next one.
    ASSERT_EQ(lxSimInjectFault(70000400, lxSimFaultStall, 1), lxNoError);
    ASSERT_TRUE(Send(*d, Request(0, 1)));
    const auto start = std::chrono::steady_clock::now();
    ReadResult r = Read(*d, 32768, 2000);
    EXPECT_EQ(r.wait, WaitResult::TimedOut);
    EXPECT_TRUE(r.data.empty());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(Read(*d, 32768).data.size(), 8192u);

    // Short transfer: 8 bytes missing.
    ASSERT_EQ(lxSimInjectFault(70000400, lxSimFaultShortTransfer, 1), lxNoError);
    ASSERT_TRUE(Send(*d, Cat({Request(0, 4), Request(0, 4)})));
    EXPECT_EQ(Read(*d, 32768).data.size(), 32760u);
    EXPECT_EQ(Read(*d, 32768).data.size(), 32768u);

    // Bad magic: the next two aux packets only.
    ASSERT_EQ(lxSimInjectFault(70000400, lxSimFaultBadMagic, 2), lxNoError);
    ASSERT_TRUE(Send(*d, Request(0, 3)));
    r = Read(*d, 32768);
    ASSERT_EQ(r.data.size(), 3u * 8192u);
    EXPECT_NE(U32(&r.data[0]), 0x41555831u);
    EXPECT_NE(U32(&r.data[8192]), 0x41555831u);
    EXPECT_EQ(U32(&r.data[16384]), 0x41555831u);

    // No answer: the request is dropped, the handshake's retry gets through.
    ASSERT_EQ(lxSimInjectFault(70000400, lxSimFaultNoAnswer, 1), lxNoError);
    ASSERT_TRUE(Send(*d, Request(0, 1)));
    EXPECT_EQ(Read(*d, 32768, 100).wait, WaitResult::TimedOut);
    ASSERT_TRUE(Send(*d, Request(0, 1)));
    EXPECT_EQ(Read(*d, 32768, 100).data.size(), 8192u);

    // Until cleared.
    ASSERT_EQ(lxSimInjectFault(70000400, lxSimFaultNoAnswer, -1), lxNoError);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(Send(*d, Request(0, 1)));
        EXPECT_EQ(Read(*d, 32768, 50).wait, WaitResult::TimedOut);
    }
    ASSERT_EQ(lxSimInjectFault(70000400, lxSimFaultNone, 0), lxNoError);
    ASSERT_TRUE(Send(*d, Request(0, 1)));
    EXPECT_EQ(Read(*d, 32768, 100).data.size(), 8192u);
}

TEST_F(DataPlaneTest, CommandLogKeepsEveryWordButFillerAndPageData) {
    int32_t id = 0;
    ASSERT_EQ(lxSimAttachRaw("LX530 Boot", "70000500", nullptr, &id), lxNoError);
    auto d = Open(70000500);
    ASSERT_NE(d, nullptr);
    std::vector<uint32_t> write{0xFFFE0000u | 9000};
    write.resize(257, 0x12345678);
    ASSERT_TRUE(Send(*d, write));
    ASSERT_TRUE(Send(*d, {0x2E008040, 0x00000001, 0xFFFC0000u | 9000}));
    int32_t count = 0;
    ASSERT_EQ(lxSimGetCommandLog(70000500, nullptr, 0, &count), lxNoError);
    ASSERT_EQ(count, 3);
    std::vector<uint32_t> log(3);
    ASSERT_EQ(lxSimGetCommandLog(70000500, log.data(), 3, &count), lxNoError);
    EXPECT_EQ(log, (std::vector<uint32_t>{0xFFFE0000u | 9000, 0x2E008040, 0xFFFC0000u | 9000}));
    ASSERT_EQ(lxSimClearCommandLog(70000500), lxNoError);
    ASSERT_EQ(lxSimGetCommandLog(70000500, nullptr, 0, &count), lxNoError);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(lxSimGetCommandLog(70000500, nullptr, 1, &count), lxNullPtrErr);
    EXPECT_EQ(lxSimGetCommandLog(70000501, nullptr, 0, &count), lxDeviceNotFoundErr);
}

// ---- the samples --------------------------------------------------------------------------

constexpr double kFs = 61.44e6;

float F32(const uint8_t* p) {
    const uint32_t u = U32(p);
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

// Grid rows: LO = row tuning frequency, capture centre = row centre.
double RowLo(int row) { return row <= 1 ? 61.44e6 : row * 30.72e6; } // rows used here are 1 and >= 11
double RowCentre(int row) { return row <= 1 ? 23.04e6 : RowLo(row) - 23.04e6; }

// A calibrated instrument as a host brings it up: the calibration record is
// read through the boot loader, then the run image is started.
struct Instrument {
    std::unique_ptr<UsbDevice> dev;
    std::vector<uint8_t> cal;
    uint16_t tuneWord = 0; // the record's tune value plus its offset at 25 degrees

    // The host's temperature bracket at 25 degrees, between the record's
    // temperature points.
    lx::CalBracket Bracket() const {
        const double t = 25.0;
        int k = 0;
        while (k < 7 && F32(&cal[688 + 4 * k]) <= t) ++k;
        const double p0 = F32(&cal[688 + 4 * (k - 1)]), p1 = F32(&cal[688 + 4 * k]);
        return {k - 1, static_cast<float>((t - p0) / (p1 - p0))};
    }
    // The equaliser the host sends for a grid row, and the step gain that
    // goes with it (amplitude table plus the equaliser's level term).
    lx::StepCorrection Equaliser(int stepIndex) const {
        return lx::BuildStepCorrection(cal.data(), Bracket(), stepIndex, lx::FineCell(RowCentre(stepIndex)));
    }
    double Correction(int attenStep, int stepIndex) const {
        return lx::StepGainDb(cal.data(), Bracket(), attenStep, stepIndex, Equaliser(stepIndex));
    }
};

Instrument Bring(int32_t serial, const std::string& scene) {
    Instrument in;
    int32_t id = 0;
    EXPECT_EQ(lxSimAttachRaw("LX530 Boot", std::to_string(serial).c_str(), scene.c_str(), &id), lxNoError);
    auto boot = Open(serial);
    EXPECT_NE(boot, nullptr);
    if (!boot) return in;
    for (uint32_t i = 0; i < 64; ++i) {
        EXPECT_TRUE(Send(*boot, {0xFFFD0000u | (4096 + 32 * i)}));
        const ReadResult r = Read(*boot, 32768);
        in.cal.insert(in.cal.end(), r.data.begin(), r.data.end());
    }
    EXPECT_TRUE(Send(*boot, {0xFFFA0003}));
    Bus().Sleep(1500);
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
// centre = row centre) with attenuation step `atten`, as the host's encoders
// write them, followed by the row's equaliser taps, the tune word and a
// request.

std::vector<uint32_t> TuneAndCapture(const Instrument& in, int row, int atten, uint32_t iq, uint32_t aux) {
    const double lo = RowLo(row);
    const double centre = RowCentre(row);
    lx::TuningState st;
    uint32_t words[lx::kTuneMaxWords];
    const int ifLevelIndex = row - 1;
    const int n = lx::EncodeTune(st, words, lo, centre, in.cal[716 + ifLevelIndex], 5 * atten, 24, false);
    std::vector<uint32_t> out(words, words + n);
    lx::CommandList taps;
    taps.BeginBlock();
    lx::EncodeFilterTaps(taps, in.Equaliser(row).taps);
    out.insert(out.end(), taps.Words().begin(), taps.Words().begin() + 2 * lx::kFilterTapPairs);
    out.push_back(0x2E000000u | in.tuneWord);
    out.push_back(0x30000000);
    const auto req = Request(iq, aux);
    out.insert(out.end(), req.begin(), req.end());
    return out;
}

std::vector<std::complex<double>> Samples(const std::vector<uint8_t>& bytes, size_t packets) {
    std::vector<std::complex<double>> x(packets * 2048);
    for (size_t i = 0; i < x.size(); ++i) {
        const auto re = static_cast<int16_t>(U16(&bytes[4 * i]));
        const auto im = static_cast<int16_t>(U16(&bytes[4 * i + 2]));
        x[i] = {(re - 576) / 32768.0, (im - 576) / 32768.0};
    }
    return x;
}

struct Peak {
    double frequencyHz; // baseband
    double powerDbfs;   // tone power, 10 log10 of mean |x|^2
};

// Strongest component by a Blackman-Harris windowed FFT: frequency from the
// peak bin refined by the log-parabola, power from the main lobe's energy.
Peak StrongestTone(const std::vector<std::complex<double>>& x) {
    const int n = static_cast<int>(x.size());
    std::vector<fftwf_complex> buf(static_cast<size_t>(n));
    double sumW2 = 0;
    for (int i = 0; i < n; ++i) {
        const double a = 2 * std::numbers::pi * i / n;
        const double w = 0.35875 - 0.48829 * std::cos(a) + 0.14128 * std::cos(2 * a) - 0.01168 * std::cos(3 * a);
        sumW2 += w * w;
        buf[static_cast<size_t>(i)][0] = static_cast<float>(x[static_cast<size_t>(i)].real() * w);
        buf[static_cast<size_t>(i)][1] = static_cast<float>(x[static_cast<size_t>(i)].imag() * w);
    }
    fftwf_plan p = fftwf_plan_dft_1d(n, buf.data(), buf.data(), FFTW_FORWARD, FFTW_ESTIMATE);
    fftwf_execute(p);
    fftwf_destroy_plan(p);
    auto pw = [&](int k) {
        const auto& c = buf[static_cast<size_t>((k % n + n) % n)];
        return static_cast<double>(c[0]) * c[0] + static_cast<double>(c[1]) * c[1];
    };
    int best = 0;
    for (int k = 1; k < n; ++k)
        if (pw(k) > pw(best)) best = k;
    double lobe = 0;
    for (int k = best - 6; k <= best + 6; ++k) lobe += pw(k);
    const double a = std::log(pw(best - 1)), b = std::log(pw(best)), c = std::log(pw(best + 1));
    const double delta = 0.5 * (a - c) / (a - 2 * b + c);
    int signedBin = best > n / 2 ? best - n : best;
    return {(signedBin + delta) * kFs / n, 10 * std::log10(lobe / (n * sumW2))};
}

// A tone of known power at a known frequency must come out of the captured
// samples at F - C (C - F in the mirrored band 0), and the factory
// calibration must turn its level back into the scene's power.
TEST_F(DataPlaneTest, ToneAppearsAtItsOffsetAndCalibratesToItsPower) {
    struct Case {
        int row;       // grid row: picks the band the host would use
        int atten;     // attenuation step
        double offset; // F - C
        double power;  // dBm
    };
    const Case cases[] = {
        {1, 0, -13.04e6, -30.0},  // band 0, tone at 10 MHz: mirrored
        {1, 2, 9.0e6, -45.0},     // band 0, 32.04 MHz
        {15, 0, 7.3e6, -30.0},    // band 4, synthesizer doubled, divider 12
        {35, 3, -11.1e6, -20.0},  // band 7
        {60, 1, 12.5e6, -60.0},   // band 9 (1.82 GHz)
        {250, 0, -5.55e6, -35.0}, // band 11, VCO direct
        {300, 6, 3.21e6, 0.0},    // band 12
        {400, 4, -14.9e6, -10.0}, // band 14
    };
    int32_t serial = 71000000;
    for (const Case& c : cases) {
        SCOPED_TRACE("row " + std::to_string(c.row) + " atten " + std::to_string(c.atten));
        const double f = RowCentre(c.row) + c.offset;
        const std::string scene = R"({"noise_floor_dbm_hz": -165, "emitters": [{"kind": "tone", "frequency_hz": )" +
                                  std::to_string(f) + R"(, "power_dbm": )" + std::to_string(c.power) + "}]}";
        Instrument in = Bring(++serial, scene);
        ASSERT_NE(in.dev, nullptr);
        ASSERT_TRUE(Send(*in.dev, TuneAndCapture(in, c.row, c.atten, 8, 0)));
        const ReadResult r = Read(*in.dev, 8 * 8192);
        ASSERT_EQ(r.data.size(), 8u * 8192u);
        const Peak pk = StrongestTone(Samples(r.data, 8));
        const double expected = c.row == 1 ? -c.offset : c.offset;
        EXPECT_NEAR(pk.frequencyHz, expected, 200.0);
        EXPECT_NEAR(pk.powerDbfs + in.Correction(c.atten, c.row), c.power, 0.15);
        lxSimDetach(serial);
    }
}

// The noise floor reads back as the scene's density once calibrated, and
// a weaker scene floor shows the instrument's own floor instead.
TEST_F(DataPlaneTest, NoiseFloorMatchesTheScenesDensity) {
    for (double density : {-150.0, -140.0, -125.0}) {
        SCOPED_TRACE(density);
        const int32_t serial = 72000000 + static_cast<int32_t>(-density);
        Instrument in = Bring(serial, R"({"noise_floor_dbm_hz": )" + std::to_string(density) + "}");
        ASSERT_NE(in.dev, nullptr);
        ASSERT_TRUE(Send(*in.dev, TuneAndCapture(in, 40, 0, 32, 0)));
        const ReadResult r = Read(*in.dev, 32 * 8192);
        ASSERT_EQ(r.data.size(), 32u * 8192u);
        const auto x = Samples(r.data, 32);
        std::complex<double> mean = 0;
        for (const auto& s : x) mean += s;
        mean /= static_cast<double>(x.size());
        double power = 0;
        for (const auto& s : x) power += std::norm(s - mean);
        power /= static_cast<double>(x.size());
        EXPECT_NEAR(std::abs(mean), 0.0, 1e-4) << "the DC offset of 576 counts is all the host removes";
        const double measured = 10 * std::log10(power) - 10 * std::log10(kFs) + in.Correction(0, 40);
        EXPECT_NEAR(measured, density, 0.3);
        lxSimDetach(serial);
    }
}

// Clipping at the 16-bit limits sets bit 0x100 of the status word of the
// next status packet, once.
TEST_F(DataPlaneTest, AdcOverflowBitFollowsClipping) {
    struct Case {
        double power;
        bool overflow;
    };
    for (const Case& c : {Case{-40.0, false}, Case{-20.0, false}, Case{5.0, true}, Case{20.0, true}}) {
        SCOPED_TRACE(c.power);
        const int32_t serial = 73000000 + static_cast<int32_t>(c.power + 100);
        Instrument in = Bring(serial, R"({"emitters": [{"kind": "tone", "frequency_hz": )" +
                                          std::to_string(RowCentre(40) + 1e6) + R"(, "power_dbm": )" +
                                          std::to_string(c.power) + "}]}");
        ASSERT_NE(in.dev, nullptr);
        ASSERT_TRUE(Send(*in.dev, TuneAndCapture(in, 40, 0, 3, 1)));
        ASSERT_TRUE(Send(*in.dev, Request(0, 1)));
        const ReadResult r = Read(*in.dev, 4 * 8192);
        ASSERT_EQ(r.data.size(), 4u * 8192u);
        bool railed = false;
        for (size_t i = 0; i < 3 * 8192; i += 2) {
            const auto v = static_cast<int16_t>(U16(&r.data[i]));
            railed |= v == 32767 || v == -32768;
        }
        EXPECT_EQ(railed, c.overflow);
        EXPECT_EQ((U32(&r.data[3 * 8192 + 48]) & 0x100) != 0, c.overflow);
        const ReadResult next = Read(*in.dev, 8192);
        ASSERT_EQ(next.data.size(), 8192u);
        EXPECT_EQ(U32(&next.data[48]) & 0x100, 0u) << "reported once, then cleared";
        lxSimDetach(serial);
    }
}

// Consecutive requests of one capture join without a phase step.
TEST_F(DataPlaneTest, PhaseIsContinuousAcrossRequests) {
    Instrument in = Bring(74000001, R"({"noise_floor_dbm_hz": -200, "emitters": [{"kind": "tone", "frequency_hz": )" +
                                        std::to_string(RowCentre(20) + 1.2345e6) + R"(, "power_dbm": -20}]})");
    ASSERT_NE(in.dev, nullptr);
    ASSERT_TRUE(Send(*in.dev, TuneAndCapture(in, 20, 0, 4, 0)));
    ASSERT_TRUE(Send(*in.dev, Request(4, 0)));
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 2; ++i) {
        const ReadResult r = Read(*in.dev, 32768);
        ASSERT_EQ(r.data.size(), 32768u);
        bytes.insert(bytes.end(), r.data.begin(), r.data.end());
    }
    const auto x = Samples(bytes, 8);
    const double step = 2 * std::numbers::pi * 1.2345e6 / kFs;
    double worst = 0;
    for (size_t i = 1; i < x.size(); ++i) {
        const double d = std::arg(x[i] * std::conj(x[i - 1])) - step;
        worst = std::max(worst, std::abs(std::remainder(d, 2 * std::numbers::pi)));
    }
    EXPECT_LT(worst, 0.01); // a join at sample 8192 with a phase step would show here
}

// Paced delivery runs no faster than the sample rate.
TEST_F(DataPlaneTest, RealtimePacingHoldsTheSampleRate) {
    ASSERT_EQ(lxSimAttach(74000002, R"({"pacing": "realtime"})"), lxNoError);
    auto d = Open(74000002);
    ASSERT_NE(d, nullptr);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(Send(*d, Request(127, 1)));
    for (int i = 0; i < 4; ++i) ASSERT_EQ(Read(*d, 1048576, 2000).data.size(), 1048576u);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(seconds, 4 * 127 * 2048 / kFs * 0.98);

    // A host that reads too late finds the data-loss bit (0x200) in the
    // status packet behind the overwritten samples; one that keeps up does not.
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(Send(*d, Request(127, 1)));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    ReadResult r = Read(*d, 1048576, 2000);
    ASSERT_EQ(r.data.size(), 1048576u);
    EXPECT_NE(U32(&r.data[127 * 8192 + 48]) & 0x200, 0u);
    ASSERT_EQ(Read(*d, 1048576, 2000).data.size(), 1048576u);
    ASSERT_TRUE(Send(*d, Request(127, 1)));
    r = Read(*d, 1048576, 2000);
    ASSERT_EQ(r.data.size(), 1048576u);
    EXPECT_EQ(U32(&r.data[127 * 8192 + 48]) & 0x200, 0u);
}

} // namespace
