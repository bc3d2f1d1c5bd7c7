#!/usr/bin/env bash
# Sets a machine up, configures, builds and runs every test.
#   scripts/test.sh                 the normal build in build/
#   ZSM_SANITIZE=address,undefined scripts/test.sh   a sanitizer build in build-asan/
#   ZSM_SANITIZE=thread ZSM_TEST_LABELS=store scripts/test.sh   thread sanitizer, store tests only
#   ZSM_BUILD_REFERENCE=OFF       the library and its tests only (no reference engine,
#                                 server or command-line host)
#   ZSM_DEBUG_INFO=lines          line tables only (-g1): enough for stack traces, and
#                                 a build about a third quicker than with full debug info
#   ZSM_TEST_EXCLUDE_LABELS=scaleout  run every test but those with this label
#   ZSM_BUILD_TARGETS="a b"       build only these targets (pair with ZSM_TEST_LABELS:
#                                 tests of targets left unbuilt carry no label)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

sanitize="${ZSM_SANITIZE:-}"
case "$sanitize" in
  "") build_dir="${ZSM_BUILD_DIR:-build}" ;;
  thread) build_dir="${ZSM_BUILD_DIR:-build-tsan}" ;;
  *) build_dir="${ZSM_BUILD_DIR:-build-asan}" ;;
esac

debug_args=()
if [ "${ZSM_DEBUG_INFO:-}" = lines ]; then
  debug_args=(-DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG"
    -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG"
    -DCMAKE_CXX_FLAGS_DEBUG="-g1" -DCMAKE_C_FLAGS_DEBUG="-g1")
fi

# A compiler cache makes the builds after the first one quick (CI builds four
# times); paths are hashed relative to the folder above the project, so a fresh
# clone elsewhere finds what an earlier one compiled.
launcher_args=()
if command -v ccache >/dev/null; then
  export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$(cd .. && pwd)}"
  # Debug information then names the build folder as it was where an object was
  # first compiled: line tables and stack traces, which use relative paths, are
  # unaffected.
  export CCACHE_NOHASHDIR="${CCACHE_NOHASHDIR:-1}"
  launcher_args=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi

cmake -S . -B "$build_dir" -G Ninja "${debug_args[@]}" "${launcher_args[@]}" \
  -DCMAKE_BUILD_TYPE="${ZSM_BUILD_TYPE:-RelWithDebInfo}" \
  -DZSM_WERROR="${ZSM_WERROR:-ON}" \
  -DZSM_SANITIZE="$sanitize" \
  -DZSM_BUILD_TESTS=ON \
  -DZSM_BUILD_REFERENCE="${ZSM_BUILD_REFERENCE:-ON}" >/dev/null
build_targets=()
if [ -n "${ZSM_BUILD_TARGETS:-}" ]; then
  read -r -a names <<<"$ZSM_BUILD_TARGETS"
  build_targets=(--target "${names[@]}")
fi
cmake --build "$build_dir" -j2 "${build_targets[@]}"

label_args=()
if [ -n "${ZSM_TEST_LABELS:-}" ]; then label_args=(-L "$ZSM_TEST_LABELS"); fi
if [ -n "${ZSM_TEST_EXCLUDE_LABELS:-}" ]; then label_args+=(-LE "$ZSM_TEST_EXCLUDE_LABELS"); fi
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan-suppressions.txt}"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1 halt_on_error=1}"
# End-to-end tests run real programs against each other on a loaded two-core
# machine; a test that fails is run once more, and both outcomes are printed.
ctest --test-dir "$build_dir" --output-on-failure -j2 --timeout 300 --repeat until-pass:2 \
  "${label_args[@]}"
