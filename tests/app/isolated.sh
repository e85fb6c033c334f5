#!/usr/bin/env bash
# isolated.sh COMMAND [ARGS...]: runs the command with a /dev/shm of its own, when the system
# allows a private mount namespace (as root, or in a user namespace), else as it is.
# A JACK server registers itself machine-wide in /dev/shm, in a table of eight places, and one
# that is killed outright never gives its place back; its sockets and semaphores live there too.
# With a private /dev/shm a test's server neither meets other servers nor leaves anything behind.
set -euo pipefail
if [ -n "${SR_ISOLATED:-}" ]; then exec "$@"; fi
export SR_ISOLATED=1
# shellcheck disable=SC2016 # expanded by the inner shell
inner='mount -t tmpfs -o mode=1777,size=256m sr-test-shm /dev/shm && exec "$@"'
for unshare in "unshare --mount --propagation private" \
    "unshare --user --map-root-user --mount --propagation private"; do
    # shellcheck disable=SC2086 # the words of the command
    if $unshare sh -c 'mount -t tmpfs sr-probe /dev/shm' 2>/dev/null; then
        exec $unshare sh -c "$inner" sh "$@"
    fi
done
echo "note: no private /dev/shm here; the JACK server registers machine-wide" >&2
exec "$@"
