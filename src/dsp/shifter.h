// Frequency shifter: multiplies a complex stream by a unit tone whose phase runs
// on across calls.
//
// Valid argument ranges
//   FrequencyShifter(f, n, mode)
//       f in cycles per sample. f < 0 is taken as f + 1 (so -0.25 runs at 0.75);
//       if that is still negative it becomes 0 and "false" is reported; f > 1
//       becomes 1 and "false" is reported (NaN: 0, reported). f == 1 is accepted
//       but every Shift then reports "false" and writes nothing.
//       n >= 1 is the tone-buffer length; the object never grows it, and a Shift
//       of more than n samples runs in pieces of n. n <= 0 leaves an object whose
//       Shift answers kNotInitialised.
//       mode 0: the tone is made in float, 1024 samples at a time from a table of
//       the first 1024 tone values turned by the running phase; mode != 0: made in
//       double the same way, then rounded to float.
//   Shift(src, dst, count)
//       count >= 0, src/dst non-null when count > 0, dst may equal src.
//
// Accuracy (measured over 1e9 samples): mode 0 tone values within 1.1e-7 of
// exp(j 2 pi f k), mode 1 within 4.2e-8 (float rounding); the stored phase is
// off by 6e-11 rad after 1e9 samples, because each chunk's advance is reduced
// to a fraction of a turn before it is added.
// Shift neither allocates nor throws. One object per thread.
#pragma once

#include <cstdint>

#include "dsp/dsp_status.h"
#include "dsp_vector/aligned_vector.h"

namespace lx::dsp {

class FrequencyShifter {
public:
    FrequencyShifter(double f, int n, uint8_t mode);

    DspStatus Shift(const cf32* src, cf32* dst, int64_t count) noexcept;
    // Runs the tone on over `count` samples (>= 0) that are not there (a gap
    // in the stream), so the samples after them are shifted as if they were.
    void Skip(int64_t count) noexcept;

    double frequency() const noexcept { return f_; }
    // Phase in radians, in [0, 2 pi), of the next sample's tone.
    double phase() const noexcept { return phase_; }
    int blockLength() const noexcept { return n_; }
    uint8_t mode() const noexcept { return mode_; }

private:
    void Advance(int64_t samples) noexcept;

    double f_ = 0.0;
    double phase_ = 0.0;
    int n_ = 0;
    uint8_t mode_ = 0;
    AlignedVector<cf64> toneD_;
    ComplexVector toneF_;
    AlignedVector<cf64> baseD_; // exp(j 2 pi f k), k < kToneChunk
    ComplexVector baseF_;
};

} // namespace lx::dsp
