#!/usr/bin/env bash
# A throwaway PostgreSQL 15 cluster in a temporary folder, for trying the server's
# shared store, its tests and its benchmark on one machine.
#
#   scripts/pg-throwaway.sh start [PORT]   prints the folder, then the database URL
#   scripts/pg-throwaway.sh stop FOLDER    stops the cluster and deletes the folder
#
# Run as root, the cluster belongs to the postgres user (PostgreSQL refuses to
# run as root). It listens on 127.0.0.1 only, keeps its socket in its folder and
# does not sync to disk: it is for tests, never for data that matters.
set -euo pipefail

PGBIN=${ZSM_PG_BIN:-/usr/lib/postgresql/15/bin}
as_pg() {
  if [ "$(id -u)" -eq 0 ]; then runuser -u postgres -- "$@"; else "$@"; fi
}

case "${1:-}" in
  start)
    [ -x "$PGBIN/initdb" ] || { echo "no PostgreSQL 15 in $PGBIN: run scripts/setup.sh" >&2; exit 1; }
    PORT=${2:-}
    if [ -z "$PORT" ]; then
      PORT=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
    fi
    D=$(mktemp -d /tmp/zsm-pg.XXXXXX)
    [ "$(id -u)" -eq 0 ] && chown postgres:postgres "$D"
    as_pg "$PGBIN/initdb" -D "$D/data" -U zsm -A trust -E UTF8 --locale=C.UTF-8 --no-sync >"$D/setup.log" 2>&1
    as_pg "$PGBIN/pg_ctl" -D "$D/data" -l "$D/server.log" -w -t 30 \
      -o "-c listen_addresses=127.0.0.1 -p $PORT -k $D -c fsync=off -c synchronous_commit=off -c full_page_writes=off -c max_connections=300" \
      start >>"$D/setup.log" 2>&1
    "$PGBIN/createdb" -h 127.0.0.1 -p "$PORT" -U zsm zsm
    echo "$D"
    echo "postgresql://zsm@127.0.0.1:$PORT/zsm"
    ;;
  stop)
    D=${2:?folder printed by start}
    as_pg "$PGBIN/pg_ctl" -D "$D/data" -m fast -w stop >/dev/null 2>&1 || true
    rm -rf "$D"
    ;;
  *)
    echo "usage: $0 start [PORT] | stop FOLDER" >&2
    exit 2
    ;;
esac
