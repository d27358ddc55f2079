#!/usr/bin/env bash
# Shows Undo Quit on a private X server (Xvfb + openbox, through the end-to-end harness): a test
# application with three windows (the first minimized, the others moved and resized by hand) is quit by a held
# Ctrl+Q and brought back by Ctrl+Alt+Z. Saves the screen before the quit and after the undo side
# by side in one PNG and prints its path.
#
#   scripts/undo-screenshot.sh [OUTPUT.png]
#
# TARRY_BIN and TARRY_TEST_CLIENT pick the programs (default: the first build found).
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/find-built.sh
bin="${TARRY_BIN:-$(find_built main/cli/tarry)}"
client="${TARRY_TEST_CLIENT:-$(find_built tests/x11/tarry-test-client)}"
if [ -z "$bin" ] || [ -z "$client" ]; then
  echo "undo-screenshot: build tarry and tarry-test-client first (or set TARRY_BIN, TARRY_TEST_CLIENT)" >&2
  exit 1
fi
out="${1:-${TMPDIR:-/tmp}/tarry-undo-screenshot.png}"

python3 - "$bin" "$client" "$out" <<'PYTHON'
import os, subprocess, sys, tempfile, time
sys.path.insert(0, os.path.join(os.getcwd(), "tests", "e2e"))
from harness import CLIENT_ID, Harness, wait_for
from e2e import close_enough, frame_of, hold_quit, minimized, ready_windows, write_entry

tarry, client, out = sys.argv[1:4]
h = Harness(os.path.abspath(tarry), os.path.abspath(client))
work = tempfile.mkdtemp(prefix="tarry-undo-shot-")
try:
    again_log = os.path.join(h.tmp, "again.log")
    common = ["--windows", "3", "--title", "Notes", "--geometry", "360x240+80+80", "--icon", "16,32,48"]
    write_entry(h, CLIENT_ID, "Notes", "TarryTestClient", ["--log", again_log] + common)
    # (The harness activates the last window, so the first is the minimized one.)
    app = h.start_client("app", *(common + ["--minimize", "1"]))
    first, second, third = app.windows
    h.x("xdotool", "windowsize", "--sync", str(second), "520", "330")
    h.x("xdotool", "windowmove", "--sync", str(second), "680", "360")
    h.x("xdotool", "windowmove", "--sync", str(third), "120", "420")
    wait_for("the first window to be minimized", lambda: minimized(h, first), timeout=5)
    frames = [frame_of(h, w) for w in (second, third)]
    h.activate(second)
    # As at login, without a tray: no window of tarry's own covers the test application.
    h.start_guard()
    before = os.path.join(work, "before.png")
    subprocess.run(["import", "-window", "root", before], env=h.env, check=True)
    hold_quit(h, app)
    wait_for("the quit to be recorded", lambda: "can bring it back" in h.events_log(), timeout=5)
    h.key("ctrl+alt+z")
    windows = wait_for("the app to come back", lambda: ready_windows(again_log), timeout=10)
    wait_for("the windows in their places",
             lambda: all(close_enough(frame_of(h, w), f) for w, f in zip(windows[1:], frames))
             and minimized(h, windows[0]), timeout=10)
    time.sleep(0.3)
    after = os.path.join(work, "after.png")
    subprocess.run(["import", "-window", "root", after], env=h.env, check=True)
    subprocess.run(["montage", "-label", "before Ctrl+Q", before, "-label", "after Ctrl+Alt+Z", after,
                    "-tile", "2x1", "-geometry", "+8+8", "-pointsize", "22", out], check=True)
finally:
    h.close()
    subprocess.run(["rm", "-rf", work])
print(out)
PYTHON
