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
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "kde"))
from kde_harness import CLIENT_ID, KEY_CTRL, KEY_Q, KdeDesktop, Skip  # noqa: E402
from latency_figures import let_through_and_hud  # noqa: E402


def typed(desktop, presses, hold_ms, gap_ms):
    steps = []
    for _ in range(presses):
        steps += ["+%d" % KEY_CTRL, "+%d" % KEY_Q, str(hold_ms), "-%d" % KEY_Q, "-%d" % KEY_CTRL, str(gap_ms)]
    out = desktop.run([desktop.typist] + steps, timeout=presses * 2 + 30).stdout
    return [int(line.split()[1]) / 1e6 for line in out.decode().splitlines() if line.startswith("press ")]


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
        let_through_and_hud(d, CLIENT_ID, typed, args.presses, [d.tarry, "--autostart"], max(10, args.presses // 5))
    finally:
        d.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
