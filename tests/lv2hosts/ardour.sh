#!/usr/bin/env bash
# Ardour as a user meets the plug-in, headless (ardour7-lua, "None (Dummy)" backend): a session
# finds it with its 29 controls and 10 factory presets, puts it on a stereo track, sets two
# controls and a controller number, loads a factory preset, plays with Chorus Mix automated (and
# a controller number under automation too), saves, bounces the track through its processing,
# and loads again (ardour.lua does that and checks what comes back). Here: nothing of the
# plug-in on Ardour's output while it plays, no warning about it when the session loads, its
# state in the session, and rendered audio that is not the dry track. Exits 77 (skipped) where the ardour package is not installed.
source "$(dirname "$0")/common.sh"
if ! command -v ardour7-lua >/dev/null; then
    echo "SKIP: ardour7-lua is not installed (scripts/install-deps.sh could not install ardour)"
    exit 77
fi
need timeout python3
cd "$WORK"

# Ardour keeps its configuration and caches under the home folder: a private one, which also
# shows it the dummy backend (hidden by default).
export HOME="$WORK/home" XDG_CONFIG_HOME="$WORK/home/.config" XDG_DATA_HOME="$WORK/home/.local/share"
export XDG_CACHE_HOME="$WORK/home/.cache"
mkdir -p "$XDG_CONFIG_HOME/ardour7"
cat >"$XDG_CONFIG_HOME/ardour7/config" <<'EOF'
<?xml version="1.0" encoding="UTF-8"?>
<Ardour>
  <Config>
    <Option name="hide-dummy-backend" value="0"/>
  </Config>
</Ardour>
EOF

SESSION="$WORK/session"
status=0
timeout 120 ardour7-lua "$HERE/ardour.lua" "$SESSION" >ardour.out 2>ardour.err || status=$?
show() { sed 's/^/  | /' ardour.out ardour.err >&2; }
((status == 0)) || { show; fail "ardour7-lua exited with status $status"; }
if grep -q '^sr: FAIL' ardour.out; then
    show
    fail "$(grep '^sr: FAIL' ardour.out | sed 's/^sr: FAIL //' | paste -sd ';')"
fi
grep -qx 'sr: done' ardour.out || { show; fail "the session script did not finish"; }

# The plug-in's log, if it reached Ardour's output, would show in these texts.
PLUGIN_LINES='TAV_SR_Chorus|TAV SR Chorus|unit received parameter|traceEvent\(\)|MainQueue:|PrintQueue:|AUParameter|TAVPreset|PresetPatch|sr-chorus'
playing=$(sed -n '/^sr: playback begins$/,/^sr: playback ends/p' ardour.out | grep -v '^sr: ' |
    grep -cE "$PLUGIN_LINES" || true)
all=$(cat ardour.out ardour.err | grep -v '^sr: ' | grep -cE "$PLUGIN_LINES" || true)
if ((playing != 0)); then
    show
    fail "$playing lines of the plug-in on Ardour's standard output while it played"
fi
# Loading the session again: Ardour says nothing about the plug-in (it once ignored the
# automation of "non-automatable" controller numbers); its other lines are its own business.
reload=$(sed -n '/^sr: reload begins$/,/^sr: reload ends$/p' ardour.out | grep -v '^sr: ')
# (Its MIDI audition synth, not on our LV2_PATH, is the one thing it does warn about.)
if grep -iE 'ignored automation|warning|error' <<<"$reload" | grep -viE 'midi.audition'; then
    fail "Ardour warned while it loaded the session again"
fi
if grep -iE 'patch:Set|unknown property' ardour.out ardour.err; then
    fail "Ardour could not read the plug-in's messages"
fi

grep -rqs 'urn:tav:sr-chorus#fullState' "$SESSION/plugins" ||
    fail "the session holds no state of the plug-in"
files=$(dirname "$(find "$SESSION/interchange" -name 'source%L.wav' | head -n 1)")
wavtool check "$files/wet%L.wav" "$files/source%L.wav" --not-silent --differs >export.txt 2>&1 &&
    wavtool check "$files/wet%R.wav" "$files/source%R.wav" --not-silent --differs >>export.txt 2>&1 ||
    { cat export.txt >&2; fail "the bounce through the plug-in is wrong"; }

echo "ok: Ardour $(grep '^sr: factory presets\|^sr: controls' ardour.out | sed 's/^sr: //' |
    paste -sd ',' | sed 's/,/, /'); $(grep '^sr: reloaded' ardour.out | sed 's/^sr: //' |
    paste -sd ';' | sed 's/;/; /g'); plug-in lines on Ardour's output: $playing while playing," \
    "$all in all; bounced: $(paste -sd ';' export.txt)"
