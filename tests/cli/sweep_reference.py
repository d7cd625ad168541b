#!/usr/bin/env python3
"""Independent answers for tests/cli/sweep_test.cpp, printed as JSON.

  sweep_reference.py peaks        synthetic traces and SciPy's peak search on them
  sweep_reference.py png FILE COLOURS BACKGROUND
                                  size of a PNG and where it shows each colour (Pillow)
"""
import json
import sys

import numpy as np
from scipy.signal import find_peaks

N = 20000
EXCURSION_DB = 6.0


def floor_of(x_db):
    # The median and 90th percentile as points n/2 and 0.9 (n - 1) of the
    # sorted trace; the floor the larger of 10 dB and 4 spreads above the median.
    s = np.sort(x_db)
    median = s[len(s) // 2]
    p90 = s[(len(s) - 1) * 9 // 10]
    return median + max(10.0, 4.0 * (p90 - median))


def lobe(centre, level_dbm, width):
    # A window's main lobe in power, Gaussian in shape.
    i = np.arange(N)
    return 10 ** (level_dbm / 10) * np.exp(-0.5 * ((i - centre) / width) ** 2)


def make_trace(rng, averages, tones):
    noise = rng.exponential(1.0, (averages, N)).mean(axis=0) * 10 ** (-110 / 10)
    power = noise + sum(lobe(c, p, w) for c, p, w in tones)
    return (10 * np.log10(power)).astype(np.float32)


def peaks_case(name, x, linear=False):
    """x: the trace in dBm as float32; linear: hand it over in mV instead."""
    if linear:
        values = (10 ** ((x.astype(np.float64) + 46.9897) / 20)).astype(np.float32)
        x_db = 20 * np.log10(values.astype(np.float64)) - 46.9897
    else:
        values = x
        x_db = x.astype(np.float64)
    floor = floor_of(x_db)
    found, _ = find_peaks(x_db, height=floor, prominence=EXCURSION_DB)
    ranked = sorted(found.tolist(), key=lambda i: -x_db[i])
    return {"name": name, "linear": linear, "values": values.astype(np.float64).tolist(),
            "floor": float(floor), "peaks": ranked}


def peaks():
    rng = np.random.default_rng(20261121)
    tones = [
        (1500, -30, 2.5),
        (1507, -52, 2.5),   # on the skirt of the one above: a shoulder, no peak of its own
        (1530, -60, 2.5),   # clear of it by more than the excursion
        (7000, -95, 2.5),   # 15 dB above the noise
        (12000, -100.5, 2.5),  # just under the floor of averaged noise
        (0, -40, 2.5),      # its top is the first point: no peak
        (19999, -45, 2.5),  # and the last
        (16000, -70, 40.0),  # broad
    ]
    averaged = make_trace(rng, 10, tones)
    raw = make_trace(rng, 1, tones)
    cases = [
        peaks_case("averaged noise", averaged),
        peaks_case("unaveraged noise", raw),
        # Tops cut flat, as an overloaded input shows them: one peak per plateau.
        peaks_case("plateaus", np.minimum(averaged, np.float32(-64.0))),
        peaks_case("linear scale", averaged, linear=True),
        peaks_case("noise only", make_trace(rng, 1, [])),
    ]
    return {"cases": cases}


def png(path, colours, background):
    """Pixels drawn in each colour over the background, anti-aliased edges
    included: a pixel counts when it is the background blended at least 35 %
    towards the colour and lies close to that blend (grid lines under a
    trace shift it a little)."""
    from PIL import Image

    img = Image.open(path)
    img.load()
    rgb = np.asarray(img.convert("RGB")).astype(np.float64)
    b = np.array(background, dtype=np.float64)
    found = []
    for c in colours:
        d = np.array(c, dtype=np.float64) - b
        p = rgb - b
        alpha = (p @ d) / (d @ d)
        residual = np.abs(p - alpha[..., None] * d).max(axis=2)
        drawn = (alpha >= 0.35) & (residual <= 25)
        found.append({"pixels": int(drawn.sum()), "columns": int(drawn.any(axis=0).sum())})
    return {"format": img.format, "width": img.width, "height": img.height, "colours": found}


if __name__ == "__main__":
    if sys.argv[1] == "peaks":
        print(json.dumps(peaks()))
    elif sys.argv[1] == "png":
        print(json.dumps(png(sys.argv[2], json.loads(sys.argv[3]), json.loads(sys.argv[4]))))
    else:
        sys.exit("unknown data set " + sys.argv[1])
