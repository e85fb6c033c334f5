#!/usr/bin/env bash
# The preset browser in a real host: jalv.gtk3 embeds the editor on a private Xvfb display. With
# xdotool, as a user would: open the browser, choose a factory preset (all 29 values reach the
# host's ports: every port starts elsewhere, and the plug-in logs each value it takes into jalv's
# log), type a name and save a user preset (the file holds those values, read by plistlib), load
# it back after a change, and delete it after confirming. The editor takes the keyboard only while the
# browser is open. Screenshots of the browser and the name dialog go to BUILD/test-screenshots/.
source "$(dirname "$0")/common.sh"
cd "$WORK"
source "$HERE/x11host.sh"

export XDG_DATA_HOME="$WORK/data"
need setxkbmap
PRESET="Fast Warble"
USER_NAME="Host Test ü"
USER_FILE="$XDG_DATA_HOME/tav-sr-chorus/Presets/User/$USER_NAME.aupreset"

# The preset's values by address ("address value" lines), and -c settings for jalv that start
# the ports somewhere else.
cat >presets.py <<'PY'
import plistlib, sys
def values(path):
    d = plistlib.load(open(path, 'rb'))
    out = {}
    for k, g in d.items():
        if k.startswith('group'):
            for q, p in g.items():
                if q.startswith('param'):
                    out[p['address']] = (p['identifier'], p['value'])
    return out
if sys.argv[1] == 'values':
    for a, (ident, v) in sorted(values(sys.argv[2]).items()):
        print(a, repr(v))
elif sys.argv[1] == 'elsewhere':
    for a, (ident, v) in sorted(values(sys.argv[2]).items()):
        if ident in ('kBypass', 'kFinalLimit'):
            w = 1.0 - v
        elif ident.endswith('Controller'):
            w = float((int(v) + 51) % 128)
        elif ident in ('kVolumeIn', 'kVolumeOut'):
            w = v + 0.5 if v + 0.5 <= 2 else v - 0.5
        else:
            w = v + 0.3 if v + 0.3 <= 1 else v - 0.3
        print(f'{ident}={w:.4f}')
elif sys.argv[1] == 'compare':
    # Every port of the plug-in went from somewhere else to the preset's value: the last value
    # it received is the preset's, an earlier one was not. (The plug-in and the editor log
    # through queues of their own, so their lines do not interleave in order.)
    want = values(sys.argv[2])
    got = {}
    for line in open(sys.argv[3], encoding='utf-8', errors='replace'):
        if 'unit received parameter : address:' in line:
            a, v = line.split('unit received parameter : address:')[1].split(', value:')
            got.setdefault(int(a), []).append(float(v))
    near = lambda x, y: abs(x - y) <= 1e-6
    bad = [a for a in want if a not in got or not near(got[a][-1], want[a][1])
           or all(near(x, want[a][1]) for x in got[a])]
    print(sum(1 for a in want if a in got), 'ports changed;', 'missing or wrong:', bad)
    sys.exit(1 if bad else 0)
elif sys.argv[1] == 'same':
    a, b = values(sys.argv[2]), values(sys.argv[3])
    bad = [k for k in a if k not in b or a[k][1] != b[k][1]]
    print(len(b), 'values in the file;', 'different:', bad)
    sys.exit(1 if bad or len(a) != len(b) else 0)
PY
FACTORY="$BUNDLE/factory/$PRESET.aupreset"
[ -f "$FACTORY" ] || fail "no factory preset $FACTORY"
controls=()
while read -r setting; do controls+=(-c "$setting"); done < <(python3 presets.py elsewhere "$FACTORY")
[ ${#controls[@]} -eq 58 ] || fail "expected 29 port settings, got $((${#controls[@]} / 2))"

mkfifo commands
exec 3<>commands
# -t: the plug-in's trace lines too (it logs each value it takes) in jalv's log.
stdbuf -oL jalv.gtk3 -t "${controls[@]}" "$URI" <&3 >jalv.out 2>jalv.err &
JALV=$!
CLEANUP+=("stop $JALV INT")
find_editor 1024x400 "$JALV"
# A layout with "ü" on a key of its own: xdotool would otherwise remap a key for it just while
# typing it, which races with any client reading the key after the mapping is back. (Set while
# jalv is connected: an X server with no clients left starts over with its default layout.)
setxkbmap de || fail "setxkbmap could not set the German layout"
sleep 1 # the first idle calls draw it

# Canvas units are window pixels at scale 1. Rows of the list: 24 high from y 111.
at() { xdotool mousemove $((WX + $1)) $((WY + $2)) sleep 0.2 click 1 sleep "${3:-0.6}"; }
row() { at 200 $((111 + 24 * $1 + 12)); }
shot() { import -window root -crop "1024x400+$WX+$WY" "$1"; }
focus() { xdotool getwindowfocus 2>/dev/null || echo none; }
alive() { kill -0 "$JALV" 2>/dev/null || fail "jalv.gtk3 died: $(cat jalv.err)"; }
# The plug-in's and the editor's lines, wherever the host puts them (its log, or standard output
# when it offers none).
logs() { cat jalv.out jalv.err >log.txt; }

# Open the browser (the Presets button) and choose the factory preset. The one port jalv does
# not set (Display Contrast, not for its generic controls) is moved by the browser's Contrast
# button first.
at 940 59
alive
focused() { [ "$(focus)" = "$((WINDOW))" ]; }
unfocused() { ! focused; }
eventually focused || fail "the open browser did not get the keyboard focus"
at 904 276
row 2
alive
chosen() { logs && python3 presets.py compare "$FACTORY" log.txt >/dev/null 2>&1; }
eventually chosen || {
    python3 presets.py compare "$FACTORY" log.txt
    fail "choosing '$PRESET' did not bring all 29 values to the host's ports"
}
shot browser.png
cp browser.png "$SHOTS/jalv-browser.png"
# The chosen row is marked in the accent colour.
mark=$(pixel browser.png 101 $((111 + 24 * 2 + 12)))
near "$mark" "225 94 46" 40 || fail "the chosen row's mark is $mark, not the accent colour"

# Save As: the name dialog takes typed text (UTF-8 too) and writes the user preset.
at 804 240
xdotool type --delay 40 "$USER_NAME"
sleep 0.6
shot dialog.png
cp dialog.png "$SHOTS/jalv-name-dialog.png"
xdotool key Return
alive
eventually test -f "$USER_FILE" || fail "no user preset at $USER_FILE: $(ls -R "$XDG_DATA_HOME")"
python3 presets.py same "$FACTORY" "$USER_FILE" || fail "the saved preset holds other values"
leftovers=$(find "$XDG_DATA_HOME/tav-sr-chorus/Presets/User" -name '.*' | wc -l)
[ "$leftovers" -eq 0 ] || fail "temporary files were left in the user folder"

# Close the browser: the keyboard goes back to the host.
xdotool key Escape
eventually unfocused || fail "the editor kept the keyboard after the browser closed"

# Change the depth on the panel, then load the user preset back.
kx=$((WX + 137)) ky=$((WY + 222))
xdotool mousemove "$kx" "$ky" sleep 0.2 mousedown 1 sleep 0.1
for step in 10 20 30 40; do xdotool mousemove "$kx" $((ky - step)) sleep 0.05; done
xdotool sleep 0.1 mouseup 1 sleep 0.6
depth() {
    logs
    grep -a -o 'unit received parameter : address:7, value:[0-9.]*' log.txt | tail -n1 |
        sed 's/.*value://'
}
want=$(python3 presets.py values "$FACTORY" | awk '$1 == 7 {print $2}')
dragged() {
    changed=$(depth)
    awk -v a="$changed" -v b="$want" 'BEGIN { exit !(a - b > 0.1) }'
}
eventually dragged ||
    fail "the drag did not change the depth ($changed, preset $want)"
at 940 59
row 0 # the user set is shown, as it was left
alive
loaded_back() {
    back=$(depth)
    awk -v a="$back" -v b="$want" 'BEGIN { d = a - b; exit !(d < 1e-6 && d > -1e-6) }'
}
eventually loaded_back ||
    fail "loading '$USER_NAME' back gave depth $back, not $want"

# Delete it: the Delete key asks, Return confirms.
xdotool key Delete
sleep 0.6
shot question.png
cp question.png "$SHOTS/jalv-delete-question.png"
[ -f "$USER_FILE" ] || fail "the file went before the question was answered"
xdotool key Return
gone() { [ ! -e "$USER_FILE" ]; }
eventually gone || fail "the user preset was not deleted after confirming"
logged() { logs && grep -qF "$1" log.txt; }
eventually logged "FileViewControllerPresets::alertFileDelete() : Delete action was permitted." ||
    fail "no permission line in the log"
eventually logged "FileTableViewPresets::deleteFile() : The file was removed." ||
    fail "no removal line in the log"
ls "$XDG_DATA_HOME/tav-sr-chorus/Presets/Factory/$PRESET.aupreset" >/dev/null ||
    fail "a factory preset went missing"

stop "$JALV" INT
exec 3>&-
[ "$STATUS" = 0 ] || fail "jalv.gtk3 exited with status $STATUS: $(cat jalv.err)"
if grep -Eai 'error|critical' jalv.err jalv.out | grep -v 'address:'; then
    fail "jalv.gtk3 or the editor reported errors"
fi
echo "ok: in jalv.gtk3 '$PRESET' set all 29 ports, '$USER_NAME' was saved with them, loaded" \
    "back (depth $changed -> $back) and deleted; screenshots in $SHOTS"
