// NOR flash of the simulated LX530: 48 MiB + 256 KiB in 1024-byte pages,
// erased in 256-page sectors. Erasing sets bytes to 0xFF; programming can only
// clear bits (the stored byte becomes old AND new). Pages never written read
// 0xFF and take no memory. Not thread-safe: its device's mutex guards it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>

namespace lx::sim {

class NorFlash {
public:
    static constexpr uint32_t kPageBytes = 1024;
    static constexpr uint32_t kSectorPages = 256;
    static constexpr uint32_t kPageCount = 48 * 1024 + 256; // 0x3000000 + 256 KiB, in pages

    // Copies `out.size()` bytes starting at the page's first byte. Pages
    // beyond the end read 0xFF.
    void Read(uint32_t page, std::span<uint8_t> out) const;
    // Programs one page (up to 1024 bytes from its start). False beyond the end.
    bool Program(uint32_t page, std::span<const uint8_t> data);
    // Erases the sector holding `page`. False beyond the end.
    bool EraseSector(uint32_t page);
    // Erases everything.
    void Clear() { pages_.clear(); }

private:
    using Page = std::array<uint8_t, kPageBytes>;
    std::map<uint32_t, std::unique_ptr<Page>> pages_;
};

} // namespace lx::sim
