"""A terminal as a person sits at it: a program in its foreground, keys, the screen of an emulator. Nothing
sleeps: each step waits for a text."""
import fcntl, os, pty, re, select, struct, subprocess, termios, time

import pyte

PATIENCE = 30


class Screen(pyte.Screen):
    """Scrolls a part of it, too, as terminals do."""

    def scroll(self, count, change):
        line, self.cursor.y = self.cursor.y, (self.margins or (0,))[0]
        change(count or 1)
        self.cursor.y = line

    def scroll_up(self, count=1):
        self.scroll(count, self.delete_lines)

    def scroll_down(self, count=1):
        self.scroll(count, self.insert_lines)


class Stream(pyte.ByteStream):
    csi = {**pyte.ByteStream.csi, "S": "scroll_up", "T": "scroll_down"}


class Emulator:
    def __init__(self, *size):
        self.screen = Screen(*size)
        self.stream = Stream(self.screen)

    def text(self):
        columns, buffer = range(self.screen.columns), self.screen.buffer
        return "\n".join("".join([buffer[line][at].data for at in columns]) for line in range(self.screen.lines))


class Terminal(Emulator):
    """A terminal with a program in its foreground."""

    def __init__(self, command, size, env):
        super().__init__(*size)
        self.raw = b""
        self.leader, self.follower = pty.openpty()
        self.set_size(*size)
        self.before = termios.tcgetattr(self.follower)
        self.tool = subprocess.Popen(
            command, stdin=self.follower, stdout=self.follower, stderr=self.follower,
            start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
            env={"TERM": "xterm-256color", "LC_ALL": "C.UTF-8", **env})

    def end(self):
        if self.tool.poll() is None:
            self.tool.kill()
            self.tool.wait()
        for fd in (self.leader, self.follower):
            os.close(fd)

    def set_size(self, columns, lines):
        fcntl.ioctl(self.follower, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))
        self.screen.resize(lines, columns)

    # Reads what comes within a time; the number of bytes.
    def read(self, seconds=0.02):
        if not select.select([self.leader], [], [], seconds)[0]:
            return 0
        block = os.read(self.leader, 65536)
        self.raw += block
        self.stream.feed(block)
        return len(block)

    def until(self, holds, what):
        end = time.monotonic() + PATIENCE
        while not holds():
            if time.monotonic() > end:
                raise AssertionError("%s\n%s" % (what, self.text()))
            self.read()

    def wait(self, *patterns):
        self.until(lambda: all(re.search(one, self.text(), re.M) for one in patterns), "not seen: %s" % (patterns,))

    def press(self, keys, *patterns):
        os.write(self.leader, keys.encode())
        self.wait(*patterns)

    def ended(self):
        self.until(lambda: self.tool.poll() is not None, "does not end")
        self.drain()
        return self.tool.returncode

    def drain(self, seconds=0.02):
        while self.read(seconds):
            pass

    # The process of the board, below the one that was started.
    def board(self):
        with open("/proc/%d/task/%d/children" % (self.tool.pid, self.tool.pid)) as children:
            return int(children.read().split()[0])

    def shows_lines(self):
        return self.raw.rfind(b"\x1b[?1049l") >= self.raw.rfind(b"\x1b[?1049h")
