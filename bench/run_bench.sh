#!/usr/bin/env bash
# The server against the bare relay under the same loads, one after the
# other in one run, on 127.0.0.1 only. Prints a side-by-side table with the
# ratio lines. Every load is bounded in time; nothing is left running.
#
#   bench/run_bench.sh [--build DIR] [--rooms "1 16 64 128"] [--players 8]
#                      [--rate 20] [--seconds 10] [--repeat 1]
#                      [--idle-seconds 10] [--no-extras]
#                      [--sweep "20 40 60 80 100 120 160"] [--out DIR] [--pin]
#
# --pin puts the server (or the bare relay) on core 0 and the load generator
# on core 1 with taskset, the same way on both sides, so that neither steals
# from the other. The generator's own lateness (its send lag) is in the
# JSON lines; bench/run_tail.sh leaves out the runs where it fell behind.
#
# --repeat R runs each load R times per side and keeps, per side, the run
# with the least steal time (from /proc/stat, as the loadbot reports it);
# ties go to the run during which the machine was least busy otherwise.
# --idle-seconds 0 leaves out the idle line (1,024 connected peers, no
# traffic). The JSON lines of every run are kept in the --out directory.
#
# Extras, figures without a target yet (server only; --no-extras leaves them
# out): the largest step rate at the largest room count whose relay p99
# stays under 10 ms (rates of --sweep, in order, until one fails), and the
# relay figures of 64 playing rooms while 16 other clients each fetch an
# 8 MiB update file back to back.

set -euo pipefail

BUILD=build
ROOMS="1 16 64 128"
PLAYERS=8
RATE=20
SECONDS_PER_LOAD=10
REPEAT=1
IDLE_SECONDS=10
EXTRAS=1
SWEEP="20 40 60 80 100 120 160"
OUT=""
TARGET_CPU=()
LOAD_CPU=()

while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD=$2; shift 2 ;;
    --rooms) ROOMS=$2; shift 2 ;;
    --players) PLAYERS=$2; shift 2 ;;
    --rate) RATE=$2; shift 2 ;;
    --seconds) SECONDS_PER_LOAD=$2; shift 2 ;;
    --repeat) REPEAT=$2; shift 2 ;;
    --idle-seconds) IDLE_SECONDS=$2; shift 2 ;;
    --no-extras) EXTRAS=0; shift ;;
    --sweep) SWEEP=$2; shift 2 ;;
    --out) OUT=$2; shift 2 ;;
    --pin) TARGET_CPU=(taskset -c 0); LOAD_CPU=(taskset -c 1); shift ;;
    -h|--help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
    *) echo "run_bench.sh: unknown option $1" >&2; exit 2 ;;
  esac
done

SERVER_BIN=$BUILD/lockstep-server
RELAY_BIN=$BUILD/bench/bare_relay
LOADBOT_BIN=$BUILD/loadbot
for bin in "$SERVER_BIN" "$RELAY_BIN" "$LOADBOT_BIN"; do
  [ -x "$bin" ] || { echo "run_bench.sh: $bin is missing (build first)" >&2; exit 2; }
done
SERVER_BIN=$(realpath "$SERVER_BIN"); RELAY_BIN=$(realpath "$RELAY_BIN"); LOADBOT_BIN=$(realpath "$LOADBOT_BIN")

WORK=$(mktemp -d /tmp/lockstep-bench.XXXXXX)
[ -n "$OUT" ] || OUT=$WORK/results
mkdir -p "$OUT"
TARGET_PID=""
cleanup() {
  if [ -n "$TARGET_PID" ] && kill -0 "$TARGET_PID" 2>/dev/null; then
    kill -INT "$TARGET_PID" 2>/dev/null || true
    wait "$TARGET_PID" 2>/dev/null || true
  fi
  rm -rf "$WORK/root" "$WORK"/relay.*
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Starts one side; sets TARGET_PID and TARGET_PORT.
start_target() {
  local side=$1
  TARGET_PORT=""
  if [ "$side" = server ]; then
    rm -rf "$WORK/root"
    mkdir -p "$WORK/root/settings" "$WORK/root/server_data/update_data" "$WORK/root/server_data/announcements"
    # An empty first line: the system picks a free port, the log names it.
    printf '\nbenchmark\n0\n' > "$WORK/root/settings/server.config"
    # Every load client connects from 127.0.0.1, far past what one real
    # address may hold.
    printf 'max_peers_per_address = 0\nconnects_per_address_per_minute = 0\nrooms_per_address_per_minute = 0\naddress_budget_multiple = 0\n' > "$WORK/root/settings/limits.conf"
    [ -z "${UPDATE_FILE:-}" ] || head -c 8388608 /dev/urandom >"$WORK/root/server_data/update_data/$UPDATE_FILE"
    ${TARGET_CPU[@]+"${TARGET_CPU[@]}"} "$SERVER_BIN" --data-root "$WORK/root" </dev/null >/dev/null 2>&1 &
    TARGET_PID=$!
    for _ in $(seq 100); do
      TARGET_PORT=$(sed -n 's/.*Enet server created at [0-9]*:\([0-9]*\).*/\1/p' "$WORK/root/server.log" 2>/dev/null | head -1 || true)
      [ -n "$TARGET_PORT" ] && break
      sleep 0.05
    done
  else
    ${TARGET_CPU[@]+"${TARGET_CPU[@]}"} "$RELAY_BIN" --port 0 </dev/null >"$WORK/relay.out" 2>&1 &
    TARGET_PID=$!
    for _ in $(seq 100); do
      TARGET_PORT=$(sed -n 's/^bare_relay: listening on port \([0-9]*\)$/\1/p' "$WORK/relay.out" 2>/dev/null || true)
      [ -n "$TARGET_PORT" ] && break
      sleep 0.05
    done
  fi
  [ -n "$TARGET_PORT" ] || { echo "run_bench.sh: $side did not start" >&2; exit 1; }
}

stop_target() {
  kill -INT "$TARGET_PID" 2>/dev/null || true
  # The server pauses a second on its way out; give it a bounded time.
  for _ in $(seq 100); do kill -0 "$TARGET_PID" 2>/dev/null || break; sleep 0.05; done
  kill -KILL "$TARGET_PID" 2>/dev/null || true
  wait "$TARGET_PID" 2>/dev/null || true
  TARGET_PID=""
}

# A number (or null) from a flat JSON line.
jget() { sed -n "s/.*\"$1\":\([^,}]*\).*/\1/p" <<<"$2"; }

# One load against one side; prints the JSON line. Further arguments go to
# the loadbot.
run_load() {
  local side=$1 rooms=$2 mode=$3 seconds=$4
  shift 4
  start_target "$side"
  local extra=("$@")
  [ "$mode" = idle ] && extra+=(--idle)
  local limit
  limit=$(awk -v s="$seconds" 'BEGIN { printf "%d", s + 90 }')
  timeout --signal=INT --kill-after=10 "$limit" ${LOAD_CPU[@]+"${LOAD_CPU[@]}"} \
    "$LOADBOT_BIN" --rooms "$rooms" --players "$PLAYERS" --rate "$RATE" --seconds "$seconds" \
    --port "$TARGET_PORT" --server-pid "$TARGET_PID" --label "$side" --quiet ${extra[@]+"${extra[@]}"} || true
  stop_target
}

# Keeps, of the runs in a file, the one with the least steal, then the least
# machine load.
best_of() {
  awk '{
    steal = $0; sub(/.*"steal_pct":/, "", steal); sub(/[,}].*/, "", steal)
    busy = $0; sub(/.*"machine_busy_pct":/, "", busy); sub(/[,}].*/, "", busy)
    if (steal == "null") steal = 0; if (busy == "null") busy = 0
    if (NR == 1 || steal + 0 < bs || (steal + 0 == bs && busy + 0 < bb)) { bs = steal + 0; bb = busy + 0; best = $0 }
  } END { print best }' "$1"
}

echo "Benchmark: rooms {$ROOMS} x $PLAYERS players, $RATE steps/s, $SECONDS_PER_LOAD s per load, repeat $REPEAT" >&2
echo "Machine: $(nproc) cores, $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -1), kernel $(uname -r)" >&2

for rooms in $ROOMS; do
  for rep in $(seq "$REPEAT"); do
    for side in server bare; do
      echo "  $rooms rooms, $side, run $rep ..." >&2
      run_load "$side" "$rooms" play "$SECONDS_PER_LOAD" >>"$OUT/play-$rooms-$side.jsonl"
    done
  done
done
if [ "$IDLE_SECONDS" != 0 ]; then
  idle_rooms=$((1024 / PLAYERS))
  for rep in $(seq "$REPEAT"); do
    for side in server bare; do
      echo "  idle, $((idle_rooms * PLAYERS)) peers, $side, run $rep ..." >&2
      run_load "$side" "$idle_rooms" idle "$IDLE_SECONDS" >>"$OUT/idle-$side.jsonl"
    done
  done
fi
if [ "$EXTRAS" = 1 ]; then
  top_rooms=$(echo $ROOMS | awk '{ m = $1; for (i = 2; i <= NF; i++) if ($i + 0 > m + 0) m = $i; print m }')
  SWEEP_BEST="none"
  SWEEP_FIRST_FAIL=""
  for rate in $SWEEP; do
    echo "  sweep: $top_rooms rooms at $rate steps/s, server ..." >&2
    line=$(RATE=$rate run_load server "$top_rooms" play "$SECONDS_PER_LOAD")
    echo "$line" >>"$OUT/sweep-$top_rooms.jsonl"
    p99=$(jget relay_p99_ms "$line")
    if [ "$(jget setup_ok "$line")" = true ] && [ "$(jget errors "$line")" = 0 ] &&
       awk -v p="$p99" 'BEGIN { exit !(p + 0 < 10) }'; then
      SWEEP_BEST=$rate
    else
      SWEEP_FIRST_FAIL=$rate
      break
    fi
  done
  echo "  64 rooms with 16 clients fetching an 8 MiB update file, server ..." >&2
  UPDATE_FILE=bench-update.bin
  # The file traffic delays the relays by seconds: a longer wait for the
  # last of them, so that only what truly never arrives counts as lost.
  run_load server 64 play "$SECONDS_PER_LOAD" --downloaders 16 --download-file "$UPDATE_FILE" \
    --drain-seconds 20 >>"$OUT/downloads.jsonl"
  UPDATE_FILE=""
fi

fmt() { [ -z "$1" ] || [ "$1" = null ] && printf 'n/a' || printf '%s' "$1"; }

echo
echo "| load | side | msgs out/s | control msgs/s | CPU % of a core | relay p50 ms | p99 | p99.9 | max | step p50 ms | p99 | p99.9 | max | peak RSS MiB | ctx switches vol/invol | errors | steal % | machine busy % | loadbot CPU % |"
echo "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|"
RATIOS=()
for rooms in $ROOMS; do
  declare -A cpu p50 p99
  for side in server bare; do
    line=$(best_of "$OUT/play-$rooms-$side.jsonl")
    if [ -z "$line" ] || [ "$(jget setup_ok "$line")" != true ]; then
      echo "| ${rooms}x$PLAYERS | $side | set-up failed: $(jget setup_error "$line") |"
      cpu[$side]=null; p50[$side]=null; p99[$side]=null
      continue
    fi
    window=$(jget window_s "$line")
    received=$(( $(jget relays_received "$line") + $(jget notices_received "$line") ))
    rate_out=$(awk -v n="$received" -v w="$window" 'BEGIN { printf "%.0f", n / w }')
    control=$(awk -v n="$(jget other_control "$line")" -v w="$window" 'BEGIN { printf "%.0f", n / w }')
    rss=$(jget server_peak_rss_kib "$line")
    rss_mib=$(awk -v k="$rss" 'BEGIN { printf "%.1f", k / 1024 }')
    cpu[$side]=$(jget server_cpu_pct "$line"); p50[$side]=$(jget relay_p50_ms "$line"); p99[$side]=$(jget relay_p99_ms "$line")
    echo "| ${rooms}x$PLAYERS | $side | $rate_out | $control | $(fmt "${cpu[$side]}") | ${p50[$side]} | ${p99[$side]} | $(jget relay_p999_ms "$line") | $(jget relay_max_ms "$line") | $(jget step_p50_ms "$line") | $(jget step_p99_ms "$line") | $(jget step_p999_ms "$line") | $(jget step_max_ms "$line") | $rss_mib | $(jget server_ctx_voluntary "$line")/$(jget server_ctx_involuntary "$line") | $(jget errors "$line") | $(fmt "$(jget steal_pct "$line")") | $(fmt "$(jget machine_busy_pct "$line")") | $(jget loadbot_cpu_pct "$line") |"
  done
  RATIOS+=("$(awk -v l="${rooms}x$PLAYERS" -v sc="${cpu[server]}" -v bc="${cpu[bare]}" -v s50="${p50[server]}" -v b50="${p50[bare]}" -v s99="${p99[server]}" -v b99="${p99[bare]}" 'BEGIN {
    if (sc == "null" || bc == "null" || bc + 0 == 0) r = "n/a"; else r = sprintf("%.2f", sc / bc)
    if (s50 == "null" || b50 == "null") { d50 = "n/a"; d99 = "n/a" } else { d50 = sprintf("%+.3f", s50 - b50); d99 = sprintf("%+.3f", s99 - b99) }
    printf "%s: server CPU / relay CPU = %s; server p50 - relay p50 = %s ms; server p99 - relay p99 = %s ms", l, r, d50, d99 }')")
  unset cpu p50 p99
done
if [ "$IDLE_SECONDS" != 0 ]; then
  for side in server bare; do
    line=$(best_of "$OUT/idle-$side.jsonl")
    if [ -z "$line" ] || [ "$(jget setup_ok "$line")" != true ]; then
      echo "| idle $((idle_rooms * PLAYERS)) peers | $side | set-up failed: $(jget setup_error "$line") |"
      continue
    fi
    rss_mib=$(awk -v k="$(jget server_peak_rss_kib "$line")" 'BEGIN { printf "%.1f", k / 1024 }')
    echo "| idle $((idle_rooms * PLAYERS)) peers | $side | 0 | | $(fmt "$(jget server_cpu_pct "$line")") | | | | | | | | | $rss_mib | $(jget server_ctx_voluntary "$line")/$(jget server_ctx_involuntary "$line") | $(jget errors "$line") | $(fmt "$(jget steal_pct "$line")") | $(fmt "$(jget machine_busy_pct "$line")") | $(jget loadbot_cpu_pct "$line") |"
  done
fi
echo
for r in "${RATIOS[@]}"; do echo "$r"; done
if [ "$EXTRAS" = 1 ]; then
  echo
  echo "Step-rate sweep at ${top_rooms}x$PLAYERS (server), relay p99 per rate:"
  while read -r line; do
    echo "  $(jget rate "$line") steps/s: p50 $(jget relay_p50_ms "$line") ms, p99 $(jget relay_p99_ms "$line") ms, CPU $(fmt "$(jget server_cpu_pct "$line")") %, loadbot CPU $(jget loadbot_cpu_pct "$line") %, sends late p99 $(jget send_lag_p99_ms "$line") ms, errors $(jget errors "$line")"
  done <"$OUT/sweep-$top_rooms.jsonl"
  if [ -n "$SWEEP_FIRST_FAIL" ]; then
    echo "Largest step rate with relay p99 under 10 ms: $SWEEP_BEST (the next one tried, $SWEEP_FIRST_FAIL, missed)"
  else
    echo "Largest step rate with relay p99 under 10 ms: at least $SWEEP_BEST (the highest rate tried)"
  fi
  line=$(tail -1 "$OUT/downloads.jsonl")
  echo "64x$PLAYERS with 16 clients fetching 8 MiB files (server): relay p50 $(jget relay_p50_ms "$line") ms, p99 $(jget relay_p99_ms "$line") ms, p99.9 $(jget relay_p999_ms "$line") ms, max $(jget relay_max_ms "$line") ms; step p99 $(jget step_p99_ms "$line") ms; $(jget downloads "$line") files fetched ($(jget download_mib_s "$line") MiB/s); CPU $(fmt "$(jget server_cpu_pct "$line")") %; peak RSS $(awk -v k="$(jget server_peak_rss_kib "$line")" 'BEGIN { printf "%.1f", k / 1024 }') MiB; errors $(jget errors "$line")"
fi
echo
echo "JSON lines of every run: $OUT" >&2
