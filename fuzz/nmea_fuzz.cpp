// NMEA text as the receiver's UART ring delivers it: any bytes at all.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "gps/nmea.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    lx::gps::NmeaState s;
    lx::gps::ApplyNmea(text, s);
    // A chunk is applied to the state the previous one left: apply it twice.
    lx::gps::ApplyNmea(text, s);
    if (s.fixValid && !(std::isfinite(s.latitude) && std::isfinite(s.longitude) && std::isfinite(s.altitude)))
        std::abort();
    for (const std::string_view tag : {"RMC", "GGA"})
        if (const auto sentence = lx::gps::FindSentence(text, tag))
            if (sentence->empty() || sentence->size() > 511) std::abort();
    return 0;
}
