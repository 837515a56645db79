#!/usr/bin/env python3
"""What a slip of the hand does: it is refused with words that help, and leaves every key as it was. What
removes or replaces more than one record asks first, and the command that its answer names brings all of
it back. Both on LMDB and in a cluster of one member."""
import functools, json, os, re, shutil, socket, subprocess, sys, tempfile, time, unittest

from admin_test import EVERY, EXAMPLE, SALES, TOOL, Administrator, content, document_of

HERE = os.path.dirname(os.path.abspath(__file__))


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


class Engine(Administrator):
    """The registry of the example, and a second one with a part of it."""

    def setUp(self):
        super().setUp()
        self.other = self.second_url()
        os.symlink(TOOL, self.path("keyviewctl"))
        self.env["PATH"] = self.folder + ":" + self.env["PATH"]

    def second_url(self):
        return "lmdb:" + self.path("other")

    # One process makes all backups of the run, without what a start of the tool takes.
    @staticmethod
    @functools.cache
    def backups():
        return subprocess.Popen([os.path.join(os.path.dirname(TOOL), "backups")], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE)

    def dump(self, url=None):
        made = self.backups()
        made.stdin.write((url or self.url).encode() + b"\n")
        made.stdin.flush()
        size = made.stdout.readline().strip()
        if size == b"failed":
            self.fail(made.stdout.readline())
        lines = made.stdout.read(int(size)).decode(errors="surrogateescape").splitlines()
        return [line for line in lines if not line.startswith(("revision ", "checksum "))]

    def answered(self, answer, *words):
        code, seen, asked = self.at_terminal(*words, answer=answer)
        return code, seen.decode(errors="replace"), asked


class Cluster(Engine):
    number = 0

    @classmethod
    def setUpClass(cls):
        cls.data = tempfile.mkdtemp()
        client, peer = ("http://127.0.0.1:%d" % free_port() for _ in range(2))
        cls.member = subprocess.Popen(
            ["etcd", "--name=m", "--data-dir=" + cls.data, "--listen-client-urls=" + client,
             "--advertise-client-urls=" + client, "--listen-peer-urls=" + peer,
             "--initial-advertise-peer-urls=" + peer, "--initial-cluster=m=" + peer, "--log-level=error"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        cls.address = client.replace("http://", "etcd://")

    @classmethod
    def tearDownClass(cls):
        cls.member.kill()
        cls.member.wait()
        shutil.rmtree(cls.data)

    def registry_url(self):
        Cluster.number += 1
        return "%s/r%d" % (self.address, Cluster.number)

    second_url = registry_url


class Removals:
    """Each row: what removes or replaces more than one record, and what the question names."""
    ROWS = [("rm DATABASE", "databases first, ledger, Sales, SalesStandby, sandbox, second"), ("rm DATABASE.DATABASES.sales", "databases Sales"),
            ("rm DATABASE.DATABASES.sales.SERVICE", "services checkout.shop.example.com, nightly_batch, reporting"), ("rm DATABASE.STG", "stg Stg1"),
            ("rm DATABASE.DATABASES.sales.SERVICE.reporting", "services reporting"),
            ("apply <part> --prune", "nodeapps node1"), ("restore <less> --force", "databases first, ledger, SalesStandby"),
            ("restore <others> --force", "replaces 3"), ("copy --to <other> --force", "<other>"),
            ("undo <created>", "databases first, second"), ("rm database sandbox ledger", "databases ledger, sandbox"),
            ("rm service sales reporting", "services reporting"), ("rm instance sales sales1", "instances Sales1")]

    def setUp(self):
        super().setUp()
        self.good("apply", self.written("part", document_of([{"name": "Sales"}])), "--registry", self.other)
        self.good("backup", self.path("less"), "--registry", self.other)
        for name in ("sales", "ledger"):
            self.good("set", "DATABASE.DATABASES.%s.ROLE" % name, "LOGICAL_STANDBY")
        self.good("backup", self.path("others"))
        self.good("copy", "--to", self.other, "--force", "--yes")
        self.good("apply", EXAMPLE)
        self.written("created", self.apply({"name": "first"}, {"name": "second"}, output="json").stdout)
        self.store("DATABASE.DATABASES.sales.SPFILE", b"\xff\x00\x01 no text")
        self.store("DATABASE.DATABASES.sales.LATER", b"")

    def words_of(self, command):
        marks = {"<other>": self.other, "<part>": self.path("part"), "<less>": self.path("less"),
                 "<others>": self.path("others"), "<created>": self.path("created")}
        return [marks.get(word, word) for word in command.split()]

    def dumps(self):
        return self.dump(), self.dump(self.other)

    def undo(self, command):
        ended = subprocess.run(["sh", "-c", command], env={**self.env, "KEYVIEW_REGISTRY": ""}, cwd="/",
                               stdin=subprocess.DEVNULL, capture_output=True)
        self.assertEqual(ended.returncode, 0, (command, ended.stderr))

    def test_each_is_asked_for_refused_and_undone(self):
        before = self.dumps()
        for command, named in self.ROWS:
            with self.subTest(command):
                words = self.words_of(command)
                named = self.words_of(named)[0] if "<" in named else named
                refused = self.run_tool(*words)
                self.assertEqual((refused.returncode, self.dumps()), (2, before), refused.stderr)
                self.assertIn(named, refused.stderr.decode())
                self.assertIn("--yes", refused.stderr.decode())
                code, seen, asked = self.answered("n", *words)
                self.assertEqual((code, asked, self.dumps()), (1, True, before), seen)
                self.assertIn(named, seen)
                code, seen, asked = self.answered("y", *words)
                self.assertEqual((code, asked), (0, True), seen)
                self.assertNotEqual(self.dumps(), before)
                self.undo(re.search(r"undo: (keyviewctl .*?)\r?\n", seen).group(1))
                self.assertEqual(self.dumps(), before)
                document = self.json(*words, "--yes")
                self.assertNotEqual(self.dumps(), before)
                self.undo(document["undo"])
                self.assertEqual(self.dumps(), before)

    def test_what_changed_since_is_not_undone(self):
        gone = self.json("rm", SALES, "--yes")
        self.good("set", SALES, "Sales", "--create")
        self.good("set", SALES + ".DOMAIN", "a.later.one")
        file = gone["undo"].split()[-1]
        self.good("undo", file, code=6)
        self.good("undo", file, "--overwrite", "--yes")
        self.assertEqual(self.good("get", SALES + ".DOMAIN"), "shop.example.com\n")
        self.assertEqual(os.stat(file).st_mode & 0o777, 0o600)
        self.assertEqual(os.stat(os.path.dirname(file)).st_mode & 0o777, 0o700)
        for broken in (b"", b"[]", b'{"kind": "changes", "changes": [{}]}', content(file)[:-9], content(EXAMPLE)):
            self.good("undo", "-", "--yes", code=8, stdin=broken)

    def test_an_answer_that_cannot_be_written_says_what_was_done(self):
        with open("/dev/full", "w") as full:
            ended = subprocess.run([TOOL, "rm", SALES, "--yes"], env=self.env, stdout=full, stderr=subprocess.PIPE)
        self.assertEqual(ended.returncode, 9, ended.stderr)
        self.undo(re.search(r"the change was made; undo: (.*)", ended.stderr.decode()).group(1))
        self.assertEqual(self.good("get", SALES), "Sales\n")

    def test_no_registry_is_copied_to_nowhere(self):
        self.good("lock", "run", "--any-name", "", "--", "true", code=2)
        self.assertIn("--to is empty", self.run_tool("copy", "--to", "", "--force", "--yes").stderr.decode())

    def test_a_value_in_the_list_is_a_text_or_null(self):
        for changes in ([{"path": SALES + ".ROLE", "before": 7, "after": "PRIMARY\0"}],
                        [{"path": SALES + ".ROLE", "before": word, "after": "PRIMARY\0"} for word in "ab"]):
            text = json.dumps({"kind": "changes", "version": 1, "changes": changes})
            self.assertIn(self.run_tool("undo", "-", "--yes", stdin=text.encode()).returncode, (6, 8))

    def test_without_a_place_for_the_undo_nothing_goes(self):
        before = self.dumps()
        self.good("rm", SALES, "--yes", code=2, HOME="", XDG_STATE_HOME="")
        self.good("rm", SALES, "--yes", code=2, XDG_STATE_HOME=EXAMPLE)
        self.assertEqual(self.dumps(), before)


class Slips:
    def setUp(self):
        super().setUp()
        self.apply({"name": "a"}, {"name": "b"}, KEYVIEW_REGISTRY=self.other)
        self.good("backup", self.path("less"), "--registry", self.other)
        self.good("backup", self.path("saved"))
        self.written("typo/.config/keyview/config", "registri = lmdb:/x\n")
        own = self.url.split(":", 1)[1] + "/data.mdb"
        self.marks = {"<example>": EXAMPLE, "<backup>": self.path("saved"), "<less>": self.path("less"),
                      "<other>": self.other, "<folder>": self.folder, "<tool>": TOOL, "<typo>": self.path("typo"),
                      "<own>": own if os.path.exists(own) else TOOL,
                      "<empty>": self.written("empty", document_of([])),
                      "<rol>": self.written("rol", document_of([{"name": "Sales", "rol": "PRIMARY"}])),
                      "<service>": self.written("service", document_of([{"name": "Sales", "service": []}]))}

        for name, script in (("breaks", "echo x >> $1"), ("empties", ": > $1"), ("renames", "sed -i s/Sales\\\",/Other\\\",/ $1"),
                             ("misspells", "sed -i s/role/rol/ $1"), ("fails", "echo x >> $1; exit 3"),
                             ("changes", "sed -i s/PRIMARY/LOGICAL_STANDBY/ $1"),
                             ("late", "%s role ledger LOGICAL_STANDBY; sed -i s/PRIMARY/LOGICAL_STANDBY/ $1" % TOOL),
                             ("fewer", "python3 -c \"import json; d = json.load(open('$1')); d['databases'][0]['services'] = []; "
                                       "json.dump(d, open('$1', 'w'))\"")):
            os.chmod(self.written(name, "#!/bin/sh\n" + script + "\n"), 0o755)
            self.marks["<%s>" % name] = self.path(name)

    def meant(self, text):
        for mark, word in self.marks.items():
            text = text.replace(mark, word)
        return text

    def run_row(self, command):
        head, colon, rest = command.partition(":")
        if head in ("n", "y", "YES"):
            code, seen, _ = self.answered(head, *rest.split())
            return code, seen
        words = command.split()
        count = next(n for n, word in enumerate(words) if not re.match(r"[A-Z_]+=", word))
        env = dict(word.split("=", 1) for word in words[:count])
        if "HOME" in env:
            env["KEYVIEW_REGISTRY"] = ""
        ended = self.run_tool(*words[count:], **env)
        return ended.returncode, (ended.stdout + ended.stderr).decode(errors="replace")

    def test_each_slip_is_refused_with_words_that_help(self):
        lines = content(os.path.join(HERE, "slips.txt")).decode().splitlines()
        rows = [[cell.strip() for cell in re.split(r" \|(?: |$)", line)] for line in lines if line and line[0] != "#"]
        before, rest = self.dump(), self.dump(self.other)
        stored = dict(line.rsplit(" ", 1) for line in before[2:])
        for command, code, left, *words in rows[::EVERY]:
            if command.startswith("lmdb:"):
                command = command[5:]
                if not self.url.startswith("lmdb:"):
                    continue
            with self.subTest(command):
                ended, text = self.run_row(self.meant(command))
                self.assertEqual(ended, int(code), text)
                for word in filter(None, (words or [""])[0].split(" & ")):
                    self.assertIn(self.meant(word), text)
                after = dict(line.rsplit(" ", 1) for line in self.dump()[2:])
                differs = ["+" + key for key in after if key not in stored]
                differs += ["-" + key for key in stored if key not in after]
                differs += ["~" + key for key in stored if key in after and stored[key] != after[key]]
                self.assertEqual(sorted(differs), [] if left == "same" else sorted(left.split()), text)
            if after != stored:
                self.good("restore", self.path("saved"), "--force", "--yes")
        self.assertEqual(self.dump(self.other), rest)
        print("%d slips in %s" % (len(rows), self.url.split(":")[0]))

    # A daemon closes its standard descriptors; what it prints must not go into the files of the registry.
    def test_a_program_without_standard_descriptors_harms_nothing(self):
        program = os.path.join(os.path.dirname(TOOL), "embedder")
        shell = "exec \"$0\" \"$1\" <&- >&- 2>&-"
        for command in ([program, self.url], ["sh", "-c", shell, program, self.url]):
            for trace in ("none", "stderr"):
                ended = subprocess.run(command, env={**self.env, "KEYVIEW_TRACE": trace, "KEYVIEW_TRACE_LEVEL": "4"},
                                       capture_output=True)
                self.assertEqual(ended.returncode, 0, (command, ended.stderr[-500:]))
        self.good("check")

    # More locks than are taken one by one, while the command's parent holds one of another name.
    def test_a_wide_plan_waits_for_no_lock_above_it(self):
        self.written("wide", document_of([{"name": "wide%d" % n} for n in range(40)]))
        for name, code in (("LKRT.DATABASE.DATABASES.wide7", 5), ("weekly", 0)):
            ended = self.run_tool("lock", "run", name, "--any-name", "--", TOOL, "apply", self.path("wide"))
            self.assertEqual(ended.returncode, code, ended.stderr)

    def test_a_writer_that_waits_behind_a_removal_finds_nothing(self):
        for words in (["disable", "sales"], ["role", "sales", "LOGICAL_STANDBY"], ["set", SALES + ".DOMAIN", "late"],
                      ["rm", SALES, "--yes"], ["enable", "sales", "--service", "nightly_batch"]):
            with self.holding("LKRT." + SALES):
                removal = subprocess.Popen([TOOL, "rm", SALES, "--yes"], env=self.env, stdout=subprocess.DEVNULL)
                time.sleep(0.3)
                waiting = subprocess.Popen([TOOL, *words], env=self.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                time.sleep(0.3)
            removal.wait()
            out, err = waiting.communicate(timeout=60)
            first = waiting.returncode == 0  # it came before the removal
            self.assertTrue(first or waiting.returncode == 3, (words, waiting.returncode, err))
            self.good("restore", self.path("saved"), "--force", "--yes")


class Pasted(Engine):
    """Commands that an answer contains do what they say, whatever the names have in them."""
    NAMES = ("o'brien", "a\\b", "a';touch pwned;'b", "$(touch pwned)", "a b", "-odd", "\u202eb")

    def registry_url(self):
        return "lmdb:" + self.path("re'g\\x $y")

    def shell(self, text):
        ended = subprocess.run(["sh", "-c", text], env={**self.env, "PATH": self.folder + ":" + os.environ["PATH"]},
                               cwd=self.folder, stdin=subprocess.DEVNULL, capture_output=True)
        self.assertEqual(ended.returncode, 0, (text, ended.stderr))
        self.assertFalse(os.path.exists(self.path("pwned")), text)

    def test_each_does_what_it_says(self):
        for name in self.NAMES:
            with self.subTest(name):
                self.good("create", "database", "--", name)
                sound = self.dump()
                key = json.loads(self.good("tree", "-o", "json"))["keys"]
                path = max((one["path"] for one in key if one["path"].startswith(SALES.rsplit(".", 1)[0] + ".") and
                            one.get("value") == name + "\0"), key=len, default=None)
                self.assertIsNotNone(path)
                self.good("set", "--as", "text", "--", path + ".ENABLED", "TRUE")
                self.shell(re.search(r"mend: +(.*)", self.good("lint", code=8)).group(1))
                self.assertEqual(self.dump()[2:], sound[2:])
                gone = self.good("rm", "--yes", "--", path)
                self.shell(re.search(r"undo: (.*)", gone).group(1))
                self.assertEqual(self.dump()[2:], sound[2:])
                commands = self.good("rm", "--dry-run", "-o", "cmd", "--", path)
                self.shell(commands)
                self.assertNotEqual(self.dump()[2:], sound[2:])


class SlipsOnLmdb(Slips, Engine):
    pass


@unittest.skipIf(EVERY > 1, "sampled: on LMDB alone")
class SlipsInACluster(Slips, Cluster):
    pass


class RemovalsOnLmdb(Removals, Engine):
    pass


@unittest.skipIf(EVERY > 1, "sampled: on LMDB alone")
class RemovalsInACluster(Removals, Cluster):
    pass


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
