#!/usr/bin/env bash
# The rendering comparison over the corpus: for every PDF, with the zpdf command-line host,
#   stamp    an empty one-page letterhead onto every page,
#   append   the file to itself,
#   replace  its last page with its first,
#   split    the stamped file (the letterhead carries the split marker as invisible text, so
#            every page ends a part and part k holds page k),
# then renders every page of every output and of the input with poppler (gray, low resolution)
# and compares each output page with the input page it came from. Annotations and form fields
# are counted per page with qpdf --json before and after. Prints a table: files, pages compared,
# pages that render differently, annotations lost, fields lost, crashes, and the files poppler
# itself cannot render, counted apart. Exits non-zero when a page renders differently, an
# annotation or field is lost, an operation crashed or hung, or an output lost all its pages.
#   scripts/corpus/compare.sh ZPDF_BINARY PAGE_COMPARE_BINARY [CORPUS_DIR]
# ZPDF_BINARY is cli/zpdf of a build, PAGE_COMPARE_BINARY tests/corpus/zpdf_page_compare.
# ZPDF_COMPARE_TIMEOUT: seconds per file for everything (default 600); ZPDF_COMPARE_JOBS: files
# at once (default 2); ZPDF_COMPARE_DPI: resolution of the renderings (default 20);
# ZPDF_COMPARE_LOGS: a folder that keeps the verdicts (results.tsv) and, for every file that is
# not all same, what differed (default: a new temporary folder, printed at the end).
set -euo pipefail

zpdf=$(realpath "${1:?usage: compare.sh ZPDF_BINARY PAGE_COMPARE_BINARY [CORPUS_DIR]}")
page_compare=$(realpath "${2:?usage: compare.sh ZPDF_BINARY PAGE_COMPARE_BINARY [CORPUS_DIR]}")
corpus=${3:-$("$(dirname "$0")/fetch.sh")}
limit=${ZPDF_COMPARE_TIMEOUT:-600}
dpi=${ZPDF_COMPARE_DPI:-20}
logs=${ZPDF_COMPARE_LOGS:-$(mktemp -d -t zpdf-compare-logs.XXXXXX)}
mkdir -p "$logs" && work=$(mktemp -d -t zpdf-compare.XXXXXX)
trap 'rm -rf "$work"' EXIT

# The letterhead: a Letter page that draws nothing but holds the split marker in invisible text
# (text render mode 3). Written without a cross-reference table; qpdf writes it properly.
printf '%s\n' '%PDF-1.4' \
    '1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj' \
    '2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj' \
    '3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Contents 4 0 R' \
    '   /Resources << /Font << /F1 5 0 R >> >> >> endobj' \
    '4 0 obj << /Length 44 >> stream' \
    'BT 3 Tr /F1 4 Tf 2 2 Td (@@nd@@) Tj ET' \
    'endstream endobj' \
    '5 0 obj << /Type /Font /Subtype /Type1 /BaseFont /Helvetica >> endobj' \
    'trailer << /Root 1 0 R >>' '%%EOF' >"$work/letterhead-raw.pdf"
qpdf "$work/letterhead-raw.pdf" "$work/letterhead.pdf" 2>/dev/null || [ $? -eq 3 ]

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0}

# Per page of FILE, one line "ANNOTS FIELDS": the annotations the page's /Annots holds (a null
# or missing entry is none), and the form fields whose widgets are on it. Nothing when qpdf
# cannot read the file. The fields are asked for apart: qpdf gives up on the whole output for a
# form it cannot read.
annotations_and_fields() {
    local fields
    fields=$(qpdf --json=2 --json-key=acroform "$1" 2>/dev/null |
        jq -c '[.acroform.fields[]?.pageposfrom1]' 2>/dev/null) || true
    qpdf --json=2 --json-key=pages --json-key=qpdf "$1" 2>/dev/null |
        jq -r --argjson fields "${fields:-[]}" '.qpdf[1] as $o
            | def val(v): if (v | type) == "string" and (v | test("^[0-9]+ [0-9]+ R$"))
                          then $o["obj:" + v].value else v end;
            .pages[]
            | .pageposfrom1 as $n
            | ((val($o["obj:" + .object].value["/Annots"]) // []) | if type == "array"
                   then map(val(.) | select(type == "object")) | length else 0 end) as $annots
            | ([$fields[] | select(. == $n)] | length) as $f
            | "\($annots) \($f)"' 2>/dev/null || true
}

# Renders FILE's pages into DIR as PREFIX-N.pgm; prints the number of pages rendered.
render() {
    local file=$1 dir=$2 prefix=$3 dpi=$4
    timeout 300 pdftoppm -r "$dpi" -gray "$file" "$dir/$prefix" 2>/dev/null || true
    find "$dir" -maxdepth 1 -name "$prefix-*.pgm" | wc -l
}

# The rendering of page N (from 1) of the files rendered under PREFIX: poppler pads the page
# number to the width of the page count.
page_image() {
    find "$1" -maxdepth 1 -regextype posix-extended -regex ".*/$2-0*$3\.pgm" | head -n 1
}

compare_one() {
    local file=$1 zpdf=$2 page_compare=$3 dpi=$4 work=$5 logs=$6
    local dir pages rendered notes="" compared=0 differ=0 lost=(0 0)
    local crashed=0 status=ok
    dir=$(mktemp -d "$work/file.XXXXXX")
    pages=$(pdfinfo "$file" 2>/dev/null | sed -n 's/^Pages: *//p')
    pages=${pages:-0}
    rendered=$(render "$file" "$dir" in "$dpi")
    if [ "$pages" -eq 0 ] || [ "$rendered" -ne "$pages" ]; then
        rm -rf "$dir"
        printf 'poppler-cannot-render\t0\t0\t0\t0\t0\t%s\tpoppler: %s pages, %s rendered\n' \
            "$file" "$pages" "$rendered"
        return
    fi
    mapfile -t in_counts < <(annotations_and_fields "$file")

    # One operation: runs zpdf; a crash or hang is noted, a refusal with a reason is not
    # compared; an output with no pages from an input with pages is wrong.
    run_op() {
        local op=$1
        shift
        local rc out
        out=$(timeout -k 5 120 "$zpdf" "$@" 2>&1 </dev/null) && rc=0 || rc=$?
        if [ "$rc" -eq 124 ] || [ "$rc" -eq 137 ] || [ "$rc" -ge 128 ] ||
            grep -q -E 'AddressSanitizer|runtime error:' <<<"$out"; then
            crashed=$((crashed + 1))
            notes+="$op: crash or hang (exit $rc); "
            return 1
        fi
        if [ "$rc" -ne 0 ]; then
            notes+="$op: refused: $(tail -n 1 <<<"$out" | cut -c1-160); "
            return 1
        fi
        return 0
    }

    # Renders an output, checks its page count and compares each of its pages, annotations and
    # fields included, with the input page it came from: MAP, arithmetic of the output page n.
    check_output() {
        local op=$1 output=$2 expected=$3 map=$4
        local n got in_page a b verdict i what=(annotations fields)
        got=$(pdfinfo "$output" 2>/dev/null | sed -n 's/^Pages: *//p')
        if [ "${got:-0}" -ne "$expected" ]; then
            status=wrong
            notes+="$op: $expected pages expected, poppler finds ${got:-none}; "
            [ "${got:-0}" -gt 0 ] || return 0
        fi
        render "$output" "$dir" "$op" "$dpi" >/dev/null
        mapfile -t out_counts < <(annotations_and_fields "$output")
        for ((n = 1; n <= got && n <= expected; n++)); do
            in_page=$((map))
            a=$(page_image "$dir" in "$in_page")
            b=$(page_image "$dir" "$op" "$n")
            compared=$((compared + 1))
            if [ -z "$b" ]; then
                differ=$((differ + 1))
                notes+="$op p$n: not rendered; "
            elif ! cmp -s "$a" "$b" && ! verdict=$("$page_compare" "$a" "$b" 2>&1); then
                differ=$((differ + 1))
                notes+="$op p$n (from p$in_page): $verdict; "
            fi
            local before=(${in_counts[$((in_page - 1))]:-0 0}) after=(${out_counts[$((n - 1))]:-0 0})
            for i in 0 1; do
                [ "${after[i]}" -lt "${before[i]}" ] || continue
                lost[i]=$((lost[i] + before[i] - after[i]))
                notes+="$op p$n: ${before[i]} ${what[i]}, ${after[i]} kept; "
            done
        done
    }

    if run_op stamp stamp "$file" "$work/letterhead.pdf" --all -o "$dir/stamp.pdf"; then
        check_output stamp "$dir/stamp.pdf" "$pages" n
        if [ "$pages" -gt 1 ] && run_op split split "$dir/stamp.pdf" "$dir/part"; then
            local k
            for ((k = 1; k <= pages; k++)); do
                check_output "split-part$k" "$dir/part_$k" 1 k # part k holds page k
                rm -f "$dir/split-part$k"-*.pgm "$dir/part_$k"
            done
        fi
    fi
    rm -f "$dir"/stamp-*.pgm
    if run_op append append "$file" "$file" -o "$dir/append.pdf"; then
        check_output append "$dir/append.pdf" $((2 * pages)) "(n - 1) % pages + 1"
    fi
    rm -f "$dir"/append-*.pgm
    if run_op replace replace "$file" "$pages" "$file" 1 1 -o "$dir/replace.pdf"; then
        check_output replace "$dir/replace.pdf" "$pages" "n == pages ? 1 : n"
    fi

    rm -rf "$dir"
    [ "$crashed" -eq 0 ] || status=crash
    [ "$status" != ok ] || [ "$differ${lost[0]}${lost[1]}" = 000 ] || status=differs
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$status" "$compared" "$differ" "${lost[0]}" \
        "${lost[1]}" "$crashed" "$file" "$notes"
}
# One file in a process of its own, at low priority, with the time limit for all its work.
compare_with_limit() {
    local file=$1 limit=$2
    shift 2
    nice -n 10 timeout -k 10 "$limit" bash -c 'compare_one "$@"' _ "$file" "$@" ||
        printf 'hang\t0\t0\t0\t0\t1\t%s\tover %s s\n' "$file" "$limit"
}
export -f compare_one compare_with_limit annotations_and_fields render page_image

find "$corpus" -type f -iname '*.pdf' -print0 | sort -z |
    xargs -0 -P "${ZPDF_COMPARE_JOBS:-2}" -I{} bash -c 'compare_with_limit "$@"' _ {} "$limit" \
        "$zpdf" "$page_compare" "$dpi" "$work" "$logs" >"$work/results"

sort -t$'\t' -k7 "$work/results" >"$logs/results.tsv"
sum() { awk -F'\t' -v c="$1" -v f="$2" '$1 ~ f { s += $c } END { print s + 0 }' "$work/results"; }
count() { grep -c -E "$1" "$work/results" || true; }
row() { printf '%-44s %8s\n' "$1" "$2"; }
row "files" "$(wc -l <"$work/results")"
row "  poppler cannot render (counted apart)" "$(count '^poppler-cannot-render')"
row "pages compared" "$(sum 2 .)"
row "pages that render differently" "$(sum 3 .)"
row "annotations lost" "$(sum 4 .)"
row "fields lost" "$(sum 5 .)"
row "crashes or hangs" "$(sum 6 .)"
row "outputs with a wrong page count" "$(count '^wrong')"
row "files with a refused operation" "$(count $'\t[^\t]*: refused: ')"
awk -F'\t' '$1 != "ok" && $1 != "poppler-cannot-render" { print "  " $1 "\t" $7 "\t" $8 }' \
    "$logs/results.tsv" | cut -c1-400
echo "verdicts: $logs/results.tsv"
[ "$(count '^(differs|crash|hang|wrong)')" -eq 0 ]
