#!/bin/sh
# Runs connector-shell on a script in a fresh directory (also its --log-dir) and compares what it
# prints, standard error included, with the expected transcript. The times that the logging
# provider prints change from run to run, and so do the time and the user in the audit records
# the process log writes to standard error, so they are masked on both sides.
# Usage: transcript-test.sh SHELL SCRIPT EXPECTED EXIT-STATUS [TEXT-IN-LOG-FILE]
set -u
shell=$1 script=$2 expected=$3 status=$4 logged=${5:-}
work=$(cd "$(mktemp -d)" && pwd -P)
trap 'rm -rf "$work"' EXIT

mask() {
  sed -E -e 's/[0-9][0-9.e+-]*: (Request|Response) \(/<ms>: \1 (/' \
         -e 's/elapsed time -?[0-9][0-9.e+-]* ms/elapsed time <ms> ms/' \
         -e 's/^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:.]+\] \[connector\.audit\]/[<time>] [connector.audit]/' \
         -e 's/^(\[<time>\] \[connector\.audit\] \[info\] caller=)"[^"]*"/\1"<user>"/'
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
