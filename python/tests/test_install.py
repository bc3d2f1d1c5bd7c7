"""The package as its READMEs tell a new user to use it: installed with pip into
a fresh virtual environment (no system packages, no network), and the READMEs'
snippet run as printed against a sample server."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import Server

HERE = Path(__file__).resolve().parent
PACKAGE_ROOT = HERE.parent
PROJECT_ROOT = PACKAGE_ROOT.parent


def _environment_without_sources() -> dict:
    env = dict(os.environ)
    env.pop("PYTHONPATH", None)  # the installed copy, not the sources
    env["PIP_NO_INDEX"] = "1"  # offline
    env["PIP_DISABLE_PIP_VERSION_CHECK"] = "1"
    return env


def test_installs_in_a_fresh_virtual_environment_offline(tmp_path: Path) -> None:
    venv = tmp_path / "venv"
    made = subprocess.run([sys.executable, "-m", "venv", str(venv)], capture_output=True,
                          text=True, timeout=120)
    if made.returncode != 0:
        pytest.skip(f"no venv module: {made.stderr.strip()}")
    source = tmp_path / "python"
    shutil.copytree(PACKAGE_ROOT, source, ignore=shutil.ignore_patterns("__pycache__", "tests"))
    env = _environment_without_sources()
    for isolation in (["--no-build-isolation"], []):
        installed = subprocess.run(
            [str(venv / "bin" / "pip"), "install", "--force-reinstall", *isolation, str(source)],
            capture_output=True, text=True, timeout=300, env=env, cwd=tmp_path)
        assert installed.returncode == 0, installed.stdout + installed.stderr
    # Building left nothing beside the sources.
    assert sorted(p.name for p in source.iterdir()) == sorted(
        p.name for p in PACKAGE_ROOT.iterdir() if p.name not in ("tests", "__pycache__"))
    probe = ("import zolvani_subscription as z, pathlib; "
             "print(pathlib.Path(z.__file__).parent); print(z.version())")
    loaded = subprocess.run([str(venv / "bin" / "python"), "-c", probe], capture_output=True,
                            text=True, timeout=60, env=env, cwd=tmp_path)
    if "ZSM_LIBRARY" not in env:
        pytest.skip("ZSM_LIBRARY is not set: the import was not tried with the library")
    assert loaded.returncode == 0, loaded.stderr
    where, version = loaded.stdout.split()
    assert Path(where).is_relative_to(venv)
    assert re.fullmatch(r"\d+\.\d+\.\d+", version)


def _snippet(readme: Path) -> str:
    blocks = re.findall(r"```python\n(.*?)```", readme.read_text(encoding="utf-8"), re.S)
    found = [b for b in blocks if "with Host(" in b]
    assert found, f"no Host snippet in {readme}"
    return found[0]


@pytest.mark.parametrize("readme", [PROJECT_ROOT / "README.md", PACKAGE_ROOT / "README.md"],
                         ids=["project", "package"])
def test_the_readme_snippet_downloads_on_a_new_device(readme: Path, server: Server,
                                                      tmp_path: Path) -> None:
    code = _snippet(readme)
    assert '"/tmp/device"' in code and '"http://127.0.0.1:8080"' in code
    code = code.replace('"/tmp/device"', repr(str(tmp_path / "device")))
    code = code.replace('"http://127.0.0.1:8080"', repr(server.url))
    env = dict(os.environ)
    env["PYTHONPATH"] = str(PACKAGE_ROOT)
    run = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                         timeout=180, env=env)
    assert run.returncode == 0, run.stdout + run.stderr
    done = [line.split() for line in run.stdout.splitlines() if line.startswith("complete ")]
    assert done, run.stdout
    for _, file in done:
        assert Path(file).is_file() and Path(file).stat().st_size > 0
