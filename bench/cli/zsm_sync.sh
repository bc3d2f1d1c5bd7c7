#!/usr/bin/env bash
# Times `zsm sync` of FEEDS feeds × 50 single-file items against zsm-server on
# loopback: the path a person takes with the command-line host, over the real
# store and the real server. Downloads point at a closed loopback port, so they
# fail at once and only the sync is measured.
#   bench/cli/zsm_sync.sh [BUILD_DIR] [FEEDS...]     (defaults: build-bench, 100)
# Prints one line per size: feeds, items, wall seconds of the sync, peak resident
# KiB of zsm, bytes zsm wrote to disk (its file-system output blocks), and the device store's size.
set -euo pipefail
build="${1:-build-bench}"
shift || true
sizes=("$@")
[ ${#sizes[@]} -eq 0 ] && sizes=(100)
zsm="$build/tools/cli/zsm"
server="$build/reference/server/zsm-server"
for tool in "$zsm" "$server"; do
  [ -x "$tool" ] || { echo "zsm_sync: $tool is missing; build the zsm and zsm-server targets" >&2; exit 2; }
done

printf '%-6s %-7s %-8s %-9s %-11s %-8s\n' feeds items sync_s peak_KiB written_MB store_MB
for feeds in "${sizes[@]}"; do
  work="$(mktemp -d)"
  server_pid=""
  cleanup() { [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null; wait 2>/dev/null || true; rm -rf "$work"; }
  trap cleanup EXIT
  /usr/bin/python3 - "$work/seed.json" "$feeds" <<'PY'
import json, sys, time
path, feeds = sys.argv[1], int(sys.argv[2])
now = int(time.time())
seed = {"accounts": [{"user": "bench", "key": "bench-key", "secret": "bench-secret"}], "feeds": []}
for f in range(feeds):
    items = [{"remoteUUID": f"f{f:05d}-i{i:03d}", "created": now - 3600 + f * 50 + i,
              "metadata": {"title": f"Feed {f} item {i}", "mediaType": 0, "mime": "video/mp4",
                           "downloadURL": f"http://127.0.0.1:1/f{f}/i{i}.mp4"}}
             for i in range(50)]
    seed["feeds"].append({"id": f"feed-{f:05d}", "title": f"Feed {f}", "subscribable": True,
                          "rules": {"max_assets": 50, "auto_delete": False, "max_bitrate": 0},
                          "items": items})
json.dump(seed, open(path, "w"))
PY
  "$server" serve --data "$work/server" --seed "$work/seed.json" > "$work/server.out" 2>"$work/server.err" &
  server_pid=$!
  for _ in $(seq 1 300); do grep -q "listening on" "$work/server.out" 2>/dev/null && break; sleep 0.1; done
  url="$(sed -n 's/^listening on //p' "$work/server.out")"
  [ -n "$url" ] || { echo "zsm_sync: the server did not start" >&2; cat "$work/server.err" >&2; exit 1; }
  device="BENCH-DEVICE-0001"
  "$zsm" --data "$work/device" config --server "$url" --user bench --key bench-key \
    --secret bench-secret --device-id "$device" > /dev/null
  # The device is subscribed on the server directly: a subscribe per feed would
  # time the set-up, not the sync.
  /usr/bin/python3 - "$work/server" "$feeds" "$device" <<'PY'
import pathlib, sqlite3, sys
folder, feeds, device = pathlib.Path(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
db = next(p for p in folder.iterdir() if p.suffix in (".db", ".sqlite", ".sqlite3"))
con = sqlite3.connect(db, timeout=30)
con.executemany("INSERT OR REPLACE INTO subscriptions (user, device, feed) VALUES ('bench', ?, ?)",
                [(device, f"feed-{f:05d}") for f in range(feeds)])
con.commit()
PY
  ${ZSM_SYNC_WRAP:-} /usr/bin/time -f "%e %M %O" -o "$work/time" "$zsm" --data "$work/device" sync --since 1d \
    > "$work/sync.out" 2> "$work/sync.err" || { cat "$work/sync.err" >&2; exit 1; }
  # %O counts the 512-byte blocks the file systems took from zsm, as write_bytes does.
  read -r seconds peak blocks < "$work/time"
  written=$((blocks * 512))
  store="$(find "$work/device" -name '*.sqlite*' -o -name '*.db*' | xargs -r du -cb | tail -1 | cut -f1)"
  printf '%-6s %-7s %-8s %-9s %-11s %-8s\n' "$feeds" "$((feeds * 50))" "$seconds" "$peak" \
    "$(awk -v b="$written" 'BEGIN{printf "%.1f", b/1e6}')" "$(awk -v b="${store:-0}" 'BEGIN{printf "%.1f", b/1e6}')"
  grep -i "added\|queued\|items" "$work/sync.out" | tail -2 >&2 || true
  cleanup
  trap - EXIT
done
