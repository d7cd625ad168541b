"""Normalised correlation of recovered audio with its source, at the best lag.

usage: audio_reference.py SOURCE.wav RECOVERED.f32 RATE
RECOVERED is raw float32 at RATE; the simulator plays SOURCE in a loop, so the
recovered window is matched against the looped source (circular lags).
Prints JSON: correlation, lag_s.
"""
import json
import sys
import wave

import numpy as np
from scipy import signal


def read_wav(path):
    with wave.open(path, "rb") as w:
        rate, n, width = w.getframerate(), w.getnframes(), w.getsampwidth()
        data = np.frombuffer(w.readframes(n), dtype={2: np.int16, 4: np.int32}[width]).astype(np.float64)
    return data.reshape(-1, w.getnchannels())[:, 0], rate


def main():
    src, src_rate = read_wav(sys.argv[1])
    rec = np.fromfile(sys.argv[2], dtype=np.float32).astype(np.float64)
    rate = int(sys.argv[3])
    g = np.gcd(rate, src_rate)
    src = signal.resample_poly(src, rate // g, src_rate // g)
    # The band the receiver passes (20 Hz .. 12 kHz): both sides alike.
    sos = signal.butter(4, [60.0, 11000.0], btype="bandpass", fs=rate, output="sos")
    src = signal.sosfiltfilt(sos, src)
    rec = signal.sosfiltfilt(sos, rec)
    loops = int(np.ceil(len(rec) / len(src))) + 1
    tiled = np.tile(src, loops)
    c = signal.correlate(tiled, rec, mode="valid", method="fft")[: len(src)]
    lag = int(np.argmax(np.abs(c)))
    seg = tiled[lag : lag + len(rec)]
    corr = float(np.dot(seg, rec) / np.sqrt(np.dot(seg, seg) * np.dot(rec, rec)))
    print(json.dumps({"correlation": corr, "lag_s": lag / rate}))


if __name__ == "__main__":
    main()
