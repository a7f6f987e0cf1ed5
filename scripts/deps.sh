#!/usr/bin/env bash
# Installs the Debian packages this project needs, if any is missing. Needs root for apt-get.
# Usage: scripts/deps.sh [build|test]   (test adds what the sanitizer, fuzz and terminal tests use)
set -euo pipefail
packages=(g++ cmake ninja-build pkg-config libboost-dev libboost-thread-dev libspdlog-dev libfmt-dev
  nlohmann-json3-dev curl
  libgtest-dev libgmock-dev libbenchmark-dev libreadline-dev)
if [ "${1:-build}" = test ]; then
  packages+=(clang libclang-rt-14-dev tmux prometheus chromium)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing missing packages: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
