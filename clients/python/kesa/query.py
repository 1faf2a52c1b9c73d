"""What the registry knows below a glob, kept true over its restarts."""

from __future__ import annotations

from typing import Any, Callable

from . import records
from .errors import ServiceError
from .records import Change, Record
from .registry import Wish


class Query(Wish):
    """`on_change` hears each change once, `on_complete` each time that all that is there has been told, `on_refused` a failure.

    While the registry is away nothing is told. After its return, what it does not tell again is removed.
    """

    def __init__(
        self,
        glob: str,
        on_change: Callable[[Change], None],
        on_complete: Callable[[], None] = lambda: None,
        on_refused: Callable[[ServiceError], None] = lambda error: None,
        **conditions: Any,
    ):
        super().__init__("retrieve", "/", {"pattern": glob, **conditions})
        self.known: dict[str, Record] = {}
        self.caught_up = False
        self._told: set[str] = set()
        self._on_change = on_change
        self._on_complete = on_complete
        self._on_refused = on_refused

    def sent(self) -> None:
        self._told = set()
        self.caught_up = False

    def told(self, value: Any) -> None:
        for update in value:
            self._update(update["updateType"], records.from_json(update["element"]))
        if not value and not self.caught_up:
            self.caught_up = True
            for path in self.known.keys() - self._told:
                self._on_change(Change("removed", self.known.pop(path)))
            self._told = set()
            self._on_complete()

    def refused(self, error: ServiceError) -> None:
        self._on_refused(error)

    def _update(self, kind: str, record: Record) -> None:
        before = self.known.get(record.path)
        if kind == "ADDED":
            if not self.caught_up:
                self._told.add(record.path)
            if before == record:
                return
            if before:
                self._on_change(Change("removed", before))
            self.known[record.path] = record
            self._on_change(Change("added", record))
        elif kind == "REMOVED" and before:
            del self.known[record.path]
            self._told.discard(record.path)
            self._on_change(Change("removed", before))
