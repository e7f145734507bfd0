#!/usr/bin/env bash
# Installs what is missing, builds everything with AddressSanitizer and UBSan, cross-builds the
# COM server for both Windows architectures, and runs every test through CTest. Extra arguments
# go to ctest (for example -R Holder).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)

# The COM server for both architectures (its engine build is cached outside the tree); CTest
# then checks both images and runs the 64-bit one under wine64. ZPDF_SKIP_WINDOWS=1 leaves
# it out, for a quick local run.
windows_args=()
if [ "${ZPDF_SKIP_WINDOWS:-0}" != 1 ]; then
    while read -r arch dir; do
        case "$arch" in
            x86_64) windows_args+=(-DZPDF_WIN64_BUILD="$PWD/$dir") ;;
            i686) windows_args+=(-DZPDF_WIN32_BUILD="$PWD/$dir") ;;
        esac
    done < <(bash scripts/windows/build.sh x86_64 i686)
    [ ${#windows_args[@]} -eq 2 ] || { echo "run-tests.sh: the Windows build failed" >&2; exit 1; }
else
    windows_args=(-DZPDF_WIN64_BUILD= -DZPDF_WIN32_BUILD=)
fi

build=${ZPDF_TEST_BUILD_DIR:-build-asan}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZPDF_SANITIZE=ON "${windows_args[@]}" >/dev/null
cmake --build "$build" -j "$jobs"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# Eight threads doing the typical job at once, under ThreadSanitizer (its own small build).
bash scripts/run-tsan.sh

# The typical job and the zpdf commands that change documents, under valgrind (a plain build of
# those two programs). ZPDF_SKIP_VALGRIND=1 leaves it out, for a quick local run.
if [ "${ZPDF_SKIP_VALGRIND:-0}" != 1 ]; then
    bash scripts/run-valgrind.sh
fi

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
