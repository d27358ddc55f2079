#!/usr/bin/env bash
# Runs Tarry's GNOME Shell extension (the GNOME 45+ build) and the GNOME end-to-end cases in a newer
# GNOME Shell than Debian 12's: makes a chroot with debootstrap once (about 1.5 GB under /var/tmp),
# with gnome-shell, the test harness's packages and tarry's own libraries, then runs
# tests/gnome/extension_smoke.py (the Shell loads the extension, which grabs Ctrl+Q only while
# Tarry's bus name is owned, reports press and release, types a combination back and answers
# window questions) and every case of tests/gnome/gnome_e2e.py with the tarry built here (Debian
# 12's Qt 6.4 build runs on each of them).
#
#   scripts/gnome-chroot.sh [--system SYSTEM] [BUILD_DIR [CASE...]]
#   scripts/gnome-chroot.sh [--system SYSTEM] --bench [BUILD_DIR [BENCH_ARG...]]
#
# --bench runs bench/gnome_latency.py there instead (its arguments after BUILD_DIR). SYSTEM:
#
#   trixie (default): Debian 13, GNOME Shell 48, in /var/tmp/tarry-trixie
#   noble:            Ubuntu 24.04 LTS, GNOME Shell 46, in /var/tmp/tarry-noble
#   questing:         Ubuntu 25.10, GNOME Shell 49, in /var/tmp/tarry-questing
#   resolute:         Ubuntu 26.04 LTS, GNOME Shell 50, in /var/tmp/tarry-resolute
#
# As root; BUILD_DIR defaults to build/release; no CASE: all of them. TARRY_CHROOT_ROOT picks the
# chroot's folder, TARRY_CHROOT_MIRROR the mirror.
set -euo pipefail
cd "$(dirname "$0")/.."
system=trixie
if [ "${1:-}" = "--system" ]; then
  system="${2:-}"
  shift 2
fi
bench=0
if [ "${1:-}" = "--bench" ]; then
  bench=1
  shift
fi
case "$system" in
  trixie)
    mirror="${TARRY_CHROOT_MIRROR:-http://deb.debian.org/debian}"
    bootstrap=(--variant=minbase trixie)
    sources="deb $mirror trixie main" ;;
  noble | questing | resolute)
    mirror="${TARRY_CHROOT_MIRROR:-http://archive.ubuntu.com/ubuntu}"
    # Debian 12's debootstrap has no script named for these; Ubuntu's releases share gutsy's. The
    # Qt 6 libraries are in universe.
    # shellcheck disable=SC2054
    bootstrap=(--variant=minbase --components=main,universe --no-check-gpg "$system")
    sources="deb $mirror $system main universe
deb $mirror $system-updates main universe" ;;
  *)
    echo "gnome-chroot: --system is trixie, noble, questing or resolute" >&2
    exit 2 ;;
esac
build="$(realpath "${1:-build/release}")"
shift || true
root="${TARRY_CHROOT_ROOT:-/var/tmp/tarry-$system}"
# The Shell and the harness's packages, then tarry's own libraries.
packages="gnome-shell gjs gir1.2-gtk-4.0 python3 python3-gi python3-dbus dbus-daemon libglib2.0-bin
  procps passwd qt6-wayland libqt6widgets6 libqt6dbus6 libqt6network6 libqt6svg6 libsqlite3-0 libpulse0
  libsodium23 libxcb-xinput0 libxcb-screensaver0 libxcb-xtest0 libxcb-xkb1 libxcb-res0 libxkbcommon-x11-0
  libwayland-client0"

if [ "$(id -u)" -ne 0 ]; then
  echo "gnome-chroot: run as root (debootstrap and chroot)" >&2
  exit 1
fi
if [ ! -f "$build/gnome-extension/esm/tarry@tarry.org/extension.js" ]; then
  echo "gnome-chroot: build the extension first (cmake --build $build)" >&2
  exit 1
fi
if [ ! -f "$build/main/cli/tarry" ]; then
  echo "gnome-chroot: $build/main/cli/tarry is missing (cmake --build $build)" >&2
  exit 1
fi
# shellcheck disable=SC2086
if [ ! -x "$root/usr/bin/gnome-shell" ] || ! chroot "$root" dpkg-query -W $packages >/dev/null 2>&1; then
  command -v debootstrap >/dev/null || apt-get install -y --no-install-recommends debootstrap
  if [ ! -x "$root/bin/sh" ]; then
    debootstrap "${bootstrap[@]}" "$root" "$mirror" /usr/share/debootstrap/scripts/"$([ "$system" = trixie ] && echo trixie || echo gutsy)"
    echo "$sources" >"$root/etc/apt/sources.list"
  fi
  chroot "$root" apt-get update -q
  DEBIAN_FRONTEND=noninteractive chroot "$root" apt-get install -y -q --no-install-recommends $packages
fi

# shellcheck source=scripts/lib/chroot-work.sh
. scripts/lib/chroot-work.sh
chroot_workspace "$root" smoke
cp -r tests bench "$work/"
cp -r "$build/gnome-extension" "$work/gnome-extension"
mkdir -p "$work/bin" "$work/build/main/cli"
cp "$build/main/cli/tarry" "$work/bin/"
chroot "$root" gnome-shell --version
if [ "$bench" -eq 1 ]; then
  # The benchmark finds tarry and the extension as in a build folder.
  ln -s ../../../bin/tarry "$work/build/main/cli/tarry"
  ln -s ../gnome-extension "$work/build/gnome-extension"
  chroot "$root" python3 "$inside/bench/gnome_latency.py" --build "$inside/build" "$@"
  exit
fi
chroot "$root" env TARRY_SMOKE_SCREENSHOT="$inside/smoke.png" python3 "$inside/tests/gnome/extension_smoke.py" --extensions "$inside/gnome-extension"
for shot in "$work"/smoke*.png; do
  name="$(basename "$shot")"
  cp "$shot" "${TMPDIR:-/tmp}/tarry-$system-$name" && echo "screenshot: ${TMPDIR:-/tmp}/tarry-$system-$name"
done

if [ "$#" -eq 0 ]; then
  mapfile -t cases < <(chroot "$root" python3 "$inside/tests/gnome/gnome_e2e.py" --list)
else
  cases=("$@")
fi
# 200 s a case: the RAM Saver's waits out its minute.
chroot_cases "gnome-chroot ($system)" 200 chroot "$root" python3 "$inside/tests/gnome/gnome_e2e.py" \
  --tarry "$inside/bin/tarry" --extensions "$inside/gnome-extension"
