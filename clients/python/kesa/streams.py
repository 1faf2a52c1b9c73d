"""What a user iterates: values that come from the I/O thread."""

from __future__ import annotations

import threading
from collections import deque
from typing import Any, Callable, Generic, Iterator, TypeVar

from .errors import ServiceError, Timeout

T = TypeVar("T")


class Mailbox(Generic[T]):
    """Between the I/O thread, which puts, and the user's, which takes."""

    def __init__(self, most: int, most_bytes: int = 0):
        self._most = most
        self._most_bytes = most_bytes
        self._bytes = 0
        self._changed = threading.Condition()
        self._values: deque[tuple[T, int]] = deque()
        self._ended = False
        self._error: Exception | None = None

    @property
    def count(self) -> int:
        """Of values that wait."""
        return len(self._values)

    def put(self, value: T, size: int = 0) -> bool:
        """False if it is full: the user takes too slowly. `size` in bytes; one value always has room."""
        with self._changed:
            if len(self._values) >= self._most or self._bytes > self._most_bytes:
                return False
            if not self._ended:
                self._values.append((value, size))
                self._bytes += size
                self._changed.notify()
            return True

    def end(self, error: Exception | None = None, at_once: bool = False) -> None:
        """The first one counts. What was put before is still taken, unless `at_once`."""
        with self._changed:
            if at_once:
                self._values.clear()
                self._bytes = 0
            if not self._ended:
                self._ended = True
                self._error = error
            self._changed.notify_all()

    def take(self, timeout: float | None) -> T:
        """The next value, in order; StopIteration at the end, or its error, again and again. Timeout."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._values or self._ended, timeout):
                raise Timeout(f"no value within {timeout} s")
            if self._values:
                value, size = self._values.popleft()
                self._bytes -= size
                return value
            if self._error:
                raise self._error
            raise StopIteration


class Stream(Generic[T]):
    """Iterates values as they come, in order, in the thread that asks for them.

    The loop ends when the service has completed the stream or `cancel` was called, and raises `ServiceError` when the stream
    ended with an error: 503 when its service was withdrawn, or ended, or the connection was lost. It does not begin anew by
    itself. Leaving the loop for good cancels: `with`, or letting the object go.
    """

    def __init__(self, mailbox: Mailbox[Any], cancel: Callable[[], None], read: Callable[[Any], T] = lambda value: value):
        self._mailbox = mailbox
        self._cancel = cancel
        self._read = read

    def __iter__(self) -> Iterator[T]:
        return self

    def __next__(self) -> T:
        return self.next()

    def next(self, timeout: float | None = None) -> T:
        """The next value; `Timeout` if none comes within `timeout` seconds, then the stream goes on. StopIteration at the end."""
        value = self._mailbox.take(timeout)
        try:
            return self._read(value)
        except ServiceError as broken:
            self._mailbox.end(broken, at_once=True)
            self._cancel()
            raise

    def cancel(self) -> None:
        """No value is given out any more. From any thread; a loop that waits ends."""
        self._mailbox.end(at_once=True)
        self._cancel()

    def __enter__(self) -> Stream[T]:
        return self

    def __exit__(self, *exception: object) -> None:
        self.cancel()

    def __del__(self) -> None:
        self._cancel()


def too_slow(most: int) -> ServiceError:
    """The end of a stream whose user does not take what comes."""
    return ServiceError(503, f"cancelled: {most} values were not taken")
