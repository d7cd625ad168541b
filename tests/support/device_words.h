// What the simulated device makes of command words (band path, LO, capture
// centre, IF level, taps), for tests that judge the host's words by it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "sim/front_end.h"

namespace wordtest {

namespace fe = lx::sim::fe;

struct DeviceReading {
    fe::RfPath path;
    double loHz = 0, centreHz = 0;
    int ifLevel = -1;
    int tapWords = 0;
    fe::TapRegisters taps = fe::ResetTapRegisters();
    fe::DeviceFilter Filter() const { return fe::DeviceFilter(taps); }
};

inline DeviceReading ReadWords(const uint32_t* w, size_t n) {
    fe::SynthRegisters synth;
    DeviceReading d;
    for (size_t i = 0; i < n; ++i) {
        const uint32_t op = w[i] >> 24;
        if (op == 0x20) synth.reg[(w[i] >> 16) & 0x7F] = static_cast<uint16_t>(w[i]);
        if (op == 0x24) d.ifLevel = static_cast<int>(w[i] & 0xFF);
        if (op == 0x2C) d.path = fe::DecodeBandWord(w[i] & 0xFFFFFF);
        if (op >= 0x40 && op <= 0x7F) {
            d.taps[op - 0x40] = static_cast<uint16_t>(w[i]);
            ++d.tapWords;
        }
    }
    d.loHz = fe::LoHz(d.path.band, fe::SynthOutputHz(synth, fe::BandUsesHighOutput(d.path.band)));
    d.centreHz = fe::CaptureCentreHz(d.path.band, d.loHz);
    return d;
}

} // namespace wordtest
