"""Build backend of the client package: standard library only.

The client has no compiled parts and no dependencies, so its wheel is a zip of the package
and three metadata files. Building it here lets `pip install clients/python` work on a
machine without access to a package index (pip needs nothing to fetch for the build).
Supports the hooks pip calls: build_wheel, build_editable (a .pth file pointing at this
folder) and build_sdist.
"""
import base64
import hashlib
import io
import os
import tarfile
import zipfile

NAME = "kestrix"
VERSION = "0.8.2"
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TAG = "py3-none-any"
DIST_INFO = f"{NAME}-{VERSION}.dist-info"


def _metadata():
    with open(os.path.join(ROOT, "README.md")) as f:
        readme = f.read()
    return (f"Metadata-Version: 2.1\nName: {NAME}\nVersion: {VERSION}\n"
            "Summary: Client for the Kestrix engine: files, cycles and results of an "
            "application from Python\nLicense: MIT\nRequires-Python: >=3.8\n"
            f"Description-Content-Type: text/markdown\n\n{readme}")


def _wheel_file():
    return f"Wheel-Version: 1.0\nGenerator: kestrix_build\nRoot-Is-Purelib: true\nTag: {TAG}\n"


def _record_line(name, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(data)}"


def _package_files():
    package = os.path.join(ROOT, NAME)
    for filename in sorted(os.listdir(package)):
        if filename.endswith(".py"):
            with open(os.path.join(package, filename), "rb") as f:
                yield f"{NAME}/{filename}", f.read()


def _write_wheel(directory, entries):
    name = f"{NAME}-{VERSION}-{TAG}.whl"
    entries = list(entries) + [(f"{DIST_INFO}/METADATA", _metadata().encode()),
                               (f"{DIST_INFO}/WHEEL", _wheel_file().encode())]
    record = [_record_line(n, d) for n, d in entries] + [f"{DIST_INFO}/RECORD,,"]
    with zipfile.ZipFile(os.path.join(directory, name), "w", zipfile.ZIP_DEFLATED) as z:
        for n, d in entries:
            z.writestr(n, d)
        z.writestr(f"{DIST_INFO}/RECORD", "\n".join(record) + "\n")
    return name


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_editable(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    return _write_wheel(wheel_directory, _package_files())


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    return _write_wheel(wheel_directory, [(f"{NAME}_client.pth", (ROOT + "\n").encode())])


def build_sdist(sdist_directory, config_settings=None):
    base = f"{NAME}-{VERSION}"
    name = f"{base}.tar.gz"
    with tarfile.open(os.path.join(sdist_directory, name), "w:gz") as tar:
        for rel in ["pyproject.toml", "README.md", "backend/kestrix_build.py"] + \
                [n for n, _ in _package_files()]:
            tar.add(os.path.join(ROOT, rel), arcname=f"{base}/{rel}")
        info = _metadata().encode()
        member = tarfile.TarInfo(f"{base}/PKG-INFO")
        member.size = len(info)
        tar.addfile(member, io.BytesIO(info))
    return name
