// Helpers for driving a simulated LX530 the way a host does: through the
// backend interface only, with command words written out by hand.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "lx_sim.h"
#include "sim/sim_backend.h"

namespace simtest {

using lx::usb::Endpoint;
using lx::usb::UsbDevice;
using lx::usb::WaitResult;

inline lx::usb::UsbBackend& Bus() { return lx::sim::Backend(); }

// Opens the enumerated device whose serial string is `serial`; null if absent.
inline std::unique_ptr<UsbDevice> Open(const std::string& serial) {
    const int n = Bus().DeviceCount();
    for (int i = 0; i < n; ++i) {
        auto d = Bus().Open(i);
        if (d && d->Identity().serial == serial) return d;
    }
    return nullptr;
}
inline std::unique_ptr<UsbDevice> Open(int32_t serial) { return Open(std::to_string(serial)); }

inline std::vector<std::string> EnumeratedSerials() {
    std::vector<std::string> out;
    const int n = Bus().DeviceCount();
    for (int i = 0; i < n; ++i)
        if (auto d = Bus().Open(i)) out.push_back(d->Identity().serial);
    return out;
}

// Words as one or more 512-word blocks, the rest filled with 0x00000001.
inline bool Send(UsbDevice& d, const std::vector<uint32_t>& words) {
    for (size_t at = 0; at < words.size() || at == 0; at += 512) {
        std::vector<uint8_t> block(2048);
        for (size_t i = 0; i < 512; ++i) {
            const uint32_t w = at + i < words.size() ? words[at + i] : 0x00000001u;
            for (int b = 0; b < 4; ++b) block[4 * i + b] = static_cast<uint8_t>(w >> (8 * b));
        }
        auto t = d.BeginBulk(Endpoint::BulkOut, block.data(), 2048);
        if (d.WaitBulk(*t, 2000) != WaitResult::Completed || d.FinishBulk(*t) != 2048) return false;
        if (words.size() <= at + 512) break;
    }
    return true;
}

struct ReadResult {
    WaitResult wait = WaitResult::Failed;
    std::vector<uint8_t> data; // the bytes moved (FinishBulk's count)
};

// One IN transfer; on a time-out it is aborted and finished as a host does.
inline ReadResult Read(UsbDevice& d, uint32_t length, uint32_t timeoutMs = 500) {
    ReadResult r;
    std::vector<uint8_t> buf(length);
    auto t = d.BeginBulk(Endpoint::BulkIn, buf.data(), length);
    r.wait = d.WaitBulk(*t, timeoutMs);
    if (r.wait == WaitResult::TimedOut) {
        d.AbortEndpoint(Endpoint::BulkIn);
        d.WaitBulk(*t, 2000);
    }
    buf.resize(d.FinishBulk(*t));
    r.data = std::move(buf);
    return r;
}

// The transfer-request word and its four companions.
inline std::vector<uint32_t> Request(uint32_t iq, uint32_t aux) {
    return {0x31000000u | (iq == 0 ? 0x800u : 0u) | (aux << 8) | iq, 0x14000001u, 0x01000000u, 0x01000000u,
            0x01000000u};
}

inline uint32_t U32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }
inline uint16_t U16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
inline uint64_t U64(const uint8_t* p) { return U32(p) | static_cast<uint64_t>(U32(p + 4)) << 32; }

inline uint64_t VirtualMs() {
    uint64_t ms = 0;
    lxSimGetVirtualTimeMs(&ms);
    return ms;
}

// Every test starts and ends with an empty bus.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override { lxSimDetachAll(); }
    void TearDown() override { lxSimDetachAll(); }
};

} // namespace simtest
