#!/usr/bin/env bash
# Runs one libFuzzer target of the fuzz build for a bounded time, starting
# from its seed corpus; new inputs go to a temporary folder, never into the
# repository. Exit 77 (skipped) when the fuzz build has not been made.
set -u
fuzzer=$1 seeds=$2 seconds=${3:-20}
[ -x "$fuzzer" ] || { echo "no fuzz build at $fuzzer (cmake --preset fuzz && cmake --build --preset fuzz)"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$fuzzer" -max_total_time="$seconds" -error_exitcode=1 -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
  -artifact_prefix="$work/" "$work" "$seeds" 2>&1 | tail -n 15
status=${PIPESTATUS[0]}
if [ "$status" -ne 0 ]; then
  for crash in "$work"/crash-* "$work"/leak-* "$work"/timeout-*; do
    [ -f "$crash" ] && echo "failing input: $(basename "$crash"): $(od -An -tx1 "$crash" | head -c 600)"
  done
fi
exit "$status"
