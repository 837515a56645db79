"""A network of namespaces: one for each client and member, all on one bridge. The process must be in
namespaces of its own (see alone())."""
from __future__ import annotations

import os
import shutil
import subprocess
import sys
from typing import Callable

HUB = "10.77.0.254"
NOT_PERMITTED = 77


def call(*words: str) -> str:
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(words)}: {done.stderr.strip()}")
    return done.stdout


def void(_: object) -> None:
    pass


def alone() -> None:
    """Starts this program again in namespaces that end with it, and with all its processes and mounts. Ends with
    NOT_PERMITTED where the kernel refuses them, or what is done in them; a tool that is missing is a failure."""
    if os.environ.get("HISTORIES_ALONE") == "1":
        return
    missing = [tool for tool in ("unshare", "mount", "ip", "tc", "iptables") if shutil.which(tool) is None]
    if missing:
        sys.exit(f"histories: missing: {' '.join(missing)}")
    as_root = [] if os.geteuid() == 0 else ["--map-root-user"]
    words = ["unshare", *as_root, "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    rule = "iptables -w -A INPUT -s 10.77.0.1 -m statistic --mode random --probability 0.5 -j DROP"
    try:
        call(*words, "sh", "-ec", f"mount -t tmpfs tmpfs /run; ip link add hub type bridge; {rule}")
    except RuntimeError as refusal:
        print(f"histories: not run, the kernel does not permit it here: {refusal}", file=sys.stderr)
        sys.exit(NOT_PERMITTED)
    os.environ["HISTORIES_ALONE"] = "1"
    os.execvp("unshare", [*words, sys.executable, *sys.argv])


class Network:
    """is_used is false for clients of a registry on this machine, which need none."""

    def __init__(self, is_used: bool):
        self.is_used = is_used
        self.address: dict[str, str] = {}
        if not is_used:
            return
        call("mount", "-t", "tmpfs", "tmpfs", "/run")
        os.makedirs("/run/netns")
        for words in ("link set lo up", "link add hub type bridge", "link set hub up", f"addr add {HUB}/24 dev hub"):
            call("ip", *words.split())

    def add(self, name: str) -> str:
        address = f"10.77.0.{len(self.address) + 1}"
        self.address[name] = address
        call("ip", "netns", "add", name)
        call("ip", "link", "add", "v" + name, "type", "veth", "peer", "name", "eth0", "netns", name)
        call("ip", "link", "set", "v" + name, "master", "hub", "up")
        for words in (f"addr add {address}/24 dev eth0", "link set eth0 up", "link set lo up"):
            call("ip", "-n", name, *words.split())
        return address

    @staticmethod
    def inside(name: str) -> list[str]:
        return ["ip", "netns", "exec", name]

    def __bool__(self) -> bool:
        return self.is_used

    # ---- Harm, each with what undoes it ----

    def drop(self, source: str, target: str, probability: float) -> Callable[[], None]:
        """Drops a share of the packets that arrive at one end from another."""
        share = [] if probability == 1 else ["-m", "statistic", "--mode", "random", "--probability", str(probability)]
        rule = ["INPUT", "-s", self.address[source], *share, "-j", "DROP"]
        tool = [*self.inside(target), "iptables", "-w"]
        call(*tool, "-A", *rule)
        return lambda: void(call(*tool, "-D", *rule))

    def slow(self, name: str) -> Callable[[], None]:
        tool = [*self.inside(name), "tc", "qdisc"]
        call(*tool, *"replace dev eth0 root tbf rate 300kbit burst 4kb latency 1500ms".split())
        return lambda: void(subprocess.run([*tool, *"del dev eth0 root".split()], stderr=subprocess.DEVNULL, check=False))
