"""Run each job of a cluster at the processor frequency where it wastes the least energy.

The five functions of libeas, as a scheduler's hooks and an administrator's scripts call them::

    import eas

    eas.initialize("sample", 2_300_000, "/etc/eas/thresholds.conf")
    eas.generate_tag("anna", "flame", counters=(8.8e13, 8.4e13, 9.7e13), job_id="1003.0",
                     seconds=2400, watts=268.4)
    selected = eas.auto_select_frequency("anna", "flame", eas.MINIMIZE_ENERGY)
    print(selected.frequency, "kHz")

and, in ``eas.node``, the meter, the frequencies and the CPUs of a compute node.

Frequencies are kHz, times seconds, power watts, changes fractions (-0.05: 5 % less). What fails
raises an ``eas.Error`` that carries the library's code and what it means. The libraries
(``libeas.so.1``, ``libeasnode.so.1``) are opened at the first call that needs them; where one is
not installed that call raises ``OSError``.
"""

from eas import node
from eas.errors import (
    BadArgument,
    BadThresholdFile,
    Error,
    NoCoefficients,
    NoConnection,
    NotInitialized,
    NoUniqueTag,
    QueryFailed,
    RemoveFailed,
    StoreFailed,
    TagExists,
    TagNotAvailable,
    ThresholdsCommentedOut,
)
from eas.scheduler import (
    MINIMIZE_ENERGY,
    MINIMIZE_TIME,
    EnergyTag,
    Prediction,
    RemovedTag,
    Selection,
    auto_select_frequency,
    generate_tag,
    initialize,
    query_tag,
    remove_tag,
)

__version__ = "1.0.0"

__all__ = [
    "MINIMIZE_ENERGY",
    "MINIMIZE_TIME",
    "BadArgument",
    "BadThresholdFile",
    "EnergyTag",
    "Error",
    "NoCoefficients",
    "NoConnection",
    "NoUniqueTag",
    "NotInitialized",
    "Prediction",
    "QueryFailed",
    "RemoveFailed",
    "RemovedTag",
    "Selection",
    "StoreFailed",
    "TagExists",
    "TagNotAvailable",
    "ThresholdsCommentedOut",
    "auto_select_frequency",
    "generate_tag",
    "initialize",
    "node",
    "query_tag",
    "remove_tag",
]
