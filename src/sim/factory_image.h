// What a simulated LX530 leaves the factory with: its calibration record,
// made from the simulator's own front-end model, and the firmware images that
// its boot loader starts.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "sim/flash.h"
#include "sim/scene.h"

namespace lx::sim {

inline constexpr uint32_t kCalRecordBytes = 0x200000;
inline constexpr uint32_t kCalFirstPage = 4096;
inline constexpr uint32_t kBootImagePage = 0;
inline constexpr uint32_t kFpgaProgramPage = 1024;
inline constexpr uint32_t kRunImagePage = 0x3000000 / NorFlash::kPageBytes; // 49152

inline constexpr uint64_t kFactoryCalDate = 1717243200; // 2024-06-01 12:00 UTC, seconds since 1970
inline constexpr uint32_t kFactoryTempRangeCode = 1;

// The calibration record of a calibrated instrument: the amplitude table
// undoes fe::GainDb at each (temperature slot, attenuation step, frequency
// index), the IF level bytes are fe::FactoryIfLevel, the tune table and
// offsets describe the reference oscillator of fe::ReferenceError. The
// response tables describe the front end as the host's correction design
// reads them (docs/corrections.md): A and B the IF ripple (fe::IfRippleDb,
// fe::IfRipplePhase) at the 13 baseband offsets, C the RF flatness
// (fe::RfFlatnessDb) across the capture relative to the calibration point,
// D the RF flatness of each 3.75 MHz cell relative to its row's calibration
// point, E zero (no service trim).
std::vector<uint8_t> BuildFactoryCalRecord();

// A firmware image in the chip maker's boot format ("CY" header, one section
// with the USB descriptors holding `serial`, entry section, checksum). The
// boot image also carries the "FW Ver" marker.
std::vector<uint8_t> BuildFirmwareImage(bool bootImage, const std::string& serial);

// Programs a fresh flash: boot image, FPGA program, calibration record (as
// `cal` says) and run image.
void ProgramFactoryFlash(NorFlash& flash, const std::string& serial, CalibrationContent cal);
// Rewrites only the calibration record's eight sectors.
void ProgramCalibration(NorFlash& flash, CalibrationContent cal);

// What the loaders find in an image in the boot format: whether it is whole
// (its sections fit and the checksum word after the entry section is the sum
// of their data words), and the serial string the firmware will enumerate
// with: the string descriptor right after the product string descriptor
// (`product`, UTF-16LE). No such descriptor: an empty serial.
struct FirmwareInfo {
    bool valid = false;
    std::string serial;
};
// The serial string descriptor that follows the product's in `data`, or "".
std::string FirmwareSerial(std::span<const uint8_t> data, const std::string& product);
FirmwareInfo InspectFirmware(std::span<const uint8_t> image, const std::string& product);
// The image held by the 256 KiB sector from `page` on.
FirmwareInfo InspectFlashImage(const NorFlash& flash, uint32_t page, const std::string& product);

// The firmware version the host stored in the last two bytes of the boot
// sector (major, minor), or -1 when they are blank.
int32_t FlashFirmwareVersion(const NorFlash& flash);

} // namespace lx::sim
