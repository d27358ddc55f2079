"""The figures the desktop benchmarks print (sway_latency.py, kde_latency.py, gnome_latency.py,
launch_idle.py): delays, a process's CPU time and wake-ups, and the run that sway's and KWin's
latency benchmarks share."""

import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
from session_harness import wait_for  # noqa: E402

QT_KEY_Q = 0x51


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(p / 100 * (len(ordered) - 1))))]


def describe(name, values_ms, width=42):
    return "%-*s n=%-4d median %7.2f ms   p99 %7.2f ms" % (
        width, name, len(values_ms), statistics.median(values_ms), percentile(values_ms, 99))


def matched(sent, arrived, ends=None):
    """For each press sent, the delay to the first arrival after it and before the next press (or
    before its entry in `ends`)."""
    delays = []
    for i, t0 in enumerate(sent):
        if ends is not None:
            t_next = ends[i] if i < len(ends) else float("inf")
        else:
            t_next = sent[i + 1] if i + 1 < len(sent) else float("inf")
        hits = [t for t in arrived if t0 <= t < t_next]
        if hits:
            delays.append((hits[0] - t0) * 1000)
    return delays


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def thread_switches(pid):
    """{(tid, name): context switches} of every thread."""
    out = {}
    for task in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/comm" % (pid, task)) as f:
                name = f.read().strip()
            total = 0
            with open("/proc/%d/task/%s/status" % (pid, task)) as f:
                for line in f:
                    if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                        total += int(line.split()[1])
            out[(task, name)] = total
        except FileNotFoundError:
            pass  # a thread that ended meanwhile
    return out


def let_through_and_hud(d, client_id, typed, presses, hud_argv, hud_presses):
    """On a desktop `d` with the Wayland test client (`client_id`): Ctrl+Q typed by
    `typed(d, presses, hold_ms, gap_ms)` (which returns the times of the presses) without tarry,
    then let through by tarry's rule "instant", then short presses to the HUD with tarry started
    as `hud_argv` and TARRY_DEBUG_HUD_TIMES. Prints the figures."""
    app = d.start_client("app", "--no-quit")

    def presses_since(t):
        return [at for at, key, ctrl in app.presses(QT_KEY_Q) if ctrl and at >= t]

    t = time.monotonic()
    sent = typed(d, presses, 30, 40)
    wait_for("the last press", lambda: len(presses_since(t)) >= len(sent) * 0.9, timeout=5)
    direct = matched(sent, presses_since(t))

    d.defaults("write", "appModes", '{"%s": "instant"}' % client_id)
    d.start_tarry()
    time.sleep(0.5)
    t = time.monotonic()
    sent = typed(d, presses, 30, 40)
    wait_for("the last press", lambda: len(presses_since(t)) >= len(sent) * 0.9, timeout=5)
    through = matched(sent, presses_since(t))
    d.tarry_proc.terminate()
    d.tarry_proc.wait(timeout=10)

    d.defaults("delete", "appModes")
    hud = d.spawn(hud_argv, "tarry-hud", {"TARRY_DEBUG_HUD_TIMES": "1"})
    wait_for("tarry", lambda: d.events_log().count("keyboard guard on") >= 2)
    time.sleep(0.5)
    sent = typed(d, hud_presses, 150, 900)
    time.sleep(0.5)
    hud.terminate()
    hud.wait(timeout=10)
    shown = [int(line.split()[1]) / 1e6 for line in d.output("tarry-hud").splitlines()
             if line.startswith("hud-shown ")]
    to_hud = matched(sent, shown)

    print(describe("Ctrl+Q at the client, no tarry", direct))
    print(describe("Ctrl+Q at the client, let through (instant)", through))
    print("tarry adds: median %.2f ms, p99 %.2f ms" % (
        statistics.median(through) - statistics.median(direct),
        percentile(through, 99) - percentile(direct, 99)))
    print(describe("key press -> HUD buffer committed", to_hud))
    print("(%d/%d, %d/%d and %d/%d presses matched)" % (
        len(direct), presses, len(through), presses, len(to_hud), hud_presses))
