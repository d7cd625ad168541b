#!/usr/bin/env python3
"""Sweep and plot from Python, notebook style: each ``# %%`` cell runs on its
own in Jupyter, VS Code or Spyder, and the whole file runs as a script:

    PYTHONPATH=build/release/bindings/python python3 examples/sweep_plot.py [scene.json] [out.png]

It plugs in a simulated LX530 seeing scenes/demo.json (or the scene given),
sweeps 100 MHz .. 3 GHz ten times holding the min and max of every point,
prints the strongest peaks and writes sweep_plot.png. For an analyzer on the
bus, use ``lx_api.open()`` without the Simulator.
"""
# %% Set-up
import pathlib
import sys

import matplotlib

matplotlib.use("Agg")  # files only; drop this line in a notebook
import matplotlib.pyplot as plt
import numpy as np

import lx_api

here = pathlib.Path(__file__).resolve().parent
scene = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else here.parent / "scenes" / "demo.json"
out = pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else pathlib.Path("sweep_plot.png")

sim = lx_api.Simulator(10000077, scene)
dev = lx_api.open(sim.serial)
print(f"lx_api {lx_api.api_version()}, analyzer {dev.serial_number}, firmware {dev.firmware_version}")

# %% Sweep: ten sweeps, each point's lowest and highest value kept
params = dev.configure_sweep(start=100e6, stop=3e9, rbw=100e3, vbw=10e3,
                             detector=lx_api.Detector.MIN_MAX, window=lx_api.Window.FLAT_TOP)
print(f"RBW {params.rbw / 1e3:.1f} kHz, {params.points} points of {params.bin_size / 1e3:.2f} kHz")
sweeps = list(dev.sweeps(10))
freq = sweeps[0].frequencies
lo = np.min([s.min for s in sweeps], axis=0)
hi = np.max([s.max for s in sweeps], axis=0)

# %% Peaks: local maxima 20 dB above the median, strongest first
floor = np.median(hi)
is_peak = (hi[1:-1] > hi[:-2]) & (hi[1:-1] >= hi[2:]) & (hi[1:-1] > floor + 20)
peaks = 1 + np.nonzero(is_peak)[0]
peaks = peaks[np.argsort(hi[peaks])[::-1]][:5]
for i in peaks:
    print(f"  {freq[i] / 1e6:10.3f} MHz  {hi[i]:7.2f} dBm")

# %% Plot
fig, ax = plt.subplots(figsize=(11, 5), dpi=100)
ax.fill_between(freq / 1e6, lo, hi, color="tab:blue", alpha=0.35, lw=0, label="min .. max")
ax.plot(freq / 1e6, hi, color="tab:blue", lw=0.6, label="max")
for n, i in enumerate(peaks, 1):
    ax.annotate(f"{n}: {freq[i] / 1e6:.2f} MHz\n{hi[i]:.1f} dBm", (freq[i] / 1e6, hi[i]),
                xytext=(0, 8), textcoords="offset points", ha="center", fontsize=8)
ax.set(xlabel="frequency (MHz)", ylabel="level (dBm)", xlim=(freq[0] / 1e6, freq[-1] / 1e6),
       ylim=(floor - 15, max(hi.max() + 12, floor + 30)),
       title=f"LX530 {dev.serial_number}: RBW {params.rbw / 1e3:.0f} kHz, VBW 10 kHz, {len(sweeps)} sweeps")
ax.grid(alpha=0.3)
ax.legend(loc="upper right")
fig.tight_layout()
fig.savefig(out)
print(f"wrote {out}")

# %% Done
dev.close()
sim.detach()
