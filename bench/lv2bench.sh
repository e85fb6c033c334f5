#!/usr/bin/env bash
# Times the LV2 plug-in in the build tree against the chorus plug-ins Debian ships (those
# installed; the others are skipped) with lilv's lv2bench.
#
# Usage: bench/lv2bench.sh [BUILD_DIR]     (environment: ROUNDS=5 FRAMES=524288)
#
# What lv2bench measures: it instantiates each plug-in at 48 kHz with default control
# values, feeds silence (both inputs share one zeroed buffer) and reports the wall-clock
# seconds of the run() calls that process FRAMES frames in blocks of the given size (the
# time is linear in FRAMES, so loading and instantiation are not in it). Here:
#   ns per frame = seconds * 1e9 / FRAMES
# where a frame is one sample period on all of the plug-in's channels (stereo for ours).
# Plug-ins and block sizes are interleaved round by round, so that drifts in machine speed
# hit all of them alike; the table gives the median and the best round.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
rounds=${ROUNDS:-5}
frames=${FRAMES:-524288}
blocks=(64 512)
ours=urn:tav:sr-chorus

[ -f "$build/lv2/tav-sr-chorus.lv2/manifest.ttl" ] ||
    { echo "no bundle in $build/lv2 (cmake --build $build --target sr_lv2_bundle)" >&2; exit 1; }
command -v lv2bench >/dev/null || { echo "lv2bench is not installed (lilv-utils)" >&2; exit 1; }
# Ours from the build tree first; peers from the system folder.
export LV2_PATH="$build/lv2:${SR_SYSTEM_LV2_DIR:-/usr/lib/lv2}"

info=$(lv2info "$ours" 2>/dev/null) || true
bundle=$(awk '$1 == "Bundle:" { print $2 }' <<<"$info")
[ "$bundle" = "file://$build/lv2/tav-sr-chorus.lv2/" ] ||
    { echo "lilv loads $ours from '$bundle', not from the build tree" >&2; exit 1; }

candidates=(
    "$ours|TAV SR Chorus"
    "http://calf.sourceforge.net/plugins/MultiChorus|Calf Multi Chorus (calf-plugins)"
    "http://guitarix.sourceforge.net/plugins/gx_chorus_stereo#_chorus_stereo|Guitarix Chorus Stereo (guitarix-lv2)"
    "http://plugin.org.uk/swh-plugins/multivoiceChorus|SWH Multivoice Chorus (swh-lv2)"
)
installed=$(lv2ls)
uris=()
labels=()
for c in "${candidates[@]}"; do
    if grep -qxF "${c%%|*}" <<<"$installed"; then
        uris+=("${c%%|*}")
        labels+=("${c#*|}")
    else
        echo "skipped, not installed: ${c#*|}" >&2
    fi
done

# Audio inputs/outputs per plug-in, so that mono peers are not mistaken for stereo ones.
channels() {
    lv2info "$1" 2>/dev/null | awk '
        /^\tPort [0-9]+:/ { audio = 0 }
        /AudioPort/ { audio = 1 }
        audio && /#InputPort/ { ins++; audio = 0 }
        audio && /#OutputPort/ { outs++; audio = 0 }
        END { printf "%d in/%d out", ins, outs }'
}

results=$(mktemp)
trap 'rm -f "$results"' EXIT
for ((r = 1; r <= rounds; r++)); do
    for b in "${blocks[@]}"; do
        for i in "${!uris[@]}"; do
            # The plug-ins may log to stdout too; keep lv2bench's own result line.
            s=$(lv2bench -b "$b" -n "$frames" "${uris[i]}" 2>/dev/null |
                awk -v u="${uris[i]}" '$2 == u { print $1 }')
            [ -n "$s" ] || { echo "lv2bench gave no result for ${uris[i]}" >&2; exit 1; }
            echo "$i $b $s" >>"$results"
        done
    done
    echo "round $r of $rounds done" >&2
done

echo "lv2bench, $frames frames of silence at 48 kHz, $rounds interleaved rounds;"
echo "ns per frame (one sample period on all channels): median (best round)"
printf '%-42s %-13s' "plug-in" "audio ports"
for b in "${blocks[@]}"; do printf ' %20s' "block $b"; done
echo
for i in "${!uris[@]}"; do
    printf '%-42s %-13s' "${labels[i]}" "$(channels "${uris[i]}")"
    for b in "${blocks[@]}"; do
        awk -v i="$i" -v b="$b" -v f="$frames" '
            $1 == i && $2 == b { v[n++] = $3 * 1e9 / f }
            END {
                for (x = 0; x < n; x++)
                    for (y = x + 1; y < n; y++)
                        if (v[y] < v[x]) { t = v[x]; v[x] = v[y]; v[y] = t }
                med = n % 2 ? v[(n - 1) / 2] : (v[n / 2 - 1] + v[n / 2]) / 2
                printf " %11.1f (%6.1f)", med, v[0]
            }' "$results"
    done
    echo
done
