"""What the package is installed from, and the commands that come with it. scripts/check-all python-install
installs it in each way."""
import base64
import csv
import email
import hashlib
import importlib
import io
import os
import pathlib
import re
import subprocess
import sys
import tarfile
import zipfile

import pytest

import mlnn

ROOT = pathlib.Path(__file__).parents[2]
PACKAGING = ROOT / "python" / "packaging"
VERSION = mlnn.__version__


@pytest.fixture
def backend(monkeypatch):
    monkeypatch.syspath_prepend(str(PACKAGING))
    monkeypatch.setattr(sys, "dont_write_bytecode", True)
    return importlib.import_module("cmake_backend")


def test_a_source_distribution_holds_what_makes_it_again(backend, tmp_path):
    name = backend.build_sdist(tmp_path)
    assert name == f"mlnn-{VERSION}.tar.gz"
    with tarfile.open(tmp_path / name) as archive:
        archive.extractall(tmp_path)
    base = tmp_path / f"mlnn-{VERSION}"
    (tmp_path / "again").mkdir()
    subprocess.run([sys.executable, "python/packaging/cmake_backend.py", tmp_path / "again"], cwd=base,
                   check=True, stdout=subprocess.PIPE, env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"})
    assert (tmp_path / "again" / name).read_bytes() == (tmp_path / name).read_bytes()
    listed = (ROOT / "CMakeLists.txt").read_text()
    folders = set(re.findall(r"^(?: +(?=\w+/\S+\.cpp$)|include\()(\w+)/", listed, re.M))
    assert {"layers", "model", "cmake", "os"} <= folders
    for folder in folders:
        assert (base / folder).is_dir()


def test_the_metadata_are_whole_and_name_no_licence(backend, tmp_path):
    info = backend.prepare_metadata_for_build_wheel(tmp_path)
    assert info == f"mlnn-{VERSION}.dist-info"
    said = email.message_from_string((tmp_path / info / "METADATA").read_text())
    assert (said["Name"], said["Version"], said["Author"]) == ("mlnn", VERSION, "the mlnn developers")
    assert said["License"] is None
    assert said.get_all("Provides-Extra") == ["torch", "sklearn", "onnx", "plot", "pandas", "cluster"]
    assert [one for one in said.get_all("Requires-Dist") if "extra" not in one] == ["numpy>=1.21,<2"]
    assert said.get_payload() == (ROOT / "README.md").read_text()
    assert "mlnn = mlnn.__main__:main" in (tmp_path / info / "entry_points.txt").read_text()
    backend.prepare_metadata_for_build_wheel(tmp_path / "small", {"tool": "off"})
    assert not (tmp_path / "small" / info / "entry_points.txt").exists()


def test_a_setting_that_is_not_known_is_refused(backend):
    with pytest.raises(SystemExit, match="the setting tool is 'maybe'; expected on or off"):
        backend.build_wheel("nowhere", {"tool": "maybe"})


def test_a_wheel_records_every_file(backend, tmp_path):
    content = {"mlnn/__init__.py": b"", "mlnn/_tool": b"program"}
    name = backend._write_wheel(tmp_path, content, True)
    python = f"cp{sys.version_info.major}{sys.version_info.minor}"
    assert name.startswith(f"mlnn-{VERSION}-{python}-{python}-linux_")
    again = tmp_path / "again"
    again.mkdir()
    assert (again / backend._write_wheel(again, content, True)).read_bytes() == (tmp_path / name).read_bytes()
    with zipfile.ZipFile(tmp_path / name) as wheel:
        record = f"mlnn-{VERSION}.dist-info/RECORD"
        rows = {row[0]: row[1:] for row in csv.reader(io.StringIO(wheel.read(record).decode()))}
        assert sorted(rows) == sorted(wheel.namelist())
        for member in set(rows) - {record}:
            data = wheel.read(member)
            digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
            assert rows[member] == [f"sha256={digest}", str(len(data))]
        assert wheel.getinfo("mlnn/_tool").external_attr >> 16 & 0o111
        assert not wheel.getinfo("mlnn/__init__.py").external_attr >> 16 & 0o111


def run(*command):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True)


def test_the_module_runs_the_commands_of_the_tool(digits):
    from mlnn.__main__ import _tool
    if _tool() is None:
        pytest.skip("built without the tool")
    for words in (["run", digits / "synth.txt", digits / "frames" / "3_en-us_f4.npy"], ["--help"],
                  ["info", "nothing.txt"], ["no-command"]):
        done, tools = run(sys.executable, "-m", "mlnn", *words), run(_tool(), *words)
        assert (done.returncode, done.stderr) == (tools.returncode, tools.stderr)
        assert re.sub(r"\d+(\.\d+)? s\b", "", done.stdout) == re.sub(r"\d+(\.\d+)? s\b", "", tools.stdout)


def test_without_the_tool_the_module_says_so(monkeypatch, capfd):
    from mlnn import __main__ as module
    monkeypatch.setattr(module, "_tool", lambda: None)
    with pytest.raises(SystemExit):
        module.main(["--help"])
    assert "was not built along with this package" in " ".join(capfd.readouterr().out.split())


def test_only_programs_are_taken_for_the_tool(tmp_path):
    from mlnn.__main__ import _is_program
    script = tmp_path / "mlnn"
    assert not _is_program(str(script)) and not _is_program(str(tmp_path))
    script.write_text("#!/bin/sh\n")
    script.chmod(0o755)
    assert not _is_program(str(script))
    assert _is_program(sys.executable)
