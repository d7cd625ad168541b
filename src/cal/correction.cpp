#include "cal/correction.h"

#include <algorithm>
#include <cmath>
#include <complex>

#include "common/lx_assert.h"
#include "dsp/fft.h"
#include "dsp/fir.h"

namespace lx {

namespace {

constexpr int kTapBuffer = 32; // kFilterTapPairs, the FFT of order 5
constexpr int kPrototypeTaps = 31;
constexpr double kPrototypeCutoff = 0.45;

// FFT bins (1.92 MHz apart) per response-point spacing (5.12 MHz).
constexpr double kBinsPerPoint = 5.12e6 / (61.44e6 / kTapBuffer);

// Values beyond these are not a front end's response but damage (an
// unprogrammed record reads NaN everywhere); the design takes them as
// neutral rather than boosting one frequency by 40 dB.
constexpr float kMinMagnitude = 0.1f;
constexpr float kMaxMagnitude = 10.0f;
constexpr float kMaxLevelDb = 20.0f;
constexpr float kMaxPhaseRad = 8.0f;

struct RolloffPoint {
    double hz;
    float db;
};
constexpr RolloffPoint kRolloff[] = {
    {2000000.0, -0.85f}, {2400000.0, -0.75f}, {3950000.0, -0.5f},
    {5350000.0, -0.25f}, {7200000.0, -0.1f},  {8700000.0, 0.0f},
};
constexpr double kRolloffEndHz = 8700000.0;

int ClampSlot(int slot) { return std::clamp(slot, 0, kCalTempSlots - 2); }
float ClampFraction(float x) { return x >= 0.0f ? std::min(x, 1.0f) : 0.0f; } // NaN -> 0
int ClampFreq(int frequencyIndex) {
    return std::clamp(frequencyIndex, 1, kCalFreqIndexes) - 1; // 1-based in, clamped 0..489 out
}

float Sanitise(float v, float neutral, float lo, float hi, bool& substituted) {
    if (std::isfinite(v) && v >= lo && v <= hi) return v;
    substituted = true;
    return neutral;
}

// Linear interpolation of a 13-point table at a baseband offset given in
// response-point spacings from the centre point.
double Interpolate(const std::array<float, kCalResponsePoints>& v, double u) {
    u = std::clamp(u + kResponseCentrePoint, 0.0, double(kCalResponsePoints - 1));
    const int k = std::min(static_cast<int>(u), kCalResponsePoints - 2);
    const double t = u - k;
    return v[static_cast<size_t>(k)] + t * (double(v[static_cast<size_t>(k) + 1]) - v[static_cast<size_t>(k)]);
}

} // namespace

int FineCell(double hz) {
    if (!(hz >= 0.0)) return 0;
    const double cell = std::floor(hz / kFineCellHz);
    return cell >= kCalResponseDEPoints - 1 ? kCalResponseDEPoints - 1 : static_cast<int>(cell);
}

CalResponse CalResponseAt(const uint8_t* cal, CalBracket bracket, int frequencyIndex, int j) {
    const int t = ClampSlot(bracket.slot);
    const float x = ClampFraction(bracket.fraction);
    const int f = ClampFreq(frequencyIndex);
    const int fine = std::clamp(j, 0, kCalResponseDEPoints - 1);
    CalResponse r;
    for (int k = 0; k < kCalResponsePoints; ++k) {
        const size_t i = static_cast<size_t>(k);
        r.magnitude[i] = TempInterpolate(CalResponseA(cal, t, f, k), CalResponseA(cal, t + 1, f, k), x);
        r.phase[i] = -TempInterpolate(CalResponseB(cal, t, f, k), CalResponseB(cal, t + 1, f, k), x);
        r.flatnessDb[i] = TempInterpolate(CalResponseC(cal, t, f, k), CalResponseC(cal, t + 1, f, k), x);
    }
    r.fineMagnitude = TempInterpolate(CalResponseD(cal, t, fine), CalResponseD(cal, t + 1, fine), x);
    r.fineTrimDb = TempInterpolate(CalResponseE(cal, t, fine), CalResponseE(cal, t + 1, fine), x);
    return r;
}

float FineMagnitudeAt(const uint8_t* cal, CalBracket bracket, double hz) {
    const int t = ClampSlot(bracket.slot);
    const float x = ClampFraction(bracket.fraction);
    const auto d = [&](int j) { return TempInterpolate(CalResponseD(cal, t, j), CalResponseD(cal, t + 1, j), x); };
    // Position in cells from the first cell's middle.
    const double u = std::isnan(hz) ? 0.0 : std::clamp(hz / kFineCellHz - 0.5, 0.0, double(kCalResponseDEPoints - 1));
    const int j = std::min(static_cast<int>(u), kCalResponseDEPoints - 2);
    const double w = u - j;
    if (w == 0.0) return d(j); // also keeps a NaN neighbour out of an exact hit
    return static_cast<float>((1.0 - w) * d(j) + w * d(j + 1));
}

CalResponse CalResponseAtFrequency(const uint8_t* cal, CalBracket bracket, int frequencyIndex, double centreHz) {
    CalResponse r = CalResponseAt(cal, bracket, frequencyIndex, FineCell(centreHz));
    r.fineMagnitude = FineMagnitudeAt(cal, bracket, centreHz);
    return r;
}

std::vector<float> RolloffCurve(double startHz, double stepHz, int count) {
    std::vector<float> curve;
    if (count < 1 || !std::isfinite(startHz) || !std::isfinite(stepHz)) return curve;
    for (int i = 0; i < count; ++i) {
        const double f = startHz + i * stepHz;
        if (f >= kRolloffEndHz) break;
        if (f < kRolloff[0].hz) {
            curve.push_back(kRolloff[0].db);
            continue;
        }
        size_t upper = 1;
        while (kRolloff[upper].hz <= f) ++upper; // ends at the 8.7 MHz row at the latest
        const RolloffPoint& lo = kRolloff[upper - 1];
        const RolloffPoint& hi = kRolloff[upper];
        const float fraction = static_cast<float>((f - lo.hz) / (hi.hz - lo.hz));
        curve.push_back(TempInterpolate(lo.db, hi.db, fraction));
    }
    return curve;
}

StepCorrection DesignStepCorrection(const CalResponse& response) {
    StepCorrection out;

    // The response values, with damage replaced by the neutral value.
    std::array<float, kCalResponsePoints> magnitude{}, phase{}, flatness{};
    for (size_t k = 0; k < magnitude.size(); ++k) {
        magnitude[k] = Sanitise(response.magnitude[k], 1.0f, kMinMagnitude, kMaxMagnitude, out.substituted);
        phase[k] = Sanitise(response.phase[k], 0.0f, -kMaxPhaseRad, kMaxPhaseRad, out.substituted);
        flatness[k] = Sanitise(response.flatnessDb[k], 0.0f, -kMaxLevelDb, kMaxLevelDb, out.substituted);
    }
    const float fine = Sanitise(response.fineMagnitude, 1.0f, kMinMagnitude, kMaxMagnitude, out.substituted);
    const float trim = Sanitise(response.fineTrimDb, 0.0f, -kMaxLevelDb, kMaxLevelDb, out.substituted);

    ComplexVector prototype(kTapBuffer), spectrum(kTapBuffer), work(kTapBuffer), taps(kTapBuffer);
    prototype.zero();
    dsp::DesignFirLowPass(prototype.data(), kPrototypeTaps, kPrototypeCutoff);
    // A transform that fails leaves the device the plain low-pass.
    const auto plainPrototype = [&] {
        for (int n = 0; n < kFilterTapPairs; ++n) {
            out.taps[n][0] = prototype[n].real();
            out.taps[n][1] = 0.0f;
        }
        out.amplitudeTermDb = 0.0f;
        return out;
    };
    const auto transform = [](const dsp::FftPlan* plan, const ComplexVector& in, ComplexVector& to) {
        const dsp::DspStatus status = plan ? plan->Execute(in.data(), to.data()) : dsp::DspStatus::kNotInitialised;
        LX_ASSERT_TEXT(status == dsp::DspStatus::kOk, "status == ippStsNoErr", "src/dsp");
        return status == dsp::DspStatus::kOk;
    };

    const std::shared_ptr<const dsp::FftPlan> plan = dsp::FftPlan::Get(kTapBuffer);
    if (!transform(plan.get(), prototype, spectrum)) return plainPrototype();

    // Shape each bin by the inverse of the measured response at its offset.
    for (int m = 0; m < kTapBuffer; ++m) {
        const int signedBin = m < kTapBuffer / 2 ? m : m - kTapBuffer;
        const double u = signedBin / kBinsPerPoint;
        const double gain = std::pow(10.0, -Interpolate(flatness, u) / 20.0) / Interpolate(magnitude, u);
        const std::complex<double> shape = std::polar(gain, Interpolate(phase, u));
        spectrum[m] = dsp::cf32(std::complex<double>(spectrum[m]) * shape);
    }

    // Inverse transform through the forward plan: IDFT(X)[n] = DFT(X)[-n] / N.
    if (!transform(plan.get(), spectrum, work)) return plainPrototype();
    for (int n = 0; n < kTapBuffer; ++n) taps[n] = work[(kTapBuffer - n) % kTapBuffer] / float(kTapBuffer);
    taps[kTapBuffer - 1] = 0.0f; // the device never applies pair 31: design what it runs

    // The two gain values: the peak of each bank's spectrum. A tap cannot
    // exceed its bank's peak, so dividing by the larger bounds every tap by 1.
    double peak[2] = {0.0, 0.0};
    for (int bank = 0; bank < 2; ++bank) {
        for (int n = 0; n < kTapBuffer; ++n) work[n] = dsp::cf32(bank == 0 ? taps[n].real() : taps[n].imag(), 0.0f);
        if (!transform(plan.get(), work, spectrum)) return plainPrototype();
        for (int m = 0; m < kTapBuffer; ++m) peak[bank] = std::max(peak[bank], double(std::abs(spectrum[m])));
    }
    const double divisor = std::max(peak[0], peak[1]);
    for (int n = 0; n < kFilterTapPairs; ++n) {
        out.taps[n][0] = static_cast<float>(taps[n].real() / divisor);
        out.taps[n][1] = static_cast<float>(taps[n].imag() / divisor);
    }
    out.amplitudeTermDb = static_cast<float>(20.0 * std::log10(divisor) - 20.0 * std::log10(double(fine)) + trim);
    return out;
}

StepCorrection BuildStepCorrection(const uint8_t* cal, CalBracket bracket, int frequencyIndex, int j) {
    return DesignStepCorrection(CalResponseAt(cal, bracket, frequencyIndex, j));
}

StepCorrection BuildCaptureCorrection(const uint8_t* cal, CalBracket bracket, int frequencyIndex, double centreHz) {
    return DesignStepCorrection(CalResponseAtFrequency(cal, bracket, frequencyIndex, centreHz));
}

float StepGainDb(const uint8_t* cal, CalBracket bracket, int attenStep, int frequencyIndex,
                 const StepCorrection& correction) {
    return CalAmplitudeOffset(cal, ClampSlot(bracket.slot), ClampFraction(bracket.fraction), attenStep,
                              frequencyIndex) +
           correction.amplitudeTermDb;
}

float StepGainDb(const uint8_t* cal, CalBracket bracket, int attenStep, int frequencyIndex, int j) {
    return StepGainDb(cal, bracket, attenStep, frequencyIndex, BuildStepCorrection(cal, bracket, frequencyIndex, j));
}

uint8_t StepIfLevel(const uint8_t* cal, int frequencyIndex) { return CalIfLevel(cal, ClampFreq(frequencyIndex)); }

TemperatureBracketResult TemperatureBracket(const uint8_t* cal, float t) {
    float p[kCalTempSlots];
    for (int i = 0; i < kCalTempSlots; ++i) p[i] = CalTempPoint(cal, i);
    // A record that was never programmed reads NaN here (0xFF bytes), and a
    // damaged one may not ascend: then there is no bracket to find, and slot 0
    // is as good as any (its tables are neutral in the first case).
    for (int i = 0; i < kCalTempSlots; ++i)
        if (!std::isfinite(p[i]) || (i > 0 && !(p[i] > p[i - 1]))) return {};
    if (!std::isfinite(t) || t < p[0]) return {};
    int k = 0;
    while (k < kCalTempSlots && p[k] <= t) ++k; // k >= 1: p[0] <= t
    if (k == kCalTempSlots) return {5, 1.0};
    return {k - 1, (t - p[k - 1]) / (p[k] - p[k - 1])};
}

} // namespace lx
