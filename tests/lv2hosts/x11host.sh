# shellcheck shell=bash
# Sourced by the tests that run the editor in a real host (after common.sh): a private Xvfb
# display and a private dummy JACK server (named from the test's PID), both stopped by PID on
# exit; the editor's window in jalv.gtk3; pixels of screenshots (../xvfb.sh).
need Xvfb xdotool import convert xwininfo jackd jack_wait jalv.gtk3 stdbuf
SHOTS=$(cd "$LV2_DIR/.." && pwd)/test-screenshots
mkdir -p "$SHOTS"

source "$HERE/../xvfb.sh"
start_xvfb 2400x1200x24

SERVER=srui$$
export JACK_DEFAULT_SERVER=$SERVER JACK_NO_START_SERVER=1
jackd -n "$SERVER" -d dummy -r 48000 -p 256 >"$WORK/jackd.log" 2>&1 &
JACKD=$!
CLEANUP+=("stop $JACKD")
jack_wait -s "$SERVER" -w -t 10 >/dev/null 2>&1 || fail "jackd did not start: $(cat "$WORK/jackd.log")"

# The editor's window: the nameless child of jalv's top-level with the size $1 ("WxH"). Waits
# up to 15 s while jalv (PID $2) runs; the id in WINDOW, its place in WX and WY.
find_editor() {
    local size=$1 jalv=$2 i
    WINDOW=""
    for ((i = 0; i < 150; i++)); do
        WINDOW=$(xwininfo -root -tree 2>/dev/null | awk -v s="${size}+" \
            '$0 ~ s && $0 ~ /has no name/ {print $1}' | tail -n1)
        [ -n "$WINDOW" ] && break
        kill -0 "$jalv" 2>/dev/null || fail "jalv.gtk3 exited: $(cat "$WORK"/jalv*.err)"
        sleep 0.1
    done
    [ -n "$WINDOW" ] || {
        xwininfo -root -tree >&2
        fail "no $size editor window in jalv.gtk3"
    }
    WX=$(xwininfo -id "$WINDOW" | awk '/Absolute upper-left X/ {print $4}')
    WY=$(xwininfo -id "$WINDOW" | awk '/Absolute upper-left Y/ {print $4}')
}

# eventually CMD...: succeeds as soon as CMD does, trying for up to 10 s. A loaded machine may
# take its time to deliver input to the editor, draw it and pass values on to the plug-in.
eventually() {
    local i
    for ((i = 0; i < 100; i++)); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}
