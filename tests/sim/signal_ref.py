"""Independent measurements of captured I/Q for the simulator's tests.

usage: signal_ref.py MEASURE SAMPLES.c64 RATE [key=value ...]
Reads complex64 samples (full-scale units, DC removed) at RATE samples/s and
prints "name value" lines. Every measure follows the textbook definition of
what it measures; nothing here knows how the simulator renders.
"""
import sys

import numpy as np
from scipy import signal, stats


def out(name, value):
    print(name, repr(float(value)))


def sine_fit(y, f, rate):
    """Amplitude of the sinusoid at f in y (least squares with an offset)."""
    t = np.arange(len(y)) / rate
    a = np.column_stack([np.ones_like(t), np.sin(2 * np.pi * f * t), np.cos(2 * np.pi * f * t)])
    c, *_ = np.linalg.lstsq(a, y, rcond=None)
    return c[0], np.hypot(c[1], c[2])


def carrier_removed(x, rate, fc):
    return x * np.exp(-2j * np.pi * fc * np.arange(len(x)) / rate)


def lowpass(x, rate, cutoff):
    sos = signal.butter(6, cutoff, fs=rate, output="sos")
    return signal.sosfiltfilt(sos, x)


def noise(x, rate, a):
    """Density at frequencies, correlation between packets, Gaussian tails."""
    f, p = signal.welch(x, fs=rate, window="hann", nperseg=2048, return_onesided=False, scaling="density")
    for i, fq in enumerate(float(v) for v in a["freqs"].split(",")):
        band = np.abs(f - fq) <= 0.5e6
        out(f"density{i}", 10 * np.log10(np.mean(p[band])))
    packets = x[: len(x) // 2048 * 2048].reshape(-1, 2048)
    a0, a1 = packets[:-1].ravel(), packets[1:].ravel()
    out("packet_r", abs(np.vdot(a0, a1)) / np.sqrt(np.vdot(a0, a0).real * np.vdot(a1, a1).real))
    # Each component against the normal law, out to 4 sigma.
    v = np.concatenate([x.real, x.imag])
    v = v / np.std(v)
    worst = 0.0
    for k in (1.0, 2.0, 3.0, 4.0):
        expected = 2 * stats.norm.sf(k) * len(v)
        seen = np.count_nonzero(np.abs(v) > k)
        worst = max(worst, abs(seen - expected) / np.sqrt(expected))
    out("tail_z", worst)
    out("kurtosis", stats.kurtosis(v, fisher=False))


def burst(x, rate, a):
    """First samples at which the envelope rises through and falls through half its peak."""
    e = np.abs(x)
    on = e > 0.5 * np.max(e)
    edges = np.flatnonzero(np.diff(on.astype(int)))
    rises = [i + 1 for i in edges if on[i + 1]]
    falls = [i + 1 for i in edges if not on[i + 1]]
    out("rise0", rises[0] if rises else -1)
    out("fall0", falls[0] if falls else -1)
    out("rise1", rises[1] if len(rises) > 1 else -1)
    out("on_power", 10 * np.log10(np.mean(e[on] ** 2)))


def am(x, rate, a):
    """Carrier power and modulation depth from the envelope."""
    env = lowpass(np.abs(carrier_removed(x, rate, a["fc"])), rate, 5 * a["fa"])
    dc, amp = sine_fit(env, a["fa"], rate)
    out("carrier_power", 10 * np.log10(dc**2))
    out("depth", amp / dc)


def fm(x, rate, a):
    """Peak deviation of the instantaneous frequency at the audio tone."""
    y = lowpass(carrier_removed(x, rate, a["fc"]), rate, 4 * a["dev"] + 10 * a["fa"])
    inst = np.diff(np.unwrap(np.angle(y))) * rate / (2 * np.pi)
    _, amp = sine_fit(inst, a["fa"], rate)
    out("deviation", amp)
    out("carrier_power", 10 * np.log10(np.mean(np.abs(y) ** 2)))


def spectrum_lines(x, rate, a):
    """Power of lines at fc - fa, fc and fc + fa (a Blackman-Harris windowed FFT)."""
    n = len(x)
    w = signal.windows.blackmanharris(n)
    s = np.abs(np.fft.fft(x * w)) ** 2 / (n * np.sum(w**2))
    f = np.fft.fftfreq(n, 1 / rate)
    for name, fq in (("lower", a["fc"] - a["fa"]), ("carrier", a["fc"]), ("upper", a["fc"] + a["fa"])):
        k = int(np.argmin(np.abs(f - fq)))
        out(name, 10 * np.log10(np.sum(s[(np.arange(k - 4, k + 5)) % n]) + 1e-30))  # the window's main lobe


def main():
    measure, path, rate = sys.argv[1], sys.argv[2], float(sys.argv[3])
    args = {}
    for kv in sys.argv[4:]:
        k, v = kv.split("=", 1)
        try:
            args[k] = float(v)
        except ValueError:
            args[k] = v
    x = np.fromfile(path, dtype=np.complex64).astype(complex)
    {"noise": noise, "burst": burst, "am": am, "fm": fm, "lines": spectrum_lines}[measure](x, rate, args)


if __name__ == "__main__":
    main()
