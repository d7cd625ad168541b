#include "sim/front_end.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace lx::sim::fe {

namespace {

// Base gain of each path at 25 degrees C, IF level 4, no attenuation (dB).
constexpr std::array<double, kBandCount> kBaseGainDb{
    12.0, 11.4, 11.8, 12.3, 11.5, 10.8, 10.1, 10.6, 9.7, 8.9, 8.0, 6.8, 5.9, 10.4, 5.2};

// Step attenuator, per path: its loss is nominal * (1 + e) plus a wiggle
// from step to step (pads and switches do not add up exactly); together at
// most 0.3 dB off nominal.
constexpr std::array<double, kBandCount> kAttenuatorError{
    -0.0033, -0.0017, 0.0, 0.0017, 0.0033, -0.0033, -0.0017, 0.0, 0.0017, 0.0033, -0.0033, -0.0017, 0.0, 0.0017, 0.0033};
constexpr double kAttenuatorWiggleDb = 0.2;

// Band 0 rises towards DC; the host takes the rise out with its fixed
// low-frequency table, so these are exactly those values negated.
constexpr std::array<std::pair<double, double>, 6> kLowFrequencyRise{{
    {2.0e6, 0.85}, {2.4e6, 0.75}, {3.95e6, 0.5}, {5.35e6, 0.25}, {7.2e6, 0.1}, {8.7e6, 0.0}}};

// Gain against temperature: -0.03 dB/degC in band 0 to -0.079 in band 14.
constexpr double kTempCoefficientDbPerC = -0.03;
constexpr double kTempCoefficientPerBand = -0.0035;

// RF flatness: a slope, a slow undulation, a standing wave between the
// input connector and the first stage (whose 300 MHz period moves the gain by
// up to 0.32 dB from one 30.72 MHz row to the next) and a temperature tilt.
constexpr double kFlatnessSlopeDbPerGHz = -0.30;
constexpr double kFlatnessWaveDb = 0.5;
constexpr double kFlatnessWavePeriodGHz = 2.7;
constexpr double kStandingWaveDb = 0.5;
constexpr double kStandingWavePeriodGHz = 0.3;
constexpr double kFlatnessTiltDbPerGHzPerC = 0.002;

// IF ripple: one slow sine across the capture (about +-0.5 dB, so that a host
// that misreads its response tables is visibly off) whose depth grows with
// temperature, a per-path tilt, and a sine of phase.
constexpr double kRippleDb = 0.50;
constexpr double kRipplePerC = 0.004;
constexpr double kRipplePeriodHz = 44.0e6;
constexpr double kRippleTiltDb = 0.12; // at +30.72 MHz, times -1, 0 or 1 by path
constexpr double kPhaseRippleRad = 0.06;
constexpr double kPhaseRipplePerC = 0.002;
constexpr double kPhaseRipplePeriodHz = 52.0e6;
constexpr double kPhaseRipplePhase = 0.3;
constexpr double kIfLevelDbPerStep = 1.0;
constexpr int kIfLevelMax = 15;

constexpr double kVcoMinHz = 7.499e9;
constexpr double kVcoMaxHz = 15.2e9;

// Low edges of grid rows 1..10 (rows above: centre - 15.36 MHz).
constexpr std::array<double, 10> kGridLowEdge{0.0,     38.4e6,  61.44e6,  92.16e6,  122.88e6,
                                              153.6e6, 184.32e6, 215.04e6, 245.76e6, 276.48e6};
constexpr double kGridRow10HighHz = 299.52e6;

constexpr std::array<double, 10> kGridLo{61.44e6,  69.12e6,  99.84e6,  130.56e6, 161.28e6,
                                         192.0e6,  222.72e6, 253.44e6, 284.16e6, 307.2e6};
constexpr std::array<double, 10> kGridCentre{23.04e6,  46.08e6,  76.8e6,   107.52e6, 138.24e6,
                                             168.96e6, 199.68e6, 230.4e6,  261.12e6, 284.16e6};

} // namespace

RfPath DecodeBandWord(uint32_t operand) {
    RfPath p;
    const uint8_t a = static_cast<uint8_t>(operand >> 16);
    const uint8_t b = static_cast<uint8_t>(operand >> 8);
    const uint8_t c = static_cast<uint8_t>((operand >> 5) & 0x3);
    p.attenuationDb = static_cast<double>(operand & 0x1F);
    // Bit 7 enables the path; without it nothing reaches the ADC.
    if ((operand & 0x80) == 0) return p;
    for (int band = 0; band < kBandCount; ++band) {
        const auto& s = kBandSwitches[static_cast<size_t>(band)];
        if (s.a == a && s.b == b && s.c == c) {
            p.band = band;
            break;
        }
    }
    return p;
}

bool BandHalvesSynth(int band) {
    return band == 1 || band == 2 || band == 3 || band == 4 || band == 5 || band == 7 || band == 8;
}

bool BandUsesHighOutput(int band) { return band == 11 || band == 12 || band == 14; }

int BandForFrequency(double f, bool altPath) {
    if (f < 38.4e6) return 0;
    if (f < 61.44e6) return 1;
    if (f < 122.88e6) return 2;
    if (f < 276.48e6) return 3;
    if (f < 576e6) return 4;
    if (f < 698.88e6) return 5;
    if (f < 944.64e6 && !altPath) return 13;
    if (f < 975.36e6) return 6;
    if (f < 1405.44e6) return 7;
    if (f < 1958.4e6) return 8;
    if (f < 2880e6) return 9;
    if (f < 5429.76e6) return 10;
    if (f >= 11635.2e6 && !altPath) return 14;
    if (f < 8409.6e6) return 11;
    return 12;
}

int ChannelDivider(int code) {
    // Code 10 (divide by 72) exists in the part but has no use here.
    static constexpr std::array<int, 15> kDividers{2, 4, 6, 8, 12, 16, 24, 32, 48, 64, 72, 96, 128, 192, 256};
    if (code < 0 || code >= static_cast<int>(kDividers.size())) return 0;
    return kDividers[static_cast<size_t>(code)];
}

double VcoHz(const SynthRegisters& r) {
    const double n = r.reg[0x24];
    const double frac = r.reg[0x2B];
    return n * kSynthReferenceHz + frac * kSynthFracStepHz;
}

double SynthOutputHz(const SynthRegisters& r, bool highOutput) {
    const double vco = VcoHz(r);
    if (vco < kVcoMinHz || vco > kVcoMaxHz) return 0.0;
    // Register 0x2E bits 1..0 pick the second output's source: 1 the VCO
    // itself, 0 the channel divider. The first output always divides.
    if (highOutput && (r.reg[0x2E] & 0x3) == 1) return vco;
    const int d = ChannelDivider((r.reg[0x4B] >> 6) & 0x1F);
    if (d == 0) return 0.0;
    return vco / d;
}

double LoHz(int band, double synthHz) { return BandHalvesSynth(band) ? synthHz / 2.0 : synthHz; }

double CaptureCentreHz(int band, double loHz) {
    return loHz - (band == 0 ? kIfOffsetBand0Hz : kIfOffsetHz);
}

double LowFrequencyRiseDb(double rfHz) {
    if (rfHz < kLowFrequencyRise.front().first) return kLowFrequencyRise.front().second;
    for (size_t i = 1; i < kLowFrequencyRise.size(); ++i) {
        const auto [f1, v1] = kLowFrequencyRise[i];
        if (rfHz < f1) {
            const auto [f0, v0] = kLowFrequencyRise[i - 1];
            return v0 + (v1 - v0) * (rfHz - f0) / (f1 - f0);
        }
    }
    return 0.0;
}

double RfFlatnessDb(double rfHz, double tempC) {
    const double fGHz = rfHz * 1e-9;
    return kFlatnessSlopeDbPerGHz * fGHz +
           kFlatnessWaveDb * std::sin(2.0 * std::numbers::pi * fGHz / kFlatnessWavePeriodGHz) +
           kStandingWaveDb * std::sin(2.0 * std::numbers::pi * fGHz / kStandingWavePeriodGHz + 1.1) +
           kFlatnessTiltDbPerGHzPerC * (tempC - 25.0) * fGHz;
}

double GainDb(int band, double rfHz, double attenuationDb, double tempC, int ifLevel) {
    if (band < 0 || band >= kBandCount) return -200.0;
    const size_t b = static_cast<size_t>(band);
    double g = kBaseGainDb[b];
    g += RfFlatnessDb(rfHz, tempC);
    if (band == 0) g += LowFrequencyRiseDb(rfHz);
    g += (kTempCoefficientDbPerC + kTempCoefficientPerBand * band) * (tempC - 25.0);
    g += kIfLevelDbPerStep * (std::clamp(ifLevel, 0, kIfLevelMax) - 4);
    g -= attenuationDb * (1.0 + kAttenuatorError[b]) +
         kAttenuatorWiggleDb * std::min(attenuationDb / 5.0, 1.0) * std::sin(0.4 * attenuationDb + 0.7 * band);
    return g;
}

double IfResponse(double offsetHz) {
    const double a = std::abs(offsetHz);
    if (a <= kIfFlatHz) return 1.0;
    if (a >= kIfEdgeHz) return 0.0;
    return 0.5 * (1.0 + std::cos(std::numbers::pi * (a - kIfFlatHz) / (kIfEdgeHz - kIfFlatHz)));
}

double IfRippleDb(int band, double offsetHz, double tempC) {
    const double depth = kRippleDb * (1.0 + kRipplePerC * (tempC - 25.0));
    const double wave = std::sin(2.0 * std::numbers::pi * offsetHz / kRipplePeriodHz);
    const double tilt = kRippleTiltDb * ((std::max(band, 0) % 3) - 1) * offsetHz / kIfEdgeHz;
    return depth * wave + tilt;
}

double IfRipplePhase(double offsetHz, double tempC) {
    const double depth = kPhaseRippleRad * (1.0 + kPhaseRipplePerC * (tempC - 25.0));
    return depth * (std::sin(2.0 * std::numbers::pi * offsetHz / kPhaseRipplePeriodHz + kPhaseRipplePhase) -
                    std::sin(kPhaseRipplePhase));
}

std::complex<double> IfResponseAt(int band, double offsetHz, double tempC) {
    const double taper = IfResponse(offsetHz);
    if (taper <= 0.0) return 0.0;
    return std::polar(taper * std::pow(10.0, IfRippleDb(band, offsetHz, tempC) / 20.0),
                      IfRipplePhase(offsetHz, tempC));
}

int DecimationForCode(uint32_t captureControl) {
    switch (captureControl) {
    case 2: return 2;
    case 3: return 4;
    default: return 1;
    }
}

double DecimatorResponse(double cyclesPerOutputSample, int factor) {
    if (factor <= 1) return 1.0;
    constexpr double kFlat = 0.4, kEdge = 0.5;
    const double a = std::abs(cyclesPerOutputSample);
    if (a <= kFlat) return 1.0;
    if (!(a < kEdge)) return 0.0;
    return 0.5 * (1.0 + std::cos(std::numbers::pi * (a - kFlat) / (kEdge - kFlat)));
}

TapRegisters ResetTapRegisters() {
    TapRegisters r{};
    r[kFilterDelaySamples] = 0x7FFF;
    return r;
}

DeviceFilter::DeviceFilter() : DeviceFilter(ResetTapRegisters()) {}

DeviceFilter::DeviceFilter(const TapRegisters& registers) {
    // Pair 31 exists as registers but the filter never reads it.
    for (size_t n = 0; n < kFilterTaps - 1; ++n) {
        const auto value = [](uint16_t r) { return static_cast<int16_t>(r) / 32767.0; };
        taps_[n] = {value(registers[n]), value(registers[kFilterTaps + n])};
    }
}

std::complex<double> DeviceFilter::Response(double cyclesPerSample) const {
    std::complex<double> sum = 0.0;
    for (int n = 0; n < kFilterTaps; ++n)
        sum += taps_[static_cast<size_t>(n)] *
               std::polar(1.0, -2.0 * std::numbers::pi * cyclesPerSample * (n - kFilterDelaySamples));
    return sum;
}

int FactoryIfLevel(int band) { return BandUsesHighOutput(band) ? 6 : 4; }

double TuneDriftCounts(double tempC) {
    // A crystal's parabola around its turnover at 25 degrees.
    const double d = tempC - 25.0;
    return -0.045 * d * d;
}

double ReferenceError(uint16_t tuneWord, double tempC) {
    const double right = kFactoryTuneWord + TuneDriftCounts(tempC);
    return (static_cast<double>(tuneWord) - right) * kTunePpmPerCount * 1e-6;
}

double GridRowLoHz(int row) {
    if (row >= 1 && row <= 10) return kGridLo[static_cast<size_t>(row - 1)];
    return row * 30.72e6;
}

int GridRowForFrequency(double rfHz) {
    if (!(rfHz >= kGridLowEdge[1])) return 1;
    if (rfHz < kGridRow10HighHz) {
        int row = 1;
        while (row < 10 && kGridLowEdge[static_cast<size_t>(row)] <= rfHz) ++row;
        return row;
    }
    // Row r >= 11 covers [r * 30.72 - 38.4, r * 30.72 - 7.68) MHz.
    const double r = std::floor((rfHz + 38.4e6) / 30.72e6);
    if (r >= 489) return 489;
    int row = std::max(11, static_cast<int>(r));
    if (rfHz < GridRowCentreHz(row) - 15.36e6) --row;
    else if (rfHz >= GridRowCentreHz(row) + 15.36e6) ++row;
    return std::clamp(row, 11, 489);
}

double GridRowCentreHz(int row) {
    if (row >= 1 && row <= 10) return kGridCentre[static_cast<size_t>(row - 1)];
    return row * 30.72e6 - 23.04e6;
}

} // namespace lx::sim::fe
