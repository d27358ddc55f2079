#!/usr/bin/env bash
# Fresh machine to a running Tarry: installs the packages, builds, starts the program.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset release
cmake --build --preset release --target tarry
exec ./build/release/main/cli/tarry "$@"
