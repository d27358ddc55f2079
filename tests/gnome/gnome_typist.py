#!/usr/bin/env python3
"""Types on the Shell's seat through org.gnome.Mutter.RemoteDesktop, as a physical keyboard would.

    gnome_typist.py STEP…

A step is "+KEY" (press), "-KEY" (release) or a number of milliseconds to wait; KEY is an evdev
key name (ctrl, shift, alt, q, w, z, a, esc, enter) or code. Prints "<monotonic µs> <step>" for
each key step.
"""

import sys
import time

import dbus

KEYS = {"ctrl": 29, "shift": 42, "alt": 56, "q": 16, "w": 17, "z": 44, "a": 30, "esc": 1, "enter": 28}


def main(steps):
    bus = dbus.SessionBus()
    desktop = dbus.Interface(bus.get_object("org.gnome.Mutter.RemoteDesktop", "/org/gnome/Mutter/RemoteDesktop"),
                             "org.gnome.Mutter.RemoteDesktop")
    path = desktop.CreateSession()
    session = dbus.Interface(bus.get_object("org.gnome.Mutter.RemoteDesktop", path),
                             "org.gnome.Mutter.RemoteDesktop.Session")
    session.Start()
    try:
        # A new device's first keys are lost to the app while the seat switches to its keymap (a
        # physical keyboard switches once): a lone Shift first, which no shortcut takes.
        for pressed in (True, False):
            session.NotifyKeyboardKeycode(dbus.UInt32(KEYS["shift"]), pressed)
        time.sleep(0.15)
        for step in steps:
            if step[0] in "+-":
                name = step[1:]
                code = KEYS[name] if name in KEYS else int(name)
                session.NotifyKeyboardKeycode(dbus.UInt32(code), step[0] == "+")
                print("%d %s" % (time.monotonic_ns() // 1000, step), flush=True)
            else:
                time.sleep(int(step) / 1000)
    finally:
        # A keyboard stays plugged in after its last key: the device goes only once the keys it
        # sent have been dealt with (the Shell may be typing back a combination meanwhile).
        time.sleep(0.3)
        session.Stop()


if __name__ == "__main__":
    main(sys.argv[1:])
