#include "gps/gps_state.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>

namespace lx::gps {

namespace {
constexpr size_t kRingWords = 512;

// Ticks come from the device: a corrupt packet can carry any 64-bit count, so
// conversions and sums saturate at the int64 range instead of overflowing.
constexpr double kMaxNs = 9.2e18; // just inside int64
int64_t TicksToNs(double ticks) {
    const double ns = std::floor(ticks * kNsPerTick + 0.5);
    return ns != ns ? 0 : static_cast<int64_t>(std::clamp(ns, -kMaxNs, kMaxNs));
}
int64_t AddNs(int64_t a, int64_t b) {
    int64_t sum;
    if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
    return sum;
}
} // namespace

int64_t HostNowNs() {
    using namespace std::chrono;
    const auto t = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
    return (t / 100) * 100;
}

int64_t TakeStatusPacket(GpsState& g, const GpsPacketFields& p, int hwDecimation, int64_t hostNowNs) {
    const uint32_t seq = (p.gpsStatusWord >> 18) & 0x3;
    const uint32_t readIndex = (p.gpsStatusWord >> 20) & 0x1FF;
    const uint32_t writeIndex = (p.gpsStatusWord >> 9) & 0x1FF;

    bool fixValid;
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        g.statusBit = (p.deviceStatusWord & (1u << 10)) != 0;
        if (seq != g.sequence) {
            g.sequence = seq;
            // The receiver sends a message some time after the pulse it
            // describes; the packet's own tick would date it that much late.
            g.messageTick = p.pulseTick;
            // Copy the ring from the read index up to the write index, wrapping.
            size_t n = 0;
            if (p.uartRing) {
                for (uint32_t w = readIndex % kRingWords; w != writeIndex % kRingWords && n + 4 <= kNmeaBufferBytes;
                     w = (w + 1) % kRingWords) {
                    std::memcpy(g.text.data() + n, p.uartRing + 4 * w, 4);
                    n += 4;
                }
            }
            g.text[n] = '\0';
            g.textLength = std::strlen(g.text.data()); // the last word may be padded with NULs
            ApplyNmea(std::string_view(g.text.data(), g.textLength), g.nmea);
            ++g.messageCounter;
        } else if (g.nmea.fixValid && p.blockTick > g.messageTick && p.blockTick - g.messageTick > kLossTicks) {
            if (p.nmeaArea) std::memcpy(g.text.data(), p.nmeaArea, kNmeaBufferBytes);
            g.text[kNmeaBufferBytes] = '\0';
            g.textLength = kNmeaBufferBytes;
            g.nmea.fixValid = false;
            g.nmea.gpsTimeNs = 0;
            g.nmea.gpsSeconds = 0;
            g.nmea.latitude = 0.0;
            g.nmea.longitude = 0.0;
            g.nmea.altitude = 0.0;
        }
        fixValid = g.nmea.fixValid;
    }

    if (fixValid) {
        // The device's pipeline delay between the pulse and the block's
        // first sample, in ticks, depends on the hardware decimation.
        const double d1 = hwDecimation;
        const double delay = 2048.0 * d1 - (d1 < 2 ? 98.0 : 176.0) - (d1 >= 4 ? 136.0 : 0.0);
        const double ticks = delay + static_cast<double>(p.blockTick) - static_cast<double>(g.messageTick);
        int64_t fixNs;
        {
            std::lock_guard<std::mutex> lock(g.mutex);
            fixNs = g.nmea.gpsTimeNs;
        }
        g.anchorTimeNs = AddNs(fixNs, TicksToNs(ticks));
        g.deviceTimeNs = g.anchorTimeNs;
        g.anchorTick = p.blockTick;
        g.anchored = true;
    } else if (g.anchored) {
        g.deviceTimeNs =
            AddNs(g.anchorTimeNs, TicksToNs(static_cast<double>(p.blockTick) - static_cast<double>(g.anchorTick)));
    } else {
        g.deviceTimeNs = g.anchorTimeNs = hostNowNs;
        g.anchorTick = p.blockTick;
        g.anchored = true;
    }
    return g.deviceTimeNs;
}

} // namespace lx::gps
