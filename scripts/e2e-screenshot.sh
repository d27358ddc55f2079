#!/usr/bin/env bash
# Shows tarry's HUD over the test client during a Ctrl+Q hold on a private X server (Xvfb +
# openbox, through the end-to-end harness) and saves a screenshot of the whole screen about one
# second into the hold. Prints the PNG's path.
#
#   scripts/e2e-screenshot.sh [OUTPUT.png]
#
# TARRY_BIN and TARRY_TEST_CLIENT pick the programs (default: the first build found).
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/find-built.sh
bin="${TARRY_BIN:-$(find_built main/cli/tarry)}"
client="${TARRY_TEST_CLIENT:-$(find_built tests/x11/tarry-test-client)}"
if [ -z "$bin" ] || [ -z "$client" ]; then
  echo "e2e-screenshot: build tarry and tarry-test-client first (or set TARRY_BIN, TARRY_TEST_CLIENT)" >&2
  exit 1
fi
out="${1:-${TMPDIR:-/tmp}/tarry-e2e-screenshot.png}"

python3 - "$bin" "$client" "$out" <<'PYTHON'
import os, subprocess, sys, time
sys.path.insert(0, os.path.join(os.getcwd(), "tests", "e2e"))
from harness import Harness, wait_for

tarry, client, out = sys.argv[1:4]
h = Harness(os.path.abspath(tarry), os.path.abspath(client))
try:
    # A large window in the middle of the screen, where the HUD opens.
    h.start_client("app", "--title", "Quarterly report - Tarry Test Client", "--geometry", "900x560+190+120",
                   "--icon", "16,32,48,128")
    # As at login, without a tray: no window of tarry's own covers the test application.
    h.start_guard()
    h.keydown("ctrl+q")
    wait_for("the HUD", h.hud_visible, timeout=5)
    time.sleep(1.0)
    subprocess.run(["import", "-window", "root", out], env=h.env, check=True)
    h.keyup("ctrl+q")
finally:
    h.close()
print(out)
PYTHON
