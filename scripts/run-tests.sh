#!/usr/bin/env bash
# Installs what is missing, builds everything with AddressSanitizer and UBSan, and runs every
# test through CTest. Extra arguments go to ctest (for example -R Holder).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

build=${ZPDF_TEST_BUILD_DIR:-build-asan}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZPDF_SANITIZE=ON >/dev/null
cmake --build "$build" -j "$jobs"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
ctest --test-dir "$build" --output-on-failure -j "$jobs" "$@"
