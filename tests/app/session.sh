#!/usr/bin/env bash
# A session as a player has it: a controller moves a bound control, the app quits on SIGTERM
# and saves everything; the next start (in the default, window mode, with no display: headless)
# restores it, follows a change of the server's period and quits on SIGINT.
source "$(dirname "$0")/common.sh"
start_server 256

start_app "$WORK/run1.log" --no-ui
# Controller 15 is bound to Chorus Depth by default; channel 16 acts like channel 1.
"$CLIENT" cc sr-chorus 16 15 64 || fail "the control change did not come back on the MIDI output"
expect_line "traceEvent\(\) : 0\? [0-9]+ - time:[0-9]+ cable:0 MIDI = s:176 c:15 d1:15 d2:64 length: 3"
stop_app TERM
[ "$APP_STATUS" -eq 0 ] || fail "the app exited $APP_STATUS after SIGTERM"
expect_line "SIGTERM received; quitting"
expect_line "saved the state to '$STATE'"
expect_value kChorusDepth 64/127
expect_value kChorusDelay 0.25
# The shipped presets were installed where the preset browser lists them.
factory=$(find "$DOCUMENTS/Presets/Factory" -name '*.aupreset' | wc -l)
[ "$factory" -eq 10 ] || fail "$factory factory presets in the documents folder, not 10"
echo "ok: $factory factory presets in $DOCUMENTS/Presets/Factory"

start_app "$WORK/run2.log"
expect_line "no X display \(DISPLAY is not set\); running without a window, as with --no-ui"
expect_line "restored the saved state from '$STATE'"
expect_line "renders at 48000 Hz in calls of up to 256 frames"
jack_bufsize 512 >/dev/null || fail "jack_bufsize could not change the period"
waited=0
until grep -q "renders at 48000 Hz in calls of up to 512 frames" "$APP_LOG"; do
    ((waited++ < TIMEOUT * 10)) || fail "the app did not follow the new period"
    sleep 0.1
done
expect_line "the JACK server now runs at 48000 Hz with 512-frame periods; reallocating the audio unit"
"$CLIENT" cc sr-chorus 1 16 100 || fail "no MIDI through the app after the new period"
stop_app INT
[ "$APP_STATUS" -eq 0 ] || fail "the app exited $APP_STATUS after SIGINT"
expect_line "SIGINT received; quitting"
expect_value kChorusDepth 64/127
expect_value kChorusDelay 100/127
echo "ok: state restored, period followed, state saved again"
