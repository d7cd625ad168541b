#include "engines/realtime_plan.h"

#include <algorithm>
#include <cmath>

#include "engines/sweep_plan.h"
#include "engines/sweep_support.h"
#include "lx_command/encoders.h"

namespace lx::engines {

namespace {
constexpr double kHalfBandHz = 30.72e6;
constexpr uint32_t kStreamIqPackets = 127;
} // namespace

int64_t RealTimePlan::WakeInterval() const { return std::max<int64_t>(spectraPerFrame / 4, 2); }

RealTimePlan PlanRealTime(const RealTimeSettings& s, int32_t attenuator, double refLevelDbm) {
    RealTimePlan p;
    p.window = s.window;
    p.detector = s.detector;
    p.scale = s.scale;
    p.frameRefLevel = s.frameRefLevel;
    p.frameScale = s.frameScale;

    p.rbw = std::clamp(std::isnan(s.rbw) ? kRtMaxRbwHz : s.rbw, kRtMinRbwHz, kRtMaxRbwHz);
    p.windowFactor = WindowFactor(s.window);
    p.windowLength = static_cast<int32_t>(p.windowFactor * kAdcRateHz / p.rbw) & ~1;
    int32_t n = 1;
    while (n < p.windowLength) n <<= 1;
    if (n < kRtMinFftSize) n = p.windowLength = kRtMinFftSize;
    if (n > kRtMaxFftSize) n = p.windowLength = kRtMaxFftSize;
    p.fftSize = n;
    p.zeroPad = n - p.windowLength;
    p.actualRbw = p.windowFactor * kAdcRateHz / p.windowLength;
    p.binSize = kAdcRateHz / n;
    p.poiSeconds = n * 1.5 / kAdcRateHz;

    const double span = std::clamp(s.span, kRtMinSpanHz, kRtMaxSpanHz);
    int32_t bins = static_cast<int32_t>(std::floor(span / kAdcRateHz * n + 0.5)) + 2;
    p.decimation = 1;
    while (bins >= kRtMaxFrameWidth) {
        p.decimation *= 2;
        bins /= 2;
    }
    p.frameWidth = bins;
    p.sweepLength = p.decimation * bins;

    const double centre = std::clamp(s.centre, kRtMinCentreHz, kRtMaxCentreHz);
    p.capture = PlanCapture(centre);
    const double c = p.capture.captureCentreHz;
    const double start = centre - span / 2.0;
    const int32_t k = n / 2 - static_cast<int32_t>((c - start) / p.binSize + 1.0);
    p.firstKeptBin = k - (k % p.decimation);
    p.actualStart = p.firstKeptBin * p.binSize + (c - kHalfBandHz);
    p.spectraPerFrame = static_cast<int64_t>(kAdcRateHz) / (n / 2) / kFramesPerSecond;
    p.attenuation = SweepAttenuation(attenuator, refLevelDbm);
    return p;
}

void FillRealTimeCorrection(RealTimePlan& plan, const uint8_t* cal, CalBracket bracket) {
    plan.correction = BuildStepCorrection(cal, bracket, plan.capture.step, plan.capture.fineCell);
    plan.gainDb = StepGainDb(cal, bracket, plan.attenuation, plan.capture.step, plan.correction);
    plan.ifLevel = StepIfLevel(cal, plan.capture.step);
}

CommandList BuildRealTimeStartCommands(const RealTimePlan& plan, TuningState& tuning) {
    CommandList list;
    list.BeginBlock();
    uint32_t words[kTuneMaxWords];
    const uint32_t gainField = static_cast<uint32_t>(plan.attenuation) * 5;
    const int count = EncodePlanTune(tuning, words, plan.capture, plan.ifLevel, gainField, kTuneValue2A);
    for (int i = 0; i < count; ++i) list.Push(words[i]);
    EncodeFilterTaps(list, plan.correction.taps);
    EncodeCaptureControl(list, kCaptureNoDecimation);
    return list;
}

CommandList BuildRealTimeTransferCommands() {
    CommandList list;
    list.BeginBlock();
    EncodeTransferRequest(list, kStreamIqPackets, 1); // 0x3100017F: 1 MiB per transfer
    return list;
}

} // namespace lx::engines
