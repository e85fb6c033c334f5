#!/usr/bin/env bash
# with-xvfb.sh COMMAND [ARGS...]: runs the command with DISPLAY on an Xvfb server of its own,
# stopped by PID when the command ends.
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/../workdir.sh" sr-xvfb
fail() {
    echo "FAIL: $*" >&2
    exit 1
}
source "$HERE/../xvfb.sh"
start_xvfb 1280x720x24
"$@"
