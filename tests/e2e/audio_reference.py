"""Recovered audio against its source, with SciPy as the reference.

  audio_reference.py correlate SOURCE.wav RECOVERED [SKIP_S]
  audio_reference.py sinad RECOVERED FREQ [SKIP_S]

RECOVERED is a WAV file or raw float32 at 30 kS/s (*.f32); SKIP_S seconds at
the start are left out. Prints one JSON line.
"""
import json
import sys
import wave

import numpy as np
from scipy import signal

RATE = 30000


def read(path):
    if path.endswith(".f32"):
        return np.fromfile(path, dtype=np.float32).astype(np.float64), RATE
    with wave.open(path, "rb") as w:
        rate, n, width, ch = w.getframerate(), w.getnframes(), w.getsampwidth(), w.getnchannels()
        data = np.frombuffer(w.readframes(n), dtype={2: np.int16, 4: np.int32}[width]).astype(np.float64)
    return data.reshape(-1, ch)[:, 0] / float(1 << (8 * width - 1)), rate


def correlate(source, recovered, skip):
    src, src_rate = read(source)
    rec, rate = read(recovered)
    rec = rec[int(skip * rate):]
    g = np.gcd(rate, src_rate)
    src = signal.resample_poly(src, rate // g, src_rate // g)
    sos = signal.butter(4, [60.0, 11000.0], btype="bandpass", fs=rate, output="sos")
    src = signal.sosfiltfilt(sos, src)
    rec = signal.sosfiltfilt(sos, rec)
    tiled = np.tile(src, int(np.ceil(len(rec) / len(src))) + 1)
    c = signal.correlate(tiled, rec, mode="valid", method="fft")[: len(src)]
    lag = int(np.argmax(np.abs(c)))
    seg = tiled[lag : lag + len(rec)]
    corr = float(np.dot(seg, rec) / np.sqrt(np.dot(seg, seg) * np.dot(rec, rec)))
    return {"correlation": corr, "lag_s": lag / rate}


def sinad(recovered, freq, skip):
    x, rate = read(recovered)
    x = x[int(skip * rate):]
    x = x[: int(int(len(x) * freq / rate) * rate / freq)]  # whole cycles
    k = np.arange(len(x))
    w = 2 * np.pi * freq / rate
    a = np.vstack([np.ones(len(x)), np.cos(w * k), np.sin(w * k)]).T
    coef = np.linalg.lstsq(a, x, rcond=None)[0]
    rest = x - a @ coef
    amp = float(np.hypot(coef[1], coef[2]))
    return {"rate": rate, "samples": len(x), "rms_dbfs": float(10 * np.log10(np.mean(x * x))),
            "tone_amplitude": amp, "sinad_db": float(10 * np.log10(amp * amp / 2 / np.mean(rest * rest)))}


def main():
    mode, a, b = sys.argv[1:4]
    skip = float(sys.argv[4]) if len(sys.argv) > 4 else 0.0
    print(json.dumps(correlate(a, b, skip) if mode == "correlate" else sinad(a, float(b), skip)))


if __name__ == "__main__":
    main()
