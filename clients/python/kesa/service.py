"""A service that this process provides."""

from __future__ import annotations

import threading
from typing import Any, Callable

from . import records
from .errors import ServiceError, Timeout
from .records import Record
from .registry import Wish


class Registration(Wish):
    """The registry's side of it. I/O thread only."""

    def __init__(self, record: Record, on_told: Callable[[Record], None], on_refused: Callable[[ServiceError], None]):
        super().__init__("insert", record.path, records.to_json(record))
        self._on_told = on_told
        self._on_refused = on_refused

    def told(self, value: Any) -> None:
        self._on_told(records.from_json(value))

    def refused(self, error: ServiceError) -> None:
        self._on_refused(error)


class Service:
    """From `System.provide`. Others find it until `close`, also after restarts of the registry.

    It ends by itself only if the registry refuses it when it returns, since another process has the path (409): then it is
    withdrawn, and `wait` raises that.
    """

    def __init__(self, record: Record, close: Callable[[], None]):
        self.path = record.path
        self._close = close
        self._lock = threading.Lock()
        self._record = record
        self._ended = threading.Event()
        self._error: ServiceError | None = None

    @property
    def record(self) -> Record:
        """As it was registered last, with its id."""
        with self._lock:
            return self._record

    def close(self) -> None:
        """Withdraws it: open requests end with 503, and when this returns the registry does not know it any more."""
        self._close()

    def wait(self, timeout: float | None = None) -> None:
        """Returns when it is closed; ServiceError if the registry refused it. Timeout after `timeout` seconds."""
        if not self._ended.wait(timeout):
            raise Timeout(f"{self.path} is still provided after {timeout} s")
        if self._error:
            raise self._error

    def told(self, record: Record) -> None:
        """Internal: the registry's answer."""
        with self._lock:
            self._record = record

    def ended(self, error: ServiceError | None) -> None:
        """Internal: the first one counts."""
        if not self._ended.is_set():
            self._error = error
            self._ended.set()

    def __enter__(self) -> Service:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()
