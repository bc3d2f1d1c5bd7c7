"""The package's own build backend (PEP 517 and PEP 660).

The package is pure Python over ctypes, so building it means zipping its
files with the metadata a wheel needs. Doing that here, with the standard
library only, lets ``pip install ./python`` (with or without
``--no-build-isolation``) work in a fresh virtual environment that has no
``wheel`` or recent ``setuptools``, and without a network.

A copy of libzsm placed next to the package's files (``libzsm.so*``) goes
into the wheel too; the wheel is then tagged for this platform.
"""

from __future__ import annotations

import base64
import hashlib
import io
import platform
import re
import tarfile
import zipfile
from pathlib import Path
from typing import Dict, List, Optional, Tuple

ROOT = Path(__file__).resolve().parent.parent
PACKAGE = "zolvani_subscription"


def _project() -> Dict[str, str]:
    """The [project] table's plain string fields of pyproject.toml."""
    text = (ROOT / "pyproject.toml").read_text(encoding="utf-8")
    try:
        import tomllib  # Python 3.11 and later
        project = tomllib.loads(text)["project"]
        return {k: v for k, v in project.items() if isinstance(v, str)}
    except ImportError:  # older Pythons: the few fields used here are simple
        section = text.split("[project]", 1)[1].split("\n[", 1)[0]
        return dict(re.findall(r'^([A-Za-z-]+)\s*=\s*"([^"]*)"', section, re.M))


def _names() -> Tuple[str, str]:
    project = _project()
    return project["name"], project["version"]


def _files() -> List[Path]:
    found = []
    for path in sorted((ROOT / PACKAGE).rglob("*")):
        if path.is_file() and "__pycache__" not in path.parts and path.suffix != ".pyc":
            found.append(path)
    return found


def _native(files: List[Path]) -> bool:
    return any(p.name.startswith("libzsm.so") for p in files)


def _tag(files: List[Path]) -> str:
    if not _native(files):
        return "py3-none-any"
    machine = platform.machine().lower().replace("-", "_")
    return f"py3-none-linux_{machine}"


def _metadata() -> str:
    project = _project()
    lines = [
        "Metadata-Version: 2.1",
        f"Name: {project['name']}",
        f"Version: {project['version']}",
    ]
    if "description" in project:
        lines.append(f"Summary: {project['description']}")
    if "requires-python" in project:
        lines.append(f"Requires-Python: {project['requires-python']}")
    readme = ROOT / project.get("readme", "README.md")
    body = ""
    if readme.is_file():
        lines.append("Description-Content-Type: text/markdown")
        body = readme.read_text(encoding="utf-8")
    return "\n".join(lines) + "\n\n" + body


def _wheel_text(files: List[Path]) -> str:
    return ("Wheel-Version: 1.0\nGenerator: zsm_build\n"
            f"Root-Is-Purelib: {'false' if _native(files) else 'true'}\nTag: {_tag(files)}\n")


def _record_line(name: str, data: bytes) -> str:
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(data)}"


def _write_wheel(directory: str, contents: List[Tuple[str, bytes]], files: List[Path]) -> str:
    name, version = _names()
    dist_info = f"{name}-{version}.dist-info"
    contents = contents + [(f"{dist_info}/METADATA", _metadata().encode()),
                           (f"{dist_info}/WHEEL", _wheel_text(files).encode())]
    record = [_record_line(n, d) for n, d in contents] + [f"{dist_info}/RECORD,,"]
    contents.append((f"{dist_info}/RECORD", ("\n".join(record) + "\n").encode()))
    wheel_name = f"{name}-{version}-{_tag(files)}.whl"
    with zipfile.ZipFile(Path(directory) / wheel_name, "w", zipfile.ZIP_DEFLATED) as wheel:
        for entry, data in contents:
            info = zipfile.ZipInfo(entry, date_time=(1980, 1, 1, 0, 0, 0))
            mode = 0o755 if entry.endswith(".so") or ".so." in entry else 0o644
            info.external_attr = (0o100000 | mode) << 16
            info.compress_type = zipfile.ZIP_DEFLATED
            wheel.writestr(info, data)
    return wheel_name


# --- PEP 517 -------------------------------------------------------------------------------


def get_requires_for_build_wheel(config_settings: Optional[dict] = None) -> List[str]:
    return []


def get_requires_for_build_sdist(config_settings: Optional[dict] = None) -> List[str]:
    return []


def get_requires_for_build_editable(config_settings: Optional[dict] = None) -> List[str]:
    return []


def prepare_metadata_for_build_wheel(metadata_directory: str,
                                     config_settings: Optional[dict] = None) -> str:
    name, version = _names()
    dist_info = Path(metadata_directory) / f"{name}-{version}.dist-info"
    dist_info.mkdir(parents=True, exist_ok=True)
    files = _files()
    (dist_info / "METADATA").write_text(_metadata(), encoding="utf-8")
    (dist_info / "WHEEL").write_text(_wheel_text(files), encoding="utf-8")
    return dist_info.name


prepare_metadata_for_build_editable = prepare_metadata_for_build_wheel


def build_wheel(wheel_directory: str, config_settings: Optional[dict] = None,
                metadata_directory: Optional[str] = None) -> str:
    files = _files()
    contents = [(p.relative_to(ROOT).as_posix(), p.read_bytes()) for p in files]
    return _write_wheel(wheel_directory, contents, files)


def build_editable(wheel_directory: str, config_settings: Optional[dict] = None,
                   metadata_directory: Optional[str] = None) -> str:
    """An editable install: a .pth file puts the source folder on sys.path."""
    name, _ = _names()
    return _write_wheel(wheel_directory, [(f"{name}.pth", (str(ROOT) + "\n").encode())], [])


def build_sdist(sdist_directory: str, config_settings: Optional[dict] = None) -> str:
    name, version = _names()
    base = f"{name}-{version}"
    sdist_name = f"{base}.tar.gz"
    members = [ROOT / "pyproject.toml", ROOT / "README.md"]
    members += sorted((ROOT / "build_backend").glob("*.py")) + _files()
    with tarfile.open(Path(sdist_directory) / sdist_name, "w:gz", format=tarfile.PAX_FORMAT) as tar:
        for path in members:
            if path.is_file():
                tar.add(path, arcname=f"{base}/{path.relative_to(ROOT).as_posix()}")
        pkg_info = _metadata().encode()
        info = tarfile.TarInfo(f"{base}/PKG-INFO")
        info.size = len(pkg_info)
        info.mode = 0o644
        tar.addfile(info, io.BytesIO(pkg_info))
    return sdist_name


__all__ = [name for name in dir() if not name.startswith("_") and name not in {
    "annotations", "base64", "hashlib", "io", "platform", "re", "tarfile", "zipfile",
    "Path", "Dict", "List", "Optional", "Tuple", "ROOT", "PACKAGE"}]
