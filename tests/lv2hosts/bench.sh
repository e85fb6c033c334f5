#!/usr/bin/env bash
# lilv's lv2bench instantiates and runs the plug-in at tiny, usual and large block sizes.
source "$(dirname "$0")/common.sh"
need lv2bench

for block in 1 512 8192; do
    run lv2bench -b "$block" -n 32768 "$URI"
    # One line per plug-in: "<seconds> <uri>".
    grep -Eq "^[0-9]+(\.[0-9]+)?(e[-+]?[0-9]+)? $URI\$" "$WORK/run.log" ||
        { cat "$WORK/run.log" >&2; fail "lv2bench printed no result for $URI at block $block"; }
done
echo "ok: lv2bench runs"
