#include "report.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace lx::cli {

namespace {

// Keys in the order a person reads them, not sorted.
using json = nlohmann::ordered_json;

// The readings arrive as floats; widened as they are they would print as
// 11.994600296020508. Go through the float's shortest decimal form so that
// JSON carries the value the instrument reported and nothing more.
double Tidy(float value) {
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf - 1, value);
    *r.ptr = '\0';
    return std::strtod(buf, nullptr);
}

std::string Printf(const char* format, auto... args) {
    char buf[256];
    std::snprintf(buf, sizeof buf, format, args...);
    return buf;
}

std::string PersonalityText(const ListedDevice& d) {
    if (!d.runFirmware) return "unknown";
    return *d.runFirmware ? "run firmware" : "boot loader";
}

std::string FirmwareText(const DeviceInfo& i) {
    return std::to_string(i.firmwareMajor) + "." + std::to_string(i.firmwareMinor) + "." +
           std::to_string(i.firmwareRevision);
}

void Row(std::string& out, const char* label, const std::string& value) {
    out += Printf("%-18s%s\n", label, value.c_str());
}

} // namespace

std::string FormatUtc(int64_t secondsSince1970) {
    const auto t = static_cast<std::time_t>(secondsSince1970);
    std::tm tm{};
    if (!gmtime_r(&t, &tm)) return "invalid time";
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

std::string GpsStateText(uint32_t state) {
    switch (state) {
    case lxGPSNoFix: return "no fix";
    case lxGPSFix: return "fix";
    case lxGPSFixDisciplined: return "fix + disciplined";
    default: return "unknown state " + std::to_string(state);
    }
}

std::string StatusText(LxStatus status) {
    return std::string(lxGetErrorString(status)) + " (" + std::to_string(static_cast<int>(status)) + ")";
}

std::string ListText(const std::vector<ListedDevice>& devices) {
    if (devices.empty()) return "No LX530 attached.\n";
    std::string out = Printf("%-10s%-14s%s\n", "SERIAL", "PERSONALITY", "KIND");
    for (const auto& d : devices)
        out += Printf("%08d  %-14s%s\n", static_cast<int>(d.serial), PersonalityText(d).c_str(),
                      d.simulated ? "simulated" : "USB");
    return out;
}

json ListJson(const std::vector<ListedDevice>& devices) {
    json list = json::array();
    for (const auto& d : devices) {
        list.push_back({{"serial", d.serial},
                        {"personality", d.runFirmware ? json(PersonalityText(d)) : json(nullptr)},
                        {"simulated", d.simulated}});
    }
    return {{"devices", list}};
}

std::string InfoText(const DeviceInfo& i) {
    std::string out;
    Row(out, "Serial", Printf("%08u%s", i.serial, i.simulated ? " (simulated)" : ""));
    Row(out, "Firmware", FirmwareText(i));
    Row(out, "Calibration date",
        i.calDate == kCalDateNeverProgrammed ? "never programmed" : FormatUtc(i.calDate));
    Row(out, "Temperature", Printf("%.2f C", static_cast<double>(i.temperature)));
    Row(out, "Supply", Printf("%.3f V, %.3f A", static_cast<double>(i.supplyVoltage),
                              static_cast<double>(i.supplyCurrent)));
    Row(out, "Fan", Printf("set point %.2f C, reading %.1f %%", static_cast<double>(i.fanSetPoint),
                           static_cast<double>(i.fanReading)));
    Row(out, "Reference", std::to_string(i.reference));
    Row(out, "GPS", GpsStateText(i.gpsState));
    if (i.fix) {
        Row(out, "Position", Printf("lat %.6f, lon %.6f, alt %.1f m", i.fix->latitude, i.fix->longitude,
                                    i.fix->altitude));
        Row(out, "UTC time", FormatUtc(i.fix->utcSeconds));
    }
    return out;
}

json InfoJson(const DeviceInfo& i) {
    json calDate = nullptr;
    if (i.calDate != kCalDateNeverProgrammed) calDate = {{"seconds", i.calDate}, {"utc", FormatUtc(i.calDate)}};
    json fix = nullptr;
    if (i.fix) {
        fix = {{"latitude_deg", i.fix->latitude},
               {"longitude_deg", i.fix->longitude},
               {"altitude_m", i.fix->altitude},
               {"time_s", i.fix->utcSeconds},
               {"utc", FormatUtc(i.fix->utcSeconds)}};
    }
    json warnings = json::array();
    for (const auto& w : i.warnings)
        warnings.push_back({{"what", w.what}, {"status", static_cast<int>(w.status)}, {"text", lxGetErrorString(w.status)}});
    return {
        {"serial", i.serial},
        {"simulated", i.simulated},
        {"firmware",
         {{"major", i.firmwareMajor}, {"minor", i.firmwareMinor}, {"revision", i.firmwareRevision},
          {"version", FirmwareText(i)}}},
        {"calibration_date", calDate},
        {"temperature_c", Tidy(i.temperature)},
        {"supply_voltage_v", Tidy(i.supplyVoltage)},
        {"supply_current_a", Tidy(i.supplyCurrent)},
        {"fan", {{"set_point_c", Tidy(i.fanSetPoint)}, {"reading_percent", Tidy(i.fanReading)}}},
        {"reference", i.reference},
        {"gps", {{"state", i.gpsState}, {"status", GpsStateText(i.gpsState)}, {"fix", fix}}},
        {"warnings", warnings},
    };
}

} // namespace lx::cli
