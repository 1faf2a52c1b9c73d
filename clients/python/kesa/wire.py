"""A connected socket on the I/O thread's loop."""

from __future__ import annotations

import asyncio
import socket
from typing import Callable

from . import rundir

_PIECE = 256 * 1024
_ROOM = 1024 * 1024
_MOST_REST = 4 * 1024 * 1024


class Wire:
    """Writes what it is given in order and reads until the peer closes. I/O thread only."""

    def __init__(
        self,
        loop: asyncio.AbstractEventLoop,
        sock: socket.socket,
        on_data: Callable[[bytes], None],
        on_end: Callable[[], None],
    ):
        """`on_end` comes once, when the peer has closed; not after `close`."""
        self._loop = loop
        self._socket = sock
        self._on_data = on_data
        self._on_end = on_end
        self._out = bytearray()
        self._closed = False
        self._broken = False
        self._waiting_for_room: list[Callable[[], None]] = []
        self._waiting_for_all: list[asyncio.Future] = []
        loop.add_reader(sock, self._readable)

    @property
    def pending(self) -> int:
        """Bytes that the peer has not taken yet."""
        return len(self._out)

    def peer(self) -> tuple[int, int]:
        """Process and user that connected, or that listen, as the kernel says; whoever writes."""
        return rundir.peer(self._socket)

    def write(self, data: bytes) -> None:
        """Sends, now or when the peer takes it. After the end it does nothing."""
        if self._closed or self._broken:
            return
        waiting = bool(self._out)
        self._out += data
        if not waiting:
            self._flush()

    def when_room(self, then: Callable[[], None]) -> None:
        """Calls `then` once little enough is pending for more, or the end has come; perhaps at once."""
        if len(self._out) <= _ROOM:
            then()
        else:
            self._waiting_for_room.append(then)

    async def drained(self) -> None:
        """Waits until the peer has taken all, or the end has come."""
        if self._out:
            drained = self._loop.create_future()
            self._waiting_for_all.append(drained)
            await drained

    def read(self, wanted: bool) -> None:
        """Whether to go on reading. What is not read the kernel keeps, and the peer waits."""
        if self._closed:
            return
        if wanted:
            self._loop.add_reader(self._socket, self._readable)
        else:
            self._loop.remove_reader(self._socket)

    def rest(self) -> bytes:
        """What has arrived; no more than a socket holds, since somebody may still be writing."""
        rest = bytearray()
        try:
            while len(rest) < _MOST_REST and (data := self._socket.recv(_PIECE)):
                rest += data
        except OSError:
            pass
        return bytes(rest)

    def close(self) -> None:
        if self._closed:
            return
        self._closed = True
        self._drop_output()
        self._loop.remove_reader(self._socket)
        self._socket.close()

    def _flush(self) -> None:
        try:
            while self._out:
                with memoryview(self._out) as view, view[:_PIECE] as piece:
                    sent = self._socket.send(piece, socket.MSG_NOSIGNAL)
                del self._out[:sent]
        except (BlockingIOError, InterruptedError):
            pass
        except OSError:
            # The peer has closed. What it sent before is still read, so the end comes from there.
            self._broken = True
            self._drop_output()
            return
        if self._out:
            self._loop.add_writer(self._socket, self._flush)
        else:
            self._loop.remove_writer(self._socket)
        self._tell_waiting()

    def _drop_output(self) -> None:
        self._out.clear()
        self._loop.remove_writer(self._socket)
        self._tell_waiting()

    def _tell_waiting(self) -> None:
        if self._waiting_for_room and len(self._out) <= _ROOM // 2:
            waiting, self._waiting_for_room = self._waiting_for_room, []
            for then in waiting:
                then()
        if self._waiting_for_all and not self._out:
            futures, self._waiting_for_all = self._waiting_for_all, []
            for drained in futures:
                if not drained.done():
                    drained.set_result(None)

    def _readable(self) -> None:
        try:
            data = self._socket.recv(_PIECE)
        except (BlockingIOError, InterruptedError):
            return
        except OSError:
            data = b""
        if data:
            self._on_data(data)
        elif not self._closed:
            self.close()
            self._on_end()
