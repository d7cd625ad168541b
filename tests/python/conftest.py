# Scenes, and simulated analyzers opened through the package and unplugged after each test.
import itertools
import os

import numpy as np
import pytest

import lx_api

_serials = itertools.count(51000000 + 1000 * (os.getpid() % 1000))


def tone_scene(*tones, pacing="fast", **extra):
    """A scene of tones (frequency Hz, power dBm) over a low noise floor, at
    45 degC (the reference oscillator exactly on frequency)."""
    scene = {"temperature_c": 45, "noise_floor_dbm_hz": -180, "pacing": pacing,
             "emitters": [{"kind": "tone", "frequency_hz": f, "power_dbm": p} for f, p in tones]}
    scene.update(extra)
    return scene


@pytest.fixture
def analyzer():
    """analyzer(scene) -> (Simulator, Device): a fresh serial each time."""
    opened = []

    def make(scene=None):
        sim = lx_api.Simulator(next(_serials), scene)
        dev = lx_api.open(sim.serial)
        opened.append((sim, dev))
        return sim, dev

    yield make
    for sim, dev in opened:
        dev.close()
        sim.detach()


def tone_of(x, rate):
    """Frequency (Hz, from a Hann-windowed FFT peak refined by the phase
    slope) and power (dBm, the mean of |x|^2 in mW) of the strongest tone."""
    x = np.asarray(x, np.complex128)
    spectrum = np.abs(np.fft.fft(x * np.hanning(len(x))))
    k = int(spectrum.argmax())
    coarse = np.fft.fftfreq(len(x), 1 / rate)[k]
    # Refine: the phase of the tone mixed down by the coarse estimate turns at
    # the residual frequency.
    mixed = x * np.exp(-2j * np.pi * coarse * np.arange(len(x)) / rate)
    half = len(x) // 2
    turn = np.angle(np.sum(mixed[half:]) * np.conj(np.sum(mixed[:half])))
    return coarse + turn * rate / (2 * np.pi * half), 10 * np.log10(np.mean(np.abs(x) ** 2))
