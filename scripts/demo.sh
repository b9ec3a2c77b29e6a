#!/usr/bin/env bash
# Installs what a fresh machine lacks, builds the program and runs
# `ethbrg demo` (arguments are passed on, e.g. --seconds 10 --profile NAME).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc 2>/dev/null || echo 2)" --target ethbrg >/dev/null
exec build/default/apps/ethbrg demo "$@"
