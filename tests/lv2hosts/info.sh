#!/usr/bin/env bash
# lilv's command-line tools find the plug-in in the build tree and list it with its name,
# class, ports and presets (the lilv test host checks every port against the parameter table).
source "$(dirname "$0")/common.sh"
need lv2ls lv2info

lv2ls >"$WORK/ls.txt" || fail "lv2ls failed"
[ "$(grep -cx "$URI" "$WORK/ls.txt")" = 1 ] || { cat "$WORK/ls.txt" >&2; fail "lv2ls does not list $URI once"; }
run lv2info "$URI"
info="$WORK/run.log"
expect() { grep -qE "$1" "$info" || { cat "$info" >&2; fail "lv2info shows no '$1'"; }; }
expect "^\s*Name: +TAV SR Chorus$"
expect "^\s*Class: +Chorus Plugin$"
expect "^\s*Bundle: +file://$BUNDLE/$"
[ "$(grep -cE '^\s*Port [0-9]+:' "$info")" = 36 ] || fail "lv2info does not show 36 ports"
expect 'Symbol: +kChorusDryWet$'
expect 'Name: +TAV SR Chorus MIDI Out$'
for f in "$BUNDLE"/factory/*.aupreset; do
    name=$(basename "$f" .aupreset)
    grep -qxE "\s+$name" "$info" || fail "lv2info does not list the preset '$name'"
done
echo "ok: lv2info lists $URI as described"
