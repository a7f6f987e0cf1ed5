#!/usr/bin/env bash
# Builds the release preset and runs the demo: connector-shell on examples/demo.shell, then the
# process-log file the demo writes. Installs the Debian packages it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build
cmake --preset release >/dev/null
cmake --build --preset release --target connector-shell
# The shell confines the process log's files to --log-dir; the demo's file lands there.
logs=build/release/demo-logs
rm -rf "$logs" && mkdir -p "$logs"
echo
status=0
./build/release/tools/connector-shell --log-dir "$logs" --script examples/demo.shell || status=$?
# The demo's flaky requests fail on purpose, so the shell reports failed commands (status 1).
[ "$status" -le 1 ] || exit "$status"
echo
echo "== $logs/connector-shell.log (the process log after the demo moved it to a file)"
cat "$logs/connector-shell.log"
