#!/usr/bin/env bash
# Cross-builds ZPdfCntObj.dll (and the Wine test client) with Debian's MinGW-w64 toolchains.
#   scripts/windows/build.sh [ARCH...]      ARCH: x86_64, i686 (default: both)
# Each architecture builds into build-win-ARCH (ZPDF_WINDOWS_BUILD_DIR sets the stem); the
# engine and its libraries come from scripts/windows/build-deps.sh, which caches them outside
# the tree. Prints one line per architecture: ARCH BUILD_DIR.
# The 64-bit build is the one the Wine tests drive: it carries the test hook that makes marked
# allocations fail on request (ZPDF_FAIL_ALLOCATION). The 32-bit build, the product, does not.
set -euo pipefail
cd "$(dirname "$0")/../.."

bash scripts/windows/install-deps.sh

archs=("$@")
[ ${#archs[@]} -gt 0 ] || archs=(x86_64 i686)
stem=${ZPDF_WINDOWS_BUILD_DIR:-build-win}
jobs=${ZPDF_BUILD_JOBS:-$(nproc 2>/dev/null || echo 2)}

for arch in "${archs[@]}"; do
    case "$arch" in
        x86_64 | i686) ;;
        *) echo "build.sh: unknown architecture '$arch' (x86_64 or i686)" >&2; exit 2 ;;
    esac
    prefix=$(bash scripts/windows/build-deps.sh "$arch" | tail -n 1)
    [ -d "$prefix/lib" ] || { echo "build.sh: no dependency prefix for $arch" >&2; exit 1; }
    build="$stem-$arch"
    [ "$arch" = x86_64 ] && faults=ON || faults=OFF
    echo "building ZPdfCntObj.dll for $arch in $build" >&2
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$arch-w64-mingw32.cmake" \
        -DZPDF_MUPDF_PREFIX="$prefix" -DZPDF_ALLOCATION_FAULTS=$faults >/dev/null
    cmake --build "$build" -j "$jobs" >&2
    echo "$arch $build"
done
