#!/usr/bin/env python3
"""The page of a report and the pictures of a database as files: whatever names and values hold, they stay
texts. What a browser makes of the page is tested by browser_test.py."""
import base64, hashlib, html.parser, json, re, sys, unittest, xml.etree.ElementTree

import hostile
from admin_test import TOOL, VALIDATOR, Administrator, content

SVG = "{http://www.w3.org/2000/svg}"
HARMFUL = re.compile("[\x00-\x09\x0b-\x1f\x7f-\x9f\u061c\u200b\u200e\u200f\u2028-\u202e\u2060-\u206f\ufeff\U000e0000-\U000e007f]")


class Page(html.parser.HTMLParser):
    """The elements of a page in their order, and the text of each script and style."""

    def __init__(self, text):
        super().__init__()
        self.elements, self.blocks, self.policy, self.open = [], {}, "", "none"
        self.feed(text)
        self.close()

    def handle_starttag(self, name, attributes):
        values = dict(attributes)
        self.elements.append(name)
        self.open = name + " " + values["type"] if "type" in values else name
        if values.get("http-equiv") == "Content-Security-Policy":
            self.policy = values["content"]

    handle_startendtag = handle_starttag

    def handle_data(self, text):
        if self.open.split()[0] in ("script", "style"):
            self.blocks[self.open] = self.blocks.get(self.open, "") + text

    def handle_endtag(self, name):
        self.open = "none"


# As the tool escapes a text for people.
def escaped(text):
    return HARMFUL.sub(lambda one: ("\\x%02x" if one[0] < "\x80" else "\\u%04x") % ord(one[0]), text.replace("\\", "\\\\"))


class Drawn(Administrator):
    def report(self):
        self.good("report", self.path("report.html"))
        return Page(content(self.path("report.html")).decode())

    def apply_hostile(self):
        self.good("apply", "-", stdin=json.dumps(hostile.document()).encode())


class Report(Drawn):
    def test_it_holds_what_the_commands_show(self):
        self.store("DATABASE.DATABASES.sandbox.ROLE", b"MASTER\0")
        data = json.loads(self.report().blocks["script application/json"])
        rows = self.json("status")["databases"]
        self.assertEqual([{name: one[name] for name in rows[0]} for one in data["databases"]], rows)
        for one in data["databases"]:
            self.assertEqual(one["record"], self.json("show", one["database"])["record"])
        findings = json.loads(self.good("lint", "-o", "json", code=8))["findings"]
        self.assertEqual(data["findings"], findings)
        self.assertEqual(len(findings), 1)
        self.assertEqual(data["revision"], self.json("tree")["revision"])
        self.assertEqual(self.good("report", "-").splitlines()[:9], content(self.path("report.html")).decode().splitlines()[:9])

    def test_nothing_leaves_its_place(self):
        plain = self.report()
        self.apply_hostile()
        page = self.report()
        self.assertEqual(page.elements, plain.elements, "no name is markup")
        for block in ("script", "style"):
            self.assertEqual(page.blocks[block], plain.blocks[block])
            digest = base64.b64encode(hashlib.sha256(page.blocks[block].encode()).digest()).decode()
            self.assertIn("%s-src 'sha256-%s'" % (block, digest), page.policy)
        self.assertIn("default-src 'none'", page.policy)
        self.assertIn("connect-src 'none'", page.policy)
        self.assertNotIn("unsafe", page.policy)
        text = page.blocks["script application/json"]
        self.assertIsNone(HARMFUL.search(text))
        self.assertNotIn("<", text)
        records = {one["database"]: one["record"] for one in json.loads(text)["databases"]}
        for one in hostile.document()["databases"]:
            record, value = records[escaped(one["name"])], escaped(one["spfile"])
            self.assertEqual((record["spfile"], record["env"]), (value, ["A=" + value]))
            self.assertEqual(record["domain"], value + "\\xff\\x1b[2J\\x07")
            self.assertEqual(record["instances"][0], {"name": escaped(one["name"]), "node": value, "env": None, "env_n": 0, "enabled": 1})

    def test_what_cannot_be_read_is_named(self):
        self.store("DATABASE.DATABASES.ledger", b"")
        self.good("report", self.path("page"), code=8)
        data = json.loads(Page(content(self.path("page")).decode()).blocks["script application/json"])
        shown = {one["database"]: (one["error"], one["record"]) for one in data["databases"]}
        self.assertEqual(shown["ledger"][0], "content")
        self.assertEqual([error for error, _ in shown.values()].count(None), 3)


class Graph(Drawn):
    # The title, then the texts in their order.
    def svg(self, name):
        root = xml.etree.ElementTree.fromstring(self.good("graph", name))
        used = {element.tag.replace(SVG, "") for element in root.iter()}
        self.assertLessEqual(used, {"svg", "title", "desc", "style", "rect", "text", "line", "g", "circle", "path"})
        self.assertEqual(root.attrib["role"], "img")
        return root.find(SVG + "title").text, [element.text for element in root.iter(SVG + "text")]

    # The statements of a graph as lists of tokens.
    def dot(self, name):
        tokens = re.findall(r'"(?:[^"\\]|\\.)*"|->|[\w.]+|[^\s\w]', self.good("graph", name, "-o", "dot"))
        self.assertEqual("".join(tokens), re.sub(r'("(?:[^"\\]|\\.)*")|\s', lambda one: one[1] or "", self.good("graph", name, "-o", "dot")))
        return tokens

    def test_both_show_the_example(self):
        title, texts = self.svg("sales")
        self.assertEqual(title, "database Sales: enabled, role PRIMARY")
        self.assertEqual(texts[:5], [title, "node1", "node2", "node3", "node4"])
        at = texts.index("nightly_batch (disabled)")
        self.assertEqual(texts[at:at + 5], ["nightly_batch (disabled)", "Sales3", "Sales4", "reporting", "Sales3"])
        text = self.good("graph", "sales", "-o", "dot")
        self.assertIn('s3 -> i2_2 [style=dashed, arrowhead=tee, label="available (disabled)"];', text)
        self.assertEqual(text.count("subgraph"), 4)

    def test_hostile_names_are_texts(self):
        self.apply_hostile()
        for one in hostile.document()["databases"]:
            title, texts = self.svg(one["name"])
            self.assertEqual(title, "database %s: enabled, role -" % escaped(one["name"]))
            self.assertLessEqual(max(map(len, texts[1:])), 32 + len(" (disabled)"))
            tokens = self.dot(one["name"])
            labels = [tokens[n + 2] for n in range(len(tokens)) if tokens[n] == "label"]
            quoted = ['"%s"' % text.replace("\\", "\\\\").replace('"', '\\"') for text in (title, escaped(one["spfile"]), escaped(one["name"]))]
            self.assertEqual(labels[:3], quoted)
            self.assertEqual((tokens.count("->"), tokens.count("subgraph")), (2, 1))

    def test_an_instance_that_is_missing_is_shown(self):
        self.store("DATABASE.DATABASES.sales.SERVICE.reporting.INSTANCES.gone", b"Gone\0")
        self.store("DATABASE.DATABASES.sales.SERVICE.reporting.INSTANCES.gone.TYPE", b"PREFERRED\0")
        self.assertIn("(no node)", self.svg("sales")[1])
        self.assertIn('label="Gone"', self.good("graph", "sales", "-o", "dot"))


del Drawn
if __name__ == "__main__":
    del Administrator
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
