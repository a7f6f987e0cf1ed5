#!/usr/bin/env bash
# Builds the release preset and runs the demo. Installs the Debian packages it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build
cmake --preset release >/dev/null
cmake --build --preset release
./build/release/examples/echo_example
