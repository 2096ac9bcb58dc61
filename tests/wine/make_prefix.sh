#!/usr/bin/env bash
# Makes the Wine prefix that the Wine tests share, anew for each test run.
# Without Wine there is nothing to make, and those tests skip.
set -u
export WINEPREFIX="$1" WINEDEBUG=-all
wine=/usr/lib/wine/wine64
[ -x "$wine" ] || { echo "wine64 is not installed: the Wine tests will skip"; exit 0; }
/usr/lib/wine/wineserver -k 2>/dev/null
rm -rf "$WINEPREFIX"
mkdir -p "$(dirname "$WINEPREFIX")"
timeout 240 "$wine" wineboot -i >/dev/null 2>&1 || { echo "wineboot failed"; exit 1; }
timeout 60 /usr/lib/wine/wineserver -w
test -f "$WINEPREFIX/system.reg"
