"""kservice.Service, called by ksctl, which is made with the C library, and by the package's own client."""

import contextlib
import os
import resource
import socket
import stat
import subprocess
import threading

import kservice
import pytest
from conftest import PROGRAMS

TIMEOUT = 60


def ksctl(*arguments):
    return subprocess.run([PROGRAMS / "ksctl", *arguments], capture_output=True, timeout=TIMEOUT)


def echo(request):
    return request.command.encode() + b":" + request.body


def connect(name):
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.connect(name[1:])  # without a time-out: one of Python's would not wait for room
    connection.settimeout(TIMEOUT)
    return connection


def test_program_of_the_c_library_gets_its_reply(name):
    with kservice.Service(name, echo):
        assert ksctl("call", name, "echo", "text").stdout == b"echo:text"
        assert ksctl("call", name, "c" * 256).stdout == b"c" * 256 + b":"


def test_service_is_found_by_name():
    with kservice.Service("name-1", echo) as service:
        assert service.path == "/var/run/ks/2D96D86.sock"
        assert ksctl("call", "name-1", "echo", "text").stdout == b"echo:text"


def test_replies(name):
    replies = {"text": "ü", "bytes": b"\0\xff", "empty": b"", "large": os.urandom(1 << 22)}
    with kservice.Service(name, lambda request: replies[request.command]):
        assert kservice.call(name, "text") == "ü".encode()
        for command in ("bytes", "empty", "large"):
            assert kservice.call(name, command, "request") == replies[command]


def test_handler_without_a_reply(name, caplog):
    def serve(request):
        if request.command == "raise":
            raise ValueError("as asked")
        if request.command == "exit":
            raise SystemExit
        return None if request.command == "none" else "reply"

    with kservice.Service(name, serve, workers=1):
        for command in ("none", "raise", "exit"):
            assert ksctl("call", name, command).returncode == 18
            assert kservice.call(name, "other") == b"reply"
    assert "as asked" in caplog.text


def test_request_knows_its_caller(name):
    def serve(request):
        return f"{request.pid} {request.uid} {request.gid} {request.alive()} {request.take_extra_fd()}"

    with kservice.Service(name, serve):
        assert kservice.call(name, "who").decode() == f"{os.getpid()} {os.getuid()} {os.getgid()} True None"


def test_handler_sees_that_the_caller_has_gone(name):
    gone = threading.Event()

    def serve(request):
        while request.alive():
            pass
        gone.set()

    with kservice.Service(name, serve):
        while not gone.wait(0.05):  # a slow machine may need more than one try until the service has the request
            with pytest.raises(kservice.Timeout):
                kservice.call(name, "wait", timeout=0.2)


def test_extra_descriptor(name, tmp_path):
    def serve(request):
        with os.fdopen(request.take_extra_fd(), "wb") as output:
            output.write(b"printed")
        assert request.take_extra_fd() is None
        return ""

    with kservice.Service(name, serve):
        assert ksctl("call", name, "print", "--output", str(tmp_path / "output")).returncode == 0
        reader, writer = os.pipe()
        kservice.call(name, "print", extra_fd=writer)
        os.close(writer)
        assert os.read(reader, 100) == b"printed"
        assert os.read(reader, 100) == b""
        os.close(reader)
    assert (tmp_path / "output").read_text() == "printed"


def inheritable_descriptors():
    found = []
    for fd in map(int, os.listdir("/proc/self/fd")):
        with contextlib.suppress(OSError):  # the listing's own
            if os.get_inheritable(fd):
                found.append(fd)
    return sorted(found)


def test_programs_that_the_handler_runs_inherit_nothing_of_the_caller(name):
    seen = []
    before = inheritable_descriptors()
    with kservice.Service(name, lambda request: seen.extend(inheritable_descriptors())):
        with pytest.raises(kservice.NoReply):
            kservice.call(name, "look", extra_fd=before[0])
    assert seen == before


def test_workers_side_by_side_close_what_is_theirs_alone(name):
    def serve(request):  # a number that is closed twice is another worker's the second time
        if request.command == "taken":
            with os.fdopen(request.take_extra_fd(), "wb") as output:
                output.write(b"x")
        return request.command

    wrong = []

    def caller(command):
        reader, writer = os.pipe()
        for _ in range(100):
            try:
                assert kservice.call(name, command, extra_fd=writer, timeout=TIMEOUT) == command.encode()
                assert command == "left" or os.read(reader, 2) == b"x"
            except (AssertionError, kservice.CallError) as error:
                wrong.append(error)
                break
        os.close(writer)
        if os.read(reader, 1) != b"":  # returns when the service has closed all it got
            wrong.append(command)
        os.close(reader)

    with kservice.Service(name, serve, workers=2):
        callers = [threading.Thread(target=caller, args=(command,)) for command in ["taken"] * 4 + ["left"]]
        for thread in callers:
            thread.start()
        for thread in callers:
            thread.join()
    assert wrong == []


def test_service_that_cannot_start_is_not_published(name):
    limits = resource.getrlimit(resource.RLIMIT_NOFILE)
    service = kservice.Service(name, echo)
    first_free = os.dup(0)
    os.close(first_free)
    for allowed in range(first_free, limits[0]):  # a number more each time
        resource.setrlimit(resource.RLIMIT_NOFILE, (allowed, limits[1]))
        try:
            service.start()
            break
        except OSError:
            assert not os.path.exists(service.path)
        finally:
            resource.setrlimit(resource.RLIMIT_NOFILE, limits)
    assert allowed > first_free
    assert kservice.call(name, "x") == b"x:"
    service.stop()


@pytest.mark.parametrize("started", [0, 1, 2])
def test_service_whose_threads_cannot_start_is_not_published(name, started, monkeypatch):
    before = sorted(os.listdir("/proc/self/fd"))
    service = kservice.Service(name, echo)
    start, left = threading.Thread.start, iter(range(started))

    def start_with_too_large_a_stack(thread):
        if next(left, None) is None:
            threading.stack_size(1 << 48)
        start(thread)

    with monkeypatch.context() as patched:
        patched.setattr(threading.Thread, "start", start_with_too_large_a_stack)
        with pytest.raises(RuntimeError, match="can't start new thread"):
            service.start()
        threading.stack_size(0)
    assert not os.path.exists(service.path)
    assert sorted(os.listdir("/proc/self/fd")) == before
    with service:
        assert kservice.call(name, "x") == b"x:"


def test_anybody_may_call(name):
    with kservice.Service(name, echo) as service:
        assert stat.S_IMODE(os.stat(service.path).st_mode) == 0o777


def test_pause_and_resume(name):
    with kservice.Service(name, echo) as service:
        service.pause()
        assert ksctl("call", name, "echo").returncode == 13
        service.resume()
        assert ksctl("call", name, "echo").returncode == 0


def test_the_thousand_and_first_waiting_caller_is_turned_away(name):
    limits = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (limits[1], limits[1]))
    busy, released = threading.Event(), threading.Event()

    def serve(request):
        busy.set()
        released.wait(TIMEOUT)
        return ""

    with kservice.Service(name, serve, workers=1), contextlib.ExitStack() as callers:
        first = threading.Thread(target=kservice.call, args=(name, "first"))
        first.start()
        assert busy.wait(TIMEOUT)
        waiting = [callers.enter_context(connect(name)) for _ in range(1000)]
        with pytest.raises(kservice.Busy):
            kservice.call(name, "one too many")
        for connection in waiting:  # they leave their places to others
            connection.close()
        still_busy = True
        while still_busy:
            with pytest.raises(kservice.CallError) as caught:
                kservice.call(name, "waits", timeout=0.05)
            still_busy = isinstance(caught.value, kservice.Busy)
        released.set()
        first.join()
        assert kservice.call(name, "free again") == b""
    resource.setrlimit(resource.RLIMIT_NOFILE, limits)


def test_workers_serve_side_by_side(name):
    together = threading.Barrier(3)

    def serve(request):
        together.wait(TIMEOUT)
        return "met"

    with kservice.Service(name, serve, workers=3):
        replies = []
        callers = [threading.Thread(target=lambda: replies.append(kservice.call(name, "meet"))) for _ in range(3)]
        for caller in callers:
            caller.start()
        for caller in callers:
            caller.join()
    assert replies == [b"met"] * 3


def test_stop_withdraws_the_service_and_does_not_wait_for_silent_callers(name):
    before = sorted(os.listdir("/proc/self/fd"))
    service = kservice.Service(name, echo, workers=1)
    service.start()
    with pytest.raises(RuntimeError):
        service.start()
    invited = connect(name)
    assert invited.recv(259)[0] == 7
    waiting = connect(name)
    service.stop()
    service.stop()
    assert invited.recv(259) == b""
    with contextlib.suppress(ConnectionResetError):  # if it was not yet accepted
        assert waiting.recv(259) == b""
    invited.close()
    waiting.close()
    assert not os.path.exists(service.path)
    assert sorted(os.listdir("/proc/self/fd")) == before
    service.start()
    assert kservice.call(name, "again") == b"again:"
    service.stop()


def test_socket_that_was_left_behind_is_replaced_and_another_file_is_not(name):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as left_behind:
        left_behind.bind(name[1:])
    with kservice.Service(name, echo):
        assert kservice.call(name, "x") == b"x:"
    with open(name[1:], "w"):
        pass
    with pytest.raises(FileExistsError):
        kservice.Service(name, echo).start()


def test_impossible_services_are_refused(name):
    with pytest.raises(kservice.BadArgument):
        kservice.Service("n" * 65, echo)
    with pytest.raises(ValueError):
        kservice.Service(name, echo, workers=0)
    with pytest.raises(OSError):
        kservice.Service("@/nowhere/at/all", echo).start()
