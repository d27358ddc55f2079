#!/usr/bin/env python3
"""Figures for tarry on a headless KWin (run as an unprivileged user, like the KDE e2e tests).

    bench/kde_latency.py --build build/release [--presses 200]

1. The delay tarry adds to a Ctrl+Q it lets through: tarry-kde-typist presses Ctrl+Q through
   KWin's fake input and notes when; the Wayland test client logs when each press arrived (both
   CLOCK_MONOTONIC). Once without tarry, once with tarry and the rule "instant", so every press goes
   through KWin's global shortcut, the D-Bus signal, tarry's main loop, setInactive, tarry's own
   fake input and the shortcut armed again.
2. From the key press to the HUD: short Ctrl+Q presses with the default rule; tarry reports when
   each showing of the panel reached the compositor (TARRY_DEBUG_HUD_TIMES).

Prints median and 99th percentile of each.
"""

import argparse
import os
import statistics
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "kde"))
from kde_harness import CLIENT_ID, KEY_CTRL, KEY_Q, KdeDesktop, Skip, wait_for  # noqa: E402

QT_KEY_Q = 0x51


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(p / 100 * (len(ordered) - 1))))]


def describe(name, values_ms):
    return "%-42s n=%-4d median %7.2f ms   p99 %7.2f ms" % (
        name, len(values_ms), statistics.median(values_ms), percentile(values_ms, 99))


def typed(desktop, presses, hold_ms, gap_ms):
    steps = []
    for _ in range(presses):
        steps += ["+%d" % KEY_CTRL, "+%d" % KEY_Q, str(hold_ms), "-%d" % KEY_Q, "-%d" % KEY_CTRL, str(gap_ms)]
    out = desktop.run([desktop.typist] + steps, timeout=presses * 2 + 30).stdout
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
    args = parser.parse_args()
    tarry = os.path.join(args.build, "main", "cli", "tarry")
    client = os.path.join(args.build, "tests", "wayland", "tarry-wayland-client")
    typist = os.path.join(args.build, "tests", "kde", "tarry-kde-typist")
    try:
        d = KdeDesktop(tarry, client, typist)
    except Skip as skip:
        print("cannot measure: " + str(skip))
        return 77
    try:
        app = d.start_client("app", "--no-quit")

        def presses_since(t):
            return [at for at, key, ctrl in app.presses(QT_KEY_Q) if ctrl and at >= t]

        t = time.monotonic()
        sent = typed(d, args.presses, 30, 40)
        wait_for("the last press", lambda: len(presses_since(t)) >= len(sent) * 0.9, timeout=5)
        direct = matched(sent, presses_since(t))

        d.defaults("write", "appModes", '{"%s": "instant"}' % CLIENT_ID)
        d.start_tarry()
        time.sleep(0.5)
        t = time.monotonic()
        sent = typed(d, args.presses, 30, 40)
        wait_for("the last press", lambda: len(presses_since(t)) >= len(sent) * 0.9, timeout=5)
        through = matched(sent, presses_since(t))
        d.tarry_proc.terminate()
        d.tarry_proc.wait(timeout=10)

        d.defaults("delete", "appModes")
        hud = d.spawn([d.tarry, "--autostart"], "tarry-hud", {"TARRY_DEBUG_HUD_TIMES": "1"})
        wait_for("tarry", lambda: d.events_log().count("keyboard guard on") >= 2)
        time.sleep(0.5)
        sent = typed(d, 40, 150, 900)
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
            len(direct), args.presses, len(through), args.presses, len(to_hud), 40))
    finally:
        d.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
