"""This process as a server: whoever connects to its name may attach to its services and ask them."""

from __future__ import annotations

import asyncio
import logging
import socket
import threading
from collections import deque
from typing import Any

from . import about, frames, requests
from .bodies import TEXT, Body
from .connection import Connection
from .errors import ProtocolError, ServiceError
from .frames import Message
from .heads import Head, Hello
from .link import EMPTY, SINGLE, STREAM, Link
from .names import LONGEST_PATH
from .requests import Handler, Request
from .rundir import Claim

_MOST_ATTACHED = 65536
_MOST_REQUESTS = 1000
_MOST_PENDING = 64 * 1024 * 1024
_MOST_UNDER_WAY = 64
_log = logging.getLogger("kesa")


class Server:
    """Accepts on the socket of a claim, whose owner it is. I/O thread only."""

    def __init__(
        self, loop: asyncio.AbstractEventLoop, claim: Claim, hello: Hello, directory: str, links: dict[str, Link]
    ):
        """`directory` and `links`: what the process says of itself beside this."""
        self.loop = loop
        self.hello = hello
        self.directory = directory
        self.links = links
        self.since = about.milliseconds()
        self.peers: set[_Peer] = set()
        self.services: dict[str, Handler] = {}
        self.running = 0
        self._claim = claim
        loop.add_reader(claim.socket, self._accept)

    def provide(self, path: str, handler: Handler) -> None:
        """Who has attached to `path` is told."""
        if self.provides(path):
            self._tell_gone(path)
        self.services[path] = handler
        self._tell_there(path)

    def withdraw(self, path: str) -> None:
        """Ends all requests of `path`."""
        if self.services.pop(path, None):
            self._tell_gone(path)
            if self.provides(path):
                self._tell_there(path)

    def provides(self, path: str) -> bool:
        """What the process says of itself makes way for a service at that path."""
        return path in self.services or path == about.PATH

    def _tell_there(self, path: str) -> None:
        for peer in self.peers:
            peer.provided(path)

    def _tell_gone(self, path: str) -> None:
        for peer in self.peers:
            peer.withdrawn(path)

    async def close(self) -> None:
        """Withdraws everything, sends what is pending, gives the name back."""
        for path in list(self.services):
            self.withdraw(path)
        drained = [asyncio.create_task(peer.connection.drained()) for peer in self.peers]
        if drained:
            await asyncio.wait(drained, timeout=1.0)
        self.loop.remove_reader(self._claim.socket)
        self._claim.release()
        for task in drained:
            task.cancel()
        for peer in self.peers:
            peer.connection.close()
        self.peers.clear()

    def forget(self, peer: _Peer) -> None:
        self.peers.discard(peer)

    def _accept(self) -> None:
        try:
            sock, _ = self._claim.socket.accept()
        except BlockingIOError:
            return
        except OSError as error:
            _log.warning("cannot accept a client: %s", error)
            self.loop.remove_reader(self._claim.socket)
            self.loop.call_later(0.1, self._accept_again)
            return
        sock.setblocking(False)
        self.peers.add(_Peer(self, sock, self.hello))

    def _accept_again(self) -> None:
        if self._claim.socket.fileno() >= 0:
            self.loop.add_reader(self._claim.socket, self._accept)


class _Peer:
    """One client."""

    def __init__(self, server: Server, sock: socket.socket, hello: Hello):
        self.server = server
        self.open: dict[int, _Serving] = {}
        self._paths: dict[int, str] = {}
        self._used = self._handled = 0  # of the window of requests
        self.connection = Connection(server.loop, sock, hello, "client", self._take, self._lost)

    def provided(self, path: str) -> None:
        for number, wanted in self._paths.items():
            if wanted == path:
                self.connection.send(Message(frames.ATTACHED, target=number))

    def withdrawn(self, path: str) -> None:
        for number, wanted in self._paths.items():
            if wanted == path:
                self._end_all(number, "the service was withdrawn")
                self.connection.send(Message(frames.DETACHED, target=number))

    def about(self) -> dict[str, Any]:
        """What this process says of it."""
        named = {"process": self.connection.peer.process} if self.connection.peer else {}
        return {"openedBy": "peer", **named, "openRequests": len(self.open), **self.connection.about()}

    def _lost(self, reason: str) -> None:
        for serving in list(self.open.values()):
            serving.cancel(reason)
        self.server.forget(self)

    def _end_all(self, number: int, reason: str) -> None:
        for serving in [serving for serving in self.open.values() if serving.target == number]:
            serving.cancel(reason)

    def _take(self, message: Message) -> None:
        if message.kind == frames.ATTACH:
            self._attach(message.target, message.head.path)
        elif message.kind == frames.DETACHED:
            if self._paths.pop(message.target, None) is not None:
                self._end_all(message.target, "cancelled")
        elif message.kind == frames.REQUEST:
            self._request(message)
        elif message.stream in self.open:
            serving = self.open[message.stream]
            serving.credit(message.target) if message.kind == frames.CREDIT else serving.cancel("cancelled")

    def _attach(self, number: int, path: str) -> None:
        if number in self._paths:
            raise ProtocolError(f"attach with number {number}, which is in use")
        if len(self._paths) == _MOST_ATTACHED:
            raise ProtocolError(f"more than {_MOST_ATTACHED} paths attached")
        if not 1 <= len(path.encode()) <= LONGEST_PATH:
            raise ProtocolError(f"attach of a path that has not 1 to {LONGEST_PATH} bytes")
        self._paths[number] = path
        if self.connection.pending > _MOST_PENDING:
            raise ProtocolError(f"attach while {self.connection.pending} bytes of answers are not taken")
        if self.server.provides(path):
            self.connection.send(Message(frames.ATTACHED, target=number))

    def _request(self, message: Message) -> None:
        if self._used >= frames.REQUEST_WINDOW:
            raise ProtocolError("more requests than it has credit for")
        self._used += message.cost
        self._serve(message)
        self._handled += message.cost
        if self._handled >= frames.REQUEST_WINDOW // 2:
            size, self._handled = self._handled, 0
            # A client that takes no answers gets no credit for further requests.
            self.connection.when_room(lambda: self._give_credit(size))

    def _give_credit(self, size: int) -> None:
        self._used -= size
        self.connection.send(Message(frames.REQUEST_CREDIT, target=size))

    def _serve(self, message: Message) -> None:
        if message.stream in self.open:
            raise ProtocolError(f"request with number {message.stream}, which is in use")
        head = message.head
        semantic = head.headers.get("$response-semantic", "")
        client = f"{self.connection.peer.process}:{self.connection.pid}"
        headers = {**head.headers, "$client-id": client}
        uid, follows = self.connection.uid, semantic == STREAM
        request = Request(head.command, head.path or "/", message.body, head.mime_type, headers, client, uid, follows)
        serving = self.open[message.stream] = _Serving(self, message.stream, message.target, request, semantic)
        path = self._paths.get(message.target, "")
        handler = self.server.services.get(path)
        if not handler and path == about.PATH:
            serving.answer_about(request)
        elif not handler:
            serving.finish(ServiceError(503, "the service is not provided"))
        elif self.server.running >= _MOST_REQUESTS:
            serving.finish(ServiceError(503, f"{_MOST_REQUESTS} requests are being answered"))
        else:
            self.server.running += 1
            requests.run(handler, request, serving)


class _Serving:
    """One open request of one client. `value` and `end` come from its thread, everything else from the I/O thread."""

    def __init__(self, peer: _Peer, stream: int, target: int, request: Request, semantic: str):
        self.target = target
        self._peer = peer
        self._stream = stream
        self._request = request
        self._semantic = semantic
        self._slots = threading.Semaphore(_MOST_UNDER_WAY)
        self._used = 0  # of the window of a persistent stream
        self._waiting: deque[Message] = deque()  # for credit
        self._last: Message | None = None  # the end behind them
        self._held = 0  # slots of values that have not left

    def value(self, body: Body) -> bool:
        self._slots.acquire()
        if self._request.cancelled.is_set():
            return False
        try:
            self._peer.server.loop.call_soon_threadsafe(self._value, body)
        except RuntimeError:
            return False  # The loop is closed, with the connection.
        return True

    def end(self, body: Body | None, error: ServiceError | None) -> None:
        try:
            self._peer.server.loop.call_soon_threadsafe(self._end, body, error)
        except RuntimeError:
            pass  # The loop is closed, with the connection.

    def answer_about(self, request: Request) -> None:
        """With what the process says of itself."""
        error = None
        try:
            self._send(about.answer(self._peer.server, request.command, request.path))
        except ServiceError as said:
            error = said
        self.finish(error)

    def cancel(self, reason: str) -> None:
        """Its handler hears it; what that still says is dropped."""
        self._waiting.clear()
        self._release_slots()
        if self._last:
            self._leave(self._last)
        else:
            self.finish(ServiceError(503, reason))

    def credit(self, size: int) -> None:
        """The client has handled so much."""
        if size > self._used:
            raise ProtocolError("more credit than a stream has taken")
        self._used -= size
        while self._waiting and self._used < self._peer.connection.peer.window:
            self._transmit(self._waiting.popleft())
        self._release_slots()
        if self._last and not self._waiting:
            self._leave(self._last)

    def finish(self, error: ServiceError | None) -> None:
        """Sends the one end of the request."""
        if self._is_over():
            return
        self._request.cancelled.set()
        self._last = self._end_message(error)
        if not self._waiting:
            self._leave(self._last)

    def _is_over(self) -> bool:
        return self._last is not None or self._peer.open.get(self._stream) is not self

    def _leave(self, last: Message) -> None:
        if self._peer.open.pop(self._stream, None):
            self._peer.connection.send(last)

    def _end_message(self, error: ServiceError | None) -> Message:
        if not error:
            return Message(frames.COMPLETED, self._stream)
        text = error.reason.encode(errors="replace")
        message = Message(frames.ERROR, self._stream, error.status, Head(mime_type=TEXT if text else ""), text)
        try:
            message.encode(self._peer.connection.limit)
            return message
        except (OverflowError, ValueError):
            return Message(frames.ERROR, self._stream, error.status)

    def _value(self, body: Body) -> None:
        self._send(body)
        self._held += 1
        self._release_slots()

    def _release_slots(self) -> None:
        # The handler goes on when what it has said may leave.
        if not self._waiting:
            for _ in range(self._held):
                self._peer.connection.when_room(self._slots.release)
            self._held = 0

    def _end(self, body: Body | None, error: ServiceError | None) -> None:
        self._peer.server.running -= 1
        if body is not None:
            self._send(body)
        self.finish(error)

    def _send_value(self, value: Message) -> None:
        connection = self._peer.connection
        if self._semantic == STREAM:
            if self._waiting or self._used >= connection.peer.window:
                value.encode(connection.limit)  # it is refused now
                self._waiting.append(value)
                return
        self._transmit(value)

    def _transmit(self, value: Message) -> None:
        self._used += value.charge if self._semantic == STREAM else 0
        self._peer.connection.send(value)

    def _send(self, body: Body) -> None:
        if self._is_over():
            return
        if self._semantic != EMPTY:
            try:
                self._send_value(Message(frames.NEXT, self._stream, 200, Head(mime_type=body.mime_type), body.data))
            except OverflowError as problem:
                self.finish(ServiceError(413, str(problem)))
            except (ValueError, TypeError) as problem:
                self.finish(ServiceError(500, f"the answer has no form: {problem}"))
        if self._semantic in (SINGLE, EMPTY):
            self.finish(None)
