#!/usr/bin/env python3
"""keyviewctl from end to end: what is applied comes back, what each command answers and what it says when it
fails, by the tables commands.txt and failures.txt, and what check finds."""
import functools, json, os, re, shutil, sys, unittest

from admin_test import EXAMPLE, SALES, VALIDATOR, Administrator, content, table


# What a JSON pointer names.
def named(document, pointer):
    return functools.reduce(lambda inner, key: inner[int(key) if isinstance(inner, list) else key],
                            pointer.split("/")[1:], document)


class Tool(Administrator):
    sampled = False  # each run is searched for leaks

    def test_what_is_applied_comes_back_byte_for_byte(self):
        fresh = {"KEYVIEW_REGISTRY": "lmdb:" + self.path("fresh")}
        self.assertIn(" keys created, 0 changed, 0 removed\n", self.good("apply", EXAMPLE, **fresh))
        self.assertEqual(self.good("apply", "-", stdin=content(EXAMPLE)), "nothing to change: all of it is stored already\n")
        self.assertEqual(self.good("export", **fresh).encode(), content(EXAMPLE))
        self.good("export", self.path("saved"), **fresh)
        self.assertEqual(content(self.path("saved")), content(EXAMPLE))
        second = {"KEYVIEW_REGISTRY": "lmdb:" + self.path("second")}
        self.assertEqual(self.json("apply", self.path("saved"), **second)["replaced"], 0)
        self.assertEqual(self.good("export", **second).encode(), content(EXAMPLE))

    def test_apply_leaves_alone_what_a_document_does_not_mention(self):
        self.apply({"name": "SALES", "spfile": "new", "services": [
            {"name": "reporting", "preferred": [{"name": "Sales3"}]}, {"name": "late", "preferred": [{"name": "sales4"}]}]})
        expected = json.loads(content(EXAMPLE))
        sales = expected["databases"][1]
        sales.update(name="SALES", spfile="new")
        reporting = sales["services"][2]
        self.assertEqual((reporting["name"], len(reporting["available"])), ("reporting", 1))
        reporting["preferred"].insert(0, reporting["available"].pop())
        sales["services"].append({"name": "late", "preferred": [{"name": "sales4"}], "available": []})
        sales["services"].sort(key=lambda one: one["name"])
        self.assertEqual(json.loads(self.good("export")), expected)

    def test_a_refused_document_writes_nothing(self):
        def with_service(**fields):
            return {"name": "sales", "spfile": "x", "services": [fields]}
        for databases, place, words in (
                (({"name": "a"}, {"name": "b", "spfile": 1}), "/databases/1/spfile", "must be a string"),
                ([with_service(name="s", available=[{"name": "Sales9"}])], "/databases/0/services/0/available/0/name",
                 "neither the document nor the registry"),
                ([with_service(name="Checkout*Shop.example.com")], "/databases/0/services/0/name",
                 "another service: checkout.shop.example.com")):
            fresh = self.apply(*databases, codes=(0, 8), KEYVIEW_REGISTRY="lmdb:" + self.path("fresh"))
            self.assertEqual(os.path.exists(self.path("fresh")), fresh.returncode == 0)
            shutil.rmtree(self.path("fresh"), ignore_errors=True)
            refused = self.apply(*databases, codes=(8,)).stderr.decode()
            self.assertRegex(refused, "%s: .*%s" % (re.escape(place), re.escape(words)))
        self.assertEqual(self.good("export").encode(), content(EXAMPLE))

    # Each row sees what those before it wrote.
    def test_each_command_answers_people_and_programs(self):
        empty = {"KEYVIEW_REGISTRY": "lmdb:" + self.path("empty")}
        self.apply(**empty)
        self.assertEqual((self.good("list", **empty), self.json("list", **empty)["db_list"]), ("", []))
        self.store("DATABASE.STG.node2.stg2.ENABLED", b"false\0")
        for row in table("commands.txt"):
            command, code, line, pointer, value = row.split(" | ")
            with self.subTest(command):
                self.assertIn("\n" + line + "\n", "\n" + self.good(*command.split(), code=int(code)))
                answer = self.json(*command.split(), code=int(code))
                self.assertEqual(named(answer, pointer), json.loads(value))
        self.good("set", "DATABASE.DATABASES.sandbox", "--as", "text", "N" * 100000)  # no first buffer holds it
        self.assertEqual(self.good("name", "sandbox"), "N" * 100000 + "\n")

    # That a flag is a number is for the schema to see.
    def test_show_gives_each_field_that_was_applied(self):
        codes = {"NONE": 1, "BASIC": 2, "PRECONNECT": 3}
        def expect(applied, shown):
            for name, value in applied.items():
                if name in ("preferred", "available"):
                    self.assertEqual([one["name"] for one in value], shown[name] or [])
                    self.assertEqual([int(one["enabled"]) for one in value], shown[name + "_enabled"] or [])
                elif name in ("instances", "services"):
                    self.assertEqual(len(value), shown[name[:-1] + "_count"])
                    for one, its in zip(value, shown[name] or []):
                        expect(one, its)
                elif value in (None, []):
                    self.assertIn(shown[name], (None, []), name)
                else:
                    self.assertEqual(shown[name], codes[value] if name == "rcn_policy" else value, name)
        for database in json.loads(content(EXAMPLE))["databases"]:
            record = self.json("show", database["name"])["record"]
            database["sp_name"] = database.pop("name")
            expect(database, record)

    def test_show_for_people_tells_the_whole_record(self):
        one = [{"name": "S1", "enabled": True}]
        self.apply({"name": "Whole", "spfile": "", "role": "PRIMARY", "enabled": True, "env": ["A=1", "B=2"],
                    "instances": [{"name": "S1", "node": "n1", "enabled": False}],
                    "services": [{"name": "Day.Web", "rcn_policy": "BASIC", "enabled": True, "preferred": one}]})
        self.assertEqual(self.good("show", "whole").splitlines(), table("shown.txt"))

    def test_hostile_bytes_reach_nobody_raw(self):
        self.env["KEYVIEW_REGISTRY"] = "lmdb:" + self.path("hostile")
        name = "ev\u202eil\u009b\u2028"
        self.apply({"name": name, "spfile": "a\x1b[2J\nb\\", "env": ["x", "y"], "instances": [{"name": "i\u061c"}]})
        for key, value in ((".DOMAIN", b"d\xff\x1b\0"), (".ENVIRONMENT", b"ok\0\xc3\x28\0\0"), (".\u202e", b"\xff")):
            self.store("DATABASE.DATABASES." + name + key, value)
        all_ended = [self.run_tool(*words) for words in (["list"], ["show", name.upper()], ["export"],
                                                         ["show", b"no\xe2\x80\xae\x1b\xff"])]
        for ended in all_ended:
            self.assertRegex(ended.stdout + ended.stderr, rb"\A[\n -~]+\Z")
        self.assertEqual(all_ended[0].stdout, b"ev\\u202eil\\u009b\\u2028\n")
        self.assertIn(b"spfile         a\\x1b[2J\\x0ab\\\\\n", all_ended[1].stdout)
        self.assertIn(b"domain         d\\xff\\x1b\n", all_ended[1].stdout)
        self.assertEqual([ended.returncode for ended in all_ended], [0, 0, 8, 3])
        record = self.json("show", name)["record"]
        self.assertEqual([record[key] for key in ("sp_name", "domain", "domain_base64", "env", "env_base64")],
                         [name, None, "ZP8b", ["ok", None], [None, "wyg="]])
        self.assertEqual(len(json.loads(self.run_tool("export", "-o", "json").stderr)["problems"]), 1)

    def test_failures_have_one_code_and_tell_what_where_why(self):
        marks = {"<folder>": self.folder, "<absent>": "lmdb:" + self.path("absent"), "<long>": "x" * 2048, "<empty>": "",
                 "<example>": EXAMPLE, "<backup>": self.path("backup"), "<registry>": self.url}
        def meant(text):
            return re.sub("<[a-z]+>", lambda mark: marks[mark[0]], text)
        self.good("backup", self.path("backup"))
        for row in table("failures.txt"):
            code, words, line = row.split(" | ")
            command, _, out = line.partition(" > ")
            arguments = [meant(word) for word in command.split(" ") if word != "<none>"]
            if "--registry" not in arguments:
                arguments += ["--registry", self.url]
            for form in [[]] if " -o " in command else [[], ["-o", "json"]]:
                with self.subTest(line, form=form), open(out or self.path("out"), "wb") as file:
                    ended = self.run_tool(*form, *arguments, stdout=file, KEYVIEW_REGISTRY="")
                    said = ended.stderr.decode()
                    self.assertEqual(ended.returncode, int(code), said)
                    self.assertEqual(os.path.getsize(out or self.path("out")), 0)
                    if form:
                        error = json.loads(said)
                        VALIDATOR.validate(error)
                        self.assertEqual(error["exit_code"], int(code))
                        continue
                    for part in ("\n  do:    ", meant(words)):
                        self.assertIn(part, said)
                    self.assertEqual(said[:12], "keyviewctl: ")
        self.assertFalse(os.path.exists(self.path("absent")))
        self.store("DATABASE.DATABASES.ledger.ROLE", b"MASTER\0")
        self.good("role", "ledger", code=8)

    def test_a_lock_that_another_holds_is_waited_for_no_longer_than_chosen(self):
        for name in ("LKRT.DATABASE.DATABASES.sales", "LKRT.STG.DATABASE.STG.node8.stg8", "LKRT.DATABASE.NODEAPPS.node3"):
            with self.holding(name):
                ended = self.run_tool("apply", EXAMPLE, KEYVIEW_LOCK_WAIT="0")
            self.assertEqual(ended.returncode, 5, name)
            self.assertIn(name, ended.stderr.decode())
        self.good("apply", EXAMPLE, KEYVIEW_LOCK_WAIT="0")

    # Rows of damage, each in a registry of its own: bytes of the file, or the value of a key.
    def test_check_tells_what_is_wrong_and_where(self):
        self.assertRegex(self.good("check"), "^no damage: 248 keys on ")
        self.assertEqual(self.json("check")["findings"], [])
        data = self.path("registry/data.mdb")
        sound = content(data)
        for damage, place, reason in (
                ((b"Sales\0", b"Soles\0"), SALES, "are not those that were written"),
                ((b"DATABASE\1DATABASES\0ledger", b"DATABASE\1DATABASES\0legger"), "DATABASE.DATABASES.ledger",
                 "is missing, though there are keys below it"),
                ((b"DATABASE\1STG\1node8\0stg8", b"FATABASE\1STG\1node8\0stg8"), "page ", "no search"),
                ((sound[4096 * 4 + 16:], b""), "the head of data.mdb", "cut short"),
                (b"Soles\0", SALES, "does not fold to the key's own element"),
                (b"x", SALES + ".SPFILE", "does not end with a zero byte"),
                (b"x\0y\0", SALES + ".SPFILE", "a zero byte before its end"),
                (b"A=1\0", SALES + ".ENVIRONMENT", "is not a list of strings"),
                (b"yes\0", SALES + ".ENABLED", "is neither TRUE nor FALSE"),
                (b"MASTER\0", SALES + ".ROLE", "is none of the words"),
                (b"", "DATABASE.STG.node1.stg1", "has no own value")):
            # Parts of the file that are not used hold copies.
            self.written(data, sound.replace(*damage) if isinstance(damage, tuple) else sound)
            if isinstance(damage, bytes):
                self.store(place, damage)
            with self.subTest(place, reason=reason):
                self.assertIn(reason, self.good("check", code=8))
                found = self.json("check", code=8)["findings"]
                self.assertTrue([one for one in found if one["place"].startswith(place) and reason in one["reason"]], found)
            for command in ("list", "export") if "not those that were written" in reason else ():
                ended = self.run_tool(command)
                self.assertEqual((ended.returncode, ended.stdout, SALES in ended.stderr.decode()), (8, b"", True))

    def test_export_replaces_a_file_or_leaves_it(self):
        file, link = self.written("saved.json", "old"), self.path("link")
        os.chmod(file, 0o640)
        os.symlink("saved.json", link)
        self.good("export", link)
        self.assertTrue(os.path.islink(link))
        self.assertEqual(os.stat(file).st_mode & 0o777, 0o640)
        self.assertEqual(content(file), content(EXAMPLE))
        self.store(SALES + ".FUTURE", b"x")
        refused = self.run_tool("export", file)
        self.assertEqual(refused.returncode, 8)
        self.assertIn(SALES + ".FUTURE: ", refused.stderr.decode())
        self.assertEqual(content(file), content(EXAMPLE))
        self.assertEqual(sorted(os.listdir(self.folder)), ["link", "registry", "saved.json"], "no file is left beside")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
