#!/usr/bin/env bash
# Shows the tray item (in trayer, an XEmbed tray) and one window of tarry-shell-demo on a private
# X server (Xvfb + openbox) and saves a screenshot of the whole screen. Prints the PNG's path.
#
#   scripts/shell-screenshot.sh WHAT [OUTPUT.png]     WHAT: menu | settings | stats | about | rules
#
# DEMO_BIN picks the demo program (default: build/release or build/debug). Extra arguments for the
# demo go in DEMO_ARGS (e.g. "--saved 3 --tap off").
set -euo pipefail
cd "$(dirname "$0")/.."

what="${1:-menu}"
bin="${DEMO_BIN:-}"
if [ -z "$bin" ]; then
  for candidate in build/release/tests/shell_qt/tarry-shell-demo build/debug/tests/shell_qt/tarry-shell-demo; do
    if [ -x "$candidate" ]; then bin="$candidate"; break; fi
  done
fi
[ -n "$bin" ] && [ -x "$bin" ] || { echo "shell-screenshot: build tarry-shell-demo or set DEMO_BIN" >&2; exit 1; }
command -v trayer >/dev/null || { echo "shell-screenshot: needs trayer (scripts/install-deps.sh)" >&2; exit 1; }
out="${2:-${TMPDIR:-/tmp}/tarry-${what}-screenshot.png}"

display_number=$((300 + RANDOM % 600))
while [ -e "/tmp/.X${display_number}-lock" ] || [ -e "/tmp/.X11-unix/X${display_number}" ]; do
  display_number=$((display_number + 1))
done
export DISPLAY=":${display_number}"
unset WAYLAND_DISPLAY
export QT_QPA_PLATFORM=xcb

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
}
trap cleanup EXIT

Xvfb "$DISPLAY" -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 50); do
  xdpyinfo >/dev/null 2>&1 && break
  sleep 0.1
done
xdpyinfo >/dev/null 2>&1 || { echo "shell-screenshot: Xvfb did not start" >&2; exit 1; }
openbox >/dev/null 2>&1 &
pids+=($!)
display -window root -size 8x8 'xc:#5a6270' 2>/dev/null || true
# A dark tray along the top right, 32 px high, like a panel.
trayer --edge top --align right --widthtype pixel --width 160 --heighttype pixel --height 32 \
  --tint 0x202020 --transparent true --alpha 0 --SetDockType true >/dev/null 2>&1 &
pids+=($!)
sleep 0.8
# No session bus here: Qt uses the XEmbed tray at once.
DBUS_SESSION_BUS_ADDRESS=disabled: "$bin" --open "$what" --wait-ms 0 ${DEMO_ARGS:-} >/dev/null 2>&1 &
pids+=($!)
sleep 2.5
import -window root "$out"
echo "$out"
