#!/usr/bin/env bash
# jalv runs the plug-in in real time on a private dummy JACK server: its ports appear,
# audio passes, MIDI passes through, and SIGINT ends jalv normally (jalv catches it and exits
# 0; anything else fails).
source "$(dirname "$0")/common.sh"
need stdbuf jackd jalv jack_wait jack_lsp jack_connect jack_midiseq jack_midi_dump jack_metro \
    jack_rec
cd "$WORK"

SERVER=srtest$$
CLIENT=sr-jalv
export JACK_DEFAULT_SERVER=$SERVER JACK_NO_START_SERVER=1

# Waits up to 10 s until every named port exists.
wait_ports() {
    local i p missing
    for ((i = 0; i < 100; i++)); do
        jack_lsp -s "$SERVER" >ports.txt 2>/dev/null || true
        missing=
        for p in "$@"; do grep -qxF "$p" ports.txt || missing="$missing $p"; done
        [ -z "$missing" ] && return 0
        kill -0 "$JALV" 2>/dev/null || fail "jalv exited early: $(cat jalv.out jalv.err)"
        sleep 0.1
    done
    fail "JACK ports missing after 10 s:$missing"
}

jackd -n "$SERVER" -d dummy -r 48000 -p 256 >jackd.log 2>&1 &
JACKD=$!
CLEANUP+=("stop $JACKD")
jack_wait -s "$SERVER" -w -t 10 >/dev/null 2>&1 || fail "jackd did not start: $(cat jackd.log)"

# jalv's console leaves at end of input, so its stdin is a FIFO we hold open.
mkfifo commands
exec 3<>commands
CLEANUP+=("exec 3>&-")
# Line-buffered, so that the plug-in's own log lines never split one of jalv's.
stdbuf -oL jalv -x -n "$CLIENT" -c kChorusDryWet=0.9 "$URI" <&3 >jalv.out 2>jalv.err &
JALV=$!
CLEANUP+=("stop $JALV")
started=$SECONDS

wait_ports "$CLIENT:in_l" "$CLIENT:in_r" "$CLIENT:out_l" "$CLIENT:out_r" "$CLIENT:midi_in" \
    "$CLIENT:midi_out"
jack_lsp -s "$SERVER" -t "$CLIENT:" >types.txt
for p in in_l in_r out_l out_r; do
    [[ $(grep -A1 -xF "$CLIENT:$p" types.txt | tail -n1) == *audio* ]] ||
        fail "$p is not an audio port"
done
for p in midi_in midi_out; do
    [[ $(grep -A1 -xF "$CLIENT:$p" types.txt | tail -n1) == *midi* ]] ||
        fail "$p is not a MIDI port"
done

# A click into both inputs, a looping note sequence into the MIDI input, a monitor on the
# MIDI output.
jack_metro -n sr-metro -b 240 -f 880 -A 0.5 >/dev/null 2>&1 &
CLEANUP+=("stop $!")
jack_midiseq sr-seq 24000 0 60 8000 12000 63 8000 >/dev/null 2>&1 &
CLEANUP+=("stop $!")
jack_midi_dump sr-mon >midi.txt 2>/dev/null &
MON=$!
CLEANUP+=("stop $MON")
wait_ports sr-metro:240_bpm sr-seq:out sr-mon:input
for c in "sr-metro:240_bpm $CLIENT:in_l" "sr-metro:240_bpm $CLIENT:in_r" \
    "sr-seq:out $CLIENT:midi_in" "$CLIENT:midi_out sr-mon:input"; do
    # shellcheck disable=SC2086
    jack_connect -s "$SERVER" $c || fail "cannot connect $c"
done

timeout 20 jack_rec -f rec.wav -d 2 "$CLIENT:out_l" "$CLIENT:out_r" >/dev/null 2>&1 ||
    fail "jack_rec could not record jalv's outputs"
wavtool level rec.wav 0.01 || fail "jalv's audio output is wrong"

# Five seconds in all, then end it as a user would.
while ((SECONDS - started < 5)); do sleep 0.2; done
kill -0 "$JALV" 2>/dev/null || fail "jalv died while running: $(cat jalv.out jalv.err)"
stop "$JALV" INT
[ "$STATUS" = 0 ] || fail "jalv exited with status $STATUS after SIGINT: $(cat jalv.err)"
stop "$MON" # it writes what it saw on the way out

if grep -Ei 'error|fail|warn' jalv.err; then fail "jalv or lilv reported problems"; fi
for ev in '90 3c 40' '80 3c 40' '90 3f 40' '80 3f 40'; do
    grep -q ": $ev " midi.txt || { cat midi.txt >&2; fail "MIDI '$ev' did not pass through"; }
done
echo "ok: jalv ran $((SECONDS - started)) s; audio and MIDI pass"
