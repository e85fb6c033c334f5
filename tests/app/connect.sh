#!/usr/bin/env bash
# --connect: to the system's capture and playback ports and, when there are any, its MIDI ports
# (here two clients of ours that offer ports flagged as physical, as a MIDI interface's are;
# two, so that connecting both ways makes no loop in the graph).
source "$(dirname "$0")/common.sh"
start_server 256
"$CLIENT" midi-system 60 &
MIDI_PID=$!
CLEANUP+=("end_process $MIDI_PID")
"$CLIENT" wait-port sr-test-midi-playback:playback "$TIMEOUT" || fail "no MIDI system ports"

start_app "$WORK/app.log" --no-ui --connect --name "my chorus"
expect_line "running as JACK client 'my chorus'"
jack_lsp -c >"$WORK/connections.txt"
connected() { # FROM TO
    awk -v from="$1" -v to="$2" '/^[^ \t]/ { port = $0 } /^[ \t]/ { sub(/^[ \t]+/, ""); if (port == from && $0 == to) found = 1 } END { exit !found }' \
        "$WORK/connections.txt" || { cat "$WORK/connections.txt" >&2; fail "$1 is not connected to $2"; }
}
connected "system:capture_1" "my chorus:in_left"
connected "system:capture_2" "my chorus:in_right"
connected "my chorus:out_left" "system:playback_1"
connected "my chorus:out_right" "system:playback_2"
connected "sr-test-midi-capture:capture" "my chorus:midi_in"
connected "my chorus:TAV SR Chorus MIDI Out" "sr-test-midi-playback:playback"
[ "$(grep -c '^sr-chorus: connected ' "$APP_LOG")" -eq 6 ] || fail "not six connections logged"
echo "ok: six connections, audio both ways and MIDI both ways"
stop_app TERM
[ "$APP_STATUS" -eq 0 ] || fail "the app exited $APP_STATUS"
