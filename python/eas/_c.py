"""The C side of libeas: the layout of its record and its functions, as <eas/interface.h> has them."""

from __future__ import annotations

import ctypes
import functools
from collections.abc import Iterable
from ctypes import POINTER, c_char_p, c_double, c_int, c_int32, c_void_p
from typing import Any

Prototypes = dict[str, tuple[Any, tuple[Any, ...]]]


class EnergyPolicyTag(ctypes.Structure):
    """energyPolicyTag. Strings and arrays are plain addresses: they have to be freed."""

    _fields_ = [
        ("energy_tag_name", c_void_p),
        ("job_id", c_void_p),
        ("user_name", c_void_p),
        ("cluster_name", c_void_p),
        ("default_frequency", c_int32),
        ("num_freq", c_int32),
        ("frequencies", c_void_p),
        ("predict_power", c_void_p),
        ("energy_saving_pct", c_void_p),
        ("predict_elapse_time", c_void_p),
        ("perf_degrad_pct", c_void_p),
    ]


PROTOTYPES: Prototypes = {
    "eas_initialize": (c_int, (c_char_p, c_int, c_char_p)),
    "eas_generate_tag": (
        c_int,
        (c_char_p, c_int, c_char_p, c_char_p, POINTER(c_double), c_char_p, c_int, c_double),
    ),
    "eas_query_tag": (
        c_int,
        (c_char_p, c_int, c_char_p, c_char_p, POINTER(c_int), POINTER(POINTER(EnergyPolicyTag))),
    ),
    "eas_remove_tag": (
        c_int,
        (
            c_char_p,
            c_int,
            c_char_p,
            c_char_p,
            POINTER(c_int),
            POINTER(POINTER(c_void_p)),
            POINTER(POINTER(c_void_p)),
        ),
    ),
    "eas_auto_select_frequency": (
        c_int,
        (c_char_p, c_int, c_char_p, c_char_p, c_char_p, POINTER(c_int), POINTER(c_double)),
    ),
}


def open_library(name: str, prototypes: Prototypes) -> ctypes.CDLL:
    """Opens a library and declares its functions. Raises OSError where it is not installed."""
    library = ctypes.CDLL(name)
    for function, (result, arguments) in prototypes.items():
        entry = getattr(library, function)
        entry.restype = result
        entry.argtypes = arguments
    return library


@functools.lru_cache(maxsize=None)
def library() -> ctypes.CDLL:
    """libeas, opened once."""
    return open_library("libeas.so.1", PROTOTYPES)


@functools.lru_cache(maxsize=None)
def _free() -> Any:
    function = ctypes.CDLL(None).free
    function.restype = None
    function.argtypes = (c_void_p,)
    return function


def free(addresses: Iterable[int | None]) -> None:
    """Gives blocks that the library handed out back to malloc; a null one is no block."""
    for address in addresses:
        if address:
            _free()(address)


def text_at(address: int | None) -> str:
    """The text at an address; one that the library had no memory for is null."""
    if not address:
        raise MemoryError
    return ctypes.string_at(address).decode("utf-8", "surrogateescape")
