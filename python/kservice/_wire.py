"""What both sides share: where a service is, the directive, the memory file, and the errors of a call."""

from __future__ import annotations

import hashlib
import os
import select
import socket
import struct
import time
from typing import Optional

DIRECTIVE_SIZE = 259
LONGEST_COMMAND = 256
LONGEST_NAME = 64
LONGEST_PATH = 63

BUSY, PAUSED, REFUSED, ACCEPTED, REQUEST, REPLY = 2, 4, 5, 7, 8, 9
HAS_FD = 1


class CallError(Exception):
    """A call without a reply."""

    code = 0  # the library's result code
    #: Whether the service had the whole request: if so, nobody knows what was done.
    request_taken = False


class Timeout(CallError):
    """Nothing happened within the time allowed."""

    code = 1


class NoService(CallError):
    """The service's socket could not be connected; the cause is the OSError."""

    code = 2


class Paused(CallError):
    """The service is paused."""

    code = 3


class Refused(CallError):
    """The service refused the call."""

    code = 4


class Disconnected(CallError):
    """The connection ended before the request was sent: nothing was done."""

    code = 5


class NoReply(Disconnected):
    """The connection ended after the request was sent."""


class Busy(CallError):
    """Too many callers wait already."""

    code = 6


class BadArgument(CallError, ValueError):
    """The service's name or the command is missing or too long, or has a NUL in it."""

    code = 7


def check_service_name(name: str) -> None:
    encoded = os.fsencode(name)
    if encoded in (b"", b"@") or len(encoded) > LONGEST_NAME or b"\0" in encoded:
        raise BadArgument(f"a service's name has 1 to {LONGEST_NAME} bytes and no NUL: {name!r}")


def socket_path(name: str) -> str:
    """Where the service `name` listens. Raises BadArgument when it cannot be a service's name."""
    check_service_name(name)
    encoded = os.fsencode(name)
    if encoded.startswith(b"@"):
        return os.fsdecode(encoded[1:][:LONGEST_PATH])
    return "/var/run/ks/%X.sock" % int.from_bytes(hashlib.sha1(encoded).digest()[:4], "big")


def directive(kind: int, flags: int = 0, data: bytes = b"") -> bytes:
    return bytes([kind, flags]) + data.ljust(DIRECTIVE_SIZE - 2, b"\0")


def wait_readable(connection: socket.socket, deadline: Optional[float]) -> bool:
    """Whether something can be received before `deadline`, a time of time.monotonic(); None = for ever."""
    poller = select.poll()
    poller.register(connection, select.POLLIN)
    left_ms = None if deadline is None else min(max(deadline - time.monotonic(), 0) * 1000, 2**31 - 1)
    return bool(poller.poll(left_ms))


def receive_directive(connection: socket.socket) -> Optional[bytes]:
    """The next directive, which is there already; None = the connection has ended, or what came is none."""
    try:
        received = connection.recv(DIRECTIVE_SIZE, socket.MSG_DONTWAIT)
    except OSError:
        return None
    return received if len(received) == DIRECTIVE_SIZE else None


def send_directive(connection: socket.socket, message: bytes) -> bool:
    try:
        return connection.send(message, socket.MSG_DONTWAIT | socket.MSG_NOSIGNAL) == len(message)
    except OSError:
        return False


# socket.send_fds() and recv_fds() ignore their flags.


def send_descriptor(connection: socket.socket, fd: int) -> None:
    control = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, struct.pack("@i", fd))]
    connection.sendmsg([b"\0"], control, socket.MSG_DONTWAIT | socket.MSG_NOSIGNAL)


def receive_descriptor(connection: socket.socket) -> Optional[int]:
    """The descriptor of the next message, which is there already; None = there is none."""
    room = socket.CMSG_LEN(struct.calcsize("@i"))  # for one: the kernel closes what does not fit
    try:
        _, control, _, _ = connection.recvmsg(1, room, socket.MSG_DONTWAIT | socket.MSG_CMSG_CLOEXEC)
    except OSError:
        return None
    for level, kind, data in control:
        if (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS):
            return struct.unpack_from("@i", data)[0]
    return None


def write_all(fd: int, data: bytes) -> None:
    view = memoryview(data)
    while view:
        view = view[os.write(fd, view) :]


def read_all(fd: int) -> bytes:
    """The memory file's content. Its offset, which both sides share, stays where it is."""
    size = os.fstat(fd).st_size
    parts = []
    done = 0
    while done < size:
        part = os.pread(fd, size - done, done)
        if not part:
            break
        parts.append(part)
        done += len(part)
    return b"".join(parts)
