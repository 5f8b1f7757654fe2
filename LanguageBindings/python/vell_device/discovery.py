"""The runtime folder, and the sockets in it."""

from __future__ import annotations

import os
import socket
import stat
from typing import Dict, Tuple

Identity = Tuple[int, int]  # of a socket file: which one it is, and since when


def runtime_folder() -> str:
    """Where plug-ins listen."""
    own = os.environ.get("VELL_RUNTIME_DIR")
    above = os.environ.get("XDG_RUNTIME_DIR")
    return own or (os.path.join(above, "vell") if above else f"/tmp/vell-{os.getuid()}")


def log_folder(runtime: str) -> str:
    """Where the plug-ins of a runtime folder log."""
    return os.environ.get("VELL_LOG_DIR") or os.path.join(runtime, "log")


def sockets_in(folder: str) -> Dict[str, Identity]:
    """The sockets of the folder, by path. PermissionError for a folder that is not the user's own, in which anybody
    could listen; a folder that is not there has none."""
    try:
        status = os.lstat(folder.rstrip("/") or "/")
        if not stat.S_ISDIR(status.st_mode) or status.st_uid != os.geteuid() or status.st_mode & stat.S_ISVTX:
            raise PermissionError(f"{folder} is no folder of this user alone")
        names = [name for name in os.listdir(folder) if name.endswith(".sock")]
    except FileNotFoundError:
        return {}
    sockets = {}
    for name in names:
        path = os.path.join(folder, name)
        try:
            status = os.lstat(path)
        except FileNotFoundError:
            continue
        if stat.S_ISSOCK(status.st_mode) and status.st_uid == os.geteuid():
            sockets[path] = (status.st_ino, status.st_ctime_ns)
    return sockets


def connect(path: str) -> socket.socket:
    """A connection that does not block. OSError when there is none to be had now."""
    connected = socket.socket(socket.AF_UNIX)
    try:
        connected.setblocking(False)
        connected.connect(path)
    except BaseException:
        connected.close()
        raise
    return connected
