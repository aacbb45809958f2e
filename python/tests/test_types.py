"""The types that the package declares, as a user's checker sees them: by mypy."""
import os
import pathlib
import subprocess
import sys

import pytest

import mlnn

PACKAGE = pathlib.Path(mlnn.__file__).parent
CONFIGURATION = pathlib.Path(__file__).parents[2] / "pyproject.toml"

USE = '''
import pathlib
import numpy as np
import numpy.typing as npt
import mlnn
from mlnn.convert import from_torch

def run(path: pathlib.Path, frames: npt.NDArray[np.float32]) -> npt.NDArray[np.float32]:
    model = mlnn.load(path, act_fn="relu")
    model.layers[0].weights[:, 0] = 0
    model.layers[0].bias = [1, 2, 3]
    model.notes.append("changed")
    model.props = {"name": "changed"}
    model.normalisation = np.zeros(120), np.ones(120)
    model.features = mlnn.FeatureDescription(num_bands=2)
    model.save("changed.txt", format="text", strict=True)
    model += mlnn.Model.from_bytes(model.to_bytes())
    return model(frames)

def convert(model: mlnn.Model, module: object) -> mlnn.Model:
    mlnn.to_onnx(model, "model.onnx")
    return from_torch(module) if module else mlnn.from_onnx("model.onnx")
'''

WRONG = {
    'mlnn.load(3)': "arg-type",
    'mlnn.load("m").save("m", format="csv")': "arg-type",
    'mlnn.load("m").layers[0].batch_norm = True': "misc",
    'mlnn.load("m").normalisation = [1, 2]': "assignment",
    'mlnn.to_onnx("m")': "arg-type",
    'mlnn.convert.Network().linear(1, [[1]], None)': "arg-type",
    'mlnn.nothing': "attr-defined",
}

MODULES = {path.stem for path in PACKAGE.iterdir() if path.suffix in (".py", ".pyi")}
CLEAN = f"Success: no issues found in {len(MODULES) + 1} source files\n"  # with the package's use

# What stubtest finds beside the package: classes of the standard library that its modules import,
# that classes of the binding are made by a metaclass which no stub can name, a class that is
# imported for its type alone, a member that a data class without fields has, and classes that are made
# in a function, of what PyTorch or matplotlib has.
ALLOWED = r"""
mlnn\._\w+\.(Callable|IO|Iterable|Protocol|Sequence)(\..*)?
mlnn\._\w+\.(Mapping|MutableMapping|ItemsView|ValuesView)(\..*)?
mlnn\._mlnn\.(Core|Layer|Layer\.__init__)
mlnn\._(analysis|cluster)\.Model
mlnn\._(html|plot)\.(Layer|Model)
mlnn\._plot\.Picture@\d+
mlnn\._\w+\._Result\.__match_args__
mlnn\._torch_trace\.(Root|Tracer)@\d+
"""


@pytest.fixture(scope="module")
def cache(tmp_path_factory):
    return tmp_path_factory.mktemp("cache")


@pytest.fixture
def sources(tmp_path):
    """A folder that has the package alone: where it is installed, mypy takes nothing for sources."""
    folder = tmp_path / "sources"
    folder.mkdir()
    (folder / "mlnn").symlink_to(PACKAGE)
    return folder


@pytest.fixture
def mypy(tmp_path, sources, cache):
    pytest.importorskip("mypy")
    environment = {**os.environ, "MYPYPATH": str(sources), "MYPY_CACHE_DIR": str(cache)}

    def run(module, *arguments):
        done = subprocess.run(
            [sys.executable, "-m", module, *map(str, arguments)], cwd=tmp_path,
            capture_output=True, text=True, env=environment)
        assert done.stderr == ""
        return done.returncode, done.stdout
    return run


def test_the_package_and_its_use_hold(mypy, tmp_path, sources):
    (tmp_path / "use.py").write_text(USE)
    assert mypy("mypy", "--config-file", CONFIGURATION, "use.py", sources / "mlnn") == (0, CLEAN)


def test_wrong_use_is_found(mypy, tmp_path):
    lines = ["import mlnn", "import mlnn.convert", *WRONG]
    (tmp_path / "wrong.py").write_text("\n".join(lines) + "\n")
    status, out = mypy("mypy", "--config-file", CONFIGURATION, "wrong.py")
    found = [line for line in out.splitlines() if " error: " in line]
    assert status == 1
    assert [line.partition(":")[2].split(":")[0] for line in found] == [
        str(number) for number in range(3, 3 + len(WRONG))]
    assert [line.split("  [")[1] for line in found] == [f"{code}]" for code in WRONG.values()]


def test_the_stubs_describe_what_is_there(mypy, tmp_path):
    (tmp_path / "allowed").write_text(ALLOWED)
    status, out = mypy("mypy.stubtest", "--mypy-config-file", CONFIGURATION,
                       "--allowlist", tmp_path / "allowed", "mlnn")
    assert status == 0, out
