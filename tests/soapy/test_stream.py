"""The LX530 through SoapySDR's Python API, against the simulated scene."""
import calendar
import math
import os
import time
import unittest

import numpy as np
import SoapySDR
from SoapySDR import SOAPY_SDR_RX, SOAPY_SDR_CF32, SOAPY_SDR_CS16, SOAPY_SDR_OVERFLOW, SOAPY_SDR_HAS_TIME

from soapy_common import TRIGGER_FLAG, open_device, read, read_events, tone_dbm, tone_scene

CENTRE = 1.0e9
OFFSET = 200e3
LEVEL = -30.0


class Levels(unittest.TestCase):
    """A -30 dBm tone 200 kHz above the centre, read through SoapySDR."""

    @classmethod
    def setUpClass(cls):
        cls.dev = open_device(tone_scene(CENTRE + OFFSET, LEVEL), serial=10000011)

    @classmethod
    def tearDownClass(cls):
        cls.dev = None

    def measure(self, rate, fmt, gain, n=16384, retune=0.0):
        """The tone's level and frequency; with `retune`, after moving the centre by that much mid-stream."""
        d = self.dev
        d.setSampleRate(SOAPY_SDR_RX, 0, rate)
        d.setFrequency(SOAPY_SDR_RX, 0, CENTRE)
        d.setGain(SOAPY_SDR_RX, 0, gain)
        s = d.setupStream(SOAPY_SDR_RX, fmt)
        try:
            self.assertEqual(d.activateStream(s), 0)
            if retune:
                read(d, s, n, fmt)
                d.setFrequency(SOAPY_SDR_RX, 0, CENTRE + retune)
            x, t0, flags = read(d, s, n, fmt)
            corr = float(d.readSetting("iq_correction_db")) if fmt == SOAPY_SDR_CS16 else 0.0
            d.deactivateStream(s)
        finally:
            d.closeStream(s)
        self.assertTrue(all(f & SOAPY_SDR_HAS_TIME for f in flags))
        self.assertLess(abs(t0 - time.time_ns()), 2e9)  # no GPS receiver: the host clock
        dbm, peak = tone_dbm(x, OFFSET - retune, rate)
        return dbm + corr, dbm, peak

    def test_tone_level_and_frequency(self):
        raw = {}
        for rate, fmt, gain in [(61.44e6, SOAPY_SDR_CF32, 30), (7.68e6, SOAPY_SDR_CS16, 30),
                                (960e3, SOAPY_SDR_CF32, 0), (7.68e6, SOAPY_SDR_CS16, 0)]:
            with self.subTest(rate=rate, fmt=fmt, gain=gain):
                dbm, uncorrected, peak = self.measure(rate, fmt, gain)
                self.assertAlmostEqual(dbm, LEVEL, delta=0.5)
                self.assertAlmostEqual(peak, OFFSET, delta=2 * rate / 16384)
                self.assertEqual(self.dev.getGain(SOAPY_SDR_RX, 0, "ATT"), gain - 30)
                if fmt == SOAPY_SDR_CS16:
                    raw[gain] = uncorrected
        # Gain 0 puts the 30 dB attenuator in: the uncorrected samples drop by it.
        self.assertAlmostEqual(raw[30] - raw[0], 30.0, delta=2.0)

    def test_retune_while_streaming_moves_the_tone(self):
        dbm, _, peak = self.measure(7.68e6, SOAPY_SDR_CF32, 30, retune=1.2e6)  # the tone is now 1 MHz below
        self.assertAlmostEqual(dbm, LEVEL, delta=0.5)
        self.assertAlmostEqual(peak, OFFSET - 1.2e6, delta=2 * 7.68e6 / 16384)


class Stream(unittest.TestCase):
    def tearDown(self):
        self.dev = None

    def test_losses_are_reported_and_nothing_else_is_lost(self):
        """A reader asleep for longer than the library's half second of
        store gets an OVERFLOW, then the samples after the gap with their
        time, continuous with the next read; each loss is also an event."""
        rate = 7.68e6
        self.dev = d = open_device(tone_scene(CENTRE + OFFSET, LEVEL, pacing="realtime"), serial=10000012)
        d.setSampleRate(SOAPY_SDR_RX, 0, rate)
        s = d.setupStream(SOAPY_SDR_RX, SOAPY_SDR_CF32)
        d.activateStream(s)
        buf = np.zeros(8192, np.complex64)

        def cycle(sleep):
            """False when a loss of the loaded host's own got in the way."""
            _, t, _ = read(d, s, 8192, SOAPY_SDR_CF32)
            read_events(d, s)
            before = t + round(8192 * 1e9 / rate)
            time.sleep(sleep)
            r = d.readStream(s, [buf], len(buf))
            self.assertEqual(r.ret, SOAPY_SDR_OVERFLOW)
            after = d.readStream(s, [buf], len(buf))
            self.assertGreater(after.ret, 0)
            self.assertTrue(after.flags & SOAPY_SDR_HAS_TIME)
            self.assertEqual(after.timeNs, r.timeNs)
            # The library keeps the newest half second: the gap is the rest.
            self.assertGreater((after.timeNs - before) / 1e9, sleep - 0.6)
            events = read_events(d, s)
            self.assertIn((SOAPY_SDR_OVERFLOW, after.timeNs), [(e.ret, e.timeNs) for e in events])
            nxt = d.readStream(s, [buf], len(buf))
            if nxt.ret == SOAPY_SDR_OVERFLOW:
                return False
            self.assertEqual(nxt.timeNs, after.timeNs + round(after.ret * 1e9 / rate))
            return True

        for sleep in (1.0, 0.8):
            self.assertTrue(any(cycle(sleep) for _ in range(3)))
        d.deactivateStream(s)
        d.closeStream(s)

    def test_trigger_edges_land_on_the_burst_edges(self):
        """A burst train and a trigger pulse train given the same times and
        widths: rising trigger edges fall on the bursts' starts, falling
        ones on their ends. (An edge every 2.5 ms: the engine reports one per block of samples.)"""
        rate, period, width = 1.92e6, 2.5e-3, 1e-4
        scene = {"emitters": [{"kind": "burst", "frequency_hz": CENTRE + OFFSET, "power_dbm": -30,
                               "start_s": 0.01, "width_s": width, "period_s": period}],
                 "trigger": {"start_s": 0.01, "period_s": period, "width_s": width},
                 "noise_floor_dbm_hz": -160, "pacing": "realtime"}
        self.dev = d = open_device(scene, serial=10000013)
        d.setSampleRate(SOAPY_SDR_RX, 0, rate)
        d.setFrequency(SOAPY_SDR_RX, 0, CENTRE)
        for edge in ("rising", "falling"):
            with self.subTest(edge=edge):
                d.writeSetting("trigger_edge", edge)
                s = d.setupStream(SOAPY_SDR_RX, SOAPY_SDR_CF32)
                d.activateStream(s)
                for attempt in range(10):  # a loaded host may lose samples: the edges need a whole run
                    read(d, s, 20000, SOAPY_SDR_CF32)
                    read_events(d, s)
                    try:
                        x, t0, _ = read(d, s, 12 * int(rate * period), SOAPY_SDR_CF32, restart_on_loss=False)
                        break
                    except RuntimeError:  # start afresh: no samples held back from before the loss
                        d.deactivateStream(s)
                        d.activateStream(s)
                events = read_events(d, s)
                d.deactivateStream(s)
                d.closeStream(s)
                self.assertFalse(any(e.ret == SOAPY_SDR_OVERFLOW for e in events))
                on = (np.abs(x) ** 2 > 0.5 * np.max(np.abs(x) ** 2)).astype(int)
                edges = np.flatnonzero(np.diff(on) == (1 if edge == "rising" else -1)) + 1
                trig = [(e.timeNs - t0) * rate / 1e9 for e in events
                        if e.flags & TRIGGER_FLAG and t0 <= e.timeNs < t0 + len(x) * 1e9 / rate]
                self.assertGreaterEqual(len(trig), 11)
                self.assertEqual(len(trig), len(edges))
                for p in trig:
                    self.assertLess(np.min(np.abs(edges - p)), 2.0)

    def test_sensors_and_gps_time(self):
        """Temperature and supply as the scene has them; once the receiver
        has a fix, its position, and time stamps in GPS time."""
        gps = {"latitude": -33.8568, "longitude": 151.2153, "altitude_m": 58.3, "utc": "2031-05-06T07:08:09Z"}
        utc = calendar.timegm(time.strptime(gps["utc"], "%Y-%m-%dT%H:%M:%SZ"))
        self.dev = d = open_device(dict(tone_scene(CENTRE, -40), temperature_c=41.5, supply_v=13.5,
                                        supply_a=0.75, gps=gps), serial=10000014)
        self.assertAlmostEqual(float(d.readSensor("temperature")), 41.5, delta=0.1)
        self.assertAlmostEqual(float(d.readSensor("supply_voltage")), 13.5, delta=0.05)
        self.assertAlmostEqual(float(d.readSensor("supply_current")), 0.75, delta=0.01)
        deadline = time.time() + 10
        while d.readSensor("gps_locked") != "true" and time.time() < deadline:
            time.sleep(0.2)
        self.assertEqual(d.readSensor("gps_locked"), "true")
        lat, lon, alt = map(float, d.readSensor("gps_position").split(","))
        self.assertAlmostEqual(lat, gps["latitude"], delta=1e-5)
        self.assertAlmostEqual(lon, gps["longitude"], delta=1e-5)
        self.assertAlmostEqual(alt, gps["altitude_m"], delta=0.05)
        self.assertTrue(utc <= int(d.readSensor("gps_time")) <= utc + 15)
        self.assertEqual(d.getTimeSource(), "gps")
        self.assertTrue(utc * 1e9 <= d.getHardwareTime() <= (utc + 15) * 1e9)
        s = d.setupStream(SOAPY_SDR_RX, SOAPY_SDR_CF32)
        d.activateStream(s)
        _, t0, _ = read(d, s, 10000, SOAPY_SDR_CF32)
        self.assertTrue(utc * 1e9 <= t0 <= (utc + 60) * 1e9)
        self.assertTrue(t0 <= d.getHardwareTime() <= t0 + 1e9)
        d.deactivateStream(s)
        d.closeStream(s)

    def test_refused_input_changes_nothing(self):
        self.dev = d = open_device(tone_scene(CENTRE, -40), serial=10000016)
        rx = SOAPY_SDR_RX
        d.setSampleRate(rx, 0, 7.68e6)
        d.setFrequency(rx, 0, 2e9)
        d.setGain(rx, 0, 20)
        d.writeSetting("trigger_edge", "falling")
        cases = [
            (lambda: d.setSampleRate(rx, 0, 1e6), lambda: d.getSampleRate(rx, 0), 7.68e6),
            (lambda: d.setFrequency(rx, 0, 20e9), lambda: d.getFrequency(rx, 0), 2e9),
            (lambda: d.setFrequency(rx, 0, math.nan), lambda: d.getFrequency(rx, 0), 2e9),
            (lambda: d.setGain(rx, 0, "LNA", 10), lambda: d.getGain(rx, 0), 20),
            (lambda: d.setBandwidth(rx, 0, -1), lambda: d.getBandwidth(rx, 0), 50e6 / 8),
            (lambda: d.setAntenna(rx, 0, "TX"), lambda: d.getAntenna(rx, 0), "RF"),
            (lambda: d.writeSetting("trigger_edge", "up"), lambda: d.readSetting("trigger_edge"), "falling"),
            (lambda: d.writeSetting("iq_correction_db", "3"), lambda: d.readSetting("trigger_edge"), "falling"),
            (lambda: d.setupStream(rx, "CF64"), lambda: d.getSampleRate(rx, 0), 7.68e6),
        ]
        for i, (call, getter, value) in enumerate(cases):
            with self.subTest(case=i):
                self.assertRaises(Exception, call)
                self.assertEqual(getter(), value)
        s = d.setupStream(rx, SOAPY_SDR_CF32)
        self.assertRaises(Exception, d.setupStream, rx, SOAPY_SDR_CF32)  # one stream at a time
        self.assertEqual(d.activateStream(s, SOAPY_SDR_HAS_TIME, 10**18), SoapySDR.SOAPY_SDR_NOT_SUPPORTED)
        self.assertRaises(Exception, d.readSetting, "iq_correction_db")  # known while streaming only
        d.closeStream(s)

    def test_start_and_stop_leave_nothing_behind(self):
        """Threads and descriptors return to where they were after every
        deactivate; memory stays flat over many cycles."""
        self.dev = d = open_device(tone_scene(CENTRE, -40), serial=10000017)

        def usage():
            rss = int(open("/proc/self/statm").read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
            return len(os.listdir("/proc/self/task")), len(os.listdir("/proc/self/fd")), rss

        base = usage()
        for cycle in range(16):
            s = d.setupStream(SOAPY_SDR_RX, SOAPY_SDR_CF32 if cycle % 2 else SOAPY_SDR_CS16)
            d.activateStream(s)
            read(d, s, 50000, SOAPY_SDR_CF32 if cycle % 2 else SOAPY_SDR_CS16)
            d.deactivateStream(s)
            d.closeStream(s)
            threads, fds, rss = usage()
            self.assertEqual((threads, fds), base[:2])
            if cycle == 3:
                settled = rss
        self.assertLess(rss - settled, 16 << 20)


if __name__ == "__main__":
    unittest.main()
