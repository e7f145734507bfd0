#!/usr/bin/env bash
# Builds the concurrency test with ThreadSanitizer and runs it through CTest: the libraries and
# that one test executable only, in build-tsan (ZPDF_TSAN_BUILD_DIR changes it). Expects the
# packages scripts/install-deps.sh installs. Extra arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${ZPDF_TSAN_BUILD_DIR:-build-tsan}
jobs=${ZPDF_JOBS:-$(nproc 2>/dev/null || echo 2)}

# The core tests link the sample writer, which lives with the command-line host, so the host's
# folder stays in the build; its executable and the benchmarks are not built.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZPDF_TSAN=ON -DZPDF_SANITIZE=OFF \
    -DZPDF_BUILD_TESTS=ON -DZPDF_BUILD_CLI=ON -DZPDF_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target zpdf_concurrency_tests

# The engine library is not instrumented: TSan sees the races of our own code, and the engine's
# locks only as the calls into the lock callbacks that engine/context.cpp installs.
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1${TSAN_OPTIONS:+ $TSAN_OPTIONS}"
ctest --test-dir "$build" -R Concurrency --output-on-failure "$@"
