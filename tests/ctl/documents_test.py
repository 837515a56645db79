#!/usr/bin/env python3
"""What the documents show is run: the shell examples of README.md, docs/ and the manual pages, and the C
programs of the pages of the operations. The pages are well-formed, and each operation has one.

Usage: documents_test.py KEYVIEWCTL BUILD SOURCES COMPILER
"""
import concurrent.futures
import glob
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

TOOL, BUILD, SOURCES, COMPILER = map(os.path.abspath, sys.argv[1:5])
PAGES = sorted(glob.glob(f"{SOURCES}/docs/man/man?/*") + glob.glob(f"{BUILD}/man/man?/*"))
OPERATIONS = [page for page in PAGES if page.endswith(".3")]
DOCUMENTS = [f"{SOURCES}/README.md", *sorted(glob.glob(f"{SOURCES}/docs/*.md"))]
LINKS = ["-I", f"{BUILD}/include", "-L", f"{BUILD}/lib", f"-Wl,-rpath,{BUILD}/lib"]
MARKS = {"\\e": "\\", "\\-": "-", "\\&": "", "\\(aq": "'"}


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def content(name):
    with open(name) as file:
        return file.read()


def without_marks(text):
    return re.sub(r"\\(?:e|-|&|\(aq)", lambda mark: MARKS[mark[0]], text)


# The literal blocks of a page, and the bold terms of its examples.
def blocks_of_page(page):
    text = content(page)
    examples = text[text.index(".SH EXAMPLES"):].split(".SH FILES")[0] if ".SH EXAMPLES" in text else ""
    blocks = ["$ " + line for line in re.findall(r"(?m)^\.B (.*)$", examples)]
    blocks += re.findall(r"(?s)\.Bd -literal -offset indent\n(.*?)\n\.Ed", text)
    return [without_marks(block) for block in blocks]


# The blocks of a language in a document.
def blocks_of_document(document, language):
    return re.findall(rf"(?s)```{language}\n(.*?)```", content(document))


def commands_of(name):
    if name.endswith(".md"):
        return "".join(blocks_of_document(name, "sh"))
    lines = "\n".join(blocks_of_page(name)).split("\n")
    return "\n".join(line[2:] for line in lines if line.startswith("$ "))


class Reader:
    """A folder in which a reader of a document stands: the examples, the program of the README, a registry that
    may be empty, the installed programs on the path."""

    def __init__(self, name):
        self.name = name
        self.folder = tempfile.mkdtemp()
        self.env = {"PATH": f"{self.folder}/bin:{BUILD}/bin:{os.environ['PATH']}", "HOME": self.folder,
                    "PYTHONPATH": f"{BUILD}/python", "LD_LIBRARY_PATH": f"{BUILD}/lib"}
        for linker, compiler in (("cc", COMPILER), ("c++", shutil.which("c++"))):
            self.write(f"bin/{linker}", f'#!/bin/sh\nexec {compiler} {" ".join(LINKS)} "$@" {" ".join(LINKS[2:])}\n')
            os.chmod(f"{self.folder}/bin/{linker}", 0o755)
        os.symlink("/usr/bin/python3", f"{self.folder}/bin/python3")  # for which cffi is packaged
        for example in glob.glob(f"{SOURCES}/examples/*.*"):
            shutil.copy(example, self.folder)
        for language, program in (("c", "sales.c"), ("cpp", "sales.cpp"), ("python", "sales.py")):
            self.write(program, blocks_of_document(DOCUMENTS[0], language)[0])
        self.write("list.c", blocks_of_page(f"{SOURCES}/docs/man/man3/prsr_list_db.3")[-1])
        if name.endswith("keyview-config.5"):
            self.write(".config/keyview/config", blocks_of_page(name)[0] + "\n")
        if name.endswith("keyview-document.5"):
            self.write("sales.json", without_marks(re.search(r"(?s)\.nf\n(.*?)\.fi", content(name))[1]))
        if "apply cluster.json" not in commands_of(name):
            self.env["KEYVIEW_REGISTRY"] = f"lmdb:{self.folder}/registry"
            self.run(TOOL, "apply", "cluster.json")
        if name.endswith("keyview-hosttest.1"):
            self.run("cc", "-shared", "-fPIC", "-o", "host.so", "host.c")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.folder, ignore_errors=True)  # a member that was killed may still write

    def write(self, name, text):
        os.makedirs(os.path.dirname(f"{self.folder}/{name}"), exist_ok=True)
        with open(f"{self.folder}/{name}", "w") as file:
            file.write(text)

    def run(self, *command):
        ended = subprocess.run(command, cwd=self.folder, env=self.env, capture_output=True, text=True)
        if ended.returncode != 0:
            raise AssertionError(f"{command}: {ended.returncode}: {ended.stdout[-2000:]}{ended.stderr[-2000:]}")
        return ended.stdout

    # The commands in their order, with ports of this run and no wait that is for people.
    def run_examples(self):
        script = commands_of(self.name).replace("/var/lib/keyview", f"{self.folder}/registry").replace(
            "keyviewctl watch ", "keyviewctl watch --for 0.1 ").replace("sleep 1", "sleep 0.2")
        script = re.sub("keyviewctl status --follow.*", r"printf q | TERM=xterm script -qec '\g<0>' /dev/null", script)
        ports = {}
        script = re.sub(r":(23\d\d)\b", lambda port: ":%d" % ports.setdefault(port[1], free_port()), script)
        with open(f"{self.folder}/output", "w+") as output:
            shell = subprocess.Popen(["sh", "-e"], stdin=subprocess.PIPE, stdout=output, stderr=output, cwd=self.folder,
                                     env=self.env, text=True, start_new_session=True)
            try:
                shell.communicate(script, timeout=120)
            finally:
                if ports:  # the members that it started
                    os.killpg(shell.pid, signal.SIGKILL)
            output.seek(0)
            return shell.returncode, f"{self.name}\n{script}\n{output.read()[-3000:]}"


class Documents(unittest.TestCase):
    # At once: most of the time is a wait for members, locks and compilers.
    def test_the_examples_of_documents_run(self):
        shown = [name for name in DOCUMENTS + PAGES if commands_of(name)]
        self.assertGreater(len(shown), 14)

        def run_examples(name):
            with Reader(name) as reader:
                return reader.run_examples()
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for code, text in pool.map(run_examples, shown):
                with self.subTest(text.split("\n")[0]):
                    self.assertEqual(code, 0, text)

    # What mandoc has to say of a page, but for pages of this set: it looks for those in the system alone.
    def test_the_pages_are_well_formed(self):
        names = {os.path.basename(page) for page in PAGES}
        ended = subprocess.run(["mandoc", "-Tlint", *PAGES], capture_output=True, text=True)
        self.assertEqual(re.sub(r"(?m)^.*referenced manual not found.*\n", "", ended.stdout), "")
        for page in PAGES:
            for name, section in re.findall(r"(?m)^\.(?:Xr|BR) (\S+) \(?(\d)", content(page)):
                self.assertIn(f"{without_marks(name)}.{section}", names, page)

    def test_each_operation_has_a_page(self):
        exported = content(f"{SOURCES}/tests/keyview/exported_names.txt").split()
        self.assertEqual(sorted(f"{name}.3" for name in exported), [os.path.basename(page) for page in OPERATIONS])
        found = subprocess.run(["man", "-M", f"{SOURCES}/docs/man", "-w", *exported], capture_output=True, text=True)
        self.assertEqual(found.stdout.split(), [f"{SOURCES}/docs/man/man3/{name}.3" for name in exported])
        shown = subprocess.run(["man", "-M", f"{SOURCES}/docs/man", exported[0]], capture_output=True, text=True)
        self.assertRegex(shown.stdout, rf"(?s)NAME\n +{exported[0]} .*RETURN VALUES.*EXAMPLES")

    # All in one program, which runs the one that its argument names.
    def test_the_examples_of_operations_run(self):
        names = [os.path.basename(page)[:-2] for page in OPERATIONS]
        source = "#include <string.h>\n"
        for name, page in zip(names, OPERATIONS):
            example = [block for block in blocks_of_page(page) if "int main" in block]
            self.assertEqual(len(example), 1, page)
            self.assertIn(name + "(", example[0])
            source += example[0].replace("int main(void)", f"static int main_of_{name}(void)") + "\n"
        source += "int main(int argc, char **argv) {\n    (void)argc;\n"
        source += "".join(f'    if (strcmp(argv[1], "{name}") == 0) return main_of_{name}();\n' for name in names)
        with Reader(OPERATIONS[0]) as reader:
            reader.write("all.c", source + "    return 2;\n}\n")
            reader.run("cc", "-std=c99", "-Wall", "-Wextra", "-Werror", "-o", "all", "all.c", "-lkeyview12", "-lkeyview-host")
            for name in names:
                self.assertNotEqual(reader.run(f"{reader.folder}/all", name), "", name)

    # What the README shows at its head is what a reader of it sees.
    def test_the_first_picture_is_true(self):
        command, shown = re.search(r"(?m)^    \$ keyviewctl (.*)\n((?:    .*\n|\n)+)", content(DOCUMENTS[0])).groups()
        with Reader(OPERATIONS[0]) as reader:
            self.assertEqual(reader.run(TOOL, *command.split()), re.sub("(?m)^    ", "", shown.rstrip("\n") + "\n"))

    def test_links_lead_to_files(self):
        for document in [*DOCUMENTS, f"{SOURCES}/ARCHITECTURE.md", f"{SOURCES}/CONTRIBUTING.md", f"{SOURCES}/CHANGELOG.md"]:
            for link in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", content(document)):
                self.assertTrue(os.path.exists(os.path.join(os.path.dirname(document), link)), f"{document}: {link}")

    def test_the_way_of_a_new_user_is_short(self):
        way = re.search(r"(?s)## From the shell\n+```sh\n(.*?)```", content(DOCUMENTS[0])).group(1)
        self.assertLessEqual(len(way.splitlines()), 10)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
