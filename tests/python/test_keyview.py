"""The Python package over a registry of its own, beside the tool and the header.

KEYVIEWCTL and EXAMPLE_DOCUMENT are the tool and the document that fills the registry; SOURCES is the
project.
"""
import base64
import dataclasses
import json
import os
import pickle
import shutil
import subprocess
import sys
import threading
import time
from collections import Counter
from pathlib import Path
from typing import Any, Callable, Dict, Iterator, List, Tuple

import pytest

import keyview
from keyview import _errors, _library, _view

Call = Callable[[keyview.KeyView], Any]


def tool(url: str, *words: str) -> Any:
    done = subprocess.run([os.environ["KEYVIEWCTL"], *words, "-o", "json", "--registry", url],
                          check=True, stdout=subprocess.PIPE)
    return json.loads(done.stdout)


@pytest.fixture
def url(tmp_path: Path) -> str:
    made = f"lmdb:{tmp_path}/registry"
    tool(made, "apply", os.environ["EXAMPLE_DOCUMENT"])
    return made


@pytest.fixture
def kv(url: str) -> Iterator[keyview.KeyView]:
    with keyview.open(url) as opened:
        yield opened


@pytest.fixture
def calls(monkeypatch: pytest.MonkeyPatch) -> "Counter[str]":
    """Counts the calls of each operation."""
    counted: "Counter[str]" = Counter()

    class Counting:
        def __getattr__(self, name: str) -> Any:
            found = getattr(_library.lib, name)
            if not callable(found):
                return found

            def call(*arguments: Any) -> Any:
                counted[name] += 1
                return found(*arguments)
            return call

    monkeypatch.setattr(_view, "lib", Counting())
    return counted


# ---- Records ----

RECORDS = {"prsr_cfg": keyview.Database, "prsr_srv_cfg": keyview.Service,
           "prsr_inst_cfg": keyview.Instance, "prsr_stg_cfg": keyview.StorageManager,
           "prsr_nodeapps_cfg": keyview.NodeApplications}


@pytest.mark.parametrize("c_name", RECORDS)
def test_a_record_has_the_fields_of_the_header(c_name: str) -> None:
    header = [name for name, _ in keyview.ffi.typeof(c_name).fields
              if name not in ("tag", "reserved", "constant_one") and
              not name.endswith(("_count", "_n"))]
    assert [field.name for field in dataclasses.fields(RECORDS[c_name])] == header


def assert_same(ours: Any, theirs: Any) -> None:
    """A value beside the tool's JSON of it."""
    if dataclasses.is_dataclass(ours):
        for field in dataclasses.fields(ours):
            assert_same(getattr(ours, field.name), theirs[field.name])
    elif isinstance(ours, tuple):
        assert len(ours) == len(theirs or [])
        for one, other in zip(ours, theirs or []):
            assert_same(one, other)
    else:
        assert ours == theirs


def test_records_are_those_of_the_tool(url: str, kv: keyview.KeyView) -> None:
    assert kv.databases() == tool(url, "list")["db_list"] != []
    for name in kv.databases():
        record = kv.database(name.upper())
        assert_same(record, tool(url, "show", name)["record"])
        for service in record.services:
            assert_same(kv.roster(name, service.name),
                        tool(url, "roster", name, service.name)["roster"])
    for one in tool(url, "list", "storage-managers")["storage_managers"]:
        assert_same(kv.storage_manager(one["scope"], one["name"]),
                    tool(url, "stg", one["scope"], one["name"])["record"])
    for node in tool(url, "list", "nodes")["nodes"]:
        assert_same(kv.node_applications(node), tool(url, "nodeapps", node)["record"])
    with pytest.raises(dataclasses.FrozenInstanceError):
        kv.database("sales").sp_name = "other"  # type: ignore[misc]


# ---- Operations ----

CALLS: List[Tuple[Call, Any]] = [
    (lambda kv: kv.database("SALES").sp_name, "Sales"),
    (lambda kv: kv.databases()[:2], ["ledger", "Sales"]),
    (lambda kv: kv.roster("sales", "REPORTING")[0],
     keyview.RosterEntry("Sales3", "node3", available=True)),
    (lambda kv: kv.role("sales"), keyview.Role.PRIMARY),
    (lambda kv: kv.set_role("sales", keyview.Role.LOGICAL_STANDBY), None),
    (lambda kv: kv.role("sales"), keyview.Role.LOGICAL_STANDBY),
    (lambda kv: kv.domain("sales"), "shop.example.com"),
    (lambda kv: kv.failover_policy("sales", "nightly_batch"), keyview.FailoverPolicy.PRECONNECT),
    (lambda kv: kv.database_enabled("sales"), True),
    (lambda kv: kv.set_database_enabled("sales", False), None),
    (lambda kv: kv.database_enabled("sales"), False),
    (lambda kv: kv.instance_enabled("sales", "sales2"), True),
    (lambda kv: kv.set_instance_enabled("sales", "sales2", False), None),
    (lambda kv: [one.enabled for one in kv.database("sales").instances], [True, False, True, True]),
    (lambda kv: kv.instance_enabled("sales", "sales2"), False),
    (lambda kv: kv.service_enabled("sales", "reporting"), True),
    (lambda kv: kv.service_instance_supported("sales", "reporting", "sales4"), True),
    (lambda kv: kv.set_service_enabled("sales", "reporting", False), None),
    (lambda kv: kv.service_enabled("sales", "reporting"), False),
    (lambda kv: kv.service_instance_enabled("sales", "reporting", "sales4"), False),
    (lambda kv: kv.service_instance_supported("sales", "reporting", "sales4"), False),
    (lambda kv: kv.set_service_instance_enabled("sales", "reporting", "sales4", True), None),
    (lambda kv: kv.service_instance_enabled("sales", "reporting", "sales4"), True),
    (lambda kv: kv.database_name("sales"), "Sales"),
    (lambda kv: kv.instance_name("sales", "SALES2"), "Sales2"),
    (lambda kv: kv.instance_on_node("sales", "node2"), "Sales2"),
    (lambda kv: kv.instance_on_node("sales", "node8"), None),
    (lambda kv: kv.storage_manager("node1", "stg1").enabled, True),
    (lambda kv: kv.storage_manager_name("node1", "STG1"), "Stg1"),
    (lambda kv: kv.storage_manager_enabled("node1", "stg1"), True),
    (lambda kv: kv.node_applications("NODE1").vip, "10.20.0.21"),
]


def test_each_operation_is_reached_and_what_it_returns_is_released(
        url: str, calls: "Counter[str]") -> None:
    with keyview.open(url) as kv:
        for number, (call, expected) in enumerate(CALLS):
            assert call(kv) == expected, number
    declared = {name for name in dir(keyview.lib) if name.startswith("prsr_")}
    assert len(declared) == 32
    # Made over a lock service of the program's own, of which Python has none; see keyview.lib.
    assert declared - set(calls) == {"prsr_init_ext"}
    for taken, released in (("init", "terminate"), ("list_db", "release_db_list"),
                            ("fetch_db_config", "release_db_config"),
                            ("get_srv_instances", "release_srv_instances"),
                            ("get_domain", "free_domain"),
                            ("fetch_stg_config", "release_stg_config"),
                            ("fetch_nodeapps_config", "release_nodeapps_config")):
        assert calls["prsr_" + taken] == calls["prsr_" + released], taken


def test_texts_of_any_bytes_and_length(url: str, kv: keyview.KeyView) -> None:
    for name in ("caf\udce9", "n" * 5000):
        raw = name.encode("utf-8", "surrogateescape") + b"\0"
        tool(url, "set", "DATABASE.DATABASES.sales", "--as", "base64",
             base64.b64encode(raw).decode())
        assert kv.database_name("sales") == name
        if len(name) < 1024:  # the most that a record has
            assert kv.database("sales").sp_name == name
    with pytest.raises(ValueError):
        kv.database("sales\0x")


# ---- Failures ----

FAILURES: List[Tuple[Call, str]] = [
    (lambda kv: kv.database("nowhere"), "NO_DATABASE"),
    (lambda kv: kv.instance_name("sales", "nowhere"), "NO_DATABASE"),
    (lambda kv: kv.database_name("n" * 3000), "ARGUMENT"),
    (lambda kv: kv.roster("sales", "nowhere"), "REGISTRY"),
    (lambda kv: kv.domain("nowhere"), "REGISTRY"),
    (lambda kv: kv.set_database_enabled("nowhere", True), "REGISTRY"),
    (lambda kv: kv.set_role("sales", 9), "ROLE"),  # type: ignore[arg-type]
    (lambda kv: kv.storage_manager("node1", "nowhere"), "NO_STG"),
    (lambda kv: kv.node_applications("nowhere"), "NO_NODEAPPS"),
    (lambda kv: keyview.open("lmdb:/nowhere"), "REGISTRY"),
    (lambda kv: keyview.open("nothing:"), "ARGUMENT"),
    (lambda kv: keyview.set_trace("nothing:"), "ARGUMENT"),
]


def test_failures_raise_the_class_of_their_code(kv: keyview.KeyView) -> None:
    for number, (call, word) in enumerate(FAILURES):
        code = getattr(keyview.lib, "PRSR_ERR_" + word)
        kind, host_knows = _errors.KINDS[code]
        with pytest.raises(kind) as raised:
            call(kv)
        assert raised.value.code == code, number
        host_refused = word == "ARGUMENT" and "nothing:" in raised.value.what
        assert bool(raised.value.reason) == (host_knows or host_refused), number
        assert str(pickle.loads(pickle.dumps(raised.value))) == str(raised.value)
    kv.close()
    kv.close()
    with pytest.raises(keyview.ContextError):
        kv.databases()


def test_each_code_has_a_class() -> None:
    codes = {getattr(keyview.lib, name) for name in dir(keyview.lib) if name.startswith("PRSR_ERR")}
    assert set(_errors.KINDS) == codes
    kinds = [kind for kind, _ in _errors.KINDS.values()]
    assert len(set(kinds)) == len(kinds)
    assert all(issubclass(kind, keyview.Error) for kind in kinds)
    assert {kind.__name__ for kind in kinds} < set(keyview.__all__)


# ---- Threads ----

def test_other_threads_run_while_a_call_waits_for_a_lock(url: str, kv: keyview.KeyView) -> None:
    holder = subprocess.Popen(
        [os.environ["KEYVIEWCTL"], "--registry", url, "lock", "run",
         "LKRT.DATABASE.DATABASES.sales", "--", "sh", "-c", "echo held; cat"],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    assert holder.stdin is not None and holder.stdout is not None
    assert holder.stdout.readline() == b"held\n"
    keyview.set_lock_wait(0.3)
    waited: Dict[str, Any] = {}

    def wait() -> None:
        begun = time.monotonic()
        try:
            kv.set_database_enabled("sales", False)
        except keyview.LockError as error:
            waited["error"] = error
        waited["seconds"] = time.monotonic() - begun

    try:
        waiter = threading.Thread(target=wait)
        steps = 0
        waiter.start()
        while waiter.is_alive():
            time.sleep(0.001)
            steps += 1
        assert waited["error"].code == keyview.lib.PRSR_ERR_LOCK
        assert waited["seconds"] >= 0.3
        assert steps > 5  # a call that holds the interpreter allows one
        assert kv.database_enabled("sales")
    finally:
        keyview.set_lock_wait(None)
        holder.communicate()
    kv.set_database_enabled("sales", False)
    assert not kv.database_enabled("sales")


def test_threads_share_a_view(kv: keyview.KeyView) -> None:
    expected = kv.database("sales")
    got: List[bool] = []

    def fetch() -> None:
        got.extend(kv.database("sales") == expected for _ in range(50))

    threads = [threading.Thread(target=fetch) for _ in range(4)]
    for one in threads:
        one.start()
    for one in threads:
        one.join()
    assert got == [True] * 200


# ---- Wheel ----

def test_a_wheel_is_built_offline_and_works(url: str, tmp_path: Path) -> None:
    sources = Path(os.environ["SOURCES"])
    for name in ("CMakeLists.txt", "src/keyview/if/prsr.h", "src/host/if/keyview_host.h"):
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(sources / name, tmp_path / name)
    shutil.copytree(sources / "python", tmp_path / "python")
    subprocess.run([sys.executable, "-c", "from setuptools.build_meta import build_wheel as build;"
                    "build('..')"], check=True, cwd=tmp_path / "python", stdout=subprocess.DEVNULL)
    wheel, = tmp_path.glob("keyview-*-py3-none-any.whl")
    program = "import keyview; print(keyview.__file__, len(keyview.open().databases()))"
    done = subprocess.run([sys.executable, "-c", program], check=True, stdout=subprocess.PIPE,
                          env={**os.environ, "PYTHONPATH": str(wheel), "KEYVIEW_REGISTRY": url})
    assert done.stdout.decode() == f"{wheel}/keyview/__init__.py 4\n"
