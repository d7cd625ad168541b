// The status-packet intake over a series of packets: GPS ring indexes,
// message sequence, pulse and block ticks, status words, ring text. Each
// packet takes 24 bytes of fields and a length-prefixed piece of ring text
// (repeated over the whole ring) from the input.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "gps/gps_state.h"
#include "lx_command/status_packet.h"

namespace {

template <typename T>
T Take(const uint8_t*& p, const uint8_t* end) {
    T v{};
    const size_t n = std::min(sizeof v, static_cast<size_t>(end - p));
    std::memcpy(&v, p, n);
    p += n;
    return v;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace lx;
    std::vector<uint8_t> rec(kAuxRecordBytes, 0);
    gps::GpsState g;
    const uint8_t* p = data;
    const uint8_t* end = data + size;
    int64_t hostNs = 1795262400LL * 1000000000LL;
    for (int packet = 0; p < end && packet < 64; ++packet) {
        const uint32_t gpsStatus = Take<uint32_t>(p, end);
        const uint64_t pulse = Take<uint64_t>(p, end);
        const uint64_t block = Take<uint64_t>(p, end);
        const uint32_t status = Take<uint32_t>(p, end);
        const size_t textLen = std::min<size_t>(Take<uint8_t>(p, end), static_cast<size_t>(end - p));
        if (textLen > 0) {
            for (size_t i = 0; i < kAuxUartRingBytes; ++i) rec[kAuxUartRingOffset + i] = p[i % textLen];
            p += textLen;
        }
        gps::GpsPacketFields f;
        f.gpsStatusWord = gpsStatus;
        f.pulseTick = pulse;
        f.blockTick = block;
        f.deviceStatusWord = status;
        f.uartRing = rec.data() + kAuxUartRingOffset;
        f.nmeaArea = rec.data() + kAuxUartRingOffset;
        const int hwDecimation = 1 << (packet % 3);
        gps::TakeStatusPacket(g, f, hwDecimation, hostNs);
        hostNs += 250000000;
        if (g.textLength > gps::kNmeaBufferBytes) std::abort();
    }
    return 0;
}
