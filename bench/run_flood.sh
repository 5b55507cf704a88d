#!/usr/bin/env bash
# The server's honest matches with and without three flooding clients, on
# 127.0.0.1 only. Each run starts a fresh server with the default limits
# (except the limits per address: every client here shares 127.0.0.1), plays
# ROOMS x 8 x 20 for SECONDS with the loadbot, and in a "flood" run at the
# same time:
#   - a client that floods orders at a hundred times a player's rate,
#   - a client that floods room-list requests,
#   - a client that sends 1 MiB feedback reports as fast as it may.
# Runs alternate quiet / flood, REPEAT times. Per run: relay p50/p99/p99.9,
# lost relays, the server's CPU (% of a core), how busy the whole machine
# was and its steal time (both %), the server's peak RSS, and the log's
# growth per minute.
#
#   bench/run_flood.sh [--build DIR] [--rooms 127] [--seconds 10] [--repeat 3]
#                      [--attackers "orders lobby reports"] [--flood-rate R]
#                      [--limits "name = value; name = value"] [--json FILE]
#
# --flood-rate sets every flooder's rate (0: each mode's default); --limits
# adds lines to the server's limits file, e.g. to let a report flood through
# and measure what writing it costs. --json appends every run's loadbot line
# to FILE. A run whose loadbot reports errors (relays lost) still prints its
# line.

set -euo pipefail

BUILD=build
ROOMS=127
SECONDS_PER_RUN=10
REPEAT=3
ATTACKERS="orders lobby reports"
FLOOD_RATE=0
EXTRA_LIMITS=""
JSON_OUT=""
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD=$2; shift 2 ;;
    --rooms) ROOMS=$2; shift 2 ;;
    --seconds) SECONDS_PER_RUN=$2; shift 2 ;;
    --repeat) REPEAT=$2; shift 2 ;;
    --attackers) ATTACKERS=$2; shift 2 ;;
    --flood-rate) FLOOD_RATE=$2; shift 2 ;;
    --limits) EXTRA_LIMITS=$2; shift 2 ;;
    --json) JSON_OUT=$2; shift 2 ;;
    -h|--help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
    *) echo "run_flood.sh: unknown option $1" >&2; exit 2 ;;
  esac
done

SERVER_BIN=$(realpath "$BUILD/lockstep-server")
LOADBOT_BIN=$(realpath "$BUILD/loadbot")
FLOOD_BIN=$(realpath "$BUILD/flood")
WORK=$(mktemp -d /tmp/lockstep-flood.XXXXXX)
SERVER_PID=""
cleanup() {
  [ -z "$SERVER_PID" ] || kill -KILL "$SERVER_PID" 2>/dev/null || true
  rm -rf "$WORK"
}
trap cleanup EXIT

jget() { sed -n "s/.*\"$1\":\([^,}]*\).*/\1/p" <<<"$2"; }

run_one() {
  local kind=$1
  rm -rf "$WORK/root"
  mkdir -p "$WORK/root/settings" "$WORK/root/server_data"
  printf '\nflood benchmark\n0\n' > "$WORK/root/settings/server.config"
  printf 'max_peers_per_address = 0\nconnects_per_address_per_minute = 0\n' > "$WORK/root/settings/limits.conf"
  tr ';' '\n' <<<"$EXTRA_LIMITS" >> "$WORK/root/settings/limits.conf"
  "$SERVER_BIN" --data-root "$WORK/root" </dev/null >/dev/null 2>&1 &
  SERVER_PID=$!
  local port=""
  for _ in $(seq 100); do
    port=$(sed -n 's/.*Enet server created at [0-9]*:\([0-9]*\).*/\1/p' "$WORK/root/server.log" 2>/dev/null | head -1 || true)
    [ -n "$port" ] && break
    sleep 0.05
  done
  [ -n "$port" ] || { echo "run_flood.sh: the server did not start" >&2; exit 1; }
  local log0 flooders=()
  log0=$(stat -c %s "$WORK/root/server.log")
  if [ "$kind" = flood ]; then
    # The loadbot takes a moment to seat its players; the flood covers it.
    local s=$((SECONDS_PER_RUN + 3))
    for mode in $ATTACKERS; do
      "$FLOOD_BIN" --port "$port" --mode "$mode" --rate "$FLOOD_RATE" --seconds "$s" >"$WORK/flood-$mode.out" 2>&1 &
      flooders+=($!)
    done
  fi
  local line
  line=$("$LOADBOT_BIN" --rooms "$ROOMS" --players 8 --rate 20 --seconds "$SECONDS_PER_RUN" --port "$port" \
           --server-pid "$SERVER_PID" --label "$kind" -q || true)
  [ -z "$JSON_OUT" ] || echo "$line" >>"$JSON_OUT"
  for pid in "${flooders[@]}"; do wait "$pid" || true; done
  local log1
  log1=$(stat -c %s "$WORK/root/server.log")
  kill -INT "$SERVER_PID"; wait "$SERVER_PID" 2>/dev/null || true; SERVER_PID=""
  printf '%-6s p50 %6s  p99 %7s  p99.9 %7s  lost %s  server CPU %6s %%  machine busy %6s %%  steal %5s %%  peak RSS %6s KiB  log +%s bytes/min' "$kind" \
    "$(jget relay_p50_ms "$line")" "$(jget relay_p99_ms "$line")" "$(jget relay_p999_ms "$line")" \
    "$(jget relays_lost "$line")" "$(jget server_cpu_pct "$line")" "$(jget machine_busy_pct "$line")" \
    "$(jget steal_pct "$line")" "$(jget server_peak_rss_kib "$line")" \
    "$(( (log1 - log0) * 60 / (SECONDS_PER_RUN + 3) ))"
  printf '  reports written %s' "$(find "$WORK/root/server_data" -name '*.txt' -path '*feedback*' | wc -l)"
  if [ "$kind" = flood ]; then
    for mode in $ATTACKERS; do printf '  [%s]' "$(sed -n 's/^flood: //p' "$WORK/flood-$mode.out")"; done
  fi
  printf '\n'
}

echo "Flood benchmark: $ROOMS rooms x 8 players x 20 steps/s, $SECONDS_PER_RUN s per run, repeat $REPEAT"
for _ in $(seq "$REPEAT"); do
  run_one quiet
  run_one flood
done
