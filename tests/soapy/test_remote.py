"""Streaming through SoapySDRServer on the loopback address (driver=remote)."""
import os
import signal
import socket
import subprocess
import time
import unittest

import numpy as np
import SoapySDR
from SoapySDR import SOAPY_SDR_RX, SOAPY_SDR_CF32, SOAPY_SDR_HAS_TIME, SOAPY_SDR_OVERFLOW

from soapy_common import scene_file, tone_dbm, tone_scene

RATE = 7.68e6


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Remote(unittest.TestCase):
    def setUp(self):
        self.port = free_port()
        # The server finds modules on its own search path: the build tree's
        # module through its environment.
        self.server = subprocess.Popen(
            [os.environ.get("LX_SOAPY_SERVER", "SoapySDRServer"), "--bind=127.0.0.1:%d" % self.port],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
            env=dict(os.environ, LD_PRELOAD=os.environ.get("LX_MDNS_STAND_IN", "")))
        self.addCleanup(self.stop_server)
        deadline = time.time() + 20
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                break
            except OSError:
                self.assertIsNone(self.server.poll(), "SoapySDRServer exited")
                self.assertLess(time.time(), deadline, "SoapySDRServer never listened")
                time.sleep(0.1)

    def stop_server(self):
        # The whole session: the server and anything it started.
        for sig, wait in ((signal.SIGINT, 10), (signal.SIGKILL, 10)):
            if self.server.poll() is not None:
                break
            os.killpg(self.server.pid, sig)
            try:
                self.server.wait(timeout=wait)
            except subprocess.TimeoutExpired:
                pass

    def stream(self, settle_s, seconds=3.0):
        """Streams through the server for settle_s + seconds; counts the
        losses and time-stamp gaps after settle_s."""
        offset, level = 250e3, -35.0
        scene = scene_file(tone_scene(1e9 + offset, level, pacing="realtime"))
        args = {"driver": "remote", "remote": "tcp://127.0.0.1:%d" % self.port, "remote:driver": "lx530",
                "scene": scene, "serial": "34567890"}
        found = SoapySDR.Device.enumerate(args)
        self.assertEqual([r["serial"] for r in found], ["34567890"])
        dev = SoapySDR.Device(args)
        dev.setSampleRate(SOAPY_SDR_RX, 0, RATE)
        dev.setFrequency(SOAPY_SDR_RX, 0, 1e9)
        # Calibrated floats over TCP: the native CS16 would arrive uncorrected.
        s = dev.setupStream(SOAPY_SDR_RX, SOAPY_SDR_CF32, [0],
                            {"remote:format": "CF32", "remote:prot": "tcp", "remote:mtu": "65536"})
        dev.activateStream(s)
        buf = np.zeros(65536, np.complex64)
        total, losses, gaps, first, expected, head = 0, 0, 0, None, None, []
        start = time.time()
        while time.time() - start < settle_s:
            dev.readStream(s, [buf], len(buf), timeoutUs=1000000)
        while time.time() - start < settle_s + seconds:
            r = dev.readStream(s, [buf], len(buf), timeoutUs=1000000)
            if r.ret == SOAPY_SDR_OVERFLOW:
                losses += 1
                continue
            self.assertGreater(r.ret, 0)
            self.assertTrue(r.flags & SOAPY_SDR_HAS_TIME)
            if first is None:
                first = r.timeNs
            elif abs(r.timeNs - expected) > 2:
                gaps += 1
            expected = r.timeNs + round(r.ret * 1e9 / RATE)
            if total < 32768:
                head.append(buf[:r.ret].astype(np.complex128))
            total += r.ret
        dev.deactivateStream(s)
        dev.closeStream(s)
        self.assertEqual(losses, 0)
        self.assertEqual(gaps, 0)
        # Samples delivered cover the time they span: nothing dropped unseen.
        self.assertAlmostEqual((expected - first) / 1e9, total / RATE, delta=1e-6)
        self.assertGreater(total / RATE, 0.8 * seconds)
        x = np.concatenate(head)
        dbm, peak = tone_dbm(x, offset, RATE)
        self.assertAlmostEqual(dbm, level, delta=0.5)
        self.assertAlmostEqual(peak, offset, delta=2 * RATE / len(x))

    def test_running_stream_loses_nothing(self):
        self.stream(settle_s=1.0)


if __name__ == "__main__":
    unittest.main()
