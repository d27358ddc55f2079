#!/usr/bin/env bash
# Shows tarry's HUD over the Wayland test client during a Ctrl+Q hold on a private headless KWin
# (through the KDE end-to-end harness, as an unprivileged user when run as root) and saves a
# screenshot of the whole screen (KWin's ScreenShot2) about one second into the hold. Prints the
# PNG's path.
#
#   scripts/kde-screenshot.sh [OUTPUT.png]
#
# TARRY_BIN, TARRY_WAYLAND_CLIENT and TARRY_KDE_TYPIST pick the programs (default: the first
# build found).
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/find-built.sh
bin="${TARRY_BIN:-$(find_built main/cli/tarry)}"
client="${TARRY_WAYLAND_CLIENT:-$(find_built tests/wayland/tarry-wayland-client)}"
typist="${TARRY_KDE_TYPIST:-$(find_built tests/kde/tarry-kde-typist)}"
if [ -z "$bin" ] || [ -z "$client" ] || [ -z "$typist" ]; then
  echo "kde-screenshot: build tarry, tarry-wayland-client and tarry-kde-typist first" >&2
  exit 1
fi
out="$(realpath -m "${1:-${TMPDIR:-/tmp}/tarry-kde-screenshot.png}")"

/usr/bin/python3 - "$bin" "$client" "$typist" "$out" <<'PYTHON'
import os, subprocess, sys, time
sys.path.insert(0, os.path.join(os.getcwd(), "tests", "kde"))
from kde_harness import KEY_Q, KdeDesktop, wait_for

tarry, client, typist, out = sys.argv[1:5]
d = KdeDesktop(os.path.abspath(tarry), os.path.abspath(client), os.path.abspath(typist))
try:
    d.start_client("app")
    d.start_tarry()
    d.hold(KEY_Q, 2500)
    wait_for("the HUD", d.hud_visible, timeout=5)
    time.sleep(1.0)
    shot = os.path.join(d.tmp, "shot.ppm")  # written by the test user
    d.screenshot(shot)
    subprocess.run(["convert", shot, out], check=True)
finally:
    d.close()
print(out)
PYTHON
