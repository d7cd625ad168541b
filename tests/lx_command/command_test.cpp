// Block rules, transfer requests, capture control, filter taps, stop block
// and the power-up sequence (which carries the synthesizer table).
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "common/lx_assert.h"
#include "lx_command/command_list.h"
#include "lx_command/encoders.h"

namespace {

constexpr const char* kModule = "src/lx_command";

std::vector<uint32_t> BlockWords(const lx::CommandList& list, size_t block, size_t count) {
    const auto& w = list.Words();
    return std::vector<uint32_t>(w.begin() + long(block * lx::CMD_SIZE_WORDS),
                                 w.begin() + long(block * lx::CMD_SIZE_WORDS + count));
}

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
    EXPECT_EQ(list.Words()[513], lx::kFillerWord);
    EXPECT_EQ(list.BlockCount(), 2u);
}

TEST(TransferRequest, WordsAndPerBlockTotals) {
    struct Case { uint32_t iq, aux, first; };
    const Case cases[] = {{0, 0, 0x31000800}, {127, 1, 0x3100017F}, {255, 4, 0x310004FF},
                          {0, 4, 0x31000C00}, {1, 0, 0x31000001}};
    for (const Case& c : cases) {
        lx::AssertionCapture cap;
        lx::CommandList list;
        list.BeginBlock();
        lx::EncodeTransferRequest(list, c.iq, c.aux);
        EXPECT_EQ(BlockWords(list, 0, 6),
                  (std::vector<uint32_t>{c.first, 0x14000001, 0x01000000, 0x01000000, 0x01000000, 1}));
        EXPECT_EQ(list.IqPacketTotals(), std::vector<uint32_t>{c.iq});
        EXPECT_EQ(list.AuxPacketTotals(), std::vector<uint32_t>{c.aux});
        EXPECT_EQ(cap.count(), 0u);
    }

    // Totals belong to the block the request sits in.
    lx::CommandList list;
    list.BeginBlock();
    lx::EncodeTransferRequest(list, 10, 1);
    lx::EncodeTransferRequest(list, 20, 0);
    list.BeginBlock();
    lx::EncodeTransferRequest(list, 3, 2);
    EXPECT_EQ(list.IqPacketTotals(), (std::vector<uint32_t>{30, 3}));
    EXPECT_EQ(list.AuxPacketTotals(), (std::vector<uint32_t>{1, 2}));
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

TEST(CaptureControl, ValueTakesTheLow24Bits) {
    for (auto [value, first] : {std::pair<uint32_t, uint32_t>{1, 0x30000001}, {0, 0x30000000},
                                {0x01234567, 0x30234567}}) {
        lx::CommandList list;
        list.BeginBlock();
        lx::EncodeCaptureControl(list, value);
        EXPECT_EQ(BlockWords(list, 0, 6),
                  (std::vector<uint32_t>{first, 0x10000050, 0x01000000, 0x01000000, 0x01000000, 1}));
    }
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

TEST(StopBlock, NewBlockHoldingOnlyTheStopWord) {
    lx::CommandList list;
    list.BeginBlock();
    lx::EncodeTransferRequest(list, 127, 1);
    lx::EncodeStopBlock(list);
    ASSERT_EQ(list.BlockCount(), 2u);
    EXPECT_EQ(list.Words()[512], 0x32000000u);
    for (size_t i = 513; i < 1024; ++i) ASSERT_EQ(list.Words()[i], lx::kFillerWord) << i;
    EXPECT_EQ(list.IqPacketTotals()[1], 0u);
}

} // namespace
