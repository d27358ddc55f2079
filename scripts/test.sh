#!/usr/bin/env bash
# Fresh machine to green tests: installs the packages, builds everything, runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset release
cmake --build --preset release
ctest --preset release "$@"
