// The coherent power of a tone in I/Q samples, for the folders that read a scene's tone back.
#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>

// dBm of the component at `hz` in n interleaved I/Q samples (in sqrt(mW)) taken at `rate`.
template <typename T>
double ToneDbm(const T* x, int64_t n, double hz, double rate = 61.44e6) {
    std::complex<double> acc = 0, turn = 1;
    const std::complex<double> step = std::polar(1.0, -2 * std::numbers::pi * hz / rate);
    for (int64_t k = 0; k < n; ++k, turn *= step) acc += std::complex<double>(x[2 * k], x[2 * k + 1]) * turn;
    return 20 * std::log10(std::abs(acc) / double(n));
}
