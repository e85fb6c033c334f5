#!/usr/bin/env bash
# Times the LV2 plug-in in the build tree against the chorus plug-ins Debian ships with lilv's
# lv2bench. The peers' packages (calf-plugins, guitarix-lv2, swh-lv2) are installed when
# missing (SR_NO_INSTALL=1 skips that and times those installed).
#
# Usage: bench/lv2bench.sh [BUILD_DIR]     (environment: ROUNDS=5 FRAMES=4194304)
#
# What lv2bench measures: it instantiates each plug-in at 48 kHz with default control
# values, feeds silence (both inputs share one zeroed buffer) and reports the wall-clock
# seconds of the run() calls that process FRAMES frames in blocks of the given size (the
# time is linear in FRAMES, so loading and instantiation are not in it). Here:
#   ns per frame = seconds * 1e9 / FRAMES
# where a frame is one sample period on all of the plug-in's channels (stereo for ours).
# Plug-ins and block sizes are interleaved round by round, so that drifts in machine speed
# hit all of them alike; the table gives the median and the best round, and for each block
# size our median over the median of the fastest stereo peer.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
rounds=${ROUNDS:-5}
# 2^22 frames: ours takes about 60 ms for them at block 16. With 2^19 frames (7 ms) a run was
# short enough for one hiccup of a shared machine to show, and our block-16 median came out
# 0.3 to 0.4 ns higher than with longer runs.
frames=${FRAMES:-4194304}
blocks=(16 64 512)
ours=urn:tav:sr-chorus

[ -f "$build/lv2/tav-sr-chorus.lv2/manifest.ttl" ] ||
    { echo "no bundle in $build/lv2 (cmake --build $build --target sr_lv2_bundle)" >&2; exit 1; }
command -v lv2bench >/dev/null || { echo "lv2bench is not installed (lilv-utils)" >&2; exit 1; }

# The peers, from Debian, when missing.
if [ "${SR_NO_INSTALL:-0}" != 1 ]; then
    missing=()
    for p in calf-plugins guitarix-lv2 swh-lv2; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
            missing+=("$p")
    done
    if [ ${#missing[@]} -gt 0 ]; then
        sudo=""
        [ "$(id -u)" -ne 0 ] && sudo="sudo"
        echo "Installing the peers: ${missing[*]}" >&2
        $sudo apt-get -o DPkg::Lock::Timeout=600 update -qq
        $sudo env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y \
            -qq --no-install-recommends "${missing[@]}" >&2
    fi
fi
# Ours from the build tree first; peers from the system folder.
export LV2_PATH="$build/lv2:${SR_SYSTEM_LV2_DIR:-/usr/lib/lv2}"

info=$(lv2info "$ours" 2>/dev/null) || true
bundle=$(awk '$1 == "Bundle:" { print $2; exit }' <<<"$info")
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
        function count() { if (audio && dir == "in") ins++; if (audio && dir == "out") outs++ }
        /^\tPort [0-9]+:/ { count(); audio = 0; dir = "" }
        /#AudioPort/ { audio = 1 }
        /#InputPort/ { dir = "in" }
        /#OutputPort/ { dir = "out" }
        END { count(); printf "%d in/%d out", ins, outs }'
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
for b in "${blocks[@]}"; do printf ' %18s' "block $b"; done
echo
median() { # median of plug-in $1 at block $2, in ns per frame
    awk -v i="$1" -v b="$2" -v f="$frames" '
        $1 == i && $2 == b { v[n++] = $3 * 1e9 / f }
        END {
            for (x = 0; x < n; x++)
                for (y = x + 1; y < n; y++)
                    if (v[y] < v[x]) { t = v[x]; v[x] = v[y]; v[y] = t }
            printf "%.2f %.2f\n", n % 2 ? v[(n - 1) / 2] : (v[n / 2 - 1] + v[n / 2]) / 2, v[0]
        }' "$results"
}
stereo=()
for i in "${!uris[@]}"; do
    ports=$(channels "${uris[i]}")
    printf '%-42s %-13s' "${labels[i]}" "$ports"
    for b in "${blocks[@]}"; do
        read -r med best < <(median "$i" "$b")
        printf ' %9.1f (%5.1f)' "$med" "$best"
    done
    echo
    [ "$i" -gt 0 ] && [ "$ports" = "2 in/2 out" ] && stereo+=("$i")
done
if [ ${#stereo[@]} -gt 0 ]; then
    printf '%-56s' "ours / fastest stereo peer (medians)"
    names=()
    for b in "${blocks[@]}"; do
        read -r ours _ < <(median 0 "$b")
        fastest=""
        for i in "${stereo[@]}"; do
            read -r m _ < <(median "$i" "$b")
            if [ -z "$fastest" ] || awk -v a="$m" -v b="$fastest" 'BEGIN { exit !(a < b) }'; then
                fastest=$m
                name=${labels[i]%% (*}
            fi
        done
        printf ' %18s' "$(awk -v a="$ours" -v b="$fastest" 'BEGIN { printf "%.2f", a / b }')"
        names+=("block $b: $name")
    done
    echo
    (IFS=';'; echo "fastest stereo peer at ${names[*]}" | sed 's/;/, /g')
fi
