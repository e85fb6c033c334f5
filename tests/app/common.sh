# shellcheck shell=bash
# Sourced by every app test: a JACK server of the test's own (dummy backend, synchronous, named
# after the test's process), started and stopped by PID; the app under test in the background;
# a documents folder and a temp dir removed on exit.
# Usage of a test: <test>.sh APP TEST_CLIENT RENDERER SOURCE_DIR
# shellcheck disable=SC2034 # the variables are for the tests that source this file
set -euo pipefail
# Everything runs with a /dev/shm of its own (see isolated.sh).
if [ -z "${SR_ISOLATED:-}" ]; then
    exec bash "$(dirname "${BASH_SOURCE[0]}")/isolated.sh" bash "$0" "$@"
fi

# No window on the display of whoever runs the tests: a test that shows one starts its own.
unset DISPLAY

APP=${1:?the sr-chorus program}
CLIENT=${2:?sr-jack-test-client}
RENDER=${3:?sr-chorus-render}
SOURCE_DIR=${4:?source tree}
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

source "$HERE/../workdir.sh" sr-app-test

export JACK_DEFAULT_SERVER="sr-app-test-$$"
export XDG_DATA_HOME="$WORK/data"
DOCUMENTS="$XDG_DATA_HOME/tav-sr-chorus"
STATE="$DOCUMENTS/sr-chorus-state.plist"
# Generous for a sanitizer build on a busy machine.
TIMEOUT=${SR_APP_TEST_TIMEOUT:-30}

fail() {
    echo "FAIL: $*" >&2
    if [ -n "${APP_LOG:-}" ] && [ -f "$APP_LOG" ]; then
        echo "--- $APP_LOG (last 40 lines)" >&2
        tail -n 40 "$APP_LOG" >&2
    fi
    exit 1
}

wavtool() { python3 "$SOURCE_DIR/tests/lv2hosts/wavtool.py" "$@"; }
statetool() { python3 "$HERE/statetool.py" "$@"; }

JACKD_PID=""
# start_server [PERIOD]: jackd with the dummy backend at 48 kHz. Synchronous mode: every client
# runs in every cycle, however slow (a sanitizer build), so no cycle is skipped. No real-time
# scheduling: the dummy backend has no deadline to meet, and a user namespace grants none.
start_server() {
    command -v jackd >/dev/null || fail "jackd is not installed (scripts/install-deps.sh installs it)"
    jackd -n "$JACK_DEFAULT_SERVER" --no-realtime -S -t 5000 -d dummy -r 48000 -p "${1:-256}" \
        >"$WORK/jackd.log" 2>&1 &
    JACKD_PID=$!
    CLEANUP+=("stop_server")
    "$CLIENT" wait-port system:capture_1 "$TIMEOUT" || {
        cat "$WORK/jackd.log" >&2
        fail "the JACK server did not start"
    }
}

# end_process PID: SIGTERM, and SIGKILL if it is still there after 10 s.
end_process() {
    kill "$1" 2>/dev/null || return 0
    local i
    for ((i = 0; i < 100; i++)); do
        kill -0 "$1" 2>/dev/null || break
        sleep 0.1
    done
    kill -KILL "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}

stop_server() {
    [ -n "$JACKD_PID" ] || return 0
    end_process "$JACKD_PID"
    JACKD_PID=""
}

APP_PID=""
APP_LOG=""
# start_app LOG [ARGS...]: runs the app and waits until it says it is running.
start_app() {
    APP_LOG=$1
    shift
    "$APP" "$@" >"$APP_LOG" 2>&1 &
    APP_PID=$!
    CLEANUP+=("kill_app")
    local waited=0
    until grep -q "running as JACK client" "$APP_LOG"; do
        kill -0 "$APP_PID" 2>/dev/null || fail "the app ended while starting"
        ((waited++ < TIMEOUT * 10)) || fail "the app did not start within $TIMEOUT s"
        sleep 0.1
    done
}

# A client killed outright holds a synchronous server up for a minute: the app is asked first.
kill_app() {
    [ -n "$APP_PID" ] || return 0
    end_process "$APP_PID"
    APP_PID=""
}

APP_STATUS=0
# wait_app: waits for the app's end; its exit status in APP_STATUS.
wait_app() {
    APP_STATUS=0
    wait "$APP_PID" || APP_STATUS=$?
    APP_PID=""
}

# stop_app [SIGNAL]: signals the app (SIGTERM by default) and waits for its end.
stop_app() {
    kill "-${1:-TERM}" "$APP_PID"
    wait_app
}

# expect_line PATTERN [FILE]: the app's log (or FILE) has a line matching the pattern. The log
# is written by a background thread that may sleep for a moment when idle, so a running app is
# given up to five seconds to write it.
expect_line() {
    local tries=50
    until grep -qE "$1" "${2:-$APP_LOG}"; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || fail "no line matching '$1' in ${2:-$APP_LOG}"
        sleep 0.1
    done
}

# The value a saved state holds for a parameter, compared as text with what 0..127 of a
# controller makes of the parameter's range (what the app computes in single precision).
expect_value() {
    local got
    got=$(statetool value "$STATE" "$1")
    python3 -c "import sys, struct
f = lambda x: struct.unpack('f', struct.pack('f', x))[0]
sys.exit(0 if f($got) == f($2) else 1)" || fail "$1 is $got in the saved state, not $2"
    echo "ok: $1 = $got in the saved state"
}
