#!/usr/bin/env python3
"""Fault-injection soak of the whole system on loopback.

zsm-server serves the sample content through a loopback proxy of the soak's
own (which can drop, reset or stall the link and records every request); zsm,
the command-line host with the reference engine and the library inside, syncs
and downloads through it. Each cycle applies one fault, chosen by a seeded
random generator: kill -9 of the host during a sync, during downloads or just
after a sync; kill -9 of the server; a dropped, reset or stalled link; a full
disk; two hosts at once on one data folder. Between cycles the server
publishes new items and the device tightens or loosens its feeds' rules, which
removes items. After each cycle the invariants are checked:

  - the device's store and the server's database pass PRAGMA integrity_check;
  - each item is tracked once (no asset ID twice, no asset in two places);
  - every asset of a feed item is tracked by a feed (none left orphaned);
  - every finished download is byte-identical to the server's media;
  - no feed holds more items than its maximum;
  - every asset that went away has its deletion, with a reason, in the log;
  - a download cut short resumes (a Range request from where it stopped)
    rather than starting again;
  - a second host on a data folder is refused, naming the first.

The run is seeded and prints its seed; ZSM_SOAK_SEED repeats one. It runs
for --minutes (ZSM_SOAK_MINUTES overrides), then prints its figures. The exit
status is 0 when every check held, 1 otherwise.
"""

import argparse
import glob
import hashlib
import json
import os
import random
import re
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

FEEDS = ["morning-news", "feature-films", "archive"]
FILES = ["files/morning-news-1.mp4", "files/morning-news-2.mp4", "files/morning-news-3.mp4",
         "files/archive-1.mp4"]
FAULTS = ["kill-host-during-sync", "kill-host-during-downloads", "kill-host-after-sync",
          "kill-server", "link-drop", "link-reset", "link-stall", "full-disk", "two-hosts",
          "none"]
STATE_COMPLETE = 3  # AssetState::kComplete in the engine's rows


class Proxy:
    """A loopback TCP proxy with link faults; records each HTTP request head."""

    def __init__(self, rng):
        self.rng = rng
        self.target = None
        self.mode = "ok"
        self.rate = 600 * 1024  # bytes per second towards the device
        self.requests = []  # (time, method, path, range)
        self.lock = threading.Lock()
        self.sock = socket.socket()
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.sock.bind(("127.0.0.1", 0))
        self.sock.listen(64)
        self.port = self.sock.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client, _ = self.sock.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        with self.lock:
            mode, target = self.mode, self.target
            cut = self.rng.randint(1, 96 * 1024)
            stall = self.rng.uniform(2.0, 6.0)
        if mode == "drop" or target is None:
            client.close()
            return
        try:
            upstream = socket.create_connection(("127.0.0.1", target), timeout=5)
        except OSError:
            client.close()
            return
        upstream.settimeout(None)
        threading.Thread(target=self._up, args=(client, upstream), daemon=True).start()
        sent = 0
        try:
            while True:
                data = upstream.recv(16 * 1024)
                if not data:
                    break
                if mode in ("reset", "stall") and sent + len(data) > cut:
                    if mode == "reset":
                        client.sendall(data[: cut - sent])
                        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                          b"\x01\x00\x00\x00\x00\x00\x00\x00")
                        break
                    time.sleep(stall)
                    mode = "ok"
                client.sendall(data)
                sent += len(data)
                time.sleep(len(data) / self.rate)
        except OSError:
            pass
        for s in (client, upstream):
            try:
                s.close()
            except OSError:
                pass

    def _up(self, client, upstream):
        head = b""
        try:
            while True:
                data = client.recv(16 * 1024)
                if not data:
                    break
                head += data
                while b"\r\n\r\n" in head:
                    one, head = head.split(b"\r\n\r\n", 1)
                    self._record(one.decode("latin-1"))
                    length = re.search(r"(?im)^content-length:\s*(\d+)", one.decode("latin-1"))
                    if length:
                        head = head[int(length.group(1)):]
                upstream.sendall(data)
        except OSError:
            pass
        try:
            upstream.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def _record(self, head):
        line = head.split("\r\n", 1)[0].split(" ")
        if len(line) < 2:
            return
        ranged = re.search(r"(?im)^range:\s*bytes=(\d+)-", head)
        with self.lock:
            self.requests.append((time.time(), line[0], line[1],
                                  int(ranged.group(1)) if ranged else None))

    def set(self, mode=None, target=None):
        with self.lock:
            if mode is not None:
                self.mode = mode
            if target is not None:
                self.target = target


class Soak:
    def __init__(self, args):
        self.args = args
        self.seed = args.seed
        self.rng = random.Random(self.seed)
        self.work = tempfile.mkdtemp(prefix="zsm-soak-")
        self.server_data = os.path.join(self.work, "server")
        self.device = os.path.join(self.work, "device")
        os.makedirs(self.server_data)
        os.makedirs(self.device)
        self.mounted = False
        self.server = None
        self.proxy = Proxy(random.Random(self.seed + 1))
        self.checks = 0
        self.failures = []
        self.reported = set()
        self.orphan_age = {}  # media folder without an asset -> checks it was seen at
        self.cycles = 0
        self.faults = {}
        self.feed_items = set()  # asset IDs published into feeds
        self.published = 0
        self.known = {}  # asset UUID -> asset ID, as of the last check
        self.partials = []  # (kill time, media path, bytes on disk)
        self.media_cache = {}
        # How often the checks that need an occasion had one.
        self.seen = {"identical downloads": 0, "resumes": 0, "deletions": 0, "refusals": 0,
                     "server kills": 0}

    # --- processes --------------------------------------------------------

    def start_server(self, generate=False):
        cmd = [self.args.server, "serve", "--data", self.server_data, "--port", "0"]
        if generate:
            cmd.append("--generate-sample")
        log = open(os.path.join(self.work, "server.log"), "a")
        self.server = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=log, text=True)
        deadline = time.time() + 20
        while time.time() < deadline:
            line = self.server.stdout.readline()
            if not line:
                break
            if "listening on " in line:
                url = line.split("listening on ", 1)[1].strip()
                self.proxy.set(target=int(url.rsplit(":", 1)[1]))
                self.server_url = url
                threading.Thread(target=self.server.stdout.read, daemon=True).start()
                return
        raise RuntimeError("the server did not start")

    def kill_server(self):
        self.server.send_signal(signal.SIGKILL)
        self.server.wait()

    def zsm_cmd(self, *args, keep_free=1):
        return [self.args.zsm, "--data", self.device, "--json", "--log-level", "info",
                "--timeout", "10", "--keep-free", str(keep_free)] + list(args)

    def zsm(self, *args, timeout=120, keep_free=1):
        with open(os.path.join(self.work, "zsm.log"), "a") as log:
            run = subprocess.run(self.zsm_cmd(*args, keep_free=keep_free), stdout=subprocess.PIPE,
                                 stderr=log, text=True, timeout=timeout)
        try:
            doc = json.loads(run.stdout) if run.stdout.strip() else None
        except ValueError:
            doc = None
        return run.returncode, doc, run.stdout

    def spawn_zsm(self, *args, keep_free=1):
        log = open(os.path.join(self.work, "zsm.log"), "a")
        return subprocess.Popen(self.zsm_cmd(*args, keep_free=keep_free), stdout=subprocess.PIPE,
                                stderr=log, text=True)

    def admin(self, *args):
        subprocess.run([self.args.server, args[0], "--data", self.server_data] + list(args[1:]),
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def note(self, text):
        if self.args.verbose:
            print("cycle %d: %s" % (self.cycles, text), flush=True)

    # --- set-up -------------------------------------------------------------

    def set_up(self):
        # A small disk for the device when the machine lets us mount one.
        if os.geteuid() == 0 and shutil.which("mount"):
            if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=96m", "tmpfs", self.device],
                              stderr=subprocess.DEVNULL).returncode == 0:
                self.mounted = True
        self.start_server(generate=True)
        proxy_url = "http://127.0.0.1:%d" % self.proxy.port
        status, _, out = self.zsm("config", "--server", proxy_url, "--user", "demo", "--key",
                                  "demo-public-key", "--secret", "demo-secret")
        if status != 0:
            raise RuntimeError("zsm config failed: " + out)
        self.zsm("settings", "set", "last-sync", "now-86400")
        for feed in FEEDS:
            self.zsm("subscribe", feed)
        self.feed_items.update(["news-0001", "news-0002", "news-0003", "film-0001",
                                "archive-0001"])

    def tear_down(self):
        for p in (self.server,):
            if p and p.poll() is None:
                p.kill()
                p.wait()
        if self.mounted:
            if self.failures and self.args.keep:
                shutil.copytree(self.device, self.device + "-kept", symlinks=True,
                                ignore_dangling_symlinks=True)
            subprocess.run(["umount", "-l", self.device])
        if not self.failures or not self.args.keep:
            shutil.rmtree(self.work, ignore_errors=True)

    # --- between cycles -----------------------------------------------------

    def change_content(self):
        r = self.rng.random()
        self.note("change %.2f" % r)
        if r < 0.5:
            self.published += 1
            feed = self.rng.choice(["morning-news", "archive"])
            uuid = "soak-%d-%04d" % (self.seed % 100000, self.published)
            self.admin("add-item", "--feed", feed, "--uuid", uuid, "--media", self.new_media(uuid),
                       "--title", "Soak %d" % self.published)
            self.feed_items.add(uuid)
        elif r < 0.65:
            self.zsm("publish", "--title", "Direct %d" % self.cycles, "--url",
                     "http://127.0.0.1:%d/media/files/welcome.mp4" % self.proxy.port)
        elif r < 0.85:
            # Removals: a tighter maximum trims the feed.
            feed = self.rng.choice(FEEDS)
            self.zsm("subscribe", feed, "--max-items", str(self.rng.randint(1, 3)), "--autodelete",
                     "on")
        else:
            self.zsm("subscribe", self.rng.choice(FEEDS), "--max-items", "0")

    def new_media(self, uuid):
        """A media file of its own for a new item: a sample file with the item's
        name appended, so that its URL and its bytes are the item's alone."""
        source = os.path.join(self.server_data, "media", self.rng.choice(FILES))
        name = "soak/%s.mp4" % uuid
        target = os.path.join(self.server_data, "media", name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(source, target)
        with open(target, "ab") as f:
            f.write(uuid.encode() * self.rng.randint(1, 4096))
        return name

    # --- one cycle ----------------------------------------------------------

    def watch(self, *extra, keep_free=1):
        return self.spawn_zsm("sync", "--watch", "--watch-timeout", "20", *extra,
                              keep_free=keep_free)

    def kill_after(self, process, delay):
        time.sleep(delay)
        if process.poll() is None:
            process.send_signal(signal.SIGKILL)
            self.note_partials()
        process.wait()

    def note_partials(self):
        now = time.time()
        for path in glob.glob(os.path.join(self.device, "engine", "media", "*", "content.partial")):
            try:
                size = os.path.getsize(path)
            except OSError:
                continue
            if size > 0:
                self.partials.append((now, os.path.basename(os.path.dirname(path)), size))

    def cycle(self, fault):
        self.proxy.set(mode="ok")
        if fault == "kill-host-during-sync":
            self.kill_after(self.watch(), self.rng.uniform(0.05, 0.6))
        elif fault == "kill-host-during-downloads":
            self.proxy.rate = 150 * 1024  # slow enough to be caught mid-body
            self.kill_after(self.watch(), self.rng.uniform(0.8, 3.0))
            self.proxy.rate = 600 * 1024
        elif fault == "kill-host-after-sync":
            # A plain sync ends as soon as the catalog is processed: the kill
            # lands inside the store's commit window after it.
            p = self.spawn_zsm("sync")
            deadline = time.time() + 30
            while p.poll() is None and time.time() < deadline:
                if self.last_sync_changed():
                    break
                time.sleep(0.002)
            if p.poll() is None:
                p.send_signal(signal.SIGKILL)
            p.wait()
        elif fault == "kill-server":
            p = self.watch()
            time.sleep(self.rng.uniform(0.1, 2.0))
            self.kill_server()
            self.seen["server kills"] += 1
            self.check_server_db()
            time.sleep(self.rng.uniform(0.0, 1.0))
            self.start_server()
            p.wait()
        elif fault in ("link-drop", "link-reset", "link-stall"):
            self.proxy.set(mode=fault.split("-")[1])
            p = self.watch()
            time.sleep(self.rng.uniform(0.5, 3.0))
            self.proxy.set(mode="ok")
            p.wait()
        elif fault == "full-disk":
            self.full_disk_cycle()
        elif fault == "two-hosts":
            first = self.watch()
            time.sleep(0.5)
            second = subprocess.run(self.zsm_cmd("sync"), stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, text=True, timeout=60)
            first_alive = first.poll() is None
            first.wait()
            if first_alive:
                said = second.stdout + second.stderr
                self.seen["refusals"] += 1
                self.check("a second host on the folder is refused and names the first",
                           second.returncode != 0 and
                           ("in use by process %d" % first.pid) in said, said.strip()[:300])
        else:
            self.watch().wait()

    def last_sync_changed(self):
        path = os.path.join(self.device, "user-defaults.json")
        try:
            return os.path.getmtime(path) > self.cycle_started
        except OSError:
            return False

    def full_disk_cycle(self):
        if not self.mounted:
            # No small disk to fill: the engine's own free-space guard.
            self.watch(keep_free=10 ** 6).wait()
            return
        # Something new to fetch, then a disk with about 64 KiB left.
        self.published += 1
        uuid = "soak-%d-%04d" % (self.seed % 100000, self.published)
        self.admin("add-item", "--feed", "morning-news", "--uuid", uuid, "--media",
                   self.new_media(uuid), "--title", "Soak %d" % self.published)
        self.feed_items.add(uuid)
        filler = os.path.join(self.device, "filler")
        st = os.statvfs(self.device)
        free = st.f_bavail * st.f_frsize
        left = self.rng.choice([0, 16 * 1024, 64 * 1024, 256 * 1024])
        with open(filler, "wb") as f:
            try:
                f.truncate(0)
                chunk = b"\0" * (1 << 20)
                todo = max(0, free - left)
                while todo > 0:
                    todo -= f.write(chunk[: min(len(chunk), todo)])
                f.flush()
            except OSError:
                pass
        try:
            p = self.watch(keep_free=0)
            p.wait()
        finally:
            os.remove(filler)

    # --- invariants ---------------------------------------------------------

    def check(self, what, ok, detail=""):
        self.checks += 1
        if not ok:
            self.failures.append("cycle %d: %s %s" % (self.cycles, what, detail))
            # A state that stays broken is reported when first seen.
            if (what, detail) not in self.reported:
                self.reported.add((what, detail))
                print("FAILED cycle %d: %s %s" % (self.cycles, what, detail), flush=True)

    def check_server_db(self):
        path = os.path.join(self.server_data, "server.sqlite")
        if os.path.exists(path):
            db = sqlite3.connect("file:%s?mode=ro" % path, uri=True, timeout=10)
            ok = db.execute("PRAGMA integrity_check").fetchone()[0]
            db.close()
            self.check("the server's database is sound after kill -9", ok == "ok", ok)

    def media(self, url):
        path = url.split("/media/", 1)[1] if "/media/" in url else None
        if path is None:
            return None
        if path not in self.media_cache:
            with urllib.request.urlopen(self.server_url + "/media/" + path, timeout=10) as r:
                self.media_cache[path] = hashlib.sha256(r.read()).hexdigest()
        return self.media_cache[path]

    def check_device(self):
        path = os.path.join(self.device, "engine", "engine.sqlite3")
        if not os.path.exists(path):
            return
        db = sqlite3.connect(path, timeout=10)
        q = lambda sql: db.execute(sql).fetchall()
        integrity = q("PRAGMA integrity_check")[0][0]
        self.check("the device's store is sound", integrity == "ok", integrity)
        twice = q("SELECT asset_id, count(*) FROM assets WHERE state != 5 GROUP BY asset_id "
                  "HAVING count(*) > 1")
        self.check("each item has one asset", not twice, str(twice))
        tracked_twice = q("SELECT asset_uuid, count(*) FROM subscription_items GROUP BY "
                          "asset_uuid HAVING count(*) > 1")
        self.check("each asset is tracked once", not tracked_twice, str(tracked_twice))
        dangling = q("SELECT asset_uuid FROM subscription_items WHERE asset_uuid NOT IN "
                     "(SELECT uuid FROM assets)")
        self.check("every tracked item has its asset", not dangling, str(dangling))
        untracked = [a for (u, a) in q("SELECT uuid, asset_id FROM assets WHERE uuid NOT IN "
                                       "(SELECT asset_uuid FROM subscription_items)")
                     if a in self.feed_items]
        self.check("every feed item's asset is tracked by its feed", not untracked,
                   str(untracked))
        for (uuid, url, local) in q("SELECT uuid, url, local_path FROM assets WHERE state = %d "
                                    "AND manifest = 0" % STATE_COMPLETE):
            file = os.path.join(self.device, "engine", local)
            try:
                with open(file, "rb") as f:
                    digest = hashlib.sha256(f.read()).hexdigest()
            except OSError:
                digest = None
            expected = self.media(url)
            if expected is not None:
                self.seen["identical downloads"] += 1
                self.check("a finished download is byte-identical to the server's media",
                           digest == expected, "%s %s" % (uuid, url))
        # A feed that deletes old items for new ones holds no more downloaded
        # items than its maximum once a host has run to its end (a new item
        # may wait beside them until its download finishes, and a killed host
        # leaves the trim to the next run); one that does not delete keeps
        # what it had when its maximum fell.
        for (feed, most, count) in q(
                "SELECT d.uuid, d.max_items, (SELECT count(*) FROM subscription_items i JOIN "
                "assets a ON a.uuid = i.asset_uuid WHERE i.record_id = d.id AND "
                "i.collection = 0 AND a.state = %d) FROM subscription_data d "
                "WHERE d.autodelete != 0" % STATE_COMPLETE):
            if most > 0 and self.host_ran_out:
                self.check("a feed holds no more than its maximum", count <= most,
                           "%s: %d > %d" % (feed, count, most))
        now = {u: a for (u, a) in q("SELECT uuid, asset_id FROM assets")}
        # A host killed mid-deletion, or a full disk that kept a new asset's
        # row from landing, leaves a folder no asset owns; the next start
        # removes it. Every cycle starts the engine, so a folder seen without
        # an owner two checks in a row is one the start left behind.
        orphans = set(os.listdir(os.path.join(self.device, "engine", "media"))) - set(now)
        for folder in orphans:
            self.orphan_age[folder] = self.orphan_age.get(folder, 0) + 1
        self.orphan_age = {f: a for f, a in self.orphan_age.items() if f in orphans}
        stale = sorted(f for f, a in self.orphan_age.items() if a > 2)
        self.check("start-up removes media folders no asset owns", not stale, str(stale))
        db.close()
        gone = set(self.known) - set(now)
        if gone:
            logs = ""
            for log in glob.glob(os.path.join(self.device, "engine", "engine*.log")):
                with open(log, errors="replace") as f:
                    logs += f.read()
            for uuid in gone:
                self.seen["deletions"] += 1
                self.check("a deletion is logged with its reason",
                           re.search(r"Deleted asset %s .* with reason -?\d+" % re.escape(uuid),
                                     logs) is not None, uuid)
        self.known = now
        self.check_resumes(now, path)

    def check_resumes(self, now, path):
        db = sqlite3.connect(path, timeout=10)
        urls = dict(db.execute("SELECT uuid, url FROM assets").fetchall())
        db.close()
        # A URL several assets share cannot tell whose request it was.
        shared = {u for u in urls.values() if list(urls.values()).count(u) > 1}
        keep = []
        with self.proxy.lock:
            requests = list(self.proxy.requests)
        for (killed, uuid, size) in self.partials:
            url = urls.get(uuid)
            if url is None or url in shared:
                continue  # deleted since, or not told apart: nothing to check
            target = url.split("127.0.0.1:%d" % self.proxy.port, 1)[-1]
            later = [r for r in requests if r[0] > killed and r[2] == target]
            if not later:
                keep.append((killed, uuid, size))
                continue
            first = later[0][3]
            self.seen["resumes"] += 1
            self.check("a download cut short resumes instead of restarting",
                       first is not None and first > 0, "%s asked from %s after %d bytes" %
                       (uuid, first, size))
        self.partials = keep

    # --- the run -------------------------------------------------------------

    def run(self):
        print("soak seed %d (ZSM_SOAK_SEED=%d repeats it), %.1f minutes, work in %s" %
              (self.seed, self.seed, self.args.minutes, self.work), flush=True)
        self.set_up()
        deadline = time.time() + self.args.minutes * 60
        try:
            while time.time() < deadline:
                self.cycles += 1
                self.change_content()
                fault = self.rng.choice(FAULTS)
                if fault == "full-disk" and self.rng.random() < 0.5:
                    fault = "none"  # a full disk is slow; not every other cycle
                self.faults[fault] = self.faults.get(fault, 0) + 1
                self.cycle_started = time.time()
                self.host_ran_out = not fault.startswith("kill-host")
                self.cycle(fault)
                self.proxy.set(mode="ok")
                if self.server.poll() is not None:
                    self.check("the server stays up", False, "exit %s" % self.server.returncode)
                    self.start_server()
                self.check_server_db()
                self.check_device()
                if self.args.verbose:
                    print("cycle %d: %s, %d checks" % (self.cycles, fault, self.checks),
                          flush=True)
        except KeyboardInterrupt:
            print("interrupted", flush=True)
        else:
            # A last quiet sync lets the device catch up; then everything is checked again.
            self.host_ran_out = True
            self.watch().wait()
            self.check_device()
        finally:
            self.tear_down()
        print("soak seed %d: %d cycles, %d checks, %d failed (%d distinct); faults %s; checked %s; "
              "small disk: %s" %
              (self.seed, self.cycles, self.checks, len(self.failures), len(self.reported),
               json.dumps(self.faults, sort_keys=True), json.dumps(self.seen, sort_keys=True),
               "tmpfs of 96 MiB" if self.mounted else "none (--keep-free only)"), flush=True)
        for what, detail in sorted(self.reported):
            print("  %s %s" % (what, detail), flush=True)
        return 0 if not self.failures else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--zsm", required=True)
    parser.add_argument("--server", required=True)
    parser.add_argument("--minutes", type=float, default=1.5)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--keep", action="store_true", help="keep the work folder on failure")
    parser.add_argument("--verbose", action="store_true")
    args = parser.parse_args()
    # Killed programs report no leaks, and the others' exit statuses are not
    # what the soak checks: the leak checker of a sanitizer build stays quiet.
    asan = os.environ.get("ASAN_OPTIONS", "")
    os.environ["ASAN_OPTIONS"] = (asan + ":" if asan else "") + "detect_leaks=0"
    if os.environ.get("ZSM_SOAK_MINUTES"):
        args.minutes = float(os.environ["ZSM_SOAK_MINUTES"])
    if args.seed is None:
        env = os.environ.get("ZSM_SOAK_SEED")
        args.seed = int(env) if env else random.SystemRandom().randrange(1, 2 ** 31)
    sys.exit(Soak(args).run())


if __name__ == "__main__":
    main()
