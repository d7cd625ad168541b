// What the lx530 tool reports about analyzers, and how it prints it: as text
// for people and as JSON for scripts. Plain data in, text out; no library
// calls here, so the formatting can be checked without a device.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "lx_api.h"

namespace lx::cli {

// A call that succeeded with a warning status: the data are there, qualified.
struct Warning {
    std::string what;
    LxStatus status = lxNoError;
};

// One entry of `lx530 list`.
struct ListedDevice {
    int32_t serial = 0;
    bool simulated = false;
    // true: run firmware, false: boot loader; unknown for hardware, which the
    // public API does not report.
    std::optional<bool> runFirmware;
};

struct GpsFix {
    int64_t utcSeconds = 0; // since 1970-01-01
    double latitude = 0;    // degrees, north positive
    double longitude = 0;   // degrees, east positive
    double altitude = 0;    // metres above mean sea level
};

// Everything `lx530 info` shows about one open analyzer.
struct DeviceInfo {
    uint32_t serial = 0;
    bool simulated = false;
    uint32_t firmwareMajor = 0, firmwareMinor = 0, firmwareRevision = 0;
    uint32_t calDate = 0; // seconds since 1970; all ones: never programmed
    float temperature = 0, supplyVoltage = 0, supplyCurrent = 0;
    float fanSetPoint = 0, fanReading = 0;
    uint32_t reference = 0;
    uint32_t gpsState = lxGPSNoFix;
    std::optional<GpsFix> fix; // only with gpsState fix or fix + disciplined
    std::vector<Warning> warnings;
};

inline constexpr uint32_t kCalDateNeverProgrammed = 0xFFFFFFFFu;

// "2024-06-01T12:00:00Z".
std::string FormatUtc(int64_t secondsSince1970);
// "no fix", "fix", "fix + disciplined".
std::string GpsStateText(uint32_t state);
// "<status text> (<status>)", the way every status is quoted.
std::string StatusText(LxStatus status);

std::string ListText(const std::vector<ListedDevice>& devices);
nlohmann::ordered_json ListJson(const std::vector<ListedDevice>& devices);
std::string InfoText(const DeviceInfo& info);
nlohmann::ordered_json InfoJson(const DeviceInfo& info);

} // namespace lx::cli
