"""This process as the client of one other: one connection, made again for ever while anybody needs it."""

from __future__ import annotations

import asyncio
import errno
import random
import socket
from dataclasses import dataclass, field
from typing import Any, Callable

from . import frames, rights, rundir
from .connection import PROTOCOL_BROKEN, Connection
from .errors import ProtocolError, ServiceError
from .frames import Message
from .heads import Head, Hello

_SHORTEST_PAUSE = 0.001
_LONGEST_PAUSE = 1.0
SINGLE, EMPTY, STREAM = "single-response", "empty-response", "persistent-stream"


@dataclass
class Answer:
    """One value as it came."""

    status: int
    mime_type: str
    data: bytes
    headers: dict[str, Any]


class Target:
    """A path at the other process. `on_change` hears each `attached` and each loss of it."""

    def __init__(self, path: str, number: int):
        self.path = path
        self.number = number
        self.attached = False
        self.users = 0
        self.on_change: list[Callable[[bool], None]] = []
        self._waiting: list[asyncio.Future] = []

    async def wait_attached(self) -> None:
        """Returns when it is attached. No limit: the caller sets one."""
        while not self.attached:
            waiting = asyncio.get_running_loop().create_future()
            self._waiting.append(waiting)
            await waiting

    def tell(self, attached: bool) -> None:
        if attached == self.attached:
            return
        self.attached = attached
        if attached:
            waiting, self._waiting = self._waiting, []
            for future in waiting:
                if not future.done():
                    future.set_result(None)
        for handler in list(self.on_change):
            handler(attached)


@dataclass
class Exchange:
    """An open request: any number of `on_value`, then one `on_end`, None if it was completed. After a cancel only `on_end`."""

    target: Target
    semantic: str
    on_value: Callable[[Answer], None]
    on_end: Callable[[ServiceError | None], None]
    stream: int = 0
    cancelled: bool = False
    handled: int = 0
    """Bytes of values that the server was not told of yet."""
    headers: dict[str, Any] = field(default_factory=dict)


class Link:
    """To `process`. I/O thread only."""

    def __init__(self, loop: asyncio.AbstractEventLoop, directory: str, process: str, hello: Callable[[], Hello]):
        self.process = process
        self._problem = "not tried yet"
        self._fault = ""  # of the peer, which ended the last connection
        self._loop = loop
        self._directory = directory
        self._hello = hello
        self.reached = False
        """Whether a process took the last connection."""
        self.forbidden = False
        """Whether this user has no right to connect; then `problem` says what to do."""
        self._connection: Connection | None = None
        self._targets: dict[str, Target] = {}
        self._numbers: dict[int, Target] = {}
        self._last_number = 0
        self._exchanges: dict[int, Exchange] = {}
        self._last_stream = 0
        self._used = 0  # of the window of requests
        self._waiting: dict[int, Message] = {}  # requests that wait for credit, in their order
        self._pause = _SHORTEST_PAUSE
        self._connected_at = 0.0
        self._useful = False  # the connection: something was attached
        self._retry: asyncio.TimerHandle | None = None

    @property
    def problem(self) -> str:
        """Why there is no connection, or what is waited for on it."""
        if not self._connection:
            return self._problem
        if not self._connection.peer:
            return f"connected to {self.process!r}, which has not said hello: it is stopped, or busy{self._fault}"
        return f"connected to {self.process!r}, which does not provide the path{self._fault}"

    @property
    def idle(self) -> bool:
        """Nobody needs it."""
        return not self._targets

    def about(self) -> dict[str, Any]:
        """What this process says of it."""
        asks = {"openedBy": "self", "process": self.process, "openRequests": len(self._exchanges)}
        if self._connection:
            return {**asks, **self._connection.about()}
        return {**asks, "connected": False, "queuedBytes": 0, "reason": self.problem}

    def acquire(self, path: str) -> Target:
        """The target of `path`, attached as soon as the other provides it. Ends with `release`."""
        target = self._targets.get(path)
        if target is None:
            self._last_number += 1
            target = self._targets[path] = self._numbers[self._last_number] = Target(path, self._last_number)
            if self._connection:
                self._attach(self._connection, target)
        target.users += 1
        if not self._connection and not self._retry:
            self._connect()
        return target

    def release(self, target: Target) -> None:
        """Open requests of it go on to their end, as long as the connection lives."""
        target.users -= 1
        self._drop_unused(target)

    def request(self, exchange: Exchange, command: str, path: str, data: bytes, mime_type: str) -> None:
        """Sends it. ServiceError or TypeError if it cannot be sent; then `exchange` hears nothing."""
        if not self._connection or not exchange.target.attached:
            raise ServiceError(503, f"{exchange.target.path} is not attached: {self.problem}")
        if exchange.semantic:
            exchange.headers["$response-semantic"] = exchange.semantic
        exchange.headers["$service-path"] = exchange.target.path
        exchange.stream = self._free_stream()
        head = Head(command, path, mime_type, None, exchange.headers)
        try:
            self._send_request(self._connection, Message(frames.REQUEST, exchange.stream, exchange.target.number, head, data))
        except OverflowError as error:
            raise ServiceError(413, str(error)) from None
        except ValueError as error:
            raise ServiceError(400, f"the request has no form: {error}") from None
        self._exchanges[exchange.stream] = exchange

    def cancel(self, exchange: Exchange) -> None:
        """No value comes any more; `on_end` still does."""
        if not exchange.cancelled and self._exchanges.get(exchange.stream) is exchange and self._connection:
            exchange.cancelled = True
            if self._waiting.pop(exchange.stream, None):
                self._loop.call_soon(self._take, Message(frames.ERROR, exchange.stream, 503, body=b"cancelled"))
            else:
                self._connection.send(Message(frames.CANCEL, exchange.stream))

    def _send_request(self, connection: Connection, message: Message) -> None:
        if self._waiting or self._used >= frames.REQUEST_WINDOW:
            message.encode(connection.limit)  # it is refused now
            self._waiting[message.stream] = message
        else:
            connection.send(message)
            self._used += message.cost

    def _credit(self, connection: Connection, size: int) -> None:
        if size > self._used:
            raise ProtocolError("more credit than the requests have used")
        self._used -= size
        while self._waiting and self._used < frames.REQUEST_WINDOW:
            message = self._waiting.pop(next(iter(self._waiting)))
            connection.send(message)
            self._used += message.cost

    async def close(self) -> None:
        """Sends what is pending, then closes; every open request ends with 503."""
        if self._connection:
            try:
                await asyncio.wait_for(self._connection.drained(), 1.0)
            except TimeoutError:
                pass
        self.abandon("this side closed the connection")

    def abandon(self, reason: str) -> None:
        """Closes at once."""
        self._targets.clear()
        if self._retry:
            self._retry.cancel()
            self._retry = None
        if self._connection:
            self._connection.close()
            self._lost(reason)

    def _free_stream(self) -> int:
        if len(self._exchanges) == frames.LARGEST_STREAM:
            raise ServiceError(503, f"{frames.LARGEST_STREAM} requests are open on one connection")
        while True:
            self._last_stream = self._last_stream % frames.LARGEST_STREAM + 1
            if self._last_stream not in self._exchanges:
                return self._last_stream

    def _drop_unused(self, target: Target) -> None:
        if target.users or any(exchange.target is target for exchange in self._exchanges.values()):
            return
        if self._targets.get(target.path) is target:
            del self._targets[target.path]
            self._numbers.pop(target.number, None)
            if self._connection:
                self._connection.send(Message(frames.DETACHED, target=target.number))
        if not self._targets:
            self._loop.call_soon(self._close_if_idle)

    def _close_if_idle(self) -> None:
        if not self._targets:
            self.abandon("nobody needs it")

    def _connect(self) -> None:
        self._retry = None
        try:
            sock = rundir.connect(self._directory, self.process)
        except OSError as error:
            self.reached = False
            why = rights.why_forbidden(self._directory, self.process) if error.errno == errno.EACCES else ""
            self.forbidden = bool(why)
            self._problem = f"cannot connect to {self.process!r}: {why}" if why else self._explain(error)
            if error.errno == errno.EAGAIN:
                self._retry = self._loop.call_later(random.uniform(0.001, 0.005), self._connect)
            else:
                self._connect_later()
            return
        self.reached = True
        self.forbidden = False
        self._connected_at = self._loop.time()
        self._connection = self._make(sock)
        for target in self._targets.values():
            self._attach(self._connection, target)

    def _make(self, sock: socket.socket) -> Connection:
        def waits() -> bool:
            return bool(self._waiting) or any(exchange.semantic in (SINGLE, EMPTY) for exchange in self._exchanges.values())

        return Connection(self._loop, sock, self._hello(), "server", self._take, self._lost, waits)

    def _connect_later(self) -> None:
        self._retry = self._loop.call_later(self._pause, self._connect)
        self._pause = min(self._pause * 2, _LONGEST_PAUSE)

    def _explain(self, error: OSError) -> str:
        if error.errno == errno.ENOENT:
            return f"no process listens as {self.process!r} in {self._directory}"
        if error.errno == errno.ECONNREFUSED:
            return f"the process {self.process!r} in {self._directory} died and left its socket"
        return f"cannot connect to {self.process!r} in {self._directory}: {error.strerror}"

    @staticmethod
    def _attach(connection: Connection, target: Target) -> None:
        connection.send(Message(frames.ATTACH, target=target.number, head=Head(path=target.path)))

    def _lost(self, reason: str) -> None:
        self._problem = f"the connection to {self.process!r} is lost: {reason}"
        self._fault = f"; before this connection, {reason}" if reason.startswith(PROTOCOL_BROKEN) else ""
        self._connection = None
        if self._useful and self._loop.time() - self._connected_at >= _LONGEST_PAUSE:
            self._pause = _SHORTEST_PAUSE  # what ends at once, though attached, is asked less and less often
        self._useful = False
        self._waiting.clear()
        self._used = 0
        exchanges, self._exchanges = self._exchanges, {}
        for target in list(self._numbers.values()):
            target.tell(False)
        for exchange in exchanges.values():
            exchange.on_end(ServiceError(503, self._problem))
        self._targets = {path: target for path, target in self._targets.items() if target.users}
        self._numbers = {target.number: target for target in self._targets.values()}
        if self._targets and not self._connection and not self._retry:
            self._connect_later()

    def _take(self, message: Message) -> None:
        if message.kind in (frames.ATTACHED, frames.DETACHED):
            target = self._numbers.get(message.target)
            if target:
                self._useful = self._useful or message.kind == frames.ATTACHED
                target.tell(message.kind == frames.ATTACHED)
            return
        if message.kind == frames.REQUEST_CREDIT:
            if self._connection:
                self._credit(self._connection, message.target)
            return
        exchange = self._exchanges.get(message.stream)
        if exchange is None:
            return
        if message.kind == frames.NEXT:
            if not exchange.cancelled:
                exchange.on_value(Answer(message.target, message.head.mime_type, message.body, message.head.headers))
                self._handled(exchange, message.charge)
            return
        del self._exchanges[message.stream]
        if not exchange.target.users:
            self._drop_unused(exchange.target)
        exchange.on_end(_error(message) if message.kind == frames.ERROR else None)


    def _handled(self, exchange: Exchange, size: int) -> None:
        # What waits for its user from here on is bounded by who keeps it.
        exchange.handled += size
        if exchange.semantic == STREAM and self._connection and exchange.handled >= self._connection.window // 2:
            self._connection.send(Message(frames.CREDIT, exchange.stream, exchange.handled))
            exchange.handled = 0


def _error(message: Message) -> ServiceError:
    """With what `$reason` says beside the text, as who holds a path."""
    texts = (message.body.decode(errors="replace"), message.head.headers.get("$reason"))
    return ServiceError(message.target, ": ".join(text for text in texts if text and isinstance(text, str)))
