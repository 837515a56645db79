"""The guard of the interface, on small libraries that are made of the public headers alone: each function
is declared there and ends the program here.

Usage: abi_test.py SOURCES COMPILER
"""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

SOURCES, COMPILER = Path(sys.argv[1]), sys.argv[2]
LIBRARIES = {
    "libkeyview12.so": ("src/keyview/if/prsr.h",),
    "libkeyview-host.so.0": ("src/host/if/keyview_host.h", "src/host/if/keyview_registry.h",
                             *(f"src/platform/{name}.h" for name in ("kvtc", "lksv", "tmem", "trcd", "txt"))),
}
MAPS = {"libkeyview12.so": "src/keyview/keyview.map", "libkeyview-host.so.0": "src/host/host.map"}

# What is planted: a name, the header's text, what replaces it, and what the check must print.
FAULTS = [
    ("a field is moved", r"(    char \*sp_name;.*\n)(    char \*alias_ip;.*\n)", r"\2\1", "alias_ip' offset changed"),
    ("a field is added", r"(    char \*policy;.*\n)", r"\1    char *further;\n", "prsr_cfg"),
    ("a field is narrower", r"uint64_t reserved;( +// 0\n\} prsr_inst_cfg)", r"uint32_t reserved;\1", "reserved"),
    ("a field has another name", r"char \*domain;", "char *realm;", "realm"),
    ("an operation is dropped", r"PRSR_API int32_t prsr_get_domain\([^;]*;", "", "prsr_get_domain"),
    ("an argument is wider", r"prsr_ctx \*ctx, char \*\*\*db_list,\s+uint32_t", "prsr_ctx *ctx, char ***db_list, uint64_t",
     "prsr_list_db"),
    ("a function of the kit is added", r"(KEYVIEW_HOST_FUNCTION int32_t keyview_host_last_error)_kind\(void\);",
     r"\g<0> \1_code(void);", "keyview_host_last_error_code"),
    ("a record of the kit grows", r"(int32_t depth;.*\n)", r"\1    uint64_t limit;\n", "keyview_part"),
]


def build(folder, pattern=None, replacement=None, debug="-g"):
    (folder / "lib").mkdir(parents=True)
    changed = 0
    for soname, headers in LIBRARIES.items():
        for header in headers:
            text = (SOURCES / header).read_text()
            if pattern:
                text, count = re.subn(pattern, replacement, text)
                changed += count
            text = re.sub(r"\s*__attribute__\(\(format[^;]*;", ";", text)
            text = re.sub(r"^(?!typedef)([A-Za-z_][^;{}#]*\))( PRSR_NOEXCEPT)?;(?: (.*);)?$",
                          lambda found: found[1] + (found[2] or "") + " { __builtin_trap(); }" +
                          (f" {found[3]} {{ __builtin_trap(); }}" if found[3] else ""), text, flags=re.M)
            (folder / Path(header).name).write_text(text)
        library = folder / "lib" / (soname.split(".so")[0] + ".so")
        subprocess.run([COMPILER, "-x", "c++", "-std=c++17", debug, "-fPIC", "-shared", "-nostartfiles",
                        f"-Wl,-soname,{soname}", f"-Wl,--version-script={SOURCES / MAPS[soname]}", "-o", library,
                        "-include", "stddef.h", "-"], check=True, text=True,
                       input="".join(f'#include "{folder / Path(header).name}"\n' for header in headers))
    assert pattern is None or changed == 1, f"{pattern} fits {changed} times"


def check(folder, **environment):
    run = subprocess.run([SOURCES / "packaging/abi-check", folder], text=True, capture_output=True,
                         env={**os.environ, **environment})
    return run.returncode, run.stdout + run.stderr


def main():
    failures = []
    with tempfile.TemporaryDirectory() as top:
        top = Path(top)

        def expect(name, code, words, outcome):
            if (outcome[0] != code) or words not in outcome[1]:
                failures.append(f"{name}: exit code {outcome[0]}, not {code} with '{words}':\n{outcome[1]}")

        build(top / "clean")
        expect("the headers as they are", 0, "", check(top / "clean"))
        expect("no abidiff", 2, "abidiff is missing", check(top / "clean", PATH=str(top)))
        build(top / "blind", debug="-g0")
        expect("no debug information", 1, "has no debug information", check(top / "blind"))
        for number, (name, pattern, replacement, words) in enumerate(FAULTS):
            build(top / str(number), pattern, replacement)
            expect(name, 1, words, check(top / str(number)))
    print("\n".join(failures or [f"{len(FAULTS)} breaks, each is refused"]))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
