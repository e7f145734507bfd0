#!/usr/bin/env bash
# Runs the typical job (zpdf_corpus_job) and the zpdf commands that change documents under
# valgrind, on a handful of documents made here: a Ghostscript print file with part-end markers,
# the same file encrypted by qpdf with a user password and with an owner password only, and
# damaged copies of it whose table the engine has to rebuild. Builds a plain RelWithDebInfo tree
# (build-valgrind; ZPDF_VALGRIND_BUILD_DIR changes it) with the two executables only. Any
# further arguments are PDF files (from the corpus, for example) that go through the job too.
# Fails when valgrind reports an error or a definite leak, or when a command fails that must not.
#   scripts/run-valgrind.sh [EXTRA.pdf...]
set -euo pipefail
extra=()
for file in "$@"; do extra+=("$(realpath "$file")"); done
cd "$(dirname "$0")/.."

ZPDF_EXTRA_PACKAGES="valgrind" bash scripts/install-deps.sh
build=${ZPDF_VALGRIND_BUILD_DIR:-build-valgrind}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZPDF_SANITIZE=OFF -DZPDF_TSAN=OFF \
    -DZPDF_BUILD_TESTS=ON -DZPDF_BUILD_CLI=ON -DZPDF_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "${ZPDF_JOBS:-$(nproc 2>/dev/null || echo 2)}" --target zpdf_corpus_job zpdf >/dev/null
job=$(realpath "$build/tests/corpus/zpdf_corpus_job") zpdf=$(realpath "$build/cli/zpdf")
work=$(mktemp -d -t zpdf-valgrind.XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work"

# A six-page print file whose third and sixth pages carry the part-end marker, and a letterhead.
gs=(gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=pdfwrite -sPAPERSIZE=a4)
"${gs[@]}" -o marked.pdf -c '/Helvetica findfont 10 scalefont setfont 1 1 6 { /p exch def
  0 1 39 { /l exch def 50 780 l 18 mul sub moveto (Page ) show p 10 string cvs show ( line ) show
  l 10 string cvs show (: the quick brown fox jumps over the lazy dog) show } for
  p 3 mod 0 eq { 50 40 moveto (@@nd@@) show } if showpage } for'
"${gs[@]}" -o letterhead.pdf -c '/Helvetica findfont 20 scalefont setfont 50 800 moveto (Letterhead) show showpage'
qpdf --encrypt user owner 256 -- marked.pdf user-password.pdf
qpdf --encrypt "" owner 256 -- marked.pdf owner-password.pdf

# Damaged copies of the print file, edited line by line in qpdf's QDF form, where every object
# and table entry has lines of its own: the table entry of the font names the place of the
# object before it, so drawing makes the engine rebuild the table, and the root's /Count is
# wrong. In failed-rebuild.pdf, fix-qdf has first listed one more object, whose string runs to
# the end of the file: the rebuild gives up there and leaves no catalog.
misplace() {
    local xref font entry
    xref=$(grep -a -n '^xref$' "$1" | cut -d: -f1)
    font=$(grep -a -B2 '^  /BaseFont /Helvetica$' "$1" | sed -n 's/ 0 obj$//p')
    entry=$(sed -n "$((xref + 1 + font))p" "$1")
    sed -e "$((xref + 2 + font))s/.*/$entry/" -e 's|^  /Count 6$|  /Count 9|' "$1" >"$2"
}
qpdf --qdf --object-streams=disable marked.pdf qdf.pdf
misplace qdf.pdf rebuilt.pdf
size=$(sed -n 's|^  /Size ||p' qdf.pdf)
sed "/^xref\$/i $size 0 obj\\n<< /Damaged (text >>\\nendobj\\n" qdf.pdf | fix-qdf >unfinished.pdf
misplace unfinished.pdf failed-rebuild.pdf
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=zpdf-valgrind \
    -keyout recipient.key -out recipient.pem 2>/dev/null

failures=0
# check EXPECTED_STATUSES COMMAND...: runs the command under valgrind; its exit status must be
# one of EXPECTED_STATUSES (a pattern such as "0|1"), and valgrind must report nothing.
check() {
    local expected=$1 status=0
    shift
    valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite -q \
        --log-file=valgrind.log "$@" >command.log 2>&1 || status=$?
    [ ! -s valgrind.log ] && [[ "$status" =~ ^($expected)$ ]] && { echo "clean: $*"; return; }
    echo "FAILED (status $status): $*" && cat valgrind.log command.log && failures=$((failures + 1))
}

# The job exits with 1 when the document is refused and 3 on a wrong result.
for f in marked.pdf {user,owner}-password.pdf rebuilt.pdf failed-rebuild.pdf "${extra[@]}"; do
    rm -rf job && check "0|1" "$job" "$f" job --certificate recipient.pem
done
cp marked.pdf a.pdf
check 0 "$zpdf" stamp a.pdf letterhead.pdf --all -o stamped.pdf
check 0 "$zpdf" stamp a.pdf letterhead.pdf --page 2 --at 10,10 --scale 0.5 --background
check 0 "$zpdf" append a.pdf letterhead.pdf -o appended.pdf
check 0 "$zpdf" replace a.pdf 2 letterhead.pdf 1 1 -o replaced.pdf
check 0 "$zpdf" split appended.pdf part
check 0 "$zpdf" split owner-password.pdf secured-part
check 0 "$zpdf" protect owner-password.pdf --user u --owner o -o protected.pdf
check 0 "$zpdf" protect-pubkey owner-password.pdf recipient.pem -o pubkey.pdf
check 0 "$zpdf" info user-password.pdf --password user
check 0 "$zpdf" render rebuilt.pdf 1 page.png --dpi 36

[ "$failures" -eq 0 ] || { echo "$failures command(s) failed under valgrind"; exit 1; }
echo "valgrind: clean"
