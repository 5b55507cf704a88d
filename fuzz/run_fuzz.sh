#!/usr/bin/env bash
# Runs every libFuzzer target for FUZZ_SECONDS each, starting from (and adding
# to) a scratch copy of its committed corpus. Any crash stops the run.
set -euo pipefail
build="$1"
seconds="${2:-30}"
src="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d /tmp/lockstep-fuzzrun-XXXXXX)"
trap 'rm -rf "$work"' EXIT
for target in $(tr ';' ' ' < "$build/fuzz/targets.txt"); do
  mkdir -p "$work/$target"
  [ -d "$src/corpus/$target" ] && cp -r "$src/corpus/$target/." "$work/$target/"
  echo "== fuzz_$target for ${seconds}s"
  (cd "$work" && "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$work/crash-$target-" "$work/$target" 2>&1 | grep -E '^(stat::number_of_executed_units|stat::peak_rss|==[0-9]+==ERROR|SUMMARY)' || true)
  if ls "$work"/crash-"$target"-* >/dev/null 2>&1; then
    mkdir -p "$src/../build-fuzz-crashes"
    cp "$work"/crash-"$target"-* "$src/../build-fuzz-crashes/"
    echo "fuzz_$target found a crash (copied to build-fuzz-crashes/)"
    exit 1
  fi
done
echo "fuzz: all targets ran ${seconds}s without a crash"
