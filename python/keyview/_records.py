"""The records of prsr.h as frozen dataclasses.

The fields are those of the C records, which prsr.h documents, under their names. A null string is
None, a null list is empty. Left out are what carries no information: tags, constants, reserved
fields, and the counts of what has a length.
"""
from dataclasses import dataclass
from enum import IntEnum
from typing import Any, Optional, Tuple

from ._library import ffi, lib

_string = ffi.string
_unpack = ffi.unpack


class Role(IntEnum):
    """The role of a database."""

    PRIMARY = lib.PRSR_ROLE_PRIMARY
    PHYSICAL_STANDBY = lib.PRSR_ROLE_PHYSICAL_STANDBY
    LOGICAL_STANDBY = lib.PRSR_ROLE_LOGICAL_STANDBY
    SNAPSHOT_STANDBY = lib.PRSR_ROLE_SNAPSHOT_STANDBY


class FailoverPolicy(IntEnum):
    """The failover policy of a service."""

    UNREADABLE = 0  # in a record only
    NONE = lib.PRSR_RCN_NONE
    BASIC = lib.PRSR_RCN_BASIC
    PRECONNECT = lib.PRSR_RCN_PRECONNECT


Strings = Tuple[Optional[str], ...]
Flags = Tuple[bool, ...]


@dataclass(frozen=True)
class Instance:
    """One instance of a database."""

    node: Optional[str]
    name: str
    env: Strings
    enabled: bool


@dataclass(frozen=True)
class Service:
    """One service of a database with the instances that may run it."""

    name: str
    available: Strings  # instances that take over
    available_enabled: Flags
    preferred: Strings  # instances that run the service by preference
    preferred_enabled: Flags
    rcn_policy: FailoverPolicy
    env: Strings
    enabled: bool


@dataclass(frozen=True)
class Database:
    """One database."""

    sp_name: str
    alias_ip: Optional[str]
    home: Optional[str]
    spfile: Optional[str]
    db_name: Optional[str]
    role: Optional[str]
    start_options: Optional[str]
    instances: Tuple[Instance, ...]
    services: Tuple[Service, ...]
    domain: Optional[str]
    enabled: bool
    env: Strings
    policy: Optional[str]


@dataclass(frozen=True)
class StorageManager:
    """One storage manager entry."""

    spfile: Optional[str]
    home: Optional[str]
    start_options: Optional[str]
    version: Optional[str]
    env: Strings
    enabled: bool


@dataclass(frozen=True)
class NodeApplications:
    """The applications of one node."""

    name: str
    env: Strings
    home: Optional[str]
    vip: Optional[str]
    interfaces: Optional[str]
    netmask: Optional[str]


@dataclass(frozen=True)
class RosterEntry:
    """An instance on which a service runs."""

    instance: str
    node: str
    available: bool  # it takes over; else it runs the service by preference


# Bytes that are no UTF-8 become lone surrogates, as in the names of files, so that a name that was
# read can be passed back.

def text(value: Any) -> Optional[str]:
    return _string(value).decode("utf-8", "surrogateescape") if value else None


def name(value: Any) -> str:
    """A string that is never null."""
    decoded: str = _string(value).decode("utf-8", "surrogateescape")
    return decoded


def encoded(value: str) -> bytes:
    out = value.encode("utf-8", "surrogateescape")
    if b"\0" in out:
        raise ValueError("a name contains a zero byte")
    return out


def strings(values: Any, count: int) -> Strings:
    if not values:
        return ()
    return tuple([_string(value).decode("utf-8", "surrogateescape") if value else None
                  for value in _unpack(values, count)])


def _flags(values: Any, count: int) -> Flags:
    return tuple(map(bool, _unpack(values, count))) if values else ()


_POLICIES = {int(policy): policy for policy in FailoverPolicy}


def _instance(cfg: Any) -> Instance:
    return Instance(text(cfg.node), name(cfg.name), strings(cfg.env, cfg.env_n), cfg.enabled != 0)


def _service(cfg: Any) -> Service:
    available, preferred = cfg.available_count, cfg.preferred_count
    return Service(
        name(cfg.name),
        strings(cfg.available, available), _flags(cfg.available_enabled, available),
        strings(cfg.preferred, preferred), _flags(cfg.preferred_enabled, preferred),
        _POLICIES[cfg.rcn_policy], strings(cfg.env, cfg.env_n), cfg.enabled != 0)


def database(cfg: Any) -> Database:
    instances = _unpack(cfg.instances, cfg.instance_count) if cfg.instances else ()
    services = _unpack(cfg.services, cfg.service_count) if cfg.services else ()
    return Database(
        name(cfg.sp_name), text(cfg.alias_ip), text(cfg.home), text(cfg.spfile), text(cfg.db_name),
        text(cfg.role), text(cfg.start_options), tuple(map(_instance, instances)),
        tuple(map(_service, services)), text(cfg.domain), cfg.enabled != 0,
        strings(cfg.env, cfg.env_n), text(cfg.policy))


def storage_manager(cfg: Any) -> StorageManager:
    return StorageManager(text(cfg.spfile), text(cfg.home), text(cfg.start_options),
                          text(cfg.version), strings(cfg.env, cfg.env_n), cfg.enabled != 0)


def node_applications(cfg: Any) -> NodeApplications:
    return NodeApplications(name(cfg.name), strings(cfg.env, cfg.env_n), text(cfg.home),
                            text(cfg.vip), text(cfg.interfaces), text(cfg.netmask))
