// The chip's own ROM loader: a device whose boot sector holds no whole image
// enumerates with the chip maker's IDs and no serial, and takes a boot image
// into its RAM through vendor requests, then runs it (it comes back as the
// LX530 boot loader).
//
// Protocol: request 0xA0 (OUT, device recipient) writes its data (up to
// 4096 bytes) to RAM at the address in value (low half) and index (high
// half); the request with index 0xFFFF and the image's 4-byte checksum as its
// data starts the image at the address in value, when the words written add
// up to that checksum. A refused start stalls the request.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace lx::usb {

inline constexpr uint16_t kRomVendorId = 0x04B4;
inline constexpr uint16_t kRomProductId = 0x00F3;
inline constexpr uint8_t kRequestRamWrite = 0xA0;
inline constexpr uint32_t kRamChunkBytes = 4096;

struct RamSection {
    uint32_t address = 0;
    std::span<const uint8_t> data; // whole 32-bit words
};

enum class RamDownload : uint8_t {
    NoRomLoader, // no device is in the ROM loader
    Refused,     // a write failed or the loader did not start the image
    Started      // the image runs; the device re-enumerated
};

// Downloads the sections into the first device found in the ROM loader and
// starts it at `entry`; after a start it waits 2000 ms (through that device's
// backend) for the device to come back.
RamDownload DownloadToRomLoader(const std::vector<RamSection>& sections, uint32_t entry, uint32_t checksum);

} // namespace lx::usb
