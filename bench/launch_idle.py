#!/usr/bin/env python3
"""Launch and idle figures of the desktop program on a private Xvfb + openbox desktop.

    bench/launch_idle.py --tarry PATH --client PATH [--launches 20] [--idle 60]

Launch: time from exec to the keyboard guard in place (its grabs taken; the program logs
"keyboard guard on" right after), over --launches login launches; median and extremes.
Idle: one running copy with no window open, for --idle seconds: CPU time, wake-ups per second
(context switches of all its threads) and resident memory at the end.
"""

import argparse
import os
import signal
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
from harness import Harness, wait_for  # noqa: E402


def guard_lines(h):
    return h.events_log().count("keyboard guard on")


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def context_switches(pid):
    total = 0
    for task in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/status" % (pid, task)) as f:
                for line in f:
                    if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                        total += int(line.split()[1])
        except FileNotFoundError:
            pass  # a thread that ended meanwhile
    return total


def rss_mb(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024
    return 0.0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tarry", required=True)
    parser.add_argument("--client", required=True)
    parser.add_argument("--launches", type=int, default=20)
    parser.add_argument("--idle", type=float, default=60)
    args = parser.parse_args()

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

        proc = h.spawn([h.tarry, "--autostart"], "tarry")
        wait_for("the guard", lambda: guard_lines(h) > 0 and proc.poll() is None, timeout=20)
        time.sleep(3)  # past the start-up work
        cpu0, cs0 = cpu_seconds(proc.pid), context_switches(proc.pid)
        time.sleep(args.idle)
        cpu1, cs1 = cpu_seconds(proc.pid), context_switches(proc.pid)
        rss = rss_mb(proc.pid)
        print("idle %.0f s, no window open: CPU %.2f s (%.3f %%), wake-ups %.2f/s (target <= 1), RSS %.1f MB "
              "(target < 40 MB)" % (args.idle, cpu1 - cpu0, (cpu1 - cpu0) / args.idle * 100,
                                    (cs1 - cs0) / args.idle, rss))
    finally:
        h.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
