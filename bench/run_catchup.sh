#!/usr/bin/env bash
# Rejoin into a long match: how long a catch-up takes, what the server holds
# for it, and what it costs the other players. On 127.0.0.1 only; the server
# is pinned to one core and the clients to the other (taskset). Every run is
# bounded in time and its JSON lines are kept.
#
#   bench/run_catchup.sh [--build DIR] [--steps 36000] [--players 8]
#                        [--repeat 3] [--rejoins 3] [--rooms 64]
#                        [--seconds 20] [--server-core 0] [--client-core 1]
#                        [--no-times] [--no-relay] [--out DIR]
#                        [--relay-limit "NAME = VALUE"]... [--relay-catchup-args ARGS]
#
# Times (--no-times leaves them out): --repeat runs, each against a fresh
# server with --rejoin: build/catchup plays --steps steps of a room of
# --players as fast as the server completes them (36,000: a 30-minute match
# at 20 steps a second), then its last player drops and rejoins --rejoins
# times, one after the other, each time timed from the Rejoin to the
# CatchUpDone. Between the fast play and the first drop the server's peak
# resident size is reset; its peak at the end is what the catch-ups took on
# top. Memory: --repeat runs each of one catch-up taken by a slow reader
# (served every 20 ms, so that the stream waits on ENet's queue for the
# receiver) and of the same match with no drop, played as long; and one
# slow catch-up with catchup_queue_bytes at 64 MiB, which shows that the
# measure sees what ENet holds.
#
# Relay (--no-relay leaves it out): --repeat runs per side, the sides
# alternating in one batch. A fresh server, the long match prepared as
# above, then build/loadbot plays --rooms rooms of 8 players at 20 steps a
# second for --seconds while the match's last player drops and rejoins over
# and over (side "catchup") or plays on (side "none"). After the fast play
# build/catchup runs at nice 19 on the clients' core, so that its reading of
# the streams takes only the time the loadbot leaves. Prints every run and
# the medians per side. --relay-limit adds a line to the server's limits
# file for these runs (again for more lines), --relay-catchup-args passes
# options to build/catchup (such as --slow-reader 20).

set -euo pipefail

BUILD=build
STEPS=36000
PLAYERS=8
REPEAT=3
REJOINS=3
ROOMS=64
SECONDS_PER_LOAD=20
SERVER_CORE=0
CLIENT_CORE=1
TIMES=1
RELAY=1
OUT=""
RELAY_LIMITS=()
RELAY_TOOL_ARGS=""

while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD=$2; shift 2 ;;
    --steps) STEPS=$2; shift 2 ;;
    --players) PLAYERS=$2; shift 2 ;;
    --repeat) REPEAT=$2; shift 2 ;;
    --rejoins) REJOINS=$2; shift 2 ;;
    --rooms) ROOMS=$2; shift 2 ;;
    --seconds) SECONDS_PER_LOAD=$2; shift 2 ;;
    --server-core) SERVER_CORE=$2; shift 2 ;;
    --client-core) CLIENT_CORE=$2; shift 2 ;;
    --no-times) TIMES=0; shift ;;
    --no-relay) RELAY=0; shift ;;
    --out) OUT=$2; shift 2 ;;
    --relay-limit) RELAY_LIMITS+=("$2"); shift 2 ;;
    --relay-catchup-args) RELAY_TOOL_ARGS=$2; shift 2 ;;
    -h|--help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
    *) echo "run_catchup.sh: unknown option $1" >&2; exit 2 ;;
  esac
done

SERVER_BIN=$BUILD/lockstep-server
LOADBOT_BIN=$BUILD/loadbot
CATCHUP_BIN=$BUILD/catchup
for bin in "$SERVER_BIN" "$LOADBOT_BIN" "$CATCHUP_BIN"; do
  [ -x "$bin" ] || { echo "run_catchup.sh: $bin is missing (build first)" >&2; exit 2; }
done
SERVER_BIN=$(realpath "$SERVER_BIN"); LOADBOT_BIN=$(realpath "$LOADBOT_BIN"); CATCHUP_BIN=$(realpath "$CATCHUP_BIN")

WORK=$(mktemp -d /tmp/lockstep-catchup.XXXXXX)
[ -n "$OUT" ] || OUT=$WORK/results
mkdir -p "$OUT"
SERVER_PID=""
CATCHUP_PID=""
cleanup() {
  for pid in "$CATCHUP_PID" "$SERVER_PID"; do
    if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
      kill -INT "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
  rm -rf "$WORK/root"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# A fresh server on the server's core; sets SERVER_PID and SERVER_PORT.
# Further arguments are lines for the limits file.
start_server() {
  rm -rf "$WORK/root"
  mkdir -p "$WORK/root/settings" "$WORK/root/server_data/update_data" "$WORK/root/server_data/announcements"
  printf '\nbenchmark\n0\n' >"$WORK/root/settings/server.config"
  # Every client connects from 127.0.0.1, far past what one real address
  # may hold, send or create (64 rooms); the fast play sends some 5,000
  # orders a second per player, past a player's order budget.
  {
    printf 'max_peers_per_address = 0\nconnects_per_address_per_minute = 0\naddress_budget_multiple = 0\n'
    printf 'orders_per_second = 1000000\norders_burst = 10000000\nrooms_per_address_per_minute = 0\n'
    for line in "$@"; do printf '%s\n' "$line"; done
  } >"$WORK/root/settings/limits.conf"
  taskset -c "$SERVER_CORE" "$SERVER_BIN" --data-root "$WORK/root" --rejoin 600 </dev/null >/dev/null 2>&1 &
  SERVER_PID=$!
  SERVER_PORT=""
  for _ in $(seq 100); do
    SERVER_PORT=$(sed -n 's/.*Enet server created at [0-9]*:\([0-9]*\).*/\1/p' "$WORK/root/server.log" 2>/dev/null | head -1 || true)
    [ -n "$SERVER_PORT" ] && break
    sleep 0.05
  done
  [ -n "$SERVER_PORT" ] || { echo "run_catchup.sh: the server did not start" >&2; exit 1; }
}

stop_server() {
  kill -INT "$SERVER_PID" 2>/dev/null || true
  for _ in $(seq 100); do kill -0 "$SERVER_PID" 2>/dev/null || break; sleep 0.05; done
  kill -KILL "$SERVER_PID" 2>/dev/null || true
  wait "$SERVER_PID" 2>/dev/null || true
  SERVER_PID=""
}

# A number (or string) from a flat JSON line.
jget() { sed -n "s/.*\"$1\":\"\{0,1\}\([^,}\"]*\).*/\1/p" <<<"$2"; }
load1() { cut -d' ' -f1 /proc/loadavg; }
median() { sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print "n/a"; else if (NR % 2) print v[(NR + 1) / 2]; else printf "%.3f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

echo "Catch-up benchmark: a match of $PLAYERS players, $STEPS steps played fast; server on core $SERVER_CORE, clients on core $CLIENT_CORE" >&2
echo "Machine: $(nproc) cores, $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -1), kernel $(uname -r)" >&2

# One build/catchup run against a fresh server, alone on the clients' core.
# Arguments: label, rejoins, seconds of real-time play (0: until the
# rejoins are done), then options for build/catchup, then -- and lines for
# the limits file.
catchup_alone() {
  local label=$1 rejoins=$2 hold=$3
  shift 3
  local tool=() limits=()
  while [ $# -gt 0 ] && [ "$1" != -- ]; do tool+=("$1"); shift; done
  [ $# -gt 0 ] && shift
  limits=("$@")
  start_server ${limits[@]+"${limits[@]}"}
  local before
  before=$(load1)
  timeout --signal=INT --kill-after=10 600 taskset -c "$CLIENT_CORE" "$CATCHUP_BIN" --port "$SERVER_PORT" \
    --players "$PLAYERS" --steps "$STEPS" --rejoins "$rejoins" --hold "$hold" --server-pid "$SERVER_PID" \
    --label "$label" --quiet ${tool[@]+"${tool[@]}"} 2>/dev/null | sed "s/}\$/,\"load1_before\":$before}/" || true
  grep -h "Stream of room" "$WORK/root/server.log" >>"$OUT/server-streams.log" || true
  stop_server
}

if [ "$TIMES" = 1 ]; then
  for rep in $(seq "$REPEAT"); do
    echo "  times: run $rep, $REJOINS catch-ups ..." >&2
    catchup_alone catchup "$REJOINS" 0 >>"$OUT/times.jsonl"
  done
  for rep in $(seq "$REPEAT"); do
    echo "  memory: run $rep, one catch-up read slowly ..." >&2
    catchup_alone slow-reader 1 0 --slow-reader 20 >>"$OUT/memory.jsonl"
    echo "  memory: run $rep, none ..." >&2
    # As long in real time as the slow catch-up's run.
    catchup_alone none 0 14 >>"$OUT/memory.jsonl"
  done
  echo "  memory: one catch-up read slowly, catchup_queue_bytes = 64 MiB ..." >&2
  catchup_alone slow-reader-queue-64MiB 1 0 --slow-reader 20 -- "catchup_queue_bytes = 67108864" >>"$OUT/memory.jsonl"
fi

if [ "$RELAY" = 1 ]; then
  for rep in $(seq "$REPEAT"); do
    for side in catchup none; do
      echo "  relay: ${ROOMS}x8x20 beside the prepared match, $side, run $rep ..." >&2
      start_server ${RELAY_LIMITS[@]+"${RELAY_LIMITS[@]}"}
      rejoins=0
      [ "$side" = catchup ] && rejoins=1000000
      before=$(load1)
      # The long match, then (catchup) drops and rejoins half a second apart
      # until it is told to stop. The files of the run before go first, so
      # that their "prepared" is not taken for this run's.
      rm -f "$WORK/catchup.out" "$WORK/catchup.err"
      taskset -c "$CLIENT_CORE" "$CATCHUP_BIN" --port "$SERVER_PORT" --players "$PLAYERS" --steps "$STEPS" \
        --rejoins "$rejoins" --rejoin-after 1 --between 0.5 --hold 3600 --label "$side" --quiet $RELAY_TOOL_ARGS \
        >"$WORK/catchup.out" 2>"$WORK/catchup.err" &
      CATCHUP_PID=$!
      for _ in $(seq 3000); do grep -q "^catchup: prepared" "$WORK/catchup.err" 2>/dev/null && break; sleep 0.1; done
      grep -q "^catchup: prepared" "$WORK/catchup.err" || { echo "run_catchup.sh: the match was not prepared" >&2; cat "$WORK/catchup.err" >&2; exit 1; }
      # The fast play at the usual priority, the streams' reading at the
      # lowest: the loadbot's timing comes first on the shared core.
      renice -n 19 -p "$CATCHUP_PID" >/dev/null
      line=$(timeout --signal=INT --kill-after=10 $((SECONDS_PER_LOAD + 90)) taskset -c "$CLIENT_CORE" "$LOADBOT_BIN" \
        --rooms "$ROOMS" --players 8 --rate 20 --seconds "$SECONDS_PER_LOAD" --port "$SERVER_PORT" \
        --server-pid "$SERVER_PID" --label "$side" --quiet || true)
      kill -INT "$CATCHUP_PID" 2>/dev/null || true
      wait "$CATCHUP_PID" 2>/dev/null || true
      CATCHUP_PID=""
      echo "$line" | sed "s/}\$/,\"run\":$rep,\"load1_before\":$before}/" >>"$OUT/relay-$side.jsonl"
      sed "s/}\$/,\"run\":$rep}/" "$WORK/catchup.out" >>"$OUT/relay-catchup-tool.jsonl"
      stop_server
    done
  done
fi

echo
if [ "$TIMES" = 1 ]; then
  echo "| run | catch-ups | stream MB | records | catch-up ms min / median / max | MiB/s | client parse CPU ms | server RSS before KiB | peak after KiB | peak - before KiB | errors | load before |"
  echo "|---|---|---|---|---|---|---|---|---|---|---|---|"
  while read -r l; do
    before=$(jget server_rss_before_kib "$l"); peak=$(jget server_peak_during_kib "$l")
    echo "| $(jget label "$l") | $(jget catchups_done "$l") | $(awk -v b="$(jget stream_bytes "$l")" 'BEGIN { printf "%.1f", b / 1e6 }') | $(jget stream_records "$l") | $(jget catchup_ms_min "$l") / $(jget catchup_ms_median "$l") / $(jget catchup_ms_max "$l") | $(jget stream_mib_s_median "$l") | $(jget parse_cpu_ms_median "$l") | $before | $peak | $(awk -v a="$peak" -v b="$before" 'BEGIN { print a - b }') | $(jget errors "$l") | $(jget load1_before "$l") |"
  done < <(cat "$OUT/times.jsonl" "$OUT/memory.jsonl")
  echo
fi
if [ "$RELAY" = 1 ]; then
  echo "| side | run | relay p50 ms | p99 | p99.9 | max | step p99 ms | server CPU % | peak RSS MiB | errors | catch-ups done | catch-up ms median | steal % | machine busy % | loadbot CPU % | load before |"
  echo "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|"
  for side in catchup none; do
    rep=0
    while read -r l; do
      rep=$((rep + 1))
      # The tool's lines alternate catchup, none per run.
      t=$(grep "\"label\":\"$side\"" "$OUT/relay-catchup-tool.jsonl" | sed -n "${rep}p")
      echo "| $side | $rep | $(jget relay_p50_ms "$l") | $(jget relay_p99_ms "$l") | $(jget relay_p999_ms "$l") | $(jget relay_max_ms "$l") | $(jget step_p99_ms "$l") | $(jget server_cpu_pct "$l") | $(awk -v k="$(jget server_peak_rss_kib "$l")" 'BEGIN { printf "%.1f", k / 1024 }') | $(jget errors "$l") | $(jget catchups_done "$t") | $(jget catchup_ms_median "$t") | $(jget steal_pct "$l") | $(jget machine_busy_pct "$l") | $(jget loadbot_cpu_pct "$l") | $(jget load1_before "$l") |"
    done <"$OUT/relay-$side.jsonl"
  done
  echo
  for side in catchup none; do
    p99=$(while read -r l; do jget relay_p99_ms "$l"; done <"$OUT/relay-$side.jsonl" | median)
    p50=$(while read -r l; do jget relay_p50_ms "$l"; done <"$OUT/relay-$side.jsonl" | median)
    echo "$side: median relay p50 $p50 ms, median relay p99 $p99 ms"
    eval "P99_$side=$p99"
  done
  awk -v a="$P99_catchup" -v b="$P99_none" 'BEGIN { printf "median p99 with catch-ups - without: %+.3f ms\n", a - b }'
fi
echo
echo "JSON lines of every run: $OUT" >&2
