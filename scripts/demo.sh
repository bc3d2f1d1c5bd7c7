#!/usr/bin/env bash
# The main job on a fresh machine: installs what the build needs, builds the
# command-line host and the reference content server, and runs the demo (a
# local server with sample feeds; a new device subscribing, syncing and
# downloading; new content and a retention rule at work).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2 --target zsm zsm-server
exec build/tools/cli/zsm demo "$@"
