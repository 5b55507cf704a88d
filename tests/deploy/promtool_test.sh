#!/bin/sh
# The alert rules through promtool: their syntax, and their unit tests.
# Skipped (status 77) where promtool is not there; `make test` fetches it.
# Usage: promtool_test.sh SOURCE_DIR BUILD_DIR
set -e
promtool=$(command -v promtool || true)
[ -n "$promtool" ] || promtool="$2/deploy-tools/promtool"
# The sanitizer builds use the one `make test` fetched into build/.
[ -x "$promtool" ] || promtool="$1/build/deploy-tools/promtool"
if [ ! -x "$promtool" ]; then
    echo "promtool is not installed; skipped"
    exit 77
fi
cd "$1/deploy/prometheus"
"$promtool" check rules alerts.yml
"$promtool" test rules alerts_test.yml
