"""The node's meter: cycles, instructions, bytes of memory traffic, joules.

A meter counts from its opening on. ``read`` says what was counted since then; two readings are
subtracted to get what happened between them, and a meter that is iterated does that by itself::

    with Meter() as meter:
        before = meter.read()
        run_the_job()
        used = meter.read() - before
        if used.energy.value is None:
            print("no energy:", used.energy.reason)
        else:
            print(used.energy.value, "J,", used.power, "W,", used.energy.covers)
"""

from __future__ import annotations

import ctypes
import enum
import itertools
import os
import time
from collections.abc import Sequence
from dataclasses import dataclass

from eas.node import _c
from eas.node.errors import BadArgument, check
from eas.node.handle import Handle


class FigureId(enum.IntEnum):
    """The figures of a reading."""

    CYCLES = 0
    INSTRUCTIONS = 1
    MEMORY = 2
    ENERGY = 3


class Quality(enum.IntEnum):
    """How good a figure is."""

    #: there is none
    MISSING = 0
    #: by a counter that counted all the time
    COUNTED = 1
    #: by one that shared its hardware: scaled up to the whole time
    SCALED = 2
    #: power readings, integrated over time
    INTEGRATED = 3
    #: of something else that goes along with it
    ESTIMATED = 4


class Extent(enum.IntEnum):
    """What a figure covers. Figures of different extents have no common measure."""

    NO_EXTENT = 0
    #: the whole node; of core counts: every online CPU
    NODE = 1
    PACKAGES_AND_MEMORY = 2
    PACKAGES = 3
    #: as far as the board's maker wired it
    PLATFORM = 4
    #: processor modules with their memory
    MODULES = 5
    #: the traffic of the cores, without devices
    CORES = 6
    CACHE_MISSES = 7
    #: a process and what it starts
    PROCESS = 8
    #: the same, without the kernel's work for it
    PROCESS_USER = 9


class SourceState(enum.IntEnum):
    """What became of a source when the meter was opened."""

    SERVES = 0
    #: it was tried: ``text`` says why it does not serve
    REFUSED = 1
    #: one before it serves
    NOT_TRIED = 2
    NOT_WANTED = 3


class Registers(enum.IntEnum):
    """What the source "registers" may do: its counters belong to the node, and two programs that set
    them up spoil each other's figures."""

    #: programs them, unless somebody has them
    IF_FREE = 0
    #: programs them all the same: after a crash, or at the cost of whoever has them
    TAKE = 1
    #: programs nothing, and the figure is missing; ``sources`` says whether they would serve
    LOOK = 2


_COMMAND_GIVES = {"watts": 0, "joules": 1}


@dataclass(frozen=True)
class Figure:
    """A figure and where it comes from."""

    #: None: missing, and ``reason`` says why
    value: float | None
    quality: Quality
    extent: Extent
    #: the source's name; empty when none serves
    source: str
    #: what it covers, in words
    covers: str
    reason: str
    #: s: must be read again within this time; None: no need
    read_within: float | None

    def _missing(self, reason: str) -> Figure:
        return Figure(
            None, Quality.MISSING, Extent.NO_EXTENT, self.source, "", reason, self.read_within
        )

    def __sub__(self, before: Figure) -> Figure:
        """What was counted between two readings of the same meter."""
        if self.value is None:
            return self
        if before.value is None:
            return self._missing(before.reason)
        return Figure(
            self.value - before.value,
            self.quality,
            self.extent,
            self.source,
            self.covers,
            "",
            self.read_within,
        )


@dataclass(frozen=True)
class Usage:
    """What happened on the node in a time."""

    #: length of that time
    seconds: float
    cycles: Figure
    instructions: Figure
    #: bytes
    memory: Figure
    #: joules
    energy: Figure

    @property
    def power(self) -> float | None:
        """Mean power, watts; None where the energy is missing or no time has passed."""
        if self.energy.value is None or self.seconds <= 0:
            return None
        return self.energy.value / self.seconds


@dataclass(frozen=True)
class Reading(Usage):
    """What was counted since the meter was opened, ``seconds`` ago."""

    def __sub__(self, before: Reading) -> Usage:
        """What happened between two readings of the same meter."""
        return Usage(
            self.seconds - before.seconds,
            self.cycles - before.cycles,
            self.instructions - before.instructions,
            self.memory - before.memory,
            self.energy - before.energy,
        )


@dataclass(frozen=True)
class Source:
    """A source of a figure."""

    name: str
    state: SourceState
    extent: Extent
    #: what it covers, or why it does not serve
    text: str


def _figure(record: _c.FigureRecord) -> Figure:
    quality = Quality(record.quality)
    return Figure(
        value=None if quality is Quality.MISSING else record.value,
        quality=quality,
        extent=Extent(record.extent),
        source=_c.text(record.source),
        covers=_c.text(record.covers),
        reason=_c.text(record.reason),
        read_within=record.read_within_ns * 1e-9 or None,
    )


def _list_of(sources: str | Sequence[str] | None) -> bytes | None:
    """Names between commas; no names at all are "none"."""
    if sources is None:
        return None
    names = sources if isinstance(sources, str) else ",".join(sources)
    return (names or "none").encode()


class Meter(Handle):
    """A meter of the node, or of a process; a context manager that closes it.

    ``process``: core counts of this process and what it starts from now on; memory and energy stay
    the node's. ``core_sources``, ``memory_sources``, ``energy_sources``: names of sources in the
    order in which they are tried ("rapl-perf", or a sequence of names); None is the default order,
    "none" that the figure is not wanted. ``allow_estimate``: cache misses may stand for memory
    traffic. ``command``: the site's own meter, an absolute path and arguments, which prints watts, or
    joules where ``command_gives`` is "joules", within ``command_timeout`` seconds.

    Iterated, it waits ``interval`` seconds and says what happened since it was iterated last, until
    it is closed. Fails with BadArgument, NoSuchSource or NoSuchProcess; not where no source serves.
    """

    def __init__(
        self,
        process: int | None = None,
        *,
        interval: float = 1.0,
        core_sources: str | Sequence[str] | None = None,
        memory_sources: str | Sequence[str] | None = None,
        energy_sources: str | Sequence[str] | None = None,
        allow_estimate: bool = False,
        registers: Registers = Registers.IF_FREE,
        command: Sequence[str | os.PathLike[str]] | None = None,
        command_gives: str = "watts",
        command_timeout: float = 2.0,
    ) -> None:
        if not 0 < interval <= 86400 or not 0 < command_timeout <= 3600:
            raise BadArgument("easnode_meter_open", "a time is out of range")
        if process is not None and not 0 < process < 2**31:
            raise BadArgument("easnode_meter_open", f"process is {process}")
        if command_gives not in _COMMAND_GIVES:
            raise BadArgument("easnode_meter_open", 'command_gives is "watts" or "joules"')
        options = _c.new(_c.MeterOptions)
        options.process = process or 0
        options.allow_estimate = allow_estimate
        options.registers = registers
        options.core_sources = _list_of(core_sources)
        options.memory_sources = _list_of(memory_sources)
        options.energy_sources = _list_of(energy_sources)
        options.command_gives = _COMMAND_GIVES[command_gives]
        options.command_timeout_ms = max(1, round(command_timeout * 1000))
        if command is not None:
            words = [os.fsencode(word) for word in command]
            options.command = (ctypes.c_char_p * (len(words) + 1))(*words, None)
        self._interval = interval
        handle = ctypes.c_void_p()
        library = _c.library()
        check("easnode_meter_open", library.easnode_meter_open(options, ctypes.byref(handle)))
        super().__init__(handle, library.easnode_meter_close)
        self._last = self.read()
        self._due = time.monotonic() + interval

    def read(self) -> Reading:
        """What was counted since the opening. May wait for a command of the site."""
        record = _c.new(_c.ReadingRecord)
        with self._lock:
            code = _c.library().easnode_meter_read(self._open_handle(), record)
        check("easnode_meter_read", code)
        return Reading(
            record.time_ns * 1e-9,
            _figure(record.cycles),
            _figure(record.instructions),
            _figure(record.memory),
            _figure(record.energy),
        )

    def sources(self, figure: FigureId) -> list[Source]:
        """What became of the sources of a figure: those that were to be tried, then the others."""
        found: list[Source] = []
        record = _c.new(_c.SourceRecord)
        for index in itertools.count():
            with self._lock:
                code = _c.library().easnode_meter_source(
                    self._open_handle(), figure, index, record
                )
            if code == BadArgument.code and index > 0:
                break
            check("easnode_meter_source", code)
            found.append(
                Source(
                    _c.text(record.name),
                    SourceState(record.state),
                    Extent(record.extent),
                    _c.text(record.text),
                )
            )
        return found

    def __iter__(self) -> Meter:
        return self

    def __next__(self) -> Usage:
        """Waits until the interval is over. One that was missed altogether is not made up for."""
        time.sleep(max(0.0, self._due - time.monotonic()))
        passed = time.monotonic()
        self._due += self._interval
        if self._due <= passed:
            self._due = passed + self._interval
        if self._handle is None:
            raise StopIteration
        now = self.read()
        usage = now - self._last
        self._last = now
        return usage
