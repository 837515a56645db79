"""keyview: a typed view of a database cluster's configuration.

    with keyview.open("lmdb:/var/lib/keyview") as kv:
        for service in kv.database("sales").services:
            print(service.name, service.preferred)

keyview.ffi and keyview.lib are the C interface itself, as cffi has it.
"""
from ._errors import (ArgumentError, ContextError, DatabaseNotFoundError, Error, LockError,
                      NodeApplicationsNotFoundError, NotFoundError, OutOfMemoryError, RegistryError,
                      RoleError, StorageManagerNotFoundError, ThreadsError)
from ._library import ffi, lib
from ._records import (Database, FailoverPolicy, Instance, NodeApplications, Role, RosterEntry,
                       Service, StorageManager)
from ._view import KeyView, open, set_lock_wait, set_trace

__all__ = [
    "ArgumentError", "ContextError", "Database", "DatabaseNotFoundError", "Error",
    "FailoverPolicy", "Instance", "KeyView", "LockError", "NodeApplications",
    "NodeApplicationsNotFoundError", "NotFoundError", "OutOfMemoryError", "RegistryError", "Role",
    "RoleError", "RosterEntry", "Service", "StorageManager", "StorageManagerNotFoundError",
    "ThreadsError", "ffi", "lib", "open", "set_lock_wait", "set_trace",
]
