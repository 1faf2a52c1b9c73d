"""Process names, locators, paths and globs as text."""

from __future__ import annotations

import re
from dataclasses import dataclass
from urllib.parse import unquote_to_bytes

_NAME_BYTES = frozenset(b"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-")
_PATH_BYTES = _NAME_BYTES | frozenset(b"/~!$&'()*+,;=:@")
_LOCATOR = re.compile(r"ipc://([^/+?#]+)(?:\+([0-9a-f]{16}))?(/[^?#]*)?", re.IGNORECASE)
LONGEST_PATH = 4096
_LONGEST_SERVICE_PATH = 1024
_MOST_SEGMENTS = 64
_OF_GLOBS = re.compile(r"[*?\[\]{}\\]")
_CONTROL = re.compile("[\x00-\x1f\x7f-\x9f]")
_SURROGATE = re.compile("[\ud800-\udfff]")
_NO_SURROGATES = "it must be UTF-8; a surrogate, as here, comes of bytes that are none"


def utf8(text: str) -> bytes:
    """`text` as it travels; ValueError if it has no such form."""
    try:
        return text.encode()
    except UnicodeEncodeError as error:
        around = text[max(0, error.start - 20) : error.start + 20]
        raise ValueError(f"text {around!r}: {_NO_SURROGATES}") from None


def _escape(text: str, plain: frozenset[int]) -> str:
    return "".join(chr(byte) if byte in plain else f"%{byte:02X}" for byte in text.encode())


def encode_process(name: str) -> str:
    """The name of a process as it stands in locators and file names. ValueError if it cannot be one."""
    if _SURROGATE.search(name):
        raise ValueError(f"process name {name!r}: {_NO_SURROGATES}")
    if not 1 <= len(name.encode()) <= 64:
        raise ValueError(f"process name {name!r}: it must have 1 to 64 bytes")
    encoded = _escape(name, _NAME_BYTES)
    return "%2E" + encoded[1:] if encoded.startswith(".") else encoded


@dataclass(frozen=True)
class Locator:
    """`ipc://PROCESS+REALM/path`, decoded. An empty realm means the reader's own."""

    process: str
    realm: str
    path: str

    def __str__(self) -> str:
        realm = f"+{self.realm}" if self.realm else ""
        return f"ipc://{encode_process(self.process)}{realm}{_escape(self.path, _PATH_BYTES)}"


def parse_locator(text: str) -> Locator | None:
    """The locator that `text` is, None if it is none of this kind."""
    match = _LOCATOR.fullmatch(text)
    if not match:
        return None
    try:
        process = unquote_to_bytes(match[1]).decode()
        path = unquote_to_bytes(match[3] or "").decode()
    except UnicodeError:
        return None
    return Locator(process, match[2] or "", path) if 1 <= len(process.encode()) <= 64 else None


def check_path(path: str) -> str:
    """Returns `path` if a service may have it; ValueError says why not."""
    problem = None
    if not isinstance(path, str):
        raise TypeError(f"path {path!r} is no text")
    if not path.startswith("/"):
        problem = "it must start with '/'"
    elif any(segment in ("", ".", "..") for segment in path[1:].split("/")):
        problem = "it must not have an empty, '.' or '..' segment, nor end with '/'"
    elif _CONTROL.search(path):
        problem = "it must not have control characters"
    elif _SURROGATE.search(path):
        problem = _NO_SURROGATES
    elif _OF_GLOBS.search(path):
        problem = "it must not have one of *?[]{}\\, which stand for something else in globs"
    elif len(path.encode()) > _LONGEST_SERVICE_PATH:
        problem = f"it must not be longer than {_LONGEST_SERVICE_PATH} bytes"
    elif path.count("/") > _MOST_SEGMENTS:
        problem = f"it must not have more than {_MOST_SEGMENTS} segments"
    if problem:
        raise ValueError(f"path {path!r} cannot be a service's: {problem}")
    return path


def literal_glob(path: str) -> str:
    """The glob that matches `path` and nothing else."""
    return re.sub(r"([*?\[{\\])", r"\\\1", path)
