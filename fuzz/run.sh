#!/usr/bin/env bash
# Builds the fuzzers with the fuzz preset and runs each for a bounded time on a scratch copy of
# its seed corpus (fuzz/corpus/<fuzzer>/), so the repository is never written to. Fails on any
# crash, sanitizer report, time-out or model mismatch (the fuzzers abort on a mismatch).
#
# Usage: fuzz/run.sh [fuzzer...]        (default: every fuzzer that has a seed corpus)
# Environment:
#   FUZZ_SECONDS    time per fuzzer, in seconds (default 60)
#   FUZZ_BUILD_DIR  build directory (default build/fuzz, the preset's own)
#   FUZZ_JOBS       parallel build jobs (default 2)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${FUZZ_SECONDS:-60}"
build="${FUZZ_BUILD_DIR:-build/fuzz}"
jobs="${FUZZ_JOBS:-2}"

fuzzers=("$@")
if [ ${#fuzzers[@]} -eq 0 ]; then
  for dir in fuzz/corpus/*/; do
    fuzzers+=("$(basename "$dir")")
  done
fi

cmake --preset fuzz -B "$build" >/dev/null
cmake --build "$build" -j"$jobs" --target "${fuzzers[@]}"
build="$(cd "$build" && pwd)"

scratch="$(mktemp -d "${TMPDIR:-/tmp}/connector-fuzz.XXXXXX")"
keep_scratch=0
cleanup() { [ "$keep_scratch" = 1 ] || rm -rf "$scratch"; }
trap cleanup EXIT

# A smaller quarantine and shorter allocation stacks keep the runs fast; leaks still count.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:quarantine_size_mb=64:malloc_context_size=8}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"

failed=()
for name in "${fuzzers[@]}"; do
  binary="$build/fuzz/$name"
  seeds="fuzz/corpus/$name"
  if [ ! -x "$binary" ] || [ ! -d "$seeds" ]; then
    echo "$name: FAILED (no binary at $binary or no seed corpus at $seeds)"
    failed+=("$name")
    continue
  fi
  work="$scratch/$name"
  mkdir -p "$work/corpus" "$work/artifacts" "$work/tmp"
  cp -R "$seeds/." "$work/corpus/"
  # The command fuzzer's inputs hold up to 300 arguments; the others need far less.
  case "$name" in
    command_fuzzer) max_len=16384 ;;
    admin_protocol_fuzzer) max_len=4096 ;;
    *) max_len=1024 ;;
  esac
  log="$work/log.txt"
  status=0
  # Each fuzzer gets its own temporary directory for whatever files it writes.
  (cd "$work" && TMPDIR="$work/tmp" "$binary" \
    -max_total_time="$seconds" -timeout=30 -max_len="$max_len" -print_final_stats=1 \
    -artifact_prefix="$work/artifacts/" corpus) >"$log" 2>&1 || status=$?
  executions="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)"
  if [ "$status" -ne 0 ] || grep -qE '^SUMMARY: |runtime error:|MODEL MISMATCH' "$log"; then
    echo "$name: FAILED (exit status $status) after ${executions:-?} executions:"
    grep -E 'MODEL MISMATCH|ERROR: |SUMMARY: |runtime error:|Test unit written|^Base64: ' "$log" | head -n 20 | sed 's/^/    /' || true
    echo "    last lines of its log:"
    tail -n 30 "$log" | sed 's/^/    /'
    echo "    reproducers and the full log are kept in $work"
    keep_scratch=1
    failed+=("$name")
  else
    echo "$name: ok, ${executions:-?} executions in ${seconds} s"
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzers that failed: ${failed[*]}"
  exit 1
fi
