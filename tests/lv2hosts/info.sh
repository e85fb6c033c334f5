#!/usr/bin/env bash
# lilv finds the plug-in in the build tree and describes it as the parameter table says:
# name, class, 36 ports with their ranges and properties, one LV2 preset per factory file.
source "$(dirname "$0")/common.sh"
need lv2ls lv2info python3

lv2ls >"$WORK/ls.txt" || fail "lv2ls failed"
[ "$(grep -cx "$URI" "$WORK/ls.txt")" = 1 ] || { cat "$WORK/ls.txt" >&2; fail "lv2ls does not list $URI once"; }
run lv2info "$URI"
mv "$WORK/run.log" "$WORK/info.txt"
python3 "$HERE/lv2meta.py" lv2info "$SOURCE_DIR" "$BUNDLE" "$WORK/info.txt" ||
    { cat "$WORK/info.txt" >&2; fail "lv2info's description does not match the parameter table"; }
echo "ok: lv2info lists $URI as described"
