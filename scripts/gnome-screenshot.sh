#!/usr/bin/env bash
# Shows tarry's HUD over the GTK 4 test app during a Ctrl+Q hold on a private headless GNOME Shell
# (through the GNOME end-to-end harness, as an unprivileged user when run as root) and saves the
# Shell's screenshot of the whole screen about one second into the hold. Prints the PNG's path.
# With --top-bar: tarry's item in the top bar instead, after one blocked Ctrl+Q (today's count),
# its menu open, in the Shell's dark and light styles (OUTPUT-dark.png, OUTPUT-light.png).
#
#   scripts/gnome-screenshot.sh [--top-bar] [--chroot SYSTEM] [OUTPUT.png]
#
# TARRY_BIN picks the program (default: the first build found); the extension comes from the
# same build folder. --chroot runs the Shell of a chroot that scripts/gnome-chroot.sh made
# (trixie, noble, questing, resolute; TARRY_CHROOT_ROOT picks another folder), as root.
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/find-built.sh
bin="${TARRY_BIN:-$(find_built main/cli/tarry)}"
if [ -z "$bin" ]; then
  echo "gnome-screenshot: build tarry first (or set TARRY_BIN)" >&2
  exit 1
fi
extensions="$(dirname "$bin")/../../gnome-extension"
mode=hud
system=""
while [ "$#" -gt 0 ]; do
  case "$1" in
    --top-bar) mode=top-bar; shift ;;
    --chroot) system="${2:-}"; shift 2 ;;
    *) break ;;
  esac
done
out="$(realpath -m "${1:-${TMPDIR:-/tmp}/tarry-gnome-screenshot.png}")"
run=(python3 -)
args=("$bin" "$extensions" "$out")
sink=/dev/stdout
if [ -n "$system" ]; then
  root="${TARRY_CHROOT_ROOT:-/var/tmp/tarry-$system}"
  if [ ! -x "$root/usr/bin/gnome-shell" ]; then
    echo "gnome-screenshot: no GNOME Shell in $root (scripts/gnome-chroot.sh --system $system)" >&2
    exit 1
  fi
  # shellcheck source=scripts/lib/chroot-work.sh
  . scripts/lib/chroot-work.sh
  chroot_workspace "$root" shot
  mkdir "$work/bin" "$work/shots"
  cp -r tests "$work/tests"
  cp -r "$extensions" "$work/gnome-extension"
  cp "$bin" "$work/bin/tarry"
  run=(chroot "$root" sh -c "cd $inside && exec python3 - \"\$@\"" sh)
  args=("$inside/bin/tarry" "$inside/gnome-extension" "$inside/shots/$(basename "$out")")
  sink=/dev/null  # the paths inside the chroot: the copies' are printed below
fi

"${run[@]}" "${args[@]}" "$mode" >"$sink" <<'PYTHON'
import os, shutil, sys, time
sys.path.insert(0, os.path.join(os.getcwd(), "tests", "gnome"))
from gnome_harness import GnomeDesktop, wait_for
from gnome_e2e import extension_build

tarry, extensions, out, mode = sys.argv[1:5]
d = GnomeDesktop(os.path.abspath(tarry), extension_build(os.path.abspath(extensions)))


def shoot(path):
    shot = os.path.join(d.tmp, "shot.png")  # written by the Shell, as the test user
    if os.path.exists(shot):
        os.remove(shot)
    d.screenshot(shot)
    wait_for("the screenshot", lambda: os.path.exists(shot), timeout=5)
    time.sleep(0.2)
    shutil.copy(shot, path)
    print(path)


try:
    if mode == "top-bar":
        d.defaults("write", "showMenuBar", "true")
    d.start_client("app")
    d.start_tarry()
    if mode == "hud":
        d.hold("q", 2500)
        wait_for("the HUD", d.hud_visible, timeout=5)
        time.sleep(1.0)
        shoot(out)
    else:
        item = "Main.panel.statusArea['tarry-status']"
        wait_for("tarry's item in the top bar", lambda: d.eval("!!" + item) is True, timeout=15)
        d.hold("q", 200, background=False)
        wait_for("the blocked press to be counted", lambda: d.counter("saved") == 1, timeout=5)
        wait_for("the HUD to go", lambda: not d.hud_visible(), timeout=5)
        base, ext = os.path.splitext(out)
        for scheme in ("dark", "light"):
            d.eval("new imports.gi.Gio.Settings({schema_id: 'org.gnome.desktop.interface'})"
                   ".set_string('color-scheme', 'prefer-%s'); true" % scheme)
            time.sleep(0.5)
            d.eval(item + ".menu.open(); true")
            time.sleep(0.7)
            shoot("%s-%s%s" % (base, scheme, ext))
            d.eval(item + ".menu.close(); true")
finally:
    d.close()
PYTHON
if [ -n "$system" ]; then
  for shot in "$work"/shots/*.png; do
    cp "$shot" "$(dirname "$out")/" && echo "$(dirname "$out")/$(basename "$shot")"
  done
fi
