"""Builds the Python package by the project's own CMake build; needs no network.

    pip install --no-build-isolation --no-index .
"""
import os
import pathlib
import re
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).parent.resolve()
VERSION = re.search(r"project\(mlnn VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())[1]


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve() / "cmake"
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).resolve()
        subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
                        "-DBUILD_SHARED_LIBS=OFF", "-DMLNN_BUILD_PYTHON=ON", "-DMLNN_BUILD_TOOL=OFF",
                        "-DMLNN_BUILD_TESTS=OFF", "-DMLNN_INSTALL=OFF",
                        f"-DPython3_EXECUTABLE={sys.executable}"], check=True)
        subprocess.run(["cmake", "--build", build, "--target", "_mlnn",
                        "--parallel", str(os.cpu_count() or 1)], check=True)
        built, = (build / "python" / "mlnn").glob("_mlnn*.so")
        target.parent.mkdir(parents=True, exist_ok=True)
        self.copy_file(str(built), str(target))


setup(
    name="mlnn",
    version=VERSION,
    description="Feed-forward networks on mel audio features: load, run, edit and save them",
    author="the mlnn developers",
    python_requires=">=3.9",
    install_requires=["numpy"],
    extras_require={"onnx": ["onnx"], "torch": ["torch"], "sklearn": ["scikit-learn"]},
    packages=["mlnn"],
    package_dir={"mlnn": "python/mlnn"},
    package_data={"mlnn": ["py.typed", "*.pyi"]},
    ext_modules=[Extension("mlnn._mlnn", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
)
