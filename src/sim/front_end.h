// The simulated LX530's RF front end: how a signal at the antenna port
// becomes ADC counts. This is the one place that holds the instrument's
// physics; the sample synthesis, the factory calibration record and the
// documentation (docs/simulator.md) all take it from here.
//
//   RF path     the band word (0x2C) selects one of 15 switch paths and a
//               step attenuator of 0..31 dB (the gain field, 5 dB per step as
//               the host uses it).
//   LO          a fractional-N synthesizer with a 122.88 MHz reference:
//               VCO = N * 122.88 MHz + F * 960 kHz, an output divider d, and
//               for the doubling bands (1..5, 7, 8) a further halving in the
//               mixer. The capture centre is C = LO - 23.04 MHz, or
//               C = LO - 38.4 MHz in band 0, whose spectrum is mirrored.
//   gain        GainDb(): per-band base gain, the RF flatness term (smooth in
//               frequency, tilting with temperature), the band-0
//               low-frequency rise, a temperature coefficient, the IF level
//               and the attenuator (with its per-band error). Within one
//               path GainDb varies with the tone's frequency only through
//               RfFlatnessDb and band 0's rise.
//   IF filter   IfResponseAt(): a ripple in magnitude (about +-0.5 dB,
//               growing with temperature, tilted per band) and phase (about
//               +-0.06 rad), 0 dB and 0 rad at C, within the anti-alias
//               taper: flat to +-28 MHz from C, raised-cosine taper to zero
//               at +-30.72 MHz; nothing beyond (no aliasing).
//   filter      the device's programmable 32-tap complex FIR (DeviceFilter),
//               h = bank a + i bank b from the tap registers 0x40..0x7F,
//               applied at the ADC rate to every stream (ahead of the
//               decimator when there is one). Its pipeline delay of 15
//               samples is taken out of the sample timeline.
//   decimator   capture-control codes 2 and 3 (DecimationForCode): after the
//               programmable filter a fixed half-band chain band-limits the
//               stream (DecimatorResponse) and every 2nd / 4th sample is
//               kept. The samples keep the full-rate stream's scale and noise
//               density; nothing beyond the output Nyquist folds back in.
//   ADC         16-bit, full scale 1.0 = 32768 counts per component, a DC
//               offset of +576 counts, a noise floor of its own, clipping at
//               the 16-bit limits (which sets status bit 0x100).
//   reference   a VCTCXO pulled by the oscillator tune word (0x2E): every
//               frequency the instrument makes (LO, sample clock) scales by
//               1 + ReferenceError(); the right tune word for the temperature
//               gives zero error.
//
// Levels: "dBFS" here is 10*log10 of the mean |x|^2 of complex samples in
// full-scale units (counts / 32768). A CW tone of P dBm at baseband offset f
// reads P + GainDb() + 20 log10 |IfResponseAt(f) DeviceFilter::Response(f)|
// dBFS. The factory record holds -GainDb() at its calibration points and
// describes the IF ripple and the RF flatness in its response tables, from
// which the host designs the taps that flatten the capture; so the host's
// corrected reading is the input power (docs/corrections.md).
//
// Pure functions and constants; thread-safe.
#pragma once

#include <array>
#include <complex>
#include <cstdint>

namespace lx::sim::fe {

inline constexpr double kSampleRateHz = 61.44e6;
inline constexpr double kTickRateHz = 122.88e6; // the device's time counter
inline constexpr double kSynthReferenceHz = 122.88e6;
inline constexpr double kSynthFracStepHz = 960000.0; // 122.88 MHz / 128
inline constexpr double kIfOffsetHz = 23.04e6;      // LO - C, bands 1..14
inline constexpr double kIfOffsetBand0Hz = 38.4e6;  // LO - C, band 0
inline constexpr int kBandCount = 15;

inline constexpr int kDcOffsetCounts = 576;
inline constexpr double kFullScaleCounts = 32768.0;
inline constexpr uint32_t kStatusAdcOverflow = 0x100; // some sample clipped since the last status packet
inline constexpr uint32_t kStatusDataLoss = 0x200;    // paced delivery fell behind (samples lost)

inline constexpr double kIfFlatHz = 28.0e6;
inline constexpr double kIfEdgeHz = 30.72e6;

// ADC noise density referred to its own input (dBFS/Hz): dominates the
// displayed noise once the attenuator is in.
inline constexpr double kAdcNoiseDbfsPerHz = -165.0;

// ---- RF path -----------------------------------------------------------------

// The switch settings (A, B, C fields of the band word) of each path.
struct BandSwitches {
    uint8_t a, b, c;
};
inline constexpr std::array<BandSwitches, kBandCount> kBandSwitches{{
    {168, 3, 2},  {168, 226, 1}, {168, 210, 1}, {168, 186, 1}, {168, 138, 1},
    {168, 8, 1},  {104, 60, 0},  {168, 56, 1},  {168, 80, 1},  {104, 84, 0},
    {104, 100, 0}, {60, 9, 3},   {60, 17, 3},   {104, 12, 0},  {62, 17, 3},
}};

struct RfPath {
    int band = -1;          // -1: a switch combination that connects no path
    double attenuationDb = 0; // nominal, the gain field in dB
};
// Decodes the 24-bit operand of a 0x2C word.
RfPath DecodeBandWord(uint32_t operand);

// Bands whose mixer runs at half the synthesizer frequency.
bool BandHalvesSynth(int band);
// Bands 11, 12 and 14 take the synthesizer's second output (direct VCO or
// divider, chosen by register 0x2E); the others take the first, which always
// goes through the divider.
bool BandUsesHighOutput(int band);

// The instrument's band plan: which path covers an RF frequency (bands 13 and
// 14 unless the alternative path plan is in use).
int BandForFrequency(double rfHz, bool altPath = false);

// ---- synthesizer ---------------------------------------------------------------

struct SynthRegisters {
    std::array<uint16_t, 128> reg{};
};
// Output divider of a channel-divider code; 0 for codes that select nothing.
int ChannelDivider(int code);
// Synthesizer output frequency for the path's output; 0 when the loop cannot
// lock (VCO outside 7.5 .. 15.2 GHz) or the divider code is invalid.
double SynthOutputHz(const SynthRegisters& regs, bool highOutput);
double VcoHz(const SynthRegisters& regs);

// LO at the mixer, and the capture centre it gives.
double LoHz(int band, double synthHz);
double CaptureCentreHz(int band, double loHz);
inline bool BandMirrored(int band) { return band == 0; }

// ---- gain and response --------------------------------------------------------

// Gain in dB from the input port to the ADC (dBFS per dBm) for a signal at
// rfHz through `band`, with `attenuationDb` nominal attenuation, at tempC and
// IF level byte ifLevel.
double GainDb(int band, double rfHz, double attenuationDb, double tempC, int ifLevel);
// RF flatness in dB at rfHz and tempC: the part of the gain that changes
// smoothly with frequency (and tilts with temperature); the same for every
// path. The factory's response tables C and D describe it.
double RfFlatnessDb(double rfHz, double tempC);
// Band 0's rise towards DC in dB (0 from 8.7 MHz up): exactly the host's
// fixed low-frequency roll-off curve negated.
double LowFrequencyRiseDb(double rfHz);

// Magnitude of the anti-alias taper at an offset from the capture centre
// (0..1; 0 beyond the capture).
double IfResponse(double offsetHz);
// The IF ripple alone (taper left out) at a baseband offset: magnitude in dB
// and phase in radians, both 0 at the centre.
double IfRippleDb(int band, double offsetHz, double tempC);
double IfRipplePhase(double offsetHz, double tempC);
// Complex response of the IF at a baseband offset (the sample stream's
// frequency, after band 0's mirroring): taper, ripple and phase.
std::complex<double> IfResponseAt(int band, double offsetHz, double tempC);
// IF level byte the factory programs for a band.
int FactoryIfLevel(int band);

// ---- the device's programmable filter --------------------------------------------

inline constexpr int kFilterTaps = 32;
inline constexpr int kFilterDelaySamples = 15; // centre of the 31 taps in use

// The complex FIR the device runs on the ADC stream. Tap n is
// int16(reg[n]) / 32767 + i int16(reg[32 + n]) / 32767, reg[k] being the
// operand of opcode 0x40 + k; pair 31 is never applied. A device reset leaves
// the registers a pass-through (ResetTapRegisters: tap 15 = 0x7FFF); the
// host's power-up sequence then loads its default-tap block (a single tap 16
// of 0.515 + 0.5i: a one-sample delay, 2.9 dB of loss and a 44 degree turn),
// which stays until a set-up sends the taps of its tuning.
using TapRegisters = std::array<uint16_t, 2 * kFilterTaps>;
TapRegisters ResetTapRegisters();

class DeviceFilter {
public:
    DeviceFilter(); // the pass-through of ResetTapRegisters
    explicit DeviceFilter(const TapRegisters& registers);

    // Response at a frequency in cycles per ADC sample (-0.5 .. 0.5), with
    // the pipeline delay of kFilterDelaySamples taken out.
    std::complex<double> Response(double cyclesPerSample) const;
    const std::array<std::complex<double>, kFilterTaps>& taps() const { return taps_; }

private:
    std::array<std::complex<double>, kFilterTaps> taps_{};
};

// ---- the device's decimator -------------------------------------------------------

// Samples the device keeps per output sample for a capture-control operand
// (opcode 0x30): 2^(code - 1) for codes 1..3; 0 and anything else run at the
// full rate.
int DecimationForCode(uint32_t captureControl);
// Magnitude of the decimator's low-pass at a frequency in cycles per OUTPUT
// sample: 1 within +-0.4, a raised-cosine taper to 0 at +-0.5, 0 beyond.
// Unity everywhere when the device does not decimate (factor 1).
double DecimatorResponse(double cyclesPerOutputSample, int factor);

// ---- reference oscillator -------------------------------------------------------

inline constexpr uint16_t kFactoryTuneWord = 0x8040; // right tune word at 25 degrees C
inline constexpr double kTunePpmPerCount = 0.0003;    // 0.3 ppb per count
inline constexpr uint16_t kResetTuneWord = 0x8000;    // tune word after power-on
// Tune-word drift of the crystal against temperature (counts to add to the
// 25 degree word to stay on frequency).
double TuneDriftCounts(double tempC);
// Fractional frequency error of the reference for a tune word at tempC.
double ReferenceError(uint16_t tuneWord, double tempC);

// ---- calibration grid ------------------------------------------------------------

// Rows 1..490 of the host's 30.72 MHz capture grid (row 490 extrapolates the
// rule); the factory calibration point of frequency index i is row i + 1.
double GridRowCentreHz(int row);
double GridRowLoHz(int row);
// The grid row 1..489 whose [low, high) edges hold rfHz (clamped at both ends).
int GridRowForFrequency(double rfHz);

// Width of the factory's fine flatness cells (table D): cell j covers
// [j, j + 1) * 3.75 MHz, 4000 cells up to 15 GHz.
inline constexpr double kFineCellHz = 3.75e6;
inline constexpr int kFineCells = 4000;
// Baseband offset of response point k (0..12) of tables A..C.
inline constexpr double ResponsePointOffsetHz(int k) { return (k - 6) * 5.12e6; }

} // namespace lx::sim::fe
