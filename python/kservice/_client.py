"""The calling side."""

from __future__ import annotations

import contextlib
import errno
import fcntl
import os
import socket
import struct
import time
from typing import Optional, Union

from . import _wire

_TURNED_AWAY = {
    _wire.BUSY: (_wire.Busy, "service is busy"),
    _wire.PAUSED: (_wire.Paused, "service is paused"),
    _wire.REFUSED: (_wire.Refused, "service refused the call"),
}
_LONGEST_WAIT_S = 1e9  # more than the kernel's records of a time hold on some machines


def _connect(connection: socket.socket, path: str, deadline: Optional[float]) -> None:
    # A blocking connect() waits while the service has too many connections to accept; with a time-out of Python's own
    # the socket would not block, and fail at once instead.
    while True:
        if deadline is not None:
            left_us = max(int(min(deadline - time.monotonic(), _LONGEST_WAIT_S) * 1e6), 1)  # 0 would mean without end
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("@ll", *divmod(left_us, 10**6)))
        try:
            connection.connect(path)
        except BlockingIOError:
            raise _wire.Timeout("the service did not accept the connection in time") from None
        except OSError as error:
            raise _wire.NoService(f"no such service ({path}): {os.strerror(error.errno or errno.EIO)}") from error
        with contextlib.suppress(OSError):  # a signal interrupted the wait, which connect() takes for success
            connection.getpeername()
            return


def _wait_for(connection: socket.socket, wanted: int, deadline: Optional[float]) -> None:
    while _wire.wait_readable(connection, deadline):
        message = _wire.receive_directive(connection)
        if message is None:
            raise _wire.Disconnected("the connection ended without a reply")
        if message[0] in _TURNED_AWAY:
            error, text = _TURNED_AWAY[message[0]]
            raise error(text)
        if message[0] == wanted:
            return
    raise _wire.Timeout("nothing happened within the time allowed")


def _send_request(connection: socket.socket, command: bytes, memory_file: int, extra_fd: Optional[int]) -> None:
    flags = 0 if extra_fd is None else _wire.HAS_FD
    sent = _wire.send_directive(connection, _wire.directive(_wire.REQUEST, flags, command))
    try:
        if sent:
            for fd in (memory_file,) if extra_fd is None else (memory_file, extra_fd):
                _wire.send_descriptor(connection, fd)
    except OSError:
        sent = False
    if not sent:
        raise _wire.Disconnected("the connection ended before the request was sent")


def call(
    service: str,
    command: str,
    request: Union[bytes, str] = b"",
    *,
    timeout: Optional[float] = 30.0,
    extra_fd: Optional[int] = None,
) -> bytes:
    """Sends one request and waits for its reply.

    timeout   Seconds for the whole call; None = without limit.
    extra_fd  A descriptor to hand to the service; it stays the caller's.

    Returns the reply's bytes. Raises a CallError that says why there is none; its `request_taken` tells whether the
    service had the request. Raises OSError when the request cannot be stored, or `extra_fd` is not open. Any thread may
    call.
    """
    path = _wire.socket_path(service)
    encoded = os.fsencode(command)
    if not 0 < len(encoded) <= _wire.LONGEST_COMMAND or b"\0" in encoded:
        raise _wire.BadArgument(f"a command has 1 to {_wire.LONGEST_COMMAND} bytes and no NUL: {command!r}")
    if extra_fd is not None:
        fcntl.fcntl(extra_fd, fcntl.F_GETFD)
    deadline = None if timeout is None else time.monotonic() + timeout
    memory_file = os.memfd_create("kservice", os.MFD_CLOEXEC)
    try:
        _wire.write_all(memory_file, request.encode() if isinstance(request, str) else request)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.settimeout(None)  # whatever socket.setdefaulttimeout() said
            _connect(connection, path, deadline)
            _wait_for(connection, _wire.ACCEPTED, deadline)
            _send_request(connection, encoded, memory_file, extra_fd)
            try:
                _wait_for(connection, _wire.REPLY, deadline)
            except _wire.CallError as error:
                if isinstance(error, _wire.Disconnected):
                    error = _wire.NoReply(*error.args)
                error.request_taken = True
                raise error from None
        return _wire.read_all(memory_file)
    finally:
        os.close(memory_file)
