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

ZPDF_EXTRA_PACKAGES="pdftk-java time" bash scripts/install-deps.sh
build=${ZPDF_BENCH_BUILD_DIR:-build-release}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DZPDF_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target zpdf-bench zpdf >/dev/null
bench="$build/bench/zpdf-bench"
zpdf="$build/cli/zpdf"

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
# Print files for splitting and for the memory rows: 40 lines a page, the marker "@@nd@@" at the
# foot of every 7th page.
for pages in 1000 2000 8000; do
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

# Peak resident memory in MiB of one run of the command line.
peak_mib() {
    /usr/bin/time -f '%M' -o "$work/rss" bash -c "$*" >/dev/null 2>&1 || true
    awk '{ printf "%.0f", $1 / 1024 }' "$work/rss"
}

printf '%-34s %10s  %-40s %10s %8s\n' "job" "ours (s)" "peer" "peer (s)" "ratio"
row() {  # row JOB OURS PEER_NAME PEER
    local ratio
    ratio=$(awk -v a="$2" -v b="$4" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')
    printf '%-34s %10s  %-40s %10s %8s\n' "$1" "$2" "$3" "$4" "$ratio"
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

# Page facts of long documents: zpdf info (version, encryption, every page's size, rotation and
# boxes) against poppler's pdfinfo listing every page, in time and in peak memory (KB).
for pages in 3000 30000; do
    "$bench" make-text "$work/info$pages.pdf" "$pages"
    info_ours="$zpdf info $work/info$pages.pdf"
    info_peer="pdfinfo -l $pages $work/info$pages.pdf"
    row "info $pages pages" "$(median "$info_ours")" "pdfinfo -l $pages" "$(median "$info_peer")"
    row "info $pages pages, peak RSS KB" "$(median_rss "$info_ours")" "pdfinfo -l $pages, peak RSS KB" \
        "$(median_rss "$info_peer")"
done
rm -f "$work"/info*.pdf

# Stamping a one-page letterhead beneath every page, and appending one document to another.
gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=pdfwrite -sPAPERSIZE=a4 -o "$work/lh.pdf" \
    -c "0.8 setgray 0 792 595 50 rectfill 0 setgray /Helvetica-Bold findfont 20 scalefont setfont 40 810 moveto (Letterhead) show showpage"
in="$work/text1000.pdf"
stamp_ours="$zpdf stamp $in $work/lh.pdf --background -o $work/stamped.pdf"
stamp_qpdf="qpdf $in --underlay $work/lh.pdf --repeat=1 -- $work/qpdf-stamped.pdf"
stamp_pdftk="pdftk $in background $work/lh.pdf output $work/pdftk-stamped.pdf"
ours=$(median "$stamp_ours")
row "stamp 1000 pages + save" "$ours" "qpdf --underlay" "$(median "$stamp_qpdf")"
row "stamp 1000 pages + save" "$ours" "pdftk background" "$(median "$stamp_pdftk")"
row "stamp 1000 pages + save" "$ours" "qpdf in.pdf out.pdf (plain rewrite)" "$(median "qpdf $in $work/qpdf-out.pdf")"
row "stamp 1000 pages, peak MiB" "$(peak_mib "$stamp_ours")" "qpdf --underlay, peak MiB" "$(peak_mib "$stamp_qpdf")"

append_ours="$zpdf append $in $work/plain1000.pdf -o $work/appended.pdf"
append_qpdf="qpdf --empty --pages $in $work/plain1000.pdf -- $work/qpdf-appended.pdf"
ours=$(median "$append_ours")
row "append 1000 to 1000 pages + save" "$ours" "qpdf --empty --pages" "$(median "$append_qpdf")"
row "append 1000 to 1000 pages + save" "$ours" "pdfunite" "$(median "pdfunite $in $work/plain1000.pdf $work/unite.pdf")"
row "append, peak MiB" "$(peak_mib "$append_ours")" "qpdf --empty --pages, peak MiB" "$(peak_mib "$append_qpdf")"
# A long print file appended to itself: the time must grow with the pages, not their square.
long="$work/marked8000.pdf"
ours=$(median "$zpdf append $long $long -o $work/appended.pdf")
row "append 8000 to 8000 pages + save" "$ours" "pdfunite" "$(median "pdfunite $long $long $work/unite.pdf")"
row "append 8000 to 8000 pages + save" "$ours" "qpdf --empty --pages" \
    "$(median "qpdf --empty --pages $long $long -- $work/qpdf-appended.pdf")"

# Secured saves. Both re-secure an encrypted file, so each document is first encrypted by qpdf
# (AES-256, password u); ours and the peer open it with that password. The certificate save is
# compared with PDFBox's PublicKeyProtectionPolicy (AES-256), JVM start-up included.
jars=/usr/share/java/pdfbox2.jar:/usr/share/java/fontbox2.jar:/usr/share/java/commons-logging.jar
jars=$jars:/usr/share/java/bcprov.jar:/usr/share/java/bcpkix.jar:/usr/share/java/bcutil.jar
mkdir -p "$work/java"
javac -nowarn -d "$work/java" -cp "$jars" bench/PubKeyBench.java
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=bench \
    -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null
for doc in text1000 plain1000; do
    enc="$work/$doc-aes.pdf"
    qpdf --encrypt u o 256 -- "$work/$doc.pdf" "$enc"

    ours=$(median --setup "cp $enc $work/secure.pdf" "$bench protect $work/secure.pdf u")
    row "AES-256 save $doc" "$ours" "qpdf --encrypt U O 256 --" \
        "$(median "qpdf --password=u --encrypt U O 256 -- $enc $work/qpdf-aes.pdf")"

    ours=$(median --setup "cp $enc $work/secure.pdf" \
        "$bench protect-pubkey $work/secure.pdf u $work/cert.pem")
    row "certificate save $doc" "$ours" "PDFBox PublicKeyProtectionPolicy" \
        "$(median "java -cp $work/java:$jars PubKeyBench $enc u $work/cert.pem $work/pdfbox.pdf")"
done

# Decrypting a 3000-page file secured with a password (AES-256, made of the 1000-page print file
# by qpdf) into a plain copy, against qpdf --decrypt: time and peak memory.
qpdf --empty --pages "$work/marked1000.pdf" "$work/marked1000.pdf" "$work/marked1000.pdf" -- \
    "$work/raw3000.pdf"
qpdf --encrypt u o 256 -- "$work/raw3000.pdf" "$work/locked3000.pdf"
rm -f "$work/raw3000.pdf"
decrypt_ours="$zpdf decrypt $work/locked3000.pdf --password u -o $work/decrypted.pdf"
decrypt_qpdf="qpdf --password=u --decrypt $work/locked3000.pdf $work/qpdf-decrypted.pdf"
row "decrypt 3000 pages (AES-256)" "$(median "$decrypt_ours")" "qpdf --decrypt" "$(median "$decrypt_qpdf")"
row "decrypt 3000 pages, peak MiB" "$(peak_mib "$decrypt_ours")" "qpdf --decrypt, peak MiB" \
    "$(peak_mib "$decrypt_qpdf")"

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

# Peak memory (MiB, in the time columns) of stamping, appending and saving at 1000 and 8000
# pages: the growth with the page count, against qpdf's plain rewrite of the 8000 pages.
declare -A peak_stamp peak_append peak_save
big="$work/marked8000.pdf"
small="$work/marked1000.pdf"
for size in small big; do
    doc=${!size}
    peak_stamp[$size]=$(peak_mib "$zpdf stamp $doc $work/lh.pdf --background -o $work/mem-stamped.pdf")
    peak_append[$size]=$(peak_mib "$zpdf append $doc $doc -o $work/mem-appended.pdf")
    peak_save[$size]=$(peak_mib "cp $doc $work/mem-save.pdf && $bench save $work/mem-save.pdf")
done
qpdf_peak=$(peak_mib "qpdf $big $work/qpdf-out.pdf")
row "stamp peak MiB, 8000 pages" "${peak_stamp[big]}" "ours at 1000 pages" "${peak_stamp[small]}"
row "append peak MiB, 8000 + 8000" "${peak_append[big]}" "ours at 1000 + 1000" "${peak_append[small]}"
row "save peak MiB, 8000 pages" "${peak_save[big]}" "ours at 1000 pages" "${peak_save[small]}"
row "save peak MiB, 8000 pages" "${peak_save[big]}" "qpdf in.pdf out.pdf, 8000 pages" "$qpdf_peak"

# Scale (measured, not asserted): a 100,000-page print file, made of the 8000-page one by qpdf,
# stamped, appended to itself and split (goal: each under 10 s and 64 MiB here); and the typical
# job of two content objects on two threads of one process against one thread doing both (goal:
# 1.8 times as fast on two cores). The "peer" columns hold the goal or the one-thread time.
qpdf --empty --pages $(for _ in $(seq 13); do printf '%s ' "$work/marked8000.pdf"; done) -- "$work/raw.pdf"
qpdf --empty --pages "$work/raw.pdf" 1-100000 -- "$work/marked100000.pdf"
rm -f "$work/raw.pdf"
huge="$work/marked100000.pdf"
scale_stamp="$zpdf stamp $huge $work/lh.pdf --background -o $work/huge-stamped.pdf"
scale_append="$zpdf append $huge $huge -o $work/huge-appended.pdf"
row "stamp 100000 pages + save" "$(median "$scale_stamp")" "goal" "10"
row "stamp 100000 pages, peak MiB" "$(peak_mib "$scale_stamp")" "goal" "64"
row "append 100000 to itself + save" "$(median "$scale_append")" "goal" "10"
row "append 100000 to itself, peak MiB" "$(peak_mib "$scale_append")" "goal" "64"
row "split marked100000 (every 7th)" "$(median --setup "$fresh" "$bench split $huge $work/parts/part")" "goal" "10"
eval "$fresh"
row "split 100000 pages, peak MiB" "$(peak_mib "$bench split $huge $work/parts/part")" "goal" "64"
rm -rf "$work/parts" "$work/huge-stamped.pdf" "$work/huge-appended.pdf"
mkdir -p "$work/jobs"
one=$(median "$bench jobs 1 $work/text1000.pdf $work/lh.pdf $work/jobs")
two=$(median "$bench jobs 2 $work/text1000.pdf $work/lh.pdf $work/jobs")
row "two typical jobs, two threads" "$two" "the same on one thread" "$one"
