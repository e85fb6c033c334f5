#!/usr/bin/env bash
# The app's window as a player meets it, on an Xvfb display and under a JACK server of the test's
# own. The window shows the panel (a screenshot: its size and a few pixels), titled with the app
# and the preset; a drag on the dry/wet knob with xdotool changes the sound (the output played
# before it is the untouched input, the one after it is not) and the saved state; the input's
# spectrum shows behind the split bar while it plays; a controller moves a knob on the panel; a
# restart shows the restored state and its preset's name; a preset chosen and one saved in the
# browser name the window; it resizes freely; closing it quits with status 0 and saves the state.
# A killed window or the X server's end quits with status 1, saving the state; without a
# reachable display the app runs on headless. Screenshots go to BUILD/test-screenshots/.
source "$(dirname "$0")/common.sh"
for tool in Xvfb xdotool xprop xwininfo import convert compare; do
    command -v "$tool" >/dev/null || fail "'$tool' is not installed (scripts/install-deps.sh installs it)"
done
source "$HERE/../xvfb.sh"
start_xvfb 1600x900x24
start_server 256
X11_CLOSE=$(dirname "$CLIENT")/sr-x11-close
SHOTS=$(cd "$(dirname "$APP")/.." && pwd)/test-screenshots
mkdir -p "$SHOTS"

# The window whose title begins with the app's name: its id in WINDOW, its place in WX, WY.
find_window() {
    local end=$((SECONDS + TIMEOUT))
    WINDOW=""
    while ((SECONDS < end)); do
        WINDOW=$(xdotool search --name '^TAV SR Chorus' 2>/dev/null | head -n1 || true)
        [ -n "$WINDOW" ] && break
        kill -0 "$APP_PID" 2>/dev/null || fail "the app ended before its window showed"
        sleep 0.1
    done
    [ -n "$WINDOW" ] || fail "no window titled 'TAV SR Chorus...' within $TIMEOUT s"
    WX=$(xwininfo -id "$WINDOW" | awk '/Absolute upper-left X/ {print $4}')
    WY=$(xwininfo -id "$WINDOW" | awk '/Absolute upper-left Y/ {print $4}')
}

# The title as a window manager reads it (UTF-8), and as older tools do (WM_NAME).
title() { xprop -id "$WINDOW" _NET_WM_NAME | sed -E 's/^[^"]*"(.*)"$/\1/'; }
wm_name() { xprop -id "$WINDOW" WM_NAME | sed -E 's/^[^"]*"(.*)"$/\1/'; }
expect_title() {
    local end=$((SECONDS + TIMEOUT))
    while ((SECONDS < end)); do
        [ "$(title)" = "$1" ] && [ "$(wm_name)" = "$1" ] && {
            echo "ok: the window is titled '$1'"
            return 0
        }
        sleep 0.1
    done
    fail "the window is titled '$(title)' (WM_NAME '$(wm_name)'), not '$1'"
}

# shot NAME: the window's content in $WORK/NAME.png, kept in $SHOTS as app-NAME.png. The pointer
# is moved off the window first, so nothing under it is highlighted.
shot() {
    xdotool mousemove 1590 890 sleep 0.2
    import -window "$WINDOW" "$WORK/$1.png"
    cp "$WORK/$1.png" "$SHOTS/app-$1.png"
}
# The panel drawn: the plate's colour at its default contrast (grey 0.15) left of the knobs.
wait_drawn() {
    local end=$((SECONDS + TIMEOUT))
    while ((SECONDS < end)); do
        shot "$1"
        near "$(pixel "$WORK/$1.png" 20 200)" "38 38 38" 6 && return 0
        sleep 0.1
    done
    fail "the window shows no panel; see $SHOTS/app-$1.png"
}
# differing A B X Y W H: how many pixels of that rectangle differ between two screenshots.
differing() {
    compare -metric AE "$WORK/$1.png[$5x$6+$3+$4]" "$WORK/$2.png[$5x$6+$3+$4]" null: 2>&1 || true
}
# The knobs' squares on the panel (at 1024 x 400): depth and dry/wet mix.
DEPTH_KNOB=(97 182 80 80)
MIX_KNOB=(895 215 80 80)

# drag_up X Y UNITS: presses on a control and drags it up, as a hand does, in steps of 10.
drag_up() {
    local x=$((WX + $1)) y=$((WY + $2)) step
    xdotool mousemove "$x" "$y" sleep 0.2 mousedown 1 sleep 0.1
    for ((step = 10; step <= $3; step += 10)); do xdotool mousemove "$x" $((y - step)) sleep 0.05; done
    xdotool sleep 0.1 mouseup 1 sleep 0.3
}
click() { xdotool mousemove $((WX + $1)) $((WY + $2)) sleep 0.2 click 1 sleep "${3:-0.6}"; }

# A preset of "Vocal Shimmer" fully dry: Chorus Mix at 0 leaves the input as it is (but for the
# output limiter's pre-gain, -0.01 dB: 19 steps of 16 bits at the test signal's peak of 0.5).
"$RENDER" --preset "$SOURCE_DIR/presets/Vocal Shimmer.aupreset" --set kChorusDryWet=0 \
    --save-preset "$WORK/Dry Shimmer.aupreset" >"$WORK/render.log" 2>&1 ||
    { cat "$WORK/render.log" >&2; fail "the renderer could not write the dry preset"; }
wavtool make "$WORK/in.wav" 48000 float 2.0 0.5

# ---- the window, the drag, the sound ------------------------------------------------------
start_app "$WORK/run1.log" --preset "$WORK/Dry Shimmer.aupreset"
find_window
expect_title "TAV SR Chorus - Dry Shimmer"
xprop -id "$WINDOW" WM_CLASS | grep -q '"sr-chorus", "sr-chorus"' || fail "the window's class is not sr-chorus"
size=$(xwininfo -id "$WINDOW" | awk '/^ *Width:/ {w=$2} /^ *Height:/ {h=$2} END {print w "x" h}')
[ "$size" = "1024x400" ] || fail "the window is $size, not 1024x400"
wait_drawn start
[ "$(convert "$WORK/start.png" -format '%wx%h' info:)" = "1024x400" ] || fail "the screenshot is not 1024x400"
# The lit strip of the selected MAIN button and the title's accent-coloured "CHORUS".
main=$(pixel "$WORK/start.png" 633 337)
near "$main" "225 94 46" 30 || fail "MAIN button strip pixel is $main"
accent=$(pixel "$WORK/start.png" 215 60)
near "$accent" "225 94 46" 40 || fail "the title's CHORUS pixel is $accent"
echo "ok: the window shows the 1024x400 panel (plate $(pixel "$WORK/start.png" 20 200), MAIN strip $main)"

"$CLIENT" play sr-chorus "$WORK/in.wav" "$WORK/before.wav" >/dev/null || fail "playing through the app failed"
wavtool check "$WORK/before.wav" "$WORK/in.wav" --equal-lsb 20 ||
    fail "with Chorus Mix at 0 the output is not the input"

# 60 panel units up: Chorus Mix from 0 to 0.3.
drag_up 935 255 60
expect_line "unit received parameter : address:16, value:0\.[1-9]"
"$CLIENT" play sr-chorus "$WORK/in.wav" "$WORK/after.wav" >/dev/null &
player=$!
# While it plays, the input's spectrum shows behind the split bar.
sleep 1
shot playing
wait "$player" || fail "playing through the app failed"
wavtool check "$WORK/after.wav" "$WORK/in.wav" --not-silent --differs ||
    fail "the drag on the dry/wet knob did not change the sound"
lit=$(differing start playing 54 90 920 72)
((lit > 500)) || fail "no spectrum behind the split bar while the input played ($lit pixels)"
echo "ok: the input's spectrum lit $lit pixels of the split bar while it played"
shot dragged
moved=$(differing start dragged "${MIX_KNOB[@]}")
((moved > 100)) || fail "the dry/wet knob looks the same after the drag ($moved pixels differ)"
echo "ok: the drag changed the sound and the knob ($moved pixels)"

# A controller bound to Chorus Depth (15) moves its knob on the panel.
"$CLIENT" cc sr-chorus 1 15 127 || fail "the control change did not come back on the MIDI output"
end=$((SECONDS + TIMEOUT))
while ((SECONDS < end)); do
    shot controlled
    moved=$(differing dragged controlled "${DEPTH_KNOB[@]}")
    ((moved > 100)) && break
    sleep 0.1
done
((moved > 100)) || fail "the depth knob did not follow controller 15 ($moved pixels differ)"
echo "ok: controller 15 moved the depth knob on the panel ($moved pixels)"

stop_app TERM
[ "$APP_STATUS" -eq 0 ] || fail "the app exited $APP_STATUS after SIGTERM"
expect_line "saved the state to '$STATE'"
mix=$(statetool value "$STATE" kChorusDryWet)
awk -v v="$mix" 'BEGIN { exit !(v > 0.27 && v < 0.33) }' || fail "Chorus Mix is $mix in the saved state, not about 0.3"
echo "ok: Chorus Mix = $mix in the saved state"
expect_value kChorusDepth 1
[ "$(statetool preset "$STATE")" = "Dry Shimmer" ] || fail "the saved state does not name 'Dry Shimmer'"

# ---- the restored state, the browser, resizing, closing -----------------------------------
start_app "$WORK/run2.log"
find_window
# The keyboard goes to the window, as a window manager would give it.
xdotool windowfocus "$WINDOW"
expect_title "TAV SR Chorus - Dry Shimmer"
wait_drawn restored
for knob in MIX_KNOB DEPTH_KNOB; do
    declare -n rectangle=$knob
    moved=$(differing controlled restored "${rectangle[@]}")
    [ "$moved" = 0 ] || fail "the restored panel's $knob differs from the saved one ($moved pixels)"
done
echo "ok: the restored panel shows the saved knobs"

# The Presets button opens the browser on the factory presets; the third is "Fast Warble".
click 940 59
click 200 $((111 + 24 * 2 + 12)) 1
expect_title "TAV SR Chorus - Fast Warble"
expect_line "the current preset is 'Fast Warble'"
# Save As..., a name typed over the one suggested, Enter.
click 804 240
xdotool type --delay 40 "Stage Mix"
xdotool key Return
USER_PRESET="$DOCUMENTS/Presets/User/Stage Mix.aupreset"
expect_title "TAV SR Chorus - Stage Mix"
[ -f "$USER_PRESET" ] || fail "no user preset at $USER_PRESET"
shot browser
xdotool key Escape

# Resized, the panel keeps its proportions, centred: 1280 x 800 holds it at 1280 x 500 with
# 150 rows above and below.
xdotool windowsize "$WINDOW" 1280 800
end=$((SECONDS + TIMEOUT))
while ((SECONDS < end)); do
    shot resized
    [ "$(convert "$WORK/resized.png" -format '%wx%h' info:)" = "1280x800" ] &&
        near "$(pixel "$WORK/resized.png" 25 400)" "38 38 38" 6 && break
    sleep 0.1
done
[ "$(convert "$WORK/resized.png" -format '%wx%h' info:)" = "1280x800" ] || fail "the window was not resized"
plate=$(pixel "$WORK/resized.png" 25 400)
near "$plate" "38 38 38" 6 || fail "no panel plate at 25,400 of the resized window ($plate)"
main=$(pixel "$WORK/resized.png" $((633 * 5 / 4)) $((150 + 337 * 5 / 4)))
near "$main" "225 94 46" 30 || fail "the resized panel's MAIN strip pixel is $main"
echo "ok: resized to 1280x800, the panel letterboxed (plate $plate, MAIN strip $main)"

"$X11_CLOSE" "$WINDOW" || fail "could not ask the window to close"
wait_app
[ "$APP_STATUS" -eq 0 ] || fail "closing the window ended the app with status $APP_STATUS"
expect_line "the window was closed; quitting"
expect_line "saved the state to '$STATE'"
[ "$(statetool preset "$STATE")" = "Stage Mix" ] || fail "the saved state does not name 'Stage Mix'"
# The browser's choice replaced the dragged and controlled values.
statetool same "$STATE" "$SOURCE_DIR/presets/Fast Warble.aupreset" ||
    fail "the saved state does not hold 'Fast Warble''s values"
statetool same "$USER_PRESET" "$SOURCE_DIR/presets/Fast Warble.aupreset" ||
    fail "the user preset does not hold 'Fast Warble''s values"
echo "ok: closing the window quit with status 0, the state saved with 'Stage Mix'"

# ---- a killed window, the server's end, no display ----------------------------------------
# display_lost HOW COMMAND...: the command takes the display away from the window; the app
# quits with status 1, saving the state.
display_lost() {
    local how=$1
    shift
    start_app "$WORK/lost.log"
    find_window
    "$@"
    wait_app
    [ "$APP_STATUS" -eq 1 ] || fail "the app exited $APP_STATUS when $how, not 1"
    expect_line "ERROR: the connection to the window's X display was lost; quitting"
    expect_line "saved the state to '$STATE'"
    echo "ok: the app quit with status 1 when $how, the state saved"
}
kill_window() { xdotool windowkill "$WINDOW"; }
display_lost "its window was killed" kill_window
display_lost "the X server ended" stop_xvfb

# A display number nothing serves.
for ((n = 900 + $$ % 100; ; n++)); do [ -e "/tmp/.X11-unix/X$n" ] || [ -e "/tmp/.X$n-lock" ] || break; done
DISPLAY=:$n start_app "$WORK/run3.log"
expect_line "sr-chorus: cannot open the X display ':$n'; running without a window, as with --no-ui"
stop_app TERM
[ "$APP_STATUS" -eq 0 ] || fail "the headless app exited $APP_STATUS"
echo "ok: without a reachable display the app ran headless; screenshots in $SHOTS"
