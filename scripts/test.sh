#!/usr/bin/env bash
# Installs what is missing, builds every configuration and runs all tests:
# unit and end-to-end tests of the dev build (sanitizers, fault injection),
# the fuzz targets under libFuzzer for a bounded time, the MinGW-w64 builds
# and the checks against Wine. The last line is ctest's summary.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

jobs=$(nproc)
log=$(mktemp)
trap 'rm -f "$log"' EXIT

# Runs a build step quietly; shows its output only when it fails.
quiet() {
  if ! "$@" >"$log" 2>&1; then
    tail -n 80 "$log"
    echo "FAILED: $*"
    exit 1
  fi
}

echo "== Windows builds (MinGW-w64: release, and with fault points)"
for preset in windows windows-dev; do
  quiet cmake --preset "$preset"
  quiet cmake --build --preset "$preset" -j"$jobs"
done
echo "== Administrators' archive"
quiet cmake --build --preset windows --target package

echo "== Fuzz targets (clang, libFuzzer)"
quiet cmake --preset fuzz
quiet cmake --build --preset fuzz -j"$jobs"

echo "== Dev build (sanitizers, fault injection)"
quiet cmake --preset dev
quiet cmake --build --preset dev -j"$jobs"

echo "== Tests"
cd build/dev
results=$(mktemp)
trap 'rm -f "$log" "$results"' EXIT
status=0
ctest -j"$jobs" --timeout 600 --output-on-failure >"$results" 2>&1 || status=$?
tail -n 400 "$results"
# ctest lists the skipped tests after its summary; the summary closes the run.
grep -E '^[0-9]+% tests passed' "$results" | tail -n 1
exit "$status"
