"""SoapySDRUtil --find and --probe on simulated analyzers, as a user runs them."""
import re
import subprocess
import unittest

from soapy_common import scene_file, soapy_util, tone_scene


def util(*args, timeout=60):
    return subprocess.run([soapy_util(), *args], capture_output=True, text=True, timeout=timeout)


class SoapyUtil(unittest.TestCase):
    def test_find(self):
        scene = scene_file(tone_scene(1e9, -40))
        out = util("--find=driver=lx530,scene=%s,serial=23456789" % scene).stdout
        self.assertRegex(out, r"driver = lx530")
        self.assertRegex(out, r"label = LX530 23456789 \(simulated\)")
        self.assertRegex(out, r"scene = " + re.escape(scene))
        # Nothing on the bus; a scene that cannot be read, or a bad serial, finds nothing.
        for args in ("driver=lx530", "driver=lx530,scene=/nonexistent.json",
                     "driver=lx530,scene=%s,serial=123" % scene):
            with self.subTest(args=args):
                r = util("--find=" + args)
                self.assertIn("No devices found", r.stdout + r.stderr)

    def test_probe(self):
        """The analyzer's channel, formats, ranges and rates 61.44 MS/s / 2^k
        (the sensors against the scene: test_stream.py)."""
        scene = scene_file(tone_scene(1e9, -40))
        r = util("--probe=driver=lx530,scene=" + scene)
        self.assertEqual(r.returncode, 0, r.stderr)
        out = r.stdout
        for line in (r"Channels: 1 Rx, 0 Tx", r"Timestamps: YES", r"Stream formats: CF32, CS16",
                     r"Native format: CS16 \[full-scale=32768\]", r"Antennas: RF",
                     r"Full gain range: \[0, 30, 5\] dB", r"ATT gain range: \[-30, 0, 5\] dB",
                     r"Full freq range: \[0\.009, 15000\] MHz", r"Sample rates: .*61\.44 MSps",
                     r"key=trigger_edge, default=rising, type=string, options=\(rising, falling\)"):
            with self.subTest(line=line):
                self.assertRegex(out, line)
        # A scene the simulator refuses: the reason, and a failed probe.
        bad = scene_file({"emitters": [{"kind": "tone", "frequency_hz": 1e9}]})
        r = util("--probe=driver=lx530,scene=" + bad)
        self.assertNotEqual(r.returncode, 0)
        self.assertIn("power_dbm", r.stdout + r.stderr)


if __name__ == "__main__":
    unittest.main()
