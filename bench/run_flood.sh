#!/usr/bin/env bash
# The server's honest matches with and without flooding clients, on
# 127.0.0.0/8 only. Each run starts a fresh server with the default limits
# (except the limits per address: the loadbot's clients all share
# 127.0.0.1), plays ROOMS x 8 x 20 for SECONDS with the loadbot, and in a
# "flood" run at the same time one build/flood per attacker (by default):
#   - a client that floods orders at a hundred times a player's rate,
#   - a client that floods room-list requests,
#   - a client that sends 1 MiB feedback reports as fast as it may.
# Runs alternate quiet / flood, REPEAT times. Per run: relay p50/p99/p99.9,
# lost relays, the server's CPU (% of a core), how busy the whole machine
# was and its steal time (both %), the server's peak RSS, and the log's
# growth per minute.
#
#   bench/run_flood.sh [--build DIR] [--server BIN] [--rooms 127] [--seconds 10]
#                      [--repeat 3] [--kinds "quiet flood"] [--rounds 1]
#                      [--attackers "orders lobby reports"] [--flood-rate R]
#                      [--flood-args "..."] [--loadbot-args "..."]
#                      [--limits "name = value; name = value"]
#                      [--update-file NAME:BYTES]... [--announcements COUNT:BYTES]
#                      [--server-cpu N] [--load-cpu N] [--json FILE]
#
# --attackers takes any modes of build/flood (orders, lobby, reports, chat,
# churn, update-check, silent-download, vanish-download, updater); MODE@ADDR
# binds that flooder to ADDR (e.g. 127.0.0.2, a second address). Their
# lines are printed after the run's. --flood-rate sets every flooder's rate
# (0: each mode's default); --flood-args is added to every flooder's command
# (e.g. "--file big.bin --peers 16"). --limits adds lines to the server's
# limits file, e.g. to let a report flood through and measure what writing
# it costs. --server runs another server binary than DIR/lockstep-server
# (e.g. an older commit's, for a before/after; a server that does not know
# a limit's name logs it and goes on). --kinds "flood" leaves out the quiet
# runs. --rounds N runs the loadbot N times in a row against the same server
# (the flooders cover all of them), one line per round. --update-file
# writes a file of BYTES bytes into the server's update_data (repeatable),
# --announcements COUNT files of BYTES bytes into its announcements.
# --server-cpu and --load-cpu pin the server and the load (loadbot and
# flooders) to those cores with taskset. --json appends every run's loadbot
# line to FILE. A run whose loadbot reports errors (relays lost) still
# prints its line.

set -euo pipefail

BUILD=build
ROOMS=127
SECONDS_PER_RUN=10
REPEAT=3
ATTACKERS="orders lobby reports"
FLOOD_RATE=0
EXTRA_LIMITS=""
JSON_OUT=""
SERVER_OPT=""
KINDS="quiet flood"
ROUNDS=1
FLOOD_ARGS=""
LOADBOT_ARGS=""
UPDATE_FILES=()
ANNOUNCEMENTS=""
SERVER_CPU=""
LOAD_CPU=""
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
    --server) SERVER_OPT=$2; shift 2 ;;
    --kinds) KINDS=$2; shift 2 ;;
    --rounds) ROUNDS=$2; shift 2 ;;
    --flood-args) FLOOD_ARGS=$2; shift 2 ;;
    --loadbot-args) LOADBOT_ARGS=$2; shift 2 ;;
    --update-file) UPDATE_FILES+=("$2"); shift 2 ;;
    --announcements) ANNOUNCEMENTS=$2; shift 2 ;;
    --server-cpu) SERVER_CPU=$2; shift 2 ;;
    --load-cpu) LOAD_CPU=$2; shift 2 ;;
    -h|--help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
    *) echo "run_flood.sh: unknown option $1" >&2; exit 2 ;;
  esac
done

SERVER_BIN=$(realpath "${SERVER_OPT:-$BUILD/lockstep-server}")
LOADBOT_BIN=$(realpath "$BUILD/loadbot")
FLOOD_BIN=$(realpath "$BUILD/flood")
WORK=$(mktemp -d /tmp/lockstep-flood.XXXXXX)
SERVER_PID=""
cleanup() {
  [ -z "$SERVER_PID" ] || kill -KILL "$SERVER_PID" 2>/dev/null || true
  rm -rf "$WORK"
}
trap cleanup EXIT

# taskset execs the program, so $! is still the server's PID.
ON_SERVER_CPU=(); [ -z "$SERVER_CPU" ] || ON_SERVER_CPU=(taskset -c "$SERVER_CPU")
ON_LOAD_CPU=(); [ -z "$LOAD_CPU" ] || ON_LOAD_CPU=(taskset -c "$LOAD_CPU")

# The update files and announcements, made once and copied into each root.
mkdir -p "$WORK/files/update_data" "$WORK/files/announcements"
for file in "${UPDATE_FILES[@]}"; do
  head -c "${file##*:}" /dev/urandom >"$WORK/files/update_data/${file%:*}"
done
if [ -n "$ANNOUNCEMENTS" ]; then
  for i in $(seq "${ANNOUNCEMENTS%:*}"); do
    head -c "${ANNOUNCEMENTS##*:}" /dev/zero | tr '\0' a >"$WORK/files/announcements/news$i.txt"
  done
fi

jget() { sed -n "s/.*\"$1\":\([^,}]*\).*/\1/p" <<<"$2"; }

run_one() {
  local kind=$1
  rm -rf "$WORK/root"
  mkdir -p "$WORK/root/settings" "$WORK/root/server_data"
  cp -r "$WORK/files/update_data" "$WORK/files/announcements" "$WORK/root/server_data/"
  printf '\nflood benchmark\n0\n' > "$WORK/root/settings/server.config"
  printf 'max_peers_per_address = 0\nconnects_per_address_per_minute = 0\n' > "$WORK/root/settings/limits.conf"
  tr ';' '\n' <<<"$EXTRA_LIMITS" >> "$WORK/root/settings/limits.conf"
  "${ON_SERVER_CPU[@]}" "$SERVER_BIN" --data-root "$WORK/root" </dev/null >/dev/null 2>&1 &
  SERVER_PID=$!
  local port=""
  for _ in $(seq 100); do
    port=$(sed -n 's/.*Enet server created at [0-9]*:\([0-9]*\).*/\1/p' "$WORK/root/server.log" 2>/dev/null | head -1 || true)
    [ -n "$port" ] && break
    sleep 0.05
  done
  [ -n "$port" ] || { echo "run_flood.sh: the server did not start" >&2; exit 1; }
  local log0 t0 flooders=() i=0
  log0=$(stat -c %s "$WORK/root/server.log")
  t0=$(date +%s.%N)
  if [ "$kind" = flood ]; then
    # The loadbot takes a moment to seat its players; the flood covers it.
    local s=$(( (SECONDS_PER_RUN + 3) * ROUNDS ))
    for attacker in $ATTACKERS; do
      local mode=${attacker%@*} bind=127.0.0.1
      [ "$mode" = "$attacker" ] || bind=${attacker#*@}
      # shellcheck disable=SC2086
      "${ON_LOAD_CPU[@]}" "$FLOOD_BIN" --port "$port" --mode "$mode" --bind "$bind" --rate "$FLOOD_RATE" --seconds "$s" \
        $FLOOD_ARGS >"$WORK/flood-$i.out" 2>&1 &
      flooders+=($!)
      i=$((i + 1))
    done
  fi
  local round line
  for round in $(seq "$ROUNDS"); do
    # shellcheck disable=SC2086
    line=$("${ON_LOAD_CPU[@]}" "$LOADBOT_BIN" --rooms "$ROOMS" --players 8 --rate 20 --seconds "$SECONDS_PER_RUN" \
             --port "$port" --server-pid "$SERVER_PID" --label "$kind" -q $LOADBOT_ARGS || true)
    [ -z "$JSON_OUT" ] || echo "$line" >>"$JSON_OUT"
    [ "$ROUNDS" = 1 ] || printf 'round %s ' "$round"
    printf '%-6s p50 %6s  p99 %7s  p99.9 %7s  lost %s  server CPU %6s %%  machine busy %6s %%  steal %5s %%  peak RSS %6s KiB' "$kind" \
      "$(jget relay_p50_ms "$line")" "$(jget relay_p99_ms "$line")" "$(jget relay_p999_ms "$line")" \
      "$(jget relays_lost "$line")" "$(jget server_cpu_pct "$line")" "$(jget machine_busy_pct "$line")" \
      "$(jget steal_pct "$line")" "$(jget server_peak_rss_kib "$line")"
    if [[ "$LOADBOT_ARGS" == *downloaders* ]]; then
      printf '  files %s (%s MiB/s, %s failed)' "$(jget downloads "$line")" "$(jget download_mib_s "$line")" \
        "$(jget failed_downloads "$line")"
    fi
    printf '  errors %s\n' "$(jget errors "$line")"
  done
  for pid in "${flooders[@]}"; do wait "$pid" || true; done
  local log1 t1
  log1=$(stat -c %s "$WORK/root/server.log")
  t1=$(date +%s.%N)
  kill -INT "$SERVER_PID"; wait "$SERVER_PID" 2>/dev/null || true; SERVER_PID=""
  printf '  log +%s bytes/min  reports written %s  rooms created %s (most at once %s)\n' \
    "$(awk -v b=$((log1 - log0)) -v a="$t0" -v z="$t1" 'BEGIN { printf "%d", b * 60 / (z - a) }')" \
    "$(find "$WORK/root/server_data" -name '*.txt' -path '*feedback*' | wc -l)" \
    "$(grep -c '\. Total rooms: ' "$WORK/root/server.log" || true)" \
    "$(sed -n 's/.*\. Total rooms: \([0-9]*\).*/\1/p' "$WORK/root/server.log" | sort -n | tail -1)"
  if [ "$kind" = flood ]; then
    i=0
    for attacker in $ATTACKERS; do
      printf '  [%s] %s\n' "$attacker" "$(sed -n 's/^flood: //p' "$WORK/flood-$i.out" | head -1)$(grep -v '^flood: ' "$WORK/flood-$i.out" | head -1)"
      i=$((i + 1))
    done
  fi
}

echo "Flood benchmark: $ROOMS rooms x 8 players x 20 steps/s, $SECONDS_PER_RUN s per run, repeat $REPEAT"
for _ in $(seq "$REPEAT"); do
  for kind in $KINDS; do run_one "$kind"; done
done
