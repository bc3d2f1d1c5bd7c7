"""A real zsm-server on loopback for the package's tests.

ZSM_SERVER_PROGRAM names the server program and ZSM_LIBRARY the library (the
build sets both when ctest runs these tests)."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import tempfile
import time
import uuid
from pathlib import Path
from typing import Iterator, List

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))


class Server:
    """`zsm-server serve` as a child process, and its admin commands."""

    def __init__(self, program: str, data: Path, sample: bool = True) -> None:
        self.program = program
        self.data = data
        args = [program, "serve", "--data", str(data), "--address", "127.0.0.1", "--port", "0"]
        if sample:
            args.append("--generate-sample")
        self.process = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                        text=True)
        line = self.process.stdout.readline() if self.process.stdout else ""
        if "listening on " not in line:
            self.stop()
            raise RuntimeError(f"zsm-server did not start: {line!r}")
        self.url = line.split("listening on ", 1)[1].strip()

    def admin(self, *args: str) -> str:
        done = subprocess.run([self.program, args[0], "--data", str(self.data), *args[1:]],
                              capture_output=True, text=True, timeout=30)
        assert done.returncode == 0, done.stderr
        return done.stdout

    def stop(self) -> None:
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


def _program() -> str:
    program = os.environ.get("ZSM_SERVER_PROGRAM", "")
    if not program or not os.access(program, os.X_OK):
        pytest.skip("ZSM_SERVER_PROGRAM does not name the zsm-server program")
    return program


@pytest.fixture(scope="session")
def work() -> Iterator[Path]:
    folder = Path(tempfile.mkdtemp(prefix="zsm-python-"))
    yield folder
    shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture(scope="session")
def server(work: Path) -> Iterator[Server]:
    s = Server(_program(), work / "server")
    yield s
    s.stop()


@pytest.fixture
def plain_server(work: Path) -> Iterator[Server]:
    """A server of its own, without the sample, with the demo account."""
    s = Server(_program(), work / f"plain-{uuid.uuid4().hex[:8]}", sample=False)
    s.admin("add-account", "--user", "demo", "--key", "demo-public-key", "--secret", "demo-secret")
    yield s
    s.stop()


def device_settings(server: Server, folder: Path, **overrides: object) -> dict:
    settings = dict(data_folder=str(folder), server_url=server.url, user="demo",
                    key="demo-public-key", secret="demo-secret", free_space_margin=0)
    settings.update(overrides)
    return settings


def wait_until(condition, timeout: float = 30.0, poll=None) -> bool:
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if condition():
            return True
        if poll:
            poll(0.1)
        else:
            time.sleep(0.05)
    return condition()


__all__: List[str] = ["Server", "device_settings", "wait_until"]
