"""Values as bodies of a mime type, and back."""

from __future__ import annotations

import json
import math
from dataclasses import dataclass
from typing import Any

from . import cbor
from .errors import ProtocolError, ServiceError
from .names import utf8

JSON = "application/json"
QELBIN = "application/vnd.qelbin"
TEXT = "plain/text"
BYTES = "application/octet-stream"


@dataclass(frozen=True)
class Body:
    """A body whose bytes and mime type the caller chooses, wherever a value may stand."""

    data: bytes
    mime_type: str

    def __post_init__(self) -> None:
        if not isinstance(self.data, (bytes, bytearray)) or not isinstance(self.mime_type, str):
            raise TypeError(f"a body is bytes and the text of a mime type, not {self.data!r:.40} and {self.mime_type!r:.40}")


def text(value: str) -> Body:
    """A body of type plain/text. ValueError if it cannot be UTF-8."""
    return Body(utf8(value), TEXT)


def encode(value: Any, accept: Any = None) -> Body:
    """`Body` as it is, bytes as application/octet-stream, everything else as JSON, or as qelbin if only that is accepted.

    TypeError or ValueError for a value without a form.
    """
    if isinstance(value, Body):
        return value
    if isinstance(value, (bytes, bytearray, memoryview)):
        return Body(bytes(value), BYTES)
    wanted = accept if isinstance(accept, list) else [accept]
    if QELBIN in wanted and JSON not in wanted:
        return Body(cbor.encode(value), QELBIN)
    return Body(utf8(json.dumps(value, ensure_ascii=False, allow_nan=False, separators=(",", ":"))), JSON)


def decode(data: bytes, mime_type: str, until: float = math.inf) -> Any:
    """The value of JSON and qelbin, `str` of plain/text, None of no body at all, `bytes` of every other type.

    ServiceError 400 if the bytes are not what the type says. TimeoutError if qelbin is not read at `until`, of time.monotonic; the
    others are read fast.
    """
    if not data and not mime_type:
        return None
    try:
        if mime_type == JSON:
            return _read_json(data)
        if mime_type == QELBIN:
            return cbor.decode(data, until=until)
        if mime_type == TEXT:
            return data.decode()
    except (ValueError, RecursionError, ProtocolError) as error:
        raise ServiceError(400, f"the body is no {mime_type}: {error}") from None
    return data


def _refuse(constant: str) -> Any:
    raise ValueError(f"{constant} is no number")


def _finite(number: str) -> float:
    value = float(number)
    if math.isinf(value):
        raise ValueError(f"{number:.40} is too large a number")
    return value


_DECODER = json.JSONDecoder(parse_float=_finite, parse_constant=_refuse)


def _read_json(data: bytes) -> Any:
    """What the other libraries take: no text that is half a character, which could not be sent on."""
    value = _DECODER.decode(data.decode())
    if b"\\u" in data:
        utf8(json.dumps(value, ensure_ascii=False))
    return value
