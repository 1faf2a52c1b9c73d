"""The registry, as this process knows it: what it wants there is asked anew whenever the registry returns."""

from __future__ import annotations

import asyncio
import json
from typing import Any, Callable

from .bodies import JSON, decode
from .errors import ProtocolError, ServiceError
from .link import STREAM, Answer, Exchange, Link
from .names import utf8

PATH = "/registry"
LOCATOR = f"ipc://kesa-registryd{PATH}"
# From the start of a registry until every provider has found it again: their longest pause, and some.
_SETTLING_SECONDS = 1.5


class Wish:
    """A stream at the registry that is to be there whenever the registry is."""

    def __init__(self, command: str, path: str, body: Any):
        self.command = command
        self.path = path
        self.body = utf8(json.dumps(body, ensure_ascii=False))
        self.exchange: Exchange | None = None
        self.gone: asyncio.Future | None = None

    def sent(self) -> None:
        """It was asked, for the first time or anew."""

    def told(self, value: Any) -> None:
        """The registry sent a value."""

    def refused(self, error: ServiceError) -> None:
        """The registry ended it for good; it is not asked again."""


class _Itself(Wish):
    """Tells when the registry began, if it says so."""

    def __init__(self, on_started: Callable[[float], None]):
        super().__init__("retrieve", PATH, {})
        self._on_started = on_started

    def told(self, value: Any) -> None:
        started = (value["element"].get("metainfo") or {}).get("started_ms")
        if value["updateType"] == "ADDED" and isinstance(started, int):
            self._on_started(started / 1000)


class Registry:
    """I/O thread only."""

    def __init__(self, link: Link, path: str):
        self._link = link
        self._loop = asyncio.get_running_loop()
        self.settled = False
        """Whether the services of before have had the time to return to it, should it have been started anew."""
        self.on_settled: list[Callable[[], None]] = []
        self._settling: asyncio.TimerHandle | None = None
        self._is_young = False
        # The first to be asked for, so that it is answered before the queries.
        self._wishes: list[Wish] = [_Itself(self._started)]
        self._target = link.acquire(path)
        self._target.on_change.append(self._changed)

    @property
    def problem(self) -> str:
        """Why it cannot be reached, or what it is waited for."""
        if not self.reachable:
            return self._link.problem
        if self._is_young and not self.settled:
            return "the registry has just started, and services may be on their way back to it"
        return "the registry does not answer"

    @property
    def reached(self) -> bool:
        """Whether a process is there, a registry or not."""
        return self._link.reached

    @property
    def forbidden(self) -> bool:
        """Whether this user has no right to connect to it; then `problem` says what to do."""
        return self._link.forbidden

    @property
    def reachable(self) -> bool:
        return self._target.attached

    async def wait_reachable(self) -> None:
        await self._target.wait_attached()

    def add(self, wish: Wish) -> None:
        """From now on, until `remove` or its `refused`."""
        self._wishes.append(wish)
        if self._target.attached:
            self._send(wish)

    def remove(self, wish: Wish) -> asyncio.Future:
        """`wish` hears nothing more. The future is done when the registry has forgotten it."""
        wish.gone = asyncio.get_running_loop().create_future()
        if wish in self._wishes:
            self._wishes.remove(wish)
        if wish.exchange:
            self._link.cancel(wish.exchange)
        else:
            wish.gone.set_result(None)
        return wish.gone

    def _changed(self, attached: bool) -> None:
        self._is_young = False
        self._settle_at(self._loop.time() + _SETTLING_SECONDS if attached else None)
        if attached:
            for wish in list(self._wishes):
                self._send(wish)

    def _started(self, started: float) -> None:
        """A time of another clock, as of another host, may be later than now, and tells nothing."""
        if started <= self._loop.time():
            self._is_young = True
            self._settle_at(started + _SETTLING_SECONDS)

    def _settle_at(self, time: float | None) -> None:
        self.settled = False
        if self._settling:
            self._settling.cancel()
            self._settling = None
        if time is None:
            return
        if time > self._loop.time():
            self._settling = self._loop.call_at(time, self._settle)
        else:
            self._settle()

    def _settle(self) -> None:
        self.settled = True
        for each in list(self.on_settled):
            each()

    def _send(self, wish: Wish) -> None:
        def on_value(answer: Answer) -> None:
            if wish.exchange is not exchange:
                return
            try:
                wish.told(decode(answer.data, JSON))
            except (ServiceError, ValueError, KeyError, TypeError, AttributeError) as error:
                raise ProtocolError(f"the registry's answer cannot be understood: {error!r}") from None

        def on_end(error: ServiceError | None) -> None:
            if wish.exchange is exchange:
                wish.exchange = None
                self._ended(wish, error)

        exchange = Exchange(self._target, STREAM, on_value, on_end, headers={"$accept": JSON})
        wish.exchange = exchange
        wish.sent()
        try:
            self._link.request(exchange, wish.command, wish.path, wish.body, JSON)
        except ServiceError as error:
            on_end(error)

    def _ended(self, wish: Wish, error: ServiceError | None) -> None:
        if wish.gone:
            if not wish.gone.done():
                wish.gone.set_result(None)
        elif error and error.status != 503 and wish in self._wishes:
            self._wishes.remove(wish)
            wish.refused(error)
