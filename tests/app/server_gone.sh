#!/usr/bin/env bash
# The JACK server goes away under the app: a message, a non-zero exit, and the state is saved.
source "$(dirname "$0")/common.sh"
start_server 256
start_app "$WORK/app.log" --no-ui
# Controller 24 is bound to Chorus Mix by default.
"$CLIENT" cc sr-chorus 1 24 127 || fail "no MIDI through the app"
stop_server
wait_app
[ "$APP_STATUS" -eq 1 ] || fail "the app exited $APP_STATUS after the server went away, not 1"
expect_line "ERROR: the JACK server went away \(.*\); quitting"
expect_line "saved the state to '$STATE'"
expect_value kChorusDryWet 1
echo "ok: server gone -> status 1, state saved"
