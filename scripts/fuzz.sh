#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and fuzzes the remote-configuration parser.
# Usage: scripts/fuzz.sh [SECONDS]   (default 60)
# New interesting inputs go to build/fuzz/corpus/apply; copy the ones worth keeping into
# fuzz/corpus/apply so that the gcc replay test runs them too.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
cmake --preset fuzz
cmake --build build/fuzz --target apply_fuzzer -j"$(nproc)"
mkdir -p build/fuzz/corpus/apply build/fuzz/artifacts
exec build/fuzz/fuzz/apply_fuzzer \
  -max_total_time="$seconds" -dict=fuzz/apply.dict -max_len=65536 \
  -artifact_prefix=build/fuzz/artifacts/ \
  build/fuzz/corpus/apply fuzz/corpus/apply
