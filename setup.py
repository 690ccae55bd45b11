"""Lets pip build the Python package with the project's own CMake: everything else is there.

KEL_BUILD_DIR names a build folder whose objects are used; its configuration becomes this one's.
"""

import os
import pathlib
import re
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent
VERSION = re.search(r"project\(Kel VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())[1]


class BuildWithCMake(build_ext):
    """The package as CMake installs it, with the library beside the module."""

    def run(self):
        build = pathlib.Path(os.environ.get("KEL_BUILD_DIR", self.build_temp))
        target = pathlib.Path(self.build_lib)
        subprocess.run(
            ["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
             "-DKEL_BUILD_PYTHON=ON", "-DKEL_PYTHON_BUNDLE=ON", "-DKEL_PYTHON_DIR=.",
             "-DKEL_BUILD_TESTS=OFF", "-DKEL_BUILD_EXAMPLES=OFF",
             f"-DPython_EXECUTABLE={sys.executable}"], check=True)
        subprocess.run(["cmake", "--build", build, "--parallel", str(os.cpu_count()),
                        "--target", "kel_python", "kel_python_files"], check=True)
        subprocess.run(["cmake", "--install", build, "--prefix", target.resolve(),
                        "--component", "python"], check=True)

    def get_outputs(self):
        return [str(path) for path in pathlib.Path(self.build_lib).rglob("*") if path.is_file()]


setup(version=VERSION, packages=[], ext_modules=[Extension("kel._kel", [])],
      cmdclass={"build_ext": BuildWithCMake})
