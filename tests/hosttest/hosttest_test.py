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

# The rule that is named, a piece of the example that occurs once, and what the fault makes of it. "*" runs
# all rules; else only those that are named run, since the fault makes others wait for long.
FAULTS = [
    ("lock-shares", "lock-shares", "(exclusive && lock->readers > 0)", "lock->readers > 0"),
    ("lock-release", "lock-release", "if (held) *(", "if (lock->writers > 0) *("),
    ("operations", "*", "int32_t txtclo(", "int32_t txtclo_old("),
    ("block-zeroed", "*", "return calloc(1, size == 0 ? 1 : size);", "return memset(malloc(size + 1), 'x', size + 1);"),
    ("block-empty", "*", "return calloc(1, size == 0 ? 1 : size);", "return size == 0 ? NULL : calloc(1, size);"),
    ("tag", "*", "memcpy(address, tag, 8);", "memset(address, 0, 16), memcpy(address, tag, 8);"),
    ("trace-null", "*", 'component == NULL ? "-" : component', '*component == 0 ? "-" : component'),
    ("trace-null", "*", "if (level > TRCD_FAILURE) return;", "if (((const char *)component)[0] == 0) return;"),
    ("fold-lower", "*", "c >= 'A' && c <= 'Z' ? (char)(c + 32) : c", "(char)(c | 32)"),
    ("replace-capacity", "*", "if (length - from_length + to_length >= capacity) return FAILED;", ""),
    ("open-missing", "*", 'fail(owner, KVTC_ERR_KEY_NOT_FOUND, "there', 'fail(owner, FAILED, "there'),
    ("open-missing", "*", "node *at = node_of(path, 0);", "node *at = node_of(path, 1);"),
    ("value-size", "*", "*size = at->size;", "if (at->size < capacity) *size = at->size;"),
    ("value-size", "*", "int fits = at->size <= capacity;", "int fits = at->size <= capacity + 1;"),
    ("value-kept", "*", "set_value(((open_key *)key)->at, value, size)",
     "set_value(((open_key *)key)->at, value, (uint32_t)strlen(value) + 1)"),
    ("value-shared", "*", "set_value(((open_key *)key)->at, value, size)", "1"),
    ("subkey-last", "*", "        ++*last;", "        *last = 1;"),
    ("subkey-none", "*", "if (walked->at->first == NULL) *last = -1;", ""),
    ("subkey-cursor", "*", "*type = KVTC_TYPE_STRING;",
     "*type = KVTC_TYPE_STRING, ((open_key *)key)->cursor = at->first;"),
    ("subkey-short", "*", "if (length >= *size)", "if (length > 2000)"),
    ("last-error", "*", "*code = owner->code;", "*code = 0;"),
    ("lock-excludes", "*", "(exclusive && lock->readers > 0)", "0"),
    ("threads", "*", "static node root;", "static __thread node root;"),
]


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

    # Each state that is no answer ends with 2: no host, none that can be loaded, an empty registry, no such rule.
    def test_what_cannot_be_tested(self):
        empty = build(self.folder, "empty", SOURCE.replace("DATABASE.DATABASES.sales", "OTHER.sales"))
        for words in ([], [f"{self.folder}/none.so"], [empty], [KIT, "no-such-rule"]):
            result = subprocess.run([HOSTTEST, *words], capture_output=True, text=True)
            self.assertEqual(result.returncode, 2, (words, result.stdout))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
