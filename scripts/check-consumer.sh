#!/usr/bin/env bash
# Installs the library into a temporary prefix and builds the example consumer
# against it with find_package, then runs it; then checks that the programs
# install with their man pages and shell completions.
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

# The programs install with their man pages and shell completions. The tree the
# tests built (build/, or ZSM_HOST_BUILD_DIR) is installed when it holds them;
# otherwise the host programs are built here.
host_build="${ZSM_HOST_BUILD_DIR:-build}"
if [ ! -x "$host_build/tools/cli/zsm" ] || [ ! -f "$host_build/tools/cli/man/zsm.1" ]; then
  host_build="$work/host-build"
  cmake -S . -B "$host_build" -G Ninja -DZSM_BUILD_TESTS=OFF -DZSM_BUILD_REFERENCE=ON >/dev/null
  cmake --build "$host_build" -j2 >/dev/null
fi
cmake --install "$host_build" --prefix "$work/host" >/dev/null
for f in bin/zsm bin/zsm-server share/man/man1/zsm.1 share/man/man1/zsm-server.1 \
  share/bash-completion/completions/zsm share/zsh/site-functions/_zsm; do
  if [ ! -s "$work/host/$f" ]; then
    echo "check-consumer: $f was not installed" >&2
    exit 1
  fi
done
# The man pages carry the help text, and the completion script is valid bash.
grep -q "Exit status" "$work/host/share/man/man1/zsm.1"
grep -q "serve" "$work/host/share/man/man1/zsm-server.1"
bash -n "$work/host/share/bash-completion/completions/zsm"
"$work/host/bin/zsm" --version | grep -q "^zsm "
echo "check-consumer: programs, man pages and completions install"
