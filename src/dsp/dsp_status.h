// Result of the signal-processing calls that can refuse their input.
//
// Run calls never throw and never allocate; they answer with one of these.
// A refused call writes nothing and leaves the object's state as it was.
#pragma once

#include <complex>

namespace lx::dsp {

enum class DspStatus : int {
    kOk = 0,
    kBadArgument = -1,   // null pointer, negative count, size or parameter out of range
    kNotInitialised = -2, // run before a successful set-up
    kNoMemory = -3,       // a set-up could not allocate its buffers
};

using cf32 = std::complex<float>;
using cf64 = std::complex<double>;

} // namespace lx::dsp
