#!/usr/bin/env python3
"""A GTK 4 application for the GNOME end-to-end tests: one window that logs what reaches it.

    gtk_client.py --log FILE [--id APP_ID]

Log lines are "<monotonic µs> <word> …": "ready", "press <keyval> <ctrl 0|1> <shift 0|1>",
"close-request", "active <0|1>" (the window gained or lost the keyboard focus), "exit".
"""

import argparse
import sys
import time

import gi

gi.require_version("Gdk", "4.0")
gi.require_version("Gtk", "4.0")
from gi.repository import Gdk, Gtk  # noqa: E402


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--log", required=True)
    parser.add_argument("--id", default="org.tarry.GtkClient")
    args = parser.parse_args()
    log = open(args.log, "a", buffering=1, encoding="utf-8")

    def note(*words):
        log.write("%d %s\n" % (time.monotonic_ns() // 1000, " ".join(str(w) for w in words)))

    app = Gtk.Application(application_id=args.id)

    def on_key(controller, keyval, keycode, state):
        note("press", keyval, int(bool(state & Gdk.ModifierType.CONTROL_MASK)),
             int(bool(state & Gdk.ModifierType.SHIFT_MASK)))
        return False

    def on_close(window):
        note("close-request")
        return False

    def on_activate(application):
        window = Gtk.ApplicationWindow(application=application, title="Tarry GTK Client")
        window.set_default_size(640, 400)
        label = Gtk.Label(label="Tarry GTK test client")
        window.set_child(label)
        keys = Gtk.EventControllerKey()
        keys.set_propagation_phase(Gtk.PropagationPhase.CAPTURE)
        keys.connect("key-pressed", on_key)
        window.add_controller(keys)
        window.connect("close-request", on_close)
        window.connect("notify::is-active", lambda w, _: note("active", int(w.is_active())))
        window.present()
        note("ready")

    app.connect("activate", on_activate)
    status = app.run([sys.argv[0]])
    note("exit")
    return status


if __name__ == "__main__":
    sys.exit(main())
