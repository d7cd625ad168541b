"""Checks a SigMF recording written by `lx530 iq`: the meta file validates
against the SigMF schema, and the data hold the scene's tone at its power.

usage: iq_check.py SCHEMA BASE OFFSET_HZ CORRECTION_DB
Prints one JSON object: {"tone_dbm": ..., "samples": ...}; exits 1 with the
validation error when the meta file is not valid SigMF."""
import json
import sys

import jsonschema
import numpy as np

schema_path, base, offset, correction = sys.argv[1], sys.argv[2], float(sys.argv[3]), float(sys.argv[4])
meta = json.load(open(base + ".sigmf-meta"))
try:
    jsonschema.Draft202012Validator(json.load(open(schema_path))).validate(meta)
except jsonschema.ValidationError as e:
    print(e.message)
    sys.exit(1)
g = meta["global"]
if g["core:datatype"] == "cf32_le":
    x = np.fromfile(base + ".sigmf-data", dtype="<c8").astype(np.complex128)
else:
    raw = np.fromfile(base + ".sigmf-data", dtype="<i2").astype(np.float64)
    x = (raw[0::2] + 1j * raw[1::2]) / 32768.0 * 10 ** (correction / 20)
x = x[len(x) // 4:]  # past the filters' start
k = np.arange(len(x))
a = np.mean(x * np.exp(-2j * np.pi * offset * k / g["core:sample_rate"]))
print(json.dumps({"tone_dbm": 10 * np.log10(abs(a) ** 2), "samples": len(x) * 4 // 3}))
