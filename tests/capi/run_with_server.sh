#!/usr/bin/env bash
# Runs a program against a zsm-server with the sample content on loopback:
#   run_with_server.sh ZSM_SERVER_PROGRAM PROGRAM ARGS...
# where the arguments @URL@ and @DATA@ become the server's URL and a new data
# folder for the device. The server is stopped afterwards, whatever happened.
set -euo pipefail
server_program="$1"
shift
work="$(mktemp -d)"
server_pid=""
cleanup() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
mkfifo "$work/out"
"$server_program" serve --data "$work/server" --address 127.0.0.1 --port 0 --generate-sample \
  >"$work/out" 2>"$work/server.log" &
server_pid=$!
exec 3<"$work/out"
line=""
read -r -t 30 line <&3 || true
case "$line" in
  "listening on "*) url="${line#listening on }" ;;
  *)
    echo "run_with_server: zsm-server did not start" >&2
    cat "$work/server.log" >&2
    exit 1
    ;;
esac
args=()
for a in "$@"; do
  a="${a//@URL@/$url}"
  a="${a//@DATA@/$work/device}"
  args+=("$a")
done
"${args[@]}"
