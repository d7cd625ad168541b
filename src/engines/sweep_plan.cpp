#include "engines/sweep_plan.h"

#include <algorithm>
#include <cmath>

#include "dsp/window.h"
#include "engines/sweep_support.h"
#include "lx_command/encoders.h"
#include "lx_lib/tuning_planner.h"

namespace lx::engines {

namespace {

// A request word counts 8 bits of I/Q packets, so a count of 256 (the most a
// step block carries) goes out as 255 + 1.
void RequestPackets(CommandList& list, uint32_t count) {
    while (count > 0) {
        const uint32_t k = std::min(count, kMaxIqPacketsPerRequest);
        EncodeTransferRequest(list, k, 0);
        count -= k;
    }
}

} // namespace

double WindowFactor(int32_t window) { return dsp::EquivalentNoiseBandwidth(window); }

int32_t AutoAttenuation(double refLevelDbm) {
    if (refLevelDbm <= -20.0) return 0;
    if (refLevelDbm <= -15.0) return 1;
    if (refLevelDbm <= -10.0) return 2;
    if (refLevelDbm <= -5.0) return 3;
    if (refLevelDbm <= 0.0) return 4;
    if (refLevelDbm <= 5.0) return 5;
    return 6;
}

int64_t SweepPlan::StitchedLength() const {
    int64_t total = 0;
    for (const SweepStep& s : steps) total += s.binCount;
    if (!steps.empty()) {
        const SweepStep& last = steps.back();
        const int64_t beyond = int64_t{fftSize} - last.firstBin - last.binCount;
        const int64_t wanted = int64_t{startBinOffset} + sweepLength - total;
        total += std::clamp<int64_t>(wanted, 0, std::max<int64_t>(beyond, 0));
    }
    return total;
}

int32_t SweepPlan::FillerPackets() const {
    const int64_t r = (int64_t{stepCount} * packetsPerStep) % 4;
    return static_cast<int32_t>(4 - r); // 4 when r == 0: the filler always goes out
}

int64_t SweepPlan::TotalPackets() const { return int64_t{stepCount} * packetsPerStep + FillerPackets(); }

StepProcessorConfig SweepPlan::ProcessorConfig() const {
    StepProcessorConfig c;
    c.windowType = window;
    c.fftSize = fftSize;
    c.windowLength = windowLength;
    c.averageCount = averageCount;
    c.vbwRatio = vbwRatio;
    c.detector = detector;
    c.videoUnits = videoUnits;
    c.scale = scale;
    return c;
}

SweepPlan PlanFromSettings(const SweepSettings& s) {
    SweepPlan p;
    p.window = s.window;
    p.detector = s.detector;
    p.videoUnits = s.videoUnits;
    p.scale = s.scale;
    p.start = s.start;
    p.stop = s.stop;
    return p;
}

SweepPlan PlanSweep(const SweepSettings& s, int32_t attenuator, double refLevelDbm) {
    SweepPlan p = PlanFromSettings(s);

    p.windowFactor = WindowFactor(s.window);
    const double length = std::floor(p.windowFactor * kAdcRateHz / s.rbw);
    int64_t L = std::isfinite(length) ? static_cast<int64_t>(std::min(length, 4e9)) : kMaxSweepWindowLength;
    if (L % 2 != 0) --L;
    p.rbwLimited = L > kMaxSweepWindowLength;
    p.windowLength = static_cast<int32_t>(std::clamp<int64_t>(L, kMinSweepWindowLength, kMaxSweepWindowLength));
    int32_t n = 1;
    for (int32_t v = p.windowLength - 1; v > 0; v >>= 1) n <<= 1;
    p.fftSize = std::max(n, kMinFftSize);
    p.zeroPad = p.fftSize - p.windowLength;

    p.vbwRatio = std::min(s.vbw / s.rbw, 1.0);
    p.averageCount = static_cast<int64_t>(std::ceil(1.0 / p.vbwRatio));
    p.hop = p.fftSize / 4;
    const int64_t samples = (p.averageCount - 1) * p.hop + p.windowLength;
    p.packetsPerStep = static_cast<int32_t>(std::max<int64_t>((samples + kSamplesPerPacket - 1) / kSamplesPerPacket, 1));

    p.firstStep = FirstSweepStep(s.start);
    p.lastStep = LastSweepStep(s.stop);
    p.stepCount = std::max(p.lastStep - p.firstStep + 1, 1);

    // A longer sweep time than the data needs buys packets, and with them
    // averaging; it never takes packets away.
    const double perStep = (s.sweepTime - p.stepCount * kRetuneSeconds) / kPacketSeconds / p.stepCount + 0.5;
    const int64_t P = std::max<int64_t>(static_cast<int64_t>(std::floor(std::max(perStep, 0.0))), 1);
    if (P > p.packetsPerStep) {
        p.packetsPerStep = static_cast<int32_t>(P);
        p.averageCount = (P * kSamplesPerPacket - p.windowLength) / p.hop + 1;
    }

    const StepRow& first = StepTableRow(p.firstStep);
    p.binSize = kAdcRateHz / p.fftSize;
    p.startBinOffset = static_cast<int32_t>((s.start - first.lowHz) / p.binSize);
    p.attenuation = SweepAttenuation(attenuator, refLevelDbm);

    p.actualRbw = p.windowFactor * kAdcRateHz / p.windowLength;
    p.vbw = s.vbw;
    p.actualStart = first.lowHz + p.startBinOffset * p.binSize;
    p.sweepLength = static_cast<int32_t>((s.stop - s.start) / p.binSize + 2.0);

    p.steps.reserve(static_cast<size_t>(p.stepCount));
    for (int32_t i = 0; i < p.stepCount; ++i) {
        const StepRow& row = StepTableRow(p.firstStep + i);
        SweepStep st;
        st.index = p.firstStep + i;
        st.tuningFrequency = row.tuningHz;
        st.centreFrequency = row.centreHz;
        st.lowEdge = row.lowHz;
        st.highEdge = row.highHz;
        st.firstBin = static_cast<int32_t>(p.fftSize * row.firstBinFraction);
        st.binCount = static_cast<int32_t>(p.fftSize * row.binCountFraction);
        st.isFirstBand = st.index == kFirstStep;
        p.steps.push_back(st);
    }
    return p;
}

void FillStepCorrections(SweepPlan& plan, const uint8_t* cal, CalBracket bracket) {
    for (SweepStep& st : plan.steps) {
        st.correction = BuildCaptureCorrection(cal, bracket, st.index, PlanStep(st.index).captureCentreHz);
        st.gainOffset = StepGainDb(cal, bracket, plan.attenuation, st.index, st.correction);
        st.ifLevel = StepIfLevel(cal, st.index);
    }
}

CommandList BuildSweepCommands(const SweepPlan& plan, uint32_t gpioPort, const std::vector<GpioSwitch>& gpio,
                               bool altPath, TuningState& tuning) {
    CommandList list;
    const bool switching = gpioPort == static_cast<uint32_t>(kGpioSwitchingPort) && !gpio.empty();
    size_t nextSwitch = 0;
    const uint32_t gainField = static_cast<uint32_t>(plan.attenuation) * 5;
    const uint32_t packets = static_cast<uint32_t>(plan.packetsPerStep);
    for (const SweepStep& st : plan.steps) {
        list.BeginBlock();
        if (switching) {
            // The position in the list carries over: a word goes out only at
            // the step whose centre passed a switching point.
            const size_t before = nextSwitch;
            while (nextSwitch < gpio.size() && static_cast<double>(gpio[nextSwitch].frequency) < st.centreFrequency)
                ++nextSwitch;
            if (nextSwitch > before) list.Push(kGpioWord + gpio[nextSwitch - 1].value);
        }
        uint32_t words[kTuneMaxWords];
        const int count =
            EncodeTune(tuning, words, st.tuningFrequency, st.centreFrequency, st.ifLevel, gainField, kTuneValue2A, altPath);
        for (int i = 0; i < count; ++i) list.Push(words[i]);
        EncodeFilterTaps(list, st.correction.taps);
        EncodeCaptureControl(list, kCaptureNoDecimation);
        uint32_t chunks = 0;
        if (packets > kMaxPacketsInStepBlock) chunks = (packets - 257) / kPacketsPerChunk + 1;
        RequestPackets(list, packets - chunks * kPacketsPerChunk);
        for (uint32_t c = 0; c < chunks; ++c) {
            list.BeginBlock();
            list.Push(kChunkRequestWord);
            list.Push(MakeWord(kOpTransferSecond, 1));
            for (int k = 0; k < 3; ++k) list.Push(kSpacerWord);
            list.AddPacketTotals(kPacketsPerChunk, 0);
        }
        list.Push(kEndOfStepWord);
    }
    list.Push(kEndOfStepWord);
    EncodeTransferRequest(list, static_cast<uint32_t>(plan.FillerPackets()), 0);
    return list;
}

std::vector<float> SweepTraceCorrection(const SweepPlan& plan) {
    // Scale 2 is the uncorrected logarithmic display: no roll-off either.
    if (plan.scale == static_cast<int32_t>(Scale::kLogNoStepGain)) return {};
    std::vector<float> v = RolloffCurve(plan.actualStart, plan.binSize, plan.sweepLength);
    if (plan.scale == static_cast<int32_t>(Scale::kLinear))
        for (float& x : v) x = static_cast<float>(std::exp(static_cast<double>(x) * 2.302585092994046 / 20.0));
    return v;
}

} // namespace lx::engines
