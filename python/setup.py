"""Builds the extension against the liborva that pkg-config finds, and makes it look for the library there."""

import shlex
import subprocess
from glob import glob

from pybind11.setup_helpers import Pybind11Extension
from setuptools import setup


def pkg_config(*what: str) -> list[str]:
    said = subprocess.run(
        ["pkg-config", *what, "orva"], check=True, stdout=subprocess.PIPE, text=True
    ).stdout
    return shlex.split(said)


setup(
    ext_modules=[
        Pybind11Extension(
            "orva._orva",
            sorted(glob("src/*.cpp")),
            cxx_std=20,
            extra_compile_args=pkg_config("--cflags"),
            extra_link_args=["-Wl,--no-as-needed", *pkg_config("--static", "--libs")],
            runtime_library_dirs=pkg_config("--variable=libdir"),
        )
    ]
)
