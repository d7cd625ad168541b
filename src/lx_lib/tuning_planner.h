// The tuning planner: the one place that knows how the instrument tunes.
//
// The captured 61.44 MHz band is centred on the capture centre C; the local
// oscillator sits 23.04 MHz above it (LO = C + 23.04 MHz), except in band 0
// (RF below 38.4 MHz) where LO = C + 38.4 MHz and the captured spectrum is
// mirrored (an RF frequency F appears at baseband offset C - F).
//
// Step table: 490 rows (0..489). Row 0 is all zero and never selected; rows
// 1..10 are fixed values, rows 11..489 follow tuning = i * 30.72 MHz,
// centre = tuning - 23.04 MHz, edges centre -+ 15.36 MHz, fractions 0.25 and
// 0.5. Each row's usable band is [low, high); consecutive rows abut, every
// row obeys the LO rule above, and every band switch point of the RF path
// falls on a row edge. The stepped sweep tunes exactly to its rows.
//
// Single captures (real-time, I/Q streaming, narrow-span sweep, I/Q sweep
// list, full band) are not bound to the 30.72 MHz grid: PlanCapture puts C as
// close to the requested centre as the synthesizer allows and uses the row
// holding the centre for two things only: the RF path (band) and the
// calibration data (frequency index, IF level byte, response tables).
//
// Synthesizer resolution. EncodeTune makes the synthesizer frequency
// f = LO (2 * LO in the doubling bands 1..5, 7, 8), picks the output divider
// d for f, and sets the VCO to N * 122.88 MHz + F * 960 kHz, rounding d * f
// to the nearest 960 kHz. The reachable LOs are therefore the multiples of
// 960 kHz / (d * m), m = 2 in the doubling bands and 1 otherwise: 960 kHz at
// d = 1 (above 7.5 GHz, bands 11/12/14), 480 kHz at d = 2, ... down to
// 2.5 kHz at low divider settings. 23.04 MHz and 38.4 MHz are multiples of
// 960 kHz, so C lies on the same grid and is within half a step of the
// request. RealisedLoHz repeats EncodeTune's arithmetic so the plan states
// the LO the device really makes (before the reference oscillator's error).
// Near a divider switch point the rounded LO may itself select the other
// divider, so the plan always sends the LO it was asked for and reports what
// the device makes of it, never a rounded value sent back.
//
// Pure functions and constant tables; thread-safe.
#pragma once

#include <cstdint>

#include "lx_command/encoders.h"

namespace lx {

inline constexpr double kAdcSampleRateHz = 61.44e6;
inline constexpr int kStepRows = 490;
inline constexpr int kFirstStep = 1;
inline constexpr int kLastStep = 489;
inline constexpr double kStepSpacingHz = 30.72e6;
inline constexpr double kLoAboveCentreHz = 23.04e6;      // LO - C outside band 0
inline constexpr double kLoAboveCentreBand0Hz = 38.4e6;  // LO - C in band 0
inline constexpr double kBand0TopHz = 38.4e6;            // band 0 covers RF below this

// One row of the step table (all in Hz except the two fractions of the FFT
// size; the FFT is centred on centreHz, its bins run from centre - 30.72 MHz
// upward).
struct StepRow {
    double tuningHz = 0;
    double centreHz = 0;
    double lowHz = 0;
    double highHz = 0;
    double firstBinFraction = 0;
    double binCountFraction = 0;
};

// Row `index` of the step table; any index outside 0..489 gives row 0.
const StepRow& StepTableRow(int index);

// First step of a sweep: for indices 2..489 in order, the first whose low
// edge is above startHz gives index - 1; none gives 1 (a start below
// 38.4 MHz thus gives step 1).
int FirstSweepStep(double startHz);
// Last step of a sweep: for indices 1..489, the first whose high edge is above
// stopHz; none gives 489.
int LastSweepStep(double stopHz);
// The row 1..489 whose [low, high) holds hz; below row 1 gives 1, at or above
// the top of row 489 gives 489 (NaN gives 1).
int StepForFrequency(double hz);

// The LO EncodeTune really produces for loHz in `band` (see above).
double RealisedLoHz(double loHz, int band);
// Spacing of the reachable LOs around loHz in `band`: 960 kHz / (d * m).
double LoResolutionHz(double loHz, int band);

// Everything a mode needs to tune and to fetch its corrections.
struct TuningPlan {
    int step = kFirstStep;     // calibration row = 1-based frequency index of the corrections
    int band = 0;              // RF path, TuneBand(row centre)
    double loHz = 0;           // EncodeTune's loHz (the LO asked for)
    double bandRfHz = 0;       // EncodeTune's rfHz: the row centre, which selects `band`
    double tunedLoHz = 0;      // the LO the device makes of loHz
    double captureCentreHz = 0; // C = tunedLoHz - 23.04 MHz (38.4 MHz in band 0): the stream's 0 Hz
    double requestedHz = 0;    // the centre asked for (the row centre for PlanStep)
    double resolutionHz = 0;   // LO (and C) spacing at this tuning
    bool mirrored = false;     // band 0: RF F at baseband C - F
    int fineCell = 0;          // j for CalResponseAt / BuildStepCorrection: FineCell(C), or its neighbour inside the row
};

// The plan of step row `step` (clamped to 1..489): LO = the row's tuning,
// C = the row's centre.
TuningPlan PlanStep(int step);

// The plan of a single capture centred as near centreHz as the synthesizer
// allows (|C - centreHz| <= resolutionHz / 2, up to rounding of the last
// bit). centreHz is clamped to 0 .. the top of row 489 (NaN: 0).
TuningPlan PlanCapture(double centreHz);

// Baseband offset (Hz, in the sample stream) at which an RF frequency appears
// in the plan's capture: F - C, or C - F when mirrored.
double BasebandOffsetHz(const TuningPlan& plan, double rfHz);

// Writes the plan's tuning sequence with EncodeTune (standard path plan,
// altPath false) into out (kTuneMaxWords) and returns the word count.
// value2A 24 is what the measurement set-ups send.
int EncodePlanTune(TuningState& state, uint32_t* out, const TuningPlan& plan, uint8_t ifLevel,
                   uint32_t gainField, uint32_t value2A = 24);

} // namespace lx
