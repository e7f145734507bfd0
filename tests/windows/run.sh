#!/usr/bin/env bash
# Runs the real ZPdfCntObj.dll under wine64: registration and every registry key it writes, a
# C++ client (vtables, IDispatch, the type library, OLE streams, drawing), the typical job in
# VBScript through cscript, and unregistration. Prints one line per check and a closing
# "N passed, N failed"; exits non-zero when anything failed.
#   tests/windows/run.sh BUILD_DIR     (a cross build with the x86_64 toolchain)
set -uo pipefail

build=$(realpath "${1:?usage: run.sh BUILD_DIR}")
here=$(cd "$(dirname "$0")" && pwd)
wine=${ZPDF_WINE:-/usr/lib/wine/wine64}
wineserver=${ZPDF_WINESERVER:-/usr/lib/wine/wineserver64}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export WINEPREFIX="$work/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="

passed=0
failed=0
check() {  # check DESCRIPTION COMMAND...
    local what=$1
    shift
    local err
    if err=$("$@" 2>&1 >/dev/null); then
        passed=$((passed + 1))
        echo "ok - $what"
    else
        failed=$((failed + 1))
        echo "not ok - $what"
        [ -n "$err" ] && head -n 5 <<<"$err" | sed 's/^/#   /'
    fi
}
win() { "$wine" "$@" 2>/dev/null | tr -d '\r'; }
winpath() { "$wine" winepath -w "$1" 2>/dev/null | tr -d '\r'; }

# Documents: a 200 x 300 pt page with a black square at (50,100)-(100,150) and a text page; a
# letterhead; an appendix.
gs_pdf() {  # gs_pdf OUT POSTSCRIPT
    gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=pdfwrite -dDEVICEWIDTHPOINTS=200 -dDEVICEHEIGHTPOINTS=300 \
        -dFIXEDMEDIA -o "$1" -c "$2"
}
gs_pdf "$work/doc.pdf" "0 setgray 50 100 50 50 rectfill showpage /Helvetica findfont 12 scalefont setfont 20 250 moveto (second page) show showpage"
gs_pdf "$work/letterhead.pdf" "/Helvetica findfont 12 scalefont setfont 20 280 moveto (LETTERHEAD) show showpage"
gs_pdf "$work/appendix.pdf" "/Helvetica findfont 12 scalefont setfont 20 250 moveto (appendix) show showpage"
cp "$build/component/ZPdfCntObj.dll" "$build/component/com_client.exe" "$here/job.vbs" "$work/"

"$wine" wineboot -i >/dev/null 2>&1
# The prefix is set up by processes of its own; the checks start once they are done.
"$wineserver" -w >/dev/null 2>&1 || true
dll=$(winpath "$work/ZPdfCntObj.dll")
check "regsvr32 registers the server" "$wine" regsvr32 /s "$dll"

# reg_has KEY VALUE_NAME|"" TEXT: the value (the default one for "") contains TEXT. Wine's reg
# tool now and then loses its output on a busy machine, so a read that misses is tried twice
# more before the check fails; the last answer goes to stderr.
reg_has() {
    local out try
    for try in 1 2 3; do
        if [ -n "$2" ]; then out=$(win reg query "$1" /v "$2"); else out=$(win reg query "$1" /ve); fi
        grep -F -q -- "$3" <<<"$out" && return 0
        sleep "$try"
    done
    echo "reg query $1 ${2:-(default)} answered: $out" >&2
    return 1
}
reg_exists() {
    local try
    for try in 1 2 3; do
        "$wine" reg query "$1" >/dev/null 2>&1 && return 0
        sleep "$try"
    done
    return 1
}

appid='{E42F1C69-DA91-4556-BA8A-499D34B15467}'
libid='{B791D62D-D1C6-47D2-8EBC-9A155767D305}'
check "AppID key" reg_has "HKCR\\AppID\\$appid" "" "ZPdfCntObj"
check "AppID of the module file" reg_has "HKCR\\AppID\\ZPdfCntObj.DLL" "AppID" "$appid"
for entry in "ZPdfContentObject {A36D0848-40A1-47B5-8FA6-66568CA9BA9E}" \
             "ZPdfContentElement {826D9A60-3D48-4E49-91F3-876E3DDC70B8}"; do
    read -r name clsid <<<"$entry"
    progid="Ostrand.$name"
    key="HKCR\\CLSID\\$clsid"
    check "$progid.1 names the class" reg_has "HKCR\\$progid.1" "" "$name Class"
    check "$progid.1 CLSID" reg_has "HKCR\\$progid.1\\CLSID" "" "$clsid"
    check "$progid names the class" reg_has "HKCR\\$progid" "" "$name Class"
    check "$progid CLSID" reg_has "HKCR\\$progid\\CLSID" "" "$clsid"
    check "$progid CurVer" reg_has "HKCR\\$progid\\CurVer" "" "$progid.1"
    check "$name CLSID key" reg_has "$key" "" "$name Class"
    check "$name AppID value" reg_has "$key" "AppID" "$appid"
    check "$name ProgID" reg_has "$key\\ProgID" "" "$progid.1"
    check "$name VersionIndependentProgID" reg_has "$key\\VersionIndependentProgID" "" "$progid"
    check "$name Programmable" reg_exists "$key\\Programmable"
    check "$name InprocServer32" reg_has "$key\\InprocServer32" "" "ZPdfCntObj.dll"
    check "$name ThreadingModel" reg_has "$key\\InprocServer32" "ThreadingModel" "Apartment"
    check "$name TypeLib" reg_has "$key\\TypeLib" "" "$libid"
done
check "type library registered" reg_exists "HKCR\\TypeLib\\$libid\\1.0"
# Kinds and flags in the library file: enum, coclass (can-create), dual interface (dual,
# non-extensible, ole-automation, dispatchable), coclass, dual interface.
check "type library kinds and flags" test "$(python3 "$here/typelib_flags.py" "$build/component/generated/ZPdfCntObj.tlb" | tr '\n' ' ')" = "0 0x0 5 0x2 4 0x11c0 5 0x2 4 0x11c0 "

# The C++ client: its own checks, counted in.
client_out=$(cd "$work" && "$wine" com_client.exe "$(winpath "$work/doc.pdf")" "$(winpath "$work/letterhead.pdf")" \
    "$(winpath "$work")" 2>&1 | tr -d '\r')
echo "$client_out" | grep -E '^(ok|not ok) - '
client_passed=$(sed -n 's/^\([0-9]*\) passed, \([0-9]*\) failed$/\1/p' <<<"$client_out")
client_failed=$(sed -n 's/^\([0-9]*\) passed, \([0-9]*\) failed$/\2/p' <<<"$client_out")
if [ -z "$client_passed" ]; then
    echo "not ok - the C++ client ran to its end"
    echo "$client_out" | tail -5 | sed 's/^/    /'
    failed=$((failed + 1))
else
    passed=$((passed + client_passed))
    failed=$((failed + client_failed))
fi
check "the saved document is a sound PDF" qpdf --check "$work/doc.pdf"
check "the client's document carries the letterhead" grep -q LETTERHEAD <(pdftotext "$work/doc.pdf" -)

# The typical job in VBScript, on fresh copies.
gs_pdf "$work/job.pdf" "0 setgray 50 100 50 50 rectfill showpage showpage"
gs_pdf "$work/marked.pdf" "/Helvetica findfont 12 scalefont setfont 20 250 moveto (one @@nd@@) show showpage 20 250 moveto (two) show showpage 20 250 moveto (three) show showpage"
job_out=$(cd "$work" && "$wine" cscript //nologo job.vbs "$(winpath "$work/job.pdf")" \
    "$(winpath "$work/letterhead.pdf")" "$(winpath "$work/appendix.pdf")" "$(winpath "$work/marked.pdf")" \
    "$(winpath "$work/part")" 2>&1 | tr -d '\r')
echo "$job_out" | grep -E '^(ok|not ok) - '
job_passed=$(sed -n 's/^\([0-9]*\) passed, \([0-9]*\) failed$/\1/p' <<<"$job_out")
job_failed=$(sed -n 's/^\([0-9]*\) passed, \([0-9]*\) failed$/\2/p' <<<"$job_out")
if [ -z "$job_passed" ]; then
    echo "not ok - the VBScript job ran to its end"
    echo "$job_out" | tail -5 | sed 's/^/    /'
    failed=$((failed + 1))
else
    passed=$((passed + job_passed))
    failed=$((failed + job_failed))
fi
check "the job's document has its appendix" test "$(qpdf --show-npages "$work/job.pdf" 2>/dev/null)" = 3
check "split part 1 holds page 1" test "$(qpdf --show-npages "$work/part_1" 2>/dev/null)" = 1
check "split part 2 holds pages 2 and 3" test "$(qpdf --show-npages "$work/part_2" 2>/dev/null)" = 2

check "regsvr32 /u unregisters the server" "$wine" regsvr32 /s /u "$dll"
check "the object's CLSID key is gone" bash -c "! '$wine' reg query 'HKCR\\CLSID\\{A36D0848-40A1-47B5-8FA6-66568CA9BA9E}' >/dev/null 2>&1"
check "the ProgIDs are gone" bash -c "! '$wine' reg query 'HKCR\\Ostrand.ZPdfContentObject' >/dev/null 2>&1 && ! '$wine' reg query 'HKCR\\Ostrand.ZPdfContentElement.1' >/dev/null 2>&1"
check "the AppID is gone" bash -c "! '$wine' reg query 'HKCR\\AppID\\$appid' >/dev/null 2>&1"
check "the type library is unregistered" bash -c "! '$wine' reg query 'HKCR\\TypeLib\\$libid\\1.0' >/dev/null 2>&1"

"$wineserver" -k >/dev/null 2>&1 || true
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
