#!/usr/bin/env bash
# Runs the typical job on every PDF of the corpus, one process per file with a time limit: open,
# count and measure every page, draw the first pages, stamp the document onto a small one,
# append it to one, save, split, and re-secure it (passwords and a certificate made here by
# openssl) when its file is encrypted. The corpus files are only read. Prints a table: opened,
# refused with a clear HRESULT, crashes, hangs, sanitizer reports, wrong results, and page
# counts that differ from qpdf's. Exits non-zero when anything crashed, hung, drew a sanitizer
# report or gave a wrong result.
#   scripts/corpus/run.sh JOB_BINARY [CORPUS_DIR]
# JOB_BINARY is tests/corpus/zpdf_corpus_job of a build; a build with ZPDF_SANITIZE=ON finds
# the most. ZPDF_CORPUS_TIMEOUT: seconds per file (default 120). ZPDF_CORPUS_JOBS: files at
# once (default 2). ZPDF_CORPUS_LOGS: a folder that keeps the verdicts (results.tsv) and the
# output of every file where not every step was done (default: a new temporary folder, printed
# at the end).
set -euo pipefail

job=$(realpath "${1:?usage: run.sh JOB_BINARY [CORPUS_DIR]}")
corpus=${2:-$("$(dirname "$0")/fetch.sh")}
limit=${ZPDF_CORPUS_TIMEOUT:-120}
logs=${ZPDF_CORPUS_LOGS:-$(mktemp -d -t zpdf-corpus-logs.XXXXXX)}
mkdir -p "$logs" && work=$(mktemp -d -t zpdf-corpus.XXXXXX)
trap 'rm -rf "$work"' EXIT

# One recipient certificate for the certificate-recipient saves.
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=zpdf-corpus-recipient \
    -keyout "$work/recipient.key" -out "$work/recipient.pem" 2>/dev/null

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}

check_one() {
    local file=$1 job=$2 limit=$3 work=$4 logs=$5
    local dir out rc ours theirs walked verdict
    dir=$(mktemp -d "$work/file.XXXXXX")
    out=$(timeout -k 10 "$limit" "$job" "$file" "$dir/job" --certificate "$work/recipient.pem" \
        2>&1 </dev/null) && rc=0 || rc=$?
    rm -rf "$dir"
    ours=$(sed -n 's/^pages: //p' <<<"$out")
    if [[ $rc =~ ^(124|137)$ ]]; then verdict=hang
    elif grep -q -E 'AddressSanitizer|LeakSanitizer|runtime error:' <<<"$out"; then verdict=sanitizer
    elif [[ ! $rc =~ ^[013]$ ]]; then verdict=crash
    elif [ "$rc" -eq 3 ] || grep -q ': WRONG' <<<"$out"; then verdict=wrong
    elif [ "$rc" -eq 0 ] && grep -q ': refused: ' <<<"$out"; then verdict=opened-some-refused
    elif [ "$rc" -eq 0 ]; then verdict=opened-all-done
    elif grep -q -E '^open: refused: .*\(0x[0-9A-F]{8}\)$' <<<"$out"; then verdict=refused
    else verdict=unclear; fi
    theirs=$(timeout "$limit" qpdf --show-npages "$file" 2>/dev/null) || true
    if [ -n "$theirs" ] && [ -n "$ours" ] && [ "$theirs" != "$ours" ]; then
        # --show-npages prints the page tree's /Count; the pages qpdf finds walking the tree
        # help to tell which of the two is right.
        walked=$(timeout "$limit" qpdf --show-pages "$file" 2>/dev/null | grep -c '^page ') || true
        verdict="$verdict differs(ours=$ours,qpdf=$theirs,qpdf-walk=$walked)"
    elif [ "$verdict" = refused ] && [ -n "$theirs" ]; then
        verdict="$verdict qpdf-reads(qpdf=$theirs)"
    fi
    [ "$verdict" = opened-all-done ] ||
        printf '%s\n%s\n' "$file" "$out" >"$logs/$(basename "$file").$(basename "$dir").log"
    printf '%s\t%s\n' "$verdict" "$file"
}
export -f check_one

find "$corpus" -type f -iname '*.pdf' -print0 | sort -z |
    xargs -0 -P "${ZPDF_CORPUS_JOBS:-2}" -I{} bash -c 'check_one "$@"' _ {} "$job" "$limit" "$work" "$logs" \
        >"$work/results"

sort -k2 "$work/results" >"$logs/results.tsv"
count() { grep -c -E "$1" "$work/results" || true; }
row() { printf '%-44s %6s\n' "$1" "$2"; }
row "files" "$(wc -l <"$work/results")"
row "opened" "$(count '^opened')"
row "  every step done" "$(count '^opened-all-done')"
row "  a step refused with a clear HRESULT" "$(count '^opened-some-refused')"
row "refused with a clear HRESULT" "$(count '^refused')"
row "  of which qpdf reads" "$(count '^refused qpdf-reads')"
row "crashes" "$(count '^crash')"
row "hangs (over ${limit} s)" "$(count '^hang')"
row "sanitizer reports" "$(count '^sanitizer')"
row "wrong results" "$(count '^wrong')"
row "page count differs from qpdf" "$(count 'differs\(')"
row "failed without a clear message" "$(count '^unclear')"
grep -v -E '^(opened-all-done|opened-some-refused|refused)'$'\t' "$work/results" | sed 's/^/  /' || true
echo "verdicts and logs: $logs"
[ "$(count '^(crash|hang|sanitizer|wrong)')" -eq 0 ]
