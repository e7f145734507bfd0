#!/usr/bin/env bash
# Installs the Debian packages the Windows cross build and its Wine tests need, and makes
# Debian's source packages reachable for scripts/windows/build-deps.sh (apt-get source).
# Safe to run again: it only changes something when something is missing.
set -euo pipefail

packages=(
    # Cross compilers (posix thread model: std::thread and std::mutex work) and widl.
    g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix mingw-w64-tools
    # The system's interface definitions and stdole2.tlb for widl.
    libwine-dev
    # Runs the DLL, the test client and the VBScript job; the tests make and check PDFs.
    wine64 ghostscript qpdf poppler-utils
    # Building the engine and its libraries from Debian's sources.
    make cmake python3 pkg-config nasm perl dpkg-dev xz-utils bzip2 patch
    # The engine's built-in fonts, which Debian leaves out of its source package.
    afdko-bin fonts-urw-base35
    # zlib, already built for Windows.
    libz-mingw-w64-dev
)
if [ -n "${ZPDF_EXTRA_PACKAGES:-}" ]; then
    read -r -a extra <<<"$ZPDF_EXTRA_PACKAGES"
    packages+=("${extra[@]}")
fi

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive

# deb-src entries: the Debian suites and URIs the machine already uses, in a file of our own.
has_deb_src() {
    local f
    for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ -f "$f" ] && grep -Eq '^[[:space:]]*deb-src[[:space:]]' "$f" && return 0
    done
    for f in /etc/apt/sources.list.d/*.sources; do
        [ -f "$f" ] && grep -Eiq '^Types:.*\bdeb-src\b' "$f" && return 0
    done
    return 1
}

# Prints deb-src stanzas for the enabled Debian "deb" entries (deb822 files and one-line
# lists). Other vendors' repositories are left alone: most offer no sources.
deb_src_stanzas() {
    python3 - /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources <<'EOF'
import glob, re, sys

def is_debian(uris, signed_by):
    return "debian-archive-keyring" in signed_by or any(
        re.search(r"(deb|security|ftp\.[a-z]+)\.debian\.org|/debian(-security)?/?$", u) for u in uris)

entries = []  # (uris, suites, components, signed_by)
for path in sys.argv[1:]:
    try:
        text = open(path, encoding="utf-8").read()
    except OSError:
        continue
    if path.endswith(".sources"):
        for block in re.split(r"\n\s*\n", text):
            fields, key = {}, None
            for line in block.splitlines():
                if line.startswith("#") or not line.strip():
                    continue
                if line[0] in " \t" and key:
                    fields[key] += " " + line.strip()
                    continue
                key, _, value = line.partition(":")
                key = key.strip().lower()
                fields[key] = value.strip()
            if "deb" not in fields.get("types", "").split():
                continue
            if fields.get("enabled", "yes").lower() == "no":
                continue
            entries.append((fields.get("uris", "").split(), fields.get("suites", "").split(),
                            fields.get("components", "").split(), fields.get("signed-by", "")))
    else:
        for line in text.splitlines():
            m = re.match(r"\s*deb\s+(\[[^\]]*\]\s+)?(\S+)\s+(\S+)\s*(.*)", line)
            if not m:
                continue
            opts = m.group(1) or ""
            sb = re.search(r"signed-by=(\S+?)\]?(\s|$)", opts)
            entries.append(([m.group(2)], [m.group(3)], m.group(4).split("#")[0].split(),
                            sb.group(1) if sb else ""))

out = []
for uris, suites, components, signed_by in entries:
    if not uris or not suites or not is_debian(uris, signed_by):
        continue
    stanza = ["Types: deb-src", "URIs: " + " ".join(uris), "Suites: " + " ".join(suites)]
    if components:
        stanza.append("Components: " + " ".join(components))
    if signed_by:
        stanza.append("Signed-By: " + signed_by)
    out.append("\n".join(stanza))
print("\n\n".join(out))
EOF
}

src_file=/etc/apt/sources.list.d/zpdf-deb-src.sources
if ! has_deb_src; then
    stanzas=$(deb_src_stanzas)
    if [ -z "$stanzas" ]; then
        echo "no Debian apt source found to add deb-src entries for" >&2
        exit 1
    fi
    echo "adding deb-src entries in $src_file" >&2
    printf '# Source packages for scripts/windows/build-deps.sh.\n%s\n' "$stanzas" |
        "${sudo_cmd[@]}" tee "$src_file" >/dev/null
    "${sudo_cmd[@]}" apt-get update -qq
fi

# The packages themselves, with the native build's: checked and installed as there.
ZPDF_EXTRA_PACKAGES="${packages[*]}" bash "$(dirname "$0")/../install-deps.sh"
