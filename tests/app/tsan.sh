#!/usr/bin/env bash
# The app built with ThreadSanitizer through the session, audio and window tests: the audio
# thread, the main loop with the window, JACK's notification thread and the log thread meet
# without a data race.
set -euo pipefail
APP=${1:?the sr-chorus program built with ThreadSanitizer}
if [ ! -x "$APP" ]; then
    echo "skipped: no ThreadSanitizer build at $APP (make sanitizer-builds makes it)"
    exit 77
fi
HERE=$(cd "$(dirname "$0")" && pwd)
# A report makes the app exit 66 (which the tests see) and is printed into its log. What the
# uninstrumented drawing libraries do among themselves is left out (tsan.supp says what).
export TSAN_OPTIONS="exitcode=66 second_deadlock_stack=1 suppressions=$HERE/tsan.supp ${TSAN_OPTIONS:-}"
export SR_APP_TEST_TIMEOUT=60
for test in session audio ui; do
    bash "$HERE/$test.sh" "$@" || { echo "FAIL: $test.sh with the ThreadSanitizer build" >&2; exit 1; }
done
echo "ok: ThreadSanitizer reported nothing in the session, audio and window tests"
