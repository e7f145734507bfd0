# Cross build for 64-bit Windows with Debian's MinGW-w64 compilers.
#   cmake -S . -B build-x86_64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/x86_64-w64-mingw32.cmake \
#         -DZPDF_MUPDF_PREFIX=$(scripts/windows/build-deps.sh x86_64 | tail -n 1)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(ZPDF_MINGW_TRIPLET x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
