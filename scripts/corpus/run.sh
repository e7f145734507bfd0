#!/usr/bin/env bash
# Runs `zpdf info` on every PDF of the corpus, one process per file with a time limit, and
# prints a table: opened, refused with a clear message, crashes, hangs, sanitizer reports, and
# page counts that differ from qpdf's. Exits non-zero when anything crashed or hung.
#   scripts/corpus/run.sh ZPDF_BINARY [CORPUS_DIR]
set -euo pipefail

zpdf=$(realpath "${1:?usage: run.sh ZPDF_BINARY [CORPUS_DIR]}")
corpus=${2:-$("$(dirname "$0")/fetch.sh")}
limit=${ZPDF_CORPUS_TIMEOUT:-60}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

check_one() {
    local file=$1 zpdf=$2 limit=$3
    local out rc ours theirs verdict
    out=$(timeout "$limit" "$zpdf" info "$file" 2>&1 </dev/null) && rc=0 || rc=$?
    if [ "$rc" -eq 124 ]; then
        verdict=hang
    elif grep -q -E 'AddressSanitizer|LeakSanitizer|runtime error:' <<<"$out"; then
        verdict=sanitizer
    elif [ "$rc" -ge 128 ]; then
        verdict=crash
    elif [ "$rc" -eq 0 ]; then
        ours=$(sed -n 's/^pages: //p' <<<"$out")
        theirs=$(timeout "$limit" qpdf --show-npages "$file" 2>/dev/null) || true
        if [ -n "$theirs" ] && [ "$theirs" != "$ours" ]; then
            verdict="differs(ours=$ours,qpdf=$theirs)"
        else
            verdict=opened
        fi
    elif grep -q -E '\(0x[0-9A-F]{8}\)$' <<<"$out"; then
        verdict=refused
    else
        verdict=unclear
    fi
    printf '%s\t%s\n' "$verdict" "$file"
}
export -f check_one

find "$corpus" -type f -iname '*.pdf' -print0 | sort -z |
    xargs -0 -P "$(nproc)" -I{} bash -c 'check_one "$@"' _ {} "$zpdf" "$limit" >"$work/results"

total=$(wc -l <"$work/results")
count() { grep -c -E "^$1" "$work/results" || true; }
printf '%-32s %6s\n' "files" "$total" "opened" "$(count opened)" "refused with a clear HRESULT" "$(count refused)" \
    "crashes" "$(count crash)" "hangs" "$(count hang)" "sanitizer reports" "$(count sanitizer)" \
    "page count differs from qpdf" "$(count differs)" "failed without a clear message" "$(count unclear)"
grep -v -E '^(opened|refused)' "$work/results" | sed 's/^/  /' || true
[ "$(count crash)" -eq 0 ] && [ "$(count hang)" -eq 0 ] && [ "$(count sanitizer)" -eq 0 ]
