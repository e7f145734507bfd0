#!/usr/bin/env bash
# Installs the Debian packages the native build, the tests and the benchmarks need.
# Safe to run again: it only calls apt-get when something is missing.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git
    libmupdf-dev libmujs-dev libfreetype-dev libharfbuzz-dev libjpeg-dev libopenjp2-7-dev
    libjbig2dec0-dev libgumbo-dev zlib1g-dev libssl-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    clang libclang-rt-14-dev
    qpdf poppler-utils ghostscript mupdf-tools bc jq
    openssl openjdk-17-jdk-headless libpdfbox2-java libbcprov-java libbcpkix-java
)
if [ -n "${ZPDF_EXTRA_PACKAGES:-}" ]; then
    read -r -a extra <<<"$ZPDF_EXTRA_PACKAGES"
    packages+=("${extra[@]}")
fi

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
