// What the peripheral setters send, read back from the simulated analyzer's
// record of the command words it received, against the words the device's
// command set defines; and the temperature bracket of the corrections, seen
// through the oscillator tune word that configure sends.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::SimTest;

class Setters : public SimTest {
protected:
    static constexpr int32_t kSerial = 30000101;
    int32_t h = -1;
    void SetUp() override { h = AttachAndOpen(kSerial); }
    // Words received since the log was last cleared, without the housekeeping
    // requests that getters may send.
    std::vector<uint32_t> Sent() {
        std::vector<uint32_t> out;
        for (uint32_t w : CommandLog(kSerial)) out.push_back(w);
        lxSimClearCommandLog(kSerial);
        return out;
    }
    void Clear() { lxSimClearCommandLog(kSerial); }
};

TEST_F(Setters, UartRateWordCarriesTheDivisorLessOne) {
    struct {
        float baud;
        uint32_t divisor;
    } cases[] = {{115200.0f, 711}, {9600.0f, 8533}, {1.0f, 32768}, {1e9f, 1}, {0.0f, 32768}, {-5.0f, 1}};
    ASSERT_EQ(lxSetGPIOPort(h, 4), lxNoError);
    for (const auto& c : cases) {
        Clear();
        EXPECT_EQ(lxSetUARTBaudRate(h, c.baud), lxNoError) << c.baud; // limited silently
        EXPECT_EQ(Sent(), (std::vector<uint32_t>{0x26200000u | (c.divisor - 1)})) << c.baud;
        float back = 0;
        ASSERT_EQ(lxGetUARTBaudRate(h, &back), lxNoError);
        EXPECT_FLOAT_EQ(back, static_cast<float>(81.92e6 / c.divisor));
    }
    // Outside the UART configurations the rate is stored, not sent, and goes
    // out when the port is switched to the UART.
    ASSERT_EQ(lxSetGPIOPort(h, 3), lxNoError);
    Clear();
    ASSERT_EQ(lxSetUARTBaudRate(h, 115200.0f), lxNoError);
    EXPECT_TRUE(Sent().empty());
    ASSERT_EQ(lxSetGPIOPort(h, 5), lxNoError);
    EXPECT_EQ(Sent(), (std::vector<uint32_t>{0x262002C6u}));
}

TEST_F(Setters, GpioConfigurationWords) {
    const struct {
        uint32_t config;
        std::vector<uint32_t> words;
    } cases[] = {{1, {0x26600000u}}, {2, {0x26400000u}}, {3, {0x26500000u}},
                 {4, {0x262000A3u}}, {0, {}}, {6, {}}};
    for (const auto& c : cases) {
        Clear();
        EXPECT_EQ(lxSetGPIOPort(h, c.config), lxNoError);
        EXPECT_EQ(Sent(), c.words) << c.config;
        uint32_t back = 99;
        EXPECT_EQ(lxGetGPIOPort(h, &back), lxNoError);
        EXPECT_EQ(back, c.config);
    }
    Clear();
    EXPECT_EQ(lxSetGPIOPort(h, 7), lxInvalidParameterErr);
    EXPECT_TRUE(Sent().empty());
}

TEST_F(Setters, UartByteNeedsTheUartConfiguration) {
    ASSERT_EQ(lxSetGPIOPort(h, 3), lxNoError);
    Clear();
    EXPECT_EQ(lxWriteUARTDirect(h, 0x41), lxInvalidConfigurationErr);
    EXPECT_TRUE(Sent().empty());
    ASSERT_EQ(lxSetGPIOPort(h, 4), lxNoError);
    Clear();
    EXPECT_EQ(lxWriteUARTDirect(h, 0x41), lxNoError);
    EXPECT_EQ(Sent(), (std::vector<uint32_t>{0x27000041u}));
}

TEST_F(Setters, GpsBytesGoOutAsHalfWordPairsPaddedWithZeros) {
    const uint8_t five[] = {0x24, 0x50, 0x4D, 0x54, 0x4B}; // "$PMTK"
    Clear();
    EXPECT_EQ(lxWriteToGPS(h, five, 5), lxNoError);
    EXPECT_EQ(Sent(), (std::vector<uint32_t>{0x28005024u, 0x2900544Du, 0x2800004Bu, 0x29000000u}));
    EXPECT_EQ(lxWriteToGPS(h, five, 0), lxInvalidParameterErr);
    EXPECT_EQ(lxWriteToGPS(h, nullptr, 5), lxNullPtrErr);
    EXPECT_TRUE(Sent().empty());
}

TEST_F(Setters, ReferenceAndTimebaseWordsOnlyOnChange) {
    Clear();
    EXPECT_EQ(lxSetReference(h, 0), lxNoError); // the default: nothing sent
    EXPECT_EQ(lxSetReference(h, 1), lxNoError);
    EXPECT_EQ(lxSetReference(h, 0), lxNoError);
    EXPECT_EQ(lxSetReference(h, 2), lxInvalidParameterErr);
    EXPECT_EQ(lxSetGPSTimebaseUpdate(h, 1), lxNoError);
    EXPECT_EQ(lxSetGPSTimebaseUpdate(h, 1), lxNoError);
    EXPECT_EQ(lxSetGPSTimebaseUpdate(h, 0), lxNoError);
    // The reference switch is the inverse of the setting.
    EXPECT_EQ(Sent(), (std::vector<uint32_t>{0x2D000000u, 0x2D000001u, 0x2F000001u, 0x2F000000u}));
    uint32_t r = 9;
    EXPECT_EQ(lxGetReference(h, &r), lxNoError);
    EXPECT_EQ(r, 0u);
}

TEST_F(Setters, PowerStateWords) {
    Clear();
    EXPECT_EQ(lxSetPowerState(h, 0), lxNoError); // already on after open
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(lxSetPowerState(h, 1), lxNoError);
    EXPECT_EQ(Sent(), (std::vector<uint32_t>{0x2C00035Fu}));
    EXPECT_EQ(lxSetPowerState(h, 0), lxNoError);
    const auto on = Sent();
    ASSERT_EQ(on.size(), 117u); // band word, then the 116-word synthesizer table
    EXPECT_EQ(on[0], 0x2CA803CAu);
    EXPECT_EQ(on[1], 0u);
    EXPECT_EQ(on[2], 0x20002496u);
    EXPECT_EQ(lxSetPowerState(h, 2), lxInvalidParameterErr);
}

// ---- temperature bracket -------------------------------------------------------

float F32At(const LX530CalData& c, size_t off) {
    float v;
    std::memcpy(&v, c.raw + off, 4);
    return v;
}
int16_t I16At(const LX530CalData& c, size_t off) {
    int16_t v;
    std::memcpy(&v, c.raw + off, 2);
    return v;
}
uint16_t U16At(const LX530CalData& c, size_t off) {
    uint16_t v;
    std::memcpy(&v, c.raw + off, 2);
    return v;
}

// The tune word configure must send at temperature t (automatic bracket) or
// at a manual index, worked out from the record's own temperature points and
// tune offsets.
uint16_t ExpectedTune(const LX530CalData& c, double t, int manualIndex) {
    double p[7];
    for (int i = 0; i < 7; ++i) p[i] = F32At(c, 688 + 4 * size_t(i));
    int index = 0;
    double frac = 0;
    if (manualIndex >= 0) {
        index = manualIndex >= 6 ? 5 : manualIndex;
        frac = manualIndex >= 6 ? 1.0 : 0.0;
    } else if (t >= p[0]) {
        int k = 0;
        while (k < 7 && p[k] <= t) ++k;
        if (k == 7) {
            index = 5;
            frac = 1.0;
        } else {
            index = k - 1;
            frac = (t - p[k - 1]) / (p[k] - p[k - 1]);
        }
    }
    const double a = I16At(c, 672 + 2 * size_t(index)), b = I16At(c, 672 + 2 * size_t(index + 1));
    const double f = static_cast<float>(frac);
    const double off = frac == 0 ? a : frac == 1 ? b : a * (1 - f) + f * b;
    uint16_t coarse = 0x8000;
    for (int i = 0; i < 64 && U16At(c, 32 + 2 * size_t(i)) != 0xFFFF; ++i) coarse = U16At(c, 32 + 2 * size_t(i));
    return static_cast<uint16_t>(static_cast<int>(off) + coarse);
}

struct BracketCase {
    const char* name;
    double temperature;
    int manualIndex; // -1: automatic
};

class Bracket : public SimTest, public ::testing::WithParamInterface<BracketCase> {};

TEST_P(Bracket, ConfigureSendsTheTuneWordOfTheBracket) {
    const auto& c = GetParam();
    constexpr int32_t serial = 30000111;
    char scene[96];
    std::snprintf(scene, sizeof scene, R"({"temperature_c": %.2f})", c.temperature);
    const int32_t h = AttachAndOpen(serial, scene);
    LX530CalData* cal = new LX530CalData;
    std::unique_ptr<LX530CalData> owner(cal);
    ASSERT_TRUE(e2e::CachedRecord(serial, cal));
    if (c.manualIndex >= 0) {
        ASSERT_EQ(lxAdminSetCorrectionMode(h, lxCorrectionManual), lxNoError);
        ASSERT_EQ(lxAdminSetCorrectionIndex(h, c.manualIndex), lxNoError);
    }
    lxSimClearCommandLog(serial);
    lxConfigure(h, 1); // no engine needed: the bracket and tune word come first
    uint32_t last2E = 0;
    for (uint32_t w : CommandLog(serial))
        if ((w >> 24) == 0x2E) last2E = w;
    ASSERT_NE(last2E, 0u);
    EXPECT_EQ(last2E & 0xFFFF, ExpectedTune(*cal, c.temperature, c.manualIndex));
    // The coarse value stays the record's last tune entry; only the applied
    // word carries the temperature offset.
    uint16_t coarse = 0, lastEntry = 0x8000;
    ASSERT_EQ(lxAdminGetCoarseTuneVal(h, &coarse), lxNoError);
    for (int i = 0; i < 64 && U16At(*cal, 32 + 2 * size_t(i)) != 0xFFFF; ++i) lastEntry = U16At(*cal, 32 + 2 * size_t(i));
    EXPECT_EQ(coarse, lastEntry);
}

// The record's points are -30 .. 60 in steps of 15 degrees.
INSTANTIATE_TEST_SUITE_P(Temperatures, Bracket,
                         ::testing::Values(BracketCase{"belowFirstPoint", -36.5, -1},
                                           BracketCase{"atFirstPoint", -30.0, -1},
                                           BracketCase{"betweenP2andP3", 7.25, -1},
                                           BracketCase{"justBelowP4", 29.75, -1},
                                           BracketCase{"atLastPoint", 60.0, -1},
                                           BracketCase{"aboveLastPoint", 71.0, -1},
                                           BracketCase{"manualIndex2", 50.0, 2},
                                           BracketCase{"manualIndex6", -10.0, 6}),
                         [](const auto& info) { return std::string(info.param.name); });

// The bracket cases only catch a wrong bracket when neighbouring points carry
// different offsets; make sure the analyzer's record gives them that power.
TEST_F(Setters, RecordTuneOffsetsDifferBetweenNeighbouringPoints) {
    LX530CalData* cal = new LX530CalData;
    std::unique_ptr<LX530CalData> owner(cal);
    ASSERT_TRUE(e2e::CachedRecord(kSerial, cal));
    for (int i = 0; i + 1 < 7; ++i)
        EXPECT_NE(I16At(*cal, 672 + 2 * size_t(i)), I16At(*cal, 672 + 2 * size_t(i + 1))) << i;
}

} // namespace
