#!/usr/bin/env bash
# Makes the Wine prefix that the Wine tests share, anew for each test run.
# Without Wine there is nothing to make, and those tests skip.
set -u
prefix="$1"
wine=/usr/lib/wine/wine64
if [ ! -x "$wine" ]; then
  echo "wine64 is not installed: the Wine tests will skip"
  exit 0
fi
WINEPREFIX="$prefix" /usr/lib/wine/wineserver -k 2>/dev/null
rm -rf "$prefix"
mkdir -p "$(dirname "$prefix")"
if ! WINEPREFIX="$prefix" WINEDEBUG=-all timeout 240 "$wine" wineboot -i >/dev/null 2>&1; then
  echo "wineboot failed"
  exit 1
fi
WINEPREFIX="$prefix" timeout 60 /usr/lib/wine/wineserver -w
test -f "$prefix/system.reg"
