// CommandList: the 32-bit command words sent to the instrument, collected in
// fixed blocks of CMD_SIZE_WORDS words. The transport sends one block per bulk
// OUT transfer; the device skips the filler words that pad a block.
//
// Alongside the words the list keeps, per block, how many I/Q and aux packets
// the block's transfer requests ask for, so that the reader knows how many
// bytes the matching IN transfer carries.
//
// Not thread-safe; a list is built and sent by one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lx {

inline constexpr int CMD_SIZE_WORDS = 512;
inline constexpr uint32_t kFillerWord = 0x00000001;

class CommandList {
public:
    // Starts a new block of CMD_SIZE_WORDS filler words; the cursor moves to
    // its first word. Every list begins with this call.
    void BeginBlock();

    // Stores the word at the cursor. When the current block is full (or no
    // block was begun) the assertion "false" (module "src/lx_command") fires
    // and the word is dropped: the list always stays whole blocks.
    void Push(uint32_t word);

    const std::vector<uint32_t>& Words() const { return words_; }
    size_t BlockCount() const { return iqTotals_.size(); }
    // Index into Words() of the next free word.
    int32_t Cursor() const { return cursor_; }
    size_t FreeWordsInBlock() const { return words_.size() - static_cast<size_t>(cursor_); }

    // Per block, the packets the block's transfer requests ask for.
    const std::vector<uint32_t>& IqPacketTotals() const { return iqTotals_; }
    const std::vector<uint32_t>& AuxPacketTotals() const { return auxTotals_; }
    // Adds to the current (last) block's totals; does nothing before the first block.
    void AddPacketTotals(uint32_t iq, uint32_t aux);

private:
    std::vector<uint32_t> words_;
    std::vector<uint32_t> iqTotals_;
    std::vector<uint32_t> auxTotals_;
    int32_t cursor_ = 0;
};

} // namespace lx
