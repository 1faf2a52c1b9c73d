"""The run directory: where processes of a host meet, and who has which name."""

from __future__ import annotations

import errno
import fcntl
import functools
import os
import pwd
import re
import secrets
import shlex
import socket
import stat
import struct

from . import rights
from .errors import KesaError, NameTaken
from .names import encode_process

_SYSTEM = "/run/kesa"
_LONGEST_ADDRESS = 107
_BACKLOG = 4096
_CREDENTIALS = struct.Struct("3i")  # pid, uid, gid


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
        file = os.open(path, os.O_PATH | os.O_CLOEXEC | os.O_NOFOLLOW)
        if stat.S_ISREG(os.fstat(file).st_mode):  # keeps the name for its user
            raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), path)
        sock.connect(f"/proc/self/fd/{file}")  # a socket's address has 108 bytes, whatever the path has
        _check_listener(sock, os.fstat(file).st_uid, directory, process)
        return sock
    except BaseException:
        sock.close()
        raise
    finally:
        if file is not None:
            os.close(file)


def peer(sock: socket.socket) -> tuple[int, int]:
    """Process and user that connected, or that listen, as the kernel says; whoever writes."""
    pid, uid, _ = _CREDENTIALS.unpack(sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, _CREDENTIALS.size))
    return pid, uid


def _check_listener(sock: socket.socket, maker: int, directory: str, process: str) -> None:
    """OSError if it is not who made the socket, or not whose name it is; root may do both for others."""
    pid, uid = peer(sock)
    if uid == 0:
        return
    listener = f"process {pid}, which listens by it, of the user {_user(uid)!r}; end that one"
    if uid != maker:
        raise PermissionError(errno.EPERM, f"its socket is of the user {_user(maker)!r}, and {listener}")
    lock = os.path.join(directory, encode_process(process) + ".lock")
    try:
        owner = os.lstat(lock)
        sticky = os.stat(directory).st_mode & stat.S_ISVTX
    except FileNotFoundError:
        return
    if sticky and stat.S_ISREG(owner.st_mode) and owner.st_uid != uid:
        name = _user(owner.st_uid)
        raise PermissionError(
            errno.EPERM,
            f"the name is of the user {name!r}, whose lock file is there, and {listener} and remove its socket, or, to "
            f"give it the name, have {name} remove {shlex.quote(lock)}",
        )


def _user(uid: int) -> str:
    try:
        return pwd.getpwuid(uid).pw_name
    except KeyError:
        return str(uid)


def realm(directory: str) -> str:
    """Which directory this is; empty if nobody has made it one yet. KesaError if the file is none; OSError."""
    path = os.path.join(directory, "realm")
    try:
        file = os.open(path, os.O_RDONLY | os.O_CLOEXEC | os.O_NOFOLLOW | os.O_NONBLOCK)
    except FileNotFoundError:
        return ""
    except OSError as error:
        if error.errno not in (errno.ELOOP, errno.ENXIO):
            raise
        content = b""
    else:
        try:
            content = os.read(file, 64) if stat.S_ISREG(os.fstat(file).st_mode) else b""
        finally:
            os.close(file)
    if not re.fullmatch(rb"[0-9a-f]{16}\n?", content):
        raise KesaError(f"{path} does not hold 16 hex digits; remove it when no process uses the directory")
    return content.decode().strip()


def check(directory: str) -> None:
    """KesaError if it has a realm that is none; what else is wrong with it is said by who connects."""
    try:
        realm(directory)
    except OSError:
        pass


class Claim:
    """A name that this process has, from its making until `release`. `socket` listens."""

    def __init__(self, directory: str, name: str, mode: int = 0o660):
        """NameTaken if a living process has `name`; KesaError if the directory cannot be used."""
        encoded = encode_process(name)
        self.name = name
        self._path = os.path.join(directory, encoded + ".sock")
        lock = os.path.join(directory, encoded + ".lock")
        try:
            self.realm = _make(directory)
            self._lock = _lock(directory, lock, name)
        except OSError as error:
            advice = _advise(directory, lock, error)
            raise KesaError(f"cannot claim the name {name!r} in {directory}: {error}; {advice}") from error
        try:
            self.socket = _listen(directory, self._path, mode)
        except OSError as error:
            _unlock(self._lock)
            raise KesaError(f"cannot listen as {name!r} in {directory}: {error}") from error

    def release(self) -> None:
        """Gives the name back. A socket that cannot be removed is left, as by a process that is killed."""
        try:
            _remove(self._path, os.fstat(self._lock).st_uid)
        except OSError:
            pass
        finally:
            self.socket.close()
            _unlock(self._lock)


def _unlock(lock: int) -> None:
    """Nobody has the name: the file keeps no process's number."""
    try:
        os.ftruncate(lock, 0)
    except OSError:
        pass  # the number is for people; only the lock counts
    os.close(lock)


def _make(directory: str) -> str:
    try:
        os.mkdir(directory, 0o755)
    except FileExistsError:
        pass
    _check_trust(directory)
    if not realm(directory):
        path = os.path.join(directory, "realm")
        draft = _draft(path)
        with open(draft, "x", encoding="ascii") as file:
            os.fchmod(file.fileno(), 0o644)
            file.write(secrets.token_hex(8) + "\n")
        try:
            os.link(draft, path)
        except FileExistsError:
            pass
        finally:
            os.unlink(draft)
    return realm(directory)


def _draft(path: str) -> str:
    """What a file is called until it is ready and gets `path`: who could foresee it could put a file of his there first."""
    directory, file = os.path.split(path)
    return os.path.join(directory, f".{file.removesuffix('.sock')[:40]}.{os.getpid()}.{secrets.token_hex(8)}.tmp")


def _check_trust(directory: str) -> None:
    """KesaError if other users could replace what this process makes there."""
    folder = os.stat(directory)
    user = os.geteuid()
    is_person = folder.st_uid >= rights.FIRST_PERSON
    for_group = folder.st_mode & stat.S_IWGRP and folder.st_gid != 0 and (folder.st_gid != folder.st_uid or not is_person)
    for_all = folder.st_mode & stat.S_IWOTH
    if not os.access(directory, os.W_OK | os.X_OK, effective_ids=True):
        return  # said by who makes a file there
    if is_person and folder.st_uid != user and (user == 0 or for_all):
        advice = f"let root own it (chown root {shlex.quote(directory)})"
    elif (for_group or for_all) and not folder.st_mode & stat.S_ISVTX:
        advice = f"set its sticky bit (chmod +t {shlex.quote(directory)})"
    else:
        return
    raise KesaError(
        f"other users could replace what this process makes in {directory}; {advice}, or name another directory: "
        "connect(run_dir=...) or $KESA_RUN_DIR"
    )


def _lock(directory: str, path: str, name: str) -> int:
    lock = _open_lock(directory, path)
    try:
        if not stat.S_ISREG(os.fstat(lock).st_mode) or os.fstat(lock).st_nlink > 1:
            raise OSError(errno.EINVAL, "it is no regular file of one name", path)
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        if not os.path.samestat(os.fstat(lock), os.lstat(path)):
            raise OSError(errno.ESTALE, "somebody has just removed it; try again", path)
        os.ftruncate(lock, 0)
        os.pwrite(lock, f"{os.getpid()}\n".encode(), 0)
        return lock
    except OSError as error:
        text = os.pread(lock, 32, 0).decode(errors="replace").strip() if error.errno == errno.EWOULDBLOCK else ""
        os.close(lock)
        if error.errno == errno.EWOULDBLOCK:
            pid = int(text) if text.isdecimal() else None
            raise NameTaken(
                f"the name {name!r} is taken by {_holder(pid, path)}; end that one and start this one again, or choose "
                "another name",
                pid,
            ) from None
        raise


def _open_lock(directory: str, path: str) -> int:
    flags = os.O_RDWR | os.O_CLOEXEC | os.O_NOFOLLOW | os.O_NONBLOCK
    try:
        return os.open(path, flags)
    except FileNotFoundError:
        pass
    try:
        lock = os.open(path, flags | os.O_CREAT | os.O_EXCL, 0o600)
    except FileExistsError:
        return os.open(path, flags)
    folder = os.stat(directory)
    try:
        os.fchown(lock, folder.st_uid if os.geteuid() == 0 else -1, folder.st_gid)
    except OSError:
        pass  # of a group that is not this user's; it may have it all the same
    # with the sticky bit nobody else could replace the file, and a name is of the user who had it first
    shared = folder.st_mode & stat.S_IWGRP and not folder.st_mode & stat.S_ISVTX and os.fstat(lock).st_gid == folder.st_gid
    os.fchmod(lock, 0o660 if shared else 0o600)
    return lock


def _holder(pid: int | None, path: str) -> str:
    try:
        os.kill(pid or 1, 0)
    except ProcessLookupError:
        return f"a child that process {pid} had made before it ended (fuser {shlex.quote(path)} names it)"
    except OSError:
        pass  # it is another user's
    return f"process {pid or 'unknown'}"


def _advise(directory: str, path: str, error: OSError) -> str:
    """What to do against it."""
    named = "name another directory: connect(run_dir=...) or $KESA_RUN_DIR"
    if error.filename == path and os.path.lexists(path):
        status = os.lstat(path)
        owner = _user(status.st_uid)
        if path.endswith(".lock") and os.stat(directory).st_mode & stat.S_ISVTX and status.st_uid != os.geteuid():
            place = path.removesuffix(".lock") + ".sock"
            files = " and ".join(shlex.quote(file) for file in (path, place) if os.path.lexists(file))
            return (
                f"the name is of the user {owner!r}, whose lock file it is: run as that user, or take another name; if it is "
                f"not kept for that user, have {owner!r} or root remove {files}"
            )
        return f"it is {owner}'s; if no process holds that name (kesactl doctor), remove {shlex.quote(path)}"
    around = os.path.dirname(os.path.abspath(directory))
    if error.errno == errno.ENOENT and not os.path.exists(around):
        return f"make {shlex.quote(around)}, or {named}"
    if error.errno in (errno.EACCES, errno.EPERM):
        return f"{rights.join(directory, stat.S_IWGRP) or 'let a group of this user write there'}, or {named}"
    return named


def _listen(directory: str, path: str, mode: int) -> socket.socket:
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    file = None
    draft = _draft(path)
    try:
        address = draft
        if len(os.fsencode(draft)) > _LONGEST_ADDRESS:
            file = os.open(directory, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
            address = f"/proc/self/fd/{file}/{os.path.basename(draft)}"
        sock.bind(address)
        try:
            _set_mode(draft, mode)
            sock.setblocking(False)
            sock.listen(_BACKLOG)
            os.rename(draft, path)
        except BaseException:
            os.unlink(draft)
            raise
        return sock
    except BaseException:
        sock.close()
        raise
    finally:
        if file is not None:
            os.close(file)


def _remove(path: str, owner: int) -> None:
    """Where the sticky bit keeps each user's files his own, an empty file of the name's owner takes the place of the socket:
    into a gap anybody could put a file of his, and the next process of the name could not replace that."""
    folder = os.stat(os.path.dirname(path))
    if not folder.st_mode & stat.S_ISVTX or owner in (0, folder.st_uid):
        os.unlink(path)
        return
    draft = _draft(path)
    file = os.open(draft, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o600)
    try:
        if owner != os.geteuid():  # root has had it in his stead
            os.fchown(file, owner, -1)
        os.rename(draft, path)
    except OSError:
        os.unlink(draft)
        raise
    finally:
        os.close(file)


def _set_mode(path: str, mode: int) -> None:
    """Of a socket, not of what a link in its place leads to."""
    file = os.open(path, os.O_PATH | os.O_NOFOLLOW | os.O_CLOEXEC)
    try:
        if not stat.S_ISSOCK(os.fstat(file).st_mode):
            raise OSError(errno.EINVAL, "somebody has replaced it", path)
        os.chmod(f"/proc/self/fd/{file}", mode)
    finally:
        os.close(file)
