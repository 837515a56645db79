#!/usr/bin/env python3
"""Writes keyview/_declarations.py: the C declarations of keyview, out of its public headers.

Usage: declarations.py OUTPUT

What it writes needs neither a compiler nor a parser when it is imported: cffi calls the shared
libraries by it, in every version of Python 3.
"""
import re
import sys
from pathlib import Path

import cffi

SOURCES = Path(__file__).resolve().parent.parent / "src"
HEADERS = [SOURCES / "keyview/if/prsr.h", SOURCES / "host/if/keyview_host.h"]

# What only C++ or a compiler reads: comments, directives, attributes, the frame of extern "C".
LEFT_OUT = re.compile(
    r'//[^\n]*|^#[^\n]*|\b(?:PRSR_API|PRSR_NOEXCEPT|KEYVIEW_HOST_FUNCTION)\b|^extern "C" \{|^\}$',
    re.M)

builder = cffi.FFI()
builder.cdef("".join(LEFT_OUT.sub("", header.read_text(encoding="utf-8")) for header in HEADERS))
builder.set_source("keyview._declarations", None)

if __name__ == "__main__":
    builder.emit_python_code(sys.argv[1])
