# shellcheck shell=bash
# Sourced by the scripts that run tarry in a GNOME chroot (gnome-chroot.sh, gnome-screenshot.sh).
# Runs from several checkouts share a chroot: chroot_workspace ROOT NAME waits for the chroot's
# lock (one run at a time), makes this run's own folder in it ($work outside, $inside as seen from
# within; removed at exit) and mounts what the Shell needs (the mounts stay for the next run).
chroot_workspace() {
  local root="$1" name="$2"
  exec 9>"$root/tmp/tarry-smoke.lock"
  flock 9
  work="$(mktemp -d "$root/tmp/tarry-$name.XXXXXX")"
  chmod 755 "$work"
  # shellcheck disable=SC2034  # read by the script that sources this
  inside="/tmp/$(basename "$work")"
  trap 'rm -rf "$work"' EXIT
  mountpoint -q "$root/proc" || mount -t proc proc "$root/proc"
  mountpoint -q "$root/dev" || mount --bind /dev "$root/dev"
  mountpoint -q "$root/dev/shm" || mount --bind /dev/shm "$root/dev/shm"
}
