# Devices, housekeeping and GPS through the package, and the installed package.
import json
import os
import pathlib
import subprocess
import sys
import tempfile

import pytest

import lx_api


def test_list_open_first_and_housekeeping(analyzer):
    sim, dev = analyzer({"supply_v": 11.5, "supply_a": 0.75, "temperature_c": 40, "firmware": [2, 3, 4]})
    dev.close()
    assert sim.serial in lx_api.list_devices()
    assert lx_api.device_personality(sim.serial) == 1
    with lx_api.open() as first:  # the only analyzer attached
        assert first.serial_number == sim.serial
    with lx_api.open(sim.serial) as d:
        assert d.serial_number == sim.serial and sim.serial not in lx_api.list_devices()
        v, a, t = d.diagnostics()
        assert (v, a, t) == (pytest.approx(11.5, abs=0.01), pytest.approx(0.75, abs=0.01), pytest.approx(40, abs=0.5))
        assert d.firmware_version == (2, 3, 4)


# (No fix, and a fix lost: tests/e2e/gps_test.cpp.)
def test_gps_position_and_time(analyzer):
    gps = {"fix": True, "latitude": -33.8568, "longitude": 151.2153, "altitude_m": 58.5}
    utc = 1795262400  # 2026-11-21T12:00:00Z
    sim, dev = analyzer({"gps": dict(gps, utc="2026-11-21T12:00:00Z")})
    lx_api.Simulator.advance_time(1000)
    info = dev.gps_info()
    assert info.state == lx_api.GPSState.FIX and info.updated and "$GPRMC" in info.nmea
    # ddmm.mmmm carries 1e-4 minutes: 1.7e-6 degrees.
    assert info.latitude == pytest.approx(gps["latitude"], abs=2e-6)
    assert info.longitude == pytest.approx(gps["longitude"], abs=2e-6)
    assert info.altitude == pytest.approx(gps["altitude_m"], abs=0.05)
    assert utc < info.time < utc + 120


def test_installed_package_imports_from_the_system_path():
    build = os.environ.get("LX_BUILD_DIR")
    if not build:
        pytest.skip("LX_BUILD_DIR (the CMake build tree) not given")
    with tempfile.TemporaryDirectory() as stage:
        env = dict(os.environ, DESTDIR=stage)
        subprocess.run(["cmake", "--install", build, "--prefix", "/usr/local"], env=env, check=True,
                       stdout=subprocess.DEVNULL)
        site = next(pathlib.Path(stage).rglob("lx_api/__init__.py")).parent.parent
        assert site.relative_to(stage).as_posix().startswith("usr/local/lib/python3")
        # Nothing of the build tree on the path: the extension finds the
        # installed library through its relative run path.
        env = {"PATH": os.environ["PATH"], "PYTHONPATH": str(site), "XDG_CACHE_HOME": stage}
        code = ("import lx_api, sys; print(lx_api.__file__); print(lx_api.api_version()); "
                "print(lx_api.error_string(-5))")
        out = subprocess.run([sys.executable, "-c", code], env=env, cwd=stage, check=True,
                             capture_output=True, text=True).stdout.split("\n")
        assert out[0].startswith(str(site)) and out[1:3] == ["1.0.0", "Connection lost"]
        assert (site / "lx_api" / "py.typed").exists() and (site / "lx_api" / "_native.pyi").exists()


def test_example_finds_the_demo_scene_tones(tmp_path):
    root = pathlib.Path(__file__).resolve().parents[2]
    png = tmp_path / "sweep.png"
    out = subprocess.run([sys.executable, str(root / "examples" / "sweep_plot.py"), str(root / "scenes" / "demo.json"),
                          str(png)], cwd=tmp_path, env=dict(os.environ, XDG_CACHE_HOME=str(tmp_path)),
                         check=True, capture_output=True, text=True).stdout
    rows = [line.split() for line in out.splitlines() if line.strip().endswith("dBm")]
    found = sorted((float(r[0]), float(r[2])) for r in rows)
    tones = sorted((e["frequency_hz"] / 1e6, e["power_dbm"])
                   for e in json.loads((root / "scenes" / "demo.json").read_text())["emitters"])
    assert len(found) == len(tones)
    for (f, p), (tf, tp) in zip(found, tones):
        assert f == pytest.approx(tf, abs=0.03) and p == pytest.approx(tp, abs=0.5)
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
