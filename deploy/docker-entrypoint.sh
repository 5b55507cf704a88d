#!/bin/sh
# A data root that has no settings yet gets the packaged ones, as the systemd
# unit does; a mounted settings/ (a ConfigMap) is used as it is.
set -e
root=/var/lib/lockstep-server
if [ ! -e "$root/settings/server.config" ] && [ -w "$root" ]; then
    mkdir -p "$root/settings"
    cp /etc/lockstep-server/server.config "$root/settings/"
    [ -e "$root/settings/limits.conf" ] || cp /etc/lockstep-server/limits.conf "$root/settings/"
fi
# The server is process 1 of the container: it gets SIGTERM itself.
exec /usr/bin/lockstep-server "$@"
