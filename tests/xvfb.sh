# shellcheck shell=bash
# Sourced by the tests that show a window, after workdir.sh and a `fail` of their own: an X
# server of the test's own on a display number it picks itself (-displayfd), stopped by PID on
# exit; the colours of screenshot pixels.

# start_xvfb [WxHxDEPTH]: DISPLAY is exported, the server's PID is in XVFB_PID. -noreset: the
# server stays as it is when its last client leaves (a program under test between two runs).
start_xvfb() {
    command -v Xvfb >/dev/null || fail "Xvfb is not installed (scripts/install-deps.sh installs it)"
    Xvfb -displayfd 4 -screen 0 "${1:-2400x1200x24}" -nolisten tcp -noreset \
        4>"$WORK/display.txt" >"$WORK/xvfb.log" 2>&1 &
    XVFB_PID=$!
    CLEANUP+=("stop_xvfb")
    local i
    for ((i = 0; i < 100; i++)); do
        [ -s "$WORK/display.txt" ] && break
        kill -0 "$XVFB_PID" 2>/dev/null || fail "Xvfb did not start: $(cat "$WORK/xvfb.log")"
        sleep 0.1
    done
    [ -s "$WORK/display.txt" ] || fail "Xvfb named no display in 10 s"
    DISPLAY=:$(cat "$WORK/display.txt")
    export DISPLAY
}

stop_xvfb() {
    [ -n "${XVFB_PID:-}" ] || return 0
    kill "$XVFB_PID" 2>/dev/null || true
    wait "$XVFB_PID" 2>/dev/null || true
    XVFB_PID=""
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
