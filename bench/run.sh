#!/usr/bin/env bash
# Benchmarks against the peer tools installed from Debian, all timed in this one run on the
# same generated documents. Prints one table: our time, each peer's time, and the ratio
# (ours / peer; below 1 means we are faster). Times are the median of several whole-process
# runs, start-up included. Not a test: it never fails on a slow result.
#   bench/run.sh [--runs N]
set -euo pipefail
cd "$(dirname "$0")/.."

runs=5
[ "${1:-}" = "--runs" ] && runs=${2:?}

ZPDF_EXTRA_PACKAGES="${ZPDF_EXTRA_PACKAGES:-} time" bash scripts/install-deps.sh
build=${ZPDF_BENCH_BUILD_DIR:-build-release}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DZPDF_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target zpdf-bench >/dev/null
bench="$build/bench/zpdf-bench"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Documents: a 1000-page text document made by Ghostscript (embedded fonts, as print files
# usually have them) and one made by our own writer (standard fonts).
echo "making the documents..." >&2
{
    echo "/Helvetica findfont 10 scalefont setfont"
    echo "1 1 1000 { /p exch def 40 { 0 1 39 { /l exch def 50 780 l 18 mul sub moveto"
    echo "(Page ) show p 10 string cvs show ( line ) show l 10 string cvs show"
    echo "(: the quick brown fox jumps over the lazy dog 0123456789) show } for exit } loop showpage } for"
} >"$work/text.ps"
gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=pdfwrite -sPAPERSIZE=a4 -o "$work/text1000.pdf" "$work/text.ps"
"$bench" make-text "$work/plain1000.pdf" 1000
# Print files for splitting: 40 lines a page, the marker "@@nd@@" at the foot of every 7th page.
for pages in 2000 8000; do
    {
        echo "/Helvetica findfont 10 scalefont setfont"
        echo "1 1 $pages { /p exch def 0 1 39 { /l exch def 50 780 l 18 mul sub moveto"
        echo "(Page ) show p 10 string cvs show ( line ) show l 10 string cvs show"
        echo "(: the quick brown fox jumps over the lazy dog 0123456789) show } for"
        echo "p 7 mod 0 eq { 50 40 moveto (@@nd@@) show } if showpage } for"
    } >"$work/marked.ps"
    gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=pdfwrite -sPAPERSIZE=a4 -o "$work/marked$pages.pdf" \
        "$work/marked.ps"
done

# Median wall time, in seconds, of running the command line `runs` times. A setup command
# (run before each timing, not timed) may be given after `--setup`.
median() {
    local setup=""
    if [ "$1" = "--setup" ]; then setup=$2; shift 2; fi
    local times=()
    for _ in $(seq "$runs"); do
        [ -n "$setup" ] && eval "$setup"
        local start end
        start=$(date +%s.%N)
        eval "$*" >/dev/null 2>&1 || { echo "FAILED: $*" >&2; echo "nan"; return; }
        end=$(date +%s.%N)
        times+=("$(echo "$end - $start" | bc -l)")
    done
    printf '%s\n' "${times[@]}" | sort -g | awk '{a[NR]=$1} END {printf "%.4f", a[int((NR+1)/2)]}'
}

# Median peak resident memory, in KB, of running the command line `runs` times (setup as above).
median_rss() {
    local setup=""
    if [ "$1" = "--setup" ]; then setup=$2; shift 2; fi
    local sizes=()
    for _ in $(seq "$runs"); do
        [ -n "$setup" ] && eval "$setup"
        sizes+=("$(eval "/usr/bin/time -f %M -o $work/rss $*" >/dev/null 2>&1 && cat "$work/rss")")
    done
    printf '%s\n' "${sizes[@]}" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'
}

printf '%-34s %10s  %-34s %10s %8s\n' "job" "ours (s)" "peer" "peer (s)" "ratio"
row() {  # row JOB OURS_TIME PEER_NAME PEER_TIME
    local ratio
    ratio=$(awk -v a="$2" -v b="$4" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')
    printf '%-34s %10s  %-34s %10s %8s\n' "$1" "$2" "$3" "$4" "$ratio"
}

for doc in text1000 plain1000; do
    in="$work/$doc.pdf"
    ours=$(median "$bench count $in")
    row "open+count $doc" "$ours" "qpdf --show-npages" "$(median "qpdf --show-npages $in")"
    row "open+count $doc" "$ours" "mutool info" "$(median "mutool info $in")"

    ours=$(median "$bench render $in $work/ours.png")
    row "draw page 1 at 150 dpi $doc" "$ours" "pdftoppm -r 150 -f 1 -l 1 -png" \
        "$(median "pdftoppm -r 150 -f 1 -l 1 -png $in $work/peer")"

    ours=$(median --setup "cp $in $work/save.pdf" "$bench save $work/save.pdf")
    row "open+save $doc" "$ours" "qpdf in.pdf out.pdf" "$(median "qpdf $in $work/qpdf-out.pdf")"
done

# Splitting after marker pages: the whole split (text scan and writing the parts) against the
# peers' two halves of the same job, the text scan alone and writing one file per page.
fresh="rm -rf $work/parts && mkdir $work/parts"
for pages in 2000 8000; do
    in="$work/marked$pages.pdf"
    ours=$(median --setup "$fresh" "$bench split $in $work/parts/part")
    row "split marked$pages (every 7th)" "$ours" "pdftotext (text scan only)" \
        "$(median "pdftotext $in $work/peer.txt")"
    row "split marked$pages (every 7th)" "$ours" "qpdf --split-pages" \
        "$(median --setup "$fresh" "qpdf --split-pages $in $work/parts/page.pdf")"
done

# Peak memory (KB, "ours (s)" and "peer (s)" columns): it must not grow with the page count.
rss2000=$(median_rss --setup "$fresh" "$bench split $work/marked2000.pdf $work/parts/part")
rss8000=$(median_rss --setup "$fresh" "$bench split $work/marked8000.pdf $work/parts/part")
row "split peak RSS KB, 8000 pages" "$rss8000" "ours at 2000 pages" "$rss2000"
row "split peak RSS KB, 8000 pages" "$rss8000" "qpdf --split-pages, 8000 pages" \
    "$(median_rss --setup "$fresh" "qpdf --split-pages $work/marked8000.pdf $work/parts/page.pdf")"
row "split peak RSS KB, 8000 pages" "$rss8000" "pdftotext, 8000 pages" \
    "$(median_rss "pdftotext $work/marked8000.pdf $work/peer.txt")"
