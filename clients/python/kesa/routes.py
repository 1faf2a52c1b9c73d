"""The way to each service that has been called: its record, kept true, and its path at its provider."""

from __future__ import annotations

import asyncio
from typing import Callable

from .errors import ServiceError, ServiceNotThere
from .link import Link, Target
from .names import LONGEST_PATH, Locator, literal_glob, parse_locator
from .query import Query
from .records import Change, Record
from .registry import Registry


def usable(record: Record, realm: str) -> Locator | None:
    """The first locator of `record` that leads somewhere from the run directory `realm`."""
    for text in record.locators:
        locator = parse_locator(text)
        if locator and locator.realm in ("", realm) and 1 <= len(locator.path.encode()) <= LONGEST_PATH:
            return locator
    return None


class Route:
    """I/O thread only. It stands while the registry is away, and open requests outlive the service's record."""

    def __init__(self, path: str, registry: Registry, realm: Callable[[], str], link_to: Callable[[str], Link]):
        self.path = path
        self._registry = registry
        registry.on_settled.append(self._wake)
        self.query = Query(literal_glob(path), self._changed, self._wake, self._refused)
        self._realm = realm
        self._link_to = link_to
        self._way: tuple[Link, Target, Locator] | None = None
        self._error: ServiceError | None = None
        self._waiting: list[asyncio.Future] = []

    async def ready(self) -> tuple[Link, Target]:
        """Returns when a request can be sent; ServiceNotThere once it is certain that none can. No limit."""
        while True:
            if self._error:
                raise self._error
            record = self.query.known.get(self.path)
            if record and not self._way:
                raise ServiceNotThere(f"{self.path} cannot be reached from here: {', '.join(record.locators) or 'no locators'}")
            if not record and self.query.caught_up and self._registry.settled:
                raise ServiceNotThere(f"no process provides {self.path}")
            if self._way and self._way[1].attached:
                return self._way[:2]
            news = asyncio.get_running_loop().create_future()
            self._waiting.append(news)
            await news

    def problem(self) -> str:
        """What a request is waiting for."""
        if self._way and self._way[1].attached:
            return f"{self.path!r} is connected"
        if self._way:
            return f"{self._way[2]}: {self._way[0].problem}"
        return f"nobody is known to provide {self.path!r}: {self._registry.problem}"

    def close(self) -> None:
        self._registry.on_settled.remove(self._wake)
        self._leave()
        self._wake()

    def _changed(self, change: Change) -> None:
        locator = usable(change.record, self._realm()) if change.kind == "added" else None
        if not self._way or locator != self._way[2]:
            self._leave()
            if locator:
                link = self._link_to(locator.process)
                target = link.acquire(locator.path)
                target.on_change.append(self._attached)
                self._way = (link, target, locator)
        self._wake()

    def _leave(self) -> None:
        if self._way:
            link, target, _ = self._way
            self._way = None
            target.on_change.remove(self._attached)
            link.release(target)

    def _refused(self, error: ServiceError) -> None:
        self._error = error
        self._wake()

    def _attached(self, attached: bool) -> None:
        self._wake()

    def _wake(self) -> None:
        waiting, self._waiting = self._waiting, []
        for news in waiting:
            if not news.done():
                news.set_result(None)
