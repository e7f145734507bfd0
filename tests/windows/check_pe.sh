#!/usr/bin/env bash
# Static checks of a built ZPdfCntObj.dll: its machine type, that it exports exactly the four
# COM entry points by name, that it carries the type library as resource TYPELIB 1, and that it
# imports nothing but Windows' own DLLs.
#   tests/windows/check_pe.sh DLL i386|x86-64
set -uo pipefail
dll=${1:?usage: check_pe.sh DLL i386|x86-64}
machine=${2:?}
objdump=x86_64-w64-mingw32-objdump
passed=0
failed=0
check() {
    if eval "$2" >/dev/null 2>&1; then passed=$((passed + 1)); echo "ok - $1"; else failed=$((failed + 1)); echo "not ok - $1"; fi
}
headers=$($objdump -p "$dll")
format=$($objdump -f "$dll")
if [ "$machine" = i386 ]; then
    check "PE32 for i386" "grep -q 'file format pei-i386' <<<\"\$format\""
    check "32-bit optional header" "grep -q 'Magic.*010b' <<<\"\$headers\""
else
    check "PE32+ for x86-64" "grep -q 'file format pei-x86-64' <<<\"\$format\""
fi
exports=$(sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' <<<"$headers" | grep -E '^\s+\[' |
    grep -o '\] [A-Za-z_][A-Za-z0-9_@]*' | cut -c3- | sort | tr '\n' ' ')
check "exports exactly the four entry points (found: $exports)" \
    "[ '$exports' = 'DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer ' ]"
imports=$(grep 'DLL Name:' <<<"$headers" | awk '{print tolower($3)}' | sort -u | tr '\n' ' ')
check "imports only system DLLs (found: $imports)" \
    "! grep -q -E 'libstdc|libgcc|libwinpthread|mupdf|crypto' <<<'$imports'"
# The resource directory names type "TYPELIB" with id 1.
check "type library resource TYPELIB 1" \
    "grep -A2 'name: .*: TYPELIB' <<<\"\$headers\" | grep -q 'Entry: ID: 0x000001'"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
