"""The view of a registry: the operations of the library as methods."""
import threading
from types import TracebackType
from typing import Any, Callable, List, Optional, Tuple, Type, TypeVar

from . import _records as records
from ._errors import ArgumentError, failure, host_reason
from ._library import ffi, host, lib
from ._records import (Database, FailoverPolicy, NodeApplications, Role, RosterEntry,
                       StorageManager, encoded)

Record = TypeVar("Record")

# The choice of a registry is the process's, for as long as a view is made.
_choosing = threading.Lock()


def _set(what: str, code: int) -> None:
    if code != 0:
        raise ArgumentError(lib.PRSR_ERR_ARGUMENT, what, host_reason())


class KeyView:
    """A view of a registry, from open(). A context manager; closed at the end of its block.

    Names are in any case. Nothing is kept: each call reads afresh, under the locks that prsr.h
    documents. Each failure raises the subclass of Error for its code. Other threads run while a call
    works or waits for a lock; those that use the same view take turns.
    """

    def __init__(self, url: Optional[str] = None) -> None:
        self._turn = threading.Lock()
        self._status = ffi.new("uint64_t[28]")  # 224 bytes, what the lock service expects
        self._ctx = ffi.NULL
        made = ffi.new("prsr_ctx **")
        with _choosing:
            if url is not None:
                _set(f"registry {url}", host.keyview_host_set_registry(encoded(url)))
            try:
                code = lib.prsr_init(self._status, made)
            finally:
                if url is not None:
                    host.keyview_host_set_registry(ffi.NULL)
        if code != lib.PRSR_SUCCESS:
            raise failure(code, "the registry cannot be opened")
        self._ctx = made[0]

    def close(self) -> None:
        """Ends the view: further calls raise ContextError. A second close does nothing."""
        with self._turn:
            ctx, self._ctx = self._ctx, ffi.NULL
            if ctx:
                lib.prsr_terminate(self._status, ctx)

    def __enter__(self) -> "KeyView":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self.close()

    def __del__(self) -> None:
        if hasattr(self, "_ctx"):
            self.close()

    # ---- Databases ----

    def databases(self) -> List[str]:
        """The registered names of all databases, in the order of the registry."""
        out, count = ffi.new("char ***"), ffi.new("uint32_t *")
        with self._turn:
            code = lib.prsr_list_db(self._status, self._ctx, out, count)
            try:
                if code == lib.PRSR_SUCCESS:
                    return [records.name(one) for one in ffi.unpack(out[0], count[0])]
            finally:
                if out[0]:
                    lib.prsr_release_db_list(self._status, self._ctx, out[0], count[0])
        raise failure(code, "the databases")

    def database(self, database: str) -> Database:
        """The whole configuration of a database."""
        return self._fetch("prsr_cfg **", lib.prsr_fetch_db_config, lib.prsr_release_db_config,
                           records.database, f"database {database}", database)

    def roster(self, database: str, service: str) -> Tuple[RosterEntry, ...]:
        """The instances on which a service runs."""
        instances, nodes = ffi.new("char ***"), ffi.new("char ***")
        available, count = ffi.new("int32_t **"), ffi.new("uint32_t *")
        names = encoded(database), encoded(service)
        with self._turn:
            code = lib.prsr_get_srv_instances(self._status, self._ctx, *names, instances, nodes,
                                              available, count)
            if code == lib.PRSR_SUCCESS:
                try:
                    return tuple(RosterEntry(records.name(instances[0][at]),
                                             records.name(nodes[0][at]), available[0][at] != 0)
                                 for at in range(count[0]))
                finally:
                    lib.prsr_release_srv_instances(self._status, self._ctx, instances[0], nodes[0],
                                                   available[0], count[0])
        raise failure(code, f"service {service} of database {database}")

    def role(self, database: str) -> Role:
        """The role of a database; RoleError if the stored word is none."""
        return Role(self._number(lib.prsr_get_db_role, f"database {database}", database))

    def set_role(self, database: str, role: Role) -> None:
        self._call(lib.prsr_set_db_role, f"database {database}", [database], int(role))

    def domain(self, database: str) -> str:
        """The domain of a database."""
        out, given = ffi.new("char **"), encoded(database)
        with self._turn:
            code = lib.prsr_get_domain(self._status, self._ctx, given, out)
            if code == lib.PRSR_SUCCESS:
                try:
                    return records.name(out[0])
                finally:
                    lib.prsr_free_domain(self._ctx, out[0])
        raise failure(code, f"database {database}")

    def failover_policy(self, database: str, service: str) -> FailoverPolicy:
        """The failover policy of a service; NONE as well if nothing can be read."""
        return FailoverPolicy(self._number(lib.prsr_get_service_rcn_policy,
                                           f"service {service} of database {database}", database,
                                           service))

    # ---- Flags ----

    def database_enabled(self, database: str) -> bool:
        return self._flag(lib.prsr_get_db_enabled, f"database {database}", database)

    def set_database_enabled(self, database: str, enabled: bool) -> None:
        self._call(lib.prsr_set_db_enabled, f"database {database}", [database], enabled)

    def instance_enabled(self, database: str, instance: str) -> bool:
        return self._flag(lib.prsr_get_instance_enabled,
                          f"instance {instance} of database {database}", database, instance)

    def set_instance_enabled(self, database: str, instance: str, enabled: bool) -> None:
        self._call(lib.prsr_set_instance_enabled, f"instance {instance} of database {database}",
                   [database, instance], enabled)

    def service_enabled(self, database: str, service: str) -> bool:
        """The flag of the service itself; its instances have flags of their own."""
        return self._flag(lib.prsr_get_service_enabled, f"service {service} of database {database}",
                          database, service)

    def set_service_enabled(self, database: str, service: str, enabled: bool) -> None:
        """Sets the flag of a service and of every instance that it names."""
        self._call(lib.prsr_set_service_enabled, f"service {service} of database {database}",
                   [database, service], enabled)

    def service_instance_enabled(self, database: str, service: str, instance: str) -> bool:
        return self._flag(lib.prsr_get_service_instance_enabled,
                          f"instance {instance} of service {service} of database {database}",
                          database, service, instance)

    def set_service_instance_enabled(self, database: str, service: str, instance: str,
                                     enabled: bool) -> None:
        self._call(lib.prsr_set_service_instance_enabled,
                   f"instance {instance} of service {service} of database {database}",
                   [database, service, instance], enabled)

    def service_instance_supported(self, database: str, service: str, instance: str) -> bool:
        """Whether the instance is preferred or available, and enabled."""
        return self._flag(lib.prsr_get_service_instance_supported,
                          f"instance {instance} of service {service} of database {database}",
                          database, service, instance)

    # ---- Names ----

    def database_name(self, database: str) -> str:
        """The registered name of a database."""
        return self._name(lib.prsr_get_spname, f"database {database}", database)

    def instance_name(self, database: str, instance: str) -> str:
        """The registered name of an instance."""
        return self._name(lib.prsr_get_instance_name, f"instance {instance} of database {database}",
                          database, instance)

    def instance_on_node(self, database: str, node: str) -> Optional[str]:
        """The registered name of the instance on a node; None if none is there."""
        return self._name(lib.prsr_get_node_instance_name, f"database {database} on node {node}",
                          database, node) or None

    # ---- Storage managers and node applications ----

    def storage_manager(self, scope: str, name: str) -> StorageManager:
        """The configuration of a storage manager entry."""
        return self._fetch("prsr_stg_cfg **", lib.prsr_fetch_stg_config, lib.prsr_release_stg_config,
                           records.storage_manager, f"storage manager {name} of scope {scope}",
                           scope, name)

    def storage_manager_name(self, scope: str, name: str) -> str:
        """The registered name of a storage manager entry."""
        return self._name(lib.prsr_get_stg_name, f"storage manager {name} of scope {scope}", scope,
                          name)

    def storage_manager_enabled(self, scope: str, name: str) -> bool:
        return self._flag(lib.prsr_get_stg_enabled, f"storage manager {name} of scope {scope}",
                          scope, name)

    def node_applications(self, node: str) -> NodeApplications:
        """The applications of a node."""
        return self._fetch("prsr_nodeapps_cfg **", lib.prsr_fetch_nodeapps_config,
                           lib.prsr_release_nodeapps_config, records.node_applications,
                           f"node {node}", node)

    # ---- The shapes of operations ----

    def _call(self, operation: Any, what: str, names: List[str], *arguments: Any) -> None:
        given = [encoded(name) for name in names]
        with self._turn:
            code = operation(self._status, self._ctx, *given, *arguments)
        if code != lib.PRSR_SUCCESS:
            raise failure(code, what)

    def _number(self, operation: Any, what: str, *names: str) -> int:
        out = ffi.new("int32_t *")
        self._call(operation, what, list(names), out)
        number: int = out[0]
        return number

    def _flag(self, operation: Any, what: str, *names: str) -> bool:
        return self._number(operation, what, *names) != 0

    def _name(self, operation: Any, what: str, *names: str) -> str:
        """Reads into a buffer that grows to 1 MiB while the name does not fit."""
        size = 4096
        while True:
            buf = ffi.new("char[]", size)
            try:
                self._call(operation, what, list(names), size, buf)
                return records.name(buf)
            except ArgumentError:
                if size >= 1 << 20:
                    raise
            size *= 16

    def _fetch(self, out_type: str, fetch: Any, release: Any, convert: Callable[[Any], Record],
               what: str, *names: str) -> Record:
        out = ffi.new(out_type)
        given = [encoded(name) for name in names]
        with self._turn:
            code = fetch(self._status, self._ctx, *given, out)
            if code == lib.PRSR_SUCCESS:
                try:
                    return convert(out[0])
                finally:
                    release(self._status, self._ctx, out[0])
        raise failure(code, what)


def open(url: Optional[str] = None) -> KeyView:  # noqa: A001, the word that every reader expects
    """Opens a registry: lmdb:<directory>, etcd://host:port,.../prefix or etcds://...; without a URL
    the one of the environment variable KEYVIEW_REGISTRY."""
    return KeyView(url)


def set_lock_wait(seconds: Optional[float]) -> None:
    """How long calls of this process wait for a lock; 0 tries once, None: KEYVIEW_LOCK_WAIT."""
    wait_ms = -1 if seconds is None else round(seconds * 1000)
    _set(f"a lock wait of {seconds} s", host.keyview_host_set_lock_wait(wait_ms))


def set_trace(sink: Optional[str], level: int = 0) -> None:
    """Where trace lines of this process go, as for KEYVIEW_TRACE, and up to which level."""
    _set(f"trace {sink}",
         host.keyview_host_set_trace(ffi.NULL if sink is None else encoded(sink)))
    _set(f"trace level {level}", host.keyview_host_set_trace_level(level))
