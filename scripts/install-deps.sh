#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only those missing.
set -euo pipefail
packages=(
    build-essential cmake pkg-config clang-format clang libclang-rt-14-dev
    libsndfile1-dev libsmf-dev libplist-dev libplist-utils python3
    libgtest-dev libgmock-dev libbenchmark-dev
    lv2-dev liblilv-dev lilv-utils serdi sordi lv2file jalv jackd2 libjack-jackd2-dev xvfb valgrind
    desktop-file-utils
    libcairo2-dev libpango1.0-dev libx11-dev libxkbcommon-dev libfftw3-dev
    fonts-liberation fonts-dejavu-core fonts-dejavu-extra
    xdotool imagemagick x11-utils x11-xkb-utils
)
# Hosts the tests drive when they can be had; a machine without them skips those tests.
optional=(ardour)

missing() {
    local p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || echo "$p"
    done
}
mapfile -t required < <(missing "${packages[@]}")
mapfile -t wanted < <(missing "${optional[@]}")
[ ${#required[@]} -eq 0 ] && [ ${#wanted[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
install() {
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$@"
}
$sudo apt-get update -qq
if [ ${#required[@]} -gt 0 ]; then
    echo "Installing: ${required[*]}"
    install "${required[@]}"
fi
for p in "${wanted[@]}"; do
    echo "Installing: $p"
    install "$p" || echo "Could not install $p: the tests that drive it will be skipped"
done
