#!/usr/bin/env bash
# The relay's tail, server against bare relay, in one batch: RUNS runs a
# side, alternating, each a fresh process under the same load, every run
# kept. Both sides run with the in-process instrument (--receive-latency):
# the kernel's receive time of each order to the hand-over of its relay to
# the socket. Prints one line per run and the medians per side of the runs
# where the load generator kept its schedule.
#
#   bench/run_tail.sh [--build DIR] [--rooms 128] [--players 8] [--rate 20]
#                     [--seconds 20] [--runs 3] [--pin] [--idle] [--out DIR]
#                     [--bare-threads N] [--server-slice MICROS]
#                     [--bare-slice MICROS] [--candidate BUILD]
#                     [--warmup SECONDS]
#
# --pin puts the server (or the bare relay) on core 0 and the load generator
# on core 1 with taskset, the same way on both sides; without it neither is
# pinned. --idle holds rooms x players connected clients without traffic
# and compares CPU only. A run whose generator sent late (its send lag p99
# above LAG_MS, 1 ms by default) is marked "behind" and left out of the
# medians: its figures are the generator's, not the relay's.
#
# --bare-threads N gives the bare relay N threads that only wait (the server
# has 3 beside its loop), to tell the cost of being a process of several
# threads from the server's own work. Each run's trace of its slowest
# batches and the anatomy of its batches (what the slowest hundredth had in
# common) go into OUT/traces.txt.
#
# --server-slice and --bare-slice ask the kernel for short requests on that
# side's loop (the server's --loop-slice, the bare relay's --slice); 0, the
# default, leaves the kernel's slice.
#
# --candidate BUILD adds a third side, "candidate": the server built in
# BUILD, run in turn with the other two under the same minutes, so that a
# change to the server is compared with the server before it and with the
# bare relay in one batch.
#
# --warmup SECONDS (5 by default, 0 for none) runs each side once for that
# long before the kept runs. The first run of a batch at 128x8x20 often met
# a stall that later runs did not (the generator's send lag p99 of 4 to 51
# ms), whichever side it was; the warm-up takes it. Its lines are in the
# table as run "w", marked "no: warm-up", and never in the medians (in
# tail.jsonl, run 0 with "warmup":true).

set -euo pipefail

BUILD=build ROOMS=128 PLAYERS=8 RATE=20 SECONDS_PER_RUN=20 RUNS=3 PIN=0 IDLE=0 OUT="" BARE_THREADS=0
SERVER_SLICE=0 BARE_SLICE=0 CANDIDATE="" WARMUP=5
LAG_MS=${LAG_MS:-1}
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD=$2; shift 2 ;;
    --rooms) ROOMS=$2; shift 2 ;;
    --players) PLAYERS=$2; shift 2 ;;
    --rate) RATE=$2; shift 2 ;;
    --seconds) SECONDS_PER_RUN=$2; shift 2 ;;
    --runs) RUNS=$2; shift 2 ;;
    --pin) PIN=1; shift ;;
    --idle) IDLE=1; shift ;;
    --out) OUT=$2; shift 2 ;;
    --bare-threads) BARE_THREADS=$2; shift 2 ;;
    --server-slice) SERVER_SLICE=$2; shift 2 ;;
    --bare-slice) BARE_SLICE=$2; shift 2 ;;
    --candidate) CANDIDATE=$2; shift 2 ;;
    --warmup) WARMUP=$2; shift 2 ;;
    -h|--help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
    *) echo "run_tail.sh: unknown option $1" >&2; exit 2 ;;
  esac
done

SERVER_BIN=$(realpath "$BUILD/lockstep-server")
RELAY_BIN=$(realpath "$BUILD/bench/bare_relay")
LOADBOT_BIN=$(realpath "$BUILD/loadbot")
SIDES="server bare"
if [ -n "$CANDIDATE" ]; then CANDIDATE_BIN=$(realpath "$CANDIDATE/lockstep-server"); SIDES="server candidate bare"; fi
TARGET_CPU=() LOAD_CPU=()
if [ "$PIN" = 1 ]; then TARGET_CPU=(taskset -c 0); LOAD_CPU=(taskset -c 1); fi

WORK=$(mktemp -d /tmp/lockstep-tail.XXXXXX)
[ -n "$OUT" ] || OUT=$WORK/results
mkdir -p "$OUT"
TARGET_PID=""
cleanup() {
  if [ -n "$TARGET_PID" ] && kill -0 "$TARGET_PID" 2>/dev/null; then kill -INT "$TARGET_PID" 2>/dev/null || true; wait "$TARGET_PID" 2>/dev/null || true; fi
  rm -rf "$WORK/root" "$WORK"/relay.*
}
trap cleanup EXIT
trap 'exit 130' INT TERM

start_target() {
  TARGET_PORT=""
  if [ "$1" != bare ]; then
    local bin=$SERVER_BIN
    [ "$1" = candidate ] && bin=$CANDIDATE_BIN
    rm -rf "$WORK/root"
    mkdir -p "$WORK/root/settings" "$WORK/root/server_data/update_data" "$WORK/root/server_data/announcements"
    printf '\nbenchmark\n0\n' >"$WORK/root/settings/server.config"
    # Every client comes from 127.0.0.1: the per-address limits are off.
    printf 'max_peers_per_address = 0\nconnects_per_address_per_minute = 0\nrooms_per_address_per_minute = 0\naddress_budget_multiple = 0\n' >"$WORK/root/settings/limits.conf"
    ${TARGET_CPU[@]+"${TARGET_CPU[@]}"} "$bin" --data-root "$WORK/root" --receive-latency --loop-slice "$SERVER_SLICE" </dev/null >/dev/null 2>&1 &
    TARGET_PID=$!
    for _ in $(seq 100); do
      TARGET_PORT=$(sed -n 's/.*Enet server created at [0-9]*:\([0-9]*\).*/\1/p' "$WORK/root/server.log" 2>/dev/null | head -1 || true)
      [ -n "$TARGET_PORT" ] && break; sleep 0.05
    done
  else
    ${TARGET_CPU[@]+"${TARGET_CPU[@]}"} "$RELAY_BIN" --port 0 --receive-latency --idle-threads "$BARE_THREADS" --slice "$BARE_SLICE" </dev/null >"$WORK/relay.out" 2>&1 &
    TARGET_PID=$!
    for _ in $(seq 100); do
      TARGET_PORT=$(sed -n 's/^bare_relay: listening on port \([0-9]*\)$/\1/p' "$WORK/relay.out" 2>/dev/null || true)
      [ -n "$TARGET_PORT" ] && break; sleep 0.05
    done
  fi
  [ -n "$TARGET_PORT" ] || { echo "run_tail.sh: $1 did not start" >&2; exit 1; }
}

# Per thread of the side, since it started: voluntary context switches (its
# wake-ups), involuntary ones (the times another task took its core while it
# could run) and the time it spent ready to run but waiting for a core, the
# main thread (the loop) first.
threads_of() {
  local out="" tid d
  for d in /proc/"$TARGET_PID"/task/*; do
    tid=${d##*/}
    out="$out $([ "$tid" = "$TARGET_PID" ] && echo loop || echo "t$tid"):$(awk '/^voluntary_ctxt/ { v = $2 } /^nonvoluntary_ctxt/ { n = $2 } END { print v "w/" n "p" }' "$d/status")/$(awk '{ printf "%.1f", $2 / 1e6 }' "$d/schedstat")ms"
  done
  echo "${out# }"
}

# Stops the side and prints its instrument's line.
stop_target() {
  kill -INT "$TARGET_PID" 2>/dev/null || true
  for _ in $(seq 100); do kill -0 "$TARGET_PID" 2>/dev/null || break; sleep 0.05; done
  kill -KILL "$TARGET_PID" 2>/dev/null || true
  wait "$TARGET_PID" 2>/dev/null || true
  TARGET_PID=""
  if [ "$1" != bare ]; then
    for _ in $(seq 60); do grep -q "## Ending log" "$WORK/root/server.log" 2>/dev/null && break; sleep 0.05; done
    sed -n 's/^: Receive to send: //p' "$WORK/root/server.log"
    sed -n 's/^: Slow batch: /  slow batch: /p; s/^: Batches, /  batches, /p' "$WORK/root/server.log" >"$WORK/trace"
  else
    sed -n 's/^bare_relay: receive to send: //p' "$WORK/relay.out"
    sed -n 's/^bare_relay: slow batch: /  slow batch: /p; s/^bare_relay: batches, /  batches, /p' "$WORK/relay.out" >"$WORK/trace"
  fi
}

jget() { sed -n "s/.*\"$1\":\([^,}]*\).*/\1/p" <<<"$2"; }
# A figure from the instrument's line: p50, p99, p99.9.
iget() { sed -n "s/.* $1 \([0-9.]*\) us.*/\1/p" <<<"$2"; }

MODE=play; [ "$IDLE" = 1 ] && MODE=idle
echo "Tail: ${ROOMS}x$PLAYERS at $RATE steps/s, $SECONDS_PER_RUN s a run, $RUNS runs a side, $([ "$PIN" = 1 ] && echo "target on core 0, load on core 1" || echo unpinned), $MODE" >&2
echo "Machine: $(nproc) cores, $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -1), kernel $(uname -r), load $(cut -d' ' -f1-3 /proc/loadavg)" >&2
RUN_LIST=$(seq "$RUNS"); [ "$WARMUP" != 0 ] && RUN_LIST="w $RUN_LIST"
for run in $RUN_LIST; do
  seconds=$SECONDS_PER_RUN; [ "$run" = w ] && seconds=$WARMUP
  for side in $SIDES; do
    start_target "$side"
    extra=(); [ "$IDLE" = 1 ] && extra=(--idle)
    line=$(timeout --signal=INT --kill-after=10 $((seconds + 90)) ${LOAD_CPU[@]+"${LOAD_CPU[@]}"} \
      "$LOADBOT_BIN" --rooms "$ROOMS" --players "$PLAYERS" --rate "$RATE" --seconds "$seconds" \
      --port "$TARGET_PORT" --server-pid "$TARGET_PID" --label "$side" --quiet ${extra[@]+"${extra[@]}"} || true)
    threads=$(threads_of)
    inside=$(stop_target "$side")
    { echo "run $run, $side:"; cat "$WORK/trace"; } >>"$OUT/traces.txt"
    echo "{\"run\":${run/w/0},\"warmup\":$([ "$run" = w ] && echo true || echo false),\"side\":\"$side\",\"pinned\":$PIN,\"inside\":\"$inside\",\"threads\":\"$threads\",\"load\":$line}" >>"$OUT/tail.jsonl"
    echo "  run $run, $side: threads (wake-ups/preemptions/ready-but-waiting) $threads" >&2
    echo "$run $side $line" >>"$OUT/.lines"
    echo "$run|$side|$inside" >>"$OUT/.inside"
  done
done

echo
echo "| run | side | CPU % | relay p50 ms | p99 | p99.9 | inside p50 us | p99 | p99.9 | generator send lag p99 / max ms | steal % | errors | kept |"
echo "|---|---|---|---|---|---|---|---|---|---|---|---|---|"
paste -d'|' "$OUT/.lines" "$OUT/.inside" | while IFS='|' read -r first run2 side2 inside; do
  run=${first%% *}; rest=${first#* }; side=${rest%% *}; line=${rest#* }
  lag=$(jget send_lag_p99_ms "$line")
  kept=yes
  if [ "$run" = w ]; then kept="no: warm-up"
  elif [ "$(jget setup_ok "$line")" != true ]; then kept="no: set-up failed"
  elif [ "$IDLE" = 0 ] && awk -v l="$lag" -v m="$LAG_MS" 'BEGIN { exit !(l + 0 > m + 0) }'; then kept="no: generator behind"; fi
  echo "| $run | $side | $(jget server_cpu_pct "$line") | $(jget relay_p50_ms "$line") | $(jget relay_p99_ms "$line") | $(jget relay_p999_ms "$line") | $(iget p50 "$inside") | $(iget p99 "$inside") | $(iget p99.9 "$inside") | $lag / $(jget send_lag_max_ms "$line") | $(jget steal_pct "$line") | $(jget errors "$line") | $kept |"
  echo "$side $kept $(jget server_cpu_pct "$line") $(jget relay_p50_ms "$line") $(jget relay_p99_ms "$line") $(jget relay_p999_ms "$line") $(iget p50 "$inside") $(iget p99 "$inside") $(iget p99.9 "$inside")" >>"$OUT/.kept"
done
echo
median() { sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print "n/a"; else if (NR % 2) print v[(NR + 1) / 2]; else printf "%g\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
echo "| medians of kept runs | runs | CPU % | relay p50 ms | p99 | p99.9 | inside p50 us | p99 | p99.9 |"
echo "|---|---|---|---|---|---|---|---|---|"
for side in $SIDES; do
  rows=$(awk -v s="$side" '$1 == s && $2 == "yes"' "$OUT/.kept")
  n=$(grep -c . <<<"$rows" || true)
  cols=""
  for c in 3 4 5 6 7 8 9; do cols="$cols | $(awk -v c="$c" '{ print $c }' <<<"$rows" | grep . | median)"; done
  echo "| $side | $n$cols |"
done
rm -f "$OUT/.lines" "$OUT/.inside" "$OUT/.kept"
echo >&2
echo "JSON lines of every run: $OUT/tail.jsonl" >&2
