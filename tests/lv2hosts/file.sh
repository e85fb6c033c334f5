#!/usr/bin/env bash
# lv2file runs the plug-in with its MIDI and notify ports present but unconnected, in
# 37-frame blocks with control values, and with an LV2 preset loaded by name.
source "$(dirname "$0")/common.sh"
need lv2file python3
cd "$WORK"

wavtool make in.wav 48000 float 1 0.5
run lv2file -i in.wav -o wet.wav -c 1:in_l -c 2:in_r -p kChorusDryWet:0.8 -b 37 "$URI"
wavtool check wet.wav in.wav --not-silent --differs --max-peak 1.0 ||
    fail "lv2file output (mix 0.8, 37-frame blocks) is wrong"

preset=$(basename "$(find "$BUNDLE/factory" -name '*.aupreset' | sort | head -n 1)" .aupreset)
[ -n "$preset" ] || fail "no factory presets in $BUNDLE/factory"
run lv2file -L "$URI"
grep -qxF "Preset: $preset" run.log || fail "lv2file does not list preset '$preset'"
run lv2file -i in.wav -o preset.wav -P "$preset" "$URI"
wavtool check preset.wav in.wav --not-silent --max-peak 1.0 ||
    fail "lv2file output with preset '$preset' is wrong"
echo "ok: lv2file renders"
