#!/usr/bin/env python3
"""The history has each change once, with what the keys held before and after it, whoever makes the change and
however the writer ends; undo takes each one back. On one machine and in a cluster."""
import json, os, random, signal, subprocess, sys, threading, time, unittest

from admin_test import EVERY, TOOL, Administrator, document_of
from slips_test import Cluster

SALES = "DATABASE.DATABASES.sales"


# A field's bytes, or None.
def raw(record, name):
    return record[name + "_base64"] if record.get(name + "_base64") is not None else record[name]


class History:
    def tree(self):
        return {raw(key, "path"): raw(key, "value") for key in self.json("tree")["keys"]} if self.exists() else {}

    def exists(self):
        return self.run_tool("get", "DATABASE").returncode == 0

    # The latest last.
    def history(self, *words):
        return self.json("history", *words)["history"][::-1]

    # Goes through the changes, each of which must begin with what the one before left.
    def replay(self, tree, entries):
        trees = []
        for entry in entries:
            self.assertTrue(entry["changes"])
            for change in entry["changes"]:
                path, before, after = raw(change, "path"), raw(change, "before"), raw(change, "after")
                self.assertNotEqual(before, after)
                self.assertEqual(tree.get(path), before, (entry["revision"], path))
                tree = {**tree, path: after}
                if after is None:
                    del tree[path]
            trees.append(tree)
        return trees

    # A command of a random writer; what it sets may be there already.
    def command(self, dice):
        name = "d%d" % dice.randrange(4)
        value = "".join(dice.choice("ab\u00e9 =\\") for _ in range(dice.randrange(1, 60)))
        database = {"name": name, "domain": value, "instances": [{"name": "i%d" % n} for n in range(dice.randrange(40))]}
        return dice.choice([
            (["set", SALES + ".DOMAIN", value], b""),
            (["set", SALES + ".X%d.Y" % dice.randrange(3), "--create", "--as", "base64", "AP8A/w=="], b""),
            (["rm", SALES + ".X%d" % dice.randrange(3), "--yes"], b""),
            ([dice.choice(("enable", "disable")), "sales", "--service", "reporting"], b""),
            (["role", "ledger", dice.choice(("PRIMARY", "LOGICAL_STANDBY"))], b""),
            (["apply", "-"], json.dumps(document_of([database])).encode()),
            (["apply", "-", "--prune", "--yes"], json.dumps(document_of([])).encode())
            if dice.randrange(8) == 0 else (["rm", "database", name, "--yes"], b""),
        ])

    def write(self, seed, changes):
        dice = random.Random(seed)
        for _ in range(changes):
            words, document = self.command(dice)
            child = subprocess.Popen([TOOL, *words], env=self.env, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL)
            child.stdin.write(document)
            child.stdin.close()
            if dice.randrange(3) == 0:
                time.sleep(dice.random() * self.PATIENCE)
                child.send_signal(signal.SIGKILL)
            child.wait()

    def test_each_change_is_there_once_and_is_taken_back(self):
        before, export = self.tree(), self.good("export")
        first = len(self.history())
        writers = [threading.Thread(target=self.write, args=(seed, max(self.CHANGES // EVERY, 2))) for seed in range(3)]
        for writer in writers:
            writer.start()
        for writer in writers:
            writer.join()
        time.sleep(self.LEASE)  # locks of killed writers
        entries = self.history()[first:]
        revisions = [entry["revision"] for entry in entries]
        self.assertEqual(revisions, sorted(set(revisions)))
        self.assertGreater(len(entries), 2)
        trees = self.replay(before, entries)
        self.assertEqual(self.tree(), trees[-1])
        for number, revision in reversed(list(enumerate(revisions))):
            self.good("undo", str(revision), "--yes")
            if number % 8 == 0:
                self.assertEqual(self.tree(), trees[number - 1] if number > 0 else before, revision)
        self.assertEqual(self.good("export"), export)
        self.good("check")

    def test_it_names_who_and_when_and_is_chosen_by_database_and_time(self):
        self.good("set", SALES + ".DOMAIN", "x")
        self.good("role", "ledger", "LOGICAL_STANDBY")
        user = subprocess.run(["id", "-un"], capture_output=True, text=True, check=True).stdout.strip()
        host = os.uname().nodename
        for entry in self.history():
            self.assertEqual((entry["user"], entry["program"], entry["host"]), (user, "keyviewctl", host))
            self.assertRegex(entry["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z$")
        role, domain = self.history("--limit", "2")[::-1]
        self.assertEqual(domain["changes"], [{"path": SALES + ".DOMAIN", "before": "shop.example.com\0", "after": "x\0"}])
        for words, wanted in (
                (["Sales"], domain), (["LEDGER"], role), (["--since", str(domain["revision"])], role),
                (["--since", domain["time"]], role), (["--since", "1h", "sales"], domain), (["--since", "2000-01-01"], role),
                (["--since", role["time"].replace("Z", "+00:00")], role)):
            self.assertEqual(self.history("--limit", "1", *words), [wanted], words)
        self.assertEqual(self.history("--since", domain["time"]), [domain, role])
        for since in (str(role["revision"]), "0s", "2999-12-31T23:59:59+01:00"):
            self.assertEqual(self.history("--since", since), [], since)
        for since in ("yesterday", "2h3", "-1h", "2026-13-01", "2026-01-01T00:00", "2026-01-01T00:00:00Zx", "1e9d"):
            self.good("history", "--since", since, code=2)
        self.assertRegex(self.good("history", "sales", "--limit", "1"),
                         r"^revision \d+, \S+Z, by \S+ with keyviewctl, process \d+ on \S+\n"
                         r"  ~ %s.DOMAIN = shop.example.com -> x\n$" % SALES)

    def test_undo_refuses_what_changed_since(self):
        self.good("set", SALES + ".A.B", "--create", "--as", "text", "1")
        created = str(self.history()[-1]["revision"])
        self.good("set", SALES + ".A.C", "--create", "--as", "text", "2")
        self.good("set", SALES + ".A.B", "--as", "text", "3")
        error = json.loads(self.run_tool("-o", "json", "undo", created, "--yes").stderr)
        self.assertEqual((error["exit_code"], [(one["place"], one["reason"]) for one in error["problems"]]),
                         (6, [(SALES + ".A.B", "has changed since"), (SALES + ".A.C", "was created since")]))
        self.good("undo", created, "--yes", "--overwrite")
        self.good("get", SALES + ".A", code=3)
        self.good("undo", str(self.history()[-1]["revision"]), "--yes")  # an undo is a change like any other
        self.assertEqual(self.good("get", SALES + ".A.C"), "2\n")
        for revision in ("1", "0", "999999999999", "9999999999999999999"):
            self.good("undo", revision, "--yes", code=3)

    def test_it_is_bounded_and_can_be_off(self):
        before = len(self.history())
        self.good("set", SALES + ".DOMAIN", "x", KEYVIEW_HISTORY="0")
        self.good("disable", "sales", KEYVIEW_HISTORY="0")
        self.settings("history = 0\n")
        self.good("set", SALES + ".DOMAIN", "x2")
        self.good("enable", "sales")
        self.settings("")
        self.assertEqual(len(self.history()), before)
        self.good("list", KEYVIEW_HISTORY="x")
        self.good("set", SALES + ".DOMAIN", "y", code=2, KEYVIEW_HISTORY="x")
        self.good("role", "sales", "SNAPSHOT_STANDBY", code=2, KEYVIEW_HISTORY="x")
        self.good("history", "--since", "2026-11-26T12:00:00+99:00", code=2)
        for number in range(12):
            self.good("set", SALES + ".DOMAIN", "value %d" % number, KEYVIEW_HISTORY="1024")
        kept = self.history()
        self.assertLess(len(kept), 12)
        self.assertEqual([raw(one["changes"][0], "after") for one in kept][-2:], ["value 10\0", "value 11\0"])
        self.good("check")

    # The values that one change may take are bounded: the rest of its keys is counted.
    def test_a_large_change_is_kept_in_part(self):
        many = {"name": "many", "instances": [{"name": "i%04d" % n, "node": "n" * 99} for n in range(300)]}
        created = self.json("apply", self.written("many", document_of([many])), KEYVIEW_HISTORY="32768")["created"]
        entry = self.history()[-1]
        self.assertEqual(len(entry["changes"]) + entry["left_out"], created)
        self.assertTrue(entry["changes"])
        self.assertGreater(entry["left_out"], 0)
        self.assertIn("and %d more keys" % entry["left_out"], self.good("history", "many"))
        self.good("undo", str(entry["revision"]), "--yes", code=3)

    def test_no_program_sets_it(self):
        tree, history = self.tree(), self.history()
        self.good("set", "keyview-history-x", "--create", "--as", "text", "1", code=2)
        self.assertEqual(self.history(), history)
        for command in ("tree", "export", "backup -"):
            self.assertNotIn("keyview-history", self.good(*command.split()))
        self.good("set", SALES + ".DOMAIN", "z", KEYVIEW_HISTORY="1")
        self.assertEqual(self.tree(), {**tree, SALES + ".DOMAIN": "z\0"})
        self.assertLessEqual(len(self.history()), len(history))


class OnOneMachine(History, Administrator):
    PATIENCE, LEASE, CHANGES = 0.03, 0, 16


class InACluster(History, Cluster):
    PATIENCE, LEASE, CHANGES = 0.1, 0.1, 6
    # The engine makes no difference to these.
    test_it_names_who_and_when_and_is_chosen_by_database_and_time = None
    test_undo_refuses_what_changed_since = None

    def setUp(self):
        super().setUp()
        self.env["KEYVIEW_LEASE_TTL"] = "2"


del Administrator, Cluster, History
if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
