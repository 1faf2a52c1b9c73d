"""A connected socket on the I/O thread's loop."""

from __future__ import annotations

import asyncio
import socket
import struct
from typing import Callable

_PIECE = 256 * 1024
_ROOM = 1024 * 1024
_CREDENTIALS = struct.Struct("3i")


class Wire:
    """Writes what it is given in order and reads until the peer closes. I/O thread only.

    `writer` is the pid of the process that wrote the first bytes, 0 if the kernel does not say.
    """

    def __init__(
        self,
        loop: asyncio.AbstractEventLoop,
        sock: socket.socket,
        on_data: Callable[[bytes], None],
        on_end: Callable[[], None],
        who_writes: bool = False,
    ):
        """`on_end` comes once, when the peer has closed; not after `close`. `who_writes`: ask the kernel for `writer`."""
        self._loop = loop
        self._socket = sock
        self._on_data = on_data
        self._on_end = on_end
        self._out = bytearray()
        self._closed = False
        self._broken = False
        self.writer = 0
        self._who_writes = who_writes
        self._waiting_for_room: list[Callable[[], None]] = []
        self._waiting_for_all: list[asyncio.Future] = []
        loop.add_reader(sock, self._readable)

    @property
    def pending(self) -> int:
        """Bytes that the peer has not taken yet."""
        return len(self._out)

    def peer(self) -> tuple[int, int]:
        """Process and user, as the kernel says."""
        pid, uid, _ = _CREDENTIALS.unpack(
            self._socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, _CREDENTIALS.size)
        )
        return self.writer or pid, uid

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

    def read_rest(self) -> None:
        """Hands over what has arrived."""
        while not self._closed:
            try:
                data = self._socket.recv(_PIECE)
            except OSError:
                return
            if not data:
                return
            self._on_data(data)

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
            data = self._read()
        except (BlockingIOError, InterruptedError):
            return
        except OSError:
            data = b""
        if data:
            self._on_data(data)
        elif not self._closed:
            self.close()
            self._on_end()

    def _read(self) -> bytes:
        if not self._who_writes:
            return self._socket.recv(_PIECE)
        data, extras, _, _ = self._socket.recvmsg(_PIECE, socket.CMSG_SPACE(_CREDENTIALS.size))
        self._who_writes = False
        for level, kind, extra in extras:
            if (level, kind) == (socket.SOL_SOCKET, socket.SCM_CREDENTIALS):
                self.writer, _, _ = _CREDENTIALS.unpack(extra)
        return data
