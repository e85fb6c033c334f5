#!/usr/bin/env bash
# The render path's cost must not depend on the input: instructions counted by callgrind (the
# same on every run, unlike time on a shared machine) for one second of silence, of noise and
# of subnormal noise through the render block, the largest at most 1.1 times the smallest.
set -euo pipefail
driver=$1
command -v valgrind >/dev/null || { echo "valgrind is not installed" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
declare -A counts
for kind in silence noise subnormal; do
    valgrind --tool=callgrind --toggle-collect='renderMeasured*' \
        --callgrind-out-file="$work/$kind.out" "$driver" "$kind" 2>"$work/$kind.log" ||
        { cat "$work/$kind.log" >&2; exit 1; }
    counts[$kind]=$(awk '/Collected :/ { print $NF }' "$work/$kind.log")
    [ -n "${counts[$kind]}" ] || { cat "$work/$kind.log" >&2; exit 1; }
    echo "$kind: ${counts[$kind]} instructions ($(awk -v n="${counts[$kind]}" 'BEGIN { printf "%.1f", n / 48000 }') per frame)"
done
awk -v a="${counts[silence]}" -v b="${counts[noise]}" -v c="${counts[subnormal]}" 'BEGIN {
    lo = a; hi = a
    if (b < lo) lo = b; if (c < lo) lo = c
    if (b > hi) hi = b; if (c > hi) hi = c
    printf "largest / smallest: %.3f (at most 1.1)\n", hi / lo
    exit !(hi <= 1.1 * lo)
}'
