"""What is done to clients, members and their network: a plan made from a seed, and how each kind is done
and undone."""
from __future__ import annotations

import random
import signal
from typing import TYPE_CHECKING, Callable, NamedTuple

if TYPE_CHECKING:
    from histories import Run

SETTLE_S = 2.0  # between two faults of members


class Fault(NamedTuple):
    at: float  # seconds from the start
    kind: str
    client: int
    member: int
    other: int  # another member
    length: float


Undo = Callable[[], None]


def nothing() -> None:
    pass


def all_of(many: list[Undo]) -> Undo:
    def undo() -> None:
        for one in many:
            one()
    return undo


# ---- Clients ----

def killed(run: Run, fault: Fault) -> Undo:
    run.clients[fault.client].kill()
    return run.clients[fault.client].start


def stopped(run: Run, fault: Fault) -> Undo:
    run.clients[fault.client].signal(signal.SIGSTOP)
    return lambda: run.clients[fault.client].signal(signal.SIGCONT)


def clock_ahead(run: Run, fault: Fault) -> Undo:
    run.clients[fault.client].signal(signal.SIGUSR1)
    return nothing


def clock_back(run: Run, fault: Fault) -> Undo:
    run.clients[fault.client].signal(signal.SIGUSR2)
    return nothing


def dropping(requests: float, answers: float, every_member: bool) -> Callable[[Run, Fault], Undo]:
    """The share of the packets between a client and a member, or all, that is dropped each way."""
    def begin(run: Run, fault: Fault) -> Undo:
        client = run.clients[fault.client].name
        members = [run.members.name(n) for n in range(run.members.count) if every_member or n == fault.member]
        return all_of([run.network.drop(client, one, requests) for one in members if requests] +
                      [run.network.drop(one, client, answers) for one in members if answers])
    return begin


def slow_client(run: Run, fault: Fault) -> Undo:
    return run.network.slow(run.clients[fault.client].name)


# ---- Members ----

def member_killed(run: Run, fault: Fault) -> Undo:
    run.members.kill(fault.member)
    return lambda: run.members.start(fault.member)


def member_stopped(run: Run, fault: Fault) -> Undo:
    run.members.signal(fault.member, signal.SIGSTOP)
    return lambda: run.members.signal(fault.member, signal.SIGCONT)


def splitting(into: float, out: float, from_all: bool) -> Callable[[Run, Fault], Undo]:
    """The share of the packets between a member and another, or all others, that is dropped each way."""
    def begin(run: Run, fault: Fault) -> Undo:
        mine = run.members.name(fault.member)
        numbers = [n for n in range(run.members.count) if n != fault.member and (from_all or n == fault.other)]
        others = list(map(run.members.name, numbers))
        return all_of([run.network.drop(one, mine, into) for one in others if into] +
                      [run.network.drop(mine, one, out) for one in others if out])
    return begin


def no_majority(run: Run, fault: Fault) -> Undo:
    return all_of([splitting(1, 1, True)(run, fault._replace(member=n)) for n in (fault.member, fault.other)])


def slow_member(run: Run, fault: Fault) -> Undo:
    return run.network.slow(run.members.name(fault.member))


def disk_full(run: Run, fault: Fault) -> Undo:
    run.members.fill_disk(fault.member)

    def undo() -> None:
        run.members.free_disk(fault.member)
        if run.members.has_ended(fault.member):
            run.counts["members that ended with a full disk"] += 1
            run.members.start(fault.member)
    return undo


def compacted(run: Run, fault: Fault) -> Undo:
    """While the watches are stopped: they go on at a revision that is gone."""
    watches = [one for one in run.clients if one.role == "watch"]
    for one in watches:
        one.signal(signal.SIGSTOP)

    def undo() -> None:
        run.read()
        run.members.patiently(run.compact)
        for one in watches:
            one.signal(signal.SIGCONT)
    return undo


def replaced(run: Run, fault: Fault) -> Undo:
    if "forgetful-member" in run.planted:
        run.members.forget(fault.member)
    else:
        run.members.replace(fault.member)
    return nothing


class Kind(NamedTuple):
    begin: Callable[[Run, Fault], Undo]
    shortest: float
    longest: float
    embedded: bool = False  # also without a cluster


OF_CLIENTS = {
    "client killed": Kind(killed, 0.05, 1, True),
    "client stopped": Kind(stopped, 0.2, 5, True),
    "client's clock an hour ahead": Kind(clock_ahead, 0, 0, True),
    "client's clock an hour back": Kind(clock_back, 0, 0, True),
    "client cut from a member": Kind(dropping(1, 1, False), 0.5, 4),
    "client cut from all members": Kind(dropping(1, 1, True), 0.5, 4),
    "requests to a member lost": Kind(dropping(1, 0, False), 0.5, 4),
    "answers of a member lost": Kind(dropping(0, 1, False), 0.5, 4),
    "answers of all members lost": Kind(dropping(0, 1, True), 0.5, 4),
    "lossy link to all members": Kind(dropping(0.3, 0.3, True), 0.5, 4),
    "slow link of a client": Kind(slow_client, 0.5, 4),
}
OF_MEMBERS = {
    "member killed": Kind(member_killed, 0.1, 3),
    "member stopped": Kind(member_stopped, 0.2, 4),
    "member cut from a member": Kind(splitting(1, 1, False), 1, 4),
    "member cut from all members": Kind(splitting(1, 1, True), 1, 5),
    "member hears no member": Kind(splitting(1, 0, True), 1, 4),
    "member heard by no member": Kind(splitting(0, 1, True), 1, 4),
    "lossy links of a member": Kind(splitting(0.3, 0.3, True), 1, 4),
    "slow link of a member": Kind(slow_member, 1, 4),
    "no majority": Kind(no_majority, 0.5, 2),
    "disk of a member full": Kind(disk_full, 4, 7),
    "compaction in mid-watch": Kind(compacted, 0.6, 1.2),
    "member replaced": Kind(replaced, 4, 5),
}
KINDS = {**OF_CLIENTS, **OF_MEMBERS}


def plan(seed: int, seconds: float, kinds: list[str], clients: list[int], members: int,
         harmed: list[int]) -> list[Fault]:
    """Many faults of clients at once, but one for each; those of members one after the other. Members other than
    those that are to be harmed, if there are such, have none."""
    chance = random.Random(seed)
    found = []
    busy = dict.fromkeys(clients, 0.0)
    at = 0.5
    while at < seconds and (some := [kind for kind in OF_CLIENTS if kind in kinds]):
        kind, client, member = chance.choice(some), chance.choice(clients), chance.randrange(max(1, members))
        member = harmed[clients.index(client)] if harmed else member  # its own
        length = chance.uniform(KINDS[kind].shortest, KINDS[kind].longest)
        if busy[client] <= at:
            busy[client] = at + length + 0.5
            found.append(Fault(at, kind, client, member, 0, length))
        at += chance.uniform(0.1, 0.8)
    at = 1.0
    while at < seconds and (some := [kind for kind in OF_MEMBERS if kind in kinds]):
        kind = chance.choice(some)
        member, other = chance.sample(range(members), 2)
        if harmed:
            member = chance.choice(harmed)
            other = chance.choice([n for n in range(members) if n != member])
        length = chance.uniform(KINDS[kind].shortest, KINDS[kind].longest)
        found.append(Fault(at, kind, 0, member, other, length))
        at += length + SETTLE_S
    return sorted(found)
