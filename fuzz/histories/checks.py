"""The checks over histories. Each reports what is wrong as sentences; none knows how the registry works."""
from __future__ import annotations

import time
from dataclasses import dataclass
from typing import Iterable, Iterator, NamedTuple

NEVER = 1 << 62
Sentences = Iterator[str]
States = set[tuple[str, frozenset[int]]]


@dataclass
class Operation:
    """A read or a write of one register. A write without an end may take place at any time, or never."""
    begin: int
    write: bool
    value: str
    end: int = NEVER
    client: str = ""

    def age_s(self) -> float:
        return (time.monotonic_ns() - self.begin) / 1e9


class Hold(NamedTuple):
    """The time in which a client knew that it held a lock."""
    begin: int
    end: int
    shared: bool
    client: str


class Change(NamedTuple):
    revision: int
    path: str
    value: str


def linearizability(register: str, operations: Iterable[Operation], initial: str) -> Sentences:
    """Wing and Gong's search over the events in their order: each state is the register's value with the
    set of operations that have begun and taken effect; equal states are kept once. A state is extended
    only when an operation ends in which it has not taken effect yet."""
    known = [one for one in operations if one.write or one.end < NEVER]
    events = sorted([(one.begin, 0, n) for n, one in enumerate(known)] +
                    [(one.end, 1, n) for n, one in enumerate(known) if one.end < NEVER])
    states: States = {(initial, frozenset())}
    pending: set[int] = set()
    for _, is_end, n in events:
        if not is_end:
            pending.add(n)
            continue
        states = _after(n, states, pending, known)
        pending.remove(n)
        if not states:
            one = known[n]
            what = "wrote" if one.write else "read"
            yield f"{register}: no order of the operations explains that {one.client} {what} {one.value} " \
                  f"between {one.begin / 1e9:.4f} and {one.end / 1e9:.4f} s"
            return


def _after(n: int, states: States, pending: set[int], known: list[Operation]) -> States:
    """The states in which an operation that ends has taken effect."""
    result: States = set()
    seen, stack = set(states), list(states)
    reads = [one for one in pending if not known[one].write]
    writes = [one for one in pending if known[one].write]
    while stack:
        value, done = stack.pop()
        # A read may take effect as soon as its value is there: that never hinders another operation.
        done = done.union(one for one in reads if known[one].value == value)
        if n in done:
            result.add((value, done - {n}))
            continue
        wanted = {known[one].value for one in reads if one not in done}
        for one in writes:
            # A write without an end matters only if a read needs its value.
            if one in done or (known[one].end == NEVER and known[one].value not in wanted):
                continue
            state = (known[one].value, done | {one})
            if state not in seen:
                seen.add(state)
                stack.append(state)
    return result


def one_moment(register: str, operations: Iterable[Operation]) -> Sentences:
    for one in operations:
        if not one.write and "+" in one.value:
            yield f"{register}: {one.client} read a record of several moments: {one.value[:200]}"


def exclusion(lock: str, holds: Iterable[Hold]) -> Sentences:
    latest: dict[bool, Hold] = {}  # by mode, the one that is held longest
    for one in sorted(holds):
        for shared, other in latest.items():
            conflicts = not (shared and one.shared) and other.client != one.client
            if conflicts and other.end > one.begin:
                yield f"{lock}: held by {other.client} until {other.end / 1e9:.4f} s and by {one.client} from " \
                      f"{one.begin / 1e9:.4f} s"
        if one.shared not in latest or latest[one.shared].end < one.end:
            latest[one.shared] = one


def fencing(counter: str, values: Iterable[str]) -> Sentences:
    """Every value of a counter, in the order of the registry: a holder reads it and counts on, so a write
    under a lock that was lost breaks the sequence."""
    for number, value in enumerate(values):
        if int(value.split(":")[0]) != number:
            yield f"{counter}: {value} was written where {number} is due"
            return


def counted_once(counter: str, operations: Iterable[Operation]) -> Sentences:
    done: dict[str, Operation] = {}  # by the number that was written
    for one in operations:
        if one.write and one.end < NEVER:
            other = done.setdefault(one.value.split(":")[0], one)
            if other is not one:
                yield f"{counter}: {other.client} wrote {other.value} and {one.client} {one.value}"


class Watch:
    """What a client received from one start of its watch, against all changes of the cluster."""

    def __init__(self, client: str, since: int):
        self.client, self.since = client, since
        self.received: list[Change] = []  # up to that revision
        self.begun: list[Change] = []  # of a batch whose end is not there yet
        self.up_to = since
        self.at: int | None = None  # in the list of all changes

    def check(self, changes: list[Change]) -> Sentences:
        """Takes what is complete in both."""
        if not changes or changes[-1].revision <= self.up_to:
            return
        if self.at is None:
            low, high = 0, len(changes)
            while low < high:
                middle = (low + high) // 2
                low, high = (middle + 1, high) if changes[middle].revision <= self.since else (low, middle)
            self.at = low
        end = self.at
        while end < len(changes) and changes[end].revision <= self.up_to:
            end += 1
        due, received = changes[self.at:end], self.received
        if due != received:
            n = next((n for n, pair in enumerate(zip(due, received)) if pair[0] != pair[1]), min(len(due), len(received)))
            yield f"{self.client}: its watch, complete up to {self.up_to}, has {received[n:n + 1]} " \
                  f"where the cluster has {due[n:n + 1]}"
        self.at, self.received = end, []
