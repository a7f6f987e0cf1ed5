#!/usr/bin/env bash
# Builds and runs every test: the whole suite under the dev, asan and tsan presets, then the
# fuzzers for a bounded time each. Installs the Debian packages it needs first. Ends with one
# line that adds up every preset's tests and every fuzzer: "summary: N passed, N failed".
# Usage: scripts/test.sh [preset...]   (default: dev asan tsan fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh test

log=$(mktemp)
trap 'rm -f "$log"' EXIT
passed=0
failed=0

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(dev asan tsan fuzz)
for preset in "${presets[@]}"; do
  if [ "$preset" = fuzz ]; then
    [ -f fuzz/CMakeLists.txt ] && [ -x fuzz/run.sh ] || continue
    echo "== fuzz: bounded runs"
    fuzz/run.sh 2>&1 | tee "$log"
    passed=$((passed + $(grep -cE '^[a-z_]+: ok, ' "$log" || true)))
    continue
  fi
  echo "== $preset: configure, build, test"
  cmake --workflow --preset "$preset" 2>&1 | tee "$log"
  # ctest closes with "100% tests passed, 0 tests failed out of N".
  bad=0 total=0
  read -r bad total < <(sed -nE 's/.* tests passed, ([0-9]+) tests failed out of ([0-9]+).*/\1 \2/p' "$log" | tail -n 1) || true
  passed=$((passed + total - bad))
  failed=$((failed + bad))
done
echo "summary: $passed passed, $failed failed"
