#!/usr/bin/env bash
# Static checks of a built ZPdfCntObj.dll: its image format, exactly the four COM entry points
# exported by name, the type library as resource TYPELIB 1, imports from Windows' own DLLs only
# (the engine, the C++ runtime and libcrypto are linked in statically), among them the RPC run
# time that the module's proxy/stub works on.
#   tests/windows/check_pe.sh DLL i386|x86-64
set -uo pipefail
dll=${1:?usage: check_pe.sh DLL i386|x86-64}
[ "${2:?}" = i386 ] && magic='010b (PE32)' || magic='020b (PE32+)'
headers=$(x86_64-w64-mingw32-objdump -p "$dll") || exit 1
failed=0
check() {  # check WHAT FOUND EXPECTED
    if [ "$2" = "$3" ]; then echo "ok - $1"; else failed=$((failed + 1)); echo "not ok - $1 (found: $2)"; fi
}
check "$magic image for $2" "$(grep -o 'file format .*' <<<"$headers") $(awk '/^Magic/ {print $2, $3}' <<<"$headers")" \
    "file format pei-$2 $magic"
check "exports exactly the four entry points" \
    "$(sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/s/^\s*\[ *[0-9]*\] //p' <<<"$headers" | sort | xargs)" \
    "DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer"
check "type library resource TYPELIB 1" "$(grep -A2 'name: .*: TYPELIB,' <<<"$headers" | grep -o 'Entry: ID: 0x[0-9a-f]*')" \
    "Entry: ID: 0x000001"
check "imports only Windows' own DLLs" "$(awk '/DLL Name:/ {print tolower($3)}' <<<"$headers" |
    grep -v -x -E '(advapi32|bcrypt|crypt32|gdi32|kernel32|msimg32|msvcrt|ole32|oleaut32|rpcrt4|user32|winmm|ws2_32)\.dll' | xargs)" ""
# The names imported from rpcrt4.dll, one import table block per DLL in objdump's listing.
rpc=$(awk '/DLL Name:/ {on = tolower($3) == "rpcrt4.dll"; next} /^$/ {on = 0} on && NF == 3 {print $3}' <<<"$headers")
check "imports the proxy/stub entry points from rpcrt4.dll" \
    "$(grep -x -E 'NdrDll(CanUnloadNow|GetClassObject|RegisterProxy|UnregisterProxy)' <<<"$rpc" | sort | xargs)" \
    "NdrDllCanUnloadNow NdrDllGetClassObject NdrDllRegisterProxy NdrDllUnregisterProxy"
echo "$((5 - failed)) passed, $failed failed"
[ "$failed" -eq 0 ]
