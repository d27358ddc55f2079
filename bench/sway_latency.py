#!/usr/bin/env python3
"""Figures for tarry on a headless sway (run as an unprivileged user, like the sway e2e tests).

    bench/sway_latency.py --build build/release [--presses 200] [--tarry T --client C --typist Y]

1. The delay tarry adds to a Ctrl+Q it lets through: tarry-sway-typist presses Ctrl+Q through its
   own virtual keyboard and notes when; the Wayland test client logs when each press arrived (both
   CLOCK_MONOTONIC). Once without tarry, once with tarry and the rule "instant", so every press goes
   through the compositor's binding, the IPC, tarry's main loop and its virtual keyboard.
2. From the key press to the HUD: short Ctrl+Q presses with the default rule; tarry reports when
   each showing of the panel reached the compositor (TARRY_DEBUG_HUD_TIMES).

Prints median and 99th percentile of each.
"""

import argparse
import os
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "wayland"))
from sway_harness import CLIENT_ID, Skip, SwayDesktop, wait_for  # noqa: E402

QT_KEY_Q = 0x51


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(p / 100 * (len(ordered) - 1))))]


def describe(name, values_ms):
    return "%-42s n=%-4d median %7.2f ms   p99 %7.2f ms" % (
        name, len(values_ms), statistics.median(values_ms), percentile(values_ms, 99))


def typed(desktop, typist, presses, hold_ms, gap_ms):
    out = desktop.run([typist, str(presses), str(hold_ms), str(gap_ms)], timeout=presses * 2 + 30).stdout
    return [int(line.split()[1]) / 1e6 for line in out.decode().splitlines() if line.startswith("press ")]


def matched(sent, arrived):
    """For each press sent, the delay to the first arrival after it and before the next press."""
    delays = []
    for i, t0 in enumerate(sent):
        t_next = sent[i + 1] if i + 1 < len(sent) else float("inf")
        hits = [t for t in arrived if t0 <= t < t_next]
        if hits:
            delays.append((hits[0] - t0) * 1000)
    return delays


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--presses", type=int, default=200)
    parser.add_argument("--tarry", help="the program (default: found under --build)")
    parser.add_argument("--client", help="tarry-wayland-client (default: found under --build)")
    parser.add_argument("--typist", help="tarry-sway-typist (default: found under --build)")
    args = parser.parse_args()
    tarry = args.tarry or os.path.join(args.build, "main", "cli", "tarry")
    client = args.client or os.path.join(args.build, "tests", "wayland", "tarry-wayland-client")
    typist_built = args.typist or os.path.join(args.build, "tests", "wayland", "tarry-sway-typist")
    try:
        d = SwayDesktop(tarry, client, typist_built)
    except Skip as skip:
        print("cannot measure: " + str(skip))
        return 77
    try:
        typist = d.typist
        app = d.start_client("app", "--no-quit")

        def presses_since(t):
            return [at for at, key, ctrl in app.presses(QT_KEY_Q) if ctrl and at >= t]

        t = time.monotonic()
        sent = typed(d, typist, args.presses, 30, 40)
        wait_for("the last press", lambda: len(presses_since(t)) >= len(sent) * 0.9, timeout=5)
        direct = matched(sent, presses_since(t))

        d.defaults("write", "appModes", '{"%s": "instant"}' % CLIENT_ID)
        d.start_tarry()
        time.sleep(0.5)
        t = time.monotonic()
        sent = typed(d, typist, args.presses, 30, 40)
        wait_for("the last press", lambda: len(presses_since(t)) >= len(sent) * 0.9, timeout=5)
        through = matched(sent, presses_since(t))
        d.tarry_proc.terminate()
        d.tarry_proc.wait(timeout=10)

        d.defaults("delete", "appModes")
        hud = d.spawn([d.tarry], "tarry-hud", {"TARRY_DEBUG_HUD_TIMES": "1"})
        wait_for("tarry", lambda: d.events_log().count("keyboard guard on") >= 2)
        time.sleep(0.5)
        hud_presses = min(40, max(5, args.presses // 4))
        sent = typed(d, typist, hud_presses, 150, 900)
        time.sleep(0.5)
        hud.terminate()
        hud.wait(timeout=10)
        shown = [int(line.split()[1]) / 1e6 for line in d.output("tarry-hud").splitlines()
                 if line.startswith("hud-shown ")]
        to_hud = matched(sent, shown)

        print(describe("Ctrl+Q at the client, no tarry", direct))
        print(describe("Ctrl+Q at the client, let through (instant)", through))
        print("tarry adds: median %.2f ms, p99 %.2f ms" % (
            statistics.median(through) - statistics.median(direct),
            percentile(through, 99) - percentile(direct, 99)))
        print(describe("key press -> HUD buffer committed", to_hud))
        print("(%d/%d, %d/%d and %d/%d presses matched)" % (
            len(direct), args.presses, len(through), args.presses, len(to_hud), hud_presses))
    finally:
        d.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
