"""The node's online CPUs."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

from eas.node import _c
from eas.node.errors import TOO_SMALL, check


@dataclass(frozen=True)
class Topology:
    """The node in numbers."""

    #: online logical CPUs; 0: the kernel lists none
    cpus: int
    #: those that the kernel makes room for
    possible_cpus: int
    #: packages with an online CPU
    sockets: int
    #: with an online CPU
    cores: int
    #: of the core that has most online
    threads_per_core: int
    #: with an online CPU: nodes of memory alone are not counted
    numa_nodes: int
    #: of the first processor; None: unknown
    family: int | None
    model: int | None
    #: its name; empty: unknown
    processor: str


@dataclass(frozen=True)
class Cpu:
    """An online CPU."""

    #: the kernel's number
    cpu: int
    #: from 0 on
    socket: int
    #: from 0 on, over the whole node
    core: int
    #: 0, 1, ... within the core
    thread: int
    #: the kernel's number; None: none
    numa_node: int | None


def _known(number: int) -> int | None:
    return number if number >= 0 else None


def topology() -> Topology:
    """Counts the CPUs, cores, sockets."""
    record = _c.new(_c.TopologyRecord)
    check("easnode_topology_read", _c.library().easnode_topology_read(record))
    return Topology(
        cpus=record.cpus,
        possible_cpus=record.possible_cpus,
        sockets=record.sockets,
        cores=record.cores,
        threads_per_core=record.threads_per_core,
        numa_nodes=record.numa_nodes,
        family=_known(record.family),
        model=_known(record.model),
        processor=_c.text(record.processor),
    )


def cpus() -> list[Cpu]:
    """The online CPUs, ascending."""

    def fill(*arguments: Any) -> bool:
        code = _c.library().easnode_topology_cpus(*arguments)
        check("easnode_topology_cpus", 0 if code == TOO_SMALL else code)
        return bool(code == 0)

    return [
        Cpu(row.cpu, row.socket, row.core, row.thread, _known(row.numa_node))
        for row in _c.rows(_c.CpuRecord, fill)
    ]
