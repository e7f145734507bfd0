# Cross build for 32-bit Windows with Debian's MinGW-w64 compilers.
#   cmake -S . -B build-i686 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/i686-w64-mingw32.cmake \
#         -DZPDF_MUPDF_PREFIX=$(scripts/windows/build-deps.sh i686 | tail -n 1)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(ZPDF_MINGW_TRIPLET i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
