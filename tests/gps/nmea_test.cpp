#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gps/nmea.h"

namespace {

using lx::gps::NmeaState;

// Well-formed sentences, a void fix and the time of a fix through the whole
// path: tests/e2e/gps_test.cpp.
TEST(Coordinate, DegreesAndMinutes) {
    const struct { const char* field; bool ok; double degrees; } cases[] = {
        {"5212.982135", true, 52 + 12.982135 / 60}, // six-decimal minutes
        {"000.5", true, 0.5 / 60},                  // three characters before the point
        {"07.5", false, 0},                         // only two before the point
        {"4807", false, 0},                         // no point
        {"123456789012345678.5", false, 0},         // point beyond position 17
    };
    for (const auto& c : cases) {
        const auto v = lx::gps::ParseCoordinate(c.field);
        ASSERT_EQ(v.has_value(), c.ok) << c.field;
        if (v) {
            EXPECT_NEAR(*v, c.degrees, 1e-12) << c.field;
        }
    }
}

TEST(Sentence, FoundOnlyWhenTerminatedAndShortEnough) {
    EXPECT_EQ(lx::gps::FindSentence("$GPRMC,1,A\r\n", "RMC").value(), "RMC,1,A");
    EXPECT_FALSE(lx::gps::FindSentence("$GPRMC,1,A", "RMC")); // no CR LF
    EXPECT_FALSE(lx::gps::FindSentence("$GPGGA,1\r\n", "RMC"));
    const std::string longer = "$GPRMC," + std::string(508, 'x') + "\r\n"; // 512 characters from "RMC"
    EXPECT_FALSE(lx::gps::FindSentence(longer, "RMC"));
    const std::string limit = "$GPRMC," + std::string(507, 'x') + "\r\n"; // 511
    EXPECT_TRUE(lx::gps::FindSentence(limit, "RMC"));
}

TEST(Sentence, SplitKeepsEmptyFieldsAndCaps) {
    const auto f = lx::gps::SplitFields("RMC,a,,c,", 12);
    EXPECT_EQ(f, (std::vector<std::string>{"a", "", "c", ""}));
    EXPECT_EQ(lx::gps::SplitFields("GGA,1,2,3,4", 2).size(), 2u);
}

TEST(Rmc, BadCoordinateKeepsThePreviousPosition) {
    NmeaState s;
    lx::gps::ApplyRmc("$GPRMC,123519,A,4807.038,N,01131.000,E,0,0,230394,,*00\r\n", s);
    lx::gps::ApplyRmc("$GPRMC,123520,A,4807,N,01131.000,E,0,0,230394,,*00\r\n", s);
    EXPECT_TRUE(s.fixValid);
    EXPECT_NEAR(s.latitude, 48.1173, 1e-9);
}

TEST(Gga, MissingOrShortSentenceZeroesAltitude) {
    NmeaState s;
    lx::gps::ApplyGga("$GPGGA,1,2,3,4,5,6,7,8,321.5,M\r\n", s);
    EXPECT_DOUBLE_EQ(s.altitude, 321.5);
    lx::gps::ApplyGga("$GPGGA,1,2,3\r\n", s);
    EXPECT_EQ(s.altitude, 0.0);
    s.altitude = 5;
    lx::gps::ApplyGga("$GPRMC,1\r\n", s);
    EXPECT_EQ(s.altitude, 0.0);
}

} // namespace
