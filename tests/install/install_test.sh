#!/usr/bin/env bash
# Installs the build into a scratch DESTDIR, checks the tree and the Debian
# package's file list, and runs the installed binary from the example data root.
set -euo pipefail
build="$1"
work="$(mktemp -d /tmp/lockstep-install-XXXXXX)"
trap 'kill "$pid" 2>/dev/null || true; rm -rf "$work"' EXIT
pid=""

DESTDIR="$work/dest" cmake --install "$build" --prefix /usr >/dev/null
expected="etc/lockstep-server/limits.conf
etc/lockstep-server/server.config
usr/bin/lockstep-probe
usr/bin/lockstep-server
usr/bin/lockstep-replay
usr/lib/systemd/system/lockstep-server@.service
usr/share/doc/lockstep-server/README.md
usr/share/doc/lockstep-server/changelog.gz
usr/share/doc/lockstep-server/copyright
usr/share/doc/lockstep-server/operations.md
usr/share/lockstep-server/example/README.txt
usr/share/lockstep-server/example/server_data/announcements/
usr/share/lockstep-server/example/server_data/update_data/
usr/share/lockstep-server/example/settings/limits.conf
usr/share/lockstep-server/example/settings/server.config"
for f in $expected; do
  [ -e "$work/dest/$f" ] || { echo "missing from the install: $f"; exit 1; }
done
grep -q '^ExecStart=/usr/bin/lockstep-server --data-root /var/lib/lockstep-server/%i$' \
  "$work/dest/usr/lib/systemd/system/lockstep-server@.service" || { echo "unit ExecStart"; exit 1; }
# A reload re-reads the limits and bans; a port that cannot be opened is not
# retried for ever.
grep -qx 'ExecReload=/bin/kill -HUP $MAINPID' "$work/dest/usr/lib/systemd/system/lockstep-server@.service" \
  || { echo "unit ExecReload"; exit 1; }
grep -qx 'RestartPreventExitStatus=1 2' "$work/dest/usr/lib/systemd/system/lockstep-server@.service" \
  || { echo "unit RestartPreventExitStatus"; exit 1; }
# Nothing in the announcements of the example: every entry there is sent to clients.
[ -z "$(ls -A "$work/dest/usr/share/lockstep-server/example/server_data/announcements")" ]

# The package carries the same files.
(cd "$build" && cpack -G DEB -B "$work/pkg" >/dev/null)
deb="$(ls "$work"/pkg/*.deb)"
listing="$(dpkg-deb -c "$deb" | awk '{print $6}')"
for f in $expected; do
  grep -qx "./$f" <<<"$listing" || { echo "missing from the package: $f"; exit 1; }
done
# Depends computed from the binary's libraries; the /etc file a conffile; the
# binary stripped.
dpkg-deb -f "$deb" Depends | grep -q 'libc6 (>= '
dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles | grep -qx /etc/lockstep-server/server.config
dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles | grep -qx /etc/lockstep-server/limits.conf
dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/bin/lockstep-server >"$work/packaged"
! readelf -S "$work/packaged" | grep -q '\.debug_info' || { echo "packaged binary not stripped"; exit 1; }

# The installed binary from a copy of the example data root, on a free port.
cp -r "$work/dest/usr/share/lockstep-server/example" "$work/root"
sed -i '1s/.*/0/' "$work/root/settings/server.config"
"$work/dest/usr/bin/lockstep-server" --data-root "$work/root" </dev/null >"$work/out" 2>&1 &
pid=$!
for _ in $(seq 100); do
  grep -q "Enet server created at 0:" "$work/root/server.log" 2>/dev/null && break
  sleep 0.05
done
grep -q ": Enet server created at 0:" "$work/root/server.log"
# The installed probe finds it answering.
port="$(sed -n 's/^: Enet server created at 0:\([0-9]*\)$/\1/p' "$work/root/server.log")"
"$work/dest/usr/bin/lockstep-probe" "127.0.0.1:$port" | grep -q "^127.0.0.1:$port answered: \"\(.*\)\"$" \
  || { echo "installed probe"; exit 1; }
# The installed recordings' reader runs (the recordings themselves are
# tested with the tool).
"$work/dest/usr/bin/lockstep-replay" --help | grep -q "^  desync " || { echo "installed replay"; exit 1; }
kill -TERM "$pid"
wait "$pid"
status=$?
pid=""
[ "$status" -eq 0 ]
tail -n 1 "$work/root/server.log" | grep -qx ': ## Ending log'
# `make run` builds the server alone and puts the example configuration in place.
plan="$(make -n -C "$(dirname "$0")/../.." run BUILD_DIR="$work/b" DATA_ROOT="$work/var")"
grep -q -- "--build $work/b -j [0-9]* --target lockstep-server$" <<<"$plan" || { echo "make run: target"; exit 1; }
! grep -q -- "--build $work/b -j [0-9]*$" <<<"$plan" || { echo "make run builds everything"; exit 1; }
grep -q "^cp packaging/example/settings/server.config $work/var/settings/server.config$" <<<"$plan"
grep -q "^cp packaging/example/settings/limits.conf $work/var/settings/limits.conf$" <<<"$plan"
echo "install test: 1 passed, 0 failed"
