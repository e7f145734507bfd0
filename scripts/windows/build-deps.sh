#!/usr/bin/env bash
# Cross-compiles the PDF engine (MuPDF) and the libraries it and ZPdfCntObj.dll need as static
# Windows libraries, from Debian's own source packages, into a prefix outside the tree:
#
#   ${ZPDF_WINDOWS_DEPS:-$HOME/.cache/zpdf-windows-deps}/ARCH-KEY/
#       include/   the engine's headers, openssl/ freetype2/ openjpeg-2.5/ zlib.h zconf.h jpeglib.h jbig2.h mujs.h ...
#       lib/       libmupdf.a libmupdf-third.a libmujs.a libfreetype.a libjpeg.a libopenjp2.a
#                  libjbig2dec.a libz.a libcrypto.a
#       versions.txt, .complete
#
#   scripts/windows/build-deps.sh x86_64|i686
#
# KEY is made of the versions of the source packages and of the recipe (this script's
# revision, its patches, the compiler), so a second run finds the finished prefix and only
# prints it. The stamp .complete is written last: a prefix without it is built again.
# Progress goes to stderr; the last line of stdout is the prefix. Needs the packages and the
# deb-src entries of scripts/windows/install-deps.sh. ZPDF_JOBS sets the parallel jobs (2).
# Sources are fetched once into the cache's src/, built in its build/ (kept after a failure,
# with a log per step).
set -euo pipefail

# Raise when the way the libraries are built changes without a package version changing.
recipe=3

arch=${1:-}
case "$arch" in
    x86_64) mupdf_os=mingw64-cross; openssl_target=mingw64 ;;
    i686) mupdf_os=mingw32-cross; openssl_target=mingw ;;
    *) echo "usage: $0 x86_64|i686" >&2; exit 2 ;;
esac
triplet=$arch-w64-mingw32
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(cd "$here/../.." && pwd)
toolchain=$repo/cmake/toolchains/$triplet.cmake
root=${ZPDF_WINDOWS_DEPS:-$HOME/.cache/zpdf-windows-deps}
jobs=${ZPDF_JOBS:-2}

log() { echo "build-deps[$arch] $(date +%T): $*" >&2; }
die() { log "error: $*"; exit 1; }

cc=$triplet-gcc-posix
for tool in "$cc" "$triplet-g++-posix" "$triplet-ar" "$triplet-ranlib" "$triplet-windres" \
            nasm cmake make perl python3 apt-get dpkg-source patch flock; do
    command -v "$tool" >/dev/null || die "$tool is missing; run scripts/windows/install-deps.sh"
done
tx=$(command -v tx || true)
[ -n "$tx" ] || tx=/usr/libexec/afdko/tx
[ -x "$tx" ] || die "tx (afdko-bin) is missing; run scripts/windows/install-deps.sh"
urw_fonts=/usr/share/fonts/type1/urw-base35
[ -d "$urw_fonts" ] || die "$urw_fonts is missing (fonts-urw-base35)"
zlib_dir=/usr/$triplet
[ -f "$zlib_dir/lib/libz.a" ] || die "$zlib_dir/lib/libz.a is missing (libz-mingw-w64-dev)"

mkdir -p "$root/src"

# --- Debian source packages -------------------------------------------------------------------

# Prints the versions apt knows for a source package, newest first.
source_versions() {
    local pkg=$1 v sorted=() i
    while read -r v; do
        i=${#sorted[@]}
        sorted+=("$v")
        while [ "$i" -gt 0 ] && dpkg --compare-versions "${sorted[i-1]}" lt "$v"; do
            sorted[i]=${sorted[i-1]}
            i=$((i - 1))
        done
        sorted[i]=$v
    done < <(apt-cache showsrc --only-source "$pkg" 2>/dev/null | sed -n 's/^Version: //p' | sort -u)
    [ ${#sorted[@]} -gt 0 ] && printf '%s\n' "${sorted[@]}"
}

# fetch_source PKG: downloads and unpacks (with Debian's patches applied) the newest version of
# PKG that the archive delivers, once, under $root/src. Sets src_version and src_dir.
# A version the archive failed to deliver is skipped for a day.
fetch_source() {
    local pkg=$1 v plain dir tmp
    local versions
    versions=$(source_versions "$pkg") ||
        die "no source package $pkg known to apt; run scripts/windows/install-deps.sh (deb-src entries)"
    for v in $versions; do
        plain=${v#*:}
        dir=$root/src/${pkg}_$plain
        if [ -f "$dir/.unpacked" ]; then
            src_version=$plain
            src_dir=$dir/$(cat "$dir/.unpacked")
            return 0
        fi
        if [ -n "$(find "$root/src" -maxdepth 1 -name "${pkg}_$plain.unavailable" -mmin -1440 2>/dev/null)" ]; then
            continue
        fi
        log "fetching source package $pkg $v"
        tmp=$(mktemp -d "$root/src/.${pkg}.XXXXXX")
        if (cd "$tmp" && apt-get source -qq "$pkg=$v" >"$tmp.log" 2>&1); then
            # The unpacked tree is the one directory apt-get source left.
            (cd "$tmp" && find . -mindepth 1 -maxdepth 1 -type d -printf '%f\n') >"$tmp/.unpacked"
            [ "$(wc -l <"$tmp/.unpacked")" -eq 1 ] || die "unexpected layout of source package $pkg $v in $tmp"
            rm -f "$tmp.log"
            rm -rf "$dir"
            mv "$tmp" "$dir"
            src_version=$plain
            src_dir=$dir/$(cat "$dir/.unpacked")
            return 0
        fi
        log "the archive did not deliver $pkg $v ($(grep -m1 '^E:' "$tmp.log" || true)); trying an older version"
        rm -rf "$tmp" "$tmp.log"
        touch "$root/src/${pkg}_$plain.unavailable"
    done
    die "could not fetch any version of source package $pkg"
}

packages=(mupdf freetype libjpeg-turbo openjpeg2 jbig2dec mujs openssl harfbuzz)
declare -A version dirs
{
    # One download at a time, also when both architectures are built at once.
    flock 9
    for pkg in "${packages[@]}"; do
        fetch_source "$pkg"
        version[$pkg]=$src_version
        dirs[$pkg]=$src_dir
    done
} 9>"$root/src/.lock"

zlib_version=$(dpkg-query -W -f='${Version}' libz-mingw-w64-dev)
gcc_version=$(dpkg-query -W -f='${Version}' gcc-mingw-w64-base 2>/dev/null || "$cc" -dumpversion)
runtime_version=$(dpkg-query -W -f='${Version}' mingw-w64-common 2>/dev/null || echo unknown)

versions_txt=$(
    for pkg in "${packages[@]}"; do echo "$pkg ${version[$pkg]}"; done
    echo "libz-mingw-w64-dev $zlib_version"
    echo "gcc-mingw-w64 $gcc_version"
    echo "mingw-w64-runtime $runtime_version"
    echo "recipe $recipe"
)
key_hash=$({ echo "$versions_txt"; cat "$here"/*.patch; } | sha256sum | cut -c1-12)
mupdf_upstream=${version[mupdf]%%+*}
mupdf_upstream=${mupdf_upstream%%-*}
prefix=$root/$arch-mupdf$mupdf_upstream-$key_hash

if [ -f "$prefix/.complete" ]; then
    log "up to date"
    echo "$prefix"
    exit 0
fi

exec 8>"$prefix.lock"
flock 8
if [ -f "$prefix/.complete" ]; then
    echo "$prefix"
    exit 0
fi

started=$(date +%s)
log "building into $prefix"
work=$root/build/$arch-mupdf$mupdf_upstream-$key_hash
rm -rf "$prefix" "$work"
mkdir -p "$prefix/include" "$prefix/lib" "$work"

cflags="-O2 -ffunction-sections -fdata-sections"
cmake_common=(
    -DCMAKE_TOOLCHAIN_FILE="$toolchain"
    -DCMAKE_BUILD_TYPE=Release
    -DCMAKE_C_FLAGS="-ffunction-sections -fdata-sections"
    -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG"
    -DCMAKE_INSTALL_PREFIX="$prefix"
    -DCMAKE_INSTALL_LIBDIR=lib
    -DCMAKE_INSTALL_INCLUDEDIR=include
)

# A private copy of an unpacked source tree to build in.
copy_tree() {
    local pkg=$1
    rm -rf "$work/$pkg"
    cp -a "${dirs[$pkg]}" "$work/$pkg"
    echo "$work/$pkg"
}

run_logged() {
    local name=$1
    shift
    if ! "$@" >"$work/$name.log" 2>&1; then
        tail -n 40 "$work/$name.log" >&2
        die "$name failed; the whole log is $work/$name.log"
    fi
}

# --- zlib: Debian's Windows build, static ----------------------------------------------------

log "zlib $zlib_version"
cp "$zlib_dir/lib/libz.a" "$prefix/lib/"
cp "$zlib_dir/include/zlib.h" "$zlib_dir/include/zconf.h" "$prefix/include/"

# --- freetype --------------------------------------------------------------------------------

log "freetype ${version[freetype]}"
src=$(copy_tree freetype)
# zlib named by file: a search would take the DLL import library of the MinGW-w64 tree.
run_logged freetype-configure cmake -S "$src" -B "$src/_build" "${cmake_common[@]}" \
    -DBUILD_SHARED_LIBS=OFF \
    -DFT_REQUIRE_ZLIB=ON -DZLIB_LIBRARY="$prefix/lib/libz.a" -DZLIB_INCLUDE_DIR="$prefix/include" \
    -DFT_DISABLE_BZIP2=ON -DFT_DISABLE_PNG=ON -DFT_DISABLE_HARFBUZZ=ON -DFT_DISABLE_BROTLI=ON
run_logged freetype-build cmake --build "$src/_build" -j "$jobs"
run_logged freetype-install cmake --install "$src/_build"

# --- libjpeg-turbo ---------------------------------------------------------------------------

log "libjpeg-turbo ${version[libjpeg-turbo]}"
src=$(copy_tree libjpeg-turbo)
run_logged libjpeg-configure cmake -S "$src" -B "$src/_build" "${cmake_common[@]}" \
    -DENABLE_SHARED=OFF -DENABLE_STATIC=ON -DWITH_TURBOJPEG=OFF -DWITH_SIMD=ON -DREQUIRE_SIMD=ON \
    -DCMAKE_ASM_NASM_COMPILER=nasm
run_logged libjpeg-build cmake --build "$src/_build" -j "$jobs" --target jpeg-static
cp "$src/_build/libjpeg.a" "$prefix/lib/"
cp "$src/jpeglib.h" "$src/jmorecfg.h" "$src/jerror.h" "$src/_build/jconfig.h" "$prefix/include/"

# --- openjpeg --------------------------------------------------------------------------------

log "openjpeg2 ${version[openjpeg2]}"
src=$(copy_tree openjpeg2)
run_logged openjpeg-configure cmake -S "$src" -B "$src/_build" "${cmake_common[@]}" \
    -DBUILD_SHARED_LIBS=OFF -DBUILD_STATIC_LIBS=ON -DBUILD_CODEC=OFF -DBUILD_TESTING=OFF \
    -DBUILD_DOC=OFF -DBUILD_PKGCONFIG_FILES=OFF
run_logged openjpeg-build cmake --build "$src/_build" -j "$jobs"
run_logged openjpeg-install cmake --install "$src/_build"
openjpeg_include=$(cd "$prefix/include" && ls -d openjpeg-* | head -n 1)
[ -f "$prefix/include/$openjpeg_include/openjpeg.h" ] || die "openjpeg.h was not installed"

# --- jbig2dec --------------------------------------------------------------------------------

# jbig2.h defines inline away when it is not a macro, which turns the inline functions of
# MinGW-w64's headers (llabs, _Exit) into duplicate definitions; the GNU keyword avoids that.
# Every user of jbig2.h (the engine too) is compiled with it.
inline_fix=-Dinline=__inline__

log "jbig2dec ${version[jbig2dec]}"
src=$(copy_tree jbig2dec)
jbig2_objs=$(make -s --no-print-directory -C "$src" -f Makefile.unix --eval 'print-lib-objs: ; @echo $(LIB_OBJS)' print-lib-objs)
run_logged jbig2dec-build make -C "$src" -f Makefile.unix -j "$jobs" CC="$cc" \
    CFLAGS="$cflags -Wall $inline_fix" $jbig2_objs
(cd "$src" && rm -f libjbig2dec.a && "$triplet-ar" rcs libjbig2dec.a $jbig2_objs)
cp "$src/libjbig2dec.a" "$prefix/lib/"
cp "$src/jbig2.h" "$prefix/include/"

# --- mujs ------------------------------------------------------------------------------------

log "mujs ${version[mujs]}"
src=$(copy_tree mujs)
run_logged mujs-build make -C "$src" -j "$jobs" build=release HAVE_READLINE=no \
    CC="$cc" AR="$triplet-ar" XCFLAGS="-ffunction-sections -fdata-sections" static
"$triplet-ranlib" "$src/build/release/libmujs.a"
cp "$src/build/release/libmujs.a" "$prefix/lib/"
cp "$src/mujs.h" "$prefix/include/"

# --- OpenSSL: libcrypto only -----------------------------------------------------------------

log "openssl ${version[openssl]}"
src=$(copy_tree openssl)
if [ "$arch" = i686 ]; then
    # Debian's pic.patch makes the 32-bit x86 assembler calls go through the ELF GOT and PLT,
    # which COFF does not have; the upstream code is right for Windows.
    (cd "$src" && patch -R -p1 -s <debian/patches/pic.patch) || die "could not take back Debian's pic.patch"
fi
(
    cd "$src"
    # no-autoload-config: a component inside other programs' processes reads no openssl.cnf
    # from a default place. No --prefix either, so no path of this machine ends up in the
    # library; the default directories are only used when asked for explicitly.
    run_logged openssl-configure ./Configure "$openssl_target" no-shared no-tests no-autoload-config \
        CC="$cc" AR="$triplet-ar" RANLIB="$triplet-ranlib" RC="$triplet-windres" \
        -ffunction-sections -fdata-sections
    run_logged openssl-generate make -j "$jobs" build_generated
    run_logged openssl-build make -j "$jobs" libcrypto.a
)
cp "$src/libcrypto.a" "$prefix/lib/"
mkdir -p "$prefix/include/openssl"
cp "$src"/include/openssl/*.h "$prefix/include/openssl/"

# --- MuPDF -----------------------------------------------------------------------------------

log "mupdf ${version[mupdf]}"
src=$(copy_tree mupdf)
(cd "$src" && patch -p1 -s --forward <"$here/mupdf-html5-parser-optional.patch") ||
    die "mupdf-html5-parser-optional.patch does not apply"

# Debian's source package leaves out the built-in Base 14 fonts: they are made again from the
# same URW fonts, subset and converted to CFF the way Debian's packaging does it.
(
    cd "$src/resources/fonts/urw"
    for f in NimbusMonoPS-Regular NimbusMonoPS-Italic NimbusMonoPS-Bold NimbusMonoPS-BoldItalic \
             NimbusRoman-Regular NimbusRoman-Italic NimbusRoman-Bold NimbusRoman-BoldItalic \
             NimbusSans-Regular NimbusSans-Italic NimbusSans-Bold NimbusSans-BoldItalic; do
        "$tx" -cff +S +T -b -n -g "$(cat subset.mes)" "$urw_fonts/$f.t1" "$f.cff" 2>/dev/null
    done
    "$tx" -cff +S +T -b -n "$urw_fonts/StandardSymbolsPS.t1" StandardSymbolsPS.cff 2>/dev/null
    "$tx" -cff +S +T -b -n "$urw_fonts/D050000L.t1" Dingbats.cff 2>/dev/null
) || die "converting the URW fonts failed"
[ "$(ls "$src"/resources/fonts/urw/*.cff | wc -l)" -eq 14 ] || die "not all 14 fonts were converted"
mkdir -p "$src/source/pdf/cmaps"

# Only the PDF handler is needed: the other document types, colour management (lcms2 is not
# built) and the office outputs are left out, and so are the fallback fonts of other scripts
# (TOFU, TOFU_CJK), which Debian's source package does not carry either.
features=(
    FZ_ENABLE_XPS=0 FZ_ENABLE_SVG=0 FZ_ENABLE_CBZ=0 FZ_ENABLE_IMG=0 FZ_ENABLE_HTML=0
    FZ_ENABLE_EPUB=0 FZ_ENABLE_ICC=0 FZ_ENABLE_OCR_OUTPUT=0 FZ_ENABLE_DOCX_OUTPUT=0
    FZ_ENABLE_ODT_OUTPUT=0
)
mupdf_xcflags="${features[*]/#/-D} -DTOFU -DTOFU_CJK -DOPJ_STATIC $inline_fix -I$prefix/include"
harfbuzz_include=$work/harfbuzz-include
mkdir -p "$harfbuzz_include"
# The engine includes hb.h for its font and HTML code; only the HTML layout calls into it, and
# that is never linked. The headers of Debian's source package suffice.
cp "${dirs[harfbuzz]}"/src/hb.h "${dirs[harfbuzz]}"/src/hb-*.h "$harfbuzz_include/"

mupdf_make=(
    make -C "$src" OS="$mupdf_os" build=release verbose=yes
    CC="$cc" CXX="$triplet-g++-posix" LD="$cc" AR="$triplet-ar" RANLIB="$triplet-ranlib"
    WINDRES="$triplet-windres"
    XCFLAGS="$mupdf_xcflags"
    HAVE_X11=no HAVE_GLUT=no HAVE_CURL=no HAVE_OBJCOPY=no HAVE_LIBCRYPTO=no HAVE_PTHREAD=no
    USE_SYSTEM_LIBS=yes USE_SYSTEM_MUJS=yes USE_SYSTEM_LCMS2=yes USE_SYSTEM_GUMBO=yes
    SYS_FREETYPE_CFLAGS="-I$prefix/include/freetype2"
    SYS_HARFBUZZ_CFLAGS="-I$harfbuzz_include"
    SYS_LIBJPEG_CFLAGS="-I$prefix/include"
    SYS_OPENJPEG_CFLAGS="-I$prefix/include/$openjpeg_include"
    SYS_JBIG2DEC_CFLAGS="-I$prefix/include"
    SYS_MUJS_CFLAGS="-I$prefix/include"
    SYS_ZLIB_CFLAGS="-I$prefix/include"
    ZLIB_CFLAGS="-I$prefix/include"
    SYS_GUMBO_CFLAGS= SYS_LCMS2_CFLAGS=
)
# The generated sources (embedded fonts, CMaps, JavaScript) come from scripts run on the
# build machine (bash, python3, sed); no host compiler is involved.
run_logged mupdf-generate "${mupdf_make[@]}" generate
run_logged mupdf-build "${mupdf_make[@]}" -j "$jobs" libs
out=$src/build/$mupdf_os/release
[ -f "$out/libmupdf.a" ] && [ -f "$out/libmupdf-third.a" ] || die "the engine's libraries were not built"
cp "$out/libmupdf.a" "$out/libmupdf-third.a" "$prefix/lib/"
# The engine's public headers: the top folder, fitz/ and pdf/ (not its helpers/).
headers=include/mupdf
for part in . fitz pdf; do
    mkdir -p "$prefix/$headers/$part"
    cp "$src/$headers/$part"/*.h "$prefix/$headers/$part/"
done

# The public headers lay out some structures (fz_context, fz_colorspace) by these switches:
# the installed config.h carries the library's choices, so every user sees the same layout.
config=$prefix/$headers/fitz/config.h
{
    sed -n '1,/^#define FZ_CONFIG_H/p' "$config"
    echo
    echo "/* The switches this build of the library was compiled with. */"
    for f in "${features[@]}"; do
        printf '#ifndef %s\n#define %s %s\n#endif\n' "${f%=*}" "${f%=*}" "${f#*=}"
    done
    sed '1,/^#define FZ_CONFIG_H/d' "$config"
} >"$config.new"
mv "$config.new" "$config"

# --- done ------------------------------------------------------------------------------------

for lib in mupdf mupdf-third mujs freetype jpeg openjp2 jbig2dec z crypto; do
    [ -s "$prefix/lib/lib$lib.a" ] || die "lib/lib$lib.a is missing"
done
echo "$versions_txt" >"$prefix/versions.txt"
rm -rf "$work"
touch "$prefix/.complete"
log "done in $(($(date +%s) - started)) s"
echo "$prefix"
