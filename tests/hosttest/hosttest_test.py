"""The contract test on hosts: the kit and the example host keep every rule; copies of the example with a
fault planted each break the rule of that fault, and the program names it.

Usage: hosttest_test.py KEYVIEW-HOSTTEST KEYVIEWCTL KIT EXAMPLES INCLUDE COMPILER
"""
import concurrent.futures
import os
import subprocess
import sys
import tempfile
import unittest

HOSTTEST, TOOL, KIT, EXAMPLES, INCLUDE, COMPILER = map(os.path.abspath, sys.argv[1:7])
SOURCE = open(f"{EXAMPLES}/host.c").read()
BUILD = ["-std=c99", "-shared", "-fPIC", "-pthread", f"-I{INCLUDE}"]

FAULTS = [line.rstrip("\n").split(" ==> ") for line in open(f"{os.path.dirname(__file__)}/faults.txt") if line[0] != "#"]


def build(folder, name, source):
    file = f"{folder}/{name}"
    with open(f"{file}.c", "w") as out:
        out.write(source)
    subprocess.run([COMPILER, *BUILD, "-w", "-o", f"{file}.so", f"{file}.c"], check=True)
    return f"{file}.so"


def run(host, *rules, **more):
    return subprocess.run([HOSTTEST, host, *rules], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, **more)


class Hosttest(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory()
        self.addCleanup(self.scratch.cleanup)
        self.folder = self.scratch.name

    def test_the_kit_keeps_every_rule(self):
        environment = {**os.environ, "KEYVIEW_REGISTRY": f"lmdb:{self.folder}/registry"}
        subprocess.run([TOOL, "apply", f"{EXAMPLES}/cluster.json"], env=environment, check=True, stdout=subprocess.DEVNULL)
        before = subprocess.check_output([TOOL, "export"], env=environment)
        result = run(KIT, env=environment)
        self.assertEqual(result.returncode, 0, result.stdout)
        self.assertEqual(subprocess.check_output([TOOL, "export"], env=environment), before)

    def test_the_example_keeps_every_rule(self):
        result = run(build(self.folder, "host", SOURCE))
        self.assertEqual(result.returncode, 0, result.stdout)

    def test_each_planted_fault_is_named(self):
        def planted(row):
            rule, rules, old, new = row
            self.assertEqual(SOURCE.count(old), 1, old)
            host = build(self.folder, f"host{FAULTS.index(row)}", SOURCE.replace(old, new))
            return row, run(host, *([] if rules == "*" else rules.split()))

        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            for (rule, _, old, new), result in pool.map(planted, FAULTS):
                with self.subTest(rule, fault=new):
                    self.assertEqual(result.returncode, 1, result.stdout)
                    self.assertRegex(result.stdout, rf"(?m)^BROKEN +{rule} ")

    # Each state that is no answer ends with 2: no host, none that can be loaded, no registry, an empty one, no such rule.
    def test_what_cannot_be_tested(self):
        os.environ["KEYVIEW_REGISTRY"] = f"lmdb:{self.folder}/none"
        empty = build(self.folder, "empty", SOURCE.replace("DATABASE.DATABASES.sales", "OTHER.sales"))
        for words in ([], [f"{self.folder}/none.so"], [empty], [KIT], [KIT, "no-such-rule"]):
            result = subprocess.run([HOSTTEST, *words], capture_output=True, text=True)
            self.assertEqual(result.returncode, 2, (words, result.stdout))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
