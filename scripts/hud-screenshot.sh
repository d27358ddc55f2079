#!/usr/bin/env bash
# Shows `tarry --hud-demo` on a private X server (Xvfb + openbox) and saves a screenshot of the
# whole screen about 1.5 s into the hold. Prints the PNG's path.
#
#   scripts/hud-screenshot.sh [OUTPUT.png]
#
# TARRY_BIN picks the program (default: the first one built under build/release, build/debug or
# build-*); HUD_SCREEN sets the screen size (default 1280x800). With HUD_COMPOSITOR=1 and xcompmgr
# installed, a compositing manager runs too, so translucency and the shadow show.
set -euo pipefail
cd "$(dirname "$0")/.."

bin="${TARRY_BIN:-}"
if [ -z "$bin" ]; then
  for candidate in build/release/main/cli/tarry build/debug/main/cli/tarry build-*/main/cli/tarry; do
    if [ -x "$candidate" ]; then bin="$candidate"; break; fi
  done
fi
if [ -z "$bin" ] || [ ! -x "$bin" ]; then
  echo "hud-screenshot: no tarry binary found; build it or set TARRY_BIN" >&2
  exit 1
fi
out="${1:-${TMPDIR:-/tmp}/tarry-hud-screenshot.png}"
screen="${HUD_SCREEN:-1280x800}"

# A free display number.
display_number=90
while [ -e "/tmp/.X${display_number}-lock" ] || [ -e "/tmp/.X11-unix/X${display_number}" ]; do
  display_number=$((display_number + 1))
done
export DISPLAY=":${display_number}"
unset WAYLAND_DISPLAY QT_QPA_PLATFORM

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
}
trap cleanup EXIT

Xvfb "$DISPLAY" -screen 0 "${screen}x24" -nolisten tcp >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 50); do
  xdpyinfo >/dev/null 2>&1 && break
  sleep 0.1
done
xdpyinfo >/dev/null 2>&1 || { echo "hud-screenshot: Xvfb did not start" >&2; exit 1; }

openbox >/dev/null 2>&1 &
pids+=($!)
if [ "${HUD_COMPOSITOR:-0}" = 1 ] && command -v xcompmgr >/dev/null; then
  # xcompmgr paints a plain grey desktop of its own. (A root background set with ImageMagick's
  # display confuses it: the desktop turns black, or translucent pixels are drawn too dark.)
  xcompmgr >/dev/null 2>&1 &
  pids+=($!)
else
  # A plain grey desktop, so the panel's edges show.
  display -window root -size 8x8 'xc:#5a6270' 2>/dev/null || true
fi
sleep 0.5

"$bin" --hud-demo &
pids+=($!)
sleep 1.5
import -window root "$out"
echo "$out"
