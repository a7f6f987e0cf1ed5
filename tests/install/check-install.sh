#!/usr/bin/env bash
# Installs the build in BUILD_DIR into a temporary prefix, then, against that prefix alone, builds
# and runs examples/consumer through the CMake package and through pkg-config, and
# examples/host (the reference host, connector::host) through the CMake package.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(dirname "$(find "$work/prefix" -name connector-common-services.pc)")")

# CMake records the prefix's library directory in the programs it builds there.
for example in consumer host; do
  cmake -S "$source_dir/examples/$example" -B "$work/build-$example" -G Ninja \
    -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
  cmake --build "$work/build-$example" >/dev/null
done
"$work/build-consumer/consumer"
"$work/build-host/host_example" >"$work/host.out"
grep -qx 'every answer was the message sent' "$work/host.out"

# pkg-config gives no run path: the program is linked with one, as the README shows.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ "$source_dir/examples/consumer/main.cpp" $(pkg-config --cflags --libs connector-common-services) \
  -Wl,-rpath,"$(pkg-config --variable=libdir connector-common-services)" -o "$work/consumer-pc"
"$work/consumer-pc"
