"""Heads of messages: what stands beside the body, in CBOR."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any

from . import cbor
from .errors import ProtocolError

LARGEST_HEAD = 61440
LEVELS = 32
_REASON = 23
_WINDOW = 24
_LONGEST_NAME = 64
DEFAULT_LIMIT = 16 * 1024 * 1024
DEFAULT_WINDOW = 64 * 1024

_COMMANDS = {0: "retrieve", 1: "update", 2: "delete", 3: "insert"}
_MIME_TYPES = {
    1: "application/json",
    2: "plain/text",
    3: "application/octet-stream",
    4: "application/vnd.msgpack",
    5: "application/vnd.qelbin",
}
_SEMANTICS = {0: "persistent-stream", 1: "single-response", 2: "empty-response", 3: "multi-response"}
_HEADERS = {
    4: "$accept",
    5: "$response-semantic",
    6: "$service-path",
    7: "$client-id",
    8: "$trace-id",
    9: "$auth-token",
    10: "$request-command",
    11: "$request-path",
}
_HEADER_KEYS = {name: key for key, name in _HEADERS.items()}
_WORDS: dict[int, dict[int, str]] = {0: _COMMANDS, 2: _MIME_TYPES, 4: _MIME_TYPES, 5: _SEMANTICS, 10: _COMMANDS}
_WORD_NUMBERS = {key: {word: number for number, word in words.items()} for key, words in _WORDS.items()}


@dataclass
class Head:
    """Of attach, request, next, error and goodbye. What is empty does not travel."""

    command: str = ""
    path: str = ""
    mime_type: str = ""
    body_size: int | None = None
    headers: dict[str, Any] = field(default_factory=dict)
    reason: str = ""

    def encode(self) -> bytes:
        """The bytes; none for a head without members. TypeError or ValueError if it has no form or is too large."""
        for text in (self.command, self.path, self.mime_type, *self.headers):
            if not isinstance(text, str):
                raise TypeError(f"{text!r} is no text")
        out = bytearray()
        for key, text in ((0, self.command), (1, self.path), (2, self.mime_type)):
            if text:
                cbor.write(out, key)
                cbor.write(out, _WORD_NUMBERS.get(key, {}).get(text, text))
        if self.body_size is not None:
            cbor.write(out, 3)
            cbor.write(out, self.body_size)
        if self.reason:
            cbor.write(out, _REASON)
            cbor.write(out, self.reason)
        for name in sorted(self.headers):
            value = self.headers[name]
            key = _HEADER_KEYS.get(name) if isinstance(value, str) else None
            cbor.write(out, name if key is None else key)
            cbor.write(out, value if key is None else _WORD_NUMBERS.get(key, {}).get(value, value), LEVELS - 1)
        if not out:
            return b""
        if len(out) + 2 > LARGEST_HEAD:
            raise ValueError(f"path and headers have {len(out) + 2} bytes, more than {LARGEST_HEAD}")
        return b"\xbf" + bytes(out) + b"\xff"


def decode(data: bytes) -> Head:
    """The head in `data`; ProtocolError if it is broken."""
    head = Head()
    seen = set()
    for key, value in cbor.decode_pairs(data, LEVELS) if data else []:
        if isinstance(key, str):
            head.headers[key] = value
        elif key in _HEADERS:
            head.headers[_HEADERS[key]] = _text(key, value)
        elif key == _REASON:
            head.reason = _text(key, value)
        elif key in (0, 1, 2, 3):
            if key in seen:
                raise ProtocolError(f"member {key} stands twice")
            seen.add(key)
            if key == 3:
                head.body_size = _number(key, value)
            else:
                setattr(head, ("command", "path", "mime_type")[key], _text(key, value))
    return head


@dataclass
class Hello:
    """The first message of each side."""

    lowest: int
    highest: int
    process: str
    realm: str
    instance: bytes
    listeners: list[str]
    limit: int = DEFAULT_LIMIT
    window: int = DEFAULT_WINDOW

    def encode(self) -> bytes:
        """The bytes of the head."""
        members = (self.lowest, self.highest, self.process, self.realm, self.instance, self.listeners, self.limit)
        out = bytearray(b"\xbf")
        for key, member in [*enumerate(members, 16), (_WINDOW, self.window)]:
            if member not in ("", []):
                cbor.write(out, key)
                cbor.write(out, member)
        return bytes(out) + b"\xff"


def decode_hello(data: bytes) -> Hello:
    """The hello in `data`; ProtocolError if it is broken, or lacks versions or instance."""
    members = dict(cbor.decode_pairs(data, LEVELS)) if data else {}
    instance = members.get(20)
    if not isinstance(instance, bytes) or len(instance) != 16 or not any(instance):
        raise ProtocolError("hello without an instance of 16 bytes")
    listeners = members.get(21, [])
    if not isinstance(listeners, list) or any(not isinstance(text, str) for text in listeners):
        raise ProtocolError("hello whose listeners are no texts")
    process = _text(18, members.get(18, ""))
    if len(process.encode()) > _LONGEST_NAME:
        raise ProtocolError(f"the process name has {len(process.encode())} bytes, more than {_LONGEST_NAME}")
    window = _number(_WINDOW, members.get(_WINDOW, DEFAULT_WINDOW))
    if not window:
        raise ProtocolError("hello with a stream window of 0 bytes")
    return Hello(
        _number(16, members.get(16)),
        _number(17, members.get(17)),
        process,
        _text(19, members.get(19, "")),
        instance,
        listeners,
        _number(22, members.get(22, DEFAULT_LIMIT)),
        window,
    )


def _text(key: int, value: Any) -> str:
    if isinstance(value, str):
        return value
    word = _WORDS.get(key, {}).get(value) if isinstance(value, int) and not isinstance(value, bool) else None
    if word is None:
        raise ProtocolError(f"member {key} is neither text nor a known word")
    return word


def _number(key: int, value: Any) -> int:
    if not isinstance(value, int) or isinstance(value, bool) or value < 0:
        raise ProtocolError(f"member {key} is not a number")
    return value
