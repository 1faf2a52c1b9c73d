"""The part of CBOR (RFC 8949) that the protocol uses: heads, and bodies of type application/vnd.qelbin."""

from __future__ import annotations

import math
import struct
import time
from typing import Any

from .errors import ProtocolError
from .names import utf8

LEVELS = 128
_BREAK = object()
_SIMPLE = {20: False, 21: True, 22: None}


def encode(value: Any) -> bytes:
    """`value` with indefinite maps and arrays and shortest integers. TypeError or ValueError if it has no form."""
    out = bytearray()
    write(out, value)
    return bytes(out)


def write(out: bytearray, value: Any, levels: int = LEVELS) -> None:
    """Appends `value` to `out`. TypeError or ValueError if whoever reads it would refuse it."""
    if levels <= 0 and isinstance(value, (dict, list, tuple)):
        raise ValueError("a value is nested too deeply")
    if value is None or isinstance(value, bool):
        out.append({False: 0xF4, True: 0xF5, None: 0xF6}[value])
    elif isinstance(value, int):
        _write_number(out, 0 if value >= 0 else 1, value if value >= 0 else -1 - value)
    elif isinstance(value, float):
        out += struct.pack(">Bd", 0xFB, value)
    elif isinstance(value, str):
        text = utf8(value)
        _write_number(out, 3, len(text))
        out += text
    elif isinstance(value, (bytes, bytearray, memoryview)):
        _write_number(out, 2, len(value))
        out += value
    elif isinstance(value, dict):
        out.append(0xBF)
        for key, member in value.items():
            if not isinstance(key, str):
                raise TypeError(f"the key {key!r} is no text")
            write(out, key)
            write(out, member, levels - 1)
        out.append(0xFF)
    elif isinstance(value, (list, tuple)):
        out.append(0x9F)
        for member in value:
            write(out, member, levels - 1)
        out.append(0xFF)
    else:
        raise TypeError(f"a value of type {type(value).__name__} cannot be sent")


def _write_number(out: bytearray, major: int, number: int) -> None:
    major <<= 5
    if number < 24:
        out.append(major | number)
    elif number < 1 << 8:
        out += struct.pack(">BB", major | 24, number)
    elif number < 1 << 16:
        out += struct.pack(">BH", major | 25, number)
    elif number < 1 << 32:
        out += struct.pack(">BI", major | 26, number)
    elif number < 1 << 64:
        out += struct.pack(">BQ", major | 27, number)
    else:
        raise ValueError(f"{number} has more than 64 bits")


def decode(data: bytes, levels: int = LEVELS, until: float = math.inf) -> Any:
    """The one value in `data`; ProtocolError if it is broken, nested deeper than `levels`, or followed by more.

    TimeoutError when `until`, of time.monotonic, has come before its end.
    """
    reader = _Reader(data, until)
    value = reader.value(levels)
    reader.finish()
    return value


def decode_pairs(data: bytes, levels: int) -> list[tuple[Any, Any]]:
    """The members of the one map in `data`, in their order, equal keys as often as they stand there."""
    reader = _Reader(data)
    while reader.peek() >> 5 == 6:
        reader.initial()
    major, number = reader.initial()
    if major != 5:
        raise ProtocolError("it is not a map")
    pairs = reader.pairs(number, levels - 1)
    reader.finish()
    for key, _ in pairs:
        if not isinstance(key, str) and (not isinstance(key, int) or isinstance(key, bool) or key < 0):
            raise ProtocolError("a key is neither text nor a number")
    return pairs


class _Reader:
    def __init__(self, data: bytes, until: float = math.inf):
        self._data = data
        self._until = until
        self._at = 0

    def peek(self) -> int:
        if self._at >= len(self._data):
            raise ProtocolError("it ends too early")
        return self._data[self._at]

    def finish(self) -> None:
        if self._at != len(self._data):
            raise ProtocolError("bytes follow its end")

    def _take(self, size: int) -> bytes:
        taken = self._data[self._at : self._at + size]
        if len(taken) != size:
            raise ProtocolError("it ends too early")
        self._at += size
        return taken

    def initial(self) -> tuple[int, int | None]:
        """Major type and number; None is an indefinite length."""
        byte = self._take(1)[0]
        info = byte & 31
        if info < 24:
            return byte >> 5, info
        if info <= 27:
            return byte >> 5, int.from_bytes(self._take(1 << (info - 24)), "big")
        if info == 31:
            return byte >> 5, None
        raise ProtocolError("it is not CBOR")

    def value(self, levels: int) -> Any:
        value = self._item(levels)
        if value is _BREAK:
            raise ProtocolError("an end without a beginning")
        return value

    def _item(self, levels: int) -> Any:
        if self._until < math.inf and time.monotonic() > self._until:
            raise TimeoutError
        at = self._at
        major, number = self.initial()
        while major == 6:
            at = self._at
            major, number = self.initial()
        if major == 7:
            return self._simple(at, number)
        if number is None and major not in (4, 5):
            raise ProtocolError("a string or number of indefinite length")
        if major == 0:
            return number
        if major == 1:
            return -1 - number
        if major == 2:
            return self._take(number)
        if major == 3:
            try:
                return self._take(number).decode()
            except UnicodeDecodeError:
                raise ProtocolError("text that is not UTF-8") from None
        if levels <= 0:
            raise ProtocolError("nested too deeply")
        return self._array(number, levels - 1) if major == 4 else self._map(number, levels - 1)

    def _simple(self, at: int, number: int | None) -> Any:
        if number is None:
            return _BREAK
        width = self._at - at
        if width >= 3:
            return struct.unpack({3: ">e", 5: ">f", 9: ">d"}[width], self._data[at + 1 : self._at])[0]
        if width == 1 and number in _SIMPLE:
            return _SIMPLE[number]
        raise ProtocolError("an unknown simple value")

    def _array(self, size: int | None, levels: int) -> list:
        values: list = []
        while size is None or len(values) < size:
            value = self._item(levels)
            if value is _BREAK:
                if size is None:
                    break
                raise ProtocolError("an end within an array")
            values.append(value)
        return values

    def _map(self, size: int | None, levels: int) -> dict:
        pairs = self.pairs(size, levels)
        if any(not isinstance(key, str) for key, _ in pairs):
            raise ProtocolError("a key that is not text")
        return dict(pairs)

    def pairs(self, size: int | None, levels: int) -> list[tuple[Any, Any]]:
        """The members of a map whose beginning has been read."""
        pairs: list[tuple[Any, Any]] = []
        while size is None or len(pairs) < size:
            key = self._item(levels)
            if key is _BREAK:
                if size is None:
                    break
                raise ProtocolError("an end within a map")
            pairs.append((key, self.value(levels)))
        return pairs
