# Demodulated audio through the package against the scene, and its settings.
import numpy as np
import pytest

import lx_api


def _emitter(kind, **keys):
    return {"noise_floor_dbm_hz": -170, "temperature_c": 45, "pacing": "realtime",
            "emitters": [dict(kind=kind, frequency_hz=145e6, audio_hz=1000, **keys)]}


@pytest.mark.parametrize("scene, settings, depth", [
    (_emitter("am", power_dbm=-30, depth=0.5), dict(type=lx_api.AudioType.AM, if_bandwidth=10e3), 0.5),
    (_emitter("fm", power_dbm=-40, deviation_hz=5000), dict(type=lx_api.AudioType.FM, if_bandwidth=15e3, deemphasis_us=1),
     None),
])
def test_audio_carries_the_modulating_tone(analyzer, scene, settings, depth):
    _, dev = analyzer(scene)
    got = dev.configure_audio(center=145e6, **settings)
    assert got.type == settings["type"] and got.center == 145e6
    dev.read_audio(0.5)  # the filters settle
    x = dev.read_audio(1.0).astype(np.float64)
    assert len(x) == 30000
    spectrum = np.abs(np.fft.rfft(x * np.hanning(len(x)))) / (np.sum(np.hanning(len(x))) / 2)
    k = int(spectrum.argmax())
    assert k * lx_api.AUDIO_RATE / len(x) == pytest.approx(1000, abs=1.5)
    if depth is not None:
        assert spectrum[k] == pytest.approx(depth, rel=0.05)


def test_audio_settings_clamp_under_their_names(analyzer):
    _, dev = analyzer(_emitter("am", power_dbm=-30, depth=0.5))
    with pytest.warns(lx_api.SettingClampedWarning):
        got = dev.configure_audio(type=lx_api.AudioType.AM, if_bandwidth=1e6, low_pass=100, high_pass=5)
    assert (got.if_bandwidth, got.low_pass, got.high_pass) == (250e3, 1e3, 20)
    with pytest.raises(ValueError):
        dev.configure_audio(type=9)
    block = dev.get_audio()
    assert block.samples.shape == (1000,) and block.samples.dtype == np.float32
