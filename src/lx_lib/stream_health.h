// Per-device counters of what a stream delivered and what it lost, since the
// last configure (lxGetStreamHealth). Every streaming engine feeds them from
// its own threads; the API reads them from the caller's thread. Plain relaxed
// atomics: each counter is exact, a snapshot of several is not one instant.
#pragma once

#include <atomic>
#include <cstdint>

namespace lx {

struct StreamHealth {
    std::atomic<uint64_t> samplesDelivered{0}; // handed to the application
    std::atomic<uint64_t> samplesDropped{0};   // thrown away by the host (a reader that fell behind)
    std::atomic<uint64_t> dataLossEvents{0};   // status packets with the device's data-loss bit
    std::atomic<uint64_t> adcOverflowEvents{0}; // status packets with the ADC-overflow bit
    std::atomic<uint64_t> transportErrors{0};  // transfers that failed, timed out or came back short
    std::atomic<uint64_t> spectraLost{0};      // spectra the real-time engine could not compute in time
    std::atomic<uint64_t> streamHeldMs{0};     // real time: the USB thread waited for sample-ring room

    static void Add(std::atomic<uint64_t>& c, uint64_t n) { c.fetch_add(n, std::memory_order_relaxed); }
    void Reset() {
        for (auto* c : {&samplesDelivered, &samplesDropped, &dataLossEvents, &adcOverflowEvents, &transportErrors,
                        &spectraLost, &streamHeldMs})
            c->store(0, std::memory_order_relaxed);
    }
    // Counts the device's loss and overflow bits of one status word.
    void TakeStatusWord(uint32_t word, uint32_t overflowBit, uint32_t lossBit) {
        if (word & overflowBit) Add(adcOverflowEvents, 1);
        if (word & lossBit) Add(dataLossEvents, 1);
    }
};

} // namespace lx
