# shellcheck shell=bash
# Sourced by every host test: arguments, a private LV2_PATH, a temp dir removed on exit.
# Usage of a test: <test>.sh BUNDLE_DIR LV2_DIR SOURCE_DIR
# shellcheck disable=SC2034 # the variables are for the tests that source this file
set -euo pipefail

BUNDLE=${1:?bundle directory}
LV2_DIR=${2:?folder holding the bundle}
SOURCE_DIR=${3:?source tree}
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
URI=urn:tav:sr-chorus
SYSTEM_LV2_DIR=${SR_SYSTEM_LV2_DIR:-/usr/lib/lv2}

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

need() {
    local t
    for t in "$@"; do
        command -v "$t" >/dev/null || fail "'$t' is not installed (scripts/install-deps.sh installs it)"
    done
}

[ -f "$BUNDLE/manifest.ttl" ] || fail "no bundle at $BUNDLE (build the sr_lv2_bundle target)"

source "$HERE/../workdir.sh" sr-lv2host

# lilv knows class labels and port types only from the LV2 vocabulary bundles (core, atom,
# ...), so links to those join the build tree's folder. They declare no plug-in, so no
# installed plug-in bundle, and so no installed copy of ours, is on the path.
mkdir "$WORK/vocab"
for m in "$SYSTEM_LV2_DIR"/*.lv2/manifest.ttl; do
    if ! grep -qE 'lv2:Plugin|lv2core#Plugin' "$m"; then ln -s "$(dirname "$m")" "$WORK/vocab/"; fi
done
export LV2_PATH="$LV2_DIR:$WORK/vocab"
# Hosts that keep scratch files put them in our temp dir.
export TMPDIR="$WORK"

# Runs "$@" keeping its output (the plug-in logs to stdout) in $WORK/run.log; shows it and
# fails if the command does not exit 0.
run() {
    "$@" >"$WORK/run.log" 2>&1 || { cat "$WORK/run.log" >&2; fail "command failed: $*"; }
}

wavtool() { python3 "$HERE/wavtool.py" "$@"; }

# Stops one of our children by PID: the signal, then SIGKILL after 5 s. Leaves its exit
# status in STATUS (128 + signal number if a signal ended it).
stop() {
    local pid=$1 sig=${2:-TERM} i
    kill -s "$sig" "$pid" 2>/dev/null || true
    for ((i = 0; i < 50; i++)); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    if kill -0 "$pid" 2>/dev/null; then kill -KILL "$pid" 2>/dev/null || true; fi
    STATUS=0
    wait "$pid" 2>/dev/null || STATUS=$?
}
