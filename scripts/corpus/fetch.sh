#!/usr/bin/env bash
# Fetches public PDF test corpora from Debian's source packages (real-world and deliberately
# broken files) into a cache folder outside the repository, and prints that folder.
set -euo pipefail

cache=${ZPDF_CORPUS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zpdfcntobj/corpus}
packages=(pdf.js pypdf libpdfbox2-java)
stamp="$cache/.fetched-$(echo "${packages[*]}" | tr ' ' '-')"
if [ -f "$stamp" ]; then
    echo "$cache/pdfs"
    exit 0
fi

# apt-get source needs deb-src entries for the suites the machine already uses.
if ! grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/ && ! grep -qs '^deb-src' /etc/apt/sources.list; then
    sudo_cmd=()
    [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
    sed -e 's/^Types: deb$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources |
        "${sudo_cmd[@]}" tee /etc/apt/sources.list.d/zpdf-corpus-deb-src.sources >/dev/null
    "${sudo_cmd[@]}" apt-get update -qq
fi

mkdir -p "$cache/download" "$cache/pdfs"
(cd "$cache/download" && apt-get source -qq --download-only "${packages[@]}" >&2)
for archive in "$cache"/download/*.orig.tar.*; do
    tar -xf "$archive" -C "$cache/pdfs" --wildcards '*.pdf' '*.PDF' 2>/dev/null || true
done
touch "$stamp"
echo "$cache/pdfs"
