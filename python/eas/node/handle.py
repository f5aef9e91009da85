"""What Meter and Frequency have in common: the library's handle, one call at a time, closed once."""

from __future__ import annotations

import ctypes
import threading
import types
import weakref
from collections.abc import Callable
from typing import TypeVar

Owner = TypeVar("Owner", bound="Handle")


class Handle:
    """Owns a handle of libeasnode; a context manager that closes it."""

    def __init__(self, handle: ctypes.c_void_p, close: Callable[[ctypes.c_void_p], None]) -> None:
        self._lock = threading.Lock()
        self._handle: ctypes.c_void_p | None = handle
        self._close = weakref.finalize(self, close, handle)

    def _open_handle(self) -> ctypes.c_void_p:
        if self._handle is None:
            raise ValueError(f"this {type(self).__name__} is closed")
        return self._handle

    def close(self) -> None:
        """Frees what the handle holds, and changes nothing on the node. A second time does no harm."""
        with self._lock:
            self._handle = None
            self._close()

    def __enter__(self: Owner) -> Owner:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: types.TracebackType | None,
    ) -> None:
        self.close()
