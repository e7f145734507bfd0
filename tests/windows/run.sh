#!/usr/bin/env bash
# Runs the real ZPdfCntObj.dll under wine64: registration and every registry key it writes, the
# C++ clients (com_client.cpp; com_hosts.cpp: aggregation, other apartments, allocation failures),
# the typical job in VBScript through cscript (job.vbs), and unregistration, which leaves the
# registry exactly as it was before registration. Prints one line per check and a closing
# "N passed, N failed"; exits non-zero when anything failed.
#   tests/windows/run.sh BUILD_DIR     (a cross build with the x86_64 toolchain)
set -uo pipefail

build=$(realpath "${1:?usage: run.sh BUILD_DIR}")
wine=${ZPDF_WINE:-/usr/lib/wine/wine64}
wineserver=${ZPDF_WINESERVER:-/usr/lib/wine/wineserver64}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export WINEPREFIX="$work/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="

passed=0
failed=0
check() {  # check DESCRIPTION COMMAND...: "ok - DESCRIPTION" or "not ok", with what the command said
    local err
    if err=$("${@:2}" 2>&1); then passed=$((passed + 1)); echo "ok - $1"; return; fi
    failed=$((failed + 1))
    echo "not ok - $1"
    [ -n "$err" ] && head -n 5 <<<"$err" | sed 's/^/#   /'
}
# counted DESCRIPTION COMMAND...: a program that prints checks of its own and a closing summary.
counted() {
    local out
    out=$(cd "$work" && "${@:2}" 2>&1 | tr -d '\r')
    grep -E '^(ok|not ok) - ' <<<"$out"
    passed=$((passed + $(grep -c '^ok - ' <<<"$out")))
    failed=$((failed + $(grep -c '^not ok - ' <<<"$out")))
    check "$1 ran to its end" summarised "$out"
}
summarised() { grep -q -E '^[0-9]+ passed, [0-9]+ failed$' <<<"$1" || { tail -n 5 <<<"$1" >&2 && false; }; }
winpath() { local p=${1//\//\\}; echo "Z:$p"; }  # Wine's drive Z: is the root
# reg_has KEY [NAME VALUE]: HKCR\KEY is there and its value NAME (@: the default) is VALUE. Wine
# saves the registry when its server stops; names and strings have their backslashes doubled.
reg_has() {
    local key="[Software\\Classes\\$1] " lines field
    lines=$(key=${key//\\/\\\\} awk '/^\[/ { on = index(tolower($0), tolower(ENVIRON["key"])) == 1 } on' \
        "$WINEPREFIX/system.reg")
    [ -n "$lines" ] || { echo "no key HKCR\\$1" >&2; return 1; }
    [ $# -eq 1 ] && return 0
    [ "$2" = @ ] && field=@ || field="\"$2\""
    grep -q -x -F -- "$field=\"${3//\\/\\\\}\"" <<<"$lines" || { echo "$lines" >&2; return 1; }
}

# Documents: a 200 x 300 pt page with a black square at (50,100)-(100,150) and a text page; a
# letterhead; a print file marked after its first page.
gs_pdf() {  # gs_pdf OUT POSTSCRIPT
    gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=pdfwrite -dDEVICEWIDTHPOINTS=200 -dDEVICEHEIGHTPOINTS=300 \
        -dFIXEDMEDIA -o "$work/$1" -c "/Helvetica findfont 12 scalefont setfont $2"
}
gs_pdf doc.pdf "0 setgray 50 100 50 50 rectfill showpage 20 250 moveto (second page) show showpage"
cp "$work/doc.pdf" "$work/job.pdf"
gs_pdf letterhead.pdf "20 280 moveto (LETTERHEAD) show showpage"
gs_pdf marked.pdf "20 250 moveto (one @@nd@@) show showpage 20 250 moveto (two) show showpage 20 250 moveto (three) show showpage"
cp "$build/component/ZPdfCntObj.dll" "$build/component/com_client.exe" "$build/component/com_hosts.exe" \
    "$(dirname "$0")/job.vbs" "$work/"
dll=$(winpath "$work/ZPdfCntObj.dll")

# registry FILE: the whole registry as regedit exports it, as UTF-8, without the hardware map and
# the display driver's state (Wine writes it when a program first opens the display), which are
# not the registry of software.
registry() {
    "$wine" regedit /E "$(winpath "$work/export.reg")" >/dev/null 2>&1 &&
        iconv -f UTF-16LE -t UTF-8 "$work/export.reg" | tr -d '\r' | awk '/^\[/ { key = tolower($0)
            skip = index(key, "[hkey_local_machine\\hardware") == 1 || index(key, "\\control\\video\\") > 0
        } !skip' >"$1"
}

"$wine" wineboot -i >/dev/null 2>&1
"$wineserver" -w >/dev/null 2>&1
# Registration and unregistration alone, nothing between them: what the one writes, the other
# removes, and nothing else changes.
check "regedit exports the registry before registration" registry "$work/before.txt"
check "regsvr32 registers the server (round trip)" "$wine" regsvr32 /s "$dll"
check "regsvr32 /u unregisters the server (round trip)" "$wine" regsvr32 /s /u "$dll"
registry "$work/after.txt"
check "the registry after unregistration is the one before registration" \
    diff "$work/before.txt" "$work/after.txt"
"$wineserver" -w >/dev/null 2>&1

check "regsvr32 registers the server" "$wine" regsvr32 /s "$dll"
"$wineserver" -w >/dev/null 2>&1
appid='{E42F1C69-DA91-4556-BA8A-499D34B15467}'
libid='{B791D62D-D1C6-47D2-8EBC-9A155767D305}'
keys="AppID\\$appid|@|ZPdfCntObj
AppID\\ZPdfCntObj.DLL|AppID|$appid
TypeLib\\$libid\\1.0|@|ZPdfCntObj 1.0 Type Library
TypeLib\\$libid\\1.0\\0\\win64|@|$dll"
for entry in "ZPdfContentObject {A36D0848-40A1-47B5-8FA6-66568CA9BA9E}" \
             "ZPdfContentElement {826D9A60-3D48-4E49-91F3-876E3DDC70B8}"; do
    read -r name clsid <<<"$entry"
    p="Ostrand.$name" c="CLSID\\$clsid"
    keys+="
$p.1|@|$name Class
$p.1\\CLSID|@|$clsid
$p|@|$name Class
$p\\CLSID|@|$clsid
$p\\CurVer|@|$p.1
$c|@|$name Class
$c|AppID|$appid
$c\\ProgID|@|$p.1
$c\\VersionIndependentProgID|@|$p
$c\\Programmable||
$c\\InprocServer32|@|$dll
$c\\InprocServer32|ThreadingModel|Apartment
$c\\TypeLib|@|$libid"
done
# The module's own proxy/stub, for both of the component's interfaces.
proxy='{956B0C6B-649F-4FE1-8579-4FDF0FDB4629}'
keys+="
CLSID\\$proxy\\InprocServer32|@|$dll
Interface\\$proxy\\ProxyStubClsid32|@|$proxy
Interface\\{3C5FBE1E-8209-4059-B613-1898172A5064}\\ProxyStubClsid32|@|$proxy"
while IFS='|' read -r key name value; do
    check "HKCR\\$key${name:+ $name = $value}" reg_has "$key" ${name:+"$name" "$value"}
done <<<"$keys"

# The hosts' client leaves its document as it was; the C++ client saves it.
counted "the hosts' client" "$wine" com_hosts.exe "$(winpath "$work/doc.pdf")" "$(winpath "$work/letterhead.pdf")"
counted "the C++ client" "$wine" com_client.exe "$(winpath "$work/doc.pdf")" "$(winpath "$work/letterhead.pdf")"
counted "the VBScript job" "$wine" cscript //nologo job.vbs "$(winpath "$work/job.pdf")" \
    "$(winpath "$work/letterhead.pdf")" "$(winpath "$work/marked.pdf")" "$(winpath "$work/part")"
check "the job saved its document with the letterhead appended" \
    test "$(qpdf --show-npages "$work/job.pdf" 2>/dev/null)" = 3

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
