#!/usr/bin/env bash
# Installs what is missing, builds zpdf and runs its demonstration job into the folder given
# (default: ./demo-out).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

build=${ZPDF_BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DZPDF_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target zpdf
"$build/cli/zpdf" demo "${1:-demo-out}"
