// Images in the chip maker's boot format, with their own checksum
// arithmetic, for the unit and end-to-end flash tests.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace testimage {

struct Spec {
    bool boot = true;            // product "LX530 Boot" and a "FW Ver" marker; else "LX530"
    std::string serial = "11111111";
    bool marker = true;          // boot images only
    uint8_t versionHi = 2, versionLo = 9;
    uint32_t codeWords = 300;
    bool badChecksum = false;
};

inline void Put32(std::vector<uint8_t>& v, uint32_t w) {
    for (int i = 0; i < 4; ++i) v.push_back(static_cast<uint8_t>(w >> (8 * i)));
}
inline uint32_t Get32(const std::vector<uint8_t>& v, size_t at) {
    return v[at] | v[at + 1] << 8 | v[at + 2] << 16 | static_cast<uint32_t>(v[at + 3]) << 24;
}

inline void Descriptor(std::vector<uint8_t>& d, const std::string& s) {
    d.push_back(static_cast<uint8_t>(2 + 2 * s.size()));
    d.push_back(3);
    for (char c : s) {
        d.push_back(static_cast<uint8_t>(c));
        d.push_back(0);
    }
}

// Sum of the data words of every section: walks the layout it was built with.
inline uint32_t SectionSum(const std::vector<uint8_t>& img) {
    uint32_t sum = 0;
    size_t at = 4;
    for (uint32_t n; (n = Get32(img, at)) != 0; at += 8 + 4 * size_t{n})
        for (uint32_t k = 0; k < n; ++k) sum += Get32(img, at + 8 + 4 * k);
    return sum;
}
inline size_t ChecksumOffset(const std::vector<uint8_t>& img) {
    size_t at = 4;
    for (uint32_t n; (n = Get32(img, at)) != 0;) at += 8 + 4 * size_t{n};
    return at + 8;
}

inline std::vector<uint8_t> Build(const Spec& s) {
    std::vector<uint8_t> img{'C', 'Y', 0x1C, 0xB0};
    // Code: ARM-like words that never spell "1" in a low byte.
    Put32(img, s.codeWords);
    Put32(img, 0x40000000);
    uint32_t x = 0x2468ACE1u;
    for (uint32_t k = 0; k < s.codeWords; ++k) {
        x = x * 1664525u + 1013904223u;
        Put32(img, (x & 0x0FFFFFFFu) | 0xE0000000u);
    }
    std::vector<uint8_t> d;
    Descriptor(d, s.boot ? "LX530 Boot" : "LX530");
    Descriptor(d, s.serial);
    if (s.boot && s.marker) {
        for (char c : std::string("FW Ver")) d.push_back(static_cast<uint8_t>(c));
        d.push_back(s.versionHi);
        d.push_back(s.versionLo);
    }
    while (d.size() % 4) d.push_back(0);
    Put32(img, static_cast<uint32_t>(d.size() / 4));
    Put32(img, 0x40030000);
    img.insert(img.end(), d.begin(), d.end());
    Put32(img, 0);
    Put32(img, 0x40000100);
    Put32(img, SectionSum(img) + (s.badChecksum ? 1u : 0u));
    return img;
}

// What programming should make of an image: the 8 digits over the
// placeholder (found here by the descriptor it sits in) and a new checksum.
inline std::vector<uint8_t> Patched(std::vector<uint8_t> img, int32_t serial) {
    const std::vector<uint8_t> want{18, 3, '1', 0, '1', 0, '1', 0, '1', 0, '1', 0, '1', 0, '1', 0, '1', 0};
    char digits[16];
    std::snprintf(digits, sizeof digits, "%08d", serial);
    for (size_t i = 0; i + want.size() <= img.size(); ++i) {
        if (std::equal(want.begin(), want.end(), img.begin() + static_cast<std::ptrdiff_t>(i))) {
            for (int c = 0; c < 8; ++c) img[i + 2 + 2 * c] = static_cast<uint8_t>(digits[c]);
            break;
        }
    }
    const size_t at = ChecksumOffset(img);
    const uint32_t sum = SectionSum(img);
    for (int b = 0; b < 4; ++b) img[at + b] = static_cast<uint8_t>(sum >> (8 * b));
    return img;
}

// Into the temporary folder, under a name of this process's own: tests run
// as parallel processes.
inline std::string WriteFile(const std::string& name, const std::vector<uint8_t>& bytes) {
    const std::string path = ::testing::TempDir() + "lx-" + std::to_string(getpid()) + "-" + name;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f) {
        if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f); // data() may be null when empty
        std::fclose(f);
    }
    return path;
}

} // namespace testimage
