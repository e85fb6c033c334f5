#!/usr/bin/env bash
# A saved state that cannot be used is kept aside under a name of its own, reported, and the app
# starts from the defaults; nothing of it is lost, and the next save does not touch it.
source "$(dirname "$0")/common.sh"
start_server 256
mkdir -p "$DOCUMENTS"

# Bytes that are no property list.
printf 'not a property list\n' >"$STATE"
cp "$STATE" "$WORK/garbage"
start_app "$WORK/run1.log" --no-ui
aside="sr-chorus-state.refused-[0-9]{8}-[0-9]{6}(-[0-9]+)?\.plist"
expect_line "WARNING: the saved state '$STATE' cannot be used: it is not a property list: "
expect_line "the refused state is kept as '$aside' in the same folder; starting from the defaults"
stop_app TERM
[ "$APP_STATUS" -eq 0 ] || fail "the app exited $APP_STATUS"
mapfile -t kept < <(find "$DOCUMENTS" -maxdepth 1 -name 'sr-chorus-state.refused-*.plist')
[ "${#kept[@]}" -eq 1 ] || fail "${#kept[@]} files kept aside, not 1"
cmp -s "${kept[0]}" "$WORK/garbage" || fail "the file kept aside is not the refused one"
expect_value kChorusDepth 0.33
echo "ok: unreadable state kept as ${kept[0]##*/}, defaults saved"

# A whole state of another component (another manufacturer): the audio unit refuses it.
sed -e '0,/<key>manufacturer<\/key>/!b' -e 'n; s/<integer>[0-9]*<\/integer>/<integer>1096172403<\/integer>/' \
    "$STATE" >"$WORK/foreign.plist"
cmp -s "$STATE" "$WORK/foreign.plist" && fail "could not make a foreign state"
cp "$WORK/foreign.plist" "$STATE"
start_app "$WORK/run2.log" --no-ui
expect_line "The component description of the patch does not match"
expect_line "WARNING: the saved state '$STATE' cannot be used: the audio unit refused its full state, as logged above"
[ "$(grep -cE "the refused state is kept as '$aside'" "$APP_LOG")" -eq 1 ] || fail "the refused state was not kept aside"
stop_app TERM
[ "$APP_STATUS" -eq 0 ] || fail "the app exited $APP_STATUS"
mapfile -t kept < <(find "$DOCUMENTS" -maxdepth 1 -name 'sr-chorus-state.refused-*.plist' | sort)
[ "${#kept[@]}" -eq 2 ] || fail "${#kept[@]} files kept aside, not 2"
foreign=0 garbage=0
for f in "${kept[@]}"; do
    if cmp -s "$f" "$WORK/foreign.plist"; then foreign=1; fi
    if cmp -s "$f" "$WORK/garbage"; then garbage=1; fi
done
[ "$foreign$garbage" = 11 ] || fail "the two refused files are not both kept as they were"
echo "ok: foreign state kept aside too; ${#kept[@]} files kept: ${kept[*]##*/}"

# A preset that is refused stops the start, before anything is saved.
printf 'junk' >"$WORK/bad.aupreset"
cp "$STATE" "$WORK/before.plist"
status=0
"$APP" --no-ui --preset "$WORK/bad.aupreset" >"$WORK/run3.log" 2>&1 || status=$?
[ "$status" -eq 1 ] || fail "a refused --preset exited $status, not 1"
grep -q "error: cannot use the preset '$WORK/bad.aupreset'" "$WORK/run3.log" || fail "no error line for the refused preset"
cmp -s "$STATE" "$WORK/before.plist" || fail "the saved state changed after a refused preset"
echo "ok: a refused --preset ends the start with status 1, state untouched"
