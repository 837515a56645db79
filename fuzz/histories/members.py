"""The members of a cluster, each in its namespace with a small file system of its own."""
from __future__ import annotations

import json
import os
import shutil
import signal
import subprocess
import time
from typing import Callable

from network import Network, call

CLIENT_PORT, PEER_PORT = 2379, 2380
DISK_MB = 400
READY_S = 60.0


class Members:
    def __init__(self, network: Network, directory: str):
        self.network, self.directory = network, directory
        self.count = count = 3 if network else 0  # none for a registry on this machine
        self.processes: list[subprocess.Popen[bytes] | None] = [None] * count
        self.joined: set[int] = set()  # later than at the beginning
        for n in range(count):
            network.add(self.name(n))
            os.makedirs(self.disk(n))
            call("mount", "-t", "tmpfs", "-o", f"size={DISK_MB}m", "tmpfs", self.disk(n))
        for n in range(count):
            self.start(n)
        for n in range(count):
            self.await_ready(n)

    @staticmethod
    def name(n: int) -> str:
        return f"m{n}"

    def disk(self, n: int) -> str:
        return f"{self.directory}/disk{n}"

    def endpoint(self, n: int) -> str:
        return f"{self.network.address[self.name(n)]}:{CLIENT_PORT}"

    def url(self, numbers: list[int]) -> str:
        return "etcd://" + ",".join(map(self.endpoint, numbers)) + "/histories"

    def _peer(self, n: int) -> str:
        return f"http://{self.network.address[self.name(n)]}:{PEER_PORT}"

    def start(self, n: int, alone: bool = False) -> None:
        everyone = [n] if alone else range(self.count)
        cluster = ",".join(f"{self.name(k)}={self._peer(k)}" for k in everyone)
        words = ["etcd", f"--name={self.name(n)}", f"--data-dir={self.disk(n)}/data",
                 f"--listen-client-urls=http://0.0.0.0:{CLIENT_PORT}",
                 f"--advertise-client-urls=http://{self.endpoint(n)}", f"--listen-peer-urls=http://0.0.0.0:{PEER_PORT}",
                 f"--initial-advertise-peer-urls={self._peer(n)}", f"--initial-cluster={cluster}",
                 # Also later on: it may be killed before it has joined.
                 f"--initial-cluster-state={'existing' if n in self.joined else 'new'}",
                 # Snapshots come often, so that a full disk is met soon.
                 "--snapshot-count=500", "--log-level=error", "--logger=zap"]
        with open(f"{self.directory}/member{n}.log", "ab") as log:
            self.processes[n] = subprocess.Popen([*self.network.inside(self.name(n)), *words], stdout=log, stderr=log)

    def signal(self, n: int, number: int) -> None:
        process = self.processes[n]
        if process is not None:
            process.send_signal(number)

    def kill(self, n: int) -> None:
        self.signal(n, signal.SIGKILL)
        process = self.processes[n]
        if process is not None:
            process.wait()

    def has_ended(self, n: int) -> bool:
        process = self.processes[n]
        return process is not None and process.poll() is not None

    # ---- What etcd's own tool does ----

    def control(self, numbers: list[int], *words: str) -> str:
        endpoints = ",".join(map(self.endpoint, numbers))
        os.environ["ETCDCTL_API"] = "3"
        return call("etcdctl", "--endpoints", endpoints, "--command-timeout=2s", *words)

    @staticmethod
    def patiently(work: Callable[[], str]) -> str:
        end = time.monotonic() + READY_S
        while True:
            try:
                return work()
            except RuntimeError:
                if time.monotonic() > end:
                    raise
                time.sleep(0.1)

    def await_ready(self, n: int) -> None:
        self.patiently(lambda: self.control([n], "get", "--limit=1", "x"))

    def disagreement(self, revision: int) -> str:
        """The hashes of the members' keys of a revision, if they differ; "" also where a member does not tell."""
        everyone = list(range(self.count))
        try:
            told = json.loads(self.control(everyone, "endpoint", "hashkv", f"--rev={revision}", "-w", "json"))
        except RuntimeError:
            return ""
        hashes = {one["Endpoint"]: one["HashKV"] for one in told}
        kept = {one.get("compact_revision", 0) for one in hashes.values()}
        differ = len(kept) == 1 and len({one["hash"] for one in hashes.values()}) > 1
        return f"revision {revision}: {hashes}" if differ else ""

    def compact(self, revision: int) -> None:
        self.control(list(range(self.count)), "compaction", str(revision))

    def replace(self, n: int) -> None:
        """The member is removed and its data with it; a new one takes its address."""
        others = [k for k in range(self.count) if k != n]
        for one in others:
            self.await_ready(one)
        self.kill(n)
        members = json.loads(self.patiently(lambda: self.control(others, "member", "list", "-w", "json")))["members"]
        number = next(one["ID"] for one in members if self._peer(n) in one["peerURLs"])
        self.patiently(lambda: self._unless_done(others, "member", "remove", f"{number:x}"))
        shutil.rmtree(f"{self.disk(n)}/data", ignore_errors=True)
        self.patiently(lambda: self._unless_done(others, "member", "add", self.name(n), f"--peer-urls={self._peer(n)}"))
        self.joined.add(n)
        self.start(n)

    def _unless_done(self, numbers: list[int], *words: str) -> str:
        """A try without an answer may have been carried out."""
        try:
            return self.control(numbers, *words)
        except RuntimeError as error:
            if "Member not found" in str(error) or "already exists" in str(error) or "Peer URLs already" in str(error):
                return ""
            raise

    def forget(self, n: int) -> None:
        """What must never be done: the member starts without its data, as a cluster of its own."""
        self.kill(n)
        shutil.rmtree(f"{self.disk(n)}/data", ignore_errors=True)
        self.start(n, alone=True)

    # ---- Disks ----

    def fill_disk(self, n: int) -> None:
        block = b"\0" * (1 << 20)
        try:
            with open(f"{self.disk(n)}/filler", "wb", buffering=0) as file:
                while True:
                    file.write(block)
        except OSError:
            pass

    def free_disk(self, n: int) -> None:
        try:
            os.unlink(f"{self.disk(n)}/filler")
        except FileNotFoundError:
            pass
