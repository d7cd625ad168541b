// Analysis windows and their equivalent noise bandwidths.
//
// Valid argument ranges
//   GenerateWindow(type, out, n)  type 0..5 (WindowType); another type reports
//                                 "false" and writes the flat-top window.
//                                 n <= 0 writes nothing; out must hold n doubles.
//                                 n == 1 is not special-cased: types 0..3 divide by
//                                 n - 1 = 0 and give NaN, as the formulas do.
//   EquivalentNoiseBandwidth(type) type 0..5; another type reports "false" and
//                                 answers 1.0.
#pragma once

#include <cstdint>

namespace lx::dsp {

enum WindowType : int {
    kWindowFlatTop = 0,     // five-term cosine
    kWindowNuttall = 1,     // four-term cosine
    kWindowBlackman = 2,    // three-term cosine (the "exact" Blackman weights)
    kWindowHamming = 3,
    kWindowGaussian = 4,    // approximate confined Gaussian, sigma 0.1
    kWindowRectangular = 5,
};

// Writes the symmetric window of length n (w[0] and w[n-1] are the end points).
// Flat-top and Nuttall take every cosine in single precision from an argument
// rounded to float and sum in double: that is what fixes their last digits, and
// the amplitude corrections were measured with exactly these values.
void GenerateWindow(int type, double* out, int64_t n) noexcept;

// Noise bandwidth in bins, used by the set-ups to relate RBW and FFT size.
double EquivalentNoiseBandwidth(int type) noexcept;

} // namespace lx::dsp
