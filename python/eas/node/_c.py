"""The C side of libeasnode: the layouts of its records and its functions, as <eas/node.h> has them."""

from __future__ import annotations

import ctypes
import functools
from ctypes import (
    POINTER,
    c_char,
    c_char_p,
    c_double,
    c_int,
    c_int32,
    c_size_t,
    c_uint,
    c_uint64,
    c_void_p,
)
from typing import Any, TypeVar

from eas._c import Prototypes, open_library

NAME_SIZE = 32
TEXT_SIZE = 192
FREQUENCY_TEXT_SIZE = 65536

Name = c_char * NAME_SIZE
Text = c_char * TEXT_SIZE


class FigureRecord(ctypes.Structure):
    """easnode_figure"""

    _fields_ = [
        ("value", c_double),
        ("quality", c_int32),
        ("extent", c_int32),
        ("read_within_ns", c_uint64),
        ("source", Name),
        ("covers", Text),
        ("reason", Text),
        ("reserved", c_uint64 * 4),
    ]


class ReadingRecord(ctypes.Structure):
    """easnode_reading"""

    _fields_ = [
        ("size", c_size_t),
        ("time_ns", c_uint64),
        ("cycles", FigureRecord),
        ("instructions", FigureRecord),
        ("memory", FigureRecord),
        ("energy", FigureRecord),
    ]


class MeterOptions(ctypes.Structure):
    """easnode_meter_options"""

    _fields_ = [
        ("size", c_size_t),
        ("process", c_int),
        ("allow_estimate", c_int),
        ("core_sources", c_char_p),
        ("memory_sources", c_char_p),
        ("energy_sources", c_char_p),
        ("command", POINTER(c_char_p)),
        ("command_gives", c_int),
        ("command_timeout_ms", c_uint),
        ("registers", c_int),
    ]


class SourceRecord(ctypes.Structure):
    """easnode_source"""

    _fields_ = [
        ("size", c_size_t),
        ("state", c_int32),
        ("extent", c_int32),
        ("name", Name),
        ("text", Text),
    ]


class TopologyRecord(ctypes.Structure):
    """easnode_topology"""

    _fields_ = [
        ("size", c_size_t),
        ("cpus", c_int32),
        ("possible_cpus", c_int32),
        ("sockets", c_int32),
        ("cores", c_int32),
        ("threads_per_core", c_int32),
        ("numa_nodes", c_int32),
        ("family", c_int32),
        ("model", c_int32),
        ("processor", Text),
    ]


class CpuRecord(ctypes.Structure):
    """easnode_cpu"""

    _fields_ = [
        ("cpu", c_int32),
        ("socket", c_int32),
        ("core", c_int32),
        ("thread", c_int32),
        ("numa_node", c_int32),
    ]


class ProblemRecord(ctypes.Structure):
    """easnode_problem"""

    _fields_ = [
        ("size", c_size_t),
        ("code", c_int32),
        ("cpu", c_int32),
        ("error", c_int32),
        ("path", c_char * 96),
        ("text", Text),
    ]


class FrequencyInfoRecord(ctypes.Structure):
    """easnode_frequency_info"""

    _fields_ = [
        ("size", c_size_t),
        ("cpus", c_int32),
        ("policies", c_int32),
        ("method", c_int32),
        ("turbo", c_int32),
        ("nominal_khz", c_int32),
        ("nominal_source", c_int32),
        ("lowest_khz", c_int32),
        ("highest_khz", c_int32),
        ("bios_limit_khz", c_int32),
        ("has_table", c_int32),
        ("driver", Name),
        ("governor", Name),
    ]


class StepRecord(ctypes.Structure):
    """easnode_step"""

    _fields_ = [("khz", c_int32), ("turbo", c_int32)]


class CpuFrequencyRecord(ctypes.Structure):
    """easnode_cpu_frequency"""

    _fields_ = [
        ("cpu", c_int32),
        ("policy", c_int32),
        ("min_khz", c_int32),
        ("max_khz", c_int32),
        ("setspeed_khz", c_int32),
        ("current_khz", c_int32),
        ("governor", Name),
    ]


class ClockRecord(ctypes.Structure):
    """easnode_clock"""

    _fields_ = [
        ("size", c_size_t),
        ("verdict", c_int32),
        ("asked_khz", c_int32),
        ("mean_khz", c_int32),
        ("slowest_khz", c_int32),
        ("slowest_cpu", c_int32),
        ("fastest_khz", c_int32),
        ("fastest_cpu", c_int32),
        ("busy_seconds", c_double),
        ("source", Name),
        ("text", Text),
    ]


# Handles are plain addresses.
_FREQUENCY_SAVE = (c_void_p, c_int32, POINTER(c_char), c_size_t, POINTER(c_size_t))
PROTOTYPES: Prototypes = {
    "easnode_error_text": (c_char_p, (c_int,)),
    "easnode_meter_open": (c_int, (POINTER(MeterOptions), POINTER(c_void_p))),
    "easnode_meter_read": (c_int, (c_void_p, POINTER(ReadingRecord))),
    "easnode_meter_source": (c_int, (c_void_p, c_int, c_size_t, POINTER(SourceRecord))),
    "easnode_meter_close": (None, (c_void_p,)),
    "easnode_topology_read": (c_int, (POINTER(TopologyRecord),)),
    "easnode_topology_cpus": (c_int, (POINTER(CpuRecord), c_size_t, POINTER(c_size_t))),
    "easnode_frequency_open": (c_int, (c_char_p, POINTER(c_void_p), POINTER(ProblemRecord))),
    "easnode_frequency_close": (None, (c_void_p,)),
    "easnode_frequency_describe": (c_int, (c_void_p, POINTER(FrequencyInfoRecord))),
    "easnode_frequency_steps": (
        c_int,
        (c_void_p, POINTER(StepRecord), c_size_t, POINTER(c_size_t)),
    ),
    "easnode_frequency_read": (
        c_int,
        (c_void_p, POINTER(CpuFrequencyRecord), c_size_t, POINTER(c_size_t)),
    ),
    "easnode_frequency_save": (c_int, (*_FREQUENCY_SAVE, POINTER(ProblemRecord))),
    "easnode_frequency_set": (c_int, (c_void_p, c_int32, POINTER(ProblemRecord))),
    "easnode_frequency_restore": (
        c_int,
        (c_void_p, c_char_p, c_size_t, POINTER(ProblemRecord)),
    ),
    "easnode_frequency_check_begin": (c_int, (c_void_p, c_int32, POINTER(c_void_p))),
    "easnode_frequency_check_end": (c_int, (c_void_p, POINTER(ClockRecord))),
}


@functools.lru_cache(maxsize=None)
def library() -> ctypes.CDLL:
    """libeasnode, opened once."""
    return open_library("libeasnode.so.1", PROTOTYPES)


Record = TypeVar("Record", bound=ctypes.Structure)


def new(kind: type[Record]) -> Record:
    """A record of zeros that says how large it is, as the library wants it."""
    record = kind()
    setattr(record, "size", ctypes.sizeof(kind))
    return record


def text(field: bytes) -> str:
    """A text of a record; one that was too long may be cut inside a character."""
    return field.decode("utf-8", "replace")


def rows(kind: type[Record], fill: Any) -> list[Record]:
    """All rows of a list whose length is not known before: ``fill(rows, capacity, count)``.

    It calls once for their number, and again where there are more of them by then. Calls ``fill``,
    which raises what failed and returns whether all fit.
    """
    count = ctypes.c_size_t(64)
    while True:
        table = (kind * count.value)()
        if fill(table, len(table), ctypes.byref(count)):
            return list(table)[: count.value]
