# Locates MuPDF (the PDF engine) and its libraries as the imported target zpdf::mupdf.
# Natively this is Debian's libmupdf-dev, a static library linked with the system's copies
# of its third-party libraries. Cross builds point ZPDF_MUPDF_PREFIX at their own build.
if(TARGET zpdf::mupdf)
    return()
endif()

set(ZPDF_MUPDF_PREFIX "" CACHE PATH "Prefix of a MuPDF build to use instead of the system's")

if(ZPDF_MUPDF_PREFIX)
    # The default list is the layout of scripts/windows/build-deps.sh: static libraries, the
    # engine first, zlib last. OPJ_STATIC: openjpeg is a static library there. Such a prefix
    # also holds OpenSSL's static libcrypto, offered as zpdf::crypto.
    if(NOT ZPDF_MUPDF_LIBS)
        set(ZPDF_MUPDF_LIBS mupdf mupdf-third mujs freetype jpeg openjp2 jbig2dec z)
    endif()
    add_library(zpdf::mupdf INTERFACE IMPORTED)
    set_target_properties(zpdf::mupdf PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${ZPDF_MUPDF_PREFIX}/include"
        INTERFACE_LINK_DIRECTORIES "${ZPDF_MUPDF_PREFIX}/lib"
        INTERFACE_COMPILE_DEFINITIONS OPJ_STATIC)
    target_link_libraries(zpdf::mupdf INTERFACE ${ZPDF_MUPDF_LIBS})
    # zlib from the same prefix, static, for the project's own use (PNG output).
    add_library(zpdf::zlib STATIC IMPORTED)
    set_target_properties(zpdf::zlib PROPERTIES
        IMPORTED_LOCATION "${ZPDF_MUPDF_PREFIX}/lib/libz.a"
        INTERFACE_INCLUDE_DIRECTORIES "${ZPDF_MUPDF_PREFIX}/include")
    if(EXISTS "${ZPDF_MUPDF_PREFIX}/lib/libcrypto.a" AND NOT TARGET zpdf::crypto)
        add_library(zpdf::crypto STATIC IMPORTED)
        set_target_properties(zpdf::crypto PROPERTIES
            IMPORTED_LOCATION "${ZPDF_MUPDF_PREFIX}/lib/libcrypto.a"
            INTERFACE_INCLUDE_DIRECTORIES "${ZPDF_MUPDF_PREFIX}/include")
        if(WIN32)
            # The Windows libraries a static libcrypto calls into.
            target_link_libraries(zpdf::crypto INTERFACE ws2_32 gdi32 crypt32 advapi32 user32 bcrypt)
        endif()
    endif()
    return()
endif()

find_package(PkgConfig REQUIRED)
pkg_check_modules(ZPDF_MUPDF_PC REQUIRED mupdf)
find_library(ZPDF_MUPDF_LIB NAMES mupdf HINTS ${ZPDF_MUPDF_PC_LIBRARY_DIRS} REQUIRED)
find_library(ZPDF_MUPDF_THIRD_LIB NAMES mupdf-third HINTS ${ZPDF_MUPDF_PC_LIBRARY_DIRS} REQUIRED)
pkg_check_modules(ZPDF_FREETYPE REQUIRED freetype2)
pkg_check_modules(ZPDF_HARFBUZZ REQUIRED harfbuzz)
find_library(ZPDF_MUJS_LIB mujs REQUIRED)
find_library(ZPDF_GUMBO_LIB gumbo REQUIRED)
find_library(ZPDF_OPENJP2_LIB openjp2 REQUIRED)
find_library(ZPDF_JBIG2_LIB jbig2dec REQUIRED)
find_library(ZPDF_JPEG_LIB jpeg REQUIRED)
find_package(ZLIB REQUIRED)
add_library(zpdf::zlib INTERFACE IMPORTED)
target_link_libraries(zpdf::zlib INTERFACE ZLIB::ZLIB)

add_library(zpdf::mupdf INTERFACE IMPORTED)
set_target_properties(zpdf::mupdf PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${ZPDF_MUPDF_PC_INCLUDE_DIRS}")
target_link_libraries(zpdf::mupdf INTERFACE
    ${ZPDF_MUPDF_LIB} ${ZPDF_MUPDF_THIRD_LIB} ${ZPDF_MUJS_LIB} ${ZPDF_GUMBO_LIB}
    ${ZPDF_OPENJP2_LIB} ${ZPDF_JBIG2_LIB} ${ZPDF_JPEG_LIB}
    ${ZPDF_FREETYPE_LINK_LIBRARIES} ${ZPDF_HARFBUZZ_LINK_LIBRARIES} ZLIB::ZLIB m)
