#!/usr/bin/env bash
# Installs the library into a temporary prefix and builds the example consumer
# against it with find_package, then runs it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cmake -S . -B "$work/build" -G Ninja -DZSM_BUILD_TESTS=OFF -DZSM_BUILD_REFERENCE=OFF \
  -DCMAKE_INSTALL_PREFIX="$work/prefix" >/dev/null
cmake --build "$work/build" -j2 >/dev/null
cmake --install "$work/build" >/dev/null
cmake -S examples/consumer -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" -j2 >/dev/null
"$work/consumer/consumer"
