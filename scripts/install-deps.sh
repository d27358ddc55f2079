#!/usr/bin/env bash
# Installs every Debian package that building, running and testing Tarry needs.
# Idempotent; meant for a fresh Debian 12 machine (run as root, or with sudo available).
set -euo pipefail

packages=(
  # build, tests, benchmarks
  build-essential cmake ninja-build pkg-config git
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  clang libclang-rt-14-dev clang-format clang-tidy
  # logic and storage
  nlohmann-json3-dev libsqlite3-dev sqlite3
  # digests and signatures (telemetry app hashes, update downloads)
  libsodium-dev
  # Qt 6: run loop, HUD, windows, HTTP
  qt6-base-dev qt6-base-dev-tools qt6-svg-dev qt6-qpa-plugins libgl-dev
  # X11 backends
  libxcb1-dev libxcb-ewmh-dev libxcb-icccm4-dev libxcb-xtest0-dev libxcb-xkb-dev
  libxcb-res0-dev libxkbcommon-dev libxkbcommon-x11-dev libxcb-xinput-dev libxcb-screensaver0-dev
  # audio
  libpulse-dev pulseaudio pulseaudio-utils  # a real daemon with a null sink for the audio tests
  # end-to-end tests on a real X server
  xvfb openbox xdotool x11-xkb-utils x11-utils xauth python3 procps
  python3-tk  # a Tk app, whose windows all carry the class "Tk"
  e2fsprogs  # chattr: a read-only preferences database even for root
  xterm  # a real terminal emulator from Debian for the careful-mode end-to-end case
  # packaging: cpack DEB (dpkg-shlibdeps), launcher and metainfo validation
  dpkg-dev desktop-file-utils appstream
  lintian  # the package's check against Debian policy (its test fails on any error or warning)
  fonts-dejavu-core
  # updates: the test CA and https server for the installer test; unpacking release archives
  openssl tar
  # screenshots of the HUD on Xvfb (scripts/hud-screenshot.sh)
  imagemagick xcompmgr
  # the tray: a private session bus and a StatusNotifier host written in Python for its test, an
  # XEmbed tray for the screenshots (scripts/shell-screenshot.sh)
  dbus-daemon python3-dbus python3-gi trayer
  # dbus-send: asks the file manager to show a downloaded update (and its test)
  dbus-bin
  # Wayland backend (sway IPC, virtual keyboard, layer shell) and its end-to-end tests on a
  # headless sway: wtype types, foot is the terminal, grim takes screenshots, Qt's Wayland plugin
  # runs the test client
  libwayland-dev sway wtype foot grim qt6-wayland
  # KDE Plasma backend (KWin's fake-input protocol) and its end-to-end tests on a headless KWin;
  # kbuildsycoca5 refreshes the service cache KWin reads desktop files from
  plasma-wayland-protocols kwin-wayland libkf5service-bin
  # GNOME on Wayland: the Shell extension's end-to-end tests on a headless GNOME Shell, with a GTK 4
  # test app (PyGObject) and keys typed through Mutter's RemoteDesktop (python3-dbus, above);
  # gdbus (libglib2.0-bin) runs the Shell's Eval and Screenshot methods
  gnome-shell gjs gir1.2-gtk-4.0 libglib2.0-bin
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
echo "install-deps: installing ${missing[*]}"
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
