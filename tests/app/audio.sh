#!/usr/bin/env bash
# Audio through the app equals the renderer's output for the same input and settings, sample
# for sample. The app renders from its first cycle on, so the renderer gets as much silence
# before the input as the app had rendered when the input began, in calls of the same length.
source "$(dirname "$0")/common.sh"
PERIOD=256
start_server "$PERIOD"
start_app "$WORK/app.log" --no-ui --preset "Vocal Shimmer"
expect_line "loaded the preset 'Vocal Shimmer' from '$DOCUMENTS/Presets/Vocal Shimmer.aupreset'"

# Whole cycles (288 of them), so the renderer's last call is as long as the app's.
wavtool make "$WORK/in.wav" 48000 float 1.536 0.5
played=$("$CLIENT" play sr-chorus "$WORK/in.wav" "$WORK/out.wav") || fail "playing through the app failed"
echo "$played"
start=$(sed -nE 's/.* from frame ([0-9]+) .*/\1/p' <<<"$played")
first=$(sed -nE 's/.*renders at 48000 Hz in calls of up to [0-9]+ frames, from sample time ([0-9]+)$/\1/p' "$APP_LOG" | head -n 1)
[ -n "$start" ] && [ -n "$first" ] || fail "no start frame from the player or the app"
preroll=$((start - first))
((preroll > 0 && preroll % PERIOD == 0)) || fail "the input began $preroll frames after the app's first cycle"
echo "ok: the input began $preroll frames ($((preroll / PERIOD)) cycles) into the app's rendering"

wavtool pad "$WORK/in.wav" "$WORK/padded.wav" "$preroll"
"$RENDER" "$WORK/padded.wav" "$WORK/reference.wav" --preset "$SOURCE_DIR/presets/Vocal Shimmer.aupreset" \
    --block "$PERIOD" >"$WORK/render.log" 2>&1 || { cat "$WORK/render.log" >&2; fail "the renderer failed"; }
wavtool same "$WORK/out.wav" "$WORK/reference.wav" --ref-offset "$preroll" ||
    fail "the app's output differs from the renderer's"
wavtool check "$WORK/out.wav" "$WORK/in.wav" --not-silent --differs >/dev/null ||
    fail "the app's output is silent or the input unchanged"

stop_app TERM
[ "$APP_STATUS" -eq 0 ] || fail "the app exited $APP_STATUS"
[ "$(statetool preset "$STATE")" = "Vocal Shimmer" ] || fail "the saved state does not name the preset"
echo "ok: audio through the app equals the renderer's, preset saved as current"
