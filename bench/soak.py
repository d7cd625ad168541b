"""Soak: a simulated LX530 paced at the real rate, streaming for as long as
asked. The modes take turns every minute (I/Q at D = 1 read 1 MiB at a
time, real time at RBW 10 kHz over 40 MHz), the analyzer is configured again
every 10 s, and a second thread polls the housekeeping every 100 ms, as a
UI would. Passes when no sample was dropped, no spectrum lost, the analyzer
reported no loss, and resident memory and thread count stayed flat.

Run through `./dev soak [minutes] [--iq]`; prints a summary (and --json)."""
import argparse
import json
import os
import threading
import time
import warnings

import numpy as np

import lx_api

CONFIGURE_S = 10.0
TURN_S = 60.0
POLL_S = 0.1
STALL_TICK_S = 0.002
STALL_REPORT_S = 0.03  # what the shortest buffer on the path (the analyzer's, 34 ms) still covers


def resident_kib():
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def threads():
    return len(os.listdir("/proc/self/task"))


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("minutes", type=float, nargs="?", default=60.0)
    ap.add_argument("--scene", required=True)
    ap.add_argument("--iq", action="store_true", help="I/Q at D = 1 only, no turns")
    ap.add_argument("--json", help="write the summary here")
    a = ap.parse_args()
    warnings.simplefilter("ignore", lx_api.LxWarning)  # counted from the stream health instead

    with open(a.scene) as f:
        scene = json.load(f)
    totals = dict(seconds=0.0, configures=0, iq_samples=0, frames=0, samples_dropped=0, spectra_lost=0,
                  data_loss_events=0, transport_errors=0, polls=0, poll_errors=0, stream_held_ms=0)
    memory, counts, incidents = [], [], []
    with lx_api.Simulator(10000777, scene) as sim, lx_api.open(sim.serial) as dev:
        stop = threading.Event()

        def poll():
            while not stop.wait(POLL_S):
                try:
                    dev.diagnostics()
                    dev.gps_info(refresh=False)
                    totals["polls"] += 1
                except lx_api.LxError:
                    totals["poll_errors"] += 1

        # The host's own stalls, seen as sleepers at the USB thread's nice
        # value that wake late, one pinned to each CPU: a virtual machine's
        # CPU can stop on its own while the others run on, and then only the
        # threads it held stop. With the stream's holds (stream_held_ms) they
        # tell a loss the host's processing caused from one the machine did.
        stalls, late = [], {}

        def watch(cpu):
            try:
                os.sched_setaffinity(0, {cpu})
                os.setpriority(os.PRIO_PROCESS, threading.get_native_id(), -10)
            except OSError:
                pass  # not allowed: the figures then include our own scheduling
            t = time.monotonic()
            while not stop.is_set():
                time.sleep(STALL_TICK_S)
                now = time.monotonic()
                over = now - t - STALL_TICK_S
                late[cpu] = max(late.get(cpu, 0.0), over)
                if over > STALL_REPORT_S:
                    stalls.append(dict(at_s=round(now - start, 1), cpu=cpu, ms=round(over * 1e3, 1)))
                t = now

        poller = threading.Thread(target=poll, name="housekeeping poll")
        watchers = [threading.Thread(target=watch, args=(c,), name=f"stall watch {c}")
                    for c in sorted(os.sched_getaffinity(0))]
        start = time.monotonic()
        poller.start()
        for w in watchers:
            w.start()
        buf = np.empty(131072, np.complex64)  # 1 MiB
        try:
            while time.monotonic() - start < a.minutes * 60:
                elapsed = time.monotonic() - start
                iq = a.iq or int(elapsed // TURN_S) % 2 == 0
                if iq:
                    dev.configure_iq(center=1e9, decimation=1)
                else:
                    dev.configure_realtime(center=1e9, span=40e6, rbw=10e3)
                totals["configures"] += 1
                configured = time.monotonic()
                until = min(configured + CONFIGURE_S, start + a.minutes * 60)
                late.clear()
                first_loss = first_drop = None
                looked = configured
                while time.monotonic() < until:
                    if iq:
                        dev.read_iq(len(buf), out=buf)
                        totals["iq_samples"] += len(buf)
                    else:
                        dev.get_realtime_frame()
                        totals["frames"] += 1
                    # Every 100 ms, not after every 2 ms read: the soak should not load the host it measures.
                    if (first_loss is None or first_drop is None) and time.monotonic() - looked >= POLL_S:
                        looked = time.monotonic()
                        h = dev.stream_health()
                        if first_loss is None and h.data_loss_events:
                            first_loss = round(looked - configured, 1)
                        if first_drop is None and (h.samples_dropped or h.spectra_lost):
                            first_drop = round(looked - configured, 1)
                # Memory at the same point of every configure's life: just
                # after one, buffers are still being touched for the first
                # time, which is churn, not growth.
                memory.append((time.monotonic() - start, iq, resident_kib()))
                counts.append((iq, threads()))
                h = dev.stream_health()  # counts since this configure
                bad = {}
                for k in ("samples_dropped", "spectra_lost", "data_loss_events", "transport_errors"):
                    totals[k] += getattr(h, k)
                    if getattr(h, k):
                        bad[k] = getattr(h, k)
                totals["stream_held_ms"] += h.stream_held_ms
                if bad:  # where in the run it happened says more than the total, and what went with it
                    incidents.append(dict(at_s=round(elapsed, 1), mode="iq" if iq else "realtime", **bad,
                                          first_loss_after_s=first_loss, first_drop_after_s=first_drop,
                                          stream_held_ms=h.stream_held_ms,
                                          longest_stall_ms={c: round(v * 1e3, 1) for c, v in sorted(late.items())}))
            dev.abort()
        finally:
            stop.set()
            poller.join()
            for w in watchers:
                w.join()
        totals["seconds"] = time.monotonic() - start

    # Flat: per mode (their rings differ), after each mode's first turn (rings,
    # plans and caches are in place by then).
    settle = min(2 * TURN_S, totals["seconds"] / 2)
    spreads, ranges = {}, {}
    for mode in (True, False):
        kib = [k for t, m, k in memory if m == mode and t > settle] or [k for _, m, k in memory if m == mode]
        if kib:
            name = "iq" if mode else "realtime"
            ranges[name] = [round(min(kib) / 1024, 1), round(max(kib) / 1024, 1)]
            spreads[name] = (max(kib) - min(kib)) / min(kib) * 100
    spread = max(spreads.values(), default=0.0)
    totals.update(resident_mib=ranges, resident_spread_pct=spread,
                  threads={m: sorted({n for i, n in counts if i == (m == "iq")}) for m in ("iq", "realtime")},
                  load_average=os.getloadavg()[0], incidents=incidents, host_stalls=stalls,
                  # The whole series: a range alone cannot tell growth from a swing.
                  resident_series=[dict(at_s=round(t, 1), mode="iq" if m else "realtime", mib=round(k / 1024, 1))
                                   for t, m, k in memory])
    ok = (totals["samples_dropped"] == 0 and totals["spectra_lost"] == 0 and totals["data_loss_events"] == 0
          and totals["transport_errors"] == 0 and totals["poll_errors"] == 0 and spread <= 1.0
          and all(len(v) <= 1 for v in totals["threads"].values()))
    totals["passed"] = ok
    print(f"{totals['seconds']:.0f} s, {totals['configures']} configures, {totals['iq_samples']:.3g} I/Q samples, "
          f"{totals['frames']} frames, {totals['polls']} housekeeping polls ({totals['poll_errors']} failed)")
    print(f"dropped samples {totals['samples_dropped']}, lost spectra {totals['spectra_lost']}, "
          f"device data-loss events {totals['data_loss_events']}, transport errors {totals['transport_errors']}")
    print(f"resident memory (MiB) {ranges} (widest spread {spread:.2f} %), threads while streaming "
          f"{totals['threads']}, load average {totals['load_average']:.1f}")
    print(f"stream held up by the host's processing {totals['stream_held_ms']} ms; host stalls over "
          f"{STALL_REPORT_S * 1e3:.0f} ms: {len(stalls)}, longest {max((x['ms'] for x in stalls), default=0)} ms")
    for i in incidents:
        print("  at " + ", ".join(f"{k} {v}" for k, v in i.items()))
    print("soak: " + ("passed" if ok else "FAILED"))
    if a.json:
        with open(a.json, "w") as f:
            json.dump(totals, f, indent=1)
    return 0 if ok else 1


if __name__ == "__main__":
    raise SystemExit(main())
