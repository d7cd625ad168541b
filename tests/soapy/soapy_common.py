"""Shared pieces of the SoapySDR tests: scene files, the device, reads, tone levels."""
import json
import os
import tempfile

import numpy as np
import SoapySDR
from SoapySDR import SOAPY_SDR_RX, SOAPY_SDR_OVERFLOW, SOAPY_SDR_HAS_TIME  # noqa: F401

TRIGGER_FLAG = 1 << 16  # readStreamStatus: an external trigger edge


def scene_file(scene):
    """The scene as a JSON file that lives until the process ends."""
    f = tempfile.NamedTemporaryFile("w", suffix=".json", delete=False)
    json.dump(scene, f)
    f.close()
    return f.name


def tone_scene(freq, dbm, **extra):
    return dict({"emitters": [{"kind": "tone", "frequency_hz": freq, "power_dbm": dbm}],
                 "noise_floor_dbm_hz": -160}, **extra)


def open_device(scene, serial=None):
    args = {"driver": "lx530", "scene": scene_file(scene)}
    if serial:
        args["serial"] = str(serial)
    return SoapySDR.Device(args)


def read(dev, stream, n, fmt, timeout_us=2000000, restart_on_loss=True):
    """n gap-free samples, complex128, the time of the first and the flags of
    each read. A loss starts the collection again (or raises)."""
    buf = np.zeros(2 * n, np.int16) if fmt == "CS16" else np.zeros(n, np.complex64)
    got, t0, flags, restarts = 0, None, [], 0
    while got < n:
        view = buf[2 * got:] if fmt == "CS16" else buf[got:]
        r = dev.readStream(stream, [view], n - got, timeoutUs=timeout_us)
        if r.ret == SOAPY_SDR_OVERFLOW and restart_on_loss and restarts < 100:
            restarts += 1
            # The read after an OVERFLOW may still hold the gap (a loss of the
            # analyzer or of the host's processing): start after it.
            dev.readStream(stream, [buf], n, timeoutUs=timeout_us)
            got, t0, flags = 0, None, []
            continue
        if r.ret <= 0:
            raise RuntimeError("readStream returned %d" % r.ret)
        if t0 is None:
            t0 = r.timeNs
        flags.append(r.flags)
        got += r.ret
    x = buf.astype(np.float64).view(np.complex128) / 32768 if fmt == "CS16" else buf.astype(np.complex128)
    return x, t0, flags


def tone_dbm(x, offset_hz, rate):
    """Coherent power (dBm) of the component at offset_hz (x in sqrt(mW)),
    Hann-weighted, and the frequency of the strongest FFT bin."""
    w = np.hanning(len(x))
    t = np.arange(len(x)) / rate
    a = np.sum(w * x * np.exp(-2j * np.pi * offset_hz * t)) / np.sum(w)
    mag = np.abs(np.fft.fft(w * x, 8 * len(x)))
    peak = np.fft.fftfreq(8 * len(x), 1 / rate)[np.argmax(mag)]
    return 10 * np.log10(abs(a) ** 2), peak


def read_events(dev, stream):
    events = []
    while True:
        e = dev.readStreamStatus(stream, timeoutUs=0)
        if e.ret == SoapySDR.SOAPY_SDR_TIMEOUT:
            return events
        events.append(e)


def soapy_util():
    return os.environ.get("LX_SOAPY_UTIL", "SoapySDRUtil")
