# What both MinGW-w64 toolchain files share; each sets CMAKE_SYSTEM_PROCESSOR and
# ZPDF_MINGW_TRIPLET, then includes this. Debian's compilers with the posix thread model, so
# std::thread and std::mutex work. Everything is linked statically, libgcc, libstdc++ and
# winpthread included, so the DLL imports nothing but Windows' own DLLs.
set(CMAKE_SYSTEM_NAME Windows)
set(ZPDF_MINGW_TRIPLET ${ZPDF_MINGW_TRIPLET} CACHE STRING "Target triplet of the MinGW-w64 tools")

set(CMAKE_C_COMPILER ${ZPDF_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZPDF_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${ZPDF_MINGW_TRIPLET}-windres)

# Libraries and headers come from the MinGW-w64 tree (and from explicit prefixes), programs
# from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${ZPDF_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
