#!/usr/bin/env python3
"""Runs zsm-server and nginx side by side under the same closed-loop load and
prints, for each number of kept-alive devices: requests per second, p50/p99,
errors, the server's threads, resident memory and CPU per request, with the
ratio to nginx serving the same catalog bytes as a static file.

Each device subscribes to two feeds, then asks for its catalog since a time after
the newest item (a small incremental reply) as fast as the server answers.
Devices are spread over 127.0.X.Y source addresses, 50 per address, so the
server's per-address cap (64) is honoured; past 1,000 devices the total cap is
raised by flag, which the server documents.

  bench/refserver/http_vs_nginx.py --build build-bench [--devices 50,1000,10000]
                                   [--seconds 8] [--threads-client 2]

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


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build-bench")
    ap.add_argument("--devices", default="50,1000,10000")
    ap.add_argument("--seconds", type=float, default=8)
    ap.add_argument("--threads-client", type=int, default=2)
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
        for devices in [int(d) for d in a.devices.split(",")]:
            port = free_port()
            flags = ["--max-connections", str(devices + 2048)] if devices > 2000 else []
            srv = subprocess.Popen([server, "serve", "--data", data, "--port", str(port),
                                    "--no-console", "--log-level", "warn", *flags],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            srv.stdout.readline()  # "listening on ..."
            common = ["--port", str(port), "--devices", str(devices), "--seconds", str(a.seconds),
                      "--threads", str(a.threads_client), "--since", since]
            body = os.path.join(work, "catalog.json")
            subprocess.run(client + common[:2] + ["--devices", "1", "--seconds", "2", "--since", since,
                                                  "--dump", body], check=True)
            zsm = run_load(client, common, lambda: [srv.pid])
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
                                       "--threads", str(a.threads_client)],
                              lambda: family(ng.pid))
            ng.terminate()
            ng.wait()
            rows.append((devices, zsm, static, os.path.getsize(body)))
            print(f"D={devices}: zsm {json.dumps(zsm)}\n        nginx {json.dumps(static)}",
                  file=sys.stderr)
    finally:
        shutil.rmtree(work, ignore_errors=True)

    print("| devices | server | req/s | p50 ms | p99 ms | errors | threads | RSS MB | CPU ms/req | CPU ratio |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    for devices, zsm, static, size in rows:
        ratio = zsm["cpu_ms_per_req"] / max(1e-9, static["cpu_ms_per_req"])
        for name, r in (("zsm-server", zsm), ("nginx", static)):
            print(f"| {devices:,} | {name} | {r['rps']:,.0f} | {r['p50_ms']:.2f} | {r['p99_ms']:.2f} | "
                  f"{r['errors'] + r.get('setup_errors', 0)} | {r['threads']} | {r['rss_mb']:.0f} | "
                  f"{r['cpu_ms_per_req']:.4f} | {f'{ratio:.1f}x' if name == 'zsm-server' else '1'} |")
    print(f"\ncatalog reply: {rows[0][3] if rows else 0} bytes")


if __name__ == "__main__":
    main()
