#!/usr/bin/env python3
"""Stands in for tarry on the bus to try the Shell extension alone (extension_smoke.py).

    fake_tarry.py --log FILE [--pass WORD]…

Owns tarry's bus name, says hello, arms the extension and logs "<µs> <word> …" lines: "armed
<refused words>", "focused <json>", "key <word> <1|0> <pid of the focused window at a press, or ->", "mods <mask>". A press of a --pass word is
let through (the extension is asked to type it back).
"""

import argparse
import json
import time

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

INTERFACE = "org.tarry.Tarry.GnomeShell1"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--log", required=True)
    parser.add_argument("--pass", dest="passed", action="append", default=[])
    args = parser.parse_args()
    log = open(args.log, "a", buffering=1, encoding="utf-8")

    def note(*words):
        log.write("%d %s\n" % (time.monotonic_ns() // 1000, " ".join(str(w) for w in words)))

    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    name = dbus.service.BusName("org.tarry.Tarry", bus)  # noqa: F841 (kept while running)
    shell = dbus.Interface(bus.get_object("org.tarry.Tarry.GnomeShell", "/org/tarry/Tarry/GnomeShell"), INTERFACE)
    note("hello", json.loads(str(shell.Hello(dbus.UInt32(5000))))["protocol"])
    note("armed", ",".join(str(w) for w in shell.Arm(True)) or "-")
    note("focused", str(shell.FocusedWindow()))

    # A HUD like tarry's, shown until the first key comes.
    text = lambda t, x, y, w, h, size, color: {
        "visible": True, "frame": {"x": x, "y": y, "width": w, "height": h}, "text": t,
        "font": {"size": size, "weight": "semibold", "monospacedDigits": False},
        "color": color, "alignment": "left", "maxLines": 1}
    grey = {"red": 0.4, "green": 0.4, "blue": 0.4, "alpha": 1}
    layout = {"width": 330, "height": 96, "cornerRadius": 16, "shadow": True,
              "background": {"red": 0.97, "green": 0.97, "blue": 0.97, "alpha": 0.96},
              "icon": {"frame": {"x": 20, "y": 28, "width": 40, "height": 40}, "name": "utilities-terminal"},
              "label": text("Hold Ctrl+Q to quit", 76, 54, 236, 24, 13, grey),
              "bar": {"visible": True, "frame": {"x": 76, "y": 40, "width": 236, "height": 8},
                      "track": {"rect": {"x": 0, "y": 0, "width": 236, "height": 8}, "radius": 4, "color": grey},
                      "fill": {"rect": {"x": 0, "y": 0, "width": 118, "height": 8}, "radius": 4,
                               "color": {"red": 1, "green": 0.8, "blue": 0, "alpha": 1}}},
              "timeLabel": text("1.0 s of 2.0 s", 76, 14, 150, 20, 11, grey),
              "pctLabel": text("50%", 240, 14, 72, 22, 15, grey)}
    shell.Hud(json.dumps([{"op": "layout", "layout": layout}, {"op": "origin", "x": 475, "y": 352},
                          {"op": "alpha", "alpha": 1}, {"op": "show"}]))
    note("hud", "shown")

    # A menu like tarry's in the top bar.
    words = ["header", "counter", "toggle", "pause", "pauseFor15", "pauseFor60", "pauseTomorrow", "resume",
             "recent", "undo", "stats", "rules", "quitOthers", "settings", "about", "checkUpdates", "quit"]
    rows = [{"row": w, "title": w.capitalize(), "visible": True, "enabled": w not in ("header", "counter"),
             "checked": w == "toggle"} for w in words]
    shell.StatusMenu(json.dumps({"shown": True, "symbol": "tarry-paused-symbolic", "badge": "3",
                                 "toolTip": "Tarry", "rows": rows,
                                 "recents": [{"kind": "placeholder", "title": "No Apps", "path": ""}]}))
    bus.add_signal_receiver(lambda word: note("menu", word), "MenuChose", INTERFACE)

    def key(word, down, window):
        note("key", word, int(bool(down)), json.loads(str(window)).get("pid", 0) if window else "-")
        shell.Hud(json.dumps([{"op": "hide"}]))
        if down and str(word) in args.passed:
            shell.Type(word)

    bus.add_signal_receiver(key, "Key", INTERFACE)
    bus.add_signal_receiver(lambda mask: note("mods", int(mask)), "Modifiers", INTERFACE)
    bus.add_signal_receiver(lambda pid: note("activated", int(pid)), "Activated", INTERFACE)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
