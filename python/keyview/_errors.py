"""The exceptions: one class for each code of the library."""
from typing import Dict, Tuple, Type

from ._library import ffi, host, lib


class Error(Exception):
    """An operation failed.

    code    PRSR_ERR_*, a number of prsr.h
    what    what the operation was for: "database sales"
    reason  what the host reported, where it is the host that failed; else ""
    """

    meaning = "unknown code"

    def __init__(self, code: int, what: str, reason: str = "") -> None:
        super().__init__(code, what, reason)
        self.code = code
        self.what = what
        self.reason = reason

    def __str__(self) -> str:
        return f"{self.what}: {self.reason or self.meaning} (code {self.code})"


class ArgumentError(Error):
    meaning = "an argument cannot be used"


class OutOfMemoryError(Error):
    meaning = "no memory"


class RegistryError(Error):
    meaning = "the registry failed"


class ContextError(Error):
    meaning = "the view is closed"


class LockError(Error):
    meaning = "the lock was not granted"


class ThreadsError(Error):
    meaning = "no thread support"


class NotFoundError(Error):
    meaning = "it does not exist"


class DatabaseNotFoundError(NotFoundError):
    meaning = "no key has the requested name"


class StorageManagerNotFoundError(NotFoundError):
    meaning = "no such storage manager entry"


class RoleError(Error):
    meaning = "no such role"


class NodeApplicationsNotFoundError(NotFoundError):
    meaning = "the node has no entry"


# The class of each code, and whether the host knows why.
KINDS: Dict[int, Tuple[Type[Error], bool]] = {
    lib.PRSR_ERR_ARGUMENT: (ArgumentError, False),
    lib.PRSR_ERR_MEMORY: (OutOfMemoryError, False),
    lib.PRSR_ERR_REGISTRY: (RegistryError, True),
    lib.PRSR_ERR_CONTEXT: (ContextError, False),
    lib.PRSR_ERR_LOCK: (LockError, True),
    lib.PRSR_ERR_THREADS: (ThreadsError, True),
    lib.PRSR_ERR_NO_DATABASE: (DatabaseNotFoundError, False),
    lib.PRSR_ERR_NO_STG: (StorageManagerNotFoundError, False),
    lib.PRSR_ERR_ROLE: (RoleError, False),
    lib.PRSR_ERR_NO_NODEAPPS: (NodeApplicationsNotFoundError, False),
}


def host_reason() -> str:
    reason: bytes = ffi.string(host.keyview_host_last_error())
    return reason.decode("utf-8", "replace")


def failure(code: int, what: str) -> Error:
    """The exception of a code, on the thread that made the call."""
    kind, host_knows = KINDS.get(code, (Error, False))
    return kind(code, what, host_reason() if host_knows else "")
