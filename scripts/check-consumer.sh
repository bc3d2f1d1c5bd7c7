#!/usr/bin/env bash
# Installs the project into a temporary prefix and builds the example consumer
# against it with find_package, then runs it; checks that the programs install
# with their man pages and shell completions; then builds the C example and
# installs the Python package against the same installation.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# The tree the tests built (build/, or ZSM_HOST_BUILD_DIR) is installed when it
# holds the programs; otherwise everything is built here, without the tests.
host_build="${ZSM_HOST_BUILD_DIR:-build}"
if [ ! -x "$host_build/tools/cli/zsm" ] || [ ! -f "$host_build/tools/cli/man/zsm.1" ]; then
  host_build="$work/host-build"
  cmake -S . -B "$host_build" -G Ninja -DZSM_BUILD_TESTS=OFF -DZSM_BUILD_REFERENCE=ON >/dev/null
  cmake --build "$host_build" -j2 >/dev/null
fi
cmake --install "$host_build" --prefix "$work/host" >/dev/null

cmake -S examples/consumer -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$work/host" >/dev/null
cmake --build "$work/consumer" -j2 >/dev/null
"$work/consumer/consumer"

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

# The C interface installs as libzsm with its header and pkg-config file: the C
# example builds against the installed package both with pkg-config and with
# find_package, runs against the installed zsm-server, and the Python package
# installs with pip and loads the installed library.
libdir="$work/host/lib"
if [ ! -e "$libdir/libzsm.so.1" ]; then
  echo "check-consumer: libzsm.so.1 was not installed" >&2
  exit 1
fi
PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --exists zsm
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Wpedantic -Werror examples/c/sync_example.c -o "$work/sync_example_pc" \
  $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs zsm) -Wl,-rpath,"$libdir"
cmake -S examples/c -B "$work/c-example" -G Ninja -DCMAKE_PREFIX_PATH="$work/host" >/dev/null
cmake --build "$work/c-example" >/dev/null
# Only the C interface leaves the library.
tests/capi/check_exports.sh "$libdir/libzsm.so.1" include/zolvani/subscription/zsm.h >/dev/null
tests/capi/run_with_server.sh "$work/host/bin/zsm-server" "$work/c-example/sync_example" \
  @URL@ @DATA@ >"$work/c-example.log" || { cat "$work/c-example.log" >&2; exit 1; }
if "$work/sync_example_pc" >/dev/null 2>&1; then
  echo "check-consumer: the pkg-config build of the example ran without its arguments" >&2
  exit 1
fi
# A fresh environment, without the system's packages: the package builds with
# its own backend and needs nothing from outside.
/usr/bin/python3 -m venv "$work/venv"
# From a copy: building the package leaves files beside its sources.
cp -r python "$work/python-src"
"$work/venv/bin/pip" install -q --no-build-isolation --no-index "$work/python-src" >/dev/null
(cd "$work" && LD_LIBRARY_PATH="$libdir" "$work/venv/bin/python" -c \
  'import zolvani_subscription as z; print("check-consumer: zolvani_subscription over libzsm", z.version())')
echo "check-consumer: the C example builds with pkg-config and find_package; the Python package installs"
