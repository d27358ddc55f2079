#!/usr/bin/env bash
# Builds the program alone (no tests, no benchmarks) as others build it: with clang, and as a plain
# Release build (GCC at -O3), with warnings as errors so that neither breaks unnoticed. Prints how
# long each build took. Run after scripts/install-deps.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

build() {
  local name=$1
  shift
  local start=$SECONDS
  cmake -S . -B "build/$name" -G Ninja -DTARRY_WERROR=ON -DTARRY_BUILD_TESTS=OFF -DTARRY_BUILD_BENCH=OFF "$@"
  cmake --build "build/$name"
  echo "build-variants: $name built in $((SECONDS - start)) s"
}

build variant-clang -DCMAKE_CXX_COMPILER=clang++
build variant-release -DCMAKE_BUILD_TYPE=Release
