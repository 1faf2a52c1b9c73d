"""Messages as frames of bytes, and back. Without I/O."""

from __future__ import annotations

import dataclasses
import struct
from dataclasses import dataclass, field
from typing import Iterator

from . import heads
from .errors import ProtocolError

HELLO, ATTACH, ATTACHED, DETACHED, REQUEST, NEXT, ERROR, COMPLETED, CANCEL, PING, PONG, GOODBYE, CREDIT, REQUEST_CREDIT = range(1, 15)
LARGEST_FRAME = 65536
LARGEST_STREAM = 65536
REQUEST_WINDOW = 262144
"""Of a connection: what requests may take of it before the server gives some back."""
_MORE = 1
_MAY_BE_IGNORED = 2
_LARGEST_STATUS = 65535
_MOST_FRAGMENTED = 16
_REQUEST_BYTES = 256  # beside its head and body
_HEADER = struct.Struct("<IBBHII")


@dataclass(frozen=True)
class _Kind:
    name: str
    sender: str
    stream: bool = False
    target: bool = False
    head: bool = False
    body: bool = False


_KINDS = {
    HELLO: _Kind("hello", "both", head=True),
    ATTACH: _Kind("attach", "client", target=True, head=True),
    ATTACHED: _Kind("attached", "server", target=True),
    DETACHED: _Kind("detached", "both", target=True),
    REQUEST: _Kind("request", "client", stream=True, target=True, head=True, body=True),
    NEXT: _Kind("next", "server", stream=True, head=True, body=True),
    ERROR: _Kind("error", "server", stream=True, head=True, body=True),
    COMPLETED: _Kind("completed", "server", stream=True),
    CANCEL: _Kind("cancel", "client", stream=True),
    PING: _Kind("ping", "both"),
    PONG: _Kind("pong", "both"),
    GOODBYE: _Kind("goodbye", "server", head=True),
    CREDIT: _Kind("credit", "client", stream=True, target=True),
    REQUEST_CREDIT: _Kind("request credit", "server", target=True),
}


@dataclass
class Message:
    """One message. `target` of next and error is the status, that of both kinds of credit the bytes."""

    kind: int
    stream: int = 0
    target: int = 0
    head: heads.Head | heads.Hello = field(default_factory=heads.Head)
    body: bytes = b""
    head_size: int | None = field(default=None, compare=False)
    """Of one that came, as its sender wrote it."""

    @property
    def charge(self) -> int:
        """What a value takes of the window of its stream."""
        return _HEADER.size + self._content

    @property
    def cost(self) -> int:
        """What a request takes of the window of requests."""
        return _REQUEST_BYTES + self._content

    @property
    def _content(self) -> int:
        size = self.head_size
        if size is None:
            size = len(self.head.encode())
            if size + len(self.body) > LARGEST_FRAME:
                size = len(dataclasses.replace(self.head, body_size=len(self.body)).encode())
        return size + len(self.body)

    def encode(self, limit: int = heads.DEFAULT_LIMIT) -> bytes:
        """All its frames, one behind the other. ValueError if it has no form; OverflowError if it is larger than `limit`."""
        head = self.head.encode()
        size = len(head) + len(self.body)
        if size <= LARGEST_FRAME:
            flags = _MAY_BE_IGNORED if self.kind == GOODBYE else 0
            return _HEADER.pack(size, self.kind, flags, len(head), self.stream, self.target) + head + self.body
        head = dataclasses.replace(self.head, body_size=len(self.body)).encode()
        if len(head) + len(self.body) > limit:
            raise OverflowError(f"the message has {len(head) + len(self.body)} bytes, more than {limit}")
        return b"".join(self._fragments(head))

    def _fragments(self, head: bytes) -> Iterator[bytes]:
        at = 0
        while at < len(self.body):
            end = at + LARGEST_FRAME - len(head)
            part = self.body[at:end]
            flags = _MORE if end < len(self.body) else 0
            yield _HEADER.pack(len(head) + len(part), self.kind, flags, len(head), self.stream, self.target) + head + part
            at, head = end, b""


class Decoder:
    """Turns the bytes of one peer into messages. `sender` is what the peer is: "client" or "server"."""

    def __init__(self, sender: str, limit: int = heads.DEFAULT_LIMIT):
        self._sender = sender
        self._limit = limit
        self._bytes = bytearray()
        self._fragmented: dict[int, tuple[Message, bytearray]] = {}

    def feed(self, data: bytes) -> Iterator[Message]:
        """The messages that `data` completes. ProtocolError ends the connection; what came before it counts."""
        self._bytes += data
        at = 0
        try:
            while len(self._bytes) - at >= _HEADER.size:
                length, kind, flags, head_size, stream, target = _HEADER.unpack_from(self._bytes, at)
                if length > LARGEST_FRAME:
                    raise ProtocolError(f"frame of {length} bytes, more than {LARGEST_FRAME}")
                end = at + _HEADER.size + length
                if len(self._bytes) < end:
                    break
                payload = bytes(memoryview(self._bytes)[at + _HEADER.size : end])
                at = end
                if kind not in _KINDS:
                    if not flags & _MAY_BE_IGNORED:
                        raise ProtocolError(f"unknown kind {kind}")
                    continue
                message = self._frame(kind, flags, head_size, stream, target, payload)
                if message:
                    yield message
        finally:
            del self._bytes[:at]

    def _frame(self, kind: int, flags: int, head_size: int, stream: int, target: int, payload: bytes) -> Message | None:
        self._check(_KINDS[kind], flags, head_size, stream, target, len(payload))
        head, body = payload[:head_size], payload[head_size:]
        if stream in self._fragmented:
            return self._continued(kind, flags, head_size, stream, target, body)
        try:
            message = Message(kind, stream, target, heads.decode_hello(head) if kind == HELLO else heads.decode(head), body, head_size)
        except ProtocolError as error:
            raise ProtocolError(f"broken head of {_KINDS[kind].name}: {error}") from None
        if not flags & _MORE:
            if isinstance(message.head, heads.Head) and message.head.body_size is not None:
                raise ProtocolError(f"{_KINDS[kind].name} of one frame with the size of a body")
            return message
        if len(payload) != LARGEST_FRAME or message.head.body_size is None:
            raise ProtocolError("a fragment that is not full, or without the size of the body")
        if head_size + message.head.body_size > self._limit:
            raise ProtocolError(f"message of {head_size + message.head.body_size} bytes, more than {self._limit}")
        unfinished = sum(other.head.body_size for other, _ in self._fragmented.values())
        if unfinished and head_size + message.head.body_size + unfinished > self._limit:
            raise ProtocolError(f"unfinished messages of together more than {self._limit} bytes")
        if len(self._fragmented) == _MOST_FRAGMENTED:
            raise ProtocolError(f"more than {_MOST_FRAGMENTED} large messages at once")
        self._fragmented[stream] = (message, bytearray(body))
        return None

    def _continued(self, kind: int, flags: int, head_size: int, stream: int, target: int, part: bytes) -> Message | None:
        message, body = self._fragmented[stream]
        if kind == CANCEL:
            return Message(kind, stream)
        if (kind, target, head_size) != (message.kind, message.target, 0):
            raise ProtocolError(f"{_KINDS[kind].name} within a large message of its stream")
        body += part
        more = bool(flags & _MORE)
        size = message.head.body_size
        if len(body) > size or more == (len(body) == size) or (more and len(part) != LARGEST_FRAME):
            raise ProtocolError("fragments that do not add up to the size of the body")
        if more:
            return None
        del self._fragmented[stream]
        message.body = bytes(body)
        return message

    def _check(self, kind: _Kind, flags: int, head_size: int, stream: int, target: int, length: int) -> None:
        name = kind.name
        if kind.sender not in ("both", self._sender):
            raise ProtocolError(f"{name} from a {self._sender}")
        if flags & ~_MAY_BE_IGNORED and not (flags & ~_MAY_BE_IGNORED == _MORE and kind.body):
            raise ProtocolError(f"{name} with flags {flags}")
        if head_size > min(length, heads.LARGEST_HEAD) or (head_size and not kind.head) or (length > head_size and not kind.body):
            raise ProtocolError(f"{name} with a head of {head_size} in {length} bytes")
        if bool(stream) != kind.stream or (stream > LARGEST_STREAM and name == "request"):
            raise ProtocolError(f"{name} with stream {stream}")
        if kind.target and not target:
            raise ProtocolError(f"{name} without a target")
        if name in ("next", "error"):
            if target > _LARGEST_STATUS:
                raise ProtocolError(f"{name} with status {target}")
        elif target and not kind.target:
            raise ProtocolError(f"{name} with target {target}")
