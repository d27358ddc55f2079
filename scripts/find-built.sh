# Sourced by the screenshot scripts: `find_built PATH` prints the first build of PATH (a target's
# path inside a build folder) that exists, release first; nothing when none does.
find_built() {
  for candidate in build/release/$1 build/debug/$1 build-*/$1; do
    if [ -x "$candidate" ]; then echo "$candidate"; return; fi
  done
}
