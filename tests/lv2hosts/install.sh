#!/usr/bin/env bash
# `cmake --install` with DESTDIR and a prefix puts a complete bundle under lib/lv2/, and a host
# loads the plug-in from there and processes audio with it.
source "$(dirname "$0")/common.sh"
need cmake lv2info lv2apply

build=$(dirname "$LV2_DIR")
run env DESTDIR="$WORK/root" cmake --install "$build" --prefix /opt/sr
installed="$WORK/root/opt/sr/lib/lv2/tav-sr-chorus.lv2"
for f in manifest.ttl tav-sr-chorus.ttl tav-sr-chorus.so; do
    [ -f "$installed/$f" ] || fail "the installed bundle lacks $f"
done
[ "$(find "$installed/presets" -name '*.ttl' | wc -l)" = 10 ] || fail "the installed bundle lacks presets"
[ "$(find "$installed/factory" -name '*.aupreset' | wc -l)" = 10 ] || fail "the installed bundle lacks factory files"

export LV2_PATH="$WORK/root/opt/sr/lib/lv2:$WORK/vocab"
run lv2info "$URI"
grep -q "Bundle: *file://$installed/" "$WORK/run.log" || fail "lilv did not load the installed bundle"
cd "$WORK"
wavtool make in.wav 48000 pcm16 1 0.5
run lv2apply -c kChorusDryWet 0.8 -i in.wav -o wet.wav "$URI"
wavtool check wet.wav in.wav --not-silent --differs || fail "the installed plug-in gave no wet signal"
echo "ok: the installed bundle loads and renders"
