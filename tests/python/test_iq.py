# The I/Q stream through the package against the scene: tone, stamps, triggers.
import numpy as np
import pytest

from conftest import tone_of, tone_scene


# Floats and raw int16 (the levels at every decimation: tests/e2e/iq_test.cpp).
@pytest.mark.parametrize("decimation, int16, offset, dbm", [
    (8, False, 1.1e6, -30.0),
    (64, True, 123.4e3, -38.0),
])
def test_iterator_blocks_carry_the_tone(analyzer, decimation, int16, offset, dbm):
    center = 868e6
    _, dev = analyzer(tone_scene((center + offset, dbm), pacing="realtime"))
    block = 16384
    with dev.iq_stream(block_size=block, blocks=9, center=center, decimation=decimation, int16=int16) as stream:
        rate = stream.parameters.sample_rate
        # The stream's first blocks may lose samples while it settles.
        for _ in range(3):
            next(stream)
        blocks = list(stream)
    assert len(blocks) == 6
    fits = []
    for b in blocks:
        if int16:
            assert b.samples.dtype == np.int16 and b.samples.shape == (block, 2)
            x = (b.samples[:, 0] + 1j * b.samples[:, 1]) / 32768 * 10 ** (stream.parameters.correction_db / 20)
        else:
            assert b.samples.dtype == np.complex64 and b.samples.shape == (block,)
            x = b.samples
        fits.append(tone_of(x, rate))
    # A block with a gap inside is no clean tone: the median of the blocks'
    # fits holds unless most of them lost samples on a loaded host.
    f, p = np.median(fits, axis=0)
    assert f == pytest.approx(offset, abs=rate / block / 4)
    assert p == pytest.approx(dbm, abs=0.3)
    # Blocks are stamped one block length apart, unless samples were lost
    # between them (the median: a loss on a loaded host moves some).
    assert np.all(np.diff([b.timestamp for b in blocks]) > 0)
    steps = [b.timestamp - a.timestamp for a, b in zip(blocks, blocks[1:]) if not (a.sample_loss or b.sample_loss)]
    if len(steps) >= 2:
        assert np.median(steps) == pytest.approx(block / rate * 1e9, abs=1e9 / rate)


def test_triggers_land_one_period_apart_across_reads(analyzer):
    # Reads longer than the 50 ms slices the package waits in, and shorter.
    period, decimation = 0.0123, 64
    _, dev = analyzer(tone_scene((1e9, -40), pacing="realtime", trigger={"period_s": period, "start_s": 0.001}))
    p = dev.configure_iq(center=1e9, decimation=decimation)
    dev.read_iq(100000)  # past the stream's start (see above)
    runs, at = [[]], 0  # edge positions of gap-free runs of reads
    for n in (100000, 7000, 150000, 3000, 90000, 120000):
        b = dev.read_iq(n)
        assert all(0 <= t < n for t in b.triggers)
        if b.sample_loss:  # the gap may be anywhere in this read
            runs.append([])
        else:
            runs[-1] += [at + t for t in b.triggers]
        at += n
    spacing = np.concatenate([np.diff(r) for r in runs if len(r) > 1] + [[]])
    if len(spacing) < 20:
        pytest.skip("the loaded host lost samples in most reads")
    assert np.allclose(spacing, period * p.sample_rate, atol=1.0)


def test_read_into_a_buffer_and_bad_buffers(analyzer):
    _, dev = analyzer(tone_scene((1e9 + 1e5, -30)))
    p = dev.configure_iq(center=1e9, decimation=32)
    buf = np.zeros(50000, np.complex64)
    b = dev.read_iq(40000, out=buf)
    assert b.samples is buf and np.all(buf[40000:] == 0)
    assert tone_of(buf[:40000], p.sample_rate)[0] == pytest.approx(1e5, abs=10)
    for bad in (np.zeros(100, np.complex64), np.zeros(50000, np.complex128), np.zeros((50000, 2), np.int16),
                np.zeros(100000, np.complex64)[::2]):
        with pytest.raises(ValueError):
            dev.read_iq(40000, out=bad)
