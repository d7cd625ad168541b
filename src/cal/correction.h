// Corrections drawn from the calibration record for one configuration: the
// front-end response at a calibration row, the 32 tap pairs of the device's
// equalising filter with the level term they bring, the step gain a set-up
// adds to its spectra, and the fixed low-frequency roll-off curve.
//
// What the response tables describe (docs/corrections.md has the full story):
//
//   A[k], B[k]  the IF response of the capture as the ADC sees it, magnitude
//               (linear, 1 = nominal) and phase (radians), at the 13 baseband
//               offsets f_k = (k - 6) * 5.12 MHz, k = 0..12, i.e. -30.72 ..
//               +30.72 MHz from the capture centre. Offsets are those of the
//               sample stream, after band 0's mirroring. The anti-alias taper
//               beyond +-28 MHz is not part of A: the equaliser never restores
//               the band edges.
//   C[k]        the RF path's flatness across the capture, in dB: the gain at
//               the RF frequency that lands on f_k minus the gain at the
//               capture centre (band 0's rise below 8.7 MHz is left out; the
//               roll-off curve takes care of it).
//   D[j], E[j]  per fine cell j (FineCell: 3.75 MHz cells from 0 Hz, 4000
//               cells up to 15 GHz). D is the RF gain at the cell's middle
//               relative to the gain at the centre of the calibration row
//               holding it (linear); a capture takes it interpolated at its
//               centre between the middles of the two nearest cells, so that
//               neither an off-grid centre nor a row centre away from its
//               cell's middle gets a quantised value. E is a level trim in dB
//               that service calibration may write per cell (the factory
//               leaves it at 0); a capture takes the trim of its centre's cell.
//
// The device runs the taps as one complex 32-tap FIR, h[n] = a[n] + i b[n]
// (bank a the first value of a pair, bank b the second), on the sample stream
// at the ADC rate, ahead of its decimator. The design makes that filter the
// inverse of the measured response (A, B, C) within a low-pass that keeps
// +-0.36 of the sample rate, so every frequency of a capture reads alike. The
// amplitude term undoes the filter's normalisation and the fine flatness:
//   amplitudeTermDb = 20 log10(M) - 20 log10(D[j]) + E[j]
// where M is the normalisation divisor of the design. Add it to
// CalAmplitudeOffset (StepGainDb does both); there is no further reference
// offset: a full-scale tone reads 0 dB after the project's sample scaling and
// window/FFT normalisation, and the amplitude table maps that to dBm.
//
// Temperature: every lookup blends slot t and t + 1 of the record with
// TempInterpolate (exactly slot t at fraction 0 and slot t + 1 at fraction 1).
// Frequency indexes are 1-based here, as the set-ups hand them in (a step
// index or TuningPlan::step): reduced by one and clamped to 0..489.
//
// Pure functions of their arguments; thread-safe on a shared record.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "cal/cal_record.h"
#include "lx_command/encoders.h"

namespace lx {

// The device core's temperature bracket: blend slot and slot + 1 (slot
// 0..5) with fraction 0..1. Out-of-range values are clamped (NaN fraction: 0).
struct CalBracket {
    int slot = 0;
    float fraction = 0.0f;
};

// The bracket of the record's seven temperature points around `temperature`
// (the automatic correction mode): slot k - 1 with the fraction of the way to
// point k; above the last point slot 5 at fraction 1; below the first, or for a
// record whose points are not finite and strictly ascending (never programmed:
// 0xFF bytes read NaN), slot 0 at fraction 0. A NaN temperature gives slot 0.
struct TemperatureBracketResult {
    int slot = 0;
    double fraction = 0.0;
};
TemperatureBracketResult TemperatureBracket(const uint8_t* cal, float temperature);

inline constexpr double kResponsePointSpacingHz = 5.12e6; // between A..C points
inline constexpr int kResponseCentrePoint = 6;            // the point at the capture centre
inline constexpr double kFineCellHz = 3.75e6;             // width of a D/E cell

// Fine cell of an RF frequency: floor(hz / 3.75 MHz) clamped to 0..3999
// (NaN gives 0).
int FineCell(double hz);

// The interpolated response values of one calibration row and fine cell.
struct CalResponse {
    std::array<float, kCalResponsePoints> magnitude{};  // table A
    std::array<float, kCalResponsePoints> phase{};      // table B negated: the correcting phase
    std::array<float, kCalResponsePoints> flatnessDb{}; // table C
    float fineMagnitude = 1.0f;                          // table D at j
    float fineTrimDb = 0.0f;                             // table E at j
};

// Tables A, -B and C at (bracket, frequencyIndex) and D, E at (bracket, j);
// j is clamped to 0..3999.
CalResponse CalResponseAt(const uint8_t* cal, CalBracket bracket, int frequencyIndex, int j);

// The same with D interpolated at centreHz (FineMagnitudeAt) and E of
// FineCell(centreHz): what a capture centred there needs.
CalResponse CalResponseAtFrequency(const uint8_t* cal, CalBracket bracket, int frequencyIndex, double centreHz);

// D at an RF frequency: linear in frequency between the middles of the two
// fine cells around it, held flat below the first middle and above the last
// (NaN: cell 0).
float FineMagnitudeAt(const uint8_t* cal, CalBracket bracket, double hz);

// Roll-off correction (dB, added to the displayed level) for the bins
// f = startHz + i * stepHz, i = 0 .. count - 1: -0.85 below 2 MHz, linear
// between the fixed points up to 8.7 MHz. The curve stops at the first f at
// or above 8.7 MHz, so it may hold fewer than `count` values (none when the
// start is there already); apply it to the first bins only. A count below
// 1 or a non-finite start or step gives an empty curve.
std::vector<float> RolloffCurve(double startHz, double stepHz, int count);

// One step's equaliser and the level term that goes with it.
struct StepCorrection {
    float taps[kFilterTapPairs][2] = {}; // for EncodeFilterTaps; every value in -1..1, pair 31 zero
    float amplitudeTermDb = 0.0f;        // add to CalAmplitudeOffset
    // Some response value was unusable (not finite, or a magnitude outside
    // 0.1..10, as in an unprogrammed record) and was taken as neutral.
    bool substituted = false;
};

// The tap design on given response values:
//  1. 31-tap windowed-sinc low-pass, cutoff 0.45 of the ADC rate
//     (dsp::DesignFirLowPass), in a zeroed 32-entry buffer;
//  2. its 32-point FFT P[m] (bin m at baseband offset m or m - 32 times
//     1.92 MHz);
//  3. shaping: Q[m] = P[m] * 10^(-C(f_m)/20) / A(f_m) * exp(i phase(f_m)),
//     A, phase and C interpolated linearly between the 13 points;
//  4. h = IDFT(Q) / 32, and h[31] = 0 (the device never applies pair 31);
//  5. the two gain values are the peak magnitudes of the 32-point spectra of
//     bank a (real parts) and bank b (imaginary parts); both banks are
//     divided by the larger, M, which bounds every tap by 1;
//  6. amplitudeTermDb = 20 log10(M) - 20 log10(D) + E.
// A failed FFT set-up or transform reports "status == ippStsNoErr" (src/dsp)
// and leaves the plain prototype with a 0 dB term.
StepCorrection DesignStepCorrection(const CalResponse& response);

// CalResponseAt followed by DesignStepCorrection.
StepCorrection BuildStepCorrection(const uint8_t* cal, CalBracket bracket, int frequencyIndex, int j);
// CalResponseAtFrequency followed by DesignStepCorrection: the correction of a
// capture centred at centreHz (a sweep step's row centre, or any centre of a
// single capture).
StepCorrection BuildCaptureCorrection(const uint8_t* cal, CalBracket bracket, int frequencyIndex, double centreHz);

// The step gain in dB a set-up stores for a step or capture:
// CalAmplitudeOffset(cal, bracket, attenStep, frequencyIndex) + the
// correction's amplitude term. The correction must have been built for the
// same bracket, frequency index and fine cell.
float StepGainDb(const uint8_t* cal, CalBracket bracket, int attenStep, int frequencyIndex,
                 const StepCorrection& correction);
// The same, designing the correction on the way.
float StepGainDb(const uint8_t* cal, CalBracket bracket, int attenStep, int frequencyIndex, int j);

// The IF level byte for EncodeTune of a 1-based frequency index (clamped).
uint8_t StepIfLevel(const uint8_t* cal, int frequencyIndex);

} // namespace lx
