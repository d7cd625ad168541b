// Boot-format images against the generator's own layout and sums.
#include <gtest/gtest.h>

#include "boot/boot_image.h"
#include "boot/boot_slot.h"
#include "common/lx_assert.h"
#include "lx_sim.h"
#include "test_image.h"
#include "usb/usb_transport.h"

using namespace lx;
using namespace lx::boot;

namespace {

TEST(BootImage, ChecksumAndLayout) {
    const auto good = testimage::Build({});
    auto flipped = good;
    flipped[40] ^= 0x04; // a data bit of the code section
    auto noHeader = good;
    noHeader[1] = 'X';
    const std::vector<uint8_t> truncated(good.begin(), good.end() - 3);
    struct Case { const char* name; const std::vector<uint8_t>& image; bool valid; } cases[] = {{"good", good, true},
                 {"stored sum off by one", testimage::Build({.badChecksum = true}), false},
                 {"flipped data bit", flipped, false},
                 {"no CY header", noHeader, false},
                 {"checksum word cut", truncated, false}};
    for (const Case& c : cases) EXPECT_EQ(ChecksumValid(c.image), c.valid) << c.name;

    const auto layout = ParseImage(good);
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->entry, 0x40000100u);
    EXPECT_EQ(layout->checksumOffset, testimage::ChecksumOffset(good));
    EXPECT_EQ(layout->computedChecksum, testimage::SectionSum(good));
    ASSERT_EQ(layout->sections.size(), 2u);
    EXPECT_EQ(layout->sections[0].words, 300u);
    EXPECT_EQ(layout->sections[1].address, 0x40030000u);
}

TEST(BootImage, PatchSerial) {
    // The edges of eight digits are patched (byte for byte: what the flash
    // holds after programming, tests/e2e/flash_test.cpp).
    for (int32_t serial : {10000000, 99999999}) {
        auto img = testimage::Build({});
        EXPECT_TRUE(PatchSerial(img, serial) && ChecksumValid(img)) << serial;
    }
    // Refused, the image left as it was.
    struct Case {
        const char* name;
        std::vector<uint8_t> image;
        int32_t serial;
        const char* debug;    // expected debug line, or null
        const char* asserted; // expected assertion text, or null
    } cases[] = {
        {"bad checksum", testimage::Build({.badChecksum = true}), 12345678, "Fail to boot due to checksum error\n", nullptr},
        {"seven digits", testimage::Build({}), 1234567, nullptr, "false"},
        {"nine digits", testimage::Build({}), 123456789, nullptr, "false"},
        {"negative", testimage::Build({}), -1234567, nullptr, "false"},
        {"no placeholder", testimage::Build({.serial = "12121212"}), 12345678, nullptr, "false"},
    };
    for (Case& c : cases) {
        std::vector<std::string> lines;
        SetDebugSink([&](const std::string& s) { lines.push_back(s); });
        AssertionCapture capture;
        const auto before = c.image;
        EXPECT_FALSE(PatchSerial(c.image, c.serial)) << c.name;
        EXPECT_EQ(c.image, before) << c.name;
        EXPECT_EQ(c.debug != nullptr, lines.size() == 1 && lines[0] == c.debug) << c.name;
        EXPECT_EQ(c.asserted != nullptr, c.asserted && capture.saw(c.asserted, "src/boot")) << c.name;
        SetDebugSink(nullptr);
    }
}

TEST(BootImage, VersionMarker) {
    const auto img = testimage::Build({.versionHi = 0x03, .versionLo = 0x41});
    const auto at = FindVersionMarker(img);
    ASSERT_TRUE(at);
    EXPECT_EQ(img[*at], 0x03);
    EXPECT_EQ(img[*at + 1], 0x41);
    EXPECT_FALSE(FindVersionMarker(testimage::Build({.marker = false})));
    EXPECT_FALSE(FindVersionMarker(testimage::Build({.boot = false})));
    const std::vector<uint8_t> cut{'F', 'W', ' ', 'V', 'e', 'r', 1}; // one version byte only
    EXPECT_FALSE(FindVersionMarker(cut));
}

TEST(BootImage, ReadFile) {
    const auto img = testimage::Build({});
    const auto read = ReadImageFile(testimage::WriteFile("img.bin", img).c_str(), kImageMaxBytes);
    ASSERT_EQ(read.size(), kImageMaxBytes);
    EXPECT_TRUE(std::equal(img.begin(), img.end(), read.begin()));
    EXPECT_TRUE(std::all_of(read.begin() + static_cast<std::ptrdiff_t>(img.size()), read.end(),
                            [](uint8_t b) { return b == 0; }));
    const std::vector<uint8_t> big(kImageMaxBytes + 1, 0x5A);
    EXPECT_TRUE(ReadImageFile(testimage::WriteFile("big.bin", big).c_str(), kImageMaxBytes).empty());
    EXPECT_TRUE(ReadImageFile(testimage::WriteFile("empty.bin", {}).c_str(), kImageMaxBytes).empty());
    AssertionCapture capture;
    EXPECT_TRUE(ReadImageFile("/nonexistent/dir/x.bin", kImageMaxBytes).empty());
    EXPECT_TRUE(capture.saw("f", "src/boot"));
}

// ProgramImage's progress and debug lines (the flash: tests/e2e/flash_test.cpp).
TEST(Programming, PagesBlocksAndProgress) {
    constexpr int32_t kSerial = 71000001;
    lxSimDetachAll();
    int32_t id = 0;
    ASSERT_EQ(lxSimAttachRaw("LX530 Boot", std::to_string(kSerial).c_str(), nullptr, &id), lxNoError);
    usb::UsbTransport link;
    ASSERT_TRUE(link.BindEndpoints(usb::FindBySerial(kSerial)));
    // Pages written, then 32 KiB blocks read back: a line each.
    const struct { size_t bytes; uint64_t writes; double progress; size_t steps; } cases[] = {
        {1500, 1, 2 / 1.03125, 2}, {64 * 1024, 64, 1.0, 66}, {33 * 1024, 33, 35 / (33 * 1.03125), 35}};
    for (const auto& c : cases) {
        ASSERT_EQ(link.EraseFlashPage(8192), lxNoError);
        std::vector<uint8_t> data(c.bytes);
        for (size_t i = 0; i < c.bytes; ++i) data[i] = static_cast<uint8_t>(i * 7 + (i >> 10));
        std::vector<std::string> lines;
        SetDebugSink([&](const std::string& s) { lines.push_back(s); });
        double progress = -1;
        EXPECT_EQ(ProgramImage(link, data, 8192 * 1024, &progress), lxNoError) << c.bytes;
        SetDebugSink(nullptr);
        EXPECT_NEAR(progress, std::min(1.0, c.progress), 1e-12) << c.bytes; // after the last step
        EXPECT_EQ(lines.size(), c.steps) << c.bytes;
        EXPECT_EQ(lines.front(), "Writing Page 8192\n");
        EXPECT_EQ(lines[c.writes], "Verifying Page 8192\n");
    }
    link.Close();
    lxSimDetachAll();
}

} // namespace
