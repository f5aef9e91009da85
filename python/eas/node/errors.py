"""What the calls of ``eas.node`` raise: one class per code of libeasnode."""

from __future__ import annotations

import os
from typing import Any, ClassVar, NamedTuple

from eas.errors import Error
from eas.node import _c


class Problem(NamedTuple):
    """What went wrong, and where."""

    #: the first CPU of those concerned; None: no certain one
    cpu: int | None
    #: errno of the kernel; None: none
    errno: int | None
    #: the file; empty: no certain one
    path: str
    #: a sentence
    text: str


class NodeError(Error):
    """A call of libeasnode failed; ``problem`` says more of it where the call has more to say."""

    c_name: ClassVar[str]

    def __init__(
        self, function: str, meaning: str = "", code: int | None = None, problem: Any = None
    ) -> None:
        super().__init__(function, meaning, code)
        self.problem: Problem | None = problem

    def __str__(self) -> str:
        sentence = super().__str__()
        if self.problem is None:
            return sentence
        where = [self.problem.path] if self.problem.path else []
        if self.problem.errno is not None:
            where.append(os.strerror(self.problem.errno))
        return ": ".join([sentence, self.problem.text, *where])


class BadArgument(NodeError, ValueError):
    """Out of range, or a list of CPUs that is none, or names one that is not online."""

    code = -1
    c_name = "EASNODE_BAD_ARGUMENT"


class NoSuchSource(NodeError, ValueError):
    """A list of sources names one that does not exist."""

    code = -3
    c_name = "EASNODE_NO_SUCH_SOURCE"


class NoSuchProcess(NodeError):
    """The process to follow does not exist."""

    code = -4
    c_name = "EASNODE_NO_SUCH_PROCESS"


class NoFrequency(NodeError):
    """A CPU has no cpufreq driver: no frequency can be set."""

    code = -6
    c_name = "EASNODE_NO_FREQUENCY"


class NotOffered(NodeError, ValueError):
    """The frequency is not offered, or a limit forbids it."""

    code = -7
    c_name = "EASNODE_NOT_OFFERED"


class Denied(NodeError):
    """The kernel asks for a privilege."""

    code = -8
    c_name = "EASNODE_DENIED"


class NotTaken(NodeError):
    """The driver refused a setting, or did not keep it."""

    code = -9
    c_name = "EASNODE_NOT_TAKEN"


class BadText(NodeError, ValueError):
    """A text of settings that is damaged, or none."""

    code = -10
    c_name = "EASNODE_BAD_TEXT"


class OtherNode(NodeError):
    """A text of another boot or another driver: with that its settings are gone."""

    code = -11
    c_name = "EASNODE_OTHER_NODE"


class NotGivenBack(NodeError):
    """A setting could not be given back."""

    code = -13
    c_name = "EASNODE_NOT_GIVEN_BACK"


_NO_MEMORY = -2
TOO_SMALL = -5
MOVED = -12
_ERRORS: tuple[type[NodeError], ...] = (
    BadArgument,
    NoSuchSource,
    NoSuchProcess,
    NoFrequency,
    NotOffered,
    Denied,
    NotTaken,
    BadText,
    OtherNode,
    NotGivenBack,
)


def _problem_of(record: _c.ProblemRecord | None) -> Problem | None:
    if record is None or record.code == 0:
        return None
    return Problem(
        cpu=record.cpu if record.cpu >= 0 else None,
        errno=record.error or None,
        path=os.fsdecode(record.path),
        text=_c.text(record.text),
    )


def check(function: str, code: int, record: _c.ProblemRecord | None = None) -> None:
    """Raises what a return code means; 0: does not."""
    if code == 0:
        return
    if code == _NO_MEMORY:
        raise MemoryError(function)
    meaning = _c.text(_c.library().easnode_error_text(code))
    for error in _ERRORS:
        if error.code == code:
            raise error(function, meaning, problem=_problem_of(record))
    raise NodeError(function, meaning, code, _problem_of(record))
