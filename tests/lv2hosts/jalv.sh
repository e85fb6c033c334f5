#!/usr/bin/env bash
# jalv runs the plug-in in real time on a private dummy JACK server: its ports appear,
# audio passes, MIDI passes through, the plug-in's log goes to jalv's log (its standard error)
# and none to standard output, and SIGINT ends jalv normally (jalv catches it and exits 0;
# anything else fails). Then jalv.gtk3, on a private X server, loads a factory preset: the
# plug-in reports the preset's values to the UI as patch:Set messages, which jalv takes
# without a word ("Unknown object type?" is what it says to messages it cannot read).
source "$(dirname "$0")/common.sh"
need stdbuf jackd jalv jalv.gtk3 Xvfb jack_wait jack_lsp jack_connect jack_midiseq \
    jack_midi_dump jack_metro jack_rec
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

# The plug-in's lines reach jalv's log, which prints them on standard error: warnings and
# errors with jalv's "warning: " or "error: " in front, trace lines and notes as they are
# (the trace lines include the "... WARNING: The property ... is NOT defined." of the host
# blocks LV2 has not). Anything else about errors comes from jalv or lilv.
grep -q '^unit received parameter : address:16, value:0.900000$' jalv.err ||
    fail "the plug-in's log did not reach jalv's log: $(head -n 20 jalv.err)"
if grep -E 'unit received parameter|TAV_SR_Chorus' jalv.out; then
    fail "the plug-in wrote its log to standard output although jalv offers log:log"
fi
if grep -Ev '^(TAV_SR_Chorus_Extension_AudioUnit[:]|unit received parameter|traceEvent\(\) :)' \
    jalv.err | grep -Ei 'error|fail|warn'; then
    fail "jalv, lilv or the plug-in reported problems"
fi
for ev in '90 3c 40' '80 3c 40' '90 3f 40' '80 3f 40'; do
    grep -q ": $ev " midi.txt || { cat midi.txt >&2; fail "MIDI '$ev' did not pass through"; }
done
echo "ok: jalv ran $((SECONDS - started)) s; audio and MIDI pass; $(wc -l <jalv.err) lines of" \
    "its log on standard error, none of the plug-in's on standard output"

# jalv.gtk3 shows the plug-in's editor on an X server of our own; -displayfd lets it pick a
# free display.
Xvfb -displayfd 4 -screen 0 1024x768x24 -nolisten tcp 4>display.txt >xvfb.log 2>&1 &
XVFB=$!
CLEANUP+=("stop $XVFB")
for ((i = 0; i < 100; i++)); do
    [ -s display.txt ] && break
    kill -0 "$XVFB" 2>/dev/null || fail "Xvfb did not start: $(cat xvfb.log)"
    sleep 0.1
done
[ -s display.txt ] || fail "Xvfb named no display in 10 s"
PRESET="$URI#preset-vocal-shimmer"
: >gtk.out
# -d dumps what the plug-in sends its UI, so the reports can be counted.
DISPLAY=:$(cat display.txt) stdbuf -oL jalv.gtk3 -d -x -n sr-jalv-gtk -p "$PRESET" "$URI" \
    >gtk.out 2>gtk.err &
GTK=$!
CLEANUP+=("stop $GTK")
# The preset's state sets 9 values that differ from the defaults; all are reported.
for ((i = 0; i < 150; i++)); do
    (($(grep -c '	a patch:Set ;' gtk.out) >= 9)) && break
    kill -0 "$GTK" 2>/dev/null || fail "jalv.gtk3 exited early: $(tail -n 20 gtk.err)"
    sleep 0.1
done
sleep 0.5 # anything jalv says to the last report
stop "$GTK" INT
[ "$STATUS" = 0 ] || fail "jalv.gtk3 exited with status $STATUS after SIGINT: $(tail gtk.err)"
reports=$(grep -c '	a patch:Set ;' gtk.out || true)
((reports >= 9)) || fail "only $reports patch:Set reports reached jalv.gtk3's UI"
grep -A1 'patch:property <urn:tav:sr-chorus#kChorusDepth> ;' gtk.out |
    grep -q 'patch:value "0.28999999"' || fail "the UI was not told the preset's Chorus Depth 0.29"
if grep -H 'Unknown object type' gtk.out gtk.err; then
    fail "jalv.gtk3 could not read the plug-in's reports"
fi
echo "ok: jalv.gtk3 loaded $PRESET; $reports patch:Set reports reached its UI," \
    "no \"Unknown object type?\""
