#!/usr/bin/env bash
# Shows tarry's HUD over the GTK 4 test app during a Ctrl+Q hold on a private headless GNOME Shell
# (through the GNOME end-to-end harness, as an unprivileged user when run as root) and saves the
# Shell's screenshot of the whole screen about one second into the hold. Prints the PNG's path.
#
#   scripts/gnome-screenshot.sh [OUTPUT.png]
#
# TARRY_BIN picks the program (default: the first build found); the extension comes from the
# same build folder.
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/find-built.sh
bin="${TARRY_BIN:-$(find_built main/cli/tarry)}"
if [ -z "$bin" ]; then
  echo "gnome-screenshot: build tarry first (or set TARRY_BIN)" >&2
  exit 1
fi
extensions="$(dirname "$bin")/../../gnome-extension"
out="$(realpath -m "${1:-${TMPDIR:-/tmp}/tarry-gnome-screenshot.png}")"

python3 - "$bin" "$extensions" "$out" <<'PYTHON'
import os, shutil, sys, time
sys.path.insert(0, os.path.join(os.getcwd(), "tests", "gnome"))
from gnome_harness import GnomeDesktop, wait_for
from gnome_e2e import extension_build

tarry, extensions, out = sys.argv[1:4]
d = GnomeDesktop(os.path.abspath(tarry), extension_build(os.path.abspath(extensions)))
try:
    d.start_client("app")
    d.start_tarry()
    d.hold("q", 2500)
    wait_for("the HUD", d.hud_visible, timeout=5)
    time.sleep(1.0)
    shot = os.path.join(d.tmp, "shot.png")  # written by the Shell, as the test user
    d.screenshot(shot)
    wait_for("the screenshot", lambda: os.path.exists(shot), timeout=5)
    shutil.copy(shot, out)
finally:
    d.close()
print(out)
PYTHON
