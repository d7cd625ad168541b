#include "commands.h"

#include <cstdio>
#include <string>

#include "cli_support.h"
#include "lx_api.h"
#include "report.h"

namespace lx::cli {

namespace {

void Print(const std::string& text) { std::fputs(text.c_str(), stdout); }

void PrintJson(const nlohmann::ordered_json& doc) { Print(doc.dump(2) + "\n"); }

DeviceInfo Collect(int32_t h, std::vector<Warning> warnings) {
    DeviceInfo i;
    i.warnings = std::move(warnings);
    // Readings that refresh housekeeping first, so that the values read from
    // the last record below are current.
    Check(lxGetDeviceDiagnostics(h, &i.supplyVoltage, &i.supplyCurrent, &i.temperature),
          "reading diagnostics", &i.warnings);
    Check(lxGetFanSettings(h, &i.fanSetPoint, &i.fanReading), "reading the fan", &i.warnings);
    Check(lxGetSerialNumber(h, &i.serial), "reading the serial number", &i.warnings);
    Check(lxGetFirmwareVersion(h, &i.firmwareMajor, &i.firmwareMinor, &i.firmwareRevision),
          "reading the firmware version", &i.warnings);
    Check(lxGetCalDate(h, &i.calDate), "reading the calibration date", &i.warnings);
    Check(lxGetReference(h, &i.reference), "reading the reference", &i.warnings);
    Check(lxGetGPSState(h, &i.gpsState), "reading the GPS state", &i.warnings);
    if (i.gpsState == lxGPSFix || i.gpsState == lxGPSFixDisciplined) {
        GpsFix fix;
        Check(lxGetGPSInfo(h, 0, nullptr, &fix.utcSeconds, &fix.latitude, &fix.longitude, &fix.altitude,
                           nullptr, nullptr),
              "reading the GPS fix", &i.warnings);
        i.fix = fix;
    }
    i.simulated = SimulatedPersonality(static_cast<int32_t>(i.serial)).has_value();
    return i;
}

} // namespace

int RunList(bool json) {
    std::vector<ListedDevice> devices;
    for (int32_t serial : AttachedSerials()) {
        ListedDevice d;
        d.serial = serial;
        d.simulated = SimulatedPersonality(serial).has_value();
        int32_t personality = -1;
        if (lxGetDevicePersonality(serial, &personality) == lxNoError && personality >= 0)
            d.runFirmware = personality == 1;
        devices.push_back(d);
    }
    if (json)
        PrintJson(ListJson(devices));
    else
        Print(ListText(devices));
    return kExitOk;
}

int RunInfo(std::optional<int32_t> serial, bool json) {
    std::vector<Warning> warnings;
    OpenAnalyzer analyzer(serial, warnings);
    const DeviceInfo info = Collect(analyzer.Handle(), std::move(warnings));
    analyzer.Close();
    if (json)
        PrintJson(InfoJson(info));
    else
        Print(InfoText(info));
    return kExitOk;
}

} // namespace lx::cli
