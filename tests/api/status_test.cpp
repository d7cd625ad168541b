#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "lx_api.h"

namespace {

struct StatusCase {
    int value;
    const char* text;
};

// The full table plus the values around its edges and inside its gap.
const StatusCase kCases[] = {
    {-102, "Unknown error"},
    {-101, "Flash transfer error"},
    {-100, "File I/O error"},
    {-99, "Unknown error"},
    {-50, "Unknown error"},
    {-12, "Unknown error"},
    {-11, "Memory allocation error"},
    {-10, "Max devices connected"},
    {-9, "Invalid configuration"},
    {-8, "Sweep already active"},
    {-7, "Boot error"},
    {-6, "USB framing error"},
    {-5, "Connection lost"},
    {-4, "Invalid device specified"},
    {-3, "Null pointer specified"},
    {-2, "Invalid parameter specified"},
    {-1, "Device not found"},
    {0, "No error"},
    {1, "Setting clamped"},
    {2, "Temp drift warning"},
    {3, "ADC overflow"},
    {4, "Uncal data, potential USB data loss"},
    {5, "Exceeded CPU resources"},
    {6, "Invalid calibration data"},
    {7, "Unknown error"},
    {INT32_MIN, "Unknown error"},
    {INT32_MAX, "Unknown error"},
};

void PrintTo(const StatusCase& c, std::ostream* os) { *os << c.value << " -> \"" << c.text << '"'; }

class StatusText : public ::testing::TestWithParam<StatusCase> {};

TEST_P(StatusText, MatchesTable) {
    const char* s = lxGetErrorString(static_cast<LxStatus>(GetParam().value));
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(AllValues, StatusText, ::testing::ValuesIn(kCases),
                         [](const auto& info) {
                             std::string n = std::to_string(info.param.value);
                             for (auto& c : n)
                                 if (c == '-') c = 'm';
                             return "v" + n;
                         });

TEST(StatusEnum, NumberingIsFixed) {
    // The numbers are part of the ABI: applications compare against them.
    EXPECT_EQ(lxFlashTransferErr, -101);
    EXPECT_EQ(lxFileIOErr, -100);
    EXPECT_EQ(lxAllocationErr, -11);
    EXPECT_EQ(lxDeviceNotFoundErr, -1);
    EXPECT_EQ(lxInvalidCalData, 6);
    EXPECT_EQ(sizeof(LxStatus), 4u);
}

TEST(Version, IsOneZeroZero) { EXPECT_STREQ(lxGetAPIVersion(), "1.0.0"); }

} // namespace
