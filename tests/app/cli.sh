#!/usr/bin/env bash
# The command line, and no JACK server: one line, exit status 2, nothing started or written.
source "$(dirname "$0")/common.sh"

"$APP" --help >"$WORK/help.txt" || fail "--help did not exit 0"
for option in --name --connect --preset --no-ui --help; do
    grep -q -- "$option" "$WORK/help.txt" || fail "--help does not mention $option"
done

# usage ARGS...: a wrong command line is one line on standard error and exit status 2.
usage() {
    local status=0
    "$APP" "$@" >"$WORK/usage.txt" 2>&1 || status=$?
    [ "$status" -eq 2 ] || fail "'$*' exited $status, not 2"
    [ "$(wc -l <"$WORK/usage.txt")" -eq 1 ] || fail "'$*' printed $(wc -l <"$WORK/usage.txt") lines"
    echo "ok: $* -> $(cat "$WORK/usage.txt")"
}
usage --bogus
usage --name
usage --name "a:b"
usage --name "$(printf 'x%.0s' {1..64})"
usage --no-ui=yes
usage --preset=

# No server of that name: the app must neither start one nor touch the documents folder.
export JACK_DEFAULT_SERVER="sr-app-test-none-$$"
status=0
"$APP" --no-ui >"$WORK/stdout.txt" 2>"$WORK/stderr.txt" || status=$?
[ "$status" -eq 2 ] || fail "without a server the app exited $status, not 2"
lines=$(cat "$WORK/stdout.txt" "$WORK/stderr.txt" | wc -l)
[ "$lines" -eq 1 ] || { cat "$WORK/stdout.txt" "$WORK/stderr.txt" >&2; fail "without a server the app printed $lines lines, not 1"; }
grep -q "no JACK server is running (server '$JACK_DEFAULT_SERVER')" "$WORK/stderr.txt" ||
    fail "the line does not say that no server runs: $(cat "$WORK/stderr.txt")"
if pgrep -f "jackd.*$JACK_DEFAULT_SERVER" >/dev/null; then fail "a JACK server was started"; fi
[ ! -e "$DOCUMENTS" ] || fail "the documents folder was created without a server"
echo "ok: no server -> status 2, one line: $(cat "$WORK/stderr.txt")"
