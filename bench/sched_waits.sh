#!/usr/bin/env bash
# Which tasks ran while a process's main thread (the server's loop, or the
# bare relay) was ready to run but waiting for a core. Records the
# scheduler's switches of the whole machine for SECONDS with perf, then, for
# every switch-in of the thread that came at least THRESHOLD_MS after it
# became ready, sums per task the time that task ran on the same core in the
# meantime. Also prints the thread's scheduling delays at p50 / p99 / p99.9.
#
#   bench/sched_waits.sh PID [SECONDS=4] [THRESHOLD_MS=0.2]
#
# Needs perf (Debian: linux-perf) and root. Run it during a load, e.g. in
# the middle of a bench/run_tail.sh run (its server's PID is in the
# process list as lockstep-server).

set -euo pipefail
PID=${1:?usage: sched_waits.sh PID [SECONDS] [THRESHOLD_MS]}
SECONDS_TO_RECORD=${2:-4}
THRESHOLD_MS=${3:-0.2}
WORK=$(mktemp -d /tmp/lockstep-sched.XXXXXX)
trap 'rm -rf "$WORK"' EXIT

perf sched record -a -o "$WORK/sched.data" -- sleep "$SECONDS_TO_RECORD" >/dev/null 2>&1
perf sched timehist -i "$WORK/sched.data" 2>/dev/null >"$WORK/timehist.txt"

# A line: time [cpu] name[tid] wait delay run, the times of the last three in
# ms; a line is written when its task leaves the core, so the task ran in
# (time - run, time] and was ready but waiting in (time - run - delay,
# time - run].
awk -v pid="$PID" -v threshold="$THRESHOLD_MS" -v sorted="$WORK/delays" '
$2 ~ /^\[[0-9]+\]$/ {
  n = NF
  if (n < 6) next
  task = $3; for (i = 4; i <= n - 3; i++) task = task " " $i
  tid = task; sub(/.*\[/, "", tid); sub(/[\/\]].*/, "", tid)
  rows++
  t[rows] = $1; cpu[rows] = $2; name[rows] = task; delay[rows] = $(n - 1); run[rows] = $n
  if (tid == pid) { loops++; loopRow[loops] = rows; delays[loops] = $(n - 1) }
}
END {
  if (loops == 0) { print "sched_waits: no switch-in of thread " pid " was recorded"; exit 1 }
  # Plain awk has no sort: the delays go through sort(1) and come back.
  for (k = 1; k <= loops; k++) print delays[k] | ("sort -g > " sorted)
  close("sort -g > " sorted)
  k = 0
  while ((getline line < sorted) > 0) delays[++k] = line + 0
  printf "thread %s: %d switch-ins, scheduling delay p50 %.3f ms, p99 %.3f ms, p99.9 %.3f ms, max %.3f ms\n",
         pid, loops, delays[int(loops * 0.5) + 1], delays[int(loops * 0.99) + 1], delays[int(loops * 0.999) + 1], delays[loops]
  waits = 0; total = 0
  for (k = 1; k <= loops; k++) {
    r = loopRow[k]
    if (delay[r] + 0 < threshold + 0) continue
    waits++; total += delay[r]
    to = t[r] - run[r] / 1000; from = to - delay[r] / 1000
    for (o = 1; o <= rows; o++) {
      if (o == r || cpu[o] != cpu[r]) continue
      s = t[o] - run[o] / 1000; e = t[o]
      lo = (s > from ? s : from); hi = (e < to ? e : to)
      if (hi > lo) ran[name[o]] += (hi - lo) * 1000
    }
  }
  printf "waits of %s ms or more: %d, %.2f ms in all; what ran on its core meanwhile, ms:\n", threshold, waits, total
  for (task in ran) printf "  %10.2f  %s\n", ran[task], task | "sort -rn | head -15"
}' "$WORK/timehist.txt"
