// The simulated front end and the host's corrections agree: a tone's level
// at the device output (the front-end model, fed the words the host sends)
// plus the host's corrections from the factory record (step gain, equaliser
// level term, roll-off curve) gives back the tone's power at the input.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "cal/correction.h"
#include "lx_command/command_list.h"
#include "lx_command/encoders.h"
#include "lx_lib/tuning_planner.h"
#include "sim/factory_image.h"
#include "sim/front_end.h"
#include "../support/device_words.h"
#include "sim_test_util.h"

namespace lx {
namespace {

namespace fe = sim::fe;

constexpr double kTolDb = 0.12;
constexpr double kToneDbm = -30.0;

// What the device makes of the words a set-up sends for one capture.
using DeviceState = wordtest::DeviceReading;
DeviceState SendToDevice(const TuningPlan& plan, uint8_t ifLevel, int attenStep, const StepCorrection& corr) {
    TuningState state;
    uint32_t words[kTuneMaxWords];
    const int n = EncodePlanTune(state, words, plan, ifLevel, 5u * static_cast<uint32_t>(attenStep));
    CommandList list;
    list.BeginBlock();
    for (int i = 0; i < n; ++i) list.Push(words[i]);
    EncodeFilterTaps(list, corr.taps);
    return wordtest::ReadWords(list.Words().data(), list.Words().size());
}

// Level in dBFS of a tone of `dbm` at rfHz in the device's output samples.
double DeviceLevelDbfs(const DeviceState& d, double rfHz, double dbm, double tempC) {
    const double offset = rfHz - d.centreHz;
    const double baseband = fe::BandMirrored(d.path.band) ? -offset : offset;
    const std::complex<double> h =
        fe::IfResponseAt(d.path.band, baseband, tempC) * d.Filter().Response(baseband / fe::kSampleRateHz);
    return dbm + fe::GainDb(d.path.band, rfHz, d.path.attenuationDb, tempC, d.ifLevel) + 20.0 * std::log10(std::abs(h));
}

// The host's reading of that tone: level + step gain + roll-off curve.
double HostReadingDbm(const std::vector<uint8_t>& cal, const TuningPlan& plan, double rfHz, int attenStep,
                      double tempC) {
    const CalBracket bracket = simtest::FactoryBracket(tempC);
    const StepCorrection corr = BuildStepCorrection(cal.data(), bracket, plan.step, plan.fineCell);
    const DeviceState d = SendToDevice(plan, StepIfLevel(cal.data(), plan.step), attenStep, corr);
    const std::vector<float> rolloff = RolloffCurve(rfHz, 1.0, 1);
    return DeviceLevelDbfs(d, rfHz, kToneDbm, tempC) + StepGainDb(cal.data(), bracket, attenStep, plan.step, corr) +
           (rolloff.empty() ? 0.0 : rolloff[0]);
}

struct Condition { double tempC; int attenStep; };
constexpr Condition kConditions[] = {{-30.0, 0}, {25.0, 3}, {37.0, 6}, {60.0, 1}, {8.5, 0}};

// Tones across the kept band of sweep steps: both edges, the middle, and
// band 0 down to 100 kHz, where the roll-off curve works.
TEST(FrontEndConsistency, SweepStepsReadTheInputPower) {
    const auto cal = sim::BuildFactoryCalRecord();
    std::vector<double> tones = {100e3, 1e6, 2.2e6, 5e6, 8.69e6, 9e6, 23.04e6, 38.3e6};
    for (int step : {2, 3, 4, 9, 10, 11, 12, 19, 20, 24, 32, 33, 47, 65, 95, 178, 275, 380, 430, 489}) {
        const StepRow& r = StepTableRow(step);
        for (double at : {0.0, 0.2, 0.5, 0.8, 0.9999}) tones.push_back(r.lowHz + at * (r.highHz - r.lowHz));
    }
    for (const Condition& c : kConditions)
        for (double f : tones) {
            const TuningPlan plan = PlanStep(StepForFrequency(f));
            EXPECT_NEAR(HostReadingDbm(cal, plan, f, c.attenStep, c.tempC), kToneDbm, kTolDb)
                << f << " Hz, " << c.tempC << " C, step " << c.attenStep;
        }
}

// Single captures centred off the step grid, tones up to 19 MHz either side
// (a 40 MHz real-time span), band 0 mirrored included.
TEST(FrontEndConsistency, SingleCapturesReadTheInputPower) {
    const auto cal = sim::BuildFactoryCalRecord();
    for (double centre : {1e6, 20e6, 37.9e6, 45e6, 101.3e6, 298e6, 433.92e6, 575.9e6, 915e6, 2.4e9, 5.8e9,
                          8.4e9, 10e9, 11.7e9, 14.9e9, 15.01e9})
        for (double offset : {-19e6, -5e6, 0.0, 7e6, 19e6}) {
            const double f = centre + offset;
            if (f <= 0) continue;
            const TuningPlan plan = PlanCapture(centre);
            for (const Condition& c : kConditions)
                EXPECT_NEAR(HostReadingDbm(cal, plan, f, c.attenStep, c.tempC), kToneDbm, kTolDb)
                    << "centre " << centre << " tone " << f << ", " << c.tempC << " C, step " << c.attenStep;
        }
}

} // namespace
} // namespace lx
