#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only those missing.
set -euo pipefail
packages=(
    build-essential cmake pkg-config clang-format clang libclang-rt-14-dev
    libsndfile1-dev libsmf-dev libplist-dev libplist-utils python3
    libgtest-dev libgmock-dev libbenchmark-dev
    lv2-dev liblilv-dev lilv-utils serdi sordi lv2file jalv jackd2
    libcairo2-dev libpango1.0-dev libx11-dev libxkbcommon-dev
    fonts-liberation fonts-dejavu-core fonts-dejavu-extra
    xvfb xdotool imagemagick x11-utils x11-xkb-utils
)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
