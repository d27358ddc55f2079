#!/usr/bin/env python3
"""End-to-end cases of tarry on a headless sway (see sway_harness.py).

    sway_e2e.py --tarry PATH --client PATH CASE     runs one case; 0 when it holds, 77 when sway
                                                    cannot run here
    sway_e2e.py --list                               names the cases
"""

import os
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from sway_harness import CLIENT_ID, SwayDesktop  # noqa: E402
from session_harness import case_registry, check, run_session_cases, settle, wait_for  # noqa: E402

QT_KEY_Q, QT_KEY_W = 0x51, 0x57

CASES, case = case_registry()


def hold(d, key, ms, mods=("ctrl",)):
    """Holds mods+key for `ms` milliseconds in the background; the wtype process."""
    args = []
    for m in mods:
        args += ["-M", m]
    args += ["-P", key, "-s", str(ms), "-p", key]
    for m in reversed(mods):
        args += ["-m", m]
    return d.wtype(*args, background=True)


@case
def short_press_is_blocked_with_hud(d):
    client = d.start_client("app")
    tarry = d.start_tarry()
    typing = hold(d, "q", 1200)
    wait_for("the HUD to show", d.hud_visible, timeout=1.1, interval=0.05)
    check(all(pid != tarry.pid for _, pid, _ in d.views()), "the HUD is a window in the tiling tree")
    typing.wait(timeout=10)
    wait_for("one blocked quit to be counted", lambda: d.counter("saved") == 1)
    wait_for("the HUD to hide", lambda: not d.hud_visible(), timeout=5)
    settle()
    check(client.alive(), "the client ended")
    check(not client.presses(QT_KEY_Q), "Ctrl+Q reached the client: %s" % client.presses(QT_KEY_Q))
    check(d.focused_app() == CLIENT_ID, "the client lost the focus")


@case
def long_hold_quits_politely(d):
    # A client still busy starting up could earn a longer hold ("Working hard") on a loaded machine.
    d.defaults("write", "busyGuard", "false")
    client = d.start_client("app")
    d.start_tarry()
    hold(d, "q", 3000)
    # The default hold is 2 s: the compositor's close request must come well before the keys go up.
    wait_for("the client to leave its event loop", lambda: any(w == ["exit"] for _, w in client.lines()), timeout=2.9)
    # NOTE: once in a full-suite run the test client's process took more than 5 s to end after
    # leaving its event loop (Qt's Wayland teardown); the quit itself had been delivered.
    wait_for("the client to end", lambda: not client.alive(), timeout=15)
    check(client.close_requests() == [0], "not closed by the compositor's request: %s" % client.lines())
    check(not client.presses(QT_KEY_Q), "the held Ctrl+Q itself reached the client")
    wait_for("the quit to be counted", lambda: d.counter("quit") == 1)


@case
def instant_rule_passes_at_once(d):
    d.defaults("write", "appModes", '{"%s": "instant"}' % CLIENT_ID)
    client = d.start_client("app")
    d.start_tarry()
    d.wtype("-M", "ctrl", "-P", "q", "-s", "50", "-p", "q", "-m", "ctrl")
    wait_for("Ctrl+Q to reach the client", lambda: client.presses(QT_KEY_Q), timeout=8)
    check(client.presses(QT_KEY_Q)[0][2], "Q arrived without Ctrl")
    wait_for("the client to quit", lambda: not client.alive(), timeout=10)
    wait_for("the instant pass to be counted", lambda: d.counter("instant") == 1)


@case
def close_hold_reposts_ctrl_w(d):
    d.defaults("write", "closeHold", "1")
    client = d.start_client("app", "--windows", "2")
    d.start_tarry()
    # A short press is held back.
    d.wtype("-M", "ctrl", "-P", "w", "-s", "200", "-p", "w", "-m", "ctrl")
    settle()
    check(not client.closed(), "a short Ctrl+W closed a window")
    hold(d, "w", 1600).wait(timeout=10)
    wait_for("the focused window to close", lambda: client.closed(), timeout=8)
    check(client.closed() == [1], "closed %s instead of the focused window 1" % client.closed())
    check(client.alive(), "the client ended; only one window should close")
    check("Ctrl+W confirmed" in d.events_log(), "no confirmation in the log")


@case
def ctrl_released_first_cancels(d):
    client = d.start_client("app")
    d.start_tarry()
    # Ctrl goes up after 0.4 s while Q stays down for 3 s more, past the 2 s hold.
    started = time.monotonic()
    typing = d.wtype("-M", "ctrl", "-P", "q", "-s", "400", "-m", "ctrl", "-s", "3000", "-p", "q", background=True)
    wait_for("the hold to be cancelled", lambda: d.counter("saved") == 1, timeout=8)
    check(time.monotonic() - started < 2.5, "the hold ended only with the release of Q")
    typing.wait(timeout=10)
    settle()
    check(client.alive(), "the client was quit although Ctrl was released")
    check(d.counter("quit") == 0, "a quit was counted")


@case
def terminal_running_sleep_gets_longer_hold(d):
    foot = d.spawn(["foot", "--app-id", "foot", "sh", "-c", "sleep 300; :"], "foot")
    wait_for("foot to take the focus", lambda: d.focused_app() == "foot", timeout=10)
    d.start_tarry()
    # Held past the 2 s base: the running command doubles the hold.
    hold(d, "q", 2800).wait(timeout=10)
    settle()
    check(foot.poll() is None, "foot was quit after 2.8 s although a command runs in it")
    wait_for("the busy check to be counted", lambda: d.counter("busy") == 1)
    check(d.counter("saved") == 1, "the released hold was not counted as blocked")
    hold(d, "q", 4800).wait(timeout=10)
    wait_for("foot to close after the longer hold", lambda: foot.poll() is not None, timeout=8)


@case
def killed_during_hold_leaves_sway_and_keys_working(d):
    client = d.start_client("app", "--no-quit")
    tarry = d.start_tarry()
    typing = hold(d, "q", 1500)
    wait_for("the HUD to show", d.hud_visible, timeout=1.4, interval=0.05)
    tarry.send_signal(signal.SIGKILL)
    tarry.wait()
    typing.wait(timeout=10)
    settle()
    check(d.run(["swaymsg", "-t", "get_version"], check=False).returncode == 0, "sway died")
    check(not d.swallowing_bindings_fired_by(*CTRL_Q), "a binding outlived tarry")
    d.type_ctrl_q()
    wait_for("Ctrl+Q to reach the client", lambda: client.presses(QT_KEY_Q), timeout=8)


@case
def config_reload_keeps_the_guard(d):
    client = d.start_client("app")
    d.start_tarry()
    d.run(["swaymsg", "reload"])
    settle()
    d.wtype("-M", "ctrl", "-P", "q", "-s", "200", "-p", "q", "-m", "ctrl")
    wait_for("the short press to be blocked after the reload", lambda: d.counter("saved") == 1)
    check(client.alive(), "the client ended")


@case
def russian_layout_is_guarded_on_the_q_key(d):
    # On a Russian layout the Q key types й; applications take Ctrl+й as Ctrl+Q, so the guard must.
    d.defaults("write", "busyGuard", "false")
    client = d.start_client("app")
    d.start_tarry()
    d.type_ctrl_key("Cyrillic_shorti", "ru", 200)
    wait_for("the short press to be blocked", lambda: d.counter("saved") == 1)
    settle()
    check(client.alive(), "a short Ctrl+Q on the Russian layout quit the client")
    d.type_ctrl_key("Cyrillic_shorti", "ru", 3000, background=True)
    wait_for("the client to be quit by the held keys", lambda: not client.alive(), timeout=15)
    wait_for("the quit to be counted", lambda: d.counter("quit") == 1)


@case
def other_wayland_desktop_is_named(d):
    # A Wayland session without sway's IPC, and neither GNOME nor KDE Plasma.
    tarry = d.spawn([d.tarry, "--autostart"], "tarry", {"SWAYSOCK": None, "XDG_CURRENT_DESKTOP": "Hyprland"})
    wait_for("the reason in the log", lambda: "keyboard guard off: this Wayland desktop is not supported yet: "
             "Hyprland" in d.events_log())
    check(tarry.poll() is None, "tarry ended instead of running with the guard off")
    check("this Wayland desktop is not supported yet: Hyprland" in d.output("tarry"), "nothing said on stderr")


CTRL_Q = ("-M", "ctrl", "-P", "q", "-s", "50", "-p", "q", "-m", "ctrl")


@case
def relaunch_hands_the_guard_on(d):
    # As an installed update does: the new copy starts while the old one runs, and the old one
    # quits once the new one runs. Bindings are the compositor's, not a connection's: the old
    # copy's leaving must not take the new copy's away.
    d.defaults("write", "busyGuard", "false")
    client = d.start_client("app")
    old = d.start_tarry({"TARRY_DEBUG_RELAUNCH_AFTER": "1"})
    wait_for("the old copy to quit", lambda: old.poll() is not None, timeout=20)
    wait_for("the new copy to guard", lambda: d.events_log().count("keyboard guard on") == 2, timeout=10)
    # The new copy is not a login launch: its Settings window opens; the client comes back to the front.
    settle(1.0)
    d.run(["swaymsg", '[app_id="%s"] focus' % CLIENT_ID])
    wait_for("the client to be in front", lambda: d.focused_app() == CLIENT_ID)
    hold(d, "q", 200).wait(timeout=10)
    wait_for("the new copy to block a short press", lambda: d.counter("saved") == 1)
    check(not client.presses(QT_KEY_Q), "Ctrl+Q reached the client past the new copy")
    hold(d, "q", 2600).wait(timeout=10)
    wait_for("the held Ctrl+Q to quit the client", lambda: not client.alive(), timeout=15)
    confirmed = [line for line in d.events_log().splitlines() if "quit confirmed:" in line]
    check(len(confirmed) == 1 and CLIENT_ID in confirmed[0], "not the client was quit: %s" % confirmed)


@case
def killed_tarry_leaves_ctrl_q_working(d):
    client = d.start_client("app", "--no-quit")
    tarry = d.start_tarry()
    check(d.swallowing_bindings_fired_by(*CTRL_Q), "no binding holds Ctrl+Q back while tarry runs")
    tarry.send_signal(signal.SIGKILL)
    tarry.wait()
    # Its helper removes the bindings as soon as it is gone.
    wait_for("the bindings to go after kill -9", lambda: not d.swallowing_bindings_fired_by(*CTRL_Q), timeout=8)
    d.type_ctrl_q()
    wait_for("Ctrl+Q to reach the client", lambda: client.presses(QT_KEY_Q), timeout=8)

    # Helper and program killed together: the bindings stay until the next start removes them.
    tarry = d.start_tarry()
    helpers = subprocess.run(["pgrep", "-P", str(tarry.pid)], capture_output=True, text=True).stdout.split()
    check(helpers, "no helper process next to tarry")
    for pid in helpers:
        os.kill(int(pid), signal.SIGKILL)
    tarry.send_signal(signal.SIGKILL)
    tarry.wait()
    settle()
    check(d.swallowing_bindings_fired_by(*CTRL_Q), "the bindings went although nothing removed them (the case proves nothing)")
    tarry = d.start_tarry()
    d.wtype("-M", "ctrl", "-P", "q", "-s", "200", "-p", "q", "-m", "ctrl")
    wait_for("the new guard to block a short press", lambda: d.counter("saved") >= 1)
    tarry.terminate()
    tarry.wait(timeout=10)
    check(not d.swallowing_bindings_fired_by(*CTRL_Q), "bindings left after a normal exit")
    before = len(client.presses(QT_KEY_Q))
    d.type_ctrl_q()
    wait_for("Ctrl+Q to reach the client after a normal exit", lambda: len(client.presses(QT_KEY_Q)) > before, timeout=8)


def main():
    return run_session_cases(CASES, ("--tarry", "--client", "--typist"),
                             lambda args: SwayDesktop(args.tarry, args.client, args.typist))

if __name__ == "__main__":
    sys.exit(main())
