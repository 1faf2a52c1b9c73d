"""What this process says of itself to whoever asks, at a path that it provides beside its services: docs/protocol.md."""

from __future__ import annotations

import itertools
import json
import os
import time
import uuid
from typing import TYPE_CHECKING, Any

from . import bodies
from .bodies import Body
from .errors import ServiceError

if TYPE_CHECKING:
    from .server import Server

PATH = "/.well-known/process"
_MOST_NAMED = 1000
_MOST_BYTES = 512 * 1024


def answer(server: Server, command: str, path: str) -> Body:
    """ServiceError when something else is asked for. I/O thread."""
    if path != "/":
        raise ServiceError(404, f"there is no '{path}'")
    if command != "retrieve":
        raise ServiceError(405, f"'{path}' does not serve '{command}'; it serves 'retrieve'")
    connections = [link.about() for link in server.links.values()] + [peer.about() for peer in server.peers]
    room = min(server.hello.limit // 4, _MOST_BYTES)
    return bodies.encode(
        {
            "process": server.hello.process,
            "pid": os.getpid(),
            "uid": os.geteuid(),
            "instance": str(uuid.UUID(bytes=server.hello.instance)),
            "executable": _executable(),
            "started": _started(),
            "backendStarted": server.since,
            "runDirectory": os.fsencode(server.directory).decode(errors="replace"),
            "realm": server.hello.realm,
            "services": _named(sorted(server.services), room),
            "serviceCount": len(server.services),
            "connections": _named(connections, room),
            "connectionCount": len(connections),
            "queuedBytes": sum(connection["queuedBytes"] for connection in connections),
        },
        [bodies.JSON],
    )


def milliseconds() -> int:
    """Since 1970."""
    return time.time_ns() // 1_000_000


def _named(members: list[Any], room: int) -> list[Any]:
    """As many as have room in the answer."""
    sizes = itertools.accumulate(members, lambda used, member: used + len(json.dumps(member)) + 1, initial=0)
    next(sizes)  # of none
    return [member for member, size in zip(itertools.islice(members, _MOST_NAMED), sizes) if size <= room]


def _executable() -> str:
    try:
        return os.readlink(b"/proc/self/exe").decode(errors="replace")
    except OSError:
        return ""


def _started() -> int:
    with open("/proc/self/stat", encoding="utf-8", errors="replace") as file:
        ticks = int(file.read().rpartition(")")[2].split()[19])
    age = time.clock_gettime(time.CLOCK_BOOTTIME) - ticks / os.sysconf("SC_CLK_TCK")
    return milliseconds() - int(age * 1000)
