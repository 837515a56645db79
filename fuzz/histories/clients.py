"""The clients of a run: their processes, and the lines that they report (client.cpp)."""
from __future__ import annotations

import os
import signal
import subprocess
from typing import TYPE_CHECKING, Iterator

import checks

if TYPE_CHECKING:
    from histories import Run


def epoch_of(database: str) -> int:
    return int(database[1:].split("-")[0])


class Report:
    """The lines that a process writes, as they come."""

    def __init__(self, path: str):
        self.path, self.rest = path, b""
        self.file = open(path, "ab+", buffering=0)
        self.file.seek(0)

    def lines(self) -> Iterator[list[str]]:
        data = self.rest + (self.file.read() or b"")
        whole, _, self.rest = data.rpartition(b"\n")
        if whole:
            yield from (line.split("\t") for line in whole.decode().split("\n"))


class Client:
    """One process after the other, the next when one was killed."""

    def __init__(self, run: Run, role: str, number: int, url: str, planted: list[str]):
        self.run, self.role, self.number, self.url, self.planted = run, role, number, url, planted
        self.name = f"{'c' if role == 'mixed' else 'w'}{number}"
        self.starts = 0
        self.inside: list[str] = []
        if run.network:
            run.network.add(self.name)
            self.inside = run.network.inside(self.name)
        self.start()

    def start(self) -> None:
        if self.starts and self.process.poll() is None:
            raise RuntimeError(f"{self.id} runs: what it does from now on would not be read")
        self.starts += 1
        self.id = f"{self.name}-{self.starts}"
        self.report = Report(f"{self.run.directory}/{self.id}")
        self.open: tuple[str, checks.Operation] | None = None
        self.hold: list[int] = []
        self.watch: checks.Watch | None = None
        self.epoch = self.run.epoch  # at least; it has no operation left in earlier ones
        seed = str(self.run.seed * 1000 + self.number * 100 + self.starts)
        words = [self.run.program("client"), self.role, self.report.path, self.id, seed, self.run.epoch_file]
        environment = {**self.run.environment, "KEYVIEW_REGISTRY": self.url}
        if any(name.startswith("failed-is") for name in self.planted):
            environment["KEYVIEW_ANSWER_WAIT"] = "1"  # more calls fail, and before the registers change
        self.process = subprocess.Popen([*self.inside, *words, *self.planted], env=environment)

    def signal(self, number: int) -> None:
        self.process.send_signal(number)

    def kill(self) -> None:
        self.signal(signal.SIGKILL)
        self.process.wait()
        self.read()
        self.open = None

    def read(self) -> None:
        for line in self.report.lines():
            getattr(self, "take_" + line[0])(*line[1:])

    # ---- The lines ----

    def take_I(self, at: str, register: str, mode: str, value: str) -> None:
        self.epoch = epoch_of(register)
        operation = checks.Operation(int(at), mode == "w", value, client=self.id)
        self.open = register, operation
        if operation.write:
            self.run.registers[register].append(operation)

    def take_O(self, at: str, outcome: str, value: str) -> None:
        assert self.open
        (register, operation), self.open = self.open, None
        self.run.counts[f"{'writes' if operation.write else 'reads'} that ended \"{outcome}\""] += 1
        if outcome == "ok":
            operation.end, operation.value = int(at), value
            if not operation.write:
                self.run.registers[register].append(operation)
        elif outcome == "no":
            self.run.registers[register].remove(operation)

    def take_L(self) -> None:
        self.run.counts["locks taken by operations of the library"] += 1

    def take_K(self) -> None:
        self.run.counts["large changes that another client ended"] += 1

    def take_G(self, lock: str, mode: str, at: str) -> None:
        self.run.counts["locks taken and held"] += 1
        self.hold = [int(at), int(at), int(mode == "s")]
        self.run.holds[lock].append((self.id, self.hold))

    def take_H(self, _: str, at: str) -> None:
        self.hold[1] = int(at)

    def take_S(self, since: str) -> None:
        self.watch = checks.Watch(self.id, int(since))
        self.run.watches.append(self.watch)

    def take_X(self, since: str) -> None:
        self.run.counts["gaps that watches reported"] += 1
        self.take_S(since)

    def take_C(self, revision: str, path: str, value: str) -> None:
        assert self.watch
        self.run.counts["changes that watches received"] += 1
        self.watch.begun.append(checks.Change(int(revision), path, value))

    def take_U(self, revision: str) -> None:
        assert self.watch
        self.watch.received += self.watch.begun
        self.watch.begun.clear()
        self.watch.up_to = int(revision)
