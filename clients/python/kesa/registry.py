"""The registry, as this process knows it: what it wants there is asked anew whenever the registry returns."""

from __future__ import annotations

import asyncio
import json
from typing import Any

from .bodies import JSON
from .errors import ProtocolError, ServiceError
from .link import STREAM, Answer, Exchange, Link

PROCESS = "kesa-registryd"
PATH = "/registry"


class Wish:
    """A stream at the registry that is to be there whenever the registry is."""

    def __init__(self, command: str, path: str, body: Any):
        self.command = command
        self.path = path
        self.body = json.dumps(body, ensure_ascii=False).encode()
        self.exchange: Exchange | None = None
        self.gone: asyncio.Future | None = None

    def sent(self) -> None:
        """It was asked, for the first time or anew."""

    def told(self, value: Any) -> None:
        """The registry sent a value."""

    def refused(self, error: ServiceError) -> None:
        """The registry ended it for good; it is not asked again."""


class Registry:
    """I/O thread only."""

    def __init__(self, link: Link, path: str = PATH):
        self._link = link
        self._wishes: list[Wish] = []
        self._target = link.acquire(path)
        self._target.on_change.append(self._changed)

    @property
    def problem(self) -> str:
        """Why it cannot be reached."""
        return self._link.problem

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
        if attached:
            for wish in list(self._wishes):
                self._send(wish)

    def _send(self, wish: Wish) -> None:
        def on_value(answer: Answer) -> None:
            if wish.exchange is not exchange:
                return
            try:
                wish.told(json.loads(answer.data))
            except (ValueError, KeyError, TypeError, AttributeError) as error:
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
