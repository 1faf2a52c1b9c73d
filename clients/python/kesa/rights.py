"""What keeps this user from a file of the run directory, and what he may do about it."""

from __future__ import annotations

import grp
import os
import stat

from .names import encode_process

FIRST_PERSON = 1000  # users below are accounts of services


def why_forbidden(directory: str, process: str) -> str:
    """What keeps this user from the socket of `process`, and what to do. Empty if nothing is found."""
    socket_path = os.path.join(directory, encode_process(process) + ".sock")
    for path, otherwise in (
        (directory, "its owner has to let a group of this user use it"),
        (socket_path, 'let a group of both use it: "socket_group" and "socket_mode" of that process'),
    ):
        is_folder = path == directory
        try:
            status = os.stat(path)
            if os.access(path, os.X_OK if is_folder else os.W_OK, effective_ids=True):
                continue
        except OSError:
            continue
        advice = join(path, stat.S_IXGRP if is_folder else stat.S_IWGRP) or otherwise
        mode = stat.S_IMODE(status.st_mode)
        return f'no right to use "{path}", which has the group "{_group(status.st_gid)}" and mode {mode:04o}; {advice}'
    return ""


def _is_shared(status: os.stat_result) -> bool:
    """Its group is neither root's nor a person's own."""
    return status.st_gid != 0 and (status.st_gid != status.st_uid or status.st_uid < FIRST_PERSON)


def join(path: str, bits: int) -> str:
    """The advice to join the group of `path`, which has `bits` there and is one that users may join; empty if that does not
    help. A group that shares the folder of a file is one."""
    try:
        status = os.stat(path)
        folder = os.stat(os.path.dirname(os.path.abspath(path)))
    except OSError:
        return ""
    group = status.st_gid
    by_folder = not stat.S_ISDIR(status.st_mode) and folder.st_gid == group and folder.st_mode & stat.S_IWGRP and _is_shared(folder)
    if not status.st_mode & bits or group in (os.getegid(), *os.getgroups()) or not (by_folder or _is_shared(status)):
        return ""
    return f'add this user to the group "{_group(group)}" and log in anew'


def _group(gid: int) -> str:
    try:
        return grp.getgrgid(gid).gr_name
    except KeyError:
        return str(gid)
