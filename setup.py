"""Builds the vemoproc package through the project's CMake build: the library
and the _vemoproc extension are configured and built, then the package folder
(extension, the library it loads from its own folder, __init__.py, type stubs)
is installed into the wheel."""
import os
import pathlib
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve() / "cmake"
        stage = pathlib.Path(self.build_temp).resolve() / "stage"
        shutil.rmtree(stage, ignore_errors=True)
        subprocess.check_call([
            "cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
            "-DVEMOPROC_BUILD_TESTS=OFF", "-DVEMOPROC_BUILD_BENCH=OFF",
            "-DVEMOPROC_BUILD_TOOLS=OFF", "-DVEMOPROC_BUILD_PYTHON=ON",
            "-DVEMOPROC_PYTHON_BUNDLE=ON", "-DVEMOPROC_PYTHON_INSTALL_DIR=pkg",
            f"-DPython3_EXECUTABLE={sys.executable}",
        ])
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        subprocess.check_call(["cmake", "--build", str(build), "--target", "_vemoproc",
                               "-j", jobs])
        subprocess.check_call(["cmake", "--install", str(build), "--component", "python",
                               "--prefix", str(stage)])
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).parent
        target.mkdir(parents=True, exist_ok=True)
        package = stage / "pkg" / "vemoproc"
        # The library goes in once, under its soname (the name the extension
        # loads); the versioned file the soname link points to is skipped.
        linked = {item.resolve().name for item in package.iterdir() if item.is_symlink()}
        for item in package.iterdir():
            if item.name not in linked:
                shutil.copy2(item, target / item.name, follow_symlinks=True)


setup(
    packages=["vemoproc"],
    package_dir={"": "python"},
    package_data={"vemoproc": ["*.pyi", "py.typed"]},
    ext_modules=[Extension("vemoproc._vemoproc", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
)
