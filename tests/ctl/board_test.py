#!/usr/bin/python3
"""status --follow on a terminal of its own: keys, sizes, marks, trouble, and what is left of the
terminal after every end. The screen is that of an emulator; nothing sleeps, each step waits for a text."""
import json, os, random, re, signal, subprocess, sys, termios, unittest

from admin_test import SALES, SCHEMAS, TOOL, Administrator
from slips_test import Cluster
from terminal import PATIENCE, Emulator, Terminal

SIZES = [(80, 24), (132, 43), (200, 60)]
COLOUR = rb"\x1b\[[\d;]*[34]\dm"


class Tool(Terminal):
    """A terminal with the tool in its foreground."""

    def __init__(self, test, *words, size=SIZES[0], **env):
        super().__init__([TOOL, *words], size, {**test.env, **env})
        self.test = test
        test.addCleanup(self.end)

    def check_restored(self, why):
        self.test.assertTrue(self.shows_lines(), why)
        self.test.assertFalse(self.screen.cursor.hidden, why)
        self.test.assertEqual(termios.tcgetattr(self.follower), self.before, why)


class Board(Administrator):
    def follow(self, *words, **more):
        shown = Tool(self, "status", "--follow", *words, **more)
        shown.wait("^good")
        return shown


class Shows(Board):
    def test_keys_and_changes_at_three_sizes(self):
        for number, size in enumerate(SIZES):
            shown = self.follow(size=size)
            word = ("false", "true")[number % 2]
            shown.wait("^> ledger +enabled +PRIMARY +2 of 3 +2 of 2 +3", "databases 4 ", "changes 0 ")
            for keys, *patterns in [
                    ("j", "^> Sales "), ("\x1bOB", "^> SalesStandby"), ("kk", "^> ledger"), ("G", "^> sandbox"),
                    ("\x1b[5~", "^> ledger"), ("\x1b[6~", "^> sandbox"), ("g", "^> ledger"), ("\x1b[F", "^> sandbox"), ("\x1b[H", "^> ledger"), ("j", "^> Sales "),
                    ("\r", "database Sales ", "Sales1 +node1 +enabled", "nightly_batch +disabled PRECONNECT Sales3 +Sales4"),
                    ("?", "Ctrl-L +draw the screen again"), ("x", "database Sales "),
                    ("c", "changes 0 of database Sales "), ("\x1b", "changes 0 ──"), ("\x1b", "^> Sales "),
                    ("/", "^/_"), ("n0de\x7f\x7f\x7fode3", 'databases 1, filter "node3" of 4'), ("\r", "^> Sales", "q leave"),
                    ("/dis node", 'filter "dis node"', "databases 3,", "^> Sales", "^  sandbox"), ("\x1b", "databases 4 "), ("gj", "^> Sales ")]:
                shown.press(keys, *patterns)
            before = len(shown.raw)
            self.good("set", SALES + ".ENABLED", word)
            shown.wait(r"^>\*Sales +%s +PRIMARY .* \d s" % ("disabled" if word == "false" else "enabled"),
                       r"changed \d s ago", r"\d\d:\d\d:\d\d \d+ ~ sales.ENABLED = \w+ -> " + word)
            self.assertLess(len(shown.raw) - before, 700, "bytes for a change")
            self.good("set", "DATABASE.STG.node1.stg1.VERSION", "5." + str(number))
            shown.wait("STG.node1.stg1.VERSION = ", "changes 2 ")
            shown.press("c", "changes 1 of database Sales ", "^> .* sales.ENABLED")
            shown.press("c", "changes 2 ─", "^> .* STG.node1")
            shown.press("j\r", "database Sales ", ("disabled" if word == "false" else "enabled") + ", role PRIMARY")
            # What was drawn as differences is what a whole redraw shows.
            for other in SIZES[number - 1], (60, 10), size:
                shown.set_size(*other)
                shown.wait("needs 80x24, is 60x10; q leaves" if other[0] == 60 else "^j k move.*q leave")
                self.assertEqual(shown.screen.lines, other[1])
            def drawn():
                return re.sub(r" *\d+ s *", " ", shown.text())
            shown.drain()
            before = drawn()
            shown.screen.reset()
            os.write(shown.leader, b"\x0c")
            shown.until(lambda: drawn() == before, "before:\n" + before)
            os.write(shown.leader, b"q")
            self.assertEqual(shown.ended(), 0)
            shown.check_restored("q")

    def test_a_thousand_databases(self):
        def apply(role):
            self.apply(*({"name": "d%03d" % number, "role": role, "enabled": True,
                          "instances": [{"name": "i", "node": "n%d" % (number % 10), "enabled": True}]} for number in range(1000)))

        apply("PRIMARY")
        shown = self.follow()
        shown.wait("databases 1-13 of 1004 ─", "^> d000")
        shown.press("\x1bOF", "^> sandbox", "databases 992-1004 of 1004")
        shown.press("/n7 d99", 'databases 1, filter "n7 d99" of 1004', "^> d997")
        shown.press("\x7f\r", "databases 10, ", "^  d907", "^> d997", "q leave")
        shown.drain(0.2)
        self.assertEqual(shown.read(1.1), 0, "a screen at rest sends nothing")
        before = len(shown.raw)
        apply("LOGICAL_STANDBY")
        shown.wait(*(r"^.\*d9%d7 +enabled +LOGICAL_STANDBY .* \d s" % number for number in range(10)), "changes 1-6 of 1000 ")
        self.assertLess(len(shown.raw) - before, 3000, "bytes for a thousand changes")
        before = len(shown.raw)
        self.good("disable", "d997")
        shown.wait(r"^>\*d997 +disabled .* \d s", "d997.ENABLED = true -> false")
        self.assertLess(len(shown.raw) - before, 500, "bytes for a change")
        self.good("rm", "DATABASE.DATABASES.d987", "--yes")
        shown.wait(r"^ \*d987 +removed", "changes 1-6 of ")
        shown.press("\x1bsg", "databases 1-13 of 1004, latest change first", r"^>\*d987 .*\n \*d997 .*\n \*d000 ")


class Draws(Board):
    def test_names_cannot_harm_the_screen(self):
        for number, name in enumerate(["\u202e", "\u009b31m", "日本語", "e\u0301\u0301", "\u00ad", "\U0010ffff", "x" * 300]):
            path = "DATABASE.DATABASES.h%d%s" % (number, name)
            self.store(path, ("H%d%s" % (number, name)).encode() + b"\0")
            self.store(path + ".ENABLED", b"true\0")
            self.store(path + ".ROLE", b"\x1b[2J\xff\0")
        shown = self.follow("--color", "never")
        shown.wait(r"^. H0\\u202e +enabled +\\x1b\[2J\\xff ", r"^  H1\\u009b31m +enabled", r"^  H5\\u10ffff", r"^  H6x+… enabled")
        self.assertIn("H2日本語  ", shown.text())
        state = shown.text().split("\n")[2].find("STATE")
        for line in range(3, 10):
            word = "".join(shown.screen.buffer[line][at].data for at in range(state - 1, state + 9))
            self.assertEqual(word, " enabled  ", shown.text())
        self.assertNotRegex(shown.raw, COLOUR, "no colour")
        plain = self.follow(LC_ALL="C", NO_COLOR="1", KEYVIEW_TRACE="stderr", KEYVIEW_TRACE_LEVEL="4", LINES="40")
        plain.wait(r"^  H2\\u65e5\\u672c~ enabled", r"^-- databases 11 -----", "^  H6x+~ enabled")
        self.assertTrue(plain.raw.isascii())
        self.assertNotRegex(plain.raw, COLOUR)
        self.assertRegex(self.follow().raw, COLOUR, "colour is the usual")

    def test_random_keys_and_sizes_leave_it_whole(self):
        chance, shown = random.Random(7), self.follow()
        keys = "j k g G c ? / \r \x1b \t \x7f \x0c \x1bOA \x1bOB \x1b[5~ \x1b[6~ a n 日 \x9b \0".split(" ")
        for _ in range(150):
            os.write(shown.leader, chance.choice(keys).encode())
            if chance.random() < 0.1:
                shown.set_size(*chance.choice([(1, 1), (79, 24), (81, 25), (160, 36), (300, 90)]))
            shown.read(0.002)
        shown.set_size(*SIZES[0])
        shown.press("\x1b\x1b\x1b\x1b\x1bg", "^good", "^> ledger", "databases 4 ─", "q leave")
        whole = self.follow()
        whole.wait("^> ledger", "changes 0 ─", "q leave")
        whole.until(lambda: not shown.read(0) and whole.text() == shown.text(), "differs from\n" + shown.text())

    # "make board-picture" makes it again.
    def test_the_recording_is_of_this_board(self):
        with open(os.path.join(SCHEMAS, "..", "board.cast")) as file:
            head, *events = map(json.loads, file)
        size, lines = (head["width"], head["height"]), set()
        played = Emulator(*size)
        for _, _, data in events:
            played.stream.feed(data.encode())
            lines.update(played.text().split("\n"))
        shown = self.follow(size=size)
        for keys, text in ("", "^> ledger"), ("j", "^> Sales "):
            shown.press(keys, text, "q leave")
            shown.until(lambda: lines.issuperset(shown.text().split("\n")[1:]), "docs/board.cast is of another board")


class Ends(Board):
    def test_the_terminal_is_restored_after_every_end(self):
        def send(number, who=lambda shown: shown.tool.pid):
            return lambda shown: os.kill(who(shown), number)

        stopped = self.follow()  # its output, so that it cannot end in time
        os.write(stopped.leader, b"\x13")
        stopped.drain()
        os.write(stopped.leader, b"j")
        os.kill(stopped.tool.pid, signal.SIGTERM)
        for name, end, code in [
                ("q", lambda shown: os.write(shown.leader, b"q"), 0),
                ("Ctrl-C", lambda shown: os.write(shown.leader, b"\x03"), -signal.SIGINT),
                ("Ctrl-\\", lambda shown: os.write(shown.leader, b"\x1c"), -signal.SIGQUIT),
                ("SIGINT", send(signal.SIGINT), -signal.SIGINT), ("SIGTERM", send(signal.SIGTERM), -signal.SIGTERM),
                ("SIGHUP", send(signal.SIGHUP), -signal.SIGHUP),
                ("SIGTERM to the board", send(signal.SIGTERM, Tool.board), -signal.SIGTERM),
                ("kill -9", send(signal.SIGKILL), -signal.SIGKILL),
                ("kill -9 of the board", send(signal.SIGKILL, Tool.board), 9)]:
            shown = self.follow()
            self.assertFalse(shown.shows_lines())
            end(shown)
            self.assertEqual(shown.ended(), code, name)
            while not shown.shows_lines():  # a board whose parent was killed ends after it
                self.assertGreater(shown.read(PATIENCE), 0, name)
            shown.drain()
            shown.check_restored(name)
        shown.wait("ended by a signal", "Killed")
        self.assertEqual(stopped.ended(), -signal.SIGTERM)
        stopped.check_restored("Ctrl-S")

    def test_a_stop_gives_the_terminal_back_until_it_goes_on(self):
        for name, stop in [("Ctrl-Z", lambda shown: os.write(shown.leader, b"\x1a")),
                           ("SIGTSTP", lambda shown: os.kill(shown.tool.pid, signal.SIGTSTP)),
                           ("SIGSTOP of the board", lambda shown: os.kill(shown.board(), signal.SIGSTOP))]:
            shown = self.follow()
            stop(shown)
            self.assertTrue(os.WIFSTOPPED(os.waitpid(shown.tool.pid, os.WUNTRACED)[1]), name)
            shown.drain()
            shown.check_restored(name)
            shown.screen.reset()
            os.kill(shown.tool.pid, signal.SIGCONT)
            shown.wait("^> ledger", "q leave")
            self.assertFalse(shown.shows_lines(), name)
            shown.press("j", "^> Sales")

    def test_trouble_is_shown_beside_what_was_read_before(self):
        shown = self.follow("SALES")
        shown.wait("database Sales", "Sales1 +node1")
        with self.holding("LKRT.DATABASE.DATABASES.sales"):
            data = self.path("registry/data.mdb")
            os.rename(data, data + ".away")
            shown.wait(r"stale for \d s", "Sales1 +node1", "^the registry in .* was deleted")
            os.rename(data + ".away", data)
            shown.wait("1 cannot be read", "locked: the shared lock LKRT", r"read \d+ s\s+ago:", "Sales1 +node1")
        shown.wait("^good", "^  enabled, role PRIMARY")
        shown.press("\x1b", "^>.Sales ")
        self.assertNotIn("*", shown.text(), "a wait is no change")
        self.store("DATABASE.DATABASES.sales.ROLE", b"\xff\0")
        shown.wait(r"^>\*Sales +enabled +\\xff ", r"sales.ROLE = PRIMARY -> \\xff")

    def test_what_is_wrong_from_the_beginning_ends_it(self):
        for words, env, code, text in [
                (["nobody"], {}, 3, "not registered"), (["--registry", "lmdb:" + self.path("no")], {}, 4, "cannot be"),
                ([], {"TERM": "dumb"}, 2, 'type "dumb"'), ([], {"TERM": "none-such"}, 2, 'type "none-such"'),
                (["-o", "json"], {}, 2, "watch")]:
            shown = Tool(self, "status", "--follow", *words, **env)
            self.assertEqual(shown.ended(), code, shown.text())
            self.assertIn(text, shown.raw.decode())
            self.assertNotIn(b"\x1b[?1049h", shown.raw)


class OnCluster(Cluster):
    def test_changes_come_from_the_member_and_outlast_it(self):
        shown = Tool(self, "status", "--follow", KEYVIEW_ANSWER_WAIT="1")
        shown.wait("^good", "^> ledger")
        self.good("disable", "sales", "--service", "reporting")
        shown.wait(r"^ \*Sales .* 1 of 3 ", "changes 2 ", "sales.SERVICE.reporting.ENABLED = true -> false")
        self.member.kill()
        self.member.wait()
        shown.wait(r"stale for \d+ s", "^> ledger", "^the cluster does not answer")
        shown.press("j", "^>.Sales")
        type(self).member = subprocess.Popen(self.member.args, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        shown.wait("^good", "q leave")
        self.good("enable", "sales", "--service", "nightly_batch")
        shown.wait("^>.Sales .* 2 of 3 ", "changes 3 ")
        os.write(shown.leader, b"q")
        self.assertEqual(shown.ended(), 0)
        shown.check_restored("q")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
