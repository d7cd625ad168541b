#!/usr/bin/python3
"""The equaliser tap design of docs/corrections.md in NumPy/SciPy, as the
independent reference of tests/cal/correction_test.cpp.

usage: tap_design_reference.py <input> <output>
Input lines: name, 13 magnitudes, 13 correcting phases, 13 flatness values (dB),
fine magnitude, trim (dB). Output lines: name, 32 tap pairs (a0 b0 a1 b1 ...),
amplitude term (dB).
"""
import sys

import numpy as np
from scipy import signal

N = 32
POINTS = np.arange(13) - 6  # response points, in 5.12 MHz spacings


def design(mag, phase, flat_db, fine, trim_db):
    # firwin counts its cutoff against Nyquist: 0.9 is 0.45 of the sample rate.
    buf = np.zeros(N, dtype=complex)
    buf[:31] = signal.firwin(31, 0.9, window="blackman")
    offsets = np.fft.fftfreq(N, 1.0 / N) * (61.44e6 / N) / 5.12e6
    shape = 10.0 ** (-np.interp(offsets, POINTS, flat_db) / 20.0) / np.interp(offsets, POINTS, mag)
    taps = np.fft.ifft(np.fft.fft(buf) * shape * np.exp(1j * np.interp(offsets, POINTS, phase)))
    taps[N - 1] = 0.0
    gain = max(np.abs(np.fft.fft(taps.real)).max(), np.abs(np.fft.fft(taps.imag)).max())
    return taps / gain, 20.0 * np.log10(gain) - 20.0 * np.log10(fine) + trim_db


with open(sys.argv[1]) as src, open(sys.argv[2], "w") as out:
    for line in src:
        name, *fields = line.split()
        v = np.array([float(x) for x in fields])
        taps, term = design(v[0:13], v[13:26], v[26:39], v[39], v[40])
        values = list(np.column_stack([taps.real, taps.imag]).ravel()) + [term]
        out.write(name + " " + " ".join(repr(float(x)) for x in values) + "\n")
