# shellcheck shell=bash
# Sourced by test scripts: `source workdir.sh PREFIX` makes a temp dir $WORK, removed on exit,
# and a list CLEANUP of clean-up steps that a test adds to; they run first, last-in first-out.
WORK=$(mktemp -d "${TMPDIR:-/tmp}/${1:-sr-test}.XXXXXX")
CLEANUP=()
cleanup() {
    local i
    for ((i = ${#CLEANUP[@]} - 1; i >= 0; i--)); do eval "${CLEANUP[i]}" || true; done
    rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
