#!/usr/bin/env python3
"""Files that an earlier version wrote are read as they are, and what a newer version wrote is refused with a
text that says so. formats/1 has a registry of one machine, the keys of one in a cluster, a backup, documents,
a list of changes and what the tool printed, all of the same tree."""
import base64, json, os, shutil, sys, tarfile, unittest, urllib.request

from admin_test import TOOL, VALIDATOR, Administrator, content
from slips_test import Cluster

FORMATS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "formats")


# Whether all of a value is in another one, which may have further fields.
def within(old, new):
    if isinstance(old, dict):
        return isinstance(new, dict) and all(name in new and within(value, new[name]) for name, value in old.items())
    if isinstance(old, list):
        return isinstance(new, list) and len(old) == len(new) and all(map(within, old, new))
    return old == new


class Stored:
    """A registry that an earlier version wrote."""

    def file(self, name):
        return os.path.join(FORMATS, "1", name)

    def keys(self, url):
        text = self.good("backup", "-", "--registry", url)
        return [line for line in text.splitlines() if not line.startswith(("revision ", "checksum "))]

    def saved_keys(self):
        lines = content(self.file("backup.txt")).decode().splitlines()
        return [line for line in lines if not line.startswith(("revision ", "checksum "))]

    def test_it_is_read_and_written(self):
        self.assertEqual(self.keys(self.url), self.saved_keys())
        for command, old in json.loads(content(self.file("outputs.json"))).items():
            VALIDATOR.validate(old)
            for name in ("pages", "revision"):  # those of a file, and of one registry
                old.pop(name, None)
            self.assertTrue(within(old, self.json(*command.split())), command)
        self.good("disable", "sales", "--service", "checkout.shop")
        self.good("set", "DATABASE.DATABASES.sales.DOMAIN", "new", "--yes")
        self.assertEqual(self.json("domain", "sales")["domain"], "new")
        self.good("check")

    def test_its_backup_its_documents_and_changes_are_read(self):
        for name, command in (("backup.txt", "restore"), ("document.json", "apply"), ("document.yaml", "apply")):
            url = self.second_url()
            self.good(command, self.file(name), "--registry", url)
            self.assertEqual(self.good("export", "-", "--registry", url), content(self.file("document.json")).decode())
        self.good("export", self.path("document.yaml"))
        self.assertEqual(content(self.path("document.yaml")), content(self.file("document.yaml")))
        self.good("undo", self.file("changes.json"), "--yes")
        self.assertEqual(self.json("domain", "sales")["domain"], "before")


class OnOneMachine(Stored, Administrator):
    number = 0

    def setUp(self):
        super().setUp()
        self.unpack()

    def unpack(self):
        shutil.rmtree(self.path("registry"))
        with tarfile.open(self.file("registry.tar.gz")) as archive:
            archive.extractall(self.path("registry"))
        os.chmod(self.path("registry"), 0o700)

    def second_url(self):
        self.number += 1
        return "lmdb:" + self.path("second%d" % self.number)

    # Each row: what becomes a newer version, by the bytes to replace; the command that reads it, its exit code
    # and words of the text. Nothing is written.
    def test_a_newer_version_is_refused(self):
        self.written("registry/format", "keyview 1\n")
        before = self.keys(self.url)
        rows = [
            ("backup.txt", b"keyview-backup 1", b"keyview-backup 2", "restore --force --yes", 8, b"it has format 2"),
            ("document.json", b'"version": 1', b'"version": 2', "apply", 8, b"/version"),
            ("document.yaml", b"version: 1", b"version: 2", "apply", 8, b"/version"),
            ("changes.json", b'"version": 1', b'"version": 2', "undo --yes", 8, b"not of version 1"),
            ("registry/format", b"keyview 1", b"keyview 2", "list", 4, b"it has format 2"),
            ("registry/format", b"keyview 1", b"keyview 2", "set --create --yes --as text A 1", 4, b"install the version that wrote it"),
            ("registry/format", b"keyview 1", b"keyview 2", "check", 4, b"it has format 2"),
            ("registry/format", b"keyview 1", b"other", "list", 4, b"not one of keyview"),
            # LMDB's own version, in both of its head pages
            ("registry/data.mdb", b"\xde\xc0\xef\xbe\x01", b"\xde\xc0\xef\xbe\x02", "list", 8, b"MDB_VERSION_MISMATCH"),
        ]
        for name, old, new, command, code, text in rows:
            in_registry = name.startswith("registry/")
            bytes_of_it = content(self.path(name) if in_registry else self.file(name))
            self.assertIn(old, bytes_of_it)
            newer = self.written(name, bytes_of_it.replace(old, new))
            ended = self.run_tool(*command.split(), *([] if in_registry else [newer]))
            self.assertEqual(ended.returncode, code, (name, command, ended.stderr))
            self.assertIn(text, ended.stderr, (name, command))
            self.written(name, bytes_of_it)
            self.assertEqual(self.keys(self.url), before, (name, command))


class InACluster(Stored, Cluster):
    def call(self, name, message):
        url = self.address.replace("etcd://", "http://") + "/v3/kv/" + name
        message = {key: base64.b64encode(value).decode() for key, value in message.items()}
        with urllib.request.urlopen(urllib.request.Request(url, json.dumps(message).encode()), timeout=30) as answer:
            return json.load(answer)

    def put(self, key, value):
        self.call("put", {"key": self.prefix + key, "value": value})

    def setUp(self):
        super().setUp()
        self.prefix = self.url[len(self.address):].encode()
        self.call("deleterange", {"key": self.prefix + b"/", "range_end": self.prefix + b"0"})
        self.rows = dict(map(base64.b64decode, line.split(b" ")) for line in content(self.file("cluster.txt")).splitlines())
        for row in self.rows.items():
            self.put(*row)

    def test_a_newer_version_is_refused(self):
        self.put(b"/tree", self.rows[b"/tree"].replace(b"keyview 1", b"keyview 2"))
        for command in ("list", "set --create --yes --as text A 1"):
            ended = self.run_tool(*command.split())
            self.assertEqual(ended.returncode, 8, ended.stderr)
            self.assertIn(b"another format", ended.stderr)


del Cluster, Administrator
if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
