"""What the five functions raise: one class per meaning of a code, for the library uses some codes
for different things in different functions."""

from __future__ import annotations

from typing import ClassVar


class Error(Exception):
    """A call of libeas or libeasnode failed.

    ``function`` is the C function, ``code`` what it returned (the base class and classes of several
    codes differ per instance), ``meaning`` a sentence.
    """

    code: int = 0
    meaning: str = ""

    def __init__(self, function: str, meaning: str = "", code: int | None = None) -> None:
        self.function = function
        self.meaning = meaning or self.meaning
        self.code = self.code if code is None else code
        super().__init__(function, self.meaning, self.code)

    def __str__(self) -> str:
        return f"{self.function}: {self.meaning} ({self.code})"


class SchedulerError(Error):
    """One of the five functions failed; ``c_name`` is the name of the code in interface.h."""

    c_name: ClassVar[str]


class BadArgument(SchedulerError, ValueError):
    """An argument is empty or out of range; or refused here before the library is called."""

    code = -1
    c_name = "EAS_BAD_ARGUMENT"
    meaning = "an argument is empty or out of range"


class NoConnection(SchedulerError):
    """No connection to the database; from ``initialize`` also: no driver manager."""

    code = -2
    c_name = "EAS_NO_CONNECTION"
    meaning = "no connection to the database"


class NotInitialized(SchedulerError):
    """``initialize`` has not succeeded."""

    code = -3
    c_name = "EAS_NOT_INITIALIZED"
    meaning = "not initialised"


class NoCoefficients(SchedulerError):
    """The database has no coefficients for the cluster and default frequency."""

    code = -3
    c_name = "EAS_NO_COEFFICIENTS"
    meaning = "no coefficients for this cluster and default frequency"


class BadThresholdFile(SchedulerError):
    """The threshold file is not valid: ``easctl thresholds check FILE`` says where."""

    code = -4
    c_name = "EAS_BAD_THRESHOLD_FILE"
    meaning = "the threshold file is not valid"


class ThresholdsCommentedOut(SchedulerError):
    """Every entry of the threshold file is a comment, or the file is empty or missing."""

    code = -5
    c_name = "EAS_THRESHOLDS_COMMENTED_OUT"
    meaning = "the threshold file has no entry, or is missing"


class TagNotAvailable(SchedulerError):
    """The figures of the job allow no prediction."""

    code = -4
    c_name = "EAS_TAG_NOT_AVAILABLE"
    meaning = "the figures allow no prediction"


class StoreFailed(SchedulerError):
    """The database refused the tag; no row of it is stored."""

    code = -5
    c_name = "EAS_STORE_FAILED"
    meaning = "the database refused the tag"


class TagExists(SchedulerError):
    """The user has a tag of that name for this cluster and default frequency."""

    code = -6
    c_name = "EAS_TAG_EXISTS"
    meaning = "this user has a tag of that name already"


class QueryFailed(SchedulerError):
    """The database failed, or a name cannot be looked up."""

    code = -4
    c_name = "EAS_QUERY_FAILED"
    meaning = "the tags could not be read"


class RemoveFailed(SchedulerError):
    """No tag was removed: the database failed, or a name cannot be looked up."""

    code = -4
    c_name = "EAS_REMOVE_FAILED"
    meaning = "no tag was removed"


class NoUniqueTag(SchedulerError):
    """Not exactly one such tag."""

    code = -4
    c_name = "EAS_NO_UNIQUE_TAG"
    meaning = "not exactly one such tag"


_EVERYWHERE = (BadArgument, NoConnection, NotInitialized)
# What each function may return, beside 0.
_OF_FUNCTION: dict[str, tuple[type[SchedulerError], ...]] = {
    "eas_initialize": (
        BadArgument,
        NoConnection,
        NoCoefficients,
        BadThresholdFile,
        ThresholdsCommentedOut,
    ),
    "eas_generate_tag": (*_EVERYWHERE, TagNotAvailable, StoreFailed, TagExists),
    "eas_query_tag": (*_EVERYWHERE, QueryFailed),
    "eas_remove_tag": (*_EVERYWHERE, RemoveFailed),
    "eas_auto_select_frequency": (*_EVERYWHERE, NoUniqueTag),
}


def check(function: str, code: int) -> None:
    """Raises what a return code of one of the five functions means; 0: does not."""
    if code == 0:
        return
    for error in _OF_FUNCTION[function]:
        if error.code == code:
            raise error(function)
    raise Error(function, "a code that this package does not know", code)
