#!/usr/bin/env bash
# The bundle's Turtle parses and validates against the LV2 vocabularies.
source "$(dirname "$0")/common.sh"
need lv2_validate sord_validate serdi

mapfile -t ttls < <(find "$BUNDLE" -name '*.ttl' | sort)
[ ${#ttls[@]} -ge 3 ] || fail "only ${#ttls[@]} TTL files in $BUNDLE"

for f in "${ttls[@]}"; do
    serdi -i turtle -o ntriples "$f" >/dev/null 2>"$WORK/serdi.err" ||
        { cat "$WORK/serdi.err" >&2; fail "serdi cannot parse $f"; }
    [ ! -s "$WORK/serdi.err" ] || { cat "$WORK/serdi.err" >&2; fail "serdi complains about $f"; }
done

# lv2_validate runs sord_validate over the installed LV2 vocabularies plus our files; its
# reports start with "error:" or "warning:".
status=0
lv2_validate "${ttls[@]}" >"$WORK/validate.txt" 2>&1 || status=$?
grep -Ei -A3 '^warning' "$WORK/validate.txt" >&2 || true
if [ $status -ne 0 ] || grep -Eqi '^error' "$WORK/validate.txt"; then
    cat "$WORK/validate.txt" >&2
    fail "lv2_validate (sord_validate with the LV2 schema) rejects the bundle (exit $status)"
fi
echo "ok: ${#ttls[@]} TTL files parse and validate"
