#!/usr/bin/env bash
# Tries the scaled-out content server on one machine: a throwaway PostgreSQL 15
# cluster, three zsm-server replicas on it sharing one media folder, and HAProxy in
# front (haproxy.cfg beside this script), all on loopback. Everything lives in one
# temporary folder that is removed when the script ends (Ctrl-C).
#
#   deploy/run-local.sh            start, print the addresses, wait for Ctrl-C
#   deploy/run-local.sh --check    start, check the setup through HAProxy, stop
#
# Environment: ZSM_SERVER (the zsm-server program; default build/reference/server/
# zsm-server, then PATH), ZSM_PORT (HAProxy's port, default 8080), ZSM_STATS_PORT
# (default 8404), ZSM_REPLICA_PORT (the first replica's port, default 8081; the
# others follow), ZSM_PG_PORT (default 5439), ZSM_CONSOLE_PASSWORD (sets the
# console's password when given).
#
# PostgreSQL refuses to run as root; run as root, the cluster belongs to the
# postgres user (runuser). Needs postgresql-15, haproxy, curl and openssl
# (scripts/setup.sh).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
check=0
[[ "${1:-}" == "--check" ]] && check=1

server=${ZSM_SERVER:-}
if [[ -z "$server" ]]; then
  if [[ -x "$here/../build/reference/server/zsm-server" ]]; then
    server="$here/../build/reference/server/zsm-server"
  else
    server=$(command -v zsm-server || true)
  fi
fi
[[ -x "$server" ]] || { echo "run-local: no zsm-server program (set ZSM_SERVER)" >&2; exit 1; }
pgbin=/usr/lib/postgresql/15/bin
[[ -x "$pgbin/initdb" ]] || { echo "run-local: PostgreSQL 15 is not installed" >&2; exit 1; }
command -v haproxy >/dev/null || { echo "run-local: haproxy is not installed" >&2; exit 1; }

front_port=${ZSM_PORT:-8080}
stats_port=${ZSM_STATS_PORT:-8404}
first_port=${ZSM_REPLICA_PORT:-8081}
pg_port=${ZSM_PG_PORT:-5439}

work=$(mktemp -d /tmp/zsm-deploy.XXXXXX)
as_postgres=()
if [[ $(id -u) -eq 0 ]]; then
  chown postgres:postgres "$work"
  chmod 755 "$work"
  as_postgres=(runuser -u postgres --)
fi
pids=()
cleanup() {
  set +e
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
  if [[ -f "$work/pg/postmaster.pid" ]]; then
    "${as_postgres[@]}" "$pgbin/pg_ctl" -D "$work/pg" -m fast -w stop >/dev/null
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

echo "run-local: PostgreSQL on 127.0.0.1:$pg_port ($work/pg)"
"${as_postgres[@]}" "$pgbin/initdb" -D "$work/pg" -U zsm -A trust -E UTF8 --locale=C.UTF-8 \
  --no-sync >"$work/initdb.log"
# Three replicas with a pool of 8 each, plus the commands run beside them.
"${as_postgres[@]}" "$pgbin/pg_ctl" -D "$work/pg" -l "$work/postgres.log" -w -t 30 \
  -o "-c listen_addresses=127.0.0.1 -p $pg_port -k $work -c max_connections=60" start >/dev/null
"$pgbin/createdb" -h 127.0.0.1 -p "$pg_port" -U zsm zsm
db="postgresql://zsm@127.0.0.1:$pg_port/zsm"

"$server" migrate --database "$db"
# The media folder every replica serves; a real deployment shares it (NFS) or
# copies it with its times kept (rsync -a), or puts a CDN in front (--public-url).
mkdir -p "$work/shared"
# Sample content is made once, never by a replica as it starts.
"$server" generate-sample --data "$work/shared" --database "$db"
if [[ -n "${ZSM_CONSOLE_PASSWORD:-}" ]]; then
  "$server" set-console-password --data "$work/shared" --database "$db" </dev/null
fi

for k in 1 2 3; do
  port=$((first_port + k - 1))
  export "ZSM_R$k=127.0.0.1:$port"
  # HAProxy holds up to 200 connections per replica plus its health checks, all
  # from one address: the per-address cap must stay above that.
  "$server" serve --database "$db" --data "$work/shared" --address 127.0.0.1 --port "$port" \
    --node-name "r$k" --max-connections-per-address 1024 \
    >"$work/r$k.out" 2>"$work/r$k.log" &
  pids+=($!)
done
for k in 1 2 3; do
  port=$((first_port + k - 1))
  for _ in $(seq 100); do
    curl -fs "http://127.0.0.1:$port/ready" >/dev/null && break
    sleep 0.1
  done
  curl -fs "http://127.0.0.1:$port/ready" >/dev/null ||
    { echo "run-local: replica r$k did not start:" >&2; cat "$work/r$k.log" >&2; exit 1; }
done

export ZSM_FRONT_ADDRESS=127.0.0.1 ZSM_FRONT_PORT=$front_port ZSM_STATS_PORT=$stats_port
haproxy -c -q -f "$here/haproxy.cfg"
haproxy -db -f "$here/haproxy.cfg" >"$work/haproxy.log" 2>&1 &
pids+=($!)
sleep 0.3
kill -0 "${pids[-1]}" 2>/dev/null ||
  { echo "run-local: HAProxy did not start:" >&2; cat "$work/haproxy.log" >&2; exit 1; }
for _ in $(seq 50); do
  up=$(curl -fs "http://127.0.0.1:$stats_port/stats;csv" 2>/dev/null | grep -c ',UP,' || true)
  [[ "$up" -ge 6 ]] && break
  sleep 0.2
done

cat <<INFO
run-local: devices use http://127.0.0.1:$front_port/ (sample account demo / demo-secret)
run-local: replicas r1-r3 on 127.0.0.1:$first_port-$((first_port + 2)), console at
           http://127.0.0.1:$first_port/admin/ (any replica; not through HAProxy)
run-local: HAProxy's server states at http://127.0.0.1:$stats_port/stats
run-local: logs in $work (removed on exit)
INFO

if [[ $check -eq 1 ]]; then
  fail=0
  [[ "$up" -ge 6 ]] || { echo "run-local: HAProxy sees $up of 6 servers up" >&2; fail=1; }
  for path in /media/files/welcome.mp4 /media/hls/feature/master.m3u8; do
    code=$(curl -s -o /dev/null -w '%{http_code}' "http://127.0.0.1:$front_port$path")
    [[ "$code" == 200 ]] || { echo "run-local: $path through HAProxy: $code" >&2; fail=1; }
  done
  code=$(curl -s -o /dev/null -w '%{http_code}' "http://127.0.0.1:$front_port/admin/")
  [[ "$code" == 403 ]] || { echo "run-local: the console through HAProxy: $code" >&2; fail=1; }
  # A device's signed request, as the sample account: HAProxy keeps the Host the
  # device signed.
  for endpoint in validate subscribe catalog; do
    host="127.0.0.1:$front_port"
    url="http://$host/Subscriptions/client/$endpoint"
    extra=""
    [[ $endpoint == subscribe ]] && extra='"feed":"morning-news",'
    body="{${extra}\"request_header\":{\"device_id\":\"check\",\"user_id\":\"demo\",\"timestamp\":$(date +%s),\"key\":\"$(printf demo-public-key | base64)\"}}"
    sig=$(printf 'POST\n%s\n%s\n%s\n%s' "$host" "$url" "$body" "$(printf demo-secret | base64)" |
      openssl dgst -sha256 -hmac demo-secret | awk '{print $NF}')
    reply=$(curl -s -X POST -H 'Content-Type: application/json' --data "$body" "$url?sig=$sig")
    [[ "$reply" == *'"response_code":0'* ]] ||
      { echo "run-local: $endpoint through HAProxy: $reply" >&2; fail=1; }
  done
  # One validator for the same file whichever replica answers.
  etags=$(for _ in 1 2 3; do
    curl -sI "http://127.0.0.1:$front_port/media/files/welcome.mp4" | grep -i '^etag'
  done | sort -u | wc -l)
  [[ "$etags" == 1 ]] || { echo "run-local: $etags different ETags" >&2; fail=1; }
  [[ $fail -eq 0 ]] && echo "run-local: check passed"
  exit $fail
fi
echo "run-local: Ctrl-C stops everything"
wait "${pids[@]}"
