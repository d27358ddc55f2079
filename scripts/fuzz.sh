#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and fuzzes one of them.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET]   (default 60 s of "apply"; targets: apply, feed, redact)
#   apply   the remote-configuration parser
#   feed    the release feed parser and the version order
#   redact  the redaction of user, host and home-path names
# New interesting inputs go to build/fuzz/corpus/TARGET; copy the ones worth keeping into
# fuzz/corpus/TARGET so that the gcc replay tests run them too.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
target="${2:-apply}"
cmake --preset fuzz
cmake --build build/fuzz --target "${target}_fuzzer" -j"$(nproc)"
mkdir -p "build/fuzz/corpus/$target" build/fuzz/artifacts
dict=()
if [ -f "fuzz/$target.dict" ]; then dict=(-dict="fuzz/$target.dict"); fi
exec "build/fuzz/fuzz/${target}_fuzzer" \
  -max_total_time="$seconds" "${dict[@]}" -max_len=65536 \
  -artifact_prefix=build/fuzz/artifacts/ \
  "build/fuzz/corpus/$target" "fuzz/corpus/$target"
