#!/usr/bin/env python3
"""Python package against the C API on the same scene: get_sweep() and the
I/Q iterator, as throughput ratios (Python / C) from one run. Not part of
./dev test.

    ./dev build && /usr/bin/python3 bench/python_vs_c.py [rounds]

Builds bench/python_reference.c against the build tree's liblx_api.so, then
alternates C and Python runs (each in a fresh process, the same simulated
analyzer and scene) and prints every round and the median ratios."""
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "release"
SCENE = json.dumps({"temperature_c": 45, "noise_floor_dbm_hz": -160,
                    "emitters": [{"kind": "tone", "frequency_hz": 1.01e9, "power_dbm": -30}]})
RUNS = {"sweep": 20, "iq": 400}  # sweeps of 100 MHz at 30 kHz RBW; blocks of 65536 samples at 61.44 MS/s

PY = """
import sys, time, lx_api
mode, count, scene = sys.argv[1], int(sys.argv[2]), sys.argv[3]
with lx_api.Simulator(10000098, scene), lx_api.open(10000098) as dev:
    if mode == "sweep":
        dev.configure_sweep(center=1e9, span=100e6, rbw=30e3, vbw=30e3, sweep_time=1e-6)
        dev.get_sweep()
        t0 = time.perf_counter()
        for _ in range(count):
            dev.get_sweep()
        t1 = time.perf_counter()
    else:
        stream = dev.iq_stream(block_size=65536, center=1e9, decimation=1)
        next(stream)
        t0 = time.perf_counter()
        for _, block in zip(range(count), stream):
            pass
        t1 = time.perf_counter()
print(f"{t1 - t0:.6f} {count}")
"""


def run(cmd, env):
    out = subprocess.run(cmd, env=env, check=True, capture_output=True, text=True).stdout.split()
    return int(out[1]) / float(out[0])  # items per second


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 3
    with tempfile.TemporaryDirectory() as tmp:
        exe = pathlib.Path(tmp) / "python_reference"
        subprocess.run(["cc", "-O2", "-std=gnu11", f"-I{ROOT / 'include'}", str(ROOT / "bench" / "python_reference.c"),
                        f"-L{BUILD}", "-llx_api", f"-Wl,-rpath,{BUILD}", "-o", str(exe)], check=True)
        env = dict(os.environ, XDG_CACHE_HOME=str(pathlib.Path(tmp) / "cache"),
                   PYTHONPATH=str(BUILD / "bindings" / "python"))
        for mode, count in RUNS.items():
            ratios = []
            for r in range(rounds):
                c = run([str(exe), mode, str(count), SCENE], env)
                p = run([sys.executable, "-c", PY, mode, str(count), SCENE], env)
                ratios.append(p / c)
                unit = "sweeps/s" if mode == "sweep" else "MS/s"
                scale = 1 if mode == "sweep" else 65536 / 1e6
                print(f"{mode:5s} round {r + 1}: C {c * scale:8.2f} {unit}, Python {p * scale:8.2f} {unit}, "
                      f"ratio {p / c:.3f}", flush=True)
            print(f"{mode:5s} median ratio Python / C: {statistics.median(ratios):.3f}", flush=True)


if __name__ == "__main__":
    main()
