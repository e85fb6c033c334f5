#!/usr/bin/env bash
# cmake --install puts the app, its desktop entry, its icon and the presets it installs in the
# documents folder where a desktop and the app itself find them.
source "$(dirname "$0")/common.sh"
BUILD=$(cd "$(dirname "$APP")/.." && pwd)
DESTDIR="$WORK/root" cmake --install "$BUILD" --prefix /usr >"$WORK/install.log" ||
    { cat "$WORK/install.log" >&2; fail "cmake --install failed"; }
ROOT="$WORK/root/usr"
[ -x "$ROOT/bin/sr-chorus" ] || fail "no bin/sr-chorus"
desktop="$ROOT/share/applications/sr-chorus.desktop"
icon="$ROOT/share/icons/hicolor/scalable/apps/sr-chorus.svg"
[ -f "$desktop" ] || fail "no desktop entry"
[ -f "$icon" ] || fail "no icon"
if command -v desktop-file-validate >/dev/null; then
    desktop-file-validate "$desktop" || fail "the desktop entry is not valid"
fi
grep -qx "Exec=sr-chorus" "$desktop" && grep -qx "Icon=sr-chorus" "$desktop" ||
    fail "the desktop entry does not start sr-chorus with its icon"
python3 -c "import sys, xml.etree.ElementTree as t; r = t.parse(sys.argv[1]).getroot(); sys.exit(r.tag != '{http://www.w3.org/2000/svg}svg')" "$icon" ||
    fail "the icon is not an SVG document"
presets=$(find "$ROOT/share/tav-sr-chorus/presets" -name '*.aupreset' | wc -l)
[ "$presets" -eq 10 ] || fail "$presets presets installed, not 10"

# The installed program finds the installed presets.
start_server 256
APP="$ROOT/bin/sr-chorus"
start_app "$WORK/installed.log" --no-ui
stop_app TERM
[ "$APP_STATUS" -eq 0 ] || fail "the installed app exited $APP_STATUS"
factory=$(find "$DOCUMENTS/Presets/Factory" -name '*.aupreset' | wc -l)
[ "$factory" -eq 10 ] || fail "the installed app installed $factory presets, not 10"
echo "ok: installed app, desktop entry, icon and $presets presets; the installed app finds them"
