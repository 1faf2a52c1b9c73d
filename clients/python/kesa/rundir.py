"""The run directory: where processes of a host meet, and who has which name."""

from __future__ import annotations

import errno
import fcntl
import functools
import itertools
import os
import secrets
import socket

from .errors import KesaError, NameTaken
from .names import encode_process

_SYSTEM = "/run/kesa"
_LONGEST_ADDRESS = 107
_BACKLOG = 4096
_numbers = itertools.count()


def find() -> str:
    """$KESA_RUN_DIR, else /run/kesa if this user may write there or make it, else $XDG_RUNTIME_DIR/kesa, else /run/kesa."""
    return os.environ.get("KESA_RUN_DIR") or _find_shared()


@functools.cache  # a process stays where it is
def _find_shared() -> str:
    def may_write(path: str) -> bool:
        return os.access(path, os.W_OK | os.X_OK, effective_ids=True)

    base = os.environ.get("XDG_RUNTIME_DIR")
    is_system = may_write(_SYSTEM) or (not os.path.lexists(_SYSTEM) and may_write(os.path.dirname(_SYSTEM)))
    return os.path.join(base, "kesa") if base and not is_system else _SYSTEM


def connect(directory: str, process: str) -> socket.socket:
    """A connected, non-blocking socket to `process`. OSError says why not."""
    path = os.path.join(directory, encode_process(process) + ".sock")
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    file = None
    try:
        sock.setblocking(False)
        if len(os.fsencode(path)) > _LONGEST_ADDRESS:
            file = os.open(path, os.O_PATH | os.O_CLOEXEC)
            path = f"/proc/self/fd/{file}"
        sock.connect(path)
        return sock
    except BaseException:
        sock.close()
        raise
    finally:
        if file is not None:
            os.close(file)


def realm(directory: str) -> str:
    """Which directory this is; empty if nobody has made it one yet."""
    try:
        with open(os.path.join(directory, "realm"), encoding="ascii") as file:
            return file.read().strip()
    except FileNotFoundError:
        return ""


class Claim:
    """A name that this process has, from its making until `release`. `socket` listens."""

    def __init__(self, directory: str, name: str, mode: int = 0o660):
        """NameTaken if a living process has `name`; KesaError if the directory cannot be used."""
        encoded = encode_process(name)
        self.name = name
        self._path = os.path.join(directory, encoded + ".sock")
        try:
            self.realm = _make(directory)
            self._lock = _lock(os.path.join(directory, encoded + ".lock"), name)
        except OSError as error:
            raise KesaError(f"cannot claim the name {name!r} in {directory}: {error}") from error
        try:
            self.socket = _listen(directory, self._path, mode)
        except OSError as error:
            os.close(self._lock)
            raise KesaError(f"cannot listen as {name!r} in {directory}: {error}") from error

    def release(self) -> None:
        """Removes the socket, then gives the name back."""
        try:
            os.unlink(self._path)
        except FileNotFoundError:
            pass
        self.socket.close()
        os.close(self._lock)


def _make(directory: str) -> str:
    try:
        os.mkdir(directory, 0o755)
    except FileExistsError:
        pass
    if not realm(directory):
        draft = os.path.join(directory, f".realm.{os.getpid()}.{next(_numbers)}.tmp")
        with open(draft, "x", encoding="ascii") as file:
            os.fchmod(file.fileno(), 0o644)
            file.write(secrets.token_hex(8) + "\n")
        try:
            os.link(draft, os.path.join(directory, "realm"))
        except FileExistsError:
            pass
        finally:
            os.unlink(draft)
    return realm(directory)


def _lock(path: str, name: str) -> int:
    lock = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        os.ftruncate(lock, 0)
        os.pwrite(lock, f"{os.getpid()}\n".encode(), 0)
        return lock
    except OSError as error:
        text = os.pread(lock, 32, 0).decode(errors="replace").strip()
        os.close(lock)
        if error.errno == errno.EWOULDBLOCK:
            pid = int(text) if text.isdecimal() else None
            raise NameTaken(f"the name {name!r} is taken by process {text or 'unknown'}; choose another", pid) from None
        raise


def _listen(directory: str, path: str, mode: int) -> socket.socket:
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    file = None
    draft = os.path.join(directory, f".{os.getpid()}.{next(_numbers)}.tmp")
    try:
        address = draft
        if len(os.fsencode(draft)) > _LONGEST_ADDRESS:
            file = os.open(directory, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
            address = f"/proc/self/fd/{file}/{os.path.basename(draft)}"
        sock.bind(address)
        os.chmod(draft, mode)
        sock.setblocking(False)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
        sock.listen(_BACKLOG)
        os.rename(draft, path)
        return sock
    except BaseException:
        sock.close()
        raise
    finally:
        if file is not None:
            os.close(file)
