#!/usr/bin/env python3
"""Launch and idle figures of the desktop program on a private Xvfb + openbox desktop.

    bench/launch_idle.py --tarry PATH --client PATH [--launches 20] [--idle 60] [--short]

Launch: time from exec to the keyboard guard in place (its grabs taken; the program logs
"keyboard guard on" right after), over --launches login launches; median and extremes.
Idle: one copy started as at login, measured from 12 s after its guard is in place (past the
start-up work and the first update check) for --idle seconds each, in two cases: with a tray (trayer,
an XEmbed tray) and no window open, and without any tray, where Settings opens in its place. For
each: CPU time, wake-ups per second (context switches of all its threads, and of the busiest
threads by name), resident and proportional memory (RSS, Pss) at the end.
--short: 2 launches and 2 s of idle each, to see that the benchmark runs (figures not judged).
"""

import argparse
import os
import signal
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
from harness import Harness, wait_for  # noqa: E402
from latency_figures import cpu_seconds, thread_switches  # noqa: E402


def guard_lines(h):
    return h.events_log().count("keyboard guard on")


def memory_mb(pid):
    """(RSS, Pss) in MB."""
    values = {}
    with open("/proc/%d/smaps_rollup" % pid) as f:
        for line in f:
            parts = line.split()
            if parts and parts[0] in ("Rss:", "Pss:"):
                values[parts[0]] = int(parts[1]) / 1024
    return values.get("Rss:", 0.0), values.get("Pss:", 0.0)


def start_trayer(h):
    h.spawn(["trayer", "--edge", "top", "--align", "right", "--widthtype", "pixel", "--width", "120",
             "--heighttype", "pixel", "--height", "28"], "trayer")
    wait_for("trayer", lambda: h.search("--class", "trayer"), timeout=10)


def idle(h, seconds, case, target):
    h.defaults("write", "showMenuBar", "true")
    before = guard_lines(h)
    proc = h.spawn([h.tarry, "--autostart"], "tarry")
    wait_for("the guard", lambda: guard_lines(h) > before and proc.poll() is None, timeout=20)
    # Past the start-up work, the first automatic update check (firstCheckDelaySec, 10 s) included.
    time.sleep(2 if seconds < 10 else 12)
    cpu0, cs0 = cpu_seconds(proc.pid), thread_switches(proc.pid)
    time.sleep(seconds)
    cpu1, cs1 = cpu_seconds(proc.pid), thread_switches(proc.pid)
    rss, pss = memory_mb(proc.pid)
    total = sum(cs1.values()) - sum(cs0.get(k, 0) for k in cs1)
    print("idle %.0f s, %s: CPU %.2f s (%.3f %%), wake-ups %.2f/s (target <= %g), RSS %.1f MB, Pss %.1f MB "
          "(target < 40 MB)" % (seconds, case, cpu1 - cpu0, (cpu1 - cpu0) / seconds * 100, total / seconds,
                                target, rss, pss))
    busiest = sorted(((cs1[k] - cs0.get(k, 0), k[1]) for k in cs1), reverse=True)[:4]
    print("    busiest threads: " + ", ".join("%s %.2f/s" % (name, n / seconds) for n, name in busiest if n))
    proc.send_signal(signal.SIGTERM)
    proc.wait(timeout=10)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tarry", required=True)
    parser.add_argument("--client", required=True)
    parser.add_argument("--launches", type=int, default=20)
    parser.add_argument("--idle", type=float, default=60)
    parser.add_argument("--short", action="store_true")
    args = parser.parse_args()
    if args.short:
        args.launches, args.idle = 2, 2

    h = Harness(os.path.abspath(args.tarry), os.path.abspath(args.client))
    try:
        # A first launch registers the login item and creates the store; not measured.
        h.tarry_proc = h.spawn([h.tarry, "--autostart"], "tarry")
        wait_for("the first guard", lambda: guard_lines(h) == 1, timeout=20)
        h.tarry_proc.send_signal(signal.SIGTERM)
        h.tarry_proc.wait(timeout=10)

        times = []
        for i in range(args.launches):
            before = guard_lines(h)
            start = time.perf_counter()
            proc = h.spawn([h.tarry, "--autostart"], "tarry")
            wait_for("the guard", lambda: guard_lines(h) > before, timeout=20, interval=0.001)
            times.append((time.perf_counter() - start) * 1000)
            proc.send_signal(signal.SIGTERM)
            proc.wait(timeout=10)
        times.sort()
        print("launch to guard active (%d launches): median %.0f ms, min %.0f ms, max %.0f ms (target < 300 ms)"
              % (len(times), statistics.median(times), times[0], times[-1]))

        # No tray: Settings opens so the program is never invisible.
        idle(h, args.idle, "no tray (Settings open)", 3)
        start_trayer(h)
        idle(h, args.idle, "tray, no window open", 1)
    finally:
        h.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
