# Blocking reads release the GIL, and a Ctrl-C ends them leaving the device usable.
import os
import signal
import threading
import time

import pytest

import lx_api
from conftest import tone_of, tone_scene

TONE = (1.0001e9, -33.0)


def interrupt_after(seconds):
    threading.Timer(seconds, os.kill, (os.getpid(), signal.SIGINT)).start()


def test_ctrl_c_during_iq_read_keeps_the_stream(analyzer):
    _, dev = analyzer(tone_scene(TONE, pacing="realtime"))
    with dev.iq_stream(block_size=2_000_000, center=1e9, decimation=64) as stream:  # 2 s per block
        rate = stream.parameters.sample_rate
        interrupt_after(0.3)
        with pytest.raises(KeyboardInterrupt):
            next(stream)
        # The read was cut short: far fewer samples left the library than asked for.
        assert dev.stream_health().samples_delivered < 1_000_000
        stream.block_size = 50_000
        block = next(stream)
        assert block.sample_loss  # what the interrupted read had taken is gone
        clean = next(stream)
    f, p = tone_of(clean.samples, rate)
    assert f == pytest.approx(TONE[0] - 1e9, abs=1) and p == pytest.approx(TONE[1], abs=0.3)


def test_ctrl_c_during_sweep_aborts_it_and_the_device_sweeps_again(analyzer):
    _, dev = analyzer(tone_scene(TONE, pacing="realtime"))
    dev.configure_sweep(center=1e9, span=200e6, rbw=10e3, sweep_time=30)
    interrupt_after(0.3)
    with pytest.raises(KeyboardInterrupt):
        dev.get_sweep()
    # A sweep that had run to its end would have left the mode set up.
    assert dev.mode == lx_api.Mode.IDLE
    p = dev.configure_sweep(span=10e6, sweep_time=1e-6)
    s = dev.get_sweep()
    assert abs(s.frequencies[s.max.argmax()] - TONE[0]) <= p.bin_size + p.rbw / 2
    assert s.max.max() == pytest.approx(TONE[1], abs=0.5)


@pytest.mark.parametrize("read", ["sweep", "iq"])
def test_other_threads_run_while_a_read_waits(analyzer, read):
    _, dev = analyzer(tone_scene(TONE, pacing="realtime"))
    if read == "sweep":
        dev.configure_sweep(center=1e9, span=100e6, rbw=10e3, sweep_time=2)
        call = dev.get_sweep
    else:
        dev.configure_iq(center=1e9, decimation=256)
        call = lambda: dev.read_iq(480_000)  # 2 s of stream
    entered = threading.Event()
    reader = threading.Thread(target=lambda: (entered.set(), call()))
    reader.start()
    entered.wait()
    # Pure Python work needs the GIL: were it held through the read, this
    # loop could only finish after the read did.
    end = time.monotonic() + 0.2
    spins = 0
    while time.monotonic() < end:
        spins += 1
    still_reading = reader.is_alive()
    reader.join()
    assert still_reading and spins > 1000
