#!/usr/bin/env python3
"""keyviewctl as an administrator uses it: formats against their schema, hostile names on a terminal,
plans and what is written, backups under fire, findings and what mends them."""
import base64, contextlib, fcntl, json, os, pty, random, re, shutil, signal, struct, subprocess, sys, tempfile, termios, time
import unicodedata, unittest
import jsonschema

TOOL, EXAMPLE, SCHEMAS = map(os.path.abspath, sys.argv[1:4])
# Sanitizers make a run of the tool ten times slower: the longest tables are then sampled.
EVERY = int(os.environ.get("KEYVIEW_TEST_EVERY", "1"))


def content(name):
    with open(name, "rb") as file:
        return file.read()


def document_of(databases):
    return {"format": "keyview-cluster", "version": 1, "databases": databases}


# The rows of a table beside the tests.
def table(name):
    lines = content(os.path.join(os.path.dirname(__file__), name)).decode().splitlines()
    return [line for line in lines if line[0] != "#"]


# The rows of the table of findings, with what the marks stand for: rule, keys with their values, decision.
def findings():
    for line in table("findings.txt"):
        line = re.sub(r"<(\\?.)\*(\d+)>", lambda mark: mark[1] * int(mark[2]), line.replace("<sales>", SALES))
        rule, keys, decision = line.split(" | ")
        values = dict(key.split(" = ", 1) for key in keys.split("; ") if key)
        yield rule, {key: None if text == "None" else text.encode().decode("unicode_escape").encode("latin-1")
                     for key, text in values.items()}, None if decision == "-" else decision


def validator(name):
    return jsonschema.Draft202012Validator(json.loads(content(os.path.join(SCHEMAS, name))))


VALIDATOR, DOCUMENT = validator("keyviewctl-1.json"), validator("keyview-cluster-1.json")
SALES = "DATABASE.DATABASES.sales"


class Administrator(unittest.TestCase):
    runs, searched, sampled = 0, set(), True

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.url = self.registry_url()
        self.env = {"PATH": os.environ["PATH"], "HOME": self.folder, "KEYVIEW_REGISTRY": self.url,
                    "EDITOR": "true", **{name: os.environ[name] for name in os.environ if "SAN_OPTIONS" in name}}
        self.good("apply", EXAMPLE)

    def registry_url(self):
        return "lmdb:" + self.path("registry")

    # The search for leaks takes as long as the run before it: under sanitizers the first run of each
    # command has it, and one in EVERY.
    def run_tool(self, *words, stdin=b"", stdout=subprocess.PIPE, **env):
        Administrator.runs += 1
        again = words[:3] in Administrator.searched
        Administrator.searched.add(words[:3])
        options = self.env.get("ASAN_OPTIONS", "")
        leaks = {"ASAN_OPTIONS": options + ":detect_leaks=0"} if again and self.sampled and Administrator.runs % EVERY else {}
        return subprocess.run([TOOL, *words], input=stdin, stdout=stdout, stderr=subprocess.PIPE, timeout=120,
                              env={**self.env, **leaks, **env})

    def good(self, *words, code=0, **more):
        ended = self.run_tool(*words, **more)
        self.assertEqual(ended.returncode, code, (words, ended.stderr.decode(errors="replace")))
        return ended.stdout.decode(errors="surrogateescape")

    def json(self, *words, **more):
        document = json.loads(self.good("-o", "json", *words, **more))
        VALIDATOR.validate(document)
        return document

    def store(self, path, value):
        self.good("set", path, "--create", "--as", "base64", base64.b64encode(value).decode())

    def path(self, name):
        return os.path.join(self.folder, name)

    # Writes bytes, a text or a document to a file of the test, in a folder that is made if there is none.
    def written(self, name, what):
        what = json.dumps(what) if isinstance(what, (dict, list)) else what
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with open(self.path(name), "wb") as file:
            file.write(what.encode() if isinstance(what, str) else what)
        return self.path(name)

    # Writes the user's settings file.
    def settings(self, text):
        self.written(".config/keyview/config", text)

    def apply(self, *databases, codes=(0,), output="table", **how):
        ended = self.run_tool("apply", "-", "-o", output, stdin=json.dumps(document_of(databases)).encode(), **how)
        self.assertIn(ended.returncode, codes, ended.stderr)
        return ended

    # Holds locks in programs of their own until the block ends, or as long as a script takes.
    @contextlib.contextmanager
    def holding(self, *locks, script="read end", **env):
        under = [word for lock in locks for word in (TOOL, "lock", "run", lock, "--")]
        holder = subprocess.Popen([*under, "sh", "-c", "echo held; " + script], env={**self.env, **env},
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.assertEqual(holder.stdout.readline(), b"held\n")
        try:
            yield holder
        finally:
            holder.communicate(b"end\n")

    # All commands, those below another one as "lock run".
    def commands(self):
        words = self.good("__complete", "--", "").split()
        below = {word: self.good("__complete", "--", word, "").split() for word in ("lock", "config")}
        return words + [word + " " + one for word in below for one in below[word]]

    # Runs the tool at a terminal at which somebody may answer; its code, what is seen, and whether it asked.
    def at_terminal(self, *words, columns=80, answer=None):
        leader, follower = pty.openpty()
        fcntl.ioctl(follower, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        child = subprocess.Popen([TOOL, *words], stdin=follower if answer else subprocess.DEVNULL, stdout=follower, stderr=follower,
                                 env={**self.env, "TERM": "xterm", "NO_COLOR": "1"}, start_new_session=True)
        os.close(follower)
        seen, asked = b"", False
        try:
            while block := os.read(leader, 65536):
                seen += block
                if answer and not asked and b"[y/N] " in seen:
                    asked = True
                    os.write(leader, answer.encode() + b"\n")
        except OSError:  # the end of a terminal
            pass
        code = child.wait(timeout=60)
        os.close(leader)
        return code, seen, asked

    # What a person sees on a terminal.
    def on_terminal(self, *words, columns=80):
        return self.at_terminal(*words, columns=columns)[1]


READS = """list|show sales|show ledger|status|status sales|roster sales reporting|policy ledger booking|role sales
domain sales|name sales|name sales Sales1|instance-on ledger node5|enabled sales|supported sales reporting sales4
stg node1 stg1|stg-name node1 stg1|stg-enabled node1 stg1|nodeapps node1|get DATABASE.DATABASES.sales.ENVIRONMENT
ls DATABASE.STG|tree|explain|explain --findings|explain DATABASE.DATABASES.sales|check|lint|lock list|errors|config|history|history sales
disable sales --dry-run|role sales PRIMARY --dry-run|set DATABASE.DATABASES.sales.DOMAIN x --dry-run
rm DATABASE.STG --dry-run""".replace("\n", "|").split("|")


class Output(Administrator):
    def test_every_document_fits_the_schema(self):
        self.store(SALES + ".DOMAIN", b"\xff\x00")
        self.store(SALES + ".ENVIRONMENT", b"a\x00\xc3\x28\x00\x00")
        for command in READS:
            self.json(*command.split())
            for line in self.good("-o", "jsonl", *command.split()).splitlines():
                VALIDATOR.validate(json.loads(line))
        DOCUMENT.validate(json.loads(content(EXAMPLE)))
        for command in ("show nobody", "frob", "apply -", "get X", "set a..b --as text x"):
            error = json.loads(self.run_tool("-o", "json", *command.split()).stderr)
            VALIDATOR.validate(error)

    def test_a_tree_comes_back_from_its_commands(self):
        top = "DATABASE" if EVERY == 1 else "DATABASE.STG"
        before = self.json("tree")["keys"]
        commands = self.good("tree", top, "-o", "cmd")
        self.good("rm", top, "--yes")
        os.symlink(TOOL, self.path("keyviewctl"))
        subprocess.run(["sh", "-e"], input=commands.encode(), check=True, capture_output=True,
                       env={**self.env, "PATH": self.folder + ":" + self.env["PATH"]})
        self.assertEqual(self.json("tree")["keys"], before)

    def test_nothing_harmful_reaches_a_terminal(self):
        hostile = ["\x1b[2J", "\u202e", "\u009b31m", "\u2028", "\u200f", "\ufeff", "\U000e0041", "\x7f", "\r"]
        raw = re.compile(b"[\x00-\x08\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xe2\x80[\x8e\x8f\xa8-\xae]"
                         b"|\xe2\x81[\xa6-\xa9]|\xef\xbb\xbf|\xf3\xa0|\xff")
        for number, text in enumerate(hostile[::EVERY]):
            name = "h%d%s" % (number, text if text > "\x7f" else "")
            value = (name + text).encode() + b"\xff\0"
            self.store("DATABASE.DATABASES." + name, value)
            for key in ("SPFILE", "ENABLED", "ROLE", "INSTANCE.i", "INSTANCE.i.NODE", "SERVICE.s"):
                self.store("DATABASE.DATABASES.%s.%s" % (name, key), value)
            for other in ("STG.%s.%s" % (name, name), "NODEAPPS." + name, "NODEAPPS.%s.VIP" % name):
                self.store("DATABASE." + other, value)
            path = "DATABASE.DATABASES." + name
            marks = {"<name>": name, "<text>": text, "<path>": path, "<folder>": self.folder, "<example>": EXAMPLE, "<tool>": TOOL}
            for line in table("hostile.txt"):
                command = [re.sub("<[a-z]+>", lambda mark: marks[mark[0]], word) for word in line.split(" ")]
                seen = self.on_terminal(*command)
                self.assertIsNone(raw.search(seen.replace(b"\r\n", b"\n")), (command, seen))

    def test_tables_fit_and_colours_only_repeat(self):
        self.assertIn(b"checkout.shop.example.com  enabled", self.on_terminal("status", "sales"), "no word is cut")
        painted = self.good("--color", "always", "status", "sales")
        self.assertIn("\x1b[31mdisabled", painted)
        self.assertNotIn("\x1b", self.good("status", "sales"))
        self.assertEqual(re.sub(r"\x1b\[\d*m", "", painted), self.good("status", "sales"))


    def test_tables_fit_any_terminal_and_break_no_word(self):
        def width(line):
            return sum(2 if unicodedata.east_asian_width(c) in "WF" else 0 if unicodedata.combining(c) else 1 for c in line)
        long = "L" * 900
        many = ["instance%02d" % n for n in range(30)]
        database = lambda name: {
            "name": name, "instances": [{"name": one, "node": "node-of-" + one} for one in many],
            "services": [{"name": "s%02d.%s" % (n, "example." * 3), "preferred": [{"name": one} for one in many[:n]],
                          "available": [{"name": one} for one in many[n:]]} for n in range(30)]}
        wild = database("wild")
        wild["services"] += [{"name": long}, {"name": "数据库服务" * 20}, {"name": "e\u0301" * 99}]
        wild["instances"].append({"name": long, "node": long})
        wild["services"][0]["preferred"].append({"name": long})
        self.apply(database("tame"), wild, {"name": "L" * 900, "role": "SNAPSHOT_STANDBY"})
        self.store("DATABASE.DATABASES.wild.ROLE", b"NONE\0")
        locks = ["lock", "run", "LKRT." + long, "--any-name", "--", TOOL, "lock", "list"]
        for command in (["status"], ["status", "wild"], ["status", "tame"], ["roster", "wild", "s00." + "example." * 3],
                        ["errors"], ["config"], ["doctor"], ["check"], ["explain"], ["explain", "--fields"], ["list"],
                        ["ls", "DATABASE.DATABASES.wild.SERVICE"], locks):
            def shown(columns, *more):
                text = self.on_terminal(*command, *more, columns=columns).decode().replace("\r\n", "\n")
                text = re.sub("[^\n]*\x1b\\[K", "", text)  # the moving line of a slow run
                return re.sub(r"\d+\.\d ms|\d{3,}", "0", text).splitlines()  # times, free space
            whole = shown(80, "-o", "wide")
            words = set(" ".join(whole).split()) | {"table"}  # the setting itself
            self.assertFalse([word for word in words if "…" in word])
            for columns in (60, 80, 120, 200)[::EVERY]:
                lines = [line for line in shown(columns) if not line.startswith("database ")]
                self.assertFalse([line for line in lines if width(line) > columns], command)
                broken = [word for line in lines for word in line.split() if "…" not in word and word not in words]
                self.assertFalse(broken, (command, columns))
                if command[0] in ("list", "ls", "roster") or command == ["status"]:
                    self.assertLessEqual(len(lines), len(whole) + 1, "a long name stays on its line")
            self.assertEqual(shown(60, "-o", "wide"), whole)

    def test_a_reader_that_leaves_ends_the_tool_quietly(self):
        self.apply(*({"name": "d%04d" % n, "spfile": "x" * 200} for n in range(400)))
        for command in ("list", "status", "tree", "export", "lint", "ls DATABASE.DATABASES", "backup -", "explain", "errors",
                        "manual keyview-keys", "apply --prune --dry-run " + EXAMPLE, "check", "watch --from 1"):
            for form in ("table", "json"):
                reader, writer = os.pipe()
                os.close(reader)
                ended = subprocess.run([TOOL, *command.split(), "-o", form, "-q"], stdout=writer, stderr=subprocess.PIPE,
                                       env=self.env, timeout=60)
                os.close(writer)
                self.assertEqual((ended.returncode, ended.stderr), (-signal.SIGPIPE, b""), (command, form))

    def test_remarks_are_as_many_as_wanted(self):
        self.assertEqual(self.run_tool("rm", "DATABASE.STG", "--dry-run", "-q").stderr, b"")
        for command in READS:
            words = command.split()
            self.assertEqual(self.run_tool(*words, "-o", "json").stderr, b"", command)
            told = self.run_tool(*words, "-v", "-o", "json").stderr.decode().splitlines()
            for line in told:
                VALIDATOR.validate(json.loads(line))
            self.assertIn("ends with exit code", told[-1])
        told = self.run_tool("set", SALES + ".DOMAIN", "x", "-v").stderr.decode()
        for part in ("uses the registry %s, chosen by KEYVIEW_REGISTRY" % self.url, "waits for the lock LKRT." + SALES,
                     "writes 1 changes", "ends with exit code 0"):
            self.assertIn(part, told)


class Changes(Administrator):
    def test_apply_then_diff_then_apply(self):
        self.good("set", SALES + ".DOMAIN", "x")
        self.good("set", SALES + ".MORE", "--as", "text", "x")
        for prune in ([], ["--prune"]):
            self.assertEqual(self.run_tool("diff", EXAMPLE, *prune).returncode, 1)
            dry = self.good("apply", EXAMPLE, "--dry-run", *prune)
            done = self.good("apply", EXAMPLE, *prune, *(["--yes"] if prune else []))
            self.assertEqual(re.sub(r"undo: .*\n$", "", done), dry)
            self.good("diff", EXAMPLE, *prune)
            revision = self.json("get", SALES)["revision"]
            self.good("apply", EXAMPLE, *prune)
            self.assertEqual(self.json("get", SALES)["revision"], revision)
        self.assertEqual(self.good("export"), content(EXAMPLE).decode())
        self.assertEqual(self.run_tool("get", SALES + ".MORE").returncode, 3)

    def test_a_dry_run_tells_what_a_real_one_writes(self):
        for command in ("disable sales", "disable sales --service reporting", "role ledger LOGICAL_STANDBY",
                        "disable ledger --instance ledger1", "rm DATABASE.STG.node1 --yes", "set DATABASE.NEW --as text 1",
                        "set %s.ENVIRONMENT A=1 B=2" % SALES, "enable sales --service nightly_batch"):
            before = {key["path"]: key["value"] for key in self.json("tree")["keys"]}
            told = self.json(*command.split(), "--dry-run")
            self.assertEqual({k["path"]: k["value"] for k in self.json("tree")["keys"]}, before)
            done = self.json(*command.split())
            self.assertEqual((done["changes"], done["locks"]), (told["changes"], told["locks"]), command)
            self.assertTrue(done["changes"], command)
            after = {key["path"]: key["value"] for key in self.json("tree")["keys"]}
            for change in done["changes"]:
                self.assertEqual(before.pop(change["path"], None), change["before"])
                self.assertEqual(after.pop(change["path"], None), change["after"])
            self.assertEqual(before, after)

    def test_a_stale_revision_and_a_lock_change_nothing(self):
        revision = self.json("get", SALES)["revision"]
        self.good("lock", "run", "LKRT." + SALES, "--", "true")
        self.assertEqual(self.json("get", SALES)["revision"], revision, "a lock moves no revision")
        self.good("set", SALES + ".DOMAIN", "x", "--if-revision", str(revision))
        tree = self.good("tree")
        for command in (["set", SALES + ".DOMAIN", "y"], ["apply", EXAMPLE], ["rm", SALES]):
            self.good(*command, "--if-revision", str(revision), code=6)
        for command in (["set", SALES + ".DOMAIN", "y"], ["disable", "sales"], ["rm", SALES, "--yes"]):
            self.good("lock", "run", "LKRT." + SALES, "--", TOOL, *command, code=5, KEYVIEW_LOCK_WAIT="0")
        self.assertEqual(self.good("tree"), tree)

    def test_who_holds_a_lock_is_told(self):
        name = "LKRT." + SALES
        for shared in ([], ["--shared"]):
            rows = json.loads(self.good("lock", "run", name, *shared, "--", TOOL, "-o", "json", "lock", "list"))
            self.assertEqual([row["lock"] for row in rows["locks"]], [name])
            self.assertEqual(rows["locks"][0]["mode"], "shared" if shared else "exclusive")
            self.assertRegex(rows["locks"][0]["by"], r"^keyviewctl, process \d+ on .")
            self.assertRegex(rows["locks"][0]["since"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.good("lock", "run", name, "--", "sh", "-c", "exit 77", code=77)
        ignored = subprocess.run([TOOL, "lock", "run", name, "--", "sh", "-c", "exit 78"], env=self.env,
                                 preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.assertEqual(ignored.returncode, 78)
        with self.holding(name, script="exec sleep 30") as holder:
            holder.terminate()
            self.assertEqual(holder.wait(timeout=20), 143, "the command was told")

    def test_what_takes_long_is_told(self):
        name = "LKRT." + SALES
        for words, told in (([], r"(keyviewctl: set goes on for \d s: it waits for keyviewctl, "
                             r"process \d+ on \S+, which holds the lock %s since [\d-]+T[\d:]+Z\n)+" % name),
                            (["-o", "json"], "")):
            with self.holding(name, script="sleep 2.5"):
                ended = self.run_tool("set", SALES + ".DOMAIN", "late", *words)
            self.assertEqual(ended.returncode, 0)
            self.assertTrue(re.fullmatch(told, ended.stderr.decode()), ended.stderr)

    def test_what_takes_long_moves_in_one_line_of_a_terminal(self):
        with self.holding("LKRT." + SALES, script="sleep 2"):
            seen = self.on_terminal("status").decode()
        lines = seen[:seen.rindex("\r\x1b[K")].split("\r")[1:]
        shares = []
        for line in lines:
            shown = re.match(r"keyviewctl: status goes on for \d s, (\d+) %, \d of 4, \d\.\d/s, \d s left: it (?:reads|waits).*…\x1b\[K$", line)
            self.assertTrue(shown, line)
            shares.append(int(shown[1]))
            self.assertLess(len(line), 80 + len("\x1b[K"))
        self.assertGreater(shares.count(25), 2, "it moves while the second database waits")
        self.assertEqual(shares, sorted(shares))
        self.assertIn("\r\x1b[Kdatabase ", seen, "the result is alone")
        self.assertNotIn("goes on", self.on_terminal("status", "-q").decode())

    def test_watch_misses_nothing_in_silence(self):
        child = subprocess.Popen([TOOL, "watch", SALES, "-o", "jsonl", "--count", "3", "--from", "1", "--exec",
                                  "cat >> " + self.path("got")], env=self.env, stdout=subprocess.PIPE)
        lines = [json.loads(child.stdout.readline())]
        for number, value in enumerate("abc"):
            self.good("set", SALES + ".DOMAIN", value)
            while len(lines) < number + 2:
                lines.append(json.loads(child.stdout.readline()))
        lines += [json.loads(line) for line in child.communicate(timeout=60)[0].splitlines()]
        for line in lines:
            VALIDATOR.validate(line)
        self.assertEqual([line["kind"] for line in lines], ["gap", "change", "change", "change"])
        self.assertEqual([line["after"] for line in lines[1:]], ["a\0", "b\0", "c\0"])
        self.assertEqual([json.loads(line) for line in content(self.path("got")).splitlines()], lines[1:])
        child = subprocess.Popen([TOOL, "watch", "--count", "2", "--from", "1"], env=self.env, stdout=subprocess.PIPE)
        self.assertIn(b"gap: what happened after revision 1 up to", child.stdout.readline())
        self.good("rm", "DATABASE.STG", "--yes")
        told = child.communicate(timeout=60)[0].decode().splitlines()
        self.assertEqual([line.split(" ", 2)[1:] for line in told if "merged" not in line][:1], [["-", "DATABASE.STG = (no value)"]])
        self.assertEqual(len(told), 2)

    def test_watch_reports_what_it_watches(self):
        revision = self.json("get", SALES)["revision"]
        for words, start in (([], revision), (["--from", "1"], 1)):
            ended = self.run_tool("watch", SALES, "--for", "0.01", *words)
            self.assertEqual(ended.stderr.decode(), "keyviewctl: watches %s from revision %d on\n" % (SALES, start))
        for words in (["-q"], ["-o", "json"], ["-o", "jsonl"]):
            self.assertEqual(self.run_tool("watch", "--for", "0.01", *words).stderr, b"", words)

    def test_a_command_of_watch_starts_with_the_default_signals(self):
        child = subprocess.Popen([TOOL, "watch", SALES, "--from", "1", "--count", "1", "--exec",
                                  "grep SigIgn /proc/self/status"], env=self.env, stdout=subprocess.PIPE)
        child.stdout.readline()
        self.good("set", SALES + ".DOMAIN", "x")
        printed = child.communicate(timeout=60)[0].decode()
        ignored = int(re.search(r"SigIgn:\s*(\w+)", printed).group(1), 16)
        self.assertEqual(ignored >> (signal.SIGPIPE - 1) & 1, 0, printed)


class Keeping(Administrator):
    def test_a_backup_with_any_byte_changed_is_refused(self):
        self.good("rm", "DATABASE", "--yes")
        self.good("set", "DATABASE.DATABASES.x", "X", "--create")
        self.good("backup", self.path("saved"))
        self.assertEqual(os.stat(self.path("saved")).st_mode & 0o777, 0o600)
        saved = content(self.path("saved"))
        self.good("set", "DATABASE.DATABASES.y", "Y", "--create")
        for at in range(0, len(saved), EVERY):
            broken = saved[:at] + bytes([saved[at] ^ 1 << at % 8]) + saved[at + 1:]
            self.good("restore", "-", "--force", "--yes", code=8, stdin=broken)
            if at % 8 == 0:
                self.good("restore", "-", "--force", "--yes", code=8, stdin=saved[:at])
        self.assertIn("Y", self.good("list"))
        self.good("restore", self.path("saved"), "--force", "--yes")
        self.good("diff", self.path("saved"))

    def test_what_was_saved_and_brought_back_is_told(self):
        file, keys = self.path("saved"), len(self.json("tree")["keys"])
        told = self.good("backup", file)
        self.assertEqual(told, "backed up to %s: %d keys, %d bytes\n" % (file, keys, os.path.getsize(file)))
        document = self.json("backup", file)
        self.assertEqual((document["file"], document["keys"], document["bytes"]), (file, keys, os.path.getsize(file)))
        self.assertIn(b"backed up to standard output: %d keys" % keys, self.run_tool("backup", "-").stderr)
        other = "lmdb:" + self.path("other")
        for change in ("%d keys created" % keys, "nothing to change"):
            told = self.good("restore", file, "--force", "--registry", other)
            self.assertIn(change, told)
            self.assertTrue(told.endswith("the registry %s is as in %s: %d keys\n" % (other, file, keys)), told)

    def test_random_bytes_survive_backup_restore_and_copy(self):
        random.seed(7)
        for number in range(20):
            self.store(SALES + ".X.k%d" % number, random.randbytes(random.choice([0, 1, 7, 900])))
        tree = self.json("tree")["keys"]
        self.good("backup", self.path("saved"))
        self.good("copy", "--to", "lmdb:" + self.path("other"))
        for url in (self.url, "lmdb:" + self.path("other"), "lmdb:" + self.path("third")):
            self.good("restore", self.path("saved"), "--force", "--yes", "--registry", url)
            self.assertEqual(self.json("tree", "--registry", url)["keys"], tree)

    def test_a_backup_under_a_writer_shows_one_moment(self):
        a, b = SALES + ".SERVICE.reporting.ENABLED", SALES + ".SERVICE.reporting.INSTANCES.sales4.ENABLED"
        self.good("disable", "sales", "--service", "reporting")
        document = json.loads(content(EXAMPLE))
        files, service = [], document["databases"][1]["services"][2]
        for flag in (True, False):
            service["enabled"] = service["preferred"][0]["enabled"] = service["available"][0]["enabled"] = flag
            files.append(self.written("d%d" % flag, document))
        writer = subprocess.Popen(["sh", "-c", 'while "$0" apply "$1" && "$0" apply "$2"; do :; done', TOOL, *files],
                                  env=self.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  start_new_session=True)
        try:
            for _ in range(15):
                rows = dict(line.rsplit(" ", 1) for line in self.good("backup", "-").splitlines()[3:])
                self.assertEqual(rows[a], rows[b])
            self.good("backup", self.path("saved"))
            self.good("restore", self.path("saved"), "--registry", "lmdb:" + self.path("other"))
            restored = self.json("tree", "--registry", "lmdb:" + self.path("other"))["keys"]
            keys = {key["path"]: key["value"] for key in restored}
            self.assertEqual(keys[a], keys[b])
            self.good("diff", self.path("saved"), "--registry", "lmdb:" + self.path("other"))
        finally:
            os.killpg(writer.pid, signal.SIGKILL)  # with the command that the shell runs
            writer.wait()

    def test_a_kill_leaves_no_half_file_and_no_half_tree(self):
        self.good("backup", self.path("full"))
        self.good("backup", self.path("saved"))
        full = self.good("tree")
        for number in range(30 // EVERY):
            command = ["restore", self.path("full"), "--force", "--yes"] if number % 2 else ["backup", self.path("saved")]
            self.good("rm", SALES, "--yes") if number % 2 else None
            before = self.good("tree")
            child = subprocess.Popen([TOOL, *command], env=self.env, stdout=subprocess.DEVNULL)
            time.sleep(number * EVERY * 0.001)
            child.send_signal(signal.SIGKILL)
            child.wait()
            self.assertIn(self.good("tree"), (before, full))
            self.good("diff", self.path("saved"), "--registry", self.url, code=0 if self.good("tree") == full else 1)
            self.good("restore", self.path("full"), "--force", "--yes")
        self.assertEqual(sorted(os.listdir(self.folder)), [".local", "full", "registry", "saved"])

    def test_an_interrupt_leaves_all_of_a_large_document_or_nothing(self):
        self.written("large", document_of([{"name": "d%04d" % n, "enabled": True} for n in range(3000)]))
        before = self.good("list").splitlines()
        shutil.copytree(self.path("registry"), self.path("whole"))
        begun = time.monotonic()
        self.good("apply", self.path("large"), "--registry", "lmdb:" + self.path("whole"))
        needed, seen = time.monotonic() - begun, set()
        # The first one cannot end before its interrupt, as it waits for a lock; the last one has all the time that it needs.
        for part in (0, 2, 4, 6, 7, 8, 9, 10, None):
            registry = self.path("r%s" % part)
            shutil.copytree(self.path("registry"), registry)
            held = ["LKRT." + SALES] if part == 0 else []
            with self.holding(*held, KEYVIEW_REGISTRY="lmdb:" + registry):
                child = subprocess.Popen([TOOL, "apply", self.path("large"), "--registry", "lmdb:" + registry],
                                         env=self.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                try:
                    child.wait(None if part is None else needed * part / 10)
                except subprocess.TimeoutExpired:
                    child.send_signal(signal.SIGINT)
                self.assertIn(child.wait(), (0, -signal.SIGINT))
            names = self.good("list", "--registry", "lmdb:" + registry).splitlines()
            self.assertIn(len(names), (len(before), len(before) + 3000), part)
            self.assertLessEqual(set(before), set(names))
            self.good("check", "--registry", "lmdb:" + registry)
            seen.add(len(names))
        self.assertEqual(len(seen), 2, "the first is interrupted, the last is not")

    # The registry of the example anew, without the values of changes: a test that damages a value then damages one key.
    def begin_without_history(self):
        self.env["KEYVIEW_HISTORY"] = "0"
        shutil.rmtree(self.path("registry"))
        self.good("apply", EXAMPLE)

    # Each finding in turn: what lint, check and export report, by the table of findings, and what lint proposes.
    def test_check_lint_and_export_agree_on_each_finding(self):
        self.begin_without_history()
        self.assertEqual(self.json("lint")["findings"], [])
        told = {row["rule"]: row for row in self.json("explain", "--findings")["findings"]}
        every = list(findings())
        self.assertEqual(list(told), list(dict.fromkeys(rule for rule, _, _ in every)))
        data = self.path("registry/data.mdb")
        sound = content(data)
        for rule, values, decision in every[::EVERY]:
            for path, value in values.items():
                if value is not None:
                    self.store(path, value)
                elif self.run_tool("get", path).returncode == 0:
                    self.good("rm", path)
            if not values:
                self.written(data, sound.replace(b"/opt/talven/4.2\0", b"/opt/talven/4.3\0"))
            with self.subTest(rule, values=list(values)):
                row = told[rule]
                def reported(command, places):
                    ended = self.run_tool(command, "-o", "json")
                    document = json.loads((ended.stderr if command == "export" and ended.returncode else ended.stdout))
                    found = document.get(places, [])
                    self.assertEqual(ended.returncode, 8 if row[command] == "yes" else 0, command)
                    self.assertEqual(bool(found), row[command] == "yes", command)
                    self.assertLessEqual({one.get("rule", rule) for one in found}, {rule})
                    return found
                found = reported("lint", "findings")
                lists = [[(one.get("path", one.get("place")), one["reason"]) for one in list_]
                         for list_ in (found, reported("check", "findings"), reported("export", "problems")) if list_]
                self.assertEqual(lists, [lists[0]] * len(lists))
                for one in found:  # where only a person can know, there is nothing to paste
                    self.assertEqual(one["severity"], row["severity"])
                    self.assertEqual((one["mend"] is None, one["decide"] is None), (decision is not None, decision is None))
                    self.assertIn(decision or "", one["decide"] or "")
                    self.assertIn("decides" if decision else one["mend"].split()[1], row["remedy"])
                    if decision is None:
                        subprocess.run(one["mend"].replace("keyviewctl", TOOL, 1), shell=True, check=True, env=self.env,
                                       stdout=subprocess.DEVNULL)
                if decision is None:
                    self.assertEqual(self.json("lint")["findings"], [])
            shutil.rmtree(self.path("registry"))
            self.good("apply", EXAMPLE)

    def test_what_is_reported_is_what_was_done(self):
        def start(*arguments):
            return subprocess.Popen([TOOL, *arguments, "-o", "json"], env=self.env, stdout=subprocess.PIPE, text=True)
        # All wait for the lock when it is released: each flips, or finds nothing to flip.
        for words, possible in ((["disable Sales"] * 2, ([0, 1],)), (["disable Sales", "enable Sales"], ([0, 1], [1, 1])),
                                (["role Sales LOGICAL_STANDBY"] * 2, ([0, 1],))):
            with self.holding("LKRT." + SALES, script="sleep 0.7"):
                waiting = [start(*line.split()) for line in words]
            reports = [json.loads(one.communicate()[0])["changes"] for one in waiting]
            self.assertIn(sorted(map(len, reports)), possible, words)
            self.good("apply", EXAMPLE)

    def test_a_damaged_value_is_found_and_replaced_or_removed(self):
        saved, key = self.path("saved"), SALES + ".START_OPTIONS"
        self.begin_without_history()
        self.good("set", key, "recognisable")
        self.good("backup", saved)
        for repair in (["set", key, "again"], ["rm", key, "--yes"], ["apply", EXAMPLE], ["restore", saved, "--force", "--yes"],
                       ["rm", SALES, "--yes"]):
            self.good("set", key, "recognisable")
            name = self.path("registry/data.mdb")
            self.written(name, content(name).replace(b"recognisable", b"Recognisable"))
            self.assertIn(key, self.good("doctor", code=4))
            self.good("show", "Sales", code=8)
            self.good(*repair)
            self.good("doctor")
            self.good("check")
            self.good("restore", saved, "--force", "--yes")

    def test_a_document_replaces_the_damaged_name_of_a_service(self):
        sales = {"name": "Sales", "services": [{"name": "RECOGNISABLE"}]}
        self.begin_without_history()
        self.apply(sales)
        name = self.path("registry/data.mdb")
        self.written(name, content(name).replace(b"RECOGNISABLE", b"rECOGNISABLE"))
        self.good("check", code=8)
        self.apply(sales)
        self.good("check")

    def test_yaml_is_what_its_json_is(self):
        for line in table("yaml.txt"):
            yaml, meant = line.split(" | ")
            for mark, text in (("<nl><top>", "\n"), ("<nl>", "\n  "), ("<600*[>", "[" * 600)):
                yaml = yaml.replace(mark, text)
            yaml = ("# A head.\nformat: keyview-cluster\nversion: 1\ndatabases:\n- name: x\n  " + yaml + "\n").encode()
            yaml = yaml.replace(b"<04>", b"\x04").replace(b"<ff>", b"\xff")
            ended = self.run_tool("diff", "-", "-o", "json", stdin=yaml)
            if meant.startswith("! "):
                self.assertEqual(ended.returncode, 8, line)
                faults = ["%(place)s: %(reason)s" % one for one in json.loads(ended.stderr)["problems"]]
                self.assertIn(meant[2:], "\n".join(faults))
                for fault in faults:
                    self.assertRegex(fault, r"^line \d+, column \d+: .", line)
                continue
            document = '{"format": "keyview-cluster", "version": 1, "databases": [{"name": "x", %s}]}' % meant
            same = self.run_tool("diff", "-", "-o", "json", stdin=document.encode())
            self.assertEqual((ended.returncode, ended.stdout, ended.stderr), (same.returncode, same.stdout, same.stderr), line)

    def test_yaml_goes_round(self):
        random.seed(3)
        exported = self.good("export", "-o", "yaml")
        self.good("export", self.path("saved.yaml"))
        self.assertEqual(content(self.path("saved.yaml")).decode(), exported)
        for _ in range(150 // EVERY):  # a damaged one is refused or compared; nothing else
            bytes_ = bytearray(exported.encode())
            for _ in range(random.randrange(1, 4)):
                at = random.randrange(len(bytes_))
                bytes_[at:at + random.randrange(2)] = random.choice([b"\xff", b"\0", b":", b"- ", b"\n", b"[", b"}", b'"', b"&a ", b"*a",
                                                                     b"? ", b"|", b"\t", b"#", b"!", b"%", b"--- ", b" "])
            self.assertIn(self.run_tool("diff", "-", "--prune", stdin=bytes(bytes_)).returncode, (0, 1, 8), bytes_)

    def test_random_bytes_survive_export_and_apply(self):
        random.seed(11)
        def text(longest):
            return "".join(chr(random.choice([random.randrange(1, 0x7f), random.randrange(0xa0, 0xd800),
                                              random.randrange(0x10000, 0x110000)]))
                           for _ in range(random.randrange(1, longest)))
        def raw(longest):
            bytes_ = bytes(random.randrange(1, 256) for _ in range(random.randrange(longest)))
            return base64.b64encode(bytes_ + b"\xff").decode()
        document = document_of([{"name": "d%04d" % n, "home": None, "home_base64": raw(1020), "spfile": text(90),
                                 "env": [text(9), None, text(9)], "env_base64": [None, raw(99), None]} for n in range(1000 // EVERY)])
        self.good("rm", "DATABASE", "--yes")
        self.good("apply", "-", stdin=json.dumps(document).encode())
        exported = self.good("export")
        self.assertEqual(json.loads(exported), document)
        DOCUMENT.validate(document)
        self.assertEqual(self.json("get", "DATABASE.DATABASES.d0007.TALVEN_HOME")["value_base64"],
                         base64.b64encode(base64.b64decode(document["databases"][7]["home_base64"]) + b"\0").decode())
        for form in ("json", "yaml"):
            self.good("export", self.path("saved." + form))
            self.assertEqual(self.good("export", "-o", form), content(self.path("saved." + form)).decode())
            self.good("diff", "-", "--prune", stdin=content(self.path("saved." + form)))
        begun = time.monotonic()
        self.assertEqual(len(self.good("list").splitlines()), len(document["databases"]))
        print("list of %d databases: %.0f ms" % (len(document["databases"]), (time.monotonic() - begun) * 1000))


# The element of a path as LMDB has it, with the head of its row behind it.
def row_of(path):
    parent, _, element = path.rpartition(".")
    return (parent.replace(".", "\1") + "\0" + element).encode() + b"\1\0\0\0"


class Damage(Administrator):
    def setUp(self):
        super().setUp()
        self.folder = tempfile.mkdtemp(dir="/dev/shm")  # a disk would have to sync some hundred files
        self.addCleanup(shutil.rmtree, self.folder)
        self.url = self.env["KEYVIEW_REGISTRY"] = "lmdb:" + self.path("registry")
        self.good("apply", EXAMPLE)
        self.data = self.path("registry/data.mdb")
        self.sound = content(self.data)
        self.before = self.tree(self.url)
        self.good("backup", self.path("saved"))

    def tree(self, url):
        keys = self.json("tree", "--registry", url)["keys"]
        return {key["path"]: key.get("value_base64") or key["value"] for key in keys}

    # Flips a bit of the stored row of a key: of its checksum, or of the key itself.
    def damage(self, path, of_key=False):
        row, value = row_of(path), self.before[path].encode("utf-8")
        data = bytearray(self.sound)
        for at in (match.start() for match in re.finditer(re.escape(row), self.sound)):
            data[at + (len(row) - 5 if of_key else len(row) + 4 + len(value))] ^= 1
        self.assertNotEqual(data, self.sound)
        self.written(self.data, data)

    # A key of each kind: its path with <> for names, and the first key that is one, of database sales if there is one.
    def kinds(self):
        for meaning in self.json("explain")["meanings"]:
            kind = re.compile(re.sub("<[a-z]+>", "[^.]+", re.escape(meaning["path"])) + "$")
            found = [path for path in sorted(self.before, key=lambda path: not path.startswith(SALES + "."))
                     if kind.match(path) and path != "DATABASE.DATABASES.ledger"]
            if found and "." in found[0]:
                yield meaning["path"], next((path for path in found if path == SALES), found[0])

    # What is left after a damage, and what every command that saves or inspects says of it.
    def check_salvage(self, key, others, expected):
        named = json.loads(self.run_tool("lint", "-o", "json").stdout)["findings"]
        self.assertIn(("damaged", key), [(one["rule"], one["path"]) for one in named])
        first = key == SALES  # what holds of every damage is looked at once
        for words in (["export"], ["backup", "-"], ["copy", "--to", "lmdb:" + self.path("none")])[:3 if first else 1]:
            ended = self.run_tool(*words)
            self.assertEqual((ended.returncode, ended.stdout), (8, b""), words)
            self.assertIn(key, ended.stderr.decode())
        self.assertFalse(os.path.exists(self.path("none")))
        rows = {row["database"].lower(): row for row in json.loads(self.run_tool("status", "-o", "json").stdout)["databases"]}
        for name, row in others.items():
            self.assertEqual(rows.get(name), row, "the status of " + name)
        for words in (["backup", "--salvage", self.path("part")], ["copy", "--salvage", "--to", "lmdb:" + self.path("copy")],
                      ["export", "--salvage", self.path("part.json")]):
            ended = self.run_tool(*words, "-o", "json")
            self.assertEqual(ended.returncode, 8, ended.stderr)
            error = json.loads(ended.stderr)
            VALIDATOR.validate(error)
            self.assertIn(key, [one["place"] for one in error["problems"]])
            if first:
                self.assertEqual(self.run_tool(*words, "-o", "json").returncode, 2, "nothing is replaced")
        DOCUMENT.validate(json.loads(content(self.path("part.json"))))
        self.good("restore", self.path("part"), "--registry", "lmdb:" + self.path("fresh"))
        for url in ("fresh", "copy"):
            self.assertEqual(self.tree("lmdb:" + self.path(url)), expected)
        self.good("apply", self.path("part.json"), "--registry", "lmdb:" + self.path("applied"))
        applied = self.tree("lmdb:" + self.path("applied"))
        return applied

    def test_one_damaged_value_of_each_kind_takes_nothing_else_with_it(self):
        rows = {row["database"].lower(): row for row in self.json("status")["databases"]}
        kinds = 0
        for kind, key in list(self.kinds())[::EVERY]:
            kinds += 1
            with self.subTest(kind, key=key):
                for name in ("part", "part.json", "fresh", "copy", "applied"):
                    subprocess.run(["rm", "-rf", self.path(name)], check=True)
                self.damage(key)
                names = key.split(".")
                hit = names[2] if names[1] == "DATABASES" and len(names) > 2 else ""
                others = {name: row for name, row in rows.items() if name != hit}
                if hit:  # damage is never shown as an empty list
                    shown = {row["database"].lower(): row for row in self.json("status", code=8)["databases"]}
                    self.assertEqual((shown[hit]["error"], shown[hit]["instances"]), ("content", None))
                    self.good("status", hit, code=8)
                    self.good("show", hit, code=8)
                if key.endswith(".RCNPOLICY"):
                    self.good("policy", hit, names[4].replace("*", "."), code=8)
                below = [path for path in self.before if path.startswith(key + ".")]
                expected = {path: value for path, value in self.before.items() if path != key}
                if below:
                    expected[key] = ""
                applied = self.check_salvage(key, others, expected)
                gone = key.rpartition(".")[0] if key.endswith(".TYPE") else key
                for path, value in self.before.items():
                    # An empty parent has nothing to lose.
                    lost = path == key or (key.endswith(".TYPE") and path.startswith(gone)) or (not value and key.startswith(path))
                    self.assertEqual(applied.get(path), applied.get(path) if lost else value, path)
                for command in ("show ledger", "show sandbox", "stg node2 stg2", "nodeapps node2"):
                    if not set(command.split()[1:]) & set(names) and names[-1] not in ("DATABASES", "STG", "NODEAPPS"):
                        self.good(*command.split())
                self.good("set", key, "--as", "base64", base64.b64encode(self.before[key].encode()).decode())
                self.good("check")
                self.assertEqual(self.tree(self.url), self.before)
                self.written(self.data, self.sound)
        self.assertGreater(kinds * EVERY, 35)

    def test_one_misfit_of_each_kind_takes_nothing_else_with_it(self):
        rows = {row["database"].lower(): row for row in self.json("status")["databases"]}
        for kind, key in list(self.kinds())[::EVERY]:
            names = key.split(".")
            for value in (b"", b"\xff" * 2000):
                with self.subTest(kind, key=key, value=value[:1]):
                    self.store(key, value)
                    ended = self.run_tool("status", "-o", "json")
                    document = json.loads(ended.stdout)
                    VALIDATOR.validate(document)
                    shown = {row["database"].lower(): row for row in document["databases"]}
                    for name in set(rows) - set(names):
                        self.assertEqual(shown.get(name), rows[name])
                    self.assertEqual(ended.returncode, 8 if any(row["error"] for row in shown.values()) else 0, ended.stdout)
                    ended = self.run_tool("export", "--salvage", "-o", "json")
                    salvaged = json.loads(ended.stdout)
                    DOCUMENT.validate(salvaged)
                    if ended.returncode:
                        error = json.loads(ended.stderr)
                        self.assertIn(key, [one["place"] for one in error["problems"]])
                    whole = json.loads(content(EXAMPLE))
                    for section in ("databases", "stg", "nodeapps"):
                        for record in whole[section]:
                            if not {record["name"].lower(), record.get("scope")} & set(names):
                                self.assertIn(record, salvaged[section])
                self.written(self.data, self.sound)

    def test_status_shows_the_others_and_says_why(self):
        self.damage(SALES + ".SPFILE")
        self.good("set", "DATABASE.DATABASES.sandbox", "--as", "text", "Sandcastle")
        healthy = [row for row in self.json("status", "--registry", self.url, code=8)["databases"] if row["error"] is None]
        self.assertEqual([row["database"] for row in healthy], ["ledger", "SalesStandby"])
        for lock, codes in ((None, ["content", "content"]), ("LKRT.DATABASE.DATABASES.ledger", ["lock", "content", "content"])):
            run = ["lock", "run", lock, "--", TOOL] if lock else []
            for form in ("json", "jsonl", "table"):
                ended = self.run_tool(*run, "status", "-o", form, KEYVIEW_LOCK_WAIT="0")
                self.assertEqual(ended.returncode, 8)
                self.assertEqual(ended.stderr, b"")
                text = ended.stdout.decode()
                if form == "table":
                    for words in ("SPFILE", "does not fold", "SalesStandby  enabled") + (("was not granted",) if lock else ()):
                        self.assertIn(words, text)
                    continue
                documents = [json.loads(text)] if form == "json" else [json.loads(line) for line in text.splitlines()]
                for document in documents:
                    VALIDATOR.validate(document)
                shown = documents[0]["databases"] if form == "json" else [one["item"] for one in documents]
                self.assertEqual([row["database"] for row in shown][1:], ["sales", "SalesStandby", "sandbox"])
                self.assertEqual([row["error"] for row in shown if row["error"]], codes)
                self.assertTrue(all((row["why"] is None) == (row["error"] is None) for row in shown))
        self.written(self.data, self.sound)
        begun = time.monotonic()
        locks = sum((["lock", "run", "LKRT.DATABASE.DATABASES." + name, "--", TOOL] for name in ("ledger", "sales", "sandbox")), [])
        self.good(*locks[:-1], TOOL, "status", code=5, KEYVIEW_LOCK_WAIT="1")
        self.assertLess(time.monotonic() - begun, 2.5, "all that are busy are waited for as long as one")

    # Whatever names a command in a text on damage names one that works.
    def test_what_is_advised_works(self):
        def row_damage():
            self.damage(SALES + ".START_OPTIONS")
        def key_damage():
            self.damage(SALES + ".START_OPTIONS", of_key=True)
        def cut():
            self.written(self.data, self.sound[:4096 * 6])
        def page():
            self.written(self.data, self.sound[:4096 * 3] + b"\xff" * 64 + self.sound[4096 * 3 + 64:])
        commands = ["show Sales", "status", "status sales", "list", "export", "backup -", "copy --to lmdb:" + self.path("no"), "tree",
                    "lint", "check", "doctor", "get %s.START_OPTIONS" % SALES, "role sales PRIMARY", "roster sales reporting",
                    "backup --salvage " + self.path("s"), "export --salvage -", "copy --to lmdb:%s --salvage" % self.path("c"),
                    "instance-on node1 sales", "disable sales", "lock list", "watch --for 0.1"]
        for make in (row_damage, key_damage, cut, page):
            make()
            damaged, advice, found = content(self.data), set(), 0
            key = next((one["place"] for one in json.loads(self.run_tool("check", "-o", "json").stdout)["findings"]
                        if one["place"].startswith("DATABASE")), SALES)
            for command in commands:
                ended = self.run_tool(*command.split())
                text = (ended.stdout + ended.stderr).decode()
                named = set(re.findall('"keyviewctl ([^"]*)"', text)) - {"list", "show"}
                if ended.returncode in (4, 8):
                    found += 1
                    self.assertTrue(named or command == "check", (make.__name__, command, text))
                advice |= named
                self.written(self.data, damaged)
            self.assertGreater(found, 8, make.__name__)
            for line in sorted(advice):
                with self.subTest(make.__name__, line=line):
                    restores = line.startswith("restore")
                    for mark, word in (("KEY", key), ("VALUE", "again"), ("FILE", self.path("saved" if restores else "new")),
                                       ("URL", "lmdb:" + self.path("other")), ("DIRECTORY", self.path("other"))):
                        line = re.sub(r"\b%s\b" % mark, word, line)
                    inspects = line.startswith(("lint", "check")) or "--salvage" in line
                    self.good(*line.split(), code=8 if inspects else 0)
                    if restores and "--registry" in line:
                        self.assertEqual(self.tree("lmdb:" + self.path("other")), self.before)
                    self.written(self.data, damaged)
                    for name in ("new", "other", "s", "c"):
                        subprocess.run(["rm", "-rf", self.path(name)], check=True)


class ExitCodes(Administrator):
    def setUp(self):
        super().setUp()
        self.good("set", SALES + ".DOMAIN", "before")
        self.good("backup", self.path("saved"))
        os.chmod(self.path("saved"), 0o644)
        self.good("apply", EXAMPLE)
        self.good("disable", "sandbox")
        self.written("changes", self.json("disable", "sales", "--service", "nightly_batch"))
        self.good("set", "DATABASE.MORE", "--as", "text", "x")
        self.words = {"<example>": EXAMPLE, "<saved>": self.path("saved"), "<changes>": self.path("changes"), "<folder>": self.folder,
                      "<other>": "lmdb:" + self.path("other")}
        self.rows = [[cell.strip() for cell in line.split("|")] for line in table("matrix.txt")[::(EVERY + 1) // 2]]
        self.env["KEYVIEW_LOCK_WAIT"] = "0"

    def code(self, command, *more, **how):
        for mark, word in self.words.items():
            command = command.replace(mark, word)
        words = command.split()
        at = words.index("--") if "--" in words else len(words)
        self.ended = subprocess.run([TOOL, *words[:at], *more, *words[at:]], capture_output=True, env=self.env,
                                    timeout=60, **how)
        return self.ended.returncode

    # On a registry of its own, which prepare may change.
    def code_on_copy(self, command, *more, prepare=lambda folder: None, **how):
        folder = self.path("copy")
        shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(self.path("registry"), folder)
        prepare(folder)
        self.env["KEYVIEW_REGISTRY"] = "lmdb:" + folder
        return self.code(command, *more, **how)

    def each(self, code_of, expected):
        for done, _, _, holds in self.rows:
            codes = {"plain": 0, "doctor": 4}
            wanted = next((codes[word] for word in holds.split() if word in codes), expected(holds))
            with self.subTest(done):
                self.assertEqual(code_of(done), wanted)

    def test_done_no_usage_not_found_and_changed(self):
        for done, no, missing, holds in self.rows:
            code = {"diff": 1, "recover": 3}.get(done.split()[0], 0)
            self.assertEqual(self.code_on_copy(done), code, done)
            self.assertEqual(self.code_on_copy(done, "--no-such-option"), 2, done)
            if no:
                self.assertEqual(self.code_on_copy(no), 1, no)
            if missing:
                self.assertEqual(self.code_on_copy(missing), 3, missing)
            if "revision" in holds:
                self.assertEqual(self.code_on_copy(done, "--if-revision", "1"), 6, done)

    def test_all_json_fits_its_schema(self):
        for done, no, missing, holds in self.rows[::(EVERY + 3) // 4]:
            if done.split()[0] in ("completion", "manual", "help"):
                continue
            for command in filter(None, (done, no, missing, done + " --nonsense")):
                for form in ("json", "jsonl"):
                    with self.subTest(command, form=form):
                        failed = self.code_on_copy(command, "-o", form) > 1
                        text = (self.ended.stderr if failed else self.ended.stdout).decode()
                        if command == "export" and form == "json":
                            DOCUMENT.validate(json.loads(text))
                            continue
                        for document in [text] if form == "json" and text[:2] == "{\n" else text.splitlines():
                            VALIDATOR.validate(json.loads(document))
                        self.assertFalse(failed and self.ended.stdout)

    def test_registry_absent_or_impossible(self):
        self.each(lambda done: self.code_on_copy(done, prepare=shutil.rmtree),
                  lambda holds: 0 if "creates" in holds else 4)
        self.env["KEYVIEW_REGISTRY"] = "lmdb:" + self.path("saved") + "/registry"
        self.each(self.code, lambda holds: 4)

    @unittest.skipIf(EVERY > 1, "a sanitizer needs descriptors, too")
    def test_too_few_descriptors_are_no_lock_of_another_one(self):
        script, codes = 'ulimit -n $1; exec "$0" disable sales', []
        for most in range(4, 12):
            ended = subprocess.run(["sh", "-c", script, TOOL, str(most)], env=self.env, capture_output=True)
            codes.append(ended.returncode)
            self.assertEqual("Too many open files" in ended.stderr.decode(), codes[-1] == 4, ended.stderr)
        self.assertEqual(sorted(codes, reverse=True), codes)
        self.assertEqual(set(codes), {4, 0})

    def test_locks_refused(self):
        self.rows = [row for row in self.rows if row[0].split()[0] not in ("recover", "diff", "doctor")]
        with self.holding("LKRT.DATABASE.NODEAPPS.node1", "LKRT.STG.DATABASE.STG.node1.stg1", "LKRT.DATABASE.DATABASES.ledger",
                          "LKRT.DATABASE.DATABASES.sales", "LKRT.DATABASE.DATABASES"):
            self.each(self.code, lambda holds: 5 if "locks" in holds else 0)

    @unittest.skipUnless(os.geteuid() == 0, "only root can become somebody else")
    def test_denied(self):
        os.chmod(self.folder, 0o755)
        self.each(lambda done: self.code(done, user=65534), lambda holds: 7)

    def test_content_damaged(self):
        def cut(folder):
            os.truncate(folder + "/data.mdb", 4096 * 4 + 16)
        self.each(lambda done: self.code_on_copy(done, prepare=cut), lambda holds: 8)


class Comfort(Administrator):
    def test_each_command_has_help_with_an_example_that_runs(self):
        shutil.copy(EXAMPLE, self.path("cluster.json"))
        self.good("backup", self.path("saved"))
        self.written("changes.json", self.json("disable", "sandbox"))
        self.settings("[context.test]\ncolor = never\n")
        whole = self.good("help")
        self.assertEqual(whole, self.good("--help"))
        self.assertEqual(whole.count("Exit codes:"), 1)
        for command in self.commands():
            self.assertRegex(whole, r"(?m)^  %s " % command.split()[0])
            text = self.good("help", *command.split())
            self.assertEqual(text, self.good(*command.split(), "--help"))
            self.assertEqual(self.good("-q", "__complete", "--", "-q", *command.split(), "--qui"), "--quiet\n")
            example = re.search(r"Example:\n  keyviewctl (.*)\n", text)
            self.assertTrue(example, command)
            words = example.group(1).split()
            self.assertEqual(words[:len(command.split())], command.split())
            ended = subprocess.run([TOOL, *words], cwd=self.folder, env=self.env, capture_output=True)
            self.assertIn(ended.returncode, (0, 1) if command != "recover" else (3,), (words, ended.stderr))
        for words in (["version"], ["--version"], ["-V"]):
            self.assertRegex(self.good(*words), r"^keyviewctl \d+\.\d+\.\d+\n$")

    def test_what_was_meant_is_told(self):
        self.assertIn(b"did you mean status?", self.run_tool("statsu").stderr)
        self.assertIn(b"did you mean Sales?", self.run_tool("show", "slaes").stderr)

    def test_settings_come_in_their_order(self):
        self.settings("output = json\nregistry = lmdb:/user\n[context.test]\nregistry = lmdb:/context\n")
        def registry(*words, **env):
            rows = json.loads(self.good("config", *words, **env))["config"]
            return [row["value"] for row in rows if row["setting"] == "registry"][0]
        self.assertEqual(registry(), self.url)
        self.assertEqual(registry("--registry", "lmdb:/option"), "lmdb:/option")
        self.assertEqual(registry("--context", "test"), "lmdb:/context")
        self.assertEqual(registry(KEYVIEW_REGISTRY=""), "lmdb:/user")
        self.assertEqual(registry(KEYVIEW_REGISTRY="", KEYVIEW_CONTEXT="test"), "lmdb:/context")
        self.good("config", "--context", "absent", code=2)

    def test_each_line_of_a_settings_file_counts(self):
        name = ".config/keyview/config"
        escapes = {"\\n": b"\n", "\\r": b"\r", "\\t": b"\t"}
        for line in content(os.path.join(os.path.dirname(__file__), "settings.txt")).decode().splitlines()[2:]:
            text, chosen, *told = line.split(" | ")
            name = self.written(name, b"".join(
                escapes.get(part) or (bytes([int(part[2:], 16)]) if part[:2] == "\\x" else part.encode())
                for part in re.split(r"(\\(?:[nrt]|x..))", text)))
            with self.subTest(line):
                if chosen != "-":
                    rows = json.loads(self.good("config", "-o", "json", KEYVIEW_REGISTRY=""))["config"]
                    self.assertEqual([row["value"] for row in rows if row["setting"] == "registry"], [chosen])
                    continue
                error = json.loads(self.run_tool("list", "-o", "json", KEYVIEW_REGISTRY="").stderr)
                VALIDATOR.validate(error)
                self.assertEqual(error["exit_code"], 2)
                for words in (told[0], "" if told[0] == "no registry is chosen" else name):
                    self.assertIn(words, self.run_tool("list", KEYVIEW_REGISTRY="").stderr.decode())

    def test_a_settings_file_is_a_file_that_can_be_read(self):
        name, folder = self.path(".config/keyview/config"), self.path(".config/keyview")
        for make, code in ((os.makedirs, 2), (lambda path: os.mkfifo(path), 2), (lambda path: os.symlink("/dev/zero", path), 2),
                           (lambda path: os.symlink("config", path), 2), (lambda path: os.symlink("absent", path), 0)):
            os.makedirs(folder)
            make(name)
            ended = self.run_tool("list")
            self.assertEqual(ended.returncode, code, ended.stderr)
            self.assertIn(name if code else "", ended.stderr.decode())
            shutil.rmtree(self.path(".config"))

    @unittest.skipUnless(os.geteuid() == 0, "only root can become somebody else")
    def test_settings_that_may_not_be_read(self):
        name = self.written(".config/keyview/config", "output = json\n")
        for mode, home, code in ((0o600, 0o755, 7), (0o644, 0o755, 0), (0o600, 0o700, 0)):
            os.chmod(name, mode)
            os.chmod(self.folder, home)
            ended = subprocess.run([TOOL, "config"], capture_output=True, env=self.env, user=65534)
            self.assertEqual(ended.returncode, code, ended.stderr)

    def test_a_context_is_chosen_and_all_other_lines_stay(self):
        sections = "[context.test]\nregistry = lmdb:/test\n[context.a b]  \n  registry=lmdb:/ab ; c\n"
        for before, after in (("", "context = {}\n"), ("# mine\ncolor = never\n", "context = {}\n# mine\ncolor = never\n"),
                              ("#context = x\n context=test # why\r\n", "#context = x\n context={} # why\r\n"),
                              ("\ufeffcolor = never\n", "\ufeffcontext = {}\ncolor = never\n"),
                              ("\ufeffcontext = test\n", "\ufeffcontext = {}\n"),
                              ("context = 'gone' ; x\n\n", "context = {} ; x\n\n"), ("context =\n", "context = {}\n")):
            for name, written in (("test", "test"), ("a b", '"a b"'), ("test", "test")):
                self.settings(before + sections)
                os.chmod(self.path(".config/keyview/config"), 0o640)
                self.good("config", "use-context", name, KEYVIEW_REGISTRY="")
                self.assertEqual(content(self.path(".config/keyview/config")).decode(), after.format(written) + sections)
                rows = self.json("config", "contexts", KEYVIEW_REGISTRY="")["contexts"]
                self.assertEqual({row["context"]: row["current"] for row in rows}, {"test": name == "test", "a b": name == "a b"})
                registry = {row["setting"]: row["value"] for row in self.json("config", KEYVIEW_REGISTRY="")["config"]}["registry"]
                self.assertEqual(registry, "lmdb:/test" if name == "test" else "lmdb:/ab")
        self.assertEqual(os.listdir(self.path(".config/keyview")), ["config"])
        self.assertEqual(os.stat(self.path(".config/keyview/config")).st_mode & 0o777, 0o640)
        self.assertIn(b"KEYVIEW_REGISTRY is set", self.run_tool("config", "use-context", "test").stderr)
        self.assertEqual(self.good("__complete", "--", "config", "use-context", "t"), "test\n")

    def test_an_empty_list_says_so_to_people(self):
        self.good("rm", "DATABASE.DATABASES", "--yes")
        for command in ("list", "status", "ls DATABASE.STG.node1.stg1.VERSION", "lock list", "config contexts"):
            for form in ("table", "json", "jsonl", "yaml", "tsv"):
                ended = self.run_tool(*command.split(), "-o", form)
                self.assertEqual(ended.returncode, 0, command)
                self.assertEqual(bool(re.fullmatch(rb"keyviewctl: (there are )?no .*\n", ended.stderr)), form == "table", ended)

    def test_completion_is_live_and_quick(self):
        def complete(*words, **env):
            begun = time.monotonic()
            out = self.good("__complete", "--", *words, **env).splitlines()
            return out, time.monotonic() - begun
        self.assertIn("status", complete("sta")[0])
        self.assertEqual(complete("show", "s")[0], ["Sales", "SalesStandby", "sandbox"])
        self.assertEqual(complete("roster", "sales", "rep")[0], ["reporting"])
        self.assertEqual(complete("enabled", "sales", "--instance", "sales4")[0], ["Sales4"])
        self.assertIn(SALES, complete("get", "DATABASE.DATABASES.")[0])
        self.assertEqual(complete("show", "s", KEYVIEW_REGISTRY="lmdb:/absent")[0], [])
        self.apply(*({"name": "db%d" % n} for n in range(1000)))
        names, took = min((complete("show", "db") for _ in range(3)), key=lambda one: one[1])
        self.assertEqual(len(names), 1000)
        print("completion of 1,000 databases: %.0f ms" % (took * 1000))
        self.assertLess(took, 2)  # 0.2 s on a machine that is not busy

    def test_each_shell_completes(self):
        os.symlink(TOOL, self.path("keyviewctl"))
        asked = {
            "bash": 'COMP_LINE="$line" COMP_POINT=${#line}; _keyviewctl; printf "%s\\n" "${COMPREPLY[@]}"',
            "zsh": 'compadd() { print -rl -- ${(P)3} }; words=(${=line}); [[ $line = *" " ]] && words+=("");'
                   'CURRENT=$#words; _keyviewctl',
            "fish": 'complete -C $line | string replace -r "\\t.*" ""'}
        for shell, script in asked.items():
            start = "compdef() { }\n" if shell == "zsh" else ""
            script = start + self.good("completion", shell) + script
            for row in table("completions.txt"):
                line, found = row.replace("<url>", self.url).split(" | ")
                set_line = "set line '%s'\n" if shell == "fish" else "line='%s'\n"
                for _ in range(10):  # on a busy machine the tool may give up first, after 200 ms
                    got = subprocess.run([shell, "-c", set_line % line + script], capture_output=True, timeout=60,
                                         env={**self.env, "PATH": self.folder + ":" + self.env["PATH"],
                                              "KEYVIEW_REGISTRY": "" if self.url in line else self.url})
                    if got.stdout.split():
                        break
                self.assertEqual(sorted(got.stdout.decode().split()), found.split(), (shell, line, got.stderr))

    def test_the_manual_tells_all_commands_and_codes(self):
        page = self.good("manual", "keyviewctl")
        for command in self.commands():
            self.assertIn(".SS " + command.replace("-", "\\-"), page)
        for row in self.json("errors")["errors"]:
            self.assertIn(row["meaning"].replace("-", "\\-").replace("'", "\\(aq"), page)
        page = self.good("manual", "keyview-keys")
        for key in self.json("explain")["meanings"]:
            self.assertIn(key["path"], page)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
