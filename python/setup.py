"""The parts of pyproject.toml that are computed: the version, and the module of declarations."""
import re
from pathlib import Path

from setuptools import setup

project = Path(__file__).resolve().parent.parent / "CMakeLists.txt"
version = re.search(r"project\(keyview VERSION ([0-9.]+)", project.read_text(encoding="utf-8"))
setup(version=version[1], cffi_modules=["declarations.py:builder"])
