#!/usr/bin/env bash
# The validator fails a plug-in that allocates and locks in run(), leaves output unwritten,
# exports an extra symbol and declares an odd minor version, naming each fault.
set -uo pipefail
validator=$1 bundle=$2
report=$("$validator" --only 1,2,5,8 "$bundle" 2>&1)
status=$?
echo "$report"
fail() { echo "FAILED: $*"; exit 1; }
[ $status -eq 1 ] || fail "exit status $status, expected 1"
expect() { grep -qE -- "$1" <<<"$report" || fail "report lacks: $1"; }
expect '^ 1 metadata +FAIL'
expect 'minorVersion 3 is odd'
expect '^ 2 binary +FAIL'
expect 'faulty_extra_symbol'
expect '^ 5 buffers +FAIL'
expect 'output samples left as the NaN'
expect '^ 8 real time +FAIL'
expect 'operator new [0-9]+'
expect 'pthread_mutex_lock [0-9]+'
echo "every planted fault was found"
