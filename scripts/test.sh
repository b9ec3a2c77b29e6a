#!/usr/bin/env bash
# Installs what a fresh machine lacks, configures, builds and runs the tests.
#   scripts/test.sh [preset]      preset: default (g++), asan, tsan, fuzz, windows
# The windows preset cross-builds the kernel image and checks it
# (scripts/check-image.sh) instead of running tests.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"

scripts/install-deps.sh

jobs="$(nproc 2>/dev/null || echo 2)"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$jobs"
if [ "$preset" = windows ]; then
  scripts/check-image.sh
else
  ctest --preset "$preset" -j "$jobs"
fi
