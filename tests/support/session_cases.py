"""What sway and KWin share in their end-to-end runs: the Wayland test client, and the cases that
read the same on both. A desktop (see session_harness.py) types through `keys`/`type`/`hold` with
key names, brings a client to the front with `focus`, and may add its own checks in
`check_hud_shown`. `register(case)` adds the cases to a case file; a desktop that knows a case
under another name passes `names`."""

import time

from session_harness import ReadyClient, check, settle, wait_for

QT_KEY_Q, QT_KEY_W = 0x51, 0x57
CLIENT_ID = "org.tarry.WaylandClient"
CLIENT_ENTRY = """[Desktop Entry]
Type=Application
Name=Tarry Wayland Client
Exec=tarry-wayland-client
Icon=utilities-terminal
"""


class Client(ReadyClient):
    """A running tarry-wayland-client and its key log."""

    def presses(self, qt_key=None):
        """(time, Qt key, ctrl) of every key press received."""
        return [(at, int(w[1]), w[2] == "1") for at, w in self.lines()
                if w[0] == "press" and (qt_key is None or int(w[1]) == qt_key)]

    def ctrl_presses(self, qt_key):
        return [p for p in self.presses(qt_key) if p[2]]

    def close_requests(self):
        return [int(w[1]) for _, w in self.lines() if w[0] == "close-request"]


def short_press_is_blocked_with_hud(d):
    client = d.start_client("app")
    tarry = d.start_tarry()
    typing = d.hold("q", 1200)
    wait_for("the HUD to show", d.hud_visible, timeout=1.1, interval=0.05)
    d.check_hud_shown(tarry)
    typing.wait(timeout=10)
    wait_for("one blocked quit to be counted", lambda: d.counter("saved") == 1)
    wait_for("the HUD to hide", lambda: not d.hud_visible(), timeout=5)
    settle()
    check(client.alive(), "the client ended")
    check(not client.ctrl_presses(QT_KEY_Q), "Ctrl+Q reached the client: %s" % client.ctrl_presses(QT_KEY_Q))
    check(d.focused_pid() == client.process.pid, "the client lost the focus")


def long_hold_quits_politely(d):
    # A client still busy starting up could earn a longer hold ("Working hard") on a loaded machine.
    d.defaults("write", "busyGuard", "false")
    client = d.start_client("app")
    d.start_tarry()
    d.hold("q", 3000)
    # The default hold is 2 s: the compositor's close request must come well before the keys go up.
    wait_for("the client to leave its event loop", lambda: any(w == ["exit"] for _, w in client.lines()), timeout=2.9)
    # NOTE: once in a full-suite run the test client's process took more than 5 s to end after
    # leaving its event loop (Qt's Wayland teardown); the quit itself had been delivered.
    wait_for("the client to end", lambda: not client.alive(), timeout=15)
    check(client.close_requests() == [0], "not closed by the compositor's request: %s" % client.lines())
    check(not client.ctrl_presses(QT_KEY_Q), "the held Ctrl+Q itself reached the client")
    wait_for("the quit to be counted", lambda: d.counter("quit") == 1)


def ctrl_released_first_cancels(d):
    client = d.start_client("app")
    d.start_tarry()
    # Ctrl goes up after 0.4 s while Q stays down for 3 s more, past the 2 s hold.
    started = time.monotonic()
    typing = d.keys("+ctrl", "+q", 400, "-ctrl", 3000, "-q", background=True)
    wait_for("the hold to be cancelled", lambda: d.counter("saved") == 1, timeout=8)
    check(time.monotonic() - started < 2.5, "the hold ended only with the release of Q")
    typing.wait(timeout=10)
    settle()
    check(client.alive(), "the client was quit although Ctrl was released")
    check(d.counter("quit") == 0, "a quit was counted")


def instant_rule_passes_at_once(d):
    d.defaults("write", "appModes", '{"%s": "instant"}' % CLIENT_ID)
    client = d.start_client("app")
    d.start_tarry()
    d.type("q", ("ctrl",), 50)
    wait_for("Ctrl+Q to reach the client", lambda: client.ctrl_presses(QT_KEY_Q), timeout=8)
    wait_for("the client to quit", lambda: not client.alive(), timeout=10)
    wait_for("the instant pass to be counted", lambda: d.counter("instant") == 1)


def close_hold_types_ctrl_w(d):
    d.defaults("write", "closeHold", "1")
    client = d.start_client("app", "--windows", "2")
    d.start_tarry()
    # A short press is held back.
    d.type("w", ("ctrl",), 200)
    settle()
    check(not client.closed(), "a short Ctrl+W closed a window")
    check(not client.presses(QT_KEY_W), "a short Ctrl+W reached the client")
    d.hold("w", 1600).wait(timeout=10)
    wait_for("the focused window to close", lambda: client.closed(), timeout=8)
    check(client.closed() == [1], "closed %s instead of the focused window 1" % client.closed())
    check(client.alive(), "the client ended; only one window should close")
    check(client.ctrl_presses(QT_KEY_W), "Ctrl+W did not reach the client as a key press")
    check("Ctrl+W confirmed" in d.events_log(), "no confirmation in the log")
    check("closes the window instead" not in d.events_log(), "the key could not be typed")


def relaunch_hands_the_guard_on(d):
    # As an installed update does: the new copy starts while the old one runs, and the old one
    # quits once the new one runs. The old copy's leaving must not take the new copy's keys away.
    d.defaults("write", "busyGuard", "false")
    client = d.start_client("app", "--no-quit")
    old = d.start_tarry({"TARRY_DEBUG_RELAUNCH_AFTER": "1"})
    wait_for("the old copy to quit", lambda: old.poll() is not None, timeout=20)
    wait_for("the new copy to guard", lambda: d.events_log().count("keyboard guard on") == 2, timeout=10)
    # The new copy is not a login launch: its Settings window opens; the client comes back to the front.
    settle(1.0)
    d.focus(client)
    wait_for("the client to be in front", lambda: d.focused_pid() == client.process.pid)
    d.type("q", ("ctrl",), 200)
    wait_for("the new copy to block a short press", lambda: d.counter("saved") == 1)
    check(not client.ctrl_presses(QT_KEY_Q), "Ctrl+Q reached the client past the new copy")
    # The new copy's window helper answers: Ctrl+Q held long enough quits the client.
    d.hold("q", 2600).wait(timeout=10)
    wait_for("the held Ctrl+Q to be confirmed", lambda: "quit confirmed" in d.events_log(), timeout=5)
    confirmed = [line for line in d.events_log().splitlines() if "quit confirmed:" in line]
    check(len(confirmed) == 1 and CLIENT_ID in confirmed[0], "not the client was quit: %s" % confirmed)


SHARED = (short_press_is_blocked_with_hud, long_hold_quits_politely, ctrl_released_first_cancels,
          instant_rule_passes_at_once, close_hold_types_ctrl_w, relaunch_hands_the_guard_on)


def register(case, names=None):
    """Adds the shared cases through the case file's decorator; `names` renames some of them."""
    for fn in SHARED:
        name = (names or {}).get(fn.__name__, fn.__name__)
        case(fn, name)
