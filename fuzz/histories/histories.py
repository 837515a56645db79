"""Runs clients of a registry under faults and checks the history of what they report.

The registry is a real cluster of three members, or one on this machine. Clients and members have network
namespaces of their own, in which packets are dropped. A seed determines the plan of the faults and what each
client does, as far as the registry's answers allow.
"""
from __future__ import annotations

import argparse
import collections
import heapq
import itertools
import json
import os
import subprocess
import sys
import tempfile
import time
from typing import Callable, NamedTuple

import checks
import faults
from clients import Client, Report
from members import Members
from network import Network, alone, call

# The members that each client knows, in its order.
MIXED = ([0, 1, 2], [1, 2, 0], [0], [1], [2], [2, 0, 1])
WATCHES = ([0, 1, 2], [1, 2, 0])
FIRST_VALUES = {"enabled": "1", "service": "1"}  # of registers; else "0"
SETTINGS = {"KEYVIEW_LEASE_TTL": "2", "KEYVIEW_ANSWER_WAIT": "2", "KEYVIEW_LOCK_WAIT": "4"}
LONGEST_CALL_S = 12.0


class Plant(NamedTuple):
    """A fault on purpose: in every third client of a role, or in how a member is replaced. Each kind that brings
    it to light, and the check that must find it."""
    role: str
    kinds: list[str]
    check: str


LOST_ANSWERS = ["answers of a member lost", "answers of all members lost"]
REFUSALS = ["client cut from a member", "client cut from all members", "requests to a member lost", "member killed",
            "member stopped", "member heard by no member", "no majority", "disk of a member full",
            "lossy link to all members", "lossy links of a member"]
PARTITIONS = ["member cut from a member", "member cut from all members", "member hears no member"]
PLANTS = {
    "stale-read": Plant("mixed", [], "linearizability"),
    "lost-write": Plant("mixed", [], "linearizability"),
    "failed-is-undone": Plant("mixed", LOST_ANSWERS, "linearizability"),
    "failed-is-done": Plant("mixed", REFUSALS, "linearizability"),
    "reads-own-member": Plant("mixed", PARTITIONS, "linearizability"),
    "gives-up": Plant("mixed", ["slow link of a client"], "linearizability"),
    "shows-old": Plant("mixed", ["slow link of a member"], "linearizability"),
    "never-ends": Plant("mixed", [], "end"),
    "forgetful-member": Plant("member", ["member replaced"], "exclusion"),
    "no-lock": Plant("mixed", [], "exclusion"),
    "forgets-loss": Plant("mixed", ["client stopped"], "exclusion"),
    "clock-of-day": Plant("mixed", ["client's clock an hour back"], "exclusion"),
    "breaks-locks": Plant("mixed", ["client's clock an hour ahead"], "exclusion"),
    "unfenced": Plant("mixed", ["client stopped"], "fencing"),
    "two-changes": Plant("mixed", [], "one moment"),
    "two-changes-under-lock": Plant("mixed", ["client killed"], "one moment"),
    "drops-change": Plant("watch", [], "watch"),
    "swaps-changes": Plant("watch", [], "watch"),
    "hides-gap": Plant("watch", ["compaction in mid-watch"], "watch"),
}
assert {kind for plant in PLANTS.values() for kind in plant.kinds} == set(faults.KINDS)


class Run:
    def __init__(self, build: str, directory: str, network: Network, seed: int, planted: list[str]):
        self.build, self.directory, self.network, self.seed, self.planted = build, directory, network, seed, planted
        os.makedirs(directory)
        self.counts: collections.Counter[str] = collections.Counter()
        self.injected: collections.Counter[str] = collections.Counter()
        self.violations: list[tuple[float, str, str]] = []  # seconds, check, sentence
        self.registers: dict[str, list[checks.Operation]] = collections.defaultdict(list)
        self.holds: dict[str, list[tuple[str, list[int]]]] = collections.defaultdict(list)
        self.changes: list[checks.Change] = []  # of the cluster
        self.tree: dict[str, str] = {}
        self.counted: dict[str, list[str]] = collections.defaultdict(list)  # the values of each counter
        self.watches: list[checks.Watch] = []
        self.start = time.monotonic()
        self.epoch = 0
        self.epoch_file = directory + "/epoch"
        self.members = Members(network, directory)
        self.url = self.members.url([0, 1, 2]) if network else f"lmdb:{directory}/registry"
        self.environment = {**os.environ, **SETTINGS, "KEYVIEW_REGISTRY": self.url}
        self.begin_epoch(self.set_up(1))
        self.all_changes: Report | None = None
        if network:
            self.all_changes = Report(directory + "/changes")
            subprocess.Popen([self.program("changes"), self.url, self.all_changes.path], env=self.environment)
        self.clients: list[Client] = []
        self.victims: list[int] = []  # clients with a fault on purpose: those to be harmed, else any
        self.harmed: list[int] = []  # the member of each
        for role, seats in (("mixed", MIXED), ("watch", WATCHES if network else ())):
            for number, known in enumerate(seats):
                mine = [name for name in planted if PLANTS[name].role == role and number % 3 == 0]
                # Where it knows one member alone, each fault of that member harms it.
                url = self.members.url(known[:1] if mine else known) if network else self.url
                # A large change of another client delays a call as much as a slow link does.
                beside = ["small-changes"] if {"gives-up", "shows-old"} & set(planted) and not mine else []
                if mine:
                    self.victims.append(len(self.clients))
                    self.harmed += known[:1]
                self.clients.append(Client(self, role, number, url, mine + beside))

    def program(self, name: str) -> str:
        return f"{self.build}/bin/histories_{name}"

    def seconds(self) -> float:
        return time.monotonic() - self.start

    # ---- Course ----

    def set_up(self, epoch: int) -> subprocess.Popen[bytes]:
        return subprocess.Popen([self.program("client"), "setup", f"e{epoch}-"], env=self.environment)

    def begin_epoch(self, set_up: subprocess.Popen[bytes]) -> None:
        if set_up.wait() != 0:
            raise RuntimeError("an epoch cannot be set up")
        self.epoch += 1
        fd = os.open(self.epoch_file, os.O_WRONLY | os.O_CREAT, 0o600)  # mapped by the clients
        os.pwrite(fd, self.epoch.to_bytes(4, sys.byteorder), 0)
        os.close(fd)

    def go(self, seconds: float, kinds: list[str], epoch_s: float) -> None:
        self.start = time.monotonic()
        due: list[tuple[float, int, Callable[[], None]]] = []
        undo: dict[float, tuple[faults.Fault, Callable[[], None]]] = {}  # of faults by their planned time
        begin_members = 0.0
        numbers = itertools.count()

        def later(at: float, act: Callable[[], None]) -> None:
            heapq.heappush(due, (at, next(numbers), act))

        def begin(fault: faults.Fault) -> None:
            of_member = fault.kind in faults.OF_MEMBERS
            same = [one for one, _ in undo.values() if (one.kind in faults.OF_MEMBERS) == of_member]
            active = same if of_member else [one for one in same if one.client == fault.client]
            if active or (of_member and self.seconds() < begin_members):
                later(self.seconds() + 0.5, lambda: begin(fault))  # the one before took longer than planned
                return
            self.injected[fault.kind] += 1
            undo[fault.at] = fault, faults.KINDS[fault.kind].begin(self, fault)
            later(self.seconds() + fault.length, lambda: end(fault))

        def end(fault: faults.Fault) -> None:
            nonlocal begin_members
            undo[fault.at][1]()
            del undo[fault.at]
            if fault.kind in faults.OF_MEMBERS:
                begin_members = self.seconds() + faults.SETTLE_S

        def end_epoch() -> None:
            set_up, ended = self.set_up(self.epoch + 1), self.epoch

            def poll() -> None:
                if set_up.poll() is None:
                    later(self.seconds() + 0.1, poll)
                    return
                self.begin_epoch(set_up)
                later(self.seconds() + epoch_s, end_epoch)
                check(ended)
            poll()

        def check(epoch: int) -> None:
            if any(one.role == "mixed" and one.epoch <= epoch for one in self.clients):
                later(self.seconds() + 0.5, lambda: check(epoch))
            else:
                self.check(f"e{epoch}-")

        victims = self.victims or list(range(len(self.clients)))
        for one in faults.plan(self.seed, seconds, kinds, victims, self.members.count, self.harmed):
            later(one.at, lambda one=one: begin(one))  # type: ignore[misc]
        later(epoch_s, end_epoch)
        wanted = {PLANTS[name].check for name in self.planted}
        while self.seconds() < seconds and not (wanted and wanted <= self.found()):
            while due and due[0][0] <= self.seconds():
                heapq.heappop(due)[2]()
            self.read()
            time.sleep(0.05)
        for _, act in undo.values():
            act()
        self.finish()

    def finish(self) -> None:
        """Each operation gets the time to end; then all clients are ended, between two of them if one is met there."""
        end = self.seconds() + LONGEST_CALL_S
        running = [one for one in self.clients if one.role == "mixed"]
        while running and self.seconds() < end:
            self.read()
            for one in [one for one in running if one.open is None]:
                one.kill()
                running.remove(one)
        self.note("end", (f"{one.id} has been at {one.open[0]} for {one.open[1].age_s():.1f} s without a fault"
                          for one in running if one.open and one.open[1].age_s() > LONGEST_CALL_S))
        for one in self.clients:
            one.kill()
        time.sleep(1 if self.all_changes else 0)  # what the cluster still delivers
        self.read()
        self.check("e")

    def read(self) -> None:
        for one in self.clients:
            one.read()
        for _, revision, path, value in self.all_changes.lines() if self.all_changes else ():
            if path.startswith("DATABASE") and self.tree.get(path) != value:
                self.tree[path] = value
                self.changes.append(checks.Change(int(revision), path, value))
                if path.endswith(".DB_NAME"):
                    self.counted[path.split(".")[2]].append(value)
        for watch in self.watches:
            self.note("watch", watch.check(self.changes))

    def compact(self) -> str:
        self.members.compact(self.changes[-1].revision)
        return ""

    # ---- Checks ----

    def note(self, check: str, sentences: checks.Sentences) -> None:
        self.violations.extend((self.seconds(), check, sentence) for sentence in sentences)

    def found(self) -> set[str]:
        return {check for _, check, _ in self.violations}

    def check(self, prefix: str) -> None:
        self.check_registers(prefix)
        if self.changes and (differ := self.members.disagreement(self.changes[-1].revision)):
            self.note("members", iter([f"the members hold other keys than each other, {differ}"]))

    def check_registers(self, prefix: str) -> None:
        """What there is of the registers and locks whose names begin so, which is then forgotten."""
        for register in [name for name in self.registers if name.startswith(prefix)]:
            operations = self.registers.pop(register)
            self.counts["registers"] += 1
            first = FIRST_VALUES.get(register.split(".")[-1], "0")
            self.note("linearizability", checks.linearizability(register, operations, first))
            self.note("one moment", checks.one_moment(register, operations))
            if register.endswith(".counter"):
                self.note("fencing", checks.counted_once(register, operations))
                database = register.split(".")[0]
                self.note("fencing", checks.fencing(register, self.counted.pop(database, [])))
        for lock in [name for name in self.holds if name.split(".")[-1].startswith(prefix)]:
            holds = [checks.Hold(begin, end, bool(shared), client)
                     for client, (begin, end, shared) in self.holds.pop(lock)]
            self.note("exclusion", checks.exclusion(lock, holds))


def injected_by(one: Run) -> dict[str, int]:
    return {kind: one.injected[kind] for kind in faults.KINDS if one.injected[kind]}


def run_once(options: argparse.Namespace) -> int:
    alone()
    planted = options.plant.split(",") if options.plant else []
    embedded = options.engine == "embedded"
    kinds = [kind for kind, row in faults.KINDS.items() if row.embedded or not embedded]
    if options.kinds:
        kinds = [kind for kind in kinds if kind in options.kinds.split(",")]
    elif planted:
        kinds = sorted({kind for name in planted for kind in PLANTS[name].kinds})
    with tempfile.TemporaryDirectory(prefix="histories-") as directory:
        call("mount", "-t", "tmpfs", "tmpfs", directory)
        os.environ["XTABLES_LOCKFILE"] = directory + "/xtables.lock"
        try:
            run = Run(options.build, directory + "/run", Network(not embedded), options.seed, planted)
            run.go(options.seconds, kinds, options.epoch)
        finally:
            call("umount", "-l", directory)
    firsts = {check: (after, text) for after, check, text in reversed(run.violations)}
    print(json.dumps({"engine": options.engine, "seed": options.seed, "seconds": round(run.seconds(), 1),
                      "planted": planted, "faults": injected_by(run), "counts": dict(sorted(run.counts.items())),
                      "changes of the cluster": len(run.changes), "violations": len(run.violations),
                      "violations of each check": collections.Counter(check for _, check, _ in run.violations),
                      "first of each check": firsts}, indent=1))
    if planted:
        return 0 if {PLANTS[name].check for name in planted} <= run.found() else 1
    return 1 if run.violations else 0


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", help="the directory of the build")
    parser.add_argument("--engine", choices=("cluster", "embedded"), default="cluster")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--seconds", type=float, default=10)
    parser.add_argument("--epoch", type=float, default=8, help="seconds for which a set of registers is used")
    parser.add_argument("--plant", default="", help="faults on purpose, which must be found: " + ", ".join(PLANTS))
    parser.add_argument("--kinds", default="", help="the kinds of faults: " + ", ".join(faults.KINDS))
    return run_once(parser.parse_args())


if __name__ == "__main__":
    sys.exit(main())
