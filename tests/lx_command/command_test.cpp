// Block rules, request limits, filter taps, the status packet's temperature.
// (Request, capture and stop words and the status packet's magic: tests/e2e,
// where a wrong one loses the stream.)
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <utility>

#include "common/lx_assert.h"
#include "lx_command/command_list.h"
#include "lx_command/encoders.h"
#include "lx_command/status_packet.h"

namespace {

constexpr const char* kModule = "src/lx_command";

TEST(CommandList, FullBlockDropsTheWordAndStaysWhole) {
    lx::AssertionCapture cap;
    lx::CommandList list;
    list.Push(7); // no block yet
    EXPECT_TRUE(cap.saw("false", kModule));
    EXPECT_TRUE(list.Words().empty());

    list.BeginBlock();
    ASSERT_EQ(list.Words().size(), 512u);
    for (uint32_t w : list.Words()) ASSERT_EQ(w, lx::kFillerWord);
    cap.clear();
    for (uint32_t i = 0; i < 512; ++i) list.Push(0x100 + i);
    EXPECT_EQ(cap.count(), 0u);
    EXPECT_EQ(list.FreeWordsInBlock(), 0u);
    list.Push(0xAAAAAAAA);
    EXPECT_TRUE(cap.saw("false", kModule));
    EXPECT_EQ(list.Words().size(), 512u);
    EXPECT_EQ(list.Words().back(), 0x100u + 511);

    list.BeginBlock();
    EXPECT_EQ(list.Cursor(), 512);
    list.Push(0x42);
    EXPECT_EQ(list.Words()[512], 0x42u);
    EXPECT_EQ(list.BlockCount(), 2u);
}

TEST(TransferRequest, OverLimitCountsAreReported) {
    lx::AssertionCapture cap;
    lx::CommandList list;
    list.BeginBlock();
    lx::EncodeTransferRequest(list, 256, 0);
    EXPECT_TRUE(cap.saw("iqPkts <= 255", kModule));
    EXPECT_FALSE(cap.saw("auxPkts <= 4", kModule));
    lx::EncodeTransferRequest(list, 0, 5);
    EXPECT_TRUE(cap.saw("auxPkts <= 4", kModule));
}

TEST(FilterTaps, Quantisation) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::pair<float, uint16_t> cases[] = {
        {1.0f, 0x7FFF}, {-1.0f, 0x8001}, {0.0f, 0},        {0.5f, 0x4000},  // 16383.5 + 0.5
        {-0.5f, 0xC001},                                                   // floor(-16383.0) = -16383
        {1.0f / 32767.0f, 0x0001}, {1.4e-5f, 0},                           // 0.459 + 0.5 rounds down
        {2.0f, 0x7FFF}, {-2.0f, 0x8000}, {nan, 0},                         // saturate, never wrap
    };
    for (auto [x, q] : cases) EXPECT_EQ(lx::QuantiseTap(x), q) << x;
}

TEST(FilterTaps, SixtyFourWordsWithTheLastPairZero) {
    float taps[32][2];
    for (int i = 0; i < 32; ++i) {
        taps[i][0] = 1.0f;
        taps[i][1] = -1.0f;
    }
    lx::CommandList list;
    list.BeginBlock();
    lx::EncodeFilterTaps(list, taps);
    ASSERT_EQ(list.Cursor(), 64);
    const auto& w = list.Words();
    EXPECT_EQ(w[0], 0x40007FFFu);
    EXPECT_EQ(w[1], 0x60008001u);
    EXPECT_EQ(w[60], 0x5E007FFFu);
    EXPECT_EQ(w[61], 0x7E008001u);
    EXPECT_EQ(w[62], 0x5F000000u);
    EXPECT_EQ(w[63], 0x7F000000u);
}

TEST(FilterTaps, FreeWordLimit) {
    const float taps[32][2] = {};
    // 62 free words still take the taps: only the zero pair 31 is lost, with
    // a report per dropped word. With fewer, nothing is written at all.
    struct Case { int used; size_t reports; int written; };
    for (const Case& c : {Case{448, 0, 64}, Case{450, 2, 62}, Case{451, 1, 0}}) {
        lx::AssertionCapture cap;
        lx::CommandList list;
        list.BeginBlock();
        for (int i = 0; i < c.used; ++i) list.Push(0);
        lx::EncodeFilterTaps(list, taps);
        EXPECT_EQ(cap.count(), c.reports) << c.used;
        EXPECT_EQ(list.Cursor() - c.used, c.written) << c.used;
        if (c.reports) {
            EXPECT_TRUE(cap.saw("false", kModule));
        }
        EXPECT_EQ(list.Words().size(), 512u);
    }
}

TEST(StatusPacket, TemperatureWord) {
    const std::pair<uint16_t, float> cases[] = {
        {0x1000 | (1020 << 2), -1.0f}, {0x0064, 6.25f}, {0x0067, 6.25f}, // bits 0..1 ignored
        {0xE064, 6.25f},                                                  // bits 13..15 ignored
        {0x0000, 0.0f}, {0x0FFC, 255.75f}, {0x1000, -256.0f}, {0x1FFC, -0.25f},
    };
    for (auto [word, celsius] : cases) EXPECT_EQ(lx::TemperatureFromWord(word), celsius) << word;
}

} // namespace
