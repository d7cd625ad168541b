#include "sim/flash.h"

#include <algorithm>
#include <cstring>

namespace lx::sim {

void NorFlash::Read(uint32_t page, std::span<uint8_t> out) const {
    size_t done = 0;
    for (uint32_t p = page; done < out.size(); ++p) {
        const size_t n = std::min<size_t>(kPageBytes, out.size() - done);
        const auto it = pages_.find(p);
        if (it == pages_.end()) {
            std::memset(out.data() + done, 0xFF, n);
        } else {
            std::memcpy(out.data() + done, it->second->data(), n);
        }
        done += n;
    }
}

bool NorFlash::Program(uint32_t page, std::span<const uint8_t> data) {
    if (page >= kPageCount) return false;
    auto& slot = pages_[page];
    if (!slot) {
        slot = std::make_unique<Page>();
        slot->fill(0xFF);
    }
    const size_t n = std::min<size_t>(kPageBytes, data.size());
    for (size_t i = 0; i < n; ++i) (*slot)[i] &= data[i];
    return true;
}

bool NorFlash::EraseSector(uint32_t page) {
    if (page >= kPageCount) return false;
    const uint32_t first = page - page % kSectorPages;
    pages_.erase(pages_.lower_bound(first), pages_.lower_bound(first + kSectorPages));
    return true;
}

} // namespace lx::sim
