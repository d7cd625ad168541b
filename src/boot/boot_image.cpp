#include "boot/boot_image.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/lx_assert.h"
#include "lx_command/little_endian.h"

namespace lx::boot {
namespace {

constexpr const char* kModule = "src/boot";
constexpr char kVersionMarker[] = "FW Ver";

} // namespace

std::optional<ImageLayout> ParseImage(std::span<const uint8_t> image) {
    if (image.size() < 4 || image[0] != 'C' || image[1] != 'Y') return std::nullopt;
    ImageLayout layout;
    size_t at = 4;
    for (;;) {
        if (image.size() - at < 8) return std::nullopt;
        const uint32_t words = LoadLE<uint32_t>(image.data() + at);
        const uint32_t address = LoadLE<uint32_t>(image.data() + at + 4);
        at += 8;
        if (words == 0) {
            layout.entry = address;
            break;
        }
        if (words > (image.size() - at) / 4) return std::nullopt;
        layout.sections.push_back({address, at, words});
        for (uint32_t k = 0; k < words; ++k) layout.computedChecksum += LoadLE<uint32_t>(image.data() + at + 4 * k);
        at += 4 * size_t{words};
    }
    if (image.size() - at < 4) return std::nullopt;
    layout.checksumOffset = at;
    layout.storedChecksum = LoadLE<uint32_t>(image.data() + at);
    return layout;
}

bool ChecksumValid(std::span<const uint8_t> image) {
    const auto layout = ParseImage(image);
    return layout && layout->storedChecksum == layout->computedChecksum;
}

std::optional<size_t> FindSerialPlaceholder(std::span<const uint8_t> image) {
    const size_t limit = std::min(image.size(), kImageMaxBytes);
    constexpr size_t span = 2 * kPlaceholderChars - 1; // low bytes of 8 characters
    for (size_t i = 0; i + span <= limit; ++i) {
        bool match = true;
        for (size_t c = 0; c < kPlaceholderChars && match; ++c) match = image[i + 2 * c] == '1';
        if (match) return i;
    }
    return std::nullopt;
}

bool PatchSerial(std::vector<uint8_t>& image, int32_t serial) {
    const auto layout = ParseImage(image);
    if (!layout || layout->storedChecksum != layout->computedChecksum) {
        DebugOutput("Fail to boot due to checksum error\n");
        return false;
    }
    char digits[16];
    const int n = std::snprintf(digits, sizeof digits, "%d", serial);
    if (n != static_cast<int>(kPlaceholderChars) || serial < 0) {
        LX_ASSERT_TEXT(false, "false", kModule);
        return false;
    }
    const auto at = FindSerialPlaceholder(image);
    if (!at) {
        LX_ASSERT_TEXT(false, "false", kModule);
        return false;
    }
    for (size_t c = 0; c < kPlaceholderChars; ++c) image[*at + 2 * c] = static_cast<uint8_t>(digits[c]);
    const auto patched = ParseImage(image);
    StoreLE<uint32_t>(image.data() + patched->checksumOffset, patched->computedChecksum);
    return true;
}

std::optional<size_t> FindVersionMarker(std::span<const uint8_t> image) {
    const size_t len = std::strlen(kVersionMarker);
    const auto it = std::search(image.begin(), image.end(), kVersionMarker, kVersionMarker + len);
    if (it == image.end()) return std::nullopt;
    const size_t at = static_cast<size_t>(it - image.begin()) + len;
    if (at + 2 > image.size()) return std::nullopt;
    return at;
}

std::vector<uint8_t> ReadImageFile(const char* path, size_t maxBytes) {
    std::FILE* f = path ? std::fopen(path, "rbe") : nullptr;
    LX_ASSERT(f, kModule);
    if (!f) return {};
    std::vector<uint8_t> image;
    const int res = std::fseek(f, 0, SEEK_END);
    const long endPos = std::ftell(f);
    std::rewind(f);
    const long begPos = std::ftell(f);
    LX_ASSERT(res == 0, kModule);
    LX_ASSERT(begPos == 0, kModule);
    if (res == 0 && begPos == 0 && endPos > 0 && static_cast<unsigned long>(endPos) <= maxBytes) {
        image.assign(maxBytes, 0);
        const size_t readres = std::fread(image.data(), 1, static_cast<size_t>(endPos), f);
        LX_ASSERT_TEXT(readres == static_cast<size_t>(endPos), "readres == endPos", kModule);
        if (readres != static_cast<size_t>(endPos)) image.clear();
    }
    std::fclose(f);
    return image;
}

} // namespace lx::boot
