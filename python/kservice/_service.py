"""The service side: one thread that accepts callers, and the workers, each of which serves one caller at a time.

A caller waits in `_waiting` until a worker takes it out; whoever takes it out closes it. The accepting thread alone
puts callers in, so an event of a caller that is still in there is that caller's, and not one of an earlier one with the
same number.
"""

from __future__ import annotations

import contextlib
import fcntl
import logging
import mmap
import os
import select
import socket
import stat
import struct
import threading
import time
from collections import OrderedDict
from typing import Callable, Optional, Union

from . import _wire

_BACKLOG = 128
_MOST_WAITING = 1000
_PATIENCE_S = 30.0  # from the invitation until the request and its descriptors are there
_ACCEPT_RETRY_MS = 100
# From <linux/fcntl.h>; not every Python has all of them.
_F_ADD_SEALS, _F_GET_SEALS = 1033, 1034
_F_SEAL_SEAL, _FORBIDDEN_SEALS = 0x01, 0x02 | 0x04 | 0x08 | 0x10  # shrink, grow, write, future write

_log = logging.getLogger("kservice")


class Request:
    """One request, as the handler has it. Valid until the handler returns."""

    def __init__(self, command: str, connection: socket.socket, received: list[int]) -> None:
        self.command = command
        credentials = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("=iII"))
        self.pid: int
        self.uid: int
        self.gid: int
        self.pid, self.uid, self.gid = struct.unpack("=iII", credentials)
        self._connection = connection
        self._received = received  # the memory file, and the extra descriptor until the handler takes it

    @property
    def body(self) -> bytes:
        """What the caller sent: a copy, which the caller cannot change any more."""
        return _wire.read_all(self._received[0])

    def take_extra_fd(self) -> Optional[int]:
        """The caller's extra descriptor, which is now the handler's to close, as os.fdopen() does; None = there is none
        (any more). One that the handler does not take is closed when it has returned."""
        return self._received.pop() if len(self._received) > 1 else None

    def alive(self) -> bool:
        """False once the caller has gone."""
        return not _wire.wait_readable(self._connection, time.monotonic())


Handler = Callable[[Request], Union[bytes, str, None]]


def _is_memory_file(fd: int) -> bool:
    """Whether it is a file in memory that can be read, truncated and written, and stays so."""
    try:
        # Asked first, and of all but memory files the last: any other file system may never answer.
        fcntl.fcntl(fd, _F_GET_SEALS)
        if fcntl.fcntl(fd, fcntl.F_GETFL) & os.O_ACCMODE != os.O_RDWR:
            return False
        with contextlib.suppress(OSError):  # sealed against it already
            fcntl.fcntl(fd, _F_ADD_SEALS, _F_SEAL_SEAL)
        if fcntl.fcntl(fd, _F_GET_SEALS) & _FORBIDDEN_SEALS:
            return False
        if os.lseek(fd, 0, os.SEEK_END) > 0:
            mmap.mmap(fd, 0).close()
    except (OSError, OverflowError, ValueError):
        return False
    return True


class Service:
    """A named service. Publishes nothing before start().

    name     A service's name, or "@/path". Raises BadArgument when it cannot be one.
    handler  Serves one request: what it returns is the reply, None ends the connection without one, and so does an
             exception, which goes to the log "kservice". Called by up to `workers` threads at once.
    """

    def __init__(self, name: str, handler: Handler, workers: int = 2) -> None:
        if workers < 1:
            raise ValueError("a service needs a worker")
        self.name = name
        self.path = _wire.socket_path(name)
        self._handler = handler
        self._workers = workers
        self._paused = False
        self._stopping = False
        self._waiting: OrderedDict[int, socket.socket] = OrderedDict()
        self._changed = threading.Condition()  # guards the three above
        self._running: Optional[contextlib.ExitStack] = None  # undoes start()

    def start(self) -> None:
        """Publishes the service; returns once it can be called. Raises OSError when the socket cannot be made, and
        RuntimeError when it runs already or no thread can be started. A socket that somebody left behind at the path is
        replaced."""
        if self._running:
            raise RuntimeError(f"{self.name} runs already")
        self._stopping = False
        with contextlib.ExitStack() as running:
            self._wake_reader, self._wake_writer = map(running.enter_context, socket.socketpair())
            self._poller = running.enter_context(select.epoll())
            self._poller.register(self._wake_reader, select.EPOLLIN)
            running.callback(self._drop_waiting)
            for index in range(self._workers):
                self._start_thread(running, self._work, str(index))
            self._listener = running.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
            self._start_thread(running, self._accept_callers, "accept")
            self._publish(running)  # last: what is published is served
            self._running = running.pop_all()

    def stop(self) -> None:
        """Withdraws the socket, ends the workers after their current request and waits for them. Does nothing on a
        service that does not run. Not for the service's own handler."""
        if self._running:
            self._running.close()
            self._running = None

    def pause(self) -> None:
        """Turns new callers away; those already waiting keep their place."""
        with self._changed:
            self._paused = True

    def resume(self) -> None:
        """Takes callers again."""
        with self._changed:
            self._paused = False

    def __enter__(self) -> "Service":
        self.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def _start_thread(self, running: contextlib.ExitStack, target: Callable[[], None], name: str) -> None:
        thread = threading.Thread(target=target, name=f"{self.name} {name}", daemon=True)
        thread.start()
        running.callback(self._end_thread, thread)

    def _end_thread(self, thread: threading.Thread) -> None:
        with self._changed:
            self._stopping = True
            self._changed.notify_all()
        self._wake_writer.shutdown(socket.SHUT_WR)
        thread.join()

    def _drop_waiting(self) -> None:
        for waiting in self._waiting.values():
            waiting.close()
        self._waiting.clear()

    def _publish(self, running: contextlib.ExitStack) -> None:
        with contextlib.suppress(OSError):  # one level only; bind() tells what is missing above
            os.mkdir(os.path.dirname(self.path), 0o755)
        with contextlib.suppress(FileNotFoundError):
            if not stat.S_ISSOCK(os.lstat(self.path).st_mode):
                raise FileExistsError(f"{self.path} is no socket")
            os.unlink(self.path)
        self._listener.setblocking(False)
        self._listener.bind(self.path)
        running.callback(self._withdraw)
        os.chmod(self.path, 0o777)  # any local user may call
        self._listener.listen(_BACKLOG)
        self._poller.register(self._listener, select.EPOLLIN)

    def _withdraw(self) -> None:
        with contextlib.suppress(OSError):
            os.unlink(self.path)

    # ---- the accepting thread

    def _accept_callers(self) -> None:
        while True:
            events = dict(self._poller.poll())
            with self._changed:
                if self._stopping:
                    return
                for fd in events:
                    if fd in self._waiting:  # only a hang-up is reported
                        self._poller.unregister(fd)
                        self._waiting.pop(fd).close()
            if self._listener.fileno() in events:
                self._accept()

    def _accept(self) -> None:
        try:
            caller, _ = self._listener.accept()
        except BlockingIOError:
            return
        except OSError:
            time.sleep(_ACCEPT_RETRY_MS / 1000)  # no free descriptor: the caller stays in the backlog
            return
        caller.setblocking(True)
        with self._changed:
            why = 0
            if self._paused:
                why = _wire.PAUSED
            elif len(self._waiting) >= _MOST_WAITING:
                why = _wire.BUSY
            else:
                self._poller.register(caller, 0)  # hang-ups and errors are always reported
                self._waiting[caller.fileno()] = caller
                self._changed.notify()
        if why:
            _wire.send_directive(caller, _wire.directive(why))
            caller.close()

    # ---- the workers

    def _work(self) -> None:
        while True:
            with self._changed:
                while not self._waiting and not self._stopping:
                    self._changed.wait()
                if self._stopping:
                    return
                fd, caller = self._waiting.popitem(last=False)
                self._poller.unregister(fd)
            with caller:
                self._serve(caller)
                with contextlib.suppress(OSError):  # a forked child may hold a copy
                    caller.shutdown(socket.SHUT_RDWR)

    def _wait_for(self, caller: socket.socket, deadline: float) -> bool:
        """Whether the caller has said something; False also when the service ends before."""
        poller = select.poll()
        poller.register(caller, select.POLLIN)
        poller.register(self._wake_reader, select.POLLIN)
        ready = poller.poll(max(deadline - time.monotonic(), 0) * 1000)
        return any(fd == caller.fileno() for fd, _ in ready)

    def _receive_descriptor(self, caller: socket.socket, deadline: float) -> Optional[int]:
        if not self._wait_for(caller, deadline):
            return None
        return _wire.receive_descriptor(caller)

    def _serve(self, caller: socket.socket) -> None:
        deadline = time.monotonic() + _PATIENCE_S
        if not _wire.send_directive(caller, _wire.directive(_wire.ACCEPTED)):
            return
        if not self._wait_for(caller, deadline):
            return
        message = _wire.receive_directive(caller)
        if message is None or message[0] != _wire.REQUEST:
            return
        received: list[int] = []  # who takes one out closes it
        try:
            for _ in range(2 if message[1] & _wire.HAS_FD else 1):
                fd = self._receive_descriptor(caller, deadline)
                if fd is None:
                    return
                received.append(fd)
            if not _is_memory_file(received[0]):
                return
            command = os.fsdecode(message[2 : 2 + _wire.LONGEST_COMMAND].split(b"\0", 1)[0])
            self._answer(Request(command, caller, received))
        finally:
            while received:
                with contextlib.suppress(OSError):  # its file system complains
                    os.close(received.pop())

    def _answer(self, request: Request) -> None:
        try:
            reply = self._handler(request)
            if reply is None:
                return
            memory_file = request._received[0]
            os.ftruncate(memory_file, 0)
            os.lseek(memory_file, 0, os.SEEK_SET)
            _wire.write_all(memory_file, reply.encode() if isinstance(reply, str) else reply)
        except BaseException:  # costs this request only; SystemExit, too, would only end the worker
            _log.exception("%s: %s gave no reply", self.name, request.command)
            return
        _wire.send_directive(request._connection, _wire.directive(_wire.REPLY))
