#!/usr/bin/env bash
# lilv's lv2apply, which leaves the atom ports unconnected, renders WAV files.
source "$(dirname "$0")/common.sh"
need lv2apply python3
cd "$WORK"

wavtool make in.wav 48000 pcm16 1 0.5
run lv2apply -c kChorusDryWet 0.8 -i in.wav -o wet.wav "$URI"
wavtool check wet.wav in.wav --not-silent --differs || fail "chorus at mix 0.8 gave no wet signal"

# Dry only, limiter off: the input comes back (16-bit rounding aside).
run lv2apply -c kChorusDryWet 0 -c kFinalLimit 0 -i in.wav -o dry.wav "$URI"
wavtool check dry.wav in.wav --equal-lsb 1 || fail "mix 0 with the limiter off altered the input"

# Rate edges, loud input, both gains and feedback at maximum: stable, and the limiter keeps
# every sample at or below full scale.
for rate in 8000 384000; do
    wavtool make "hot$rate.wav" "$rate" float 0.5 0.9
    run lv2apply -c kChorusDryWet 1 -c kVolumeIn 2 -c kVolumeOut 2 -c kChorusFeedback 1 \
        -i "hot$rate.wav" -o "hot$rate-out.wav" "$URI"
    wavtool check "hot$rate-out.wav" "hot$rate.wav" --not-silent --max-peak 1.0 ||
        fail "at $rate Hz the output is not finite, silent or above full scale"
done

echo "ok: lv2apply renders"
