"""The shared libraries, and their declarations as cffi has them."""
from pathlib import Path
from typing import Any

from ._declarations import ffi as ffi


def _load(soname: str, flags: int) -> Any:
    """Prefers the library of the same installation: PREFIX/lib/python3/dist-packages/keyview is
    this folder then."""
    beside = Path(__file__).resolve().parents[3] / soname
    return ffi.dlopen(str(beside) if beside.exists() else soname, flags | ffi.RTLD_NOW)


# The library resolves the operations of its host when it is loaded, so the host goes first.
host: Any = _load("libkeyview-host.so.0", ffi.RTLD_GLOBAL)
lib: Any = _load("libkeyview12.so", ffi.RTLD_LOCAL)
