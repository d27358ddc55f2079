#!/usr/bin/env bash
# Shows tarry's HUD over the Wayland test client during a Ctrl+Q hold on a private headless sway
# (through the sway end-to-end harness, as an unprivileged user when run as root) and saves a
# grim screenshot of the whole output about one second into the hold. Prints the PNG's path.
#
#   scripts/sway-screenshot.sh [OUTPUT.png]
#
# TARRY_BIN and TARRY_WAYLAND_CLIENT pick the programs (default: the first build found).
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/find-built.sh
bin="${TARRY_BIN:-$(find_built main/cli/tarry)}"
client="${TARRY_WAYLAND_CLIENT:-$(find_built tests/wayland/tarry-wayland-client)}"
if [ -z "$bin" ] || [ -z "$client" ]; then
  echo "sway-screenshot: build tarry and tarry-wayland-client first (or set TARRY_BIN, TARRY_WAYLAND_CLIENT)" >&2
  exit 1
fi
out="$(realpath -m "${1:-${TMPDIR:-/tmp}/tarry-sway-screenshot.png}")"

python3 - "$bin" "$client" "$out" <<'PYTHON'
import os, shutil, sys, time
sys.path.insert(0, os.path.join(os.getcwd(), "tests", "wayland"))
from sway_harness import SwayDesktop, wait_for

tarry, client, out = sys.argv[1:4]
d = SwayDesktop(os.path.abspath(tarry), os.path.abspath(client))
try:
    d.start_client("app")
    d.start_tarry()
    d.wtype("-M", "ctrl", "-P", "q", "-s", "2500", "-p", "q", "-m", "ctrl", background=True)
    wait_for("the HUD", d.hud_visible, timeout=5)
    time.sleep(1.0)
    shot = os.path.join(d.tmp, "shot.png")  # written by the test user
    d.screenshot(shot)
    shutil.copy(shot, out)
finally:
    d.close()
print(out)
PYTHON
