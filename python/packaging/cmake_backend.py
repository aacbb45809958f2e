"""Makes the wheel and the source distribution of the Python package, by the project's CMake build.

pip calls these functions (PEP 517 and 660). They need Python alone, so a build in an isolated environment
fetches nothing; the programs that compile must be there: `scripts/install-packages build python`.

    pip install .
    pip install --config-settings tool=off .            # without the tool, which takes half the time
    python3 python/packaging/cmake_backend.py FOLDER    # a source distribution
"""
from __future__ import annotations

import base64
import gzip
import hashlib
import io
import os
import pathlib
import re
import shutil
import subprocess
import sys
import sysconfig
import tarfile
import tempfile
import zipfile

ROOT = pathlib.Path(__file__).resolve().parents[2]

# What a source distribution holds: all that builds it, and the tests of the package with what they read.
FILES = ("CMakeLists.txt", "CMakePresets.json", "CHANGELOG.md", "README.md", "pyproject.toml")
FOLDERS = ("analysis", "c", "cmake", "docs", "examples", "features", "inference", "layers", "model", "os",
           "python", "text", "tools")

MOMENT = (1980, 1, 1, 0, 0, 0)  # of all files, so that the same sources give the same bytes
TOOL = "_tool"                  # the command's program, in the package


def get_requires_for_build_wheel(config_settings=None):
    return []


get_requires_for_build_sdist = get_requires_for_build_editable = get_requires_for_build_wheel


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    """What is said of the wheel, without a build."""
    content = _said(_tool_is_wanted(config_settings))
    for member, data in content.items():
        path = pathlib.Path(metadata_directory, member)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
    return path.parent.name


prepare_metadata_for_build_editable = prepare_metadata_for_build_wheel


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    with_tool = _tool_is_wanted(config_settings)
    with tempfile.TemporaryDirectory() as folder:
        build, stage = pathlib.Path(folder, "build"), pathlib.Path(folder, "stage")
        _compile(build, with_tool)
        _run("cmake", "--install", build, "--prefix", stage, "--component", "python", "--strip")
        if with_tool:
            shutil.copy2(build / "tools" / "mlnn", stage / "mlnn" / TOOL)
        content = {str(path.relative_to(stage)): path.read_bytes()
                   for path in sorted((stage / "mlnn").rglob("*")) if path.is_file()}
    return _write_wheel(wheel_directory, content, with_tool)


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    """A wheel that leads to build/editable, whose package has the sources linked into it."""
    with_tool = _tool_is_wanted(config_settings)
    build = ROOT / "build" / "editable"
    _compile(build, with_tool)
    return _write_wheel(wheel_directory, {"mlnn.pth": f"{build / 'python'}\n".encode()}, with_tool)


def build_sdist(sdist_directory, config_settings=None):
    base = f"mlnn-{_version()}"
    content = {"PKG-INFO": _metadata().encode()}
    for path in sorted(_sources()):
        content[str(path.relative_to(ROOT))] = path.read_bytes()
    name = base + ".tar.gz"
    with open(pathlib.Path(sdist_directory, name), "wb") as raw, \
            gzip.GzipFile(name, "wb", fileobj=raw, mtime=0) as packed, \
            tarfile.open(fileobj=packed, mode="w", format=tarfile.PAX_FORMAT) as archive:
        for member, data in content.items():
            entry = tarfile.TarInfo(f"{base}/{member}")
            entry.size, entry.mode = len(data), _mode(ROOT / member)
            archive.addfile(entry, io.BytesIO(data))
    return name


# --- The build ---

def _tool_is_wanted(settings):
    word = str((settings or {}).get("tool", "on")).lower()
    if word not in ("on", "off"):
        raise SystemExit(f"the setting tool is {word!r}; expected on or off")
    return word == "on"


def _compile(build, with_tool):
    if shutil.which("cmake") is None:
        raise SystemExit("mlnn is built by CMake, which is not installed; on Debian, "
                         "scripts/install-packages build python installs all that builds it")
    generator = ["-G", "Ninja"] if shutil.which("ninja") else []
    _run("cmake", "-S", ROOT, "-B", build, *generator, "-DCMAKE_BUILD_TYPE=Release",
         "-DBUILD_SHARED_LIBS=OFF", "-DMLNN_BUILD_PYTHON=ON", "-DMLNN_BUILD_TESTS=OFF",
         f"-DMLNN_BUILD_TOOL={'ON' if with_tool else 'OFF'}", "-DMLNN_INSTALL=OFF",
         "-DMLNN_PYTHON_DIR=.", f"-DPython3_EXECUTABLE={sys.executable}")
    targets = ["_mlnn", "mlnn_cli"] if with_tool else ["_mlnn"]
    _run("cmake", "--build", build, "--parallel", str(os.cpu_count() or 1), "--target", *targets)


def _run(*command):
    subprocess.run([str(word) for word in command], check=True)


def _sources():
    for name in FILES:
        yield ROOT / name
    for folder in FOLDERS:
        for path in (ROOT / folder).rglob("*"):
            if path.is_file() and "__pycache__" not in path.parts:
                yield path


def _mode(path):
    return 0o755 if path.is_file() and os.access(path, os.X_OK) else 0o644


# --- What is said of it ---

def _version():
    text = (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
    return re.search(r"project\(mlnn VERSION ([\d.]+)", text)[1]


def _project():
    if sys.version_info >= (3, 11):
        import tomllib
    else:
        import tomli as tomllib
    return tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))["project"]


def _metadata():
    project = _project()
    lines = ["Metadata-Version: 2.1", f"Name: {project['name']}", f"Version: {_version()}",
             f"Summary: {project['description']}",
             f"Author: {', '.join(author['name'] for author in project['authors'])}",
             f"Keywords: {','.join(project['keywords'])}"]
    lines += [f"Classifier: {one}" for one in project["classifiers"]]
    lines += [f"Requires-Python: {project['requires-python']}"]
    lines += [f"Requires-Dist: {one}" for one in project["dependencies"]]
    for extra, needed in project["optional-dependencies"].items():
        lines += [f"Provides-Extra: {extra}"]
        lines += [f'Requires-Dist: {one}; extra == "{extra}"' for one in needed]
    lines += ["Description-Content-Type: text/markdown", "",
              (ROOT / project["readme"]).read_text(encoding="utf-8")]
    return "\n".join(lines)


# pybind11 knows no stable ABI: a wheel is for one version of Python.
def _tag():
    python = f"cp{sys.version_info.major}{sys.version_info.minor}"
    platform = re.sub(r"[-.]", "_", sysconfig.get_platform())
    return f"{python}-{python}-{platform}"


def _said(with_tool):
    """The files of a wheel that tell what it is."""
    info = f"mlnn-{_version()}.dist-info"
    said = {f"{info}/METADATA": _metadata().encode(),
            f"{info}/WHEEL": (f"Wheel-Version: 1.0\nGenerator: {__name__} ({_version()})\n"
                              f"Root-Is-Purelib: false\nTag: {_tag()}\n").encode()}
    if with_tool:
        said[f"{info}/entry_points.txt"] = b"[console_scripts]\nmlnn = mlnn.__main__:main\n"
    return said


def _write_wheel(directory, content, with_tool):
    base = f"mlnn-{_version()}"
    info = f"{base}.dist-info"
    content = {**content, **_said(with_tool)}
    content[f"{info}/RECORD"] = _record(content, f"{info}/RECORD")
    name = f"{base}-{_tag()}.whl"
    with zipfile.ZipFile(pathlib.Path(directory, name), "w", zipfile.ZIP_DEFLATED) as archive:
        for member, data in content.items():
            entry = zipfile.ZipInfo(member, MOMENT)
            entry.compress_type = zipfile.ZIP_DEFLATED
            is_program = member == f"mlnn/{TOOL}"
            entry.external_attr = (0o100755 if is_program else 0o100644) << 16
            archive.writestr(entry, data)
    return name


def _record(content, itself):
    lines = []
    for member, data in content.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        lines.append(f"{member},sha256={digest},{len(data)}\n")
    return "".join([*lines, f"{itself},,\n"]).encode()


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    os.makedirs(sys.argv[1], exist_ok=True)
    print(build_sdist(sys.argv[1]))
