# shellcheck shell=bash
# Sourced by the scripts that run tarry in a chroot (gnome-chroot.sh, gnome-screenshot.sh,
# kde-trixie-chroot.sh).
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

# chroot_cases LABEL SECONDS COMMAND...: runs COMMAND CASE for each name in the array `cases`, each
# for at most SECONDS (as ctest runs them); 77 counts as skipped. Prints the tally, leaves the
# number passed in `passed`, and returns 1 when a case failed.
chroot_cases() {
  local label="$1" seconds="$2" name status skipped=0
  local -a failed=()
  shift 2
  passed=0
  # shellcheck disable=SC2154  # `cases` is set by the script that sources this
  for name in "${cases[@]}"; do
    status=0
    timeout -s TERM "$seconds" "$@" "$name" || status=$?
    case "$status" in
      0) passed=$((passed + 1)) ;;
      77) skipped=$((skipped + 1)) ;;
      *) failed+=("$name") ;;
    esac
  done
  echo "$label: ${passed} passed, ${skipped} skipped, ${#failed[@]} failed${failed:+: ${failed[*]}}"
  [ "${#failed[@]}" -eq 0 ]
}
