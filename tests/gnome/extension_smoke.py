#!/usr/bin/env python3
"""Tarry's Shell extension alone in a headless GNOME Shell, with fake_tarry.py on tarry's bus name.

    extension_smoke.py --extensions DIR      (DIR holds the esm/ and legacy/ builds; the one for
                                              the installed Shell is used) — 0 when it holds,
                                              77 when GNOME Shell cannot run here

Used to run the GNOME 45+ build in a GNOME 45+ Shell (scripts/gnome-chroot.sh) as well as
here.
"""

import argparse
import json
import os
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from gnome_e2e import check, ctrl_presses, extension_build, settle  # noqa: E402
from gnome_harness import CLIENT_ID, GDK_q, GDK_w, GnomeDesktop  # noqa: E402
from session_harness import SKIP, Failure, Skip, wait_for  # noqa: E402


class Fake:
    def __init__(self, d, *passed):
        self.log = os.path.join(d.tmp, "fake-tarry.log")
        argv = ["python3", os.path.join(os.path.dirname(os.path.abspath(__file__)), "fake_tarry.py"),
                "--log", self.log]
        for word in passed:
            argv += ["--pass", word]
        self.process = d.spawn(argv, "fake-tarry")
        wait_for("the fake tarry to arm the extension", lambda: self.lines("armed"), timeout=10)

    def lines(self, word=None):
        try:
            with open(self.log, encoding="utf-8") as f:
                rows = [line.split(None, 2) for line in f]
        except FileNotFoundError:
            return []
        return [r[2].strip() if len(r) > 2 else "" for r in rows if len(r) >= 2 and (word is None or r[1] == word)]


def shoot(d, suffix):
    """The screen into $TARRY_SMOKE_SCREENSHOT (with `suffix` before its extension), when set."""
    if not os.environ.get("TARRY_SMOKE_SCREENSHOT"):
        return
    shot = os.path.join(d.tmp, "smoke%s.png" % suffix)
    d.screenshot(shot)
    wait_for("the screenshot", lambda: os.path.exists(shot), timeout=5)
    base, ext = os.path.splitext(os.environ["TARRY_SMOKE_SCREENSHOT"])
    subprocess.run(["cp", shot, base + suffix + ext], check=True)


def smoke(d):
    client = d.start_client("app")
    fake = Fake(d, "close")
    check(fake.lines("armed") == ["-"], "keys refused: %s" % fake.lines("armed"))
    wait_for("the HUD the fake tarry showed", d.hud_visible, timeout=3)
    shoot(d, "")
    focused = json.loads(fake.lines("focused")[0])
    check(focused["pid"] == client.process.pid and focused["gtkAppId"] == CLIENT_ID,
          "the focused window is not the client's: %s" % focused)

    # The top-bar menu, and a choice sent back.
    item = "Main.panel.statusArea['tarry-status']"
    wait_for("the item in the top bar", lambda: d.eval("!!" + item) is True, timeout=3)
    titles = d.eval(item + ".menu._getMenuItems().map(i => i.label ? i.label.text : '')")
    check(titles[0] == "Header" and titles[-1] == "Quit", "the menu reads %s" % titles)
    # Its symbolic icon from the extension's folder, today's count beside it.
    icon = d.eval(item + ".get_first_child().get_first_child().gicon.get_file().get_path()") or ""
    check(icon.endswith("/icons/tarry-paused-symbolic.svg") and os.path.exists(icon), "the icon is %r" % icon)
    check(d.eval(item + ".get_first_child().get_last_child().text") == "3", "no count beside the icon")
    for scheme in ("dark", "light"):
        d.eval("new imports.gi.Gio.Settings({schema_id: 'org.gnome.desktop.interface'})"
               ".set_string('color-scheme', 'prefer-%s'); true" % scheme)
        settle(0.5)
        shoot(d, "-bar-" + scheme)
    d.eval(item + ".menu._getMenuItems()[%d].emit('activate', null); true" % titles.index("Stats"))
    wait_for("the choice to reach tarry", lambda: "stats" in fake.lines("menu"), timeout=3)

    # A swallowed Ctrl+Q: down and up reported, nothing at the app.
    d.hold("q", 300, background=False)
    wait_for("the release to be reported", lambda: "quit 0 -" in fake.lines("key"), timeout=3)
    wait_for("the HUD to hide", lambda: not d.hud_visible(), timeout=3)
    # The press comes with the window it was made in.
    check(fake.lines("key")[:2] == ["quit 1 %d" % client.process.pid, "quit 0 -"], "reported %s" % fake.lines("key"))
    check(not ctrl_presses(client, GDK_q), "a swallowed Ctrl+Q reached the app")

    # Ctrl up first: reported at once.
    d.keys("+ctrl", "+q", 200, "-ctrl", 300, "-q")
    wait_for("Ctrl's release to be reported", lambda: "0" in fake.lines("mods"), timeout=3)

    # A let-through Ctrl+W is typed at the release, once.
    d.hold("w", 300, background=False)
    wait_for("Ctrl+W to reach the app", lambda: ctrl_presses(client, GDK_w), timeout=3)
    settle()
    check(len(ctrl_presses(client, GDK_w)) == 1, "Ctrl+W arrived %d times" % len(ctrl_presses(client, GDK_w)))
    # Pressed again 40 ms after the typed one: caught and reported too, each typed once.
    d.keys("+ctrl", "+w", 300, "-w", 40, "+w", 200, "-w", "-ctrl")
    wait_for("Ctrl+W to reach the app twice more", lambda: len(ctrl_presses(client, GDK_w)) == 3, timeout=3)
    settle()
    check(sum(k.startswith("close 1 ") for k in fake.lines("key")) == 3, "reported %s" % fake.lines("key"))
    check(len(ctrl_presses(client, GDK_w)) == 3, "Ctrl+W arrived %d times" % len(ctrl_presses(client, GDK_w)))

    # A window that gets the focus is reported with its process (the RAM Saver's record).
    other = d.start_client("other", "--id", "org.tarry.GtkOther")
    wait_for("the new window's activation", lambda: str(other.process.pid) in fake.lines("activated"), timeout=3)

    # Only tarry's name is answered.
    answer = d.run(["gdbus", "call", "--session", "--dest", "org.tarry.Tarry.GnomeShell", "--object-path",
                   "/org/tarry/Tarry/GnomeShell", "--method", "org.tarry.Tarry.GnomeShell1.FocusedWindow"],
                  check=False)
    check(answer.returncode != 0 and b"AccessDenied" in answer.stderr, "another program was answered: %s" % answer)

    # Tarry gone: Ctrl+Q belongs to the apps again at once.
    fake.process.send_signal(signal.SIGKILL)
    fake.process.wait()
    d.hold("q", 50, background=False)
    wait_for("Ctrl+Q to reach the app", lambda: ctrl_presses(other, GDK_q), timeout=2)


def fake_log(d):
    try:
        with open(os.path.join(d.tmp, "fake-tarry.log"), encoding="utf-8") as f:
            return f.read()
    except FileNotFoundError:
        return ""


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--extensions", required=True)
    args = parser.parse_args()
    try:
        d = GnomeDesktop(None, extension_build(args.extensions))
    except Skip as skip:
        print("SKIP: " + str(skip))
        return SKIP
    try:
        version = subprocess.run(["gnome-shell", "--version"], capture_output=True, text=True).stdout.strip()
        smoke(d)
    except Failure as failure:
        print("FAIL extension_smoke: %s\n%s\n--- fake tarry:\n%s" % (failure, d.report(), d.output("fake-tarry") + fake_log(d)))
        return 1
    finally:
        d.close()
    print("ok extension_smoke on " + version)
    return 0


if __name__ == "__main__":
    sys.exit(main())
