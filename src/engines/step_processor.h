// StepProcessor: turns the complex samples of one tuning step into the
// step's minimum and maximum spectra, bins ordered from the lowest frequency
// (centre - fs/2) upward.
//
// Per segment k (the windowLength samples that start at k * hop, hop =
// fftSize / 4, 75 % overlap): window, zero-pad to fftSize, forward FFT scaled
// by 1/fftSize with the window normalised to mean 1 (a full-scale tone keeps
// its amplitude in its bin), swap the halves, then per bin by video units:
//   0 power in dB   1 magnitude |X|   2 power |X|^2   3 power, first segment only
// Detector 0 (average): the mean of averageCount segment spectra; min == max.
// Detector 1 (min/max): a video filter A = A (1 - r) + S r with r = vbwRatio,
// preceded by a warm-up that runs a plain mean while its weight is above r;
// warm-up segments never reach the traces, every later A updates min and max.
// Units 3 ignores the detector: min = max = the first segment's spectrum.
// Then the traces are converted to the scale (0 dBm, 1 mV into 50 ohm,
// 2 dBm) and the step gain is applied: + gainDb on scale 0, x 10^(gainDb/20)
// on scale 1, none on scale 2.
//
// Input samples are complex floats in full-scale units (raw counts - 576,
// times 2^-15). A tone of mean |x|^2 = p reads 10 log10(p) in its bin on
// scale 0 before the gain; the step gain (dB) takes that to dBm.
//
// Two ways to feed it:
//   Process()                      the whole step in one contiguous block of
//                                  SamplesNeeded() samples;
//   Begin() / AddSegment() ... / Finish()
//                                  one segment at a time, for callers whose
//                                  samples are not contiguous (a ring that
//                                  wraps, a step longer than the store).
//
// Valid argument ranges
//   StepProcessorConfig: fftSize a power of two 64..dsp::kMaxFftSize;
//   2 <= windowLength <= fftSize; averageCount >= 1; 0 < vbwRatio <= 1;
//   detector 0..1; videoUnits 0..3; scale 0..2; windowType 0..5. Anything
//   else leaves valid() false, and every run call then does nothing.
//   Sample and output pointers must be non-null and hold the counts named;
//   min/max outputs need fftSize floats and must not overlap each other or
//   the input.
//
// Cost: all buffers are allocated by the constructor (which may throw
// std::bad_alloc); the run calls never allocate and never throw.
//
// Threads: one object belongs to one thread at a time; several objects of
// the same size may run on different threads at once (the FFT plan they
// share is only executed). No locks.
#pragma once

#include <cstdint>

#include "dsp/dsp_status.h"
#include "dsp/fft.h"
#include "dsp_vector/aligned_vector.h"

namespace lx::engines {

using dsp::cf32;

inline constexpr double kAdcRateHz = 61.44e6;

enum class Detector : int32_t { kAverage = 0, kMinMax = 1 };
enum class VideoUnits : int32_t { kLog = 0, kVoltage = 1, kPower = 2, kSample = 3 };
enum class Scale : int32_t { kLog = 0, kLinear = 1, kLogNoStepGain = 2 };

struct StepProcessorConfig {
    int32_t windowType = 0;
    int32_t fftSize = 64;
    int32_t windowLength = 64;
    int64_t averageCount = 1;
    double vbwRatio = 1.0;
    int32_t detector = 0;
    int32_t videoUnits = 2;
    int32_t scale = 0;
};

// True when the configuration is one StepProcessor accepts.
bool StepConfigValid(const StepProcessorConfig& c);

class StepProcessor {
public:
    explicit StepProcessor(const StepProcessorConfig& config);
    StepProcessor(const StepProcessor&) = delete;
    StepProcessor& operator=(const StepProcessor&) = delete;

    bool valid() const noexcept { return valid_; }
    const StepProcessorConfig& config() const noexcept { return config_; }
    int32_t fftSize() const noexcept { return config_.fftSize; }
    int32_t hop() const noexcept { return config_.fftSize / 4; }
    // Segments one step consumes: 1 for video units 3, else averageCount.
    int64_t SegmentCount() const noexcept;
    // Samples one step spans: (SegmentCount() - 1) * hop + windowLength.
    int64_t SamplesNeeded() const noexcept;

    // The whole step from samples[0 .. SamplesNeeded()).
    void Process(const cf32* samples, float gainDb, float* minOut, float* maxOut) noexcept;
    // The same for the output bins [keepFirst, keepFirst + keepCount) only
    // (a sweep keeps about half of each step): everything per bin, from the
    // power of each segment on, is done for those alone, and the outputs
    // outside them are left as they were. A range outside 0..fftSize is
    // clipped to it.
    void Process(const cf32* samples, float gainDb, float* minOut, float* maxOut, int64_t keepFirst,
                 int64_t keepCount) noexcept;

    // Incremental form: Begin, then AddSegment once per segment in order
    // (segment k is the windowLength samples from k * hop), then Finish.
    // Segments beyond SegmentCount() are ignored; Finish after fewer
    // segments gives the traces of the segments taken (all zero when none).
    // Begin(keepFirst, keepCount): the kept bins, as for Process.
    void Begin() noexcept;
    void Begin(int64_t keepFirst, int64_t keepCount) noexcept;
    void AddSegment(const cf32* segment) noexcept;
    int64_t SegmentsTaken() const noexcept { return taken_; }
    bool NeedsMore() const noexcept { return taken_ < SegmentCount(); }
    void Finish(float gainDb, float* minOut, float* maxOut) noexcept;

    // The scale conversion and step gain alone, on values already in the
    // detector's units: for callers that keep traces in those units.
    static void ConvertToScale(const StepProcessorConfig& c, float gainDb, float* values, int64_t count) noexcept;
    // The same from `in` into `out` (the same array, or not overlapping).
    static void ConvertToScale(const StepProcessorConfig& c, float gainDb, const float* in, float* out,
                               int64_t count) noexcept;

private:
    void SegmentSpectrum(const cf32* segment, float* out) noexcept;

    StepProcessorConfig config_;
    bool valid_ = false;
    int64_t taken_ = 0;
    int64_t lo_ = 0, hi_ = 0;  // the kept output bins [lo_, hi_)
    double weight_ = 1.0;   // video filter weight during warm-up
    bool tracing_ = false;  // min/max hold a first value
    dsp::WindowedFft fft_;
    ComplexVector spectrum_;      // FFT output
    FloatVector segment_;         // one segment's spectrum, in detector units
    FloatVector video_;           // running video average (detector 1)
    DoubleVector sum_;            // running sum (detector 0, more than one segment)
    FloatVector min_, max_;       // detector 1 traces, units 3 spectrum
};

} // namespace lx::engines
