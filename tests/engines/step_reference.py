#!/usr/bin/env python3
"""Reference traces for the step processor tests, computed with NumPy.

Usage: step_reference.py <output file>
Writes one line per array: "<key> <v0> <v1> ...". For every case: its
parameters, the input samples (float32 values printed exactly, so that both
sides see identical numbers) and the expected min and max traces, computed in
double precision from the definitions: window normalised to mean 1 over the
FFT length, DFT / n, halves swapped (numpy.fft.fftshift), detector, scale.
"""
import os
import sys

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "dsp"))
from reference import out, put, window  # noqa: E402  (the windows from their formulas, the output format)

rng = np.random.default_rng(20240923)


def segment_spectrum(seg, w, n, units):
    x = np.zeros(n, dtype=np.complex128)
    x[: len(seg)] = seg
    X = np.fft.fftshift(np.fft.fft(w * x) / n)
    p = np.abs(X) ** 2
    if units == 0:
        return 10 * np.log10(p)
    if units == 1:
        return np.sqrt(p)
    return p


def step(x, kind, n, L, avg, r, det, units, scale, gain):
    w = np.zeros(n)
    w[:L] = window(kind, L)
    w *= n / w.sum()
    hop = n // 4
    segs = 1 if units == 3 else avg
    spectra = [segment_spectrum(x[k * hop : k * hop + L], w, n, units) for k in range(segs)]
    if units == 3:
        mn = mx = spectra[0]
    elif det == 0:
        mn = mx = np.mean(spectra, axis=0)
    else:
        a = np.zeros(n)
        wt, k = 1.0, 1
        mn = mx = None
        for s in spectra:
            if wt > r:
                a = a * (1 - wt) + s * wt
                k += 1
                wt = 1.0 / k
                continue
            a = a * (1 - r) + s * r
            mn = a.copy() if mn is None else np.minimum(mn, a)
            mx = a.copy() if mx is None else np.maximum(mx, a)
        if mn is None:
            mn = mx = np.zeros(n)

    def convert(v):
        if units == 0:
            v = np.exp((v + 46.9897) * 0.115129254758358) if scale == 1 else v
        elif units == 1:
            v = v * 223.6 if scale == 1 else 10 * np.log10(v * v)
        else:
            v = np.sqrt(v) * 223.6 if scale == 1 else 10 * np.log10(v)
        if scale == 0:
            return v + gain
        if scale == 1:
            return v * 10 ** (gain * 0.05)
        return v

    return convert(mn), convert(mx)


# name, window, fftSize, windowLength, averageCount, vbwRatio, detector, units, scale, gain
CASES = [
    ("avg_power_flattop_padded", 0, 256, 230, 5, 0.2, 0, 2, 0, 3.5),
    ("avg_log_blackman", 2, 128, 128, 7, 0.15, 0, 0, 0, -2.0),
    ("avg_voltage_linear", 5, 64, 60, 3, 0.5, 0, 1, 1, 6.0),
    ("avg_one_segment_log_linear", 0, 128, 110, 1, 1.0, 0, 0, 1, 2.5),
    ("minmax_power_vbw_quarter", 0, 256, 200, 12, 0.25, 1, 2, 0, 0.0),
    ("minmax_log_vbw_third_linear", 2, 128, 100, 9, 1.0 / 3.0, 1, 0, 1, -4.0),
    ("minmax_voltage_rbw_eq_vbw", 5, 64, 64, 6, 1.0, 1, 1, 2, 9.0),
    ("sample_units_first_segment", 0, 128, 126, 8, 0.125, 1, 3, 1, 1.5),
    ("minmax_power_scale2_no_gain", 0, 512, 400, 10, 0.3, 1, 2, 2, 20.0),
]


def main():
    for name, kind, n, L, avg, r, det, units, scale, gain in CASES:
        hop = n // 4
        segs = 1 if units == 3 else avg
        count = (segs - 1) * hop + L
        t = np.arange(count)
        # Two tones (one off-bin, one below centre), noise, and a step in the
        # middle of the block so that min and max differ.
        x = 0.3 * np.exp(2j * np.pi * (7.25 / n) * t) + 0.05 * np.exp(-2j * np.pi * (n / 5.0 / n) * t + 1.0)
        x = x + 0.01 * (rng.standard_normal(count) + 1j * rng.standard_normal(count))
        x[count // 2 :] *= 0.25
        x = x.astype(np.complex64)
        mn, mx = step(x.astype(np.complex128), kind, n, L, avg, r, det, units, scale, gain)
        put(f"{name}/params", [kind, n, L, avg, r, det, units, scale, gain])
        put(f"{name}/x", x)
        put(f"{name}/min", mn)
        put(f"{name}/max", mx)
    with open(sys.argv[1], "w") as f:
        f.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main()
