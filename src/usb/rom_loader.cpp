#include "usb/rom_loader.h"

#include <algorithm>

#include "lx_command/little_endian.h"
#include "usb/usb_backend.h"

namespace lx::usb {
namespace {

constexpr uint32_t kControlTimeoutMs = 1000;
constexpr uint32_t kStartSettleMs = 2000;
constexpr uint16_t kStartIndex = 0xFFFF;

std::unique_ptr<UsbDevice> FirstRomLoader() {
    for (UsbBackend* backend : Backends()) {
        const int count = backend->DeviceCount();
        for (int i = 0; i < count; ++i) {
            std::unique_ptr<UsbDevice> dev = backend->Open(i);
            if (dev && dev->Identity().vendorId == kRomVendorId && dev->Identity().productId == kRomProductId)
                return dev;
        }
    }
    return nullptr;
}

} // namespace

RamDownload DownloadToRomLoader(const std::vector<RamSection>& sections, uint32_t entry, uint32_t checksum) {
    std::unique_ptr<UsbDevice> dev = FirstRomLoader();
    if (!dev) return RamDownload::NoRomLoader;
    for (const RamSection& s : sections) {
        for (size_t off = 0; off < s.data.size(); off += kRamChunkBytes) {
            const auto n = static_cast<uint16_t>(std::min<size_t>(kRamChunkBytes, s.data.size() - off));
            const uint32_t at = s.address + static_cast<uint32_t>(off);
            if (dev->ControlOut(kRequestRamWrite, static_cast<uint16_t>(at), static_cast<uint16_t>(at >> 16),
                                s.data.data() + off, n, kControlTimeoutMs) != n)
                return RamDownload::Refused;
        }
    }
    uint8_t sum[4];
    StoreLE<uint32_t>(sum, checksum);
    if (dev->ControlOut(kRequestRamWrite, static_cast<uint16_t>(entry), kStartIndex, sum, sizeof sum,
                        kControlTimeoutMs) != static_cast<int>(sizeof sum))
        return RamDownload::Refused;
    dev->Backend().Sleep(kStartSettleMs);
    return RamDownload::Started;
}

} // namespace lx::usb
