#!/bin/sh
# Two processes: connector-shell --serve in the background, and connector-shell --connect running
# commands on it with -c and --script (send included). Checks the answers, the exit statuses (0 all succeeded, 1
# one failed, 2 no server), that SIGHUP reopens the log and SIGUSR1/2 are ignored, and that SIGTERM stops the server cleanly and removes its socket.
# Usage: admin-test.sh SHELL
set -u
shell=$1
work=$(cd "$(mktemp -d)" && pwd -P)
server=""
cleanup() {
  [ -n "$server" ] && kill "$server" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
failures=0
fail() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

# check NAME EXPECTED-STATUS EXPECTED-STDOUT EXPECTED-STDERR -- ARGS...
check() {
  name=$1 status=$2 out=$3 err=$4
  shift 5
  "$shell" "$@" >"$work/out" 2>"$work/err"
  actual=$?
  [ "$actual" = "$status" ] || fail "$name: exit status $actual, expected $status"
  [ "$(cat "$work/out")" = "$out" ] || fail "$name: printed [$(cat "$work/out")], expected [$out]"
  [ "$(cat "$work/err")" = "$err" ] || fail "$name: printed on stderr [$(cat "$work/err")], expected [$err]"
}

# A bad line of --config stops the start, naming the file and the line.
printf '# refused by the access log\nconfig set access.sampleEvery 0\n' >"$work/bad.conf"
"$shell" --serve "$work/s" --config "$work/bad.conf" >/dev/null 2>"$work/err"
[ $? = 2 ] || fail "a bad configuration did not stop the start with exit status 2"
[ "$(tail -n 1 "$work/err")" = "connector-shell: $work/bad.conf:2: command \"connector.config.set\" failed: \
access.sampleEvery = 0 was refused by a subscriber and not kept: access.sampleEvery refused 0 (int): it takes an \
int of at least 1; the setting stays 1" ] || fail "a bad configuration: $(cat "$work/err")"

# The server says when it listens; the test reads that line from a FIFO before connecting.
mkfifo "$work/ready"
printf '# the access log\nconfig set access.sampleEvery 3 ops\n' >"$work/conf"
"$shell" --serve "$work/s" --log-dir "$work" --config "$work/conf" >"$work/ready" 2>"$work/server.log" &
server=$!
exec 3<"$work/ready"
read -r line <&3
[ "$line" = "serving on $work/s" ] || fail "the server announced [$line]"

socket=$(stat -c %a "$work/s")
[ "$socket" = 600 ] || fail "the socket has mode $socket, expected 600"

check "a session" 0 "info
warn,connector.*=debug
access
echo
flaky
metrics
svc" "" -- --connect "$work/s" -c connector.log.getSpecification \
  -c 'connector.log.setSpecification "warn,connector.*=debug"' -c connector.log.getSpecification \
  -c connector.listServiceProviders

printf '# a comment, then a command that fails and one that works\nconnector.log.getDestination x\n\nconnector.log.getDestination\n' >"$work/script"
check "a script with a failure" 1 "stderr" \
  'error: command "connector.log.getDestination" takes no arguments, but was given 1' \
  -- --connect "$work/s" --script "$work/script"

# The configuration is served as the shell's config; a refused value leaves the store as it was.
check "configuration over the socket" 1 'access.sampleEvery = 3 (int, label "ops")
access.format = "json" (string, label "operator")
access.sampleEvery = 3 (int, label "ops")' 'error: command "connector.config.set" failed: access.sampleEvery = 0 was refused by a subscriber and not kept: access.sampleEvery refused 0 (int): it takes an int of at least 1; the setting stays 3' \
  -- --connect "$work/s" -c 'config get access.sampleEvery' -c 'config set access.format json' \
  -c 'config set access.sampleEvery 0' -c 'config list access.sampleEvery'

# The shell's send is the server's connector.send (the access log is silenced: the server's
# standard output is the FIFO read below).
check "send over the socket" 1 'access.destination = "null" (string, label "operator")
answer: demo::Greeting "hi"' 'error: command "connector.send" failed: 4 sent, 3 answered, 1 failed; the last: answer: demo::Ping' \
  -- --connect "$work/s" -c 'config set access.destination null' -c 'send api greeting hi' -c 'send flaky ping -n 4'

"$shell" --connect "$work/s" -c help >"$work/out" 2>&1
grep -q '^connector.log.getChannels ' "$work/out" || fail "help does not list the server's commands: $(cat "$work/out")"

long=$(head -c 70000 /dev/zero | tr '\0' x)
check "a refused command" 2 "" "connector-shell: the server at $work/s closed the connection: the request line is longer than 65536 bytes; send at most that much before each line feed; the command did not run" \
  -- --connect "$work/s" -c "connector.log.getDestination $long"

check "no server" 2 "" "connector-shell: cannot reach the server at $work/none: No such file or directory" \
  -- --connect "$work/none" -c help

# SIGHUP reopens the process log's file after a rename, and is recorded there; SIGUSR1 and
# SIGUSR2 are ignored. The server goes on serving after all three.
"$shell" --connect "$work/s" -c "connector.log.setDestination file:$work/process.log" >/dev/null
mv "$work/process.log" "$work/process.log.1"
kill -HUP "$server"
kill -USR1 "$server"
kill -USR2 "$server"
for _ in $(seq 100); do grep -q "SIGHUP: reopened the log files" "$work/process.log" 2>/dev/null && break; sleep 0.1; done
grep -q "SIGHUP: reopened the log files" "$work/process.log" 2>/dev/null || fail "no record of SIGHUP in a new file"
check "after SIGHUP, SIGUSR1, SIGUSR2" 0 "file:$work/process.log" "" -- --connect "$work/s" -c connector.log.getDestination

kill -TERM "$server"
wait "$server"
status=$?
server=""
[ "$status" = 0 ] || fail "the server exited with $status after SIGTERM"
read -r line <&3
[ "$line" = "stopped (SIGTERM)" ] || fail "the server said [$line] when stopping"
[ ! -e "$work/s" ] || fail "the socket is still there after the server stopped"
grep -q "connector.audit.*caller=\"uid=$(id -u) pid=[0-9]*\" command=\"connector.log.setSpecification\"" "$work/server.log" ||
  fail "the server's log has no audit record of the command: $(cat "$work/server.log")"

[ "$failures" = 0 ] || exit 1
echo "the server and the client agreed on every command"
