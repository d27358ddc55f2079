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

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from sway_harness import SwayDesktop  # noqa: E402
from session_harness import case_registry, check, run_session_cases, settle, wait_for  # noqa: E402
import session_cases  # noqa: E402

from session_cases import QT_KEY_Q  # noqa: E402

CASES, case = case_registry()
session_cases.register(case, {"close_hold_types_ctrl_w": "close_hold_reposts_ctrl_w"})


@case
def terminal_running_sleep_gets_longer_hold(d):
    foot = d.spawn(["foot", "--app-id", "foot", "sh", "-c", "sleep 300; :"], "foot")
    wait_for("foot to take the focus", lambda: d.focused_app() == "foot", timeout=10)
    d.start_tarry()
    # Held past the 2 s base: the running command doubles the hold.
    d.hold("q", 2800).wait(timeout=10)
    settle()
    check(foot.poll() is None, "foot was quit after 2.8 s although a command runs in it")
    wait_for("the busy check to be counted", lambda: d.counter("busy") == 1)
    check(d.counter("saved") == 1, "the released hold was not counted as blocked")
    d.hold("q", 4800).wait(timeout=10)
    wait_for("foot to close after the longer hold", lambda: foot.poll() is not None, timeout=8)


@case
def killed_during_hold_leaves_sway_and_keys_working(d):
    client = d.start_client("app", "--no-quit")
    tarry = d.start_tarry()
    typing = d.hold("q", 1500)
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
    d.type("q", ("ctrl",), 200)
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
    d.type("q", ("ctrl",), 200)
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
