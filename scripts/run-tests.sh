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

# The fuzz targets, each for a bounded time (ZPDF_FUZZ_SECONDS, default 30), built with clang.
# ZPDF_SKIP_FUZZ=1 leaves them out, for a quick local run.
if [ "${ZPDF_SKIP_FUZZ:-0}" != 1 ]; then
    fuzz_build=${ZPDF_FUZZ_BUILD_DIR:-build-fuzz}
    CC=clang CXX=clang++ cmake -S . -B "$fuzz_build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZPDF_FUZZ=ON \
        -DZPDF_BUILD_TESTS=OFF -DZPDF_BUILD_CLI=OFF -DZPDF_BUILD_BENCH=OFF \
        -DZPDF_FUZZ_SECONDS="${ZPDF_FUZZ_SECONDS:-30}" >/dev/null
    cmake --build "$fuzz_build" -j "$jobs"
    ctest --test-dir "$fuzz_build" --output-on-failure -j "$jobs"
fi

# Last, so that its summary closes the output.
ctest --test-dir "$build" --output-on-failure -j "$jobs" "$@"
