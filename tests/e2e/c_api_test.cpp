// The public header as C sees it, and the status texts for every 32-bit
// value a C caller may pass (passed from C: outside the enumeration's range a
// value is not an LxStatus a C++ caller could form).
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>

extern "C" const char* lx_c_error_string(int32_t value); // header_probe.c, compiled as C

TEST(CApi, StatusTextOfEveryValueFromC) {
    const struct { int32_t value; const char* text; } cases[] = {
        {INT32_MIN, "Unknown error"}, {-102, "Unknown error"}, {-101, "Flash transfer error"},
        {-100, "File I/O error"}, {-99, "Unknown error"}, {-12, "Unknown error"},
        {-11, "Memory allocation error"}, {-10, "Max devices connected"}, {-9, "Invalid configuration"},
        {-8, "Sweep already active"}, {-7, "Boot error"}, {-6, "USB framing error"}, {-5, "Connection lost"},
        {-4, "Invalid device specified"}, {-3, "Null pointer specified"}, {-2, "Invalid parameter specified"},
        {-1, "Device not found"}, {0, "No error"}, {1, "Setting clamped"}, {2, "Temp drift warning"},
        {3, "ADC overflow"}, {4, "Uncal data, potential USB data loss"}, {5, "Exceeded CPU resources"},
        {6, "Invalid calibration data"}, {7, "Unknown error"}, {255, "Unknown error"}, {256 - 101, "Unknown error"},
        {INT32_MAX, "Unknown error"},
    };
    for (const auto& c : cases) EXPECT_STREQ(lx_c_error_string(c.value), c.text) << c.value;
}
