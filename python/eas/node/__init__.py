"""Measures and steers a compute node: libeasnode's meter, frequencies and CPUs.

    with eas.node.Meter(interval=1) as meter:
        for usage in meter:
            print(usage.power, "W", usage.cycles.value)

    with eas.node.Frequency("0-15") as frequency:
        frequency.set(2_000_000)
        ...                                  # given back at the end, however it ends

A figure that cannot be had is None, never 0, and says why. Each object may be used from any thread,
one call at a time.
"""

from eas.node.errors import (
    BadArgument,
    BadText,
    Denied,
    NodeError,
    NoFrequency,
    NoSuchProcess,
    NoSuchSource,
    NotGivenBack,
    NotOffered,
    NotTaken,
    OtherNode,
    Problem,
)
from eas.node.frequency import (
    Clock,
    CpuFrequency,
    Frequency,
    FrequencyInfo,
    Method,
    NominalSource,
    Step,
    Turbo,
    Verdict,
    give_back,
)
from eas.node.meter import (
    Extent,
    Figure,
    FigureId,
    Meter,
    Quality,
    Reading,
    Registers,
    Source,
    SourceState,
    Usage,
)
from eas.node.topology import Cpu, Topology, cpus, topology

__all__ = [
    "BadArgument",
    "BadText",
    "Clock",
    "Cpu",
    "CpuFrequency",
    "Denied",
    "Extent",
    "Figure",
    "FigureId",
    "Frequency",
    "FrequencyInfo",
    "Meter",
    "Method",
    "NoFrequency",
    "NoSuchProcess",
    "NoSuchSource",
    "NodeError",
    "NominalSource",
    "NotGivenBack",
    "NotOffered",
    "NotTaken",
    "OtherNode",
    "Problem",
    "Quality",
    "Reading",
    "Registers",
    "Source",
    "SourceState",
    "Step",
    "Topology",
    "Turbo",
    "Usage",
    "Verdict",
    "cpus",
    "give_back",
    "topology",
]
