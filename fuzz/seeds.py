#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (run from fuzz/ to refresh them)."""
import os, struct

def put(target, name, data):
    os.makedirs(f"corpus/{target}", exist_ok=True)
    with open(f"corpus/{target}/{name}", "wb") as f:
        f.write(data.encode() if isinstance(data, str) else data)

rmc = "$GPRMC,120000.00,A,4807.038,N,01131.000,E,0.0,0.0,211126,,,A*6A\r\n"
gga = "$GPGGA,120000.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n"
put("nmea", "fix", rmc + gga)
put("nmea", "no_fix", rmc.replace(",A,", ",V,", 1) + gga)
put("nmea", "rmc_only_south_west", rmc.replace("N", "S").replace("E,0.0", "W,0.0"))
put("nmea", "empty_fields", "$GPRMC,,,,,,,,,,,,\r\n$GPGGA,,,,,,,,,,,,,\r\n")

def packet(gps_status, pulse, block, status, text):
    return struct.pack("<IQQIB", gps_status, pulse, block, status, len(text)) + text.encode()
seq = lambda s, w, r: (w << 9) | (s << 18) | (r << 20)
msg = rmc + gga
put("status_packet", "two_messages",
    packet(seq(1, len(msg) // 4, 0), 122880000, 122000000, 1 << 10, msg) +
    packet(seq(2, len(msg) // 4, 0), 245760000, 245000000, 1 << 10, msg))
put("status_packet", "loss", packet(seq(1, 40, 0), 1, 2, 0x300, msg) + packet(seq(1, 40, 0), 1, 400000000, 0, ""))

def patch(flags, *patches):
    return bytes([flags]) + b"".join(struct.pack("<IB", off, len(b)) + b for off, b in patches)
nan = struct.pack("<f", float("nan"))
put("cal_record", "factory", patch(0x01))
put("cal_record", "unprogrammed_temps", patch(0x21, (688, b"\xff" * 28)))
put("cal_record", "descending_temps", patch(0x41, (688, struct.pack("<7f", 60, 45, 30, 15, 0, -15, -30))))
put("cal_record", "nan_amplitude", patch(0x81, (1208, nan * 8), (632328, nan * 4)))
put("cal_record", "bad_checksum", patch(0x00, (28, b"\0\0\0\0")))

def image(sections, entry, placeholder=True, marker=True, good=True):
    body, total = b"CY\0\0", 0
    for addr, data in sections:
        data += b"\0" * (-len(data) % 4)
        body += struct.pack("<II", len(data) // 4, addr) + data
        total += sum(struct.unpack(f"<{len(data) // 4}I", data))
    body += struct.pack("<II", 0, entry)
    return body + struct.pack("<I", (total if good else total + 1) & 0xFFFFFFFF)
serial = "".join(c + "\0" for c in "11111111").encode()
put("boot_image", "run", image([(0x100, b"code" * 8 + serial), (0x8000, b"FW Ver 1.2.5\0")], 0x100))
put("boot_image", "bad_checksum", image([(0x100, serial)], 0x100, good=False))
put("boot_image", "no_placeholder", image([(0x100, b"code" * 16)], 0x100))

for name in os.listdir("../scenes"):
    put("scene", name, open(f"../scenes/{name}").read())
put("scene", "every_kind", """{"noise_floor_dbm_hz": -150, "emitters": [
 {"kind": "tone", "frequency_hz": 1e9, "power_dbm": -30, "on_s": 0.001, "off_s": 0.002},
 {"kind": "burst", "frequency_hz": 2e9, "power_dbm": -20, "start_s": 0.01, "width_s": 1e-5, "period_s": 0.001, "count": 10},
 {"kind": "am", "frequency_hz": 3e8, "power_dbm": -40, "depth": 0.5, "audio_hz": 1000},
 {"kind": "fm", "frequency_hz": 1e8, "power_dbm": -40, "deviation_hz": 5000, "preemphasis_s": 5e-5},
 {"kind": "ssb", "frequency_hz": 1.4e7, "power_dbm": -40, "sideband": "upper", "audio_hz": 1000}],
 "gps": {"fix": true, "latitude": 48.1, "longitude": 11.5},
 "trigger": {"start_s": 0.001, "period_s": 0.01, "count": 5}}""")

# lx530 command lines, arguments separated by NUL bytes; and a dictionary of
# the tool's option names and words.
for name, args in {
    "sweep": ["sweep", "--scene", "scenes/demo.json", "--start", "100M", "--stop", "3G", "--rbw", "100k", "--png", "a.png"],
    "rt": ["--json", "rt", "--center", "2.44G", "--span", "40M", "--rbw", "30k", "--frames", "60", "--waterfall", "w.png"],
    "iq": ["iq", "--center", "1G", "--rate", "7.68M", "--format", "ci16", "--trigger", "rising", "--duration", "2s",
           "--output", "x"],
    "list": ["--sim", "list", "100M", "2.4G", "--samples", "16384", "--passes", "3", "--sigmf", "l", "--per-step"],
    "audio": ["audio", "--center", "97.1M", "--type", "fm", "--if-bandwidth", "200k", "--deemphasis", "50",
              "--output", "a.wav"],
    "flash": ["--sim=scene.json", "--sim-serial", "12345678", "flash", "backup", "bk", "--serial", "12345678"],
    "help": ["sweep", "--help"],
    "bad": ["--sim-serial", "5", "info", "--serial", "x"],
}.items():
    put("cli", name, b"\0".join(a.encode() for a in args))
import glob, re
words = {m.group(1) for f in glob.glob("../tools/*.cpp") for m in re.finditer(r'"(--[a-z0-9-]+)"', open(f).read())}
words |= set("list info sweep rt iq audio flash backup verify write-run write-boot write-fpga write-cal bootstrap auto "
             "on off cf32 ci16 rising falling am fm usb lsb cw k M G s ms us x -".split())
with open("cli.dict", "w") as f:
    f.writelines(f'"{w}"\n' for w in sorted(words))
