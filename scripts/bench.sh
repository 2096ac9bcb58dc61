#!/usr/bin/env bash
# Builds the release configurations (native, and the .exe that update_bench
# runs under wine64) and runs the benchmarks, printing their figures. A Wine
# prefix for them is made with wineboot under build/ once.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j"$(nproc)" >/dev/null
cmake --preset windows >/dev/null
cmake --build --preset windows -j"$(nproc)" >/dev/null
prefix="$PWD/build/bench-prefix"
if [ ! -f "$prefix/system.reg" ]; then
  ./tests/wine/make_prefix.sh "$prefix"
fi
for bench in build/release/bench/*_bench; do
  echo "== $(basename "$bench")"
  "$bench" "$prefix"
done
