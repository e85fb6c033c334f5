# shellcheck shell=bash
# Sourced by the tests that run the editor in a real host (after common.sh): a private Xvfb
# display and a private dummy JACK server (named from the test's PID), both stopped by PID on
# exit; the editor's window in jalv.gtk3; pixels of screenshots.
need Xvfb xdotool import convert xwininfo jackd jack_wait jalv.gtk3 stdbuf
SHOTS=$(cd "$LV2_DIR/.." && pwd)/test-screenshots
mkdir -p "$SHOTS"

# An X server of our own; -displayfd lets it pick a free display.
Xvfb -displayfd 4 -screen 0 2400x1200x24 -nolisten tcp 4>"$WORK/display.txt" >"$WORK/xvfb.log" 2>&1 &
XVFB=$!
CLEANUP+=("stop $XVFB")
for ((i = 0; i < 100; i++)); do
    [ -s "$WORK/display.txt" ] && break
    kill -0 "$XVFB" 2>/dev/null || fail "Xvfb did not start: $(cat "$WORK/xvfb.log")"
    sleep 0.1
done
[ -s "$WORK/display.txt" ] || fail "Xvfb named no display in 10 s"
export DISPLAY=:$(cat "$WORK/display.txt")

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

# The colour at x,y of a PNG as "r g b" (0..255).
pixel() {
    convert "$1" -format "%[fx:int(255*p{$2,$3}.r)] %[fx:int(255*p{$2,$3}.g)] %[fx:int(255*p{$2,$3}.b)]" info:
}
# True when pixel $1 ("r g b") is within $3 of each of $2's components.
near() {
    local a b i
    read -ra a <<<"$1"
    read -ra b <<<"$2"
    for i in 0 1 2; do
        local d=$((a[i] - b[i]))
        ((d < 0)) && d=$((-d))
        ((d <= $3)) || return 1
    done
}
