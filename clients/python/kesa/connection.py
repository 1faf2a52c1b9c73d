"""One connection to another process, as client or as server: hello, signs of life, messages."""

from __future__ import annotations

import asyncio
import math
import os
import socket
import time
from typing import Any, Callable

from . import about, frames
from .errors import ProtocolError
from .frames import Message
from .heads import Hello
from .wire import Wire

VERSION = 2
HELLO_SECONDS = 3.0
HEARTBEAT_SECONDS = 5.0
PROTOCOL_BROKEN = "the peer broke the protocol"
_LOOK_SECONDS = 1.0
_TURN_SECONDS = 0.001
_MOST_PENDING = 1024 * 1024  # beside which no ping is answered
_STOOD_STILL_SECONDS = 3.0


class Connection:
    """From its making until `on_end`, which comes once, with a reason, unless this side closes first. I/O thread only.

    `waits` says whether an answer is awaited that makes a silent peer suspicious.
    """

    def __init__(
        self,
        loop: asyncio.AbstractEventLoop,
        sock: socket.socket,
        own: Hello,
        peer_is: str,
        on_message: Callable[[Message], None],
        on_end: Callable[[str], None],
        waits: Callable[[], bool] = lambda: False,
    ):
        self.peer: Hello | None = None
        self._loop = loop
        self._own = own
        self._on_message = on_message
        self._on_end = on_end
        self._waits = waits
        self._decoder = frames.Decoder(peer_is, own.limit)
        self._ended = False
        self._since = about.milliseconds()
        now = time.monotonic()
        self._heard = self._looked = now
        self._waiting_since: float | None = None
        self._pinged: float | None = None
        self._process: int | None = None
        self._is_left = False  # something of the last bytes, for the next turn
        self._wire = Wire(loop, sock, self._received, lambda: self._end("the peer closed the connection"))
        self.pid, self.uid = self._wire.peer() if peer_is == "client" else (0, -1)
        self._hello_timer = loop.call_later(HELLO_SECONDS, self._end, "the peer sent no hello")
        self._look_timer = loop.call_later(_LOOK_SECONDS, self._look)
        self._wire.write(Message(frames.HELLO, head=own).encode())

    @property
    def window(self) -> int:
        """Of this side, for each persistent stream."""
        return self._own.window

    @property
    def limit(self) -> int:
        """The largest message that may be sent."""
        return min(self._own.limit, self.peer.limit) if self.peer else self._own.limit

    def about(self) -> dict[str, Any]:
        """What this process says of it. Before its end."""
        pid, uid = self._wire.peer()
        known = {"connected": self.peer is not None, "pid": pid, "uid": uid, "since": self._since}
        return {**known, "queuedBytes": self._wire.pending}

    def send(self, message: Message) -> None:
        """TypeError, ValueError or OverflowError if it has no form or is too large; then nothing was sent."""
        try:
            data = message.encode(self.limit)
        except OverflowError as error:
            setting = '"comm", "max_message_bytes"'
            is_theirs = self.limit < self._own.limit
            # Named, since the text of a server goes to its client.
            own = f"{setting} of {self._own.process!r}, which sends it, is fixed, so"
            way = f"raise {setting} of {self.peer.process!r}, or" if is_theirs else own
            raise OverflowError(f"{error}; {way} send it in parts") from None
        self._wire.write(data)

    @property
    def pending(self) -> int:
        """Bytes that the peer has not taken yet."""
        return self._wire.pending

    def when_room(self, then: Callable[[], None]) -> None:
        """Calls `then`, perhaps at once, when not too much is pending or the end has come."""
        self._wire.when_room(then)

    async def drained(self) -> None:
        """Waits until the peer has taken everything."""
        await self._wire.drained()

    def close(self) -> None:
        """Nothing is told after it."""
        self._ended = True
        self._hello_timer.cancel()
        self._look_timer.cancel()
        self._wire.close()
        if self._process is not None:
            self._loop.remove_reader(self._process)
            os.close(self._process)
            self._process = None

    def _end(self, reason: str) -> None:
        if not self._ended:
            self.close()
            self._on_end(reason)

    def _received(self, data: bytes) -> None:
        self._heard = time.monotonic()
        self._handle(data, self._heard + _TURN_SECONDS)

    def _handle(self, data: bytes, until: float) -> None:
        # A peer that sends without end gets turns, between which the loop looks at time limits and at others.
        messages = self._decoder.feed(data)
        try:
            for message in messages:
                self._take(message)
                if self._ended:
                    return
                if time.monotonic() >= until:
                    messages.close()
                    self._go_on_later()
                    return
        except ProtocolError as error:
            self._end(f"{PROTOCOL_BROKEN}: {error}")
            return
        if self._is_left:
            self._is_left = False
            self._wire.read(True)

    def _go_on_later(self) -> None:
        if not self._is_left:
            self._is_left = True
            self._wire.read(False)
        self._loop.call_soon(self._go_on)

    def _go_on(self) -> None:
        if not self._ended:
            self._handle(b"", time.monotonic() + _TURN_SECONDS)

    def _take(self, message: Message) -> None:
        if (message.kind == frames.HELLO) != (self.peer is None):
            raise ProtocolError("hello is not the first message, or not the only one")
        if message.kind == frames.HELLO:
            self._hello(message.head)
        elif message.kind == frames.PING:
            if self.pending <= _MOST_PENDING:  # who takes nothing cannot pile them up
                self.send(Message(frames.PONG))
        elif message.kind == frames.GOODBYE:
            self._end(f"the peer closed the connection: {message.head.reason}")
        elif message.kind != frames.PONG:
            self._on_message(message)

    def _hello(self, hello: Hello) -> None:
        if not hello.lowest <= VERSION <= hello.highest:
            self._end(
                f"it speaks versions {hello.lowest} to {hello.highest} of the protocol, this side {VERSION} to {VERSION}; "
                "install releases that have one in common"
            )
            return
        self.peer = hello
        self._hello_timer.cancel()
        if self.pid:
            self._watch_process()

    def _watch_process(self) -> None:
        # A child may hold the socket open; the connection ends with the process that began it all the same.
        try:
            self._process = os.pidfd_open(self.pid)
        except OSError:
            return  # It ended already, so the socket says it; or it cannot be watched.
        self._loop.add_reader(self._process, self._process_ended)

    def _process_ended(self) -> None:
        self._handle(self._wire.rest(), math.inf)
        self._end("the peer's process ended")

    def _look(self) -> None:
        now = time.monotonic()
        stood_still = now - self._looked > _STOOD_STILL_SECONDS
        self._looked = now
        self._look_timer = self._loop.call_later(_LOOK_SECONDS, self._look)
        if not (self._waits() or self._wire.pending) or stood_still:
            self._waiting_since = self._pinged = None
            return
        if self._waiting_since is None:
            self._waiting_since = now
        if self._pinged is not None and self._heard > self._pinged:
            self._pinged = None
        if self._pinged is None:
            if now - max(self._waiting_since, self._heard) >= HEARTBEAT_SECONDS:
                self._pinged = now
                self.send(Message(frames.PING))
        elif now - self._pinged >= HEARTBEAT_SECONDS:
            self._end("the peer is silent")
