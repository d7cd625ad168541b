#include "lx_command/command_list.h"

#include "common/lx_assert.h"

namespace lx {

void CommandList::BeginBlock() {
    cursor_ = static_cast<int32_t>(words_.size());
    words_.resize(words_.size() + CMD_SIZE_WORDS, kFillerWord);
    iqTotals_.push_back(0);
    auxTotals_.push_back(0);
}

void CommandList::Push(uint32_t word) {
    if (static_cast<size_t>(cursor_) >= words_.size()) {
        LX_ASSERT(false, "src/lx_command");
        return;
    }
    words_[static_cast<size_t>(cursor_)] = word;
    ++cursor_;
}

void CommandList::AddPacketTotals(uint32_t iq, uint32_t aux) {
    if (iqTotals_.empty()) return;
    iqTotals_.back() += iq;
    auxTotals_.back() += aux;
}

} // namespace lx
