"""Builds the Python package through CMake, for `pip install .` from a checkout.

Needs what the CMake build needs (scripts/bootstrap installs it on Debian: a C++17 compiler,
CMake, OpenCV, Eigen, OpenSSL, the codec libraries, pybind11 and the Python headers) and
setuptools. The library is built as a shared library and installed next to the extension
module inside the package, which finds it through its run path; nothing is put elsewhere.
With Debian's interpreter: /usr/bin/python3 -m pip install --no-build-isolation .
"""
import os
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        package = Path(self.get_ext_fullpath(ext.name)).resolve().parent
        build = Path(self.build_temp).resolve() / "cmake"
        jobs = os.environ.get("QUIB_JOBS", "2")
        subprocess.run(["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                        f"-DPython3_EXECUTABLE={sys.executable}", "-DQUIB_BUILD_PYTHON=ON",
                        "-DQUIB_BUILD_TESTS=OFF", "-DQUIB_BUILD_BENCH=OFF",
                        "-DQUIB_BUILD_EXAMPLES=OFF", "-DQUIB_BUILD_TOOLS=OFF",
                        # the package holds the module and the library side by side
                        "-DCMAKE_INSTALL_LIBDIR=quib", "-DQUIB_PYTHON_INSTALL_DIR=.",
                        "-DCMAKE_SKIP_INSTALL_RPATH=OFF"], check=True)
        subprocess.run(["cmake", "--build", str(build), "-j", jobs, "--target", "_quib"], check=True)
        staging = build / "staging"
        subprocess.run(["cmake", "--install", str(build), "--prefix", str(staging)], check=True)
        package.mkdir(parents=True, exist_ok=True)
        for item in (staging / "quib").iterdir():
            # the module needs the library by its soname only (libquib.so.0)
            if not item.is_file() or (item.name.startswith("libquib.so") and item.name.count(".") != 2):
                continue
            (package / item.name).write_bytes(item.read_bytes())
            os.chmod(package / item.name, item.stat().st_mode)


setup(packages=[], ext_modules=[CMakeExtension("quib._quib")], cmdclass={"build_ext": CMakeBuild},
      zip_safe=False)
