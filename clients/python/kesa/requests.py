"""A request that a handler answers, and the thread that does it."""

from __future__ import annotations

import logging
import threading
from collections.abc import Iterator
from dataclasses import dataclass, field
from typing import Any, Callable, Protocol

from . import bodies
from .bodies import Body
from .errors import ServiceError

_log = logging.getLogger("kesa")


@dataclass
class Request:
    """What a client asked for.

    `path` is inside the service, `/` the service itself. `client` is `NAME:PID` as the kernel and the client's hello say, `uid` its
    user, as the kernel says.
    `follows` is true if the client wants to hear changes until it cancels. `cancelled` is set when it wants no more values.
    """

    command: str
    path: str
    data: bytes = field(repr=False)
    mime_type: str
    headers: dict[str, Any]
    client: str
    uid: int
    follows: bool
    cancelled: threading.Event = field(default_factory=threading.Event)

    @property
    def value(self) -> Any:
        """The body as a value, see `kesa.call`; ServiceError 400 if it is malformed."""
        return bodies.decode(self.data, self.mime_type)


Handler = Callable[[Request], Any]


class Reply(Protocol):
    """Where the answers of one request go. Called from its thread."""

    def value(self, body: Body) -> bool:
        """Sends one value, waiting while the client is slow; false if it wants no more."""

    def end(self, body: Body | None, error: ServiceError | None) -> None:
        """Sends `body`, if there is one, and ends the request."""


def run(handler: Handler, request: Request, reply: Reply) -> None:
    """Answers `request` in a thread of its own: a handler may block for as long as it likes."""
    threading.Thread(target=_answer, args=(handler, request, reply), name=f"kesa {request.path}", daemon=True).start()


def _answer(handler: Handler, request: Request, reply: Reply) -> None:
    accept = request.headers.get("$accept")
    body, error = None, None
    try:
        result = handler(request)
        if isinstance(result, Iterator):
            _stream(result, accept, reply)
        elif result is not None:
            body = bodies.encode(result, accept)
    except ServiceError as said:
        error = said
    except Exception as failure:
        _log.exception("the handler of %s failed", request.path)
        error = ServiceError(500, f"{type(failure).__name__}: {failure}")
    reply.end(body, error)


def _stream(values: Iterator, accept: Any, reply: Reply) -> None:
    try:
        for value in values:
            if not reply.value(bodies.encode(value, accept)):
                return
    finally:
        close = getattr(values, "close", None)
        if close:
            close()
