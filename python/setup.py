"""Builds the module in C++ against the library that pkg-config finds."""

import glob
import shlex
import subprocess

from pybind11.setup_helpers import Pybind11Extension, build_ext
from setuptools import setup


def pkg_config(what):
    done = subprocess.run(["pkg-config", what, "korvane"], capture_output=True, text=True)
    if done.returncode != 0:
        raise SystemExit(
            "libkorvane isn't found: install libkorvane-dev, or name the folder of korvane.pc in PKG_CONFIG_PATH"
        )
    return shlex.split(done.stdout)


setup(
    version=pkg_config("--modversion")[0],
    ext_modules=[
        Pybind11Extension(
            "korvane._korvane", sorted(glob.glob("src/*.cpp")), cxx_std=17,
            extra_compile_args=pkg_config("--cflags"), extra_link_args=pkg_config("--libs"),
        )
    ],
    cmdclass={"build_ext": build_ext},
)
