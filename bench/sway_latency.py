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
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "wayland"))
from sway_harness import CLIENT_ID, Skip, SwayDesktop  # noqa: E402
from latency_figures import let_through_and_hud  # noqa: E402


def typed(desktop, presses, hold_ms, gap_ms):
    out = desktop.run([desktop.typist, str(presses), str(hold_ms), str(gap_ms)], timeout=presses * 2 + 30).stdout
    return [int(line.split()[1]) / 1e6 for line in out.decode().splitlines() if line.startswith("press ")]


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
        let_through_and_hud(d, CLIENT_ID, typed, args.presses, [d.tarry], min(40, max(5, args.presses // 4)))
    finally:
        d.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
