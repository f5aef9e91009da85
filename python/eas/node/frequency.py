"""Fixes CPUs at a frequency, and gives back what was there."""

from __future__ import annotations

import contextlib
import ctypes
import enum
import os
import types
from collections.abc import Iterator
from dataclasses import dataclass
from typing import Any

from eas.node import _c
from eas.node.errors import MOVED, TOO_SMALL, BadArgument, NotGivenBack, check
from eas.node.handle import Handle


class Method(enum.IntEnum):
    """How a frequency can be fixed."""

    #: not at all: no cpufreq driver
    NONE = 0
    #: by the governor "userspace"
    USERSPACE = 1
    #: by the limits
    LIMITS = 2


class Turbo(enum.IntEnum):
    """State of the turbo switch."""

    NO_SWITCH = 0
    OFF = 1
    ON = 2
    #: not the same for all CPUs
    MIXED = 3


class NominalSource(enum.IntEnum):
    """Where the nominal frequency comes from."""

    UNKNOWN = 0
    #: cpufreq's base_frequency
    BASE = 1
    #: cpuinfo_max_freq less the turbo range
    TURBO = 2
    #: the firmware's acpi_cppc/nominal_freq
    CPPC = 3
    #: the driver's table
    TABLE = 4
    #: the processor's name
    NAME = 5
    #: the processor's own statement
    CPUID = 6


class Verdict(enum.IntEnum):
    """What a check of the clock found."""

    CANNOT_TELL = 0
    #: the CPUs ran at the frequency, within 2 %
    RUNS_AT = 1
    RUNS_OTHERWISE = 2


@dataclass(frozen=True)
class FrequencyInfo:
    """What the CPUs have in common; None: unknown. All kHz."""

    #: CPUs that are set together with those asked for
    cpus: int
    #: groups of them that share a clock
    policies: int
    method: Method
    turbo: Turbo
    nominal: int | None
    nominal_source: NominalSource
    lowest: int | None
    #: with turbo
    highest: int | None
    #: a limit that the firmware holds now; None: none
    bios_limit: int | None
    #: the driver has a table and takes no value in between
    has_table: bool
    #: "mixed"; empty: none
    driver: str
    governor: str


@dataclass(frozen=True)
class Step:
    """A frequency that is offered."""

    khz: int
    #: stands for "as fast as turbo allows", or lies above the nominal one
    turbo: bool


@dataclass(frozen=True)
class CpuFrequency:
    """What is set for a CPU, kHz; None: cannot be read."""

    cpu: int
    #: CPUs with the same number share a clock
    policy: int
    minimum: int | None
    maximum: int | None
    #: what the governor "userspace" was told; None under any other
    setspeed: int | None
    #: what the kernel says of now: idle CPUs say their lowest
    current: int | None
    #: empty: none
    governor: str


@dataclass(frozen=True)
class Clock:
    """The clock of the CPUs while they were busy, kHz; None: unknown."""

    verdict: Verdict
    asked: int
    mean: int | None
    slowest: int | None
    slowest_cpu: int | None
    fastest: int | None
    fastest_cpu: int | None
    #: summed over the CPUs
    busy_seconds: float
    source: str
    #: why it cannot be told, or what may hold the clock
    text: str


class ClockCheck:
    """A check that runs; ``clock`` has the result once its ``with`` block is over."""

    clock: Clock | None = None


def _known(number: int) -> int | None:
    return number if number >= 0 else None


def _clock(record: _c.ClockRecord) -> Clock:
    return Clock(
        verdict=Verdict(record.verdict),
        asked=record.asked_khz,
        mean=record.mean_khz or None,
        slowest=record.slowest_khz or None,
        slowest_cpu=_known(record.slowest_cpu),
        fastest=record.fastest_khz or None,
        fastest_cpu=_known(record.fastest_cpu),
        busy_seconds=record.busy_seconds,
        source=_c.text(record.source),
        text=_c.text(record.text),
    )


def _khz(function: str, khz: int) -> int:
    if not 0 < khz < 2**31:
        raise BadArgument(function, f"{khz} is no frequency in kHz")
    return khz


def _restore(handle: ctypes.c_void_p | None, text: str) -> bool:
    """True: all stood as it was left; False: another program had changed it meanwhile."""
    content = text.encode("utf-8", "surrogateescape")
    problem = _c.new(_c.ProblemRecord)
    code = _c.library().easnode_frequency_restore(handle, content, len(content), problem)
    check("easnode_frequency_restore", 0 if code == MOVED else code, problem)
    return bool(code != MOVED)


def give_back(text: str) -> bool:
    """Gives back what ``Frequency.save`` wrote down, from any process of the node: after a crash.

    May be called again: only what differs is written. False says that another program had changed
    settings meanwhile; what was saved is given back all the same. Raises OtherNode where the text is
    of another boot (nothing has to be given back, the text can go), BadText, Denied or NotGivenBack.
    """
    return _restore(None, text)


class Frequency(Handle):
    """The frequencies of some CPUs ("0-3,8"; None: all that are online).

    A context manager: what ``set`` changed is given back at the end of the block, in the process that
    set it. Opening changes nothing. For a program that may crash, store the text of ``save`` before
    ``set``; then ``give_back(text)`` from any other process.
    """

    def __init__(self, cpus: str | None = None) -> None:
        self._saved: str | None = None
        self._owner = os.getpid()
        #: another program had changed settings when they were given back
        self.moved = False
        handle = ctypes.c_void_p()
        problem = _c.new(_c.ProblemRecord)
        library = _c.library()
        names = None if cpus is None else cpus.encode()
        code = library.easnode_frequency_open(names, ctypes.byref(handle), problem)
        check("easnode_frequency_open", code, problem)
        super().__init__(handle, library.easnode_frequency_close)

    def info(self) -> FrequencyInfo:
        """How the CPUs can be set."""
        record = _c.new(_c.FrequencyInfoRecord)
        with self._lock:
            code = _c.library().easnode_frequency_describe(self._open_handle(), record)
        check("easnode_frequency_describe", code)
        return FrequencyInfo(
            cpus=record.cpus,
            policies=record.policies,
            method=Method(record.method),
            turbo=Turbo(record.turbo),
            nominal=record.nominal_khz or None,
            nominal_source=NominalSource(record.nominal_source),
            lowest=record.lowest_khz or None,
            highest=record.highest_khz or None,
            bios_limit=record.bios_limit_khz or None,
            has_table=bool(record.has_table),
            driver=_c.text(record.driver),
            governor=_c.text(record.governor),
        )

    def _rows(self, kind: type[_c.Record], function: str) -> list[_c.Record]:
        def fill(*arguments: Any) -> bool:
            with self._lock:
                code = getattr(_c.library(), function)(self._open_handle(), *arguments)
            check(function, 0 if code == TOO_SMALL else code)
            return bool(code == 0)

        return _c.rows(kind, fill)

    def steps(self) -> list[Step]:
        """The frequencies that all of the CPUs offer, highest first."""
        rows = self._rows(_c.StepRecord, "easnode_frequency_steps")
        return [Step(row.khz, bool(row.turbo)) for row in rows]

    def read(self) -> list[CpuFrequency]:
        """What is set, CPU by CPU, ascending."""
        return [
            CpuFrequency(
                cpu=row.cpu,
                policy=row.policy,
                minimum=_known(row.min_khz),
                maximum=_known(row.max_khz),
                setspeed=_known(row.setspeed_khz),
                current=_known(row.current_khz),
                governor=_c.text(row.governor),
            )
            for row in self._rows(_c.CpuFrequencyRecord, "easnode_frequency_read")
        ]

    def save(self, khz: int = 0) -> str:
        """Writes down what is set now, to be given back; ``khz`` is what is about to be set, so that
        another program's changes are noticed later.

        The text serves this boot of this node. Raises NoFrequency, Denied or NotTaken.
        """
        buffer = ctypes.create_string_buffer(_c.FREQUENCY_TEXT_SIZE)
        length = ctypes.c_size_t()
        problem = _c.new(_c.ProblemRecord)
        with self._lock:
            code = _c.library().easnode_frequency_save(
                self._open_handle(), khz, buffer, len(buffer), ctypes.byref(length), problem
            )
        check("easnode_frequency_save", code, problem)
        return buffer.value.decode("utf-8", "surrogateescape")

    def set(self, khz: int) -> None:
        """Fixes the CPUs at a frequency. What stood there before the first ``set`` is remembered.

        Raises NoFrequency, NotOffered, Denied or NotTaken, and has then given back what it changed;
        or NotGivenBack. Whether the CPUs run at it ``check`` says.
        """
        function = "easnode_frequency_set"
        saved = self._saved or self.save(_khz(function, khz))
        problem = _c.new(_c.ProblemRecord)
        with self._lock:
            code = _c.library().easnode_frequency_set(
                self._open_handle(), _khz(function, khz), problem
            )
            if code in (0, NotGivenBack.code):
                self._saved = saved
        check(function, code, problem)

    def restore(self) -> None:
        """Gives back what ``set`` changed. Raises Denied, NotGivenBack or OtherNode."""
        with self._lock:
            if self._saved is None:
                return
            self.moved = not _restore(self._open_handle(), self._saved)
            self._saved = None

    def keep(self) -> None:
        """Lets what was set stay when the block ends: somebody else will give back what was saved."""
        with self._lock:
            self._saved = None

    @contextlib.contextmanager
    def check(self, khz: int) -> Iterator[ClockCheck]:
        """Watches the clock of the CPUs during a block in which they are busy, a tenth of a second or
        more::

            with frequency.check(2_000_000) as checked:
                work()
            if checked.clock.verdict is Verdict.RUNS_OTHERWISE: ...
        """
        handle = ctypes.c_void_p()
        record = _c.new(_c.ClockRecord)
        library = _c.library()
        with self._lock:
            code = library.easnode_frequency_check_begin(
                self._open_handle(), _khz("easnode_frequency_check_begin", khz), ctypes.byref(handle)
            )
        check("easnode_frequency_check_begin", code)
        result = ClockCheck()
        try:
            yield result
        except BaseException:
            library.easnode_frequency_check_end(handle, None)
            raise
        check("easnode_frequency_check_end", library.easnode_frequency_check_end(handle, record))
        result.clock = _clock(record)

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: types.TracebackType | None,
    ) -> None:
        try:
            if os.getpid() == self._owner:  # a child that was forked in the block gives nothing back
                self.restore()
        finally:
            super().__exit__(kind, error, trace)
