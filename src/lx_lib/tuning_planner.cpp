#include "lx_lib/tuning_planner.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "cal/correction.h"

namespace lx {

namespace {

constexpr double kSynthRefHz = 122.88e6;
constexpr double kSynthFracStepHz = 960000.0;
constexpr double kHalfStepHz = kStepSpacingHz / 2.0;

// Rows 1..10 are not on the rule of the rows above them (row 10 least of
// all); they are the instrument's own plan for the low bands.
constexpr StepRow kStoredRows[10] = {
    {61440000, 23040000, 0, 38400000, 0.125, 0.625},
    {69120000, 46080000, 38400000, 61440000, 0.375, 0.375},
    {99840000, 76800000, 61440000, 92160000, 0.25, 0.5},
    {130560000, 107520000, 92160000, 122880000, 0.25, 0.5},
    {161280000, 138240000, 122880000, 153600000, 0.25, 0.5},
    {192000000, 168960000, 153600000, 184320000, 0.25, 0.5},
    {222720000, 199680000, 184320000, 215040000, 0.25, 0.5},
    {253440000, 230400000, 215040000, 245760000, 0.25, 0.5},
    {284160000, 261120000, 245760000, 276480000, 0.25, 0.5},
    {307200000, 284160000, 276480000, 299520000, 0.375, 0.375},
};

std::array<StepRow, kStepRows> MakeStepTable() {
    std::array<StepRow, kStepRows> t{};
    for (int i = 1; i <= 10; ++i) t[static_cast<size_t>(i)] = kStoredRows[i - 1];
    for (int i = 11; i < kStepRows; ++i) {
        StepRow& r = t[static_cast<size_t>(i)];
        r.tuningHz = i * kStepSpacingHz;
        r.centreHz = r.tuningHz - kLoAboveCentreHz;
        r.lowHz = r.centreHz - kHalfStepHz;
        r.highHz = r.centreHz + kHalfStepHz;
        r.firstBinFraction = 0.25;
        r.binCountFraction = 0.5;
    }
    return t;
}

const std::array<StepRow, kStepRows>& Table() {
    static const std::array<StepRow, kStepRows> table = MakeStepTable();
    return table;
}

double LoAboveCentre(int band) { return band == 0 ? kLoAboveCentreBand0Hz : kLoAboveCentreHz; }

struct SynthSetting {
    int divider;
    double multiplier; // synthesizer frequency per Hz of LO
};
SynthSetting SynthFor(double loHz, int band) {
    const double m = BandDoublesSynth(band) ? 2.0 : 1.0;
    return {OutputDivider(m * loHz), m};
}

} // namespace

const StepRow& StepTableRow(int index) {
    const auto& t = Table();
    if (index < 0 || index >= kStepRows) return t[0];
    return t[static_cast<size_t>(index)];
}

int FirstSweepStep(double startHz) {
    for (int i = 2; i <= kLastStep; ++i)
        if (StepTableRow(i).lowHz > startHz) return i - 1;
    return kFirstStep;
}

int LastSweepStep(double stopHz) {
    for (int i = kFirstStep; i <= kLastStep; ++i)
        if (StepTableRow(i).highHz > stopHz) return i;
    return kLastStep;
}

int StepForFrequency(double hz) {
    if (!(hz >= StepTableRow(2).lowHz)) return kFirstStep; // below 38.4 MHz, negative or NaN
    if (hz < StepTableRow(11).lowHz) {
        int i = 2;
        while (StepTableRow(i).highHz <= hz) ++i;
        return i;
    }
    // Rows from 11 on: low edge = i * 30.72 MHz - 38.4 MHz.
    const double i = std::floor((hz + kLoAboveCentreHz + kHalfStepHz) / kStepSpacingHz);
    int step = i >= kLastStep ? kLastStep : static_cast<int>(i);
    // Keep the [low, high) rule exact where the division rounds at an edge.
    if (step > 11 && hz < StepTableRow(step).lowHz) --step;
    else if (step < kLastStep && hz >= StepTableRow(step).highHz) ++step;
    return step;
}

double RealisedLoHz(double loHz, int band) {
    // EncodeTune's arithmetic: VCO = d * f, N = floor(VCO / 122.88 MHz),
    // F = the remainder in 960 kHz steps, rounded half up.
    const SynthSetting s = SynthFor(loHz, band);
    const double vco = s.divider * s.multiplier * loHz;
    const double n = std::floor(vco / kSynthRefHz);
    const double frac = std::floor((vco - n * kSynthRefHz) / kSynthFracStepHz + 0.5);
    return (n * kSynthRefHz + frac * kSynthFracStepHz) / (s.divider * s.multiplier);
}

double LoResolutionHz(double loHz, int band) {
    const SynthSetting s = SynthFor(loHz, band);
    return kSynthFracStepHz / (s.divider * s.multiplier);
}

namespace {

TuningPlan PlanFromRow(int step, double loHz, double requestedHz) {
    const StepRow& row = StepTableRow(step);
    TuningPlan p;
    p.step = step;
    p.band = TuneBand(row.centreHz, false);
    p.bandRfHz = row.centreHz;
    p.loHz = loHz;
    p.tunedLoHz = RealisedLoHz(loHz, p.band);
    p.captureCentreHz = p.tunedLoHz - LoAboveCentre(p.band);
    p.requestedHz = requestedHz;
    p.resolutionHz = LoResolutionHz(loHz, p.band);
    p.mirrored = p.band == 0;
    // A cell's D and E refer to the row that holds the cell's middle: a
    // centre near a row edge takes the neighbouring cell inside its own row.
    p.fineCell = FineCell(p.captureCentreHz);
    const double middle = (p.fineCell + 0.5) * kFineCellHz;
    if (middle < row.lowHz && row.highHz - row.lowHz > kFineCellHz) ++p.fineCell;
    if (middle >= row.highHz && row.highHz - row.lowHz > kFineCellHz) --p.fineCell;
    return p;
}

} // namespace

TuningPlan PlanStep(int step) {
    step = std::clamp(step, kFirstStep, kLastStep);
    const StepRow& row = StepTableRow(step);
    return PlanFromRow(step, row.tuningHz, row.centreHz);
}

TuningPlan PlanCapture(double centreHz) {
    const double top = StepTableRow(kLastStep).highHz;
    const double centre = centreHz >= 0.0 ? std::min(centreHz, top) : 0.0; // NaN -> 0
    const int step = StepForFrequency(centre);
    // The row decides the path; the LO follows the request on that path.
    const int band = TuneBand(StepTableRow(step).centreHz, false);
    return PlanFromRow(step, centre + LoAboveCentre(band), centreHz);
}

double BasebandOffsetHz(const TuningPlan& plan, double rfHz) {
    return plan.mirrored ? plan.captureCentreHz - rfHz : rfHz - plan.captureCentreHz;
}

int EncodePlanTune(TuningState& state, uint32_t* out, const TuningPlan& plan, uint8_t ifLevel, uint32_t gainField,
                   uint32_t value2A) {
    return EncodeTune(state, out, plan.loHz, plan.bandRfHz, ifLevel, gainField, value2A, false);
}

} // namespace lx
