"""The five functions of <eas/interface.h>.

They may be called from any thread. The library wants nobody else inside while it is initialised;
``initialize`` waits for the calls that run, and later calls wait for it. Other calls run beside each
other. A call lasts as long as the database takes; other Python threads go on meanwhile.

Names are taken literally: a percent sign, which the library would read as printf does, is doubled on
the way, and names that the tables would cut are refused.
"""

from __future__ import annotations

import contextlib
import ctypes
import operator
import threading
from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from typing import Any, NamedTuple

from eas import _c
from eas.errors import BadArgument, NotInitialized, check

#: The frequency, up to the default one, that saves most energy within the site's limit of time.
MINIMIZE_ENERGY = "minimize_energy"
#: The highest frequency that gains as much time as the site demands of it.
MINIMIZE_TIME = "minimize_time"

# Bytes that the tables keep of a name.
_LENGTHS = {"cluster": 40, "user": 256, "tag": 256, "job_id": 1024}


@dataclass(frozen=True)
class Prediction:
    """What a job is predicted to do at one frequency."""

    #: kHz
    frequency: int
    #: W, mean power of a node
    power: float
    #: of the job's energy, a fraction; below 0 it saves
    energy_change: float
    #: s, run time
    seconds: int
    #: of the run time, a fraction; above 0 it is slower
    time_change: float


@dataclass(frozen=True)
class EnergyTag:
    """One energy policy tag: a job's predictions, ascending by frequency with the keys that ship."""

    name: str
    user: str
    cluster: str
    #: the job that it was made from
    job_id: str
    #: kHz; the predictions are relative to it
    default_frequency: int
    predictions: tuple[Prediction, ...]


class RemovedTag(NamedTuple):
    """Whose tag was removed, and its name."""

    user: str
    name: str


class Selection(NamedTuple):
    """The frequency that a job shall run at."""

    #: kHz; the default frequency where no other qualifies
    frequency: int
    #: expected change of the run time, a fraction; 0 for the default frequency
    time_change: float


class _Gate:
    """Lets in many at a time or one alone, who is let in first of those that wait."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self._inside = 0
        self._alone_wanted = 0
        self._alone = False

    @contextlib.contextmanager
    def shared(self) -> Iterator[None]:
        with self._changed:
            self._changed.wait_for(lambda: not self._alone and self._alone_wanted == 0)
            self._inside += 1
        try:
            yield
        finally:
            with self._changed:
                self._inside -= 1
                self._changed.notify_all()

    @contextlib.contextmanager
    def alone(self) -> Iterator[None]:
        with self._changed:
            self._alone_wanted += 1
            try:
                self._changed.wait_for(lambda: not self._alone and self._inside == 0)
                self._alone = True
            finally:
                self._alone_wanted -= 1
                self._changed.notify_all()
        try:
            yield
        finally:
            with self._changed:
                self._alone = False
                self._changed.notify_all()


_gate = _Gate()
# Cluster and default frequency of the last initialisation that succeeded.
_initialized: tuple[str, int] | None = None


def _bytes_of(function: str, what: str, text: str) -> bytes:
    if not text:
        raise BadArgument(function, f"{what} is empty")
    encoded = text.encode("utf-8", "surrogateescape")
    if b"\0" in encoded:
        raise BadArgument(function, f"{what} holds a NUL")
    if len(encoded) > _LENGTHS.get(what, len(encoded)):
        raise BadArgument(function, f"{what} is longer than {_LENGTHS[what]} bytes")
    return encoded


def _name(function: str, what: str, text: str | None) -> bytes | None:
    """A name to look for; None is any."""
    return None if text is None else _bytes_of(function, what, text)


def _stored(function: str, what: str, text: str) -> bytes:
    """A name as the library wants those that it stores."""
    return _bytes_of(function, what, text).replace(b"%", b"%%")


def _int(function: str, what: str, value: int) -> int:
    """C would cut a number that is too large without a word."""
    number = operator.index(value)
    if not 0 < number < 2**31:
        raise BadArgument(function, f"{what} is {number}")
    return number


def _where(function: str, cluster: str | None, default_frequency: int | None) -> tuple[str, int]:
    """The cluster and default frequency that are meant: else those of the initialisation."""
    if cluster is None or default_frequency is None:
        if _initialized is None:
            raise NotInitialized(function)
        cluster = _initialized[0] if cluster is None else cluster
        default_frequency = _initialized[1] if default_frequency is None else default_frequency
    return cluster, _int(function, "default_frequency", default_frequency)


def initialize(cluster: str, default_frequency: int, threshold_file: str) -> None:
    """Loads a cluster's coefficients and the site's thresholds; what was loaded before is dropped.

    ``default_frequency`` is the one at which jobs are measured, kHz. Raises NoConnection,
    NoCoefficients, BadThresholdFile, ThresholdsCommentedOut or BadArgument.
    """
    global _initialized
    function = "eas_initialize"
    name = _bytes_of(function, "cluster", cluster)
    frequency = _int(function, "default_frequency", default_frequency)
    path = _bytes_of(function, "threshold_file", threshold_file)
    entry = _c.library().eas_initialize
    with _gate.alone():
        _initialized = None
        check(function, entry(name, frequency, path))
        _initialized = cluster, frequency


def generate_tag(
    user: str,
    tag: str,
    *,
    counters: Sequence[float],
    job_id: str,
    seconds: int,
    watts: float,
    cluster: str | None = None,
    default_frequency: int | None = None,
) -> None:
    """Predicts a job that ran at the default frequency at every other one, and stores that as a tag.

    ``counters`` are the job's processor cycles, instructions and bytes of memory traffic, ``seconds``
    its run time (1 or more), ``watts`` the mean power of a node. ``cluster`` and
    ``default_frequency`` are those of the initialisation unless given.

    Raises TagExists, TagNotAvailable, StoreFailed, NotInitialized, NoConnection or BadArgument. (A
    tag that exists, with a percent sign or a double quote in its name or user, is StoreFailed.)
    """
    function = "eas_generate_tag"
    if len(counters) != 3:
        raise BadArgument(function, "counters are three: cycles, instructions, bytes")
    names = [_stored(function, *row) for row in (("user", user), ("tag", tag), ("job_id", job_id))]
    figures = (ctypes.c_double * 3)(*counters)
    time = _int(function, "seconds", seconds)
    entry = _c.library().eas_generate_tag
    with _gate.shared():
        cluster, frequency = _where(function, cluster, default_frequency)
        place = _stored(function, "cluster", cluster)
        check(function, entry(place, frequency, *names[:2], figures, names[2], time, watts))


def _numbers(address: int, kind: Any, count: int) -> list[Any]:
    return list((kind * count).from_address(address))


def _tag_of(record: _c.EnergyPolicyTag) -> EnergyTag:
    count = record.num_freq
    columns = (
        _numbers(record.frequencies, ctypes.c_int32, count),
        _numbers(record.predict_power, ctypes.c_double, count),
        _numbers(record.energy_saving_pct, ctypes.c_double, count),
        _numbers(record.predict_elapse_time, ctypes.c_int32, count),
        _numbers(record.perf_degrad_pct, ctypes.c_double, count),
    )
    return EnergyTag(
        name=_c.text_at(record.energy_tag_name),
        user=_c.text_at(record.user_name),
        cluster=_c.text_at(record.cluster_name),
        job_id=_c.text_at(record.job_id),
        default_frequency=record.default_frequency,
        predictions=tuple(Prediction(*row) for row in zip(*columns)),
    )


def _blocks_of(record: _c.EnergyPolicyTag) -> list[int | None]:
    """What a record owns: its members that are addresses."""
    return [getattr(record, row[0]) for row in record._fields_ if row[1] is ctypes.c_void_p]


def query_tag(
    user: str | None = None,
    tag: str | None = None,
    *,
    cluster: str | None = None,
    default_frequency: int | None = None,
) -> list[EnergyTag]:
    """The stored tags of a cluster: of every user, and of every name, where None is given.

    Raises QueryFailed, NotInitialized, NoConnection or BadArgument. No such tag is an empty list.
    """
    function = "eas_query_tag"
    user_name, tag_name = _name(function, "user", user), _name(function, "tag", tag)
    count = ctypes.c_int()
    records = ctypes.POINTER(_c.EnergyPolicyTag)()
    entry = _c.library().eas_query_tag
    with _gate.shared():
        cluster, frequency = _where(function, cluster, default_frequency)
        place = _bytes_of(function, "cluster", cluster)
        outputs = ctypes.byref(count), ctypes.byref(records)
        check(function, entry(place, frequency, user_name, tag_name, *outputs))
    try:
        return [_tag_of(records[i]) for i in range(count.value)]
    finally:
        for i in range(count.value):
            _c.free(_blocks_of(records[i]))
        _c.free([ctypes.cast(records, ctypes.c_void_p).value])


def remove_tag(
    user: str | None,
    tag: str | None,
    *,
    cluster: str | None = None,
    default_frequency: int | None = None,
) -> list[RemovedTag]:
    """Removes the stored tags of a cluster that match, all or none, and says which they were.

    None matches every user, or every name; it has to be written out here, for it removes the tags of
    all. Raises RemoveFailed, NotInitialized, NoConnection or BadArgument.
    """
    function = "eas_remove_tag"
    user_name, tag_name = _name(function, "user", user), _name(function, "tag", tag)
    count = ctypes.c_int()
    users, names = ctypes.POINTER(ctypes.c_void_p)(), ctypes.POINTER(ctypes.c_void_p)()
    entry = _c.library().eas_remove_tag
    with _gate.shared():
        cluster, frequency = _where(function, cluster, default_frequency)
        place = _bytes_of(function, "cluster", cluster)
        outputs = ctypes.byref(count), ctypes.byref(users), ctypes.byref(names)
        check(function, entry(place, frequency, user_name, tag_name, *outputs))
    try:
        rows = range(count.value)
        return [RemovedTag(_c.text_at(users[i]), _c.text_at(names[i])) for i in rows]
    finally:
        for texts in (users, names):
            _c.free([texts[i] for i in range(count.value)])
            _c.free([ctypes.cast(texts, ctypes.c_void_p).value])


def auto_select_frequency(
    user: str,
    tag: str,
    policy: str,
    *,
    cluster: str | None = None,
    default_frequency: int | None = None,
) -> Selection:
    """The frequency for a job, by the predictions of its tag.

    ``policy`` is MINIMIZE_ENERGY or MINIMIZE_TIME. Raises NoUniqueTag, NotInitialized, NoConnection
    or BadArgument.
    """
    function = "eas_auto_select_frequency"
    names = [_bytes_of(function, *row) for row in (("user", user), ("tag", tag), ("policy", policy))]
    selected, change = ctypes.c_int(), ctypes.c_double()
    entry = _c.library().eas_auto_select_frequency
    with _gate.shared():
        cluster, frequency = _where(function, cluster, default_frequency)
        place = _bytes_of(function, "cluster", cluster)
        outputs = ctypes.byref(selected), ctypes.byref(change)
        check(function, entry(place, frequency, *names, *outputs))
    return Selection(selected.value, change.value)
