#!/usr/bin/env bash
# Runs Tarry's KDE end-to-end cases (tests/kde/kde_e2e.py) against Plasma 6's KWin: adds
# kwin-wayland and what the harness calls to a Debian 13 (trixie) chroot (made with debootstrap
# when missing, under /var/tmp/tarry-trixie by default, shared with gnome-chroot.sh), copies
# the built tarry, its KWin script, the Wayland test client and the KDE typist into it, and runs
# the cases there. The binaries built on Debian 12 (Qt 6.4) run on trixie's newer Qt.
#
#   scripts/kde-trixie-chroot.sh [-b BUILD_DIR] [CASE...]   (as root; BUILD_DIR default build/release;
#                                                           no CASE: every case)
#
# TARRY_TRIXIE_ROOT picks the chroot's folder; TARRY_DEBIAN_MIRROR the mirror. Exits non-zero
# when a case fails (77 alone: every case was skipped).
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/release
if [ "${1:-}" = "-b" ]; then
  build="$2"
  shift 2
fi
build="$(realpath "$build")"
root="${TARRY_TRIXIE_ROOT:-/var/tmp/tarry-trixie}"
mirror="${TARRY_DEBIAN_MIRROR:-http://deb.debian.org/debian}"
# kwin-wayland, kbuildsycoca6 (libkf6service-bin), Qt's Wayland platform, tarry's own libraries,
# and the harness's python3-dbus, dbus-send, pgrep and useradd.
packages="kwin-wayland libkf6service-bin qt6-wayland libqt6widgets6 libqt6dbus6 libqt6network6 libqt6svg6
  libsqlite3-0 libpulse0 libsodium23 libxcb-xinput0 libxcb-screensaver0 libxcb-xtest0 libxcb-xkb1
  libxcb-res0 libxkbcommon-x11-0 libwayland-client0 python3 python3-dbus dbus-daemon dbus-bin procps passwd"

if [ "$(id -u)" -ne 0 ]; then
  echo "kde-trixie-chroot: run as root (debootstrap and chroot)" >&2
  exit 1
fi
for file in main/cli/tarry main/cli/tarry-kwin.js tests/wayland/tarry-wayland-client tests/kde/tarry-kde-typist; do
  if [ ! -f "$build/$file" ]; then
    echo "kde-trixie-chroot: $build/$file is missing (cmake --build $build)" >&2
    exit 1
  fi
done
if [ ! -x "$root/usr/bin/kwin_wayland" ] || [ ! -x "$root/usr/bin/kbuildsycoca6" ]; then
  command -v debootstrap >/dev/null || apt-get install -y --no-install-recommends debootstrap
  [ -x "$root/bin/sh" ] || debootstrap --variant=minbase trixie "$root" "$mirror"
  chroot "$root" apt-get update -q
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive chroot "$root" apt-get install -y -q --no-install-recommends $packages
fi

# The chroot is shared with gnome-chroot.sh: its lock, a folder of this run's own, the mounts kept.
# shellcheck source=scripts/lib/chroot-work.sh
. scripts/lib/chroot-work.sh
chroot_workspace "$root" kde
mkdir -p "$work/bin"
cp -r tests "$work/tests"
# tarry finds its KWin script next to itself.
cp "$build/main/cli/tarry" "$build/main/cli/tarry-kwin.js" "$build/tests/wayland/tarry-wayland-client" \
  "$build/tests/kde/tarry-kde-typist" "$work/bin/"

if [ "$#" -eq 0 ]; then
  mapfile -t cases < <(chroot "$root" python3 "$inside/tests/kde/kde_e2e.py" --list)
else
  cases=("$@")
fi
# shellcheck disable=SC2016
chroot "$root" dpkg-query -W -f '${Package} ${Version}\n' kwin-wayland libqt6core6t64
# As ctest runs each case: 90 s at most.
chroot_cases kde-trixie-chroot 90 chroot "$root" python3 "$inside/tests/kde/kde_e2e.py" --tarry "$inside/bin/tarry" \
  --client "$inside/bin/tarry-wayland-client" --typist "$inside/bin/tarry-kde-typist"
[ "$passed" -gt 0 ] || exit 77
