"""Each claim of SECURITY.md has a row in docs/threat-model.md, and each test of a row exists."""
import os
import re
import subprocess
import sys
import unittest

TREE, BUILD = sys.argv[1:3]


def content(name):
    with open(os.path.join(TREE, name), encoding="utf-8") as file:
        return file.read()


def claims():
    promised = content("SECURITY.md").split("## What is promised")[1].split("\n## ")[0]
    for item in promised.split("\n- ")[1:]:
        text = re.sub(r"\*\*[^*]+\.\*\*|\*\*", "", " ".join(item.split()))  # a heading, or marks alone
        yield from (one for one in re.split(r"(?<=\.) (?=[A-Z`])", text.strip()) if one)


def rows():
    for line in content("docs/threat-model.md").split("## The claims")[1].splitlines():
        cells = [cell.strip() for cell in line.strip("|").split(" | ")]
        if line.startswith("|") and len(cells) == 2 and "`" in cells[1]:
            yield cells[0], re.findall(r"`([^`]+)`", cells[1])


def tests():
    listed = subprocess.run(["ctest", "--test-dir", BUILD, "-N"], check=True, capture_output=True, text=True).stdout
    names = set(re.findall(r"Test +#\d+: (\S+)", listed))
    for folder, _, files in os.walk(os.path.join(TREE, "tests")):
        for file in files:
            text = content(os.path.join(folder, file)) if file.endswith((".cpp", ".py")) else ""
            names.update(map(".".join, re.findall(r"^TEST(?:_F|_P)?\((\w+), (\w+)\)", text, re.M)))
            for kind, body in re.findall(r"^class (\w+)(.*?)(?=^\S|\Z)", text, re.M | re.S):
                names.update(kind + "." + name for name in re.findall(r"def (test_\w+)", body))
    for file in os.listdir(os.path.join(TREE, "fuzz")):
        if file.endswith(".cpp"):
            names.update(map(".".join, re.findall(r"^TEST_F\((\w+), (\w+)\)", content("fuzz/" + file), re.M)))
    return names


class Claims(unittest.TestCase):
    def test_each_has_its_tests(self):
        table, known, found = dict(rows()), tests(), list(claims())
        self.assertGreater(len(found), 20)
        for claim in found:
            self.assertEqual(sum(claim.startswith(row) for row in table), 1, claim)
        for row, names in table.items():
            self.assertEqual(sum(claim.startswith(row) for claim in found), 1, row)
            self.assertEqual(set(names) - known, set(), row)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
