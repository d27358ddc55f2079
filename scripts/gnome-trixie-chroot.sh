#!/usr/bin/env bash
# Runs the GNOME 45+ build of Tarry's Shell extension in a GNOME 45+ Shell: makes a Debian 13
# (trixie) chroot with debootstrap once (about 1.5 GB, under /var/tmp/tarry-trixie by default),
# with gnome-shell and the test harness's packages, then runs tests/gnome/extension_smoke.py in it
# against the esm build: the Shell loads the extension, which grabs Ctrl+Q only while Tarry's bus
# name is owned, reports press and release, types a combination back and answers window questions.
# Then the GNOME end-to-end cases (tests/gnome/gnome_e2e.py) run there with the tarry built here
# (Debian 12's Qt 6.4 build runs on trixie's Qt 6.8).
#
#   scripts/gnome-trixie-chroot.sh [BUILD_DIR [CASE...]]   (as root; BUILD_DIR default build/release;
#                                                           no CASE: all of them)
#
# TARRY_TRIXIE_ROOT picks the chroot's folder; TARRY_DEBIAN_MIRROR the mirror.
set -euo pipefail
cd "$(dirname "$0")/.."
build="$(realpath "${1:-build/release}")"
shift || true
root="${TARRY_TRIXIE_ROOT:-/var/tmp/tarry-trixie}"
mirror="${TARRY_DEBIAN_MIRROR:-http://deb.debian.org/debian}"
# The Shell and the harness's packages, then tarry's own libraries.
packages="gnome-shell gjs gir1.2-gtk-4.0 python3 python3-gi python3-dbus dbus-daemon libglib2.0-bin
  procps passwd qt6-wayland libqt6widgets6 libqt6dbus6 libqt6network6 libqt6svg6 libsqlite3-0 libpulse0
  libsodium23 libxcb-xinput0 libxcb-screensaver0 libxcb-xtest0 libxcb-xkb1 libxcb-res0 libxkbcommon-x11-0
  libwayland-client0"

if [ "$(id -u)" -ne 0 ]; then
  echo "gnome-trixie-chroot: run as root (debootstrap and chroot)" >&2
  exit 1
fi
if [ ! -f "$build/gnome-extension/esm/tarry@tarry.org/extension.js" ]; then
  echo "gnome-trixie-chroot: build the extension first (cmake --build $build)" >&2
  exit 1
fi
if [ ! -f "$build/main/cli/tarry" ]; then
  echo "gnome-trixie-chroot: $build/main/cli/tarry is missing (cmake --build $build)" >&2
  exit 1
fi
# shellcheck disable=SC2086
if [ ! -x "$root/usr/bin/gnome-shell" ] || ! chroot "$root" dpkg-query -W $packages >/dev/null 2>&1; then
  command -v debootstrap >/dev/null || apt-get install -y --no-install-recommends debootstrap
  [ -x "$root/bin/sh" ] || debootstrap --variant=minbase trixie "$root" "$mirror"
  chroot "$root" apt-get update -q
  DEBIAN_FRONTEND=noninteractive chroot "$root" apt-get install -y -q --no-install-recommends $packages
fi

# Runs from several checkouts share the chroot: one at a time, each in its own folder, and the
# mounts stay for the next run.
exec 9>"$root/tmp/tarry-smoke.lock"
flock 9
work="$(mktemp -d "$root/tmp/tarry-smoke.XXXXXX")"
chmod 755 "$work"
inside="/tmp/$(basename "$work")"
trap 'rm -rf "$work"' EXIT
cp -r tests "$work/tests"
cp -r "$build/gnome-extension" "$work/gnome-extension"
mkdir "$work/bin"
cp "$build/main/cli/tarry" "$work/bin/"
mountpoint -q "$root/proc" || mount -t proc proc "$root/proc"
mountpoint -q "$root/dev" || mount --bind /dev "$root/dev"
mountpoint -q "$root/dev/shm" || mount --bind /dev/shm "$root/dev/shm"
chroot "$root" gnome-shell --version
chroot "$root" env TARRY_SMOKE_SCREENSHOT="$inside/smoke.png" python3 "$inside/tests/gnome/extension_smoke.py" --extensions "$inside/gnome-extension"
for shot in "$work"/smoke*.png; do
  name="$(basename "$shot")"
  cp "$shot" "${TMPDIR:-/tmp}/tarry-gnome48-$name" && echo "screenshot: ${TMPDIR:-/tmp}/tarry-gnome48-$name"
done

if [ "$#" -eq 0 ]; then
  mapfile -t cases < <(chroot "$root" python3 "$inside/tests/gnome/gnome_e2e.py" --list)
else
  cases=("$@")
fi
passed=0 failed=() skipped=0
for name in "${cases[@]}"; do
  status=0
  # As ctest runs each case (the RAM Saver's waits out its minute).
  timeout -s TERM 200 chroot "$root" python3 "$inside/tests/gnome/gnome_e2e.py" --tarry "$inside/bin/tarry" \
    --extensions "$inside/gnome-extension" "$name" || status=$?
  case "$status" in
    0) passed=$((passed + 1)) ;;
    77) skipped=$((skipped + 1)) ;;
    *) failed+=("$name") ;;
  esac
done
echo "gnome-trixie-chroot: ${passed} passed, ${skipped} skipped, ${#failed[@]} failed${failed:+: ${failed[*]}}"
[ "${#failed[@]}" -eq 0 ] || exit 1
