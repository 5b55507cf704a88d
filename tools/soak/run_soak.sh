#!/usr/bin/env bash
# The churn soak against the sanitizer build of the server.
#   run_soak.sh BUILD_DIR SECONDS PEERS
# BUILD_DIR holds lockstep-server and soak. The server runs in a scratch data
# root on a free port of 127.0.0.1 and is stopped with SIGINT at the end.
# Passes only when the soak passes, the server exits 0 and nothing in the
# server's output is a sanitizer report. The scratch root is kept on failure
# (and with SOAK_KEEP=1) for its server.log and the server's output.
set -u

build=${1:?build directory}
seconds=${2:-600}
peers=${3:-1024}
server_bin=$build/lockstep-server
soak_bin=$build/soak
for bin in "$server_bin" "$soak_bin"; do
  [ -x "$bin" ] || { echo "run_soak: $bin is missing" >&2; exit 2; }
done

root=$(mktemp -d /tmp/lockstep-soak-XXXXXX)
port=$(python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
mkdir -p "$root/settings"
printf '%s\nsoak\n1\n' "$port" > "$root/settings/server.config"
# All the churn comes from 127.0.0.1, far past what one real address may
# hold; every junk packet is to be logged.
printf 'max_peers_per_address = 0\nconnects_per_address_per_minute = 0\nmalformed_lines_per_peer = 0\n' > "$root/settings/limits.conf"

# Leaks are looked for when the server exits. The quarantine of freed memory
# is capped so that a flat server also looks flat in its resident size: with
# the default cap the quarantine alone grows for minutes.
export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:quarantine_size_mb=32
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
"$server_bin" --data-root "$root" < /dev/null > "$root/server.stdout" 2> "$root/server.stderr" &
server_pid=$!

for _ in $(seq 1 200); do
  grep -q "Enet server created at " "$root/server.log" 2>/dev/null && break
  kill -0 "$server_pid" 2>/dev/null || break
  sleep 0.05
done
if ! grep -q "Enet server created at " "$root/server.log" 2>/dev/null; then
  echo "run_soak: the server did not start; see $root" >&2
  kill -INT "$server_pid" 2>/dev/null
  wait "$server_pid" 2>/dev/null
  exit 1
fi

"$soak_bin" --port "$port" --seconds "$seconds" --peers "$peers" --server-pid "$server_pid" \
  > "$root/soak.json" 2> "$root/soak.txt"
soak_status=$?
cat "$root/soak.json"
cat "$root/soak.txt" >&2

kill -INT "$server_pid" 2>/dev/null
server_status=
for _ in $(seq 1 600); do
  if ! kill -0 "$server_pid" 2>/dev/null; then
    wait "$server_pid"
    server_status=$?
    break
  fi
  sleep 0.1
done
if [ -z "$server_status" ]; then
  echo "run_soak: the server did not stop within 60 s of SIGINT" >&2
  kill -KILL "$server_pid" 2>/dev/null
  wait "$server_pid" 2>/dev/null
  server_status=killed
fi

reports=$(grep -c -E 'ERROR: AddressSanitizer|runtime error:|LeakSanitizer' \
  "$root/server.stdout" "$root/server.stderr" | awk -F: '{ n += $2 } END { print n + 0 }')
malformed=$(grep -c '|||| Malformed ' "$root/server.log")
refused=$(grep -c '|||| Refused file request' "$root/server.log")
echo "run_soak: server exit status $server_status, sanitizer reports $reports, malformed lines logged $malformed, file requests refused $refused" >&2

verdict=0
[ "$soak_status" -eq 0 ] || { echo "run_soak: FAIL: the soak failed (status $soak_status)" >&2; verdict=1; }
[ "$server_status" = 0 ] || { echo "run_soak: FAIL: the server exited with $server_status" >&2; verdict=1; }
if [ "$reports" -ne 0 ]; then
  echo "run_soak: FAIL: sanitizer report in the server's output:" >&2
  grep -h -A30 -E 'ERROR: AddressSanitizer|runtime error:|LeakSanitizer' "$root/server.stdout" "$root/server.stderr" | head -80 >&2
  verdict=1
fi
if [ "$verdict" -eq 0 ] && [ "${SOAK_KEEP:-0}" != 1 ]; then
  rm -rf "$root"
  echo "run_soak: PASS" >&2
else
  echo "run_soak: data root kept at $root" >&2
fi
exit "$verdict"
