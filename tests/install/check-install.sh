#!/usr/bin/env bash
# Installs the build in BUILD_DIR into a temporary prefix, then builds and runs the consumer in
# examples/consumer against it twice: through the CMake package and through pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$source_dir/examples/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib/$(uname -m)-linux-gnu" "$work/build/consumer"

libdir=$(dirname "$(find "$work/prefix" -name connector-common-services.pc)")
export PKG_CONFIG_PATH="$libdir"
# shellcheck disable=SC2046
c++ "$source_dir/examples/consumer/main.cpp" $(pkg-config --cflags --libs connector-common-services) \
  -Wl,-rpath,"$(dirname "$libdir")" -o "$work/consumer-pc"
"$work/consumer-pc"
