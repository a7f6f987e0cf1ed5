#!/bin/sh
# Runs connector-shell on a script in a fresh directory (also its --log-dir) and compares what it
# prints, standard error included, with the expected transcript. What changes from run to run is
# masked on both sides: the times that the logging provider prints, the elapsed and start times
# of the access log, the latencies of the statistics (and which requests are the slowest), and
# the time and the user in the audit records the process log writes to standard error.
# Usage: transcript-test.sh SHELL SCRIPT EXPECTED EXIT-STATUS [TEXT-IN-LOG-FILE]
set -u
shell=$1 script=$2 expected=$3 status=$4 logged=${5:-}
work=$(cd "$(mktemp -d)" && pwd -P)
trap 'rm -rf "$work"' EXIT

mask() {
  sed -E -e 's/[0-9][0-9.e+-]*: (Request|Response) \(/<ms>: \1 (/' \
         -e 's/elapsed time -?[0-9][0-9.e+-]* ms/elapsed time <ms> ms/' \
         -e 's/^\[[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]+Z\] \[connector\.audit\]/[<time>] [connector.audit]/' \
         -e 's/^(\[<time>\] \[connector\.audit\] \[info\] caller=)"[^"]*"/\1"<user>"/' \
         -e 's/elapsed_us=[0-9]+ start=[0-9T:.Z-]+$/elapsed_us=<us> start=<time>/' \
         -e 's/"elapsed_us":[0-9]+,"start":"[0-9T:.Z-]+"/"elapsed_us":<us>,"start":"<time>"/' \
         -e 's/(p50|p90|p99|max|mean)_us=[0-9.]+/\1_us=<us>/g' -e 's/since_s=[0-9]+$/since_s=<s>/' \
         -e 's/^thread=[0-9]+ request=[0-9]+ [^ ]+ elapsed_us=[0-9.]+ [^ ]+$/thread=<t> request=<n> <type> elapsed_us=<us> <outcome>/'
}

(cd "$work" && "$shell" --log-dir "$work" --script "$script" >output 2>&1)
actual=$?
# The directory's name changes too; the shell names it when it refuses a log file outside it.
sed "s|$work|<work>|g" "$work/output" | mask >"$work/actual"
mask <"$expected" >"$work/expected"
if ! diff -u "$work/expected" "$work/actual"; then
  echo "the transcript differs from $expected (lines with - expected, + printed)"
  exit 1
fi
if [ "$actual" != "$status" ]; then
  echo "connector-shell exited with $actual, expected $status"
  exit 1
fi
if [ -n "$logged" ] && ! grep -qF -- "$logged" "$work"/*.log; then
  echo "no log file in $work holds \"$logged\""
  exit 1
fi
echo "transcript matches $expected"
