// The command words the peripheral setters and configure's tune write send,
// as the simulated analyzer received them.

#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::SimTest;

class Setters : public SimTest {
protected:
    static constexpr int32_t kSerial = 30000101;
    void SetUp() override { Open(kSerial); }
};

// Each row: a set-up (its words not counted), then one call, its status and
// the words it sends. The expected words are the command set's: 0x26 GPIO
// configuration (UART: 0x262 and the divisor of 81.92 MHz less one), 0x27 a
// UART byte, 0x28/0x29 GPS bytes as little-endian half-word pairs padded with
// zeros, 0x2D the reference switch (the inverse of the setting), 0x2F the
// timebase update, 0x2C the band word that powers the front end down.
TEST_F(Setters, WordsOfEveryPeripheralSetter) {
    using Call = std::function<LxStatus(int32_t)>;
    const auto uart = [](float baud) { return [=](int32_t h) { return lxSetUARTBaudRate(h, baud); }; };
    const auto gpio = [](uint32_t c) { return [=](int32_t h) { return lxSetGPIOPort(h, c); }; };
    static const uint8_t kPmtk[] = {0x24, 0x50, 0x4D, 0x54, 0x4B}; // "$PMTK"
    const struct { const char* what; Call setup, call; LxStatus status; std::vector<uint32_t> words; } cases[] = {
        {"GPIO 1", gpio(0), gpio(1), lxNoError, {0x26600000u}},
        {"GPIO 2", gpio(0), gpio(2), lxNoError, {0x26400000u}},
        {"GPIO 3", gpio(0), gpio(3), lxNoError, {0x26500000u}},
        {"GPIO 4 sends the power-on rate", gpio(0), gpio(4), lxNoError, {0x262000A3u}},
        {"GPIO 6", gpio(1), gpio(6), lxNoError, {}},
        {"GPIO 7", gpio(1), gpio(7), lxInvalidParameterErr, {}},
        {"115200 Bd", gpio(4), uart(115200.0f), lxNoError, {0x26200000u | 710}},
        {"9600 Bd", gpio(4), uart(9600.0f), lxNoError, {0x26200000u | 8532}},
        {"0 Bd is the slowest", gpio(4), uart(0.0f), lxNoError, {0x26207FFFu}},
        {"negative is the fastest", gpio(4), uart(-5.0f), lxNoError, {0x26200000u}},
        {"rate kept outside the UART configurations", gpio(3), uart(115200.0f), lxNoError, {}},
        {"and sent when the port becomes a UART", uart(115200.0f), gpio(5), lxNoError, {0x262002C6u}},
        {"UART byte outside a UART configuration", gpio(3), [](int32_t h) { return lxWriteUARTDirect(h, 0x41); },
         lxInvalidConfigurationErr, {}},
        {"UART byte", gpio(4), [](int32_t h) { return lxWriteUARTDirect(h, 0x41); }, lxNoError, {0x27000041u}},
        {"GPS bytes", {}, [](int32_t h) { return lxWriteToGPS(h, kPmtk, 5); }, lxNoError,
         {0x28005024u, 0x2900544Du, 0x2800004Bu, 0x29000000u}},
        {"no GPS bytes", {}, [](int32_t h) { return lxWriteToGPS(h, kPmtk, 0); }, lxInvalidParameterErr, {}},
        {"reference unchanged", {}, [](int32_t h) { return lxSetReference(h, 0); }, lxNoError, {}},
        {"external reference", {}, [](int32_t h) { return lxSetReference(h, 1); }, lxNoError, {0x2D000000u}},
        {"internal reference", {}, [](int32_t h) { return lxSetReference(h, 0); }, lxNoError, {0x2D000001u}},
        {"reference 2", {}, [](int32_t h) { return lxSetReference(h, 2); }, lxInvalidParameterErr, {}},
        {"timebase update on", {}, [](int32_t h) { return lxSetGPSTimebaseUpdate(h, 1); }, lxNoError, {0x2F000001u}},
        {"timebase update on again", {}, [](int32_t h) { return lxSetGPSTimebaseUpdate(h, 1); }, lxNoError, {}},
        {"timebase update off", {}, [](int32_t h) { return lxSetGPSTimebaseUpdate(h, 0); }, lxNoError, {0x2F000000u}},
        {"power on when on", {}, [](int32_t h) { return lxSetPowerState(h, 0); }, lxNoError, {}},
        {"power down", {}, [](int32_t h) { return lxSetPowerState(h, 1); }, lxNoError, {0x2C00035Fu}},
        {"power state 2", {}, [](int32_t h) { return lxSetPowerState(h, 2); }, lxInvalidParameterErr, {}},
    };
    for (const auto& c : cases) {
        if (c.setup) c.setup(h);
        lxSimClearCommandLog(kSerial);
        EXPECT_EQ(c.call(h), c.status) << c.what;
        EXPECT_EQ(CommandLog(kSerial), c.words) << c.what;
    }
    // The rate read back is the one the divisor gives.
    ASSERT_EQ(lxSetUARTBaudRate(h, 9600.0f), lxNoError);
    EXPECT_FLOAT_EQ(e2e::Get(lxGetUARTBaudRate, h), static_cast<float>(81.92e6 / 8533));
}

template <typename T>
T At(const LX530CalData& c, size_t off) {
    T v;
    std::memcpy(&v, c.raw + off, sizeof v);
    return v;
}

uint16_t CoarseEntry(const LX530CalData& c) {
    uint16_t coarse = 0x8000;
    for (size_t i = 0; i < 64 && At<uint16_t>(c, 32 + 2 * i) != 0xFFFF; ++i) coarse = At<uint16_t>(c, 32 + 2 * i);
    return coarse;
}

// Configure sends the tune word of the temperature's bracket: the record's
// tune offsets (int16 at 672) interpolated between its points (float at 688:
// -30 .. 60 C in steps of 15) plus the last coarse tune entry before 0xFFFF
// (at 32). A manual index takes its slot's offset; 6 is the last point's.
struct BracketCase {
    const char* name;
    double temperature;
    int manualIndex; // -1: automatic
    int slot;        // the bracket, worked out by hand from the points
    double fraction;
};

class Bracket : public SimTest, public ::testing::WithParamInterface<BracketCase> {};

TEST_P(Bracket, ConfigureSendsTheTuneWordOfTheBracket) {
    const auto& c = GetParam();
    constexpr int32_t serial = 30000111;
    Open(serial, "{\"temperature_c\": " + std::to_string(c.temperature) + "}");
    auto cal = std::make_unique<LX530CalData>();
    ASSERT_TRUE(e2e::CachedRecord(serial, cal.get()));
    for (size_t k = 0; k < 7; ++k) ASSERT_EQ(At<float>(*cal, 688 + 4 * k), -30.0f + 15.0f * float(k)) << k;
    // A wrong bracket only shows when neighbouring points carry different offsets.
    for (size_t i = 0; i + 1 < 7; ++i) ASSERT_NE(At<int16_t>(*cal, 672 + 2 * i), At<int16_t>(*cal, 674 + 2 * i)) << i;
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
    const double lo = At<int16_t>(*cal, 672 + 2 * size_t(c.slot)), hi = At<int16_t>(*cal, 674 + 2 * size_t(c.slot));
    const double f = static_cast<float>(c.fraction); // held as a float
    EXPECT_EQ(last2E & 0xFFFF, static_cast<uint16_t>(static_cast<int>(lo * (1 - f) + f * hi) + CoarseEntry(*cal)));
    // The coarse value stays the record's last tune entry.
    EXPECT_EQ(e2e::Get(lxAdminGetCoarseTuneVal, h), CoarseEntry(*cal));
}

INSTANTIATE_TEST_SUITE_P(Temperatures, Bracket,
                         ::testing::Values(BracketCase{"belowFirstPoint", -36.5, -1, 0, 0.0},
                                           BracketCase{"atFirstPoint", -30.0, -1, 0, 0.0},
                                           BracketCase{"betweenP2andP3", 7.25, -1, 2, 7.25 / 15},
                                           BracketCase{"justBelowP4", 29.75, -1, 3, 14.75 / 15},
                                           BracketCase{"atLastPoint", 60.0, -1, 5, 1.0},
                                           BracketCase{"aboveLastPoint", 71.0, -1, 5, 1.0},
                                           BracketCase{"manualIndex2", 50.0, 2, 2, 0.0},
                                           BracketCase{"manualIndex6", -10.0, 6, 5, 1.0}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
