#!/usr/bin/env python3
"""End-to-end cases of the desktop application's shell: consent, one running copy, login launch,
pause, and a real terminal emulator in careful mode (see harness.py).

    shell_e2e.py --tarry PATH --client PATH CASE
"""

import os
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(1, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "update_real"))
from harness import Failure, case_registry, check, run_cases, settle, wait_for  # noqa: E402

KEY_Q = 24
CASES, case = case_registry()
CONSENT_TITLE = "Welcome to Tarry"


def windows_named(h, title):
    return h.search("--onlyvisible", "--name", "^%s$" % title)


def visible_windows_of(h, pid):
    return h.search("--onlyvisible", "--pid", str(pid))


def run_tarry(h, *args, timeout=15):
    return subprocess.run([h.tarry] + list(args), env=h.env, capture_output=True, text=True, timeout=timeout)


def stored(h, key):
    """The stored JSON text of `key`, or None while absent (writes reach the disk within ~1 s)."""
    try:
        return h.defaults("read", key)
    except Failure:
        return None


def guard_on_count(h):
    return h.events_log().count("keyboard guard on")


def running(pid):
    """False once the process has ended, also when nobody has reaped it yet (a process this script
    did not start is not its child)."""
    try:
        with open("/proc/%d/stat" % pid, encoding="utf-8") as f:
            return f.read().rsplit(")", 1)[1].split()[0] not in ("Z", "X")
    except (OSError, IndexError):
        return False


def copies_of_tarry(h):
    """The pids of the tarry programs (not their hand-over launches) on this desktop, also those
    this script did not start."""
    pids = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            if os.readlink("/proc/%s/exe" % entry) != os.path.realpath(h.tarry):
                continue
            with open("/proc/%s/environ" % entry, "rb") as f:
                env = f.read().split(b"\0")
        except OSError:
            continue
        if running(int(entry)) and ("DISPLAY=" + h.env["DISPLAY"]).encode() in env:
            pids.append(int(entry))
    return pids


class Adopted:
    """A process this script did not start, ended with the others."""

    def __init__(self, pid):
        self.pid = pid

    def poll(self):
        return None if running(self.pid) else 0

    def terminate(self):
        self.send_signal(signal.SIGTERM)

    def kill(self):
        self.send_signal(signal.SIGKILL)

    def send_signal(self, number):
        try:
            os.kill(self.pid, number)
        except ProcessLookupError:
            pass

    def wait(self, timeout=None):
        end = time.monotonic() + (timeout or 1e9)
        while self.poll() is None:
            if time.monotonic() > end:
                raise subprocess.TimeoutExpired("pid %d" % self.pid, timeout)
            time.sleep(0.05)
        return 0


@case
def consent_first_then_guard(h):
    h.defaults("delete", "consentVersion")
    client = h.start_client("app")
    tarry = h.spawn([h.tarry], "tarry")
    wait_for("the consent window", lambda: windows_named(h, CONSENT_TITLE), timeout=10)
    check(visible_windows_of(h, tarry.pid) == windows_named(h, CONSENT_TITLE),
          "tarry shows more than the consent window")
    # No grabs before Agree: Ctrl+Q goes straight to the application.
    h.activate(client.windows[-1])
    h.key("ctrl+q")
    wait_for("Ctrl+Q to reach the client", lambda: client.presses(KEY_Q), timeout=5)
    check("keyboard guard on" not in h.events_log(), "the guard started before consent")
    check(h.counter("launches") == 0, "the launch sequence ran before consent")
    window = windows_named(h, CONSENT_TITLE)[0]
    h.activate(window)
    h.key("Return")  # Agree is the default button
    wait_for("the guard after Agree", lambda: guard_on_count(h) == 1, timeout=10)
    wait_for("the consent to be stored", lambda: stored(h, "consentVersion") == "1")
    wait_for("the consent window to go", lambda: not windows_named(h, CONSENT_TITLE), timeout=5)
    check(tarry.poll() is None, "tarry ended after Agree")


@case
def disagree_ends_the_program(h):
    h.defaults("delete", "consentVersion")
    tarry = h.spawn([h.tarry], "tarry")
    wait_for("the consent window", lambda: windows_named(h, CONSENT_TITLE), timeout=10)
    h.activate(windows_named(h, CONSENT_TITLE)[0])
    h.key("alt+F4")  # closing the window without a choice is Disagree
    wait_for("tarry to end", lambda: tarry.poll() is not None, timeout=10)
    check(tarry.returncode == 0, "tarry ended with status %s" % tarry.returncode)
    check("keyboard guard on" not in h.events_log(), "the guard started")
    check("consent declined" in h.events_log(), "the refusal was not logged")


@case
def second_launch_hands_over(h):
    h.start_tarry()
    second = run_tarry(h)
    check(second.returncode == 0, "the second launch ended with %d: %s" % (second.returncode, second.stderr))
    wait_for("the first copy to hear of it", lambda: "show settings requested by a second launch" in h.events_log())
    check(guard_on_count(h) == 1, "the second launch started a guard")
    check(h.tarry_proc.poll() is None, "the first copy ended")
    # The session's logout ends it with SIGTERM, through the orderly termination.
    h.tarry_proc.send_signal(signal.SIGTERM)
    check(h.tarry_proc.wait(timeout=10) == 0, "SIGTERM ended tarry with status %s" % h.tarry_proc.returncode)
    check(" terminate\n" in h.events_log(), "SIGTERM did not go through the termination")


@case
def racing_launches_leave_one(h):
    procs = [h.spawn([h.tarry], "tarry%d" % i) for i in range(3)]
    wait_for("two of three to hand over and end", lambda: sum(p.poll() is not None for p in procs) == 2, timeout=15)
    settle(1.0)
    running = [p for p in procs if p.poll() is None]
    check(len(running) == 1, "%d copies run" % len(running))
    check(all(p.returncode == 0 for p in procs if p.poll() is not None), "a handing-over copy failed")
    wait_for("one guard", lambda: guard_on_count(h) == 1)


@case
def killed_copy_leaves_no_stale_socket(h):
    h.start_tarry()
    first = h.tarry_proc
    os.kill(first.pid, signal.SIGKILL)
    first.wait()
    runtime = h.env["XDG_RUNTIME_DIR"]
    check(any(name.endswith(".sock") for name in os.listdir(runtime)), "no socket file was left to test with")
    h.tarry_proc = h.spawn([h.tarry], "tarry2")
    wait_for("the new copy's guard", lambda: guard_on_count(h) == 2, timeout=10)
    second = run_tarry(h, "--resume")
    check(second.returncode == 0, "the new copy does not answer: %s" % second.stderr)


@case
def updated_copy_takes_the_running_copys_place(h):
    # The running copy starts itself again as an installed update does, and quits once the new copy
    # says it runs. The new copy must be the running copy from then on: a launch the moment the old
    # one has gone reaches it instead of becoming a second running copy.
    h.start_tarry({"TARRY_DEBUG_RELAUNCH_AFTER": "1"})
    old = h.tarry_proc
    check(old.wait(timeout=30) == 0, "the old copy ended with status %s" % old.returncode)
    try:
        second = run_tarry(h)
    finally:
        new = copies_of_tarry(h)
        h.procs.extend(Adopted(pid) for pid in new)
    check(second.returncode == 0, "the launch after the update ended with %d: %s" % (second.returncode, second.stderr))
    check("relaunched, restarting" in h.events_log(), "the old copy did not log the relaunch")
    check(len(new) == 1, "%d copies run after the update" % len(new))
    wait_for("the new copy to hear of the launch",
             lambda: "show settings requested by a second launch" in h.events_log())
    wait_for("the new copy's guard once the old one is gone", lambda: guard_on_count(h) == 2, timeout=15)


@case
def automatic_update_offer_waits_for_the_hold_to_end(h):
    # The automatic check (10 s after launch) finds a newer version while Ctrl+Q is held: its modal
    # offer would take the keyboard mid-hold, so it waits until the hold is over and a quiet second
    # has passed.
    sys.argv[1:] = ["unused-probe", "unused-sign-tool"]
    import update_https_test as feed  # noqa: E402 (the https server of the update tests)
    ca, cert, key = feed.make_certs()
    server = feed.start_server(cert, key)
    try:
        port = server.server_address[1]
        feed.publish(b"archive", b"signature", port)
        h.defaults("write", "holdSeconds", "7")
        client = h.start_client("app")
        h.start_tarry({"TARRY_SERVER_URL": "https://127.0.0.1:%d" % port, "SSL_CERT_FILE": ca},
                      args=["--autostart"])
        launched = time.monotonic()
        time.sleep(max(0.0, 6.0 - (time.monotonic() - launched)))
        h.activate(client.windows[-1])
        h.keydown("ctrl+q")
        wait_for("the offer to be held back", lambda: "the offer waits for a quiet moment" in h.events_log(),
                 timeout=6)
        check("update available" not in h.events_log(), "the offer came during the hold")
        h.keyup("ctrl+q")
        released = time.monotonic()
        wait_for("the offer after the hold", lambda: "update available 2.0" in h.events_log(), timeout=10)
        check(time.monotonic() - released >= 0.9, "the offer did not wait for a quiet second")
        check(client.alive(), "the hold was not released in time and quit the client")
    finally:
        server.shutdown()


@case
def login_launch_opens_no_window(h):
    h.tarry_proc = h.spawn([h.tarry, "--autostart"], "tarry")
    wait_for("the guard", lambda: guard_on_count(h) == 1, timeout=10)
    settle(1.0)
    check(not visible_windows_of(h, h.tarry_proc.pid), "a login launch showed a window")
    check("settings window" not in h.events_log(), "a login launch asked for Settings")
    # The autostart entry it registered starts it the same way.
    entry = os.path.join(h.env["XDG_CONFIG_HOME"], "autostart", "org.tarry.Tarry.desktop")
    with open(entry, encoding="utf-8") as f:
        check("--autostart" in f.read(), "the autostart entry does not mark a login launch")
    wait_for("the login default to be recorded", lambda: stored(h, "loginDefaultDone") == "true")


@case
def pause_lets_ctrl_q_through(h):
    client = h.start_client("app")
    h.start_guard()

    def request(*args):
        result = run_tarry(h, *args)
        check(result.returncode == 0, "%s failed: %s" % (" ".join(args), result.stderr))

    # Each request answers once the running copy has made the change and stored it: read back at
    # once, the database already holds it (the copy commits its writes 0.2 s later on its own).
    request("--pause", "15")
    pause_until = float(stored(h, "pauseUntil") or 0)
    check(abs(pause_until - (time.time() + 900)) < 30, "right after --pause 15, pauseUntil is %s" % pause_until)
    h.activate(client.windows[-1])
    h.key("ctrl+q")
    wait_for("Ctrl+Q to reach the client", lambda: client.presses(KEY_Q), timeout=5)
    check(not h.hud_visible(), "the HUD showed while paused")
    request("--resume")
    check(stored(h, "pauseUntil") in ("0", "0.0"), "right after --resume, pauseUntil is %s" % stored(h, "pauseUntil"))
    # A script that resumes and pauses again reads the second pause, not the state before both.
    request("--pause", "60")
    pause_until = float(stored(h, "pauseUntil") or 0)
    check(abs(pause_until - (time.time() + 3600)) < 30, "right after --pause 60, pauseUntil is %s" % pause_until)


@case
def terminal_running_a_command_holds_longer(h):
    xterm = h.spawn(["xterm", "-T", "busy-term", "-e", "sleep", "300"], "xterm")
    wait_for("xterm's window", lambda: windows_named(h, "busy-term"), timeout=10)
    h.start_guard()
    h.activate(windows_named(h, "busy-term")[0])
    # Plain hold is 2 s; a command in a terminal doubles it. Let go at 3 s: still blocked.
    h.keydown("ctrl+q")
    wait_for("the HUD to show", h.hud_visible, timeout=5)
    time.sleep(3.0)
    h.keyup("ctrl+q")
    wait_for("the hold to be counted as blocked", lambda: h.counter("saved") == 1, timeout=5)
    check(xterm.poll() is None, "xterm was quit by a plain hold")
    check(h.counter("cat.attempt.terminal") == 1, "telemetry did not file xterm as a terminal")


def main():
    return run_cases(CASES)


if __name__ == "__main__":
    sys.exit(main())
