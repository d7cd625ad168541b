#!/usr/bin/env python3
"""Reference values for the signal-processing tests, computed with NumPy/SciPy.

Usage: reference.py <set> <output file>
Writes one line per array: "<key> <v0> <v1> ...". Inputs that the C++ side must
feed to the code under test are written here too, as float32 values printed
exactly, so both sides see identical numbers.
"""
import sys

import numpy as np
from scipy import signal

rng = np.random.default_rng(20240611)
out = []


def put(key, values):
    arr = np.asarray(values)
    if np.iscomplexobj(arr):
        arr = np.column_stack([arr.real, arr.imag]).ravel()
    out.append(key + " " + " ".join(repr(float(v)) for v in np.ravel(arr)))


def crandn(n):
    return (rng.standard_normal(n) + 1j * rng.standard_normal(n)).astype(np.complex64)


def window(kind, n):
    """The analysis windows, written from their formulas, in double."""
    k = np.arange(n, dtype=np.float64)
    with np.errstate(divide="ignore", invalid="ignore"):
        if kind in (0, 1):
            coef = [1.0, -1.93, 1.29, -0.388, 0.028] if kind == 0 else [0.355768, -0.487396, 0.144232, -0.012604]
            x = np.pi * k / (n - 1)
            w = np.full(n, coef[0])
            for m, a in enumerate(coef[1:], start=1):
                # argument rounded to float; cosine of that float taken exactly
                w = w + a * np.cos((2 * m * x).astype(np.float32).astype(np.float64))
            return w
        if kind == 2:
            return 0.42659 - 0.49656 * np.cos(2 * np.pi * k / (n - 1)) + 0.076849 * np.cos(4 * np.pi * k / (n - 1))
        if kind == 3:
            # SciPy answers 1 for a single point; the formula divides by zero there.
            return signal.windows.hamming(n, sym=True) if n > 1 else 0.54 - 0.46 * np.cos(2 * np.pi * k / (n - 1))
        if kind == 4:
            c, s = (n - 1) / 2.0, 0.2 * n
            g = lambda x: np.exp(-(((x - c) / s) ** 2))
            return g(k) - g(0) * (g(k + n) + g(k - n)) / (g(n - 1.0) + g(-float(n)))
        return signal.windows.boxcar(n)


def windows():
    for kind in range(6):
        for n in (1, 2, 7, 64, 1001):
            put(f"window/{kind}/{n}", window(kind, n))


def fft():
    for n in (1, 2, 8, 128, 4096, 8192):
        x = crandn(n)
        put(f"fft/{n}/x", x)
        put(f"fft/{n}/forward", np.fft.fft(x.astype(np.complex128)) / n)
        put(f"fft/{n}/inverse", np.fft.ifft(x.astype(np.complex128)) * n)
    # Windowed transform: window of length n - pad in float, normalised to mean 1
    # over n points, then the DFT of the product divided by n.
    for kind, n, pad in ((0, 64, 0), (1, 256, 56), (2, 1024, 1), (3, 32, 16), (4, 512, 0), (5, 16, 3)):
        w = np.zeros(n)
        w[: n - pad] = window(kind, n - pad).astype(np.float32)
        w = (w * (n / w.sum())).astype(np.float32).astype(np.float64)
        x = crandn(n)
        put(f"wfft/{kind}/{n}/{pad}/x", x)
        put(f"wfft/{kind}/{n}/{pad}/window", w)
        put(f"wfft/{kind}/{n}/{pad}/y", np.fft.fft(w * x.astype(np.complex128)) / n)


# (taps, factor): direct form, then the FFT path at every stage the I/Q and
# narrow-span engines run.
DECIMATORS = ((1, 1), (7, 3), (129, 4), (257, 2), (513, 4), (1025, 8), (2049, 2), (2049, 16), (2049, 64))


def fir():
    for i, (numtaps, cutoff) in enumerate(((1, 0.2), (2, 0.1), (31, 0.45), (64, 0.05), (129, 0.25), (2049, 0.45 / 16))):
        put(f"firwin/{i}/params", [numtaps, cutoff])
        put(f"firwin/{i}/h", signal.firwin(numtaps, 2 * cutoff, window="blackman"))
    x = crandn(3000)
    put("fir/x", x)
    for m in (1, 5, 31, 129, 300):
        h = crandn(m) / np.float32(m)
        put(f"fir/{m}/h", h)
        put(f"fir/{m}/y", np.convolve(x.astype(np.complex128), h.astype(np.complex128))[: len(x)])
    # Real taps (the designed low-passes) take the real-tap kernel.
    hr = signal.firwin(129, 0.3, window="blackman").astype(np.float32).astype(np.complex64)
    put("fir/real129/h", hr)
    put("fir/real129/y", np.convolve(x.astype(np.complex128), hr.astype(np.complex128))[: len(x)])
    xd = crandn(40000)
    put("dec/x", xd)
    for m, d in DECIMATORS:
        h = crandn(m) / np.float32(m) if m < 257 else signal.firwin(m, 0.45 / d, window="blackman").astype(np.float32).astype(np.complex64)
        put(f"dec/{m}/{d}/h", h)
        put(f"dec/{m}/{d}/y", np.convolve(xd.astype(np.complex128), h.astype(np.complex128))[: len(xd)][::d])


CHEBY_CASES = ((1, 0.5, 0.1, 0), (2, 1.0, 0.2, 0), (3, 0.1, 0.05, 1), (4, 3.0, 0.3, 0),
               (5, 0.5, 0.01, 0), (6, 1.0, 0.4, 1), (8, 0.5, 0.1, 0), (9, 2.0, 0.25, 1))


def cheby():
    x = rng.standard_normal(2000).astype(np.float32)
    put("iir/x", x)
    for i, (order, ripple, cutoff, kind) in enumerate(CHEBY_CASES):
        key = f"cheby/{i}"
        put(key + "/params", [order, ripple, cutoff, kind])
        b, a = signal.cheby1(order, ripple, 2 * cutoff, btype="lowpass" if kind == 0 else "highpass")
        put(key + "/b", b)
        put(key + "/a", a)
        # Filtering runs from float coefficients.
        bf, af = b.astype(np.float32).astype(np.float64), a.astype(np.float32).astype(np.float64)
        put(key + "/y", signal.lfilter(bf, af, x.astype(np.float64)))


def main():
    sets = {"windows": windows, "fft": fft, "fir": fir, "cheby": cheby}
    sets[sys.argv[1]]()
    with open(sys.argv[2], "w") as f:
        f.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main()
