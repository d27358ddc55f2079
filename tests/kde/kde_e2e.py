#!/usr/bin/env python3
"""End-to-end cases of tarry on a headless KWin (see kde_harness.py).

    kde_e2e.py --tarry PATH --client PATH --typist PATH CASE   runs one case; 0 when it holds, 77
                                                               when KWin cannot run here
    kde_e2e.py --list                                          names the cases
"""

import os
import signal
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from kde_harness import (CLIENT_ENTRY, CLIENT_ID, KEY_ALT, KEY_CTRL, KEY_ENTER, KEY_Q, KEY_SHIFT, KEY_W,  # noqa: E402
                         KEY_Z, KdeDesktop)
from session_harness import case_registry, check, run_session_cases, settle, wait_for  # noqa: E402
import session_cases  # noqa: E402

from session_cases import QT_KEY_Q, QT_KEY_W  # noqa: E402

CASES, case = case_registry()
session_cases.register(case)


@case
def press_twice_quits(d):
    d.defaults("write", "style", "1")
    client = d.start_client("app")
    d.start_tarry()
    # Held past the start of KWin's key repeat (660 ms), which presses the shortcut again: still
    # one press.
    d.type(KEY_Q, (KEY_CTRL,), 900)
    wait_for("the first press to be taken", lambda: d.counter("twice.first") == 1)
    check(client.alive(), "one held press quit the client")
    # Within the 1.6 s that the second press has.
    d.type(KEY_Q, (KEY_CTRL,))
    wait_for("the client to quit on the second press", lambda: not client.alive(), timeout=10)
    check(client.close_requests() == [0], "not closed by KWin's request: %s" % client.lines())
    wait_for("the confirmation to be counted", lambda: d.counter("twice.confirmed") == 1)


@case
def press_twice_logout_types_ctrl_shift_q(d):
    # The second press is typed back from inside the shortcut's handler, while the keys are down.
    d.defaults("write", "style", "1")
    client = d.start_client("app", "--no-quit")
    d.start_tarry()
    d.type(KEY_Q, (KEY_CTRL, KEY_SHIFT))
    wait_for("the first press to be taken", lambda: d.counter("twice.first") == 1)
    settle()
    check(not client.presses(QT_KEY_Q), "the first Ctrl+Shift+Q reached the client")
    d.type(KEY_Q, (KEY_CTRL, KEY_SHIFT))
    wait_for("Ctrl+Shift+Q to reach the client", lambda: client.presses(QT_KEY_Q), timeout=5)
    presses = client.presses(QT_KEY_Q)
    check(len(presses) == 1 and presses[0][2], "the client got %s, not one Ctrl+Shift+Q" % presses)
    check(any(w[:2] == ["press", str(QT_KEY_Q)] and w[3] == "1" for _, w in client.lines()), "Shift was not held")
    wait_for("the confirmation to be counted", lambda: d.counter("twice.confirmed") == 1)


@case
def copy_without_launcher_registers_itself(d):
    # No desktop file names this copy of tarry: it writes its own, and KWin lets it type keys.
    d.defaults("write", "appModes", '{"%s": "instant"}' % CLIENT_ID)
    client = d.start_client("app", "--no-quit")
    d.start_tarry()
    entry = os.path.join(d.tmp, "data", "applications", "org.tarry.Tarry.FakeInput.desktop")
    wait_for("tarry's own desktop file", lambda: os.path.exists(entry))
    with open(entry, encoding="utf-8") as f:
        text = f.read()
    check("Exec=%s\n" % d.tarry in text, "the entry does not start this copy: " + text)
    # KWin's service cache learns of it within a few seconds.
    def passes():
        d.type(KEY_Q, (KEY_CTRL,), 30)
        time.sleep(0.3)
        return client.ctrl_presses(QT_KEY_Q)
    wait_for("a let-through Ctrl+Q to reach the client", passes, timeout=15, interval=0.5)


@case
def close_without_fake_input_closes_the_window(d):
    # tarry cannot write its desktop file (the applications folder is not the user's): KWin never
    # offers it fake input.
    d.lock_applications()
    d.defaults("write", "closeHold", "1")
    client = d.start_client("app", "--windows", "2")
    d.start_tarry()
    d.hold(KEY_W, 1600).wait(timeout=10)
    wait_for("the focused window to be closed by KWin", lambda: client.close_requests(), timeout=8)
    check(len(client.close_requests()) == 1, "closed %s" % client.close_requests())
    check(client.alive(), "the client ended; only one window should close")
    check(not client.presses(QT_KEY_W), "Ctrl+W reached the client although nothing could type it")
    wait_for("the guard state to say so", lambda: "closes the window instead" in d.events_log())


def close_enough(a, b, slack=4):
    return all(abs(x - y) <= slack for x, y in zip(a, b))


@case
def undo_brings_the_app_back_in_place(d):
    d.defaults("write", "busyGuard", "false")
    relaunch_log = os.path.join(d.tmp, "relaunched.log")
    with open(os.path.join(d.tmp, "data", "applications", CLIENT_ID + ".desktop"), "w", encoding="utf-8") as f:
        f.write(CLIENT_ENTRY.replace("Exec=tarry-wayland-client",
                                     "Exec=%s --log %s --windows 2" % (d.client, relaunch_log)))
    client = d.start_client("app", "--windows", "2")
    first, second = "Tarry Wayland Client 0", "Tarry Wayland Client 1"
    # The user moved and sized the second window and minimized the first.
    moved = [600, 350, 400, 260]
    check(d.set_window(second, frame=moved, activate=True), "no window %r: %s" % (second, d.windows()))
    d.set_window(first, minimized=True)
    frames = lambda: {w["caption"]: w for w in d.windows() if w["pid"] == client.process.pid}  # noqa: E731
    wait_for("the second window in its new place", lambda: close_enough(frames()[second]["frame"], moved))
    before = frames()[second]["frame"]
    d.start_tarry()
    typing = d.hold(KEY_Q, 3000)
    wait_for("the client to end", lambda: not client.alive(), timeout=15)
    typing.wait(timeout=10)
    wait_for("the quit in the log", lambda: "quit confirmed" in d.events_log(), timeout=5)
    settle(0.6)
    d.type(KEY_Z, (KEY_CTRL, KEY_ALT))
    wait_for("the app to come back", lambda: os.path.exists(relaunch_log) and "ready" in open(relaunch_log).read(),
             timeout=10)
    again = lambda: {w["caption"]: w for w in d.windows() if w["pid"] != client.process.pid}  # noqa: E731
    wait_for("the moved window back in its place (was %s)" % (before,),
             lambda: second in again() and close_enough(again()[second]["frame"], before), timeout=10)
    wait_for("the first window minimized again", lambda: again().get(first, {}).get("minimized"), timeout=10)
    check(not again()[second]["minimized"], "the second window came back minimized")
    wait_for("the reopened app to be counted", lambda: d.counter("reopened") == 1, timeout=10)


@case
def quit_others_keeps_the_front_app(d):
    other = d.start_client("other", "--app-id", "org.tarry.Other")
    front = d.start_client("front")
    d.start_tarry({"TARRY_DEBUG_QUIT_OTHERS_AFTER": "1"})
    # The confirmation is tarry's own window.
    wait_for("the confirmation", lambda: any(w["caption"] == "Tarry" for w in d.windows()), timeout=10)
    d.set_window("Tarry", activate=True)
    settle()
    d.type(KEY_ENTER)
    wait_for("the other app to be asked to quit", lambda: other.close_requests(), timeout=8)
    wait_for("the other app to end", lambda: not other.alive(), timeout=10)
    check(front.alive(), "the front app ended")
    wait_for("the run to be counted", lambda: d.counter("bulkRuns") == 1)


@case
def killed_during_hold_leaves_ctrl_q_working(d):
    client = d.start_client("app", "--no-quit")
    tarry = d.start_tarry()
    typing = d.hold(KEY_Q, 800)
    settle(0.4)
    tarry.send_signal(signal.SIGKILL)
    killed = time.monotonic()
    tarry.wait()
    typing.wait(timeout=10)
    check(not client.ctrl_presses(QT_KEY_Q), "the held Ctrl+Q reached the client while tarry ran")
    # Within a second of the kill, Ctrl+Q reaches the app again.
    time.sleep(max(0.0, 1.0 - (time.monotonic() - killed)))
    d.type(KEY_Q, (KEY_CTRL,))
    wait_for("Ctrl+Q to reach the client", lambda: client.ctrl_presses(QT_KEY_Q), timeout=2)

    # The next run guards again, and a normal exit leaves Ctrl+Q working too.
    tarry = d.start_tarry()
    before = len(client.ctrl_presses(QT_KEY_Q))
    d.type(KEY_Q, (KEY_CTRL,), 200)
    wait_for("the new guard to block a short press", lambda: d.counter("saved") >= 1)
    check(len(client.ctrl_presses(QT_KEY_Q)) == before, "Ctrl+Q reached the client past the new guard")
    tarry.terminate()
    tarry.wait(timeout=10)
    d.type(KEY_Q, (KEY_CTRL,))
    wait_for("Ctrl+Q to reach the client after a normal exit",
             lambda: len(client.ctrl_presses(QT_KEY_Q)) > before, timeout=3)


@case
def taken_shortcut_is_named(d):
    # Another program owns Ctrl+W before tarry starts.
    other = "array:string:other,close,Other,Close Window"
    d.run(["dbus-send", "--session", "--print-reply", "--dest=org.kde.kglobalaccel", "/kglobalaccel",
           "org.kde.KGlobalAccel.doRegister", other])
    d.run(["dbus-send", "--session", "--print-reply", "--dest=org.kde.kglobalaccel", "/kglobalaccel",
           "org.kde.KGlobalAccel.setShortcut", other, "array:int32:%d" % 0x04000057, "uint32:6"])
    client = d.start_client("app")
    d.start_tarry()
    wait_for("the taken combination in the log",
             lambda: "Ctrl+W is a global shortcut of Other (Close Window) and is not guarded" in d.events_log())
    # Ctrl+Q is still guarded.
    d.type(KEY_Q, (KEY_CTRL,), 200)
    wait_for("a short Ctrl+Q to be blocked", lambda: d.counter("saved") == 1)
    check(client.alive(), "the client ended")


# Cases that start tarry without a launcher that declares fake input for it.
UNREGISTERED = ("copy_without_launcher_registers_itself", "close_without_fake_input_closes_the_window")


def main():
    return run_session_cases(CASES, ("--tarry", "--client", "--typist"),
                             lambda args: KdeDesktop(args.tarry, args.client, args.typist,
                                                     register_tarry=args.case not in UNREGISTERED))

if __name__ == "__main__":
    sys.exit(main())
