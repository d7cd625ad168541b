// Firmware images in the chip maker's boot format, and the image files the
// flash exports read.
//
// Format: "CY", a control byte, a type byte; then sections of [length in
// 32-bit words, load address, data words]; a section of length 0 carries the
// entry address and is followed by the checksum word, the 32-bit wrap-around
// sum of the data words of every section. All little-endian.
//
// The image carries the serial string of its USB descriptor as the 16-bit
// characters "11111111" until programming puts the device's serial there; a
// boot image also carries "FW Ver" and a 2-byte version (high byte first).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace lx::boot {

inline constexpr size_t kImageMaxBytes = 0x40000;   // boot and run images: one 256 KiB sector
inline constexpr size_t kFpgaMaxBytes = 0x200000;   // the FPGA program: eight sectors
inline constexpr size_t kPlaceholderChars = 8;

struct ImageSection {
    uint32_t address = 0;
    size_t offset = 0; // of its first data byte in the image
    uint32_t words = 0;
};

struct ImageLayout {
    std::vector<ImageSection> sections;
    uint32_t entry = 0;
    size_t checksumOffset = 0;
    uint32_t storedChecksum = 0;
    uint32_t computedChecksum = 0;
};

// The layout of a boot-format image; none when it lacks the "CY" header or
// a section runs past the end (or the end section or checksum is missing).
std::optional<ImageLayout> ParseImage(std::span<const uint8_t> image);

// Whole and its checksum word matches its sections.
bool ChecksumValid(std::span<const uint8_t> image);

// Offset of the first "11111111" in 16-bit characters (low bytes compared,
// every second byte) within the first 256 KiB, or none.
std::optional<size_t> FindSerialPlaceholder(std::span<const uint8_t> image);

// Puts the serial (8 decimal digits) over the placeholder and stores the new
// checksum. False, with the image unchanged, when the checksum does not hold
// ("Fail to boot due to checksum error"), the serial is not 8 digits, or there
// is no placeholder (both reported as assertions).
bool PatchSerial(std::vector<uint8_t>& image, int32_t serial);

// Offset of the 2 version bytes behind "FW Ver", or none (also when the
// marker ends the image).
std::optional<size_t> FindVersionMarker(std::span<const uint8_t> image);

// Reads a whole file into a zeroed buffer of maxBytes. Empty (nothing to
// program) when the file cannot be opened or read, is empty, or is larger
// than maxBytes.
std::vector<uint8_t> ReadImageFile(const char* path, size_t maxBytes);

} // namespace lx::boot
