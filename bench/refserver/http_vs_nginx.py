#!/usr/bin/env python3
"""Runs zsm-server and nginx side by side under the same closed-loop load and
prints, for each number of kept-alive devices: requests per second, p50/p99,
errors, the server's threads, resident memory and CPU per request, with the
ratio to nginx serving the same catalog bytes as a static file.

Each device subscribes to two feeds, then asks for its catalog since a time after
the newest item (a small incremental reply): every 1-2 s (2-4 s past 1,000
devices, with the server's keep-alive idle limit raised to 10 s), as devices that
sync now and then do, or with --interval-ms 0 again as soon as it is answered.
Devices are spread over 127.0.X.Y source addresses, 50 per address, so the
server's per-address cap (64) is honoured; past 1,000 devices the total cap is
raised by flag, which the server documents.

  bench/refserver/http_vs_nginx.py --build build-bench [--devices 50,1000,10000]
                                   [--seconds 8] [--threads-client 2]
                                   [--first-sync] [--unrelated 50000]

--first-sync adds a run of 20 devices each fetching its whole catalog (20 feeds x
500 items) again and again, every reply parsed as JSON: resident memory before and
at its peak. --unrelated N adds two runs of 50 devices, without and with N items in
a feed nobody subscribes to: CPU per incremental catalog of each.

Needs a Release build with -DZSM_BUILD_BENCH=ON and nginx on the PATH. Loopback
only; every file lives in a temporary folder that is removed at the end.
"""
import argparse
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

CLK = os.sysconf("SC_CLK_TCK")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def proc_figures(pids):
    """CPU seconds, threads and resident MB summed over `pids`."""
    cpu, threads, rss = 0.0, 0, 0.0
    for pid in pids:
        try:
            with open(f"/proc/{pid}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
            cpu += (int(fields[11]) + int(fields[12])) / CLK
            with open(f"/proc/{pid}/status") as f:
                for line in f:
                    if line.startswith("Threads:"):
                        threads += int(line.split()[1])
                    elif line.startswith("VmRSS:"):
                        rss += int(line.split()[1]) / 1024
        except FileNotFoundError:
            pass
    return cpu, threads, rss


def family(pid):
    out = subprocess.run(["pgrep", "-P", str(pid)], capture_output=True, text=True).stdout
    return [pid] + [int(p) for p in out.split()]


def run_load(client, args, pids_of):
    """Runs the load client; samples the server between its measuring marks."""
    p = subprocess.Popen(client + args, stdout=subprocess.PIPE, text=True)
    before = after = None
    peak_threads, peak_rss = 0, 0.0
    result = None
    for line in p.stdout:
        line = line.strip()
        if line == "measuring":
            before = proc_figures(pids_of())
        elif line == "measured":
            after = proc_figures(pids_of())
        elif line.startswith("{"):
            result = json.loads(line)
        fig = proc_figures(pids_of())
        peak_threads, peak_rss = max(peak_threads, fig[1]), max(peak_rss, fig[2])
    p.wait()
    if result is None or before is None or after is None:
        raise RuntimeError("the load client ended without figures")
    result["cpu_s"] = after[0] - before[0]
    result["threads"] = max(peak_threads, after[1])
    result["rss_mb"] = max(peak_rss, after[2])
    result["cpu_ms_per_req"] = 1000 * result["cpu_s"] / max(1, result["ok"])
    return result


def write_seed(path, feeds, items, with_bench_account=True):
    """A seed of `feeds` feeds f0.. of `items` items each (about 290 bytes each in a catalog)."""
    seed = {"accounts": [{"user": "bench", "key": "bench-key", "secret": "bench-secret"}]
            if with_bench_account else [], "feeds": []}
    for f in range(feeds):
        seed["feeds"].append({
            "id": f"f{f}", "title": f"Feed {f}", "subscribable": True,
            "items": [{"remoteUUID": f"f{f}-{i:06d}", "created": 1700000000000 + i,
                       "metadata": {"title": f"Item {i} of feed {f}",
                                    "desc": "A description of the item, as long as a typical one.",
                                    "downloadURL": f"http://cdn.example/f{f}/{i}.mp4",
                                    "mediaType": 0, "mime": "video/mp4"}}
                      for i in range(items)]})
    with open(path, "w") as out:
        json.dump(seed, out)


def serve(server, data, extra=()):
    port = free_port()
    srv = subprocess.Popen([server, "--log-level", "warn", "serve", "--data", data, "--port", str(port),
                            "--no-console", *extra],
                           stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    srv.stdout.readline()  # "listening on ..."
    return srv, port


def first_sync(server, client, work, seconds):
    data = os.path.join(work, "first-sync")
    seed = os.path.join(work, "first-sync.json")
    write_seed(seed, 20, 500)
    srv, port = serve(server, data, ["--seed", seed])
    time.sleep(0.5)
    base = proc_figures([srv.pid])[2]
    feeds = ",".join(f"f{f}" for f in range(20))
    r = run_load(client, ["--port", str(port), "--devices", "20", "--seconds", str(seconds),
                          "--feeds", feeds, "--verify", "1", "--threads", "2"], lambda: [srv.pid])
    srv.terminate()
    srv.wait()
    print(f"first sync, 20 devices x (20 feeds x 500 items): {r['ok']} catalogs, {r['errors']} errors, "
          f"p50 {r['p50_ms']:.0f} ms, RSS {base:.0f} MB before, {r['rss_mb']:.0f} MB at peak "
          f"(+{r['rss_mb'] - base:.0f} MB), {r['cpu_ms_per_req']:.1f} ms CPU each, "
          f"{r['threads']} threads" + (f"; first error: {r['first_error']}" if r["first_error"] else ""))


def unrelated(server, client, work, seconds, count):
    figures = []
    for n in (0, count):
        data = os.path.join(work, f"unrelated-{n}")
        seed = os.path.join(work, f"unrelated-{n}.json")
        write_seed(seed, 2, 20)
        if n:
            with open(seed) as f:
                s = json.load(f)
            s["feeds"].append({"id": "unread", "title": "Unread", "subscribable": True,
                               "items": [{"remoteUUID": f"u-{i}", "created": 1700000000000 + i,
                                          "metadata": {"downloadURL": f"http://x/{i}"}}
                                         for i in range(n)]})
            with open(seed, "w") as f:
                json.dump(s, f)
        srv, port = serve(server, data, ["--seed", seed])
        r = run_load(client, ["--port", str(port), "--devices", "50", "--seconds", str(seconds),
                              "--feeds", "f0,f1", "--since", str(int(time.time() * 1000))],
                     lambda: [srv.pid])
        srv.terminate()
        srv.wait()
        figures.append(r)
    a, b = figures
    print(f"incremental catalog, 50 devices: {a['cpu_ms_per_req']:.4f} ms CPU/request without, "
          f"{b['cpu_ms_per_req']:.4f} with {count:,} unrelated items "
          f"({b['cpu_ms_per_req'] / max(1e-9, a['cpu_ms_per_req']):.2f}x); "
          f"{a['rps']:,.0f} / {b['rps']:,.0f} req/s")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build-bench")
    ap.add_argument("--devices", default="50,1000,10000")
    ap.add_argument("--seconds", type=float, default=8)
    ap.add_argument("--threads-client", type=int, default=2)
    ap.add_argument("--first-sync", action="store_true")
    ap.add_argument("--unrelated", type=int, default=0)
    ap.add_argument("--server-flags", default="", help="more zsm-server serve flags, space-separated")
    ap.add_argument("--interval-ms", default="auto",
                    help="pause after each reply, MIN-MAX ms; 0: closed loop; auto: 1000-2000 up to "
                         "1,000 devices, 2000-4000 beyond (with --keep-alive-timeout 10)")
    a = ap.parse_args()
    server = os.path.join(a.build, "reference/server/zsm-server")
    client = [os.path.join(a.build, "bench/refserver/refserver_http_load")]
    nginx = shutil.which("nginx") or "/usr/sbin/nginx"
    work = tempfile.mkdtemp(prefix="zsm-http-bench-")
    rows = []
    try:
        data = os.path.join(work, "data")
        def admin(*args):
            subprocess.run([server, *args, "--data", data], check=True, capture_output=True)
        admin("add-account", "--user", "bench", "--key", "bench-key", "--secret", "bench-secret")
        for feed in ("f1", "f2"):
            admin("add-feed", "--id", feed, "--title", feed.upper())
            for i in range(3):
                admin("add-item", "--uuid", f"{feed}-{i}", "--feed", feed, "--title", f"{feed} {i}",
                      "--url", f"http://cdn.example/{feed}/{i}.mp4", "--created", str(1700000000 + i))
        since = str(int(time.time() * 1000))
        if a.first_sync:
            first_sync(server, client, work, a.seconds)
        if a.unrelated:
            unrelated(server, client, work, a.seconds, a.unrelated)
        for devices in [int(d) for d in a.devices.split(",") if d]:
            flags = ["--max-connections", str(devices + 2048)] if devices > 2000 else []
            interval = a.interval_ms
            if interval == "auto":
                interval = "1000-2000" if devices <= 1000 else "2000-4000"
                if devices > 1000:
                    flags += ["--keep-alive-timeout", "10"]
            flags += a.server_flags.split()
            pacing = ["--interval-ms", interval] if interval != "0" else []
            srv, port = serve(server, data, flags)
            common = ["--port", str(port), "--devices", str(devices), "--seconds", str(a.seconds),
                      "--threads", str(a.threads_client), "--since", since]
            body = os.path.join(work, "catalog.json")
            subprocess.run(client + common[:2] + ["--devices", "1", "--seconds", "2", "--since", since,
                                                  "--dump", body], check=True)
            zsm = run_load(client, common + pacing, lambda: [srv.pid])
            srv.terminate()
            srv.wait()

            root = os.path.join(work, "www")
            os.makedirs(root, exist_ok=True)
            shutil.copy(body, os.path.join(root, "catalog.json"))
            nport = free_port()
            conf = os.path.join(work, "nginx.conf")
            with open(conf, "w") as f:
                f.write(f"""worker_processes auto;
pid {work}/nginx.pid;
error_log {work}/nginx-error.log;
{"user root;" if os.getuid() == 0 else ""}
worker_rlimit_nofile 30000;
events {{ worker_connections 15000; }}
http {{
  access_log off;
  keepalive_timeout 60s;
  keepalive_requests 1000000;
  default_type application/json;
  server {{ listen 127.0.0.1:{nport}; root {root}; }}
}}
""")
            ng = subprocess.Popen([nginx, "-p", work, "-c", conf, "-g", "daemon off;"],
                                  stderr=subprocess.DEVNULL)
            time.sleep(0.5)
            static = run_load(client, ["--mode", "static", "--path", "/catalog.json", "--port", str(nport),
                                       "--devices", str(devices), "--seconds", str(a.seconds),
                                       "--threads", str(a.threads_client), *pacing],
                              lambda: family(ng.pid))
            ng.terminate()
            ng.wait()
            rows.append((devices, zsm, static, os.path.getsize(body)))
            print(f"D={devices}: zsm {json.dumps(zsm)}\n        nginx {json.dumps(static)}",
                  file=sys.stderr)
    finally:
        shutil.rmtree(work, ignore_errors=True)

    if not rows:
        return
    print("| devices | server | req/s | p50 ms | p99 ms | errors | threads | RSS MB | CPU ms/req | CPU ratio |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    for devices, zsm, static, size in rows:
        ratio = zsm["cpu_ms_per_req"] / max(1e-9, static["cpu_ms_per_req"])
        for name, r in (("zsm-server", zsm), ("nginx", static)):
            print(f"| {devices:,} | {name} | {r['rps']:,.0f} | {r['p50_ms']:.2f} | {r['p99_ms']:.2f} | "
                  f"{r['errors'] + r.get('setup_errors', 0)} | {r['threads']} | {r['rss_mb']:.0f} | "
                  f"{r['cpu_ms_per_req']:.4f} | {f'{ratio:.1f}x' if name == 'zsm-server' else '1'} |")
    if rows:
        print(f"\ncatalog reply: {rows[0][3]} bytes")


if __name__ == "__main__":
    main()
