#!/usr/bin/env bash
# Builds the release preset and runs the demo: connector-shell on examples/demo.shell, then the
# process-log file the demo writes; then the same host as a server in the background, operated
# from a second process. Installs the Debian packages it needs first.
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

# The host as a server: a second process changes its log specification and lists its service
# providers through the administration socket, curl reads its HTTP monitoring endpoint, then the
# server is stopped with SIGTERM.
shell=./build/release/tools/connector-shell
run=$(mktemp -d "${TMPDIR:-/tmp}/connector-demo.XXXXXX")
server=""
trap '[ -n "$server" ] && kill "$server" 2>/dev/null; rm -rf "$run"' EXIT
socket="$run/admin.sock"
mkfifo "$run/ready"
"$shell" --serve "$socket" --http 127.0.0.1:0 --log-dir "$logs" >"$run/ready" 2>"$logs/server.log" &
server=$!
exec 3<"$run/ready"
read -r announced <&3  # "serving on SOCKET": clients may connect from here on
read -r http <&3       # "serving HTTP on 127.0.0.1:PORT", port 0 having chosen a free one
http=${http##* }
echo
echo "== a server in the background ($announced), operated from a second process"
remote() {
  printf '$ connector-shell --connect SOCKET'
  printf " -c '%s'" "$@"
  echo
  args=()
  for command in "$@"; do args+=(-c "$command"); done
  "$shell" --connect "$socket" "${args[@]}" || echo "(exit status $?)"
}
remote 'connector.log.setSpecification "info,connector.admin=warn"' connector.log.getSpecification
remote connector.listServiceProviders
remote connector.log.getDestination bogus
echo
echo "== the HTTP monitoring endpoint ($http)"
echo "\$ curl -s http://$http/healthz"
curl -s "http://$http/healthz"
echo
echo "\$ curl -s http://$http/metrics | grep -E '^connector_(admin_commands|admin_connections|build_info)'"
curl -s "http://$http/metrics" | grep -E '^connector_(admin_commands|admin_connections|build_info)'
kill -TERM "$server"
wait "$server"
echo "(the server stopped with exit status $?; its socket is gone: $(test -e "$socket" && echo no || echo yes))"
server=""
echo
echo "== $logs/server.log (the server's process log: one audit record per command)"
cat "$logs/server.log"
