#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "lx_command/status_packet.h"

namespace {

TEST(StatusPacket, MagicInStreamOrder) {
    std::vector<uint8_t> rec(lx::kAuxRecordBytes, 0);
    const uint8_t stream[4] = {0x31, 0x58, 0x55, 0x41};
    std::copy(stream, stream + 4, rec.begin());
    EXPECT_TRUE(lx::HasAuxMagic(rec.data()));
    const uint8_t swapped[4] = {0x41, 0x55, 0x58, 0x31};
    std::copy(swapped, swapped + 4, rec.begin());
    EXPECT_FALSE(lx::HasAuxMagic(rec.data()));
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
