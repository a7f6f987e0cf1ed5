#!/usr/bin/env bash
# Builds and runs every test: the whole suite under the dev, asan and tsan presets, then the
# fuzzers for a bounded time each. Installs the Debian packages it needs first.
# Usage: scripts/test.sh [preset...]   (default: dev asan tsan fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh test

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(dev asan tsan fuzz)
for preset in "${presets[@]}"; do
  if [ "$preset" = fuzz ]; then
    if [ -f fuzz/CMakeLists.txt ] && [ -x fuzz/run.sh ]; then
      echo "== fuzz: bounded runs"
      fuzz/run.sh
    fi
    continue
  fi
  echo "== $preset: configure, build, test"
  cmake --workflow --preset "$preset"
done
