#!/usr/bin/env python3
"""Figures for tarry on a headless GNOME Shell (run as an unprivileged user, like the GNOME e2e tests).

    bench/gnome_latency.py --build build/release [--presses 100]

1. Let-through latency: Ctrl+Q typed through org.gnome.Mutter.RemoteDesktop (the typist notes
   each key step), the GTK 4 test app logs when each Ctrl+Q arrived (both CLOCK_MONOTONIC). Without
   tarry: from the press. With tarry and the rule "instant": the Shell keeps the key until its
   release and the extension types it then, so the delay is counted from the release.
2. From the key press to the HUD: short Ctrl+Q presses with the default rule; a hook put into the
   Shell for the run notes when the HUD was made visible (tarry decided and the extension drew)
   and the first stage paint (after-paint) with the HUD shown after each press.
3. Idle: tarry's and the Shell's CPU time and wake-ups (context switches of all their threads)
   over 30 s with tarry running and nothing happening, and the Shell's without tarry: the Shell
   must not wake for tarry.

Prints median and 99th percentile of each.
"""

import argparse
import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "gnome"))
from gnome_e2e import extension_build  # noqa: E402
from gnome_harness import CLIENT_ID, GDK_q, GnomeDesktop, Skip, wait_for  # noqa: E402
import latency_figures  # noqa: E402
from latency_figures import cpu_seconds, matched, thread_switches  # noqa: E402

HOOK = """
const GLib = imports.gi.GLib;
globalThis.tarryBench = {frames: [], shown: [], armed: false};
const tarryHud = Main.uiGroup.get_children().find(a => a.name === 'tarry-hud');
tarryHud.connect('notify::visible', () => {
    if (tarryHud.visible)
        globalThis.tarryBench.shown.push(GLib.get_monotonic_time());
});
globalThis.tarryBenchId = global.stage.connect('after-paint', () => {
    const b = globalThis.tarryBench;
    const hud = Main.uiGroup.get_children().find(a => a.name === 'tarry-hud');
    const shown = !!hud && hud.visible && hud.opacity > 0;
    if (shown && b.armed) {
        b.frames.push(GLib.get_monotonic_time());
        b.armed = false;
    }
    if (!shown)
        b.armed = true;
});
true
"""


def describe(name, values_ms):
    if not values_ms:
        return "%-46s no samples" % name
    return latency_figures.describe(name, values_ms, 46)


def steps(desktop, presses, hold_ms, gap_ms):
    """Types Ctrl+Q `presses` times in one typist run; (press, release) times of Q in seconds."""
    keys = []
    for _ in range(presses):
        keys += ["+ctrl", "+q", hold_ms, "-q", "-ctrl", gap_ms]
    out = desktop.run(["python3", desktop.typist] + [str(k) for k in keys], timeout=presses * 3 + 30).stdout
    pressed, released = [], []
    for line in out.decode().splitlines():
        at, step = line.split()
        if step == "+q":
            pressed.append(int(at) / 1e6)
        elif step == "-q":
            released.append(int(at) / 1e6)
    return list(zip(pressed, released))


def shell_pid(desktop):
    return next(p.pid for p in desktop.procs if p.args[0] == "gnome-shell")


def idle(name, pid, seconds):
    cpu, before = cpu_seconds(pid), thread_switches(pid)
    time.sleep(seconds)
    after = thread_switches(pid)
    cpu = cpu_seconds(pid) - cpu
    # Threads that ended meanwhile are left out; new ones count from zero.
    woke = sum(n - before.get(thread, 0) for thread, n in after.items())
    print("%-46s %.2f %% of a core, %.1f wake-ups/s" % (name, cpu / seconds * 100, woke / seconds))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--presses", type=int, default=100)
    parser.add_argument("--idle", type=float, default=30)
    args = parser.parse_args()
    tarry = os.path.join(args.build, "main", "cli", "tarry")
    try:
        d = GnomeDesktop(os.path.abspath(tarry), extension_build(os.path.join(args.build, "gnome-extension")))
    except Skip as skip:
        print("SKIP: " + str(skip))
        return 77
    try:
        client = d.start_client("app")
        shell = shell_pid(d)
        idle("GNOME Shell idle, no tarry", shell, args.idle)

        # 1. Without tarry, from the press.
        keys = steps(d, args.presses, 30, 120)
        arrived = [t for t, _, ctrl, _ in client.presses(GDK_q) if ctrl]
        base = matched([p for p, _ in keys], arrived, [p for p, _ in keys[1:]])

        d.defaults("write", "appModes", '{"%s": "instant"}' % CLIENT_ID)
        d.defaults("write", "busyGuard", "false")
        proc = d.start_tarry()
        # Past tarry's start-up work.
        time.sleep(min(args.idle, 5))
        idle("tarry idle", proc.pid, args.idle)
        idle("GNOME Shell idle, tarry running", shell, args.idle)
        before = len(arrived)
        # Each let-through typed and at the app before the next press.
        keys = steps(d, args.presses, 30, 300)
        arrived = [t for t, _, ctrl, _ in client.presses(GDK_q) if ctrl][before:]
        through = matched([r for _, r in keys], arrived, [p for p, _ in keys[1:]])

        # 2. Short presses blocked, the HUD showing for each (it exists once it was shown once).
        d.defaults("delete", "appModes")
        steps(d, 1, 80, 900)
        if d.eval(HOOK) is not True:
            raise SystemExit("could not put the paint hook into the Shell")
        keys = steps(d, args.presses // 2, 80, 900)
        bench = d.eval("globalThis.tarryBench")
        frames = [t / 1e6 for t in bench["frames"]]
        hud = matched([p for p, _ in keys], frames, [p for p, _ in keys[1:]])
        shown = matched([p for p, _ in keys], [t / 1e6 for t in bench["shown"]], [p for p, _ in keys[1:]])

        print(describe("Ctrl+Q at the app, no tarry (from the press)", base))
        print(describe("Ctrl+Q let through (from the release)", through))
        print(describe("key press to the HUD shown in the Shell", shown))
        print(describe("key press to the HUD's first frame", hud))
    finally:
        d.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
