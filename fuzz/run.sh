#!/usr/bin/env bash
# Runs every fuzz target of the clang build over its seed corpus in
# fuzz/corpus/<target>/ and then on new inputs for a fixed time each.
# Fails on any crash, leak, sanitizer report or assertion.
#   fuzz/run.sh [seconds per target, default 60] [build dir, default build/clang]
# New inputs go to a scratch corpus, never into the repository; add a
# finding's input to fuzz/corpus/<target>/ together with its fix.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
secs=${1:-60}
build=${2:-$root/build/clang}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
status=0
for exe in "$build"/*_fuzz; do
  name=$(basename "$exe" _fuzz)
  seeds=$root/fuzz/corpus/$name
  mkdir -p "$scratch/$name"
  echo "== $name: ${secs}s"
  # stdout is closed: help and -SIZE lines of the run target are noise.
  if ! (cd "$scratch" && ASAN_OPTIONS=detect_leaks=1 \
      "$exe" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 -close_fd_mask=1 \
      -print_final_stats=1 "$scratch/$name" "$seeds" > "$scratch/$name.log" 2>&1); then
    status=1
    tail -n 60 "$scratch/$name.log"
    ls "$scratch"/crash-* "$scratch"/leak-* "$scratch"/timeout-* "$scratch"/oom-* 2>/dev/null || true
  fi
  grep -E "stat::number_of_executed_units|stat::peak_rss_mb" "$scratch/$name.log" | sed 's/^/   /' || true
done
exit $status
