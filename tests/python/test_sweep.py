# Swept spectra and real-time frames through the package, against the scene.
import numpy as np
import pytest

import lx_api
from conftest import tone_scene


@pytest.mark.parametrize("freq, dbm, settings", [
    (433.92e6, -55.0, dict(start=300e6, stop=600e6, rbw=100e3, vbw=10e3)),   # many steps
    (915.3e6, -20.0, dict(center=915e6, span=2e6, rbw=3e3, detector=lx_api.Detector.MIN_MAX,
                          window=lx_api.Window.NUTTALL)),
])
def test_sweep_finds_the_tone(analyzer, freq, dbm, settings):
    _, dev = analyzer(tone_scene((freq, dbm)))
    params = dev.configure_sweep(**settings)
    s = dev.get_sweep()
    assert s.min.dtype == np.float32 and s.min.shape == s.max.shape == s.frequencies.shape == (params.points,)
    peak = int(s.max.argmax())
    # The peak lies within one trace point plus half an RBW of the tone.
    assert abs(s.frequencies[peak] - freq) <= params.bin_size + params.rbw / 2
    assert s.max[peak] == pytest.approx(dbm, abs=0.5)
    far = np.abs(s.frequencies - freq) > 20 * params.rbw
    assert np.median(s.max[far]) < dbm - 40
    assert np.all(s.min <= s.max)
    assert s.timestamp > 1.5e18 and s.status == 0


def test_realtime_frame_shape_orientation_and_peak(analyzer):
    freq, dbm = 2.4412e9, -35.0
    _, dev = analyzer(tone_scene((freq, dbm)))
    p = dev.configure_realtime(center=2.44e9, span=20e6, rbw=30e3, frame_ref=-20, frame_range=100)
    frames = list(dev.realtime_frames(3, alpha=True))
    f = frames[-1]
    assert f.density.shape == f.alpha.shape == (p.frame_height, p.frame_width) == (256, p.frame_width)
    assert f.max.shape == f.frequencies.shape == (p.points,)
    assert [fr.number for fr in frames] == sorted(fr.number for fr in frames)
    peak = int(f.max.argmax())
    assert abs(f.frequencies[peak] - freq) <= p.bin_size + p.rbw / 2
    assert f.max[peak] == pytest.approx(dbm, abs=1.0)
    # Row 0 is the lowest level: the tone's column is hit at the row of its
    # level, (dbm - (ref - range)) / range of the 256 rows.
    column = f.density[:, peak // (p.points // p.frame_width)]
    top_hit = int(np.nonzero(column > 0)[0].max())
    assert top_hit == pytest.approx((dbm - (-120)) / 100 * 256, abs=3)
    assert f.alpha[top_hit, peak // (p.points // p.frame_width)] > 0
