#!/usr/bin/env python3
"""End-to-end cases of tarry on a headless GNOME Shell (see gnome_harness.py).

    gnome_e2e.py --tarry PATH --extensions DIR CASE     runs one case; 0 when it holds, 77 when
                                                        GNOME Shell cannot run here
    gnome_e2e.py --list                                 names the cases

DIR holds the extension's builds (`esm/`, `legacy/`); the one for the installed Shell is used.
"""

import http.server
import json
import os
import re
import signal
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from gnome_harness import CLIENT_ENTRY, CLIENT_ID, EXTENSION_UUID, GDK_Q, GDK_q, GDK_w, GnomeDesktop  # noqa: E402
from session_harness import Skip, case_registry, check, run_session_cases, settle, wait_for  # noqa: E402

CASES, case = case_registry()


def ctrl_presses(client, keyval):
    return [p for p in client.presses(keyval) if p[2]]


@case
def short_press_is_blocked_with_hud(d):
    client = d.start_client("app")
    d.start_tarry()
    typing = d.hold("q", 1200)
    wait_for("the HUD to show", d.hud_visible, timeout=1.1, interval=0.05)
    typing.wait(timeout=10)
    wait_for("one blocked quit to be counted", lambda: d.counter("saved") == 1)
    wait_for("the HUD to hide", lambda: not d.hud_visible(), timeout=5)
    settle()
    check(client.alive(), "the client ended")
    check(not client.presses(GDK_q), "Ctrl+Q reached the client: %s" % client.presses(GDK_q))
    check(d.focused_pid() == client.process.pid, "the client lost the focus")
    # The hold's modal grab takes the keyboard from the app; the release must give it back.
    changes = [active for _, active in client.activations()]
    check(False in changes and True in changes[changes.index(False):],
          "the client did not get the keyboard back after the hold: %s" % changes)


@case
def long_hold_quits_politely(d):
    d.defaults("write", "busyGuard", "false")
    client = d.start_client("app")
    d.start_tarry()
    d.hold("q", 3000)
    # The default hold is 2 s: the close request must come well before the keys go up.
    wait_for("the Shell's close request", client.close_requests, timeout=2.9)
    wait_for("the client to end", lambda: not client.alive(), timeout=10)
    check(not client.presses(GDK_q), "the held Ctrl+Q itself reached the client")
    wait_for("the quit to be counted", lambda: d.counter("quit") == 1)


@case
def press_twice_quits_and_closes(d):
    d.defaults("write", "style", "1")  # press twice
    d.defaults("write", "closeHold", "1")
    client = d.start_client("app")
    d.start_tarry()
    # Ctrl+W twice: the second press lets it through, typed once the key is up.
    d.hold("w", 100, background=False)
    settle(0.3)
    check(not ctrl_presses(client, GDK_w), "the first Ctrl+W reached the client")
    d.hold("w", 100, background=False)
    wait_for("Ctrl+W to reach the client after the second press", lambda: ctrl_presses(client, GDK_w), timeout=3)
    settle(1.8)  # past the press-twice window
    d.hold("q", 100, background=False)
    settle(0.3)
    check(client.alive() and not client.close_requests(), "one press quit the client")
    d.hold("q", 100, background=False)
    wait_for("the client to end after the second press", lambda: not client.alive(), timeout=8)
    check(not client.presses(GDK_q), "Ctrl+Q itself reached the client")
    check(len(ctrl_presses(client, GDK_w)) == 1, "Ctrl+W arrived %d times" % len(ctrl_presses(client, GDK_w)))
    wait_for("both confirmations to be counted", lambda: d.counter("twice.confirmed") == 2)


@case
def close_hold_lets_ctrl_w_through(d):
    d.defaults("write", "closeHold", "1")
    client = d.start_client("app")
    d.start_tarry()
    d.hold("w", 200, background=False)
    settle()
    check(not ctrl_presses(client, GDK_w), "a short Ctrl+W reached the client")
    d.hold("w", 1600, background=False)
    wait_for("Ctrl+W to reach the client after the hold", lambda: ctrl_presses(client, GDK_w), timeout=5)
    check(len(ctrl_presses(client, GDK_w)) == 1, "Ctrl+W arrived %d times" % len(ctrl_presses(client, GDK_w)))
    check("Ctrl+W confirmed" in d.events_log(), "no confirmation in the log")


@case
def second_press_right_after_a_let_through_is_guarded(d):
    d.defaults("write", "closeHold", "1")
    client = d.start_client("app")
    d.start_tarry()
    # Ctrl+W held through (typed back at its release), then pressed again 40 ms later with Ctrl still
    # down: the second press meets the guard, not the app.
    typing = d.keys("+ctrl", "+w", 1600, "-w", 40, "+w", 700, "-w", "-ctrl", background=True)
    wait_for("Ctrl+W to reach the client after the hold", lambda: ctrl_presses(client, GDK_w), timeout=5)
    # The hold's own HUD went at the meter's end (1 s), before the release.
    wait_for("the HUD of the second press", d.hud_visible, timeout=0.8, interval=0.03)
    typing.wait(timeout=10)
    wait_for("the second press to be blocked", lambda: d.counter("wblocked") == 1, timeout=5)
    settle()
    check(len(ctrl_presses(client, GDK_w)) == 1, "Ctrl+W arrived %d times" % len(ctrl_presses(client, GDK_w)))
    check(client.alive() and not client.close_requests(), "the client was closed")


@case
def logout_hold_lets_ctrl_shift_q_through(d):
    client = d.start_client("app")
    d.start_tarry()
    d.hold("q", 300, mods=("ctrl", "shift"), background=False)
    settle()
    check(not client.presses(GDK_Q), "a short Ctrl+Shift+Q reached the client")
    # Held past the 2 s: typed at the release, with Ctrl and Shift still down.
    d.hold("q", 2600, mods=("ctrl", "shift"), background=False)
    wait_for("Ctrl+Shift+Q to reach the client", lambda: client.presses(GDK_Q), timeout=5)
    check([(c, sh) for _, _, c, sh in client.presses(GDK_Q)] == [(True, True)],
          "the client got %s" % client.presses(GDK_Q))
    check(client.alive(), "the client was quit")


@case
def russian_layout_is_guarded_on_the_q_key(d):
    # On a Russian layout the Q key types й; apps take Ctrl+й as Ctrl+Q, so the guard must, and the
    # hold ends at that key's release although it comes up as й. (The Shell's input source manager
    # is reached through the top bar's keyboard menu: GNOME 45+ has no `imports.ui` to find it by.)
    d.defaults("write", "busyGuard", "false")
    d.eval("imports.gi.Gio.Settings.new('org.gnome.desktop.input-sources').set_value('sources', "
           "new imports.gi.GLib.Variant('a(ss)', [['xkb', 'us'], ['xkb', 'ru']])); true")
    wait_for("the Russian layout", lambda: d.eval(
        "(() => { const m = Main.panel.statusArea.keyboard._inputSourceManager; const s = m.inputSources[1]; "
        "if (s) s.activate(); return m.currentSource ? m.currentSource.id : ''; })()") == "ru", timeout=5)
    client = d.start_client("app")
    d.start_tarry()
    d.hold("q", 300, background=False)
    wait_for("the short press to be blocked", lambda: d.counter("saved") == 1)
    check(client.alive() and not client.close_requests(), "a short Ctrl+Q on the Russian layout quit the app")
    d.hold("q", 2600)
    wait_for("the app to be quit by the held keys", lambda: not client.alive(), timeout=10)
    wait_for("the quit to be counted", lambda: d.counter("quit") == 1)


@case
def killed_during_hold_leaves_ctrl_q_working(d):
    client = d.start_client("app")
    tarry = d.start_tarry()
    typing = d.hold("q", 400)
    wait_for("the hold to begin", d.hud_visible, timeout=1.5, interval=0.05)
    tarry.send_signal(signal.SIGKILL)
    tarry.wait()
    typing.wait(timeout=10)
    # The next press, as soon as the held keys are up, reaches the app at once: the extension let
    # go of the keys when tarry's bus name went.
    out = d.run(["python3", d.typist, "+ctrl", "+q", "50", "-q", "-ctrl"]).stdout.decode().split("\n")
    pressed = next(int(line.split()[0]) / 1e6 for line in out if line.endswith(" +q"))
    wait_for("Ctrl+Q to reach the client", lambda: ctrl_presses(client, GDK_q), timeout=3)
    arrived = ctrl_presses(client, GDK_q)[0][0]
    check(arrived - pressed < 0.3, "Ctrl+Q reached the client %.2f s after it was pressed" % (arrived - pressed))
    settle()
    check(not d.hud_visible(), "the HUD stayed on screen")


@case
def undo_brings_the_window_back_where_it_was(d):
    d.defaults("write", "busyGuard", "false")
    client = d.start_client("app")
    # Somewhere the Shell would not place a new window by itself.
    d.eval("global.display.focus_window.move_resize_frame(true, 101, 133, 700, 420); true")
    wait_for("the window to move", lambda: [w[2:6] for w in d.windows()] == [[101, 133, 700, 420]], timeout=5)
    d.start_tarry()
    d.hold("q", 2600).wait(timeout=10)
    wait_for("the client to end", lambda: not client.alive(), timeout=10)
    d.keys("+ctrl", "+alt", "+z", 50, "-z", "-alt", "-ctrl")
    wait_for("the app to come back", lambda: [w for w in d.windows() if w[1] == CLIENT_ID], timeout=15)
    wait_for("its window where it was", lambda: [w[2:6] for w in d.windows() if w[1] == CLIENT_ID] ==
             [[101, 133, 700, 420]], timeout=8)
    check("undo" in d.events_log().lower(), "no undo in the log")


@case
def status_menu_in_the_top_bar_without_a_tray(d):
    d.defaults("write", "showMenuBar", "true")
    d.start_client("app")
    d.start_tarry()
    item = "Main.panel.statusArea['tarry-status']"
    wait_for("Tarry's item in the top bar", lambda: d.eval("!!" + item) is True, timeout=10)
    # A symbolic icon of the extension's, which the Shell paints in the bar's colours.
    icon = item + ".get_first_child().get_first_child().gicon.get_file().get_basename()"
    wait_for("the icon of protection on", lambda: d.eval(icon) == "tarry-on-symbolic.svg", timeout=5)
    # Opening the menu has tarry bring its rows up to date.
    d.eval(item + ".menu.open(); true")
    wait_for("the header to say the guard is on",
             lambda: d.eval(item + ".menu._getMenuItems()[0].label.text").startswith("Active"), timeout=5)
    titles = d.eval(item + ".menu._getMenuItems().map(i => i.label ? i.label.text : '')")
    check(titles[0].startswith("Active") and "Protect Ctrl+Q" in titles and titles[-1] == "Quit Tarry",
          "the menu reads %s" % titles)
    # The switch goes through tarry's menu logic: protection off, and the menu follows.
    d.eval(item + ".menu._getMenuItems()[%d].emit('activate', null); true" % titles.index("Protect Ctrl+Q"))
    enabled = lambda: d.run([d.tarry, "defaults", "read", "enabled"], check=False).stdout.decode().strip()
    wait_for("protection to be off", lambda: enabled() == "false", timeout=5)
    wait_for("the menu to say so", lambda: not d.eval(item + ".menu._getMenuItems()[0].label.text").startswith(
        "Active"), timeout=5)
    wait_for("the icon to say so", lambda: d.eval(icon) == "tarry-off-symbolic.svg", timeout=5)
    # Past the wait for a tray host: no Settings window stands in for the item.
    settle(7)
    check([w[1] for w in d.windows()] == [CLIENT_ID], "windows: %s" % d.windows())


@case
def first_run_installs_the_extension_and_asks_for_a_new_login(d):
    proc = d.spawn([d.tarry, "--autostart"], "tarry")
    wait_for("the request to log out and in", lambda: "keyboard guard off: Log out and back in once to finish "
             "setting up Tarry" in d.events_log(), timeout=15)
    check(proc.poll() is None, "tarry ended")
    installed = os.path.join(d.env["XDG_DATA_HOME"], "gnome-shell", "extensions", EXTENSION_UUID, "metadata.json")
    check(os.path.exists(installed), "the extension was not installed for the user")
    check("'%s'" % EXTENSION_UUID in d.settings_file(), "the extension was not switched on: " + d.settings_file())
    d.tarry_proc = proc
    # The next login: the Shell loads the extension and tarry guards with no further step.
    d.restart_shell()
    wait_for("the Shell to run the extension", lambda: d.extension_state() == 1, timeout=10)
    client = d.start_client("app")
    d.start_tarry()
    d.hold("q", 200, background=False)
    wait_for("the short press to be blocked", lambda: d.counter("saved") == 1)
    check(client.alive() and not ctrl_presses(client, GDK_q), "Ctrl+Q reached the app")


@case
def quit_others_keeps_the_front_app_and_undo_brings_them_back(d):
    d.defaults("write", "showMenuBar", "true")
    again = os.path.join(d.tmp, "other-again.log")
    d.write_file(os.path.join("data", "applications", "org.tarry.Other.desktop"),
                 CLIENT_ENTRY % ("%s --id org.tarry.Other" % d.client, again))
    other = d.start_client("other", "--id", "org.tarry.Other")
    front = d.start_client("front")
    tarry = d.start_tarry()
    # From the item the extension draws in the top bar, the front app keeping the focus.
    item = "Main.panel.statusArea['tarry-status']"
    wait_for("Tarry's item in the top bar", lambda: d.eval("!!" + item) is True, timeout=10)
    d.eval("(() => { const m = %s.menu; m.open(); m._getMenuItems().find(i => i.label && "
           "i.label.text.startsWith('Quit All Other Apps')).emit('activate', null); return true; })()" % item)
    # The confirmation is tarry's own window: Enter takes its default button, "Quit Them".
    wait_for("the confirmation", lambda: any(w[0] == tarry.pid for w in d.windows()), timeout=10)
    d.activate(tarry.pid)
    d.keys("+enter", 50, "-enter")
    wait_for("the other app to be asked to quit", other.close_requests, timeout=8)
    wait_for("the other app to end", lambda: not other.alive(), timeout=10)
    wait_for("the batch record", lambda: "1 can be brought back" in d.events_log(), timeout=12)
    check(front.alive() and not front.close_requests(), "the front app was asked to quit")
    check(d.counter("bulkRuns") == 1 and d.counter("bulk") == 1,
          "counted %d runs, %d apps" % (d.counter("bulkRuns"), d.counter("bulk")))
    d.keys("+ctrl", "+alt", "+z", 50, "-z", "-alt", "-ctrl")
    wait_for("the other app to come back", lambda: os.path.exists(again) and "ready" in open(again).read(),
             timeout=15)
    check(front.alive(), "the front app ended")


@case
def relaunch_hands_the_guard_on(d):
    # As an installed update does: the new copy starts while the old one runs, takes tarry's bus
    # name over, and the old one quits once the new one runs.
    d.defaults("write", "busyGuard", "false")
    client = d.start_client("app")
    old = d.start_tarry({"TARRY_DEBUG_RELAUNCH_AFTER": "1"})
    check(bus_owner_pid(d) == old.pid, "tarry's bus name is not the first copy's")
    wait_for("the old copy to quit", lambda: old.poll() is not None, timeout=20)
    wait_for("the new copy to guard", lambda: d.events_log().count("keyboard guard on") == 2, timeout=10)
    new = bus_owner_pid(d)
    try:
        check(new not in (0, old.pid) and os.path.exists("/proc/%d" % new), "tarry's bus name is owned by %d" % new)
        # Started by hand, not at login, the new copy shows Settings: the user goes back to the app.
        d.activate(client.process.pid)
        d.hold("q", 200, background=False)
        wait_for("the new copy to block a short press", lambda: d.counter("saved") == 1)
        check(client.alive() and not ctrl_presses(client, GDK_q), "Ctrl+Q reached the client past the new copy")
        d.hold("q", 2600)
        wait_for("the held Ctrl+Q to quit the client", lambda: not client.alive(), timeout=10)
        wait_for("the quit to be counted", lambda: d.counter("quit") == 1)
    finally:
        if new > 0:
            os.kill(new, signal.SIGTERM)


@case
def ram_saver_quits_the_app_left_idle(d):
    # Both background apps may idle 45 s; the RAM Saver looks every minute (the shortest period the
    # remote configuration allows). One of them is used half-way, through a real focus change that
    # the extension reports: only the other one has idled long enough at the first look.
    d.defaults("write", "ramSaverApp", json.dumps({"org.tarry.Idle": 0.0125, "org.tarry.Used": 0.0125}))
    config = serve_remote_config({"ramSaverCheckMin": 1})
    try:
        idle = d.start_client("idle", "--id", "org.tarry.Idle")
        used = d.start_client("used", "--id", "org.tarry.Used")
        front = d.start_client("front")
        d.start_tarry({"TARRY_SERVER_URL": "http://127.0.0.1:%d" % config.server_address[1]})
        started = time.monotonic()
        wait_for("the remote configuration to be fetched", lambda: config.fetched, timeout=10)
        time.sleep(max(0.0, 35 - (time.monotonic() - started)))
        check(not idle.close_requests(), "an app was quit before it had idled long enough")
        d.activate(used.process.pid)
        settle()
        d.activate(front.process.pid)
        wait_for("the idle app to be asked to quit", idle.close_requests, timeout=45)
        wait_for("the idle app to end", lambda: not idle.alive(), timeout=10)
        wait_for("the run to be logged", lambda: "RAM Saver: " in d.events_log(), timeout=10)
        check(used.alive() and not used.close_requests(), "the app used 30 s before was quit")
        check(front.alive() and not front.close_requests(), "the front app was quit")
        wait_for("the quit to be counted", lambda: d.counter("ramSaver.quits") == 1)
        # The memory freed is the quit app's own (a GTK app in Python takes tens of MB).
        check(d.counter("ramSaver.mb") >= 5, "counted %d MB freed" % d.counter("ramSaver.mb"))
    finally:
        config.shutdown()


def serve_remote_config(document):
    """An http server on the loopback that answers tarry's remote configuration request."""
    body = json.dumps(document).encode()

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):  # noqa: N802 (the standard library's name)
            server.fetched = server.fetched or self.path == "/api/tarry-config"
            self.send_response(200 if self.path == "/api/tarry-config" else 404)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *args):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.fetched = False
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def bus_owner_pid(d):
    """The process that owns tarry's bus name; 0 when none does."""
    result = d.run(["gdbus", "call", "--session", "--dest", "org.freedesktop.DBus", "--object-path",
                    "/org/freedesktop/DBus", "--method", "org.freedesktop.DBus.GetConnectionUnixProcessID",
                    "org.tarry.Tarry"], check=False)
    match = re.search(r"uint32 (\d+)", result.stdout.decode())
    return int(match.group(1)) if match else 0


def main():
    return run_session_cases(CASES, ("--tarry", "--extensions"),
                             lambda args: GnomeDesktop(args.tarry, extension_build(args.extensions),
                                                       install_extension=not args.case.startswith("first_run")))

def extension_build(root):
    """The extension's build for the installed Shell: ES modules from GNOME 45."""
    try:
        version = subprocess.run(["gnome-shell", "--version"], capture_output=True, text=True).stdout
    except FileNotFoundError:
        raise Skip("gnome-shell is not installed")
    match = re.search(r"(\d+)\.", version)
    major = int(match.group(1)) if match else 0
    return os.path.join(root, "esm" if major >= 45 else "legacy", EXTENSION_UUID)


if __name__ == "__main__":
    sys.exit(main())
