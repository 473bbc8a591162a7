"""kservice.call() against services made with the C library, and against the real daemon."""

import contextlib
import os
import signal
import socket
import subprocess
import sys
import threading
import time

import kservice
import pytest
from conftest import PROGRAMS


def open_descriptors():
    return sorted(os.listdir("/proc/self/fd"))


@contextlib.contextmanager
def raw_service(name, talk, backlog=1):
    """A socket that `talk` serves, byte by byte: talk(connection) for one caller."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(name[1:])
        listener.listen(backlog)

        def serve():
            connection, _ = listener.accept()
            with connection:
                talk(connection)

        thread = threading.Thread(target=serve)
        thread.start()
        yield
        thread.join()


def directive(kind):
    return bytes([kind]).ljust(259, b"\0")


def test_reply_has_the_services_bytes(name, c_service):
    assert kservice.call(name, "echo", b"a\0\xff\n") == b"a\0\xff\n"
    assert kservice.call(name, "echo", "ü") == "ü".encode()
    assert kservice.call(name, "echo") == b""
    large = os.urandom(1 << 20) * 5
    assert kservice.call(name, "echo", large) == large


def test_service_learns_who_calls(name, c_service):
    assert kservice.call(name, "who") == f"{os.getpid()} {os.getuid()} {os.getgid()}".encode()


def test_extra_descriptor_is_handed_over_and_stays_the_callers(name, c_service):
    reader, writer = os.pipe()
    assert kservice.call(name, "print", extra_fd=writer) == b""
    os.close(writer)
    assert os.read(reader, 100) == b"printed"
    assert os.read(reader, 100) == b""  # returns when the service has closed its copy
    os.close(reader)


def test_descriptor_that_is_not_open_is_the_callers_error(name, c_service):
    reader, writer = os.pipe()
    os.close(writer)
    with pytest.raises(OSError, match="Bad file descriptor"):
        kservice.call(name, "print", extra_fd=writer)
    os.close(reader)


def test_service_is_found_by_name():
    assert kservice.socket_path("abc") == "/var/run/ks/A9993E36.sock"
    assert kservice.socket_path("name-1") == "/var/run/ks/2D96D86.sock"  # of SHA-1 02d96d86...
    assert kservice.socket_path("@/tmp/s") == "/tmp/s"
    assert kservice.socket_path("@" + "x" * 63) == "x" * 63


@pytest.mark.parametrize("service", ["", "@", "s" * 65, "a\0b"])
def test_impossible_service_names_are_refused(service):
    with pytest.raises(kservice.BadArgument):
        kservice.call(service, "echo")


@pytest.mark.parametrize("command", ["", "c" * 257, "a\0b"])
def test_impossible_commands_are_refused(name, c_service, command):
    with pytest.raises(kservice.BadArgument):
        kservice.call(name, command)


def test_nobody_listens(name):
    with pytest.raises(kservice.NoService, match="No such file or directory") as caught:
        kservice.call(name, "echo")
    assert caught.value.code == 2
    assert not caught.value.request_taken


def test_service_is_paused(name, c_service):
    c_service.order("pause")
    with pytest.raises(kservice.Paused):
        kservice.call(name, "echo")
    c_service.order("resume")
    assert kservice.call(name, "echo", "x") == b"x"


def test_service_gives_no_reply(name, c_service):
    with pytest.raises(kservice.NoReply) as caught:
        kservice.call(name, "silent")
    assert caught.value.request_taken
    assert isinstance(caught.value, kservice.Disconnected)


@pytest.mark.parametrize("kind, error", [(2, kservice.Busy), (4, kservice.Paused), (5, kservice.Refused)])
def test_service_turns_the_caller_away(name, kind, error):
    with raw_service(name, lambda connection: connection.send(directive(kind))):
        with pytest.raises(error) as caught:
            kservice.call(name, "echo")
        assert not caught.value.request_taken


@pytest.mark.parametrize("said", [b"", directive(7)[:258], b"\x09"])
def test_connection_ends_before_the_request(name, said):
    with raw_service(name, lambda connection: connection.send(said)):
        with pytest.raises(kservice.Disconnected) as caught:
            kservice.call(name, "echo")
        assert not caught.value.request_taken
        assert not isinstance(caught.value, kservice.NoReply)


def test_time_out_before_and_after_the_request(name, c_service):
    taken, timeout = False, 0.05
    while not taken:  # a slow machine may need more until the service has it
        with pytest.raises(kservice.Timeout) as caught:
            kservice.call(name, "hold", timeout=timeout)
        taken, timeout = caught.value.request_taken, timeout * 2
    assert kservice.call(name, "echo", "x", timeout=None) == b"x"
    assert kservice.call(name, "echo", "x", timeout=1e12) == b"x"
    silent = threading.Event()
    with raw_service(name + "2", lambda connection: silent.wait()):
        with pytest.raises(kservice.Timeout) as caught:
            kservice.call(name + "2", "echo", timeout=0.05)
        silent.set()
    assert not caught.value.request_taken


def test_time_out_while_connecting(full_name):
    with pytest.raises(kservice.Timeout):
        kservice.call(full_name, "echo", timeout=0.05)


def test_signal_while_connecting_does_not_end_the_wait(full_name):
    seen = []
    before = signal.signal(signal.SIGALRM, lambda *_: seen.append(1))
    signal.setitimer(signal.ITIMER_REAL, 0.05)
    with pytest.raises(kservice.Timeout):
        kservice.call(full_name, "echo", timeout=0.5)
    signal.signal(signal.SIGALRM, before)
    assert seen == [1]


def test_nothing_stays_open(name, c_service):
    before = open_descriptors()
    kservice.call(name, "echo", b"x")
    for service, command in [(name, "silent"), (name + "2", "echo"), ("", "echo")]:
        with pytest.raises(kservice.CallError):
            kservice.call(service, command)
    assert open_descriptors() == before


def test_threads_call_side_by_side(name, c_service):
    wrong = []

    def caller(number):
        for i in range(50):
            text = f"{number} {i}".encode()
            if kservice.call(name, "echo", text) != text:
                wrong.append(text)

    threads = [threading.Thread(target=caller, args=(i,)) for i in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert wrong == []


@pytest.fixture
def daemon():
    process = subprocess.Popen([PROGRAMS / "vexprod"], stdin=subprocess.DEVNULL)
    subprocess.run([PROGRAMS / "ksctl", "wait", "VexHubServer-vexprod"], check=True)
    yield process
    process.terminate()
    assert process.wait() == 0


def test_real_daemon_answers(daemon):
    assert kservice.call("VexHubServer-vexprod", "get_vpd_channel") == b'{"result":0,"vpd_channel":"16"}\n'
    with pytest.raises(kservice.NoReply):
        kservice.call("VexHubServer-vexprod", "no_such_command")


def test_program_knows_the_daemons_services_by_their_short_names(daemon):
    environment = {**os.environ, "PYTHONPATH": os.path.dirname(os.path.dirname(kservice.__file__))}
    for short, service in [("main", "VexHubServer-vexprod"), ("mail", "VexHubServer_send_mail-vexprod")]:
        command = ["/usr/bin/python3", "-B", "-m", "kservice", short, "test"]
        assert service in subprocess.run(command, env=environment, capture_output=True, text=True).stdout


def test_module_is_a_program(name, c_service):
    command = ["/usr/bin/python3", "-B", "-m", "kservice"]
    environment = {**os.environ, "PYTHONPATH": os.path.dirname(os.path.dirname(kservice.__file__))}

    def run(*arguments):
        return subprocess.run([*command, *arguments], env=environment, capture_output=True, text=True)

    assert run(name, "echo", "text").stdout == "text"
    silent = run(name, "silent")
    assert (silent.returncode, silent.stdout) == (18, "")
    assert silent.stderr == f"{name}: the connection ended without a reply\n"
    assert (run(name).returncode, run(name).stdout) == (2, "")
    assert run(name, "c" * 257).returncode == 17
    with raw_service(name + "2", lambda connection: None):
        assert run(name + "2", "echo").returncode == 15
    helped = run("--help")
    assert (helped.returncode, helped.stderr) == (0, "")
    assert "SERVICE COMMAND [REQUEST]" in helped.stdout
    assert subprocess.run([*command, name, "echo", b"\xff"], env=environment, capture_output=True).stdout == b"\xff"
    with open("/dev/full", "wb") as full:
        unprinted = subprocess.run([*command, name, "echo", "x"], env=environment, stdout=full, stderr=subprocess.PIPE)
    assert (unprinted.returncode, unprinted.stderr) == (1, b"python3 -m kservice: No space left on device\n")


@pytest.mark.parametrize("closed", [0, 1, 2])
def test_program_works_without_a_standard_stream(name, c_service, closed):
    def run(service):
        command = f'exec {closed}>&-; exec /usr/bin/python3 -B -m kservice "$0" echo text'
        environment = {**os.environ, "PYTHONPATH": os.path.dirname(os.path.dirname(kservice.__file__))}
        return subprocess.run(["sh", "-c", command, service], env=environment, capture_output=True, text=True)

    answered, missing = run(name), run(name + "2")
    assert missing.returncode == 12
    assert missing.stdout == ""
    if closed == 1:
        assert (answered.returncode, answered.stderr) == (1, "python3 -m kservice: Bad file descriptor\n")
    else:
        assert (answered.returncode, answered.stdout, answered.stderr) == (0, "text", "")


def test_many_signals_while_connecting_do_not_end_the_wait(name, full_listener):
    left = 500

    def count(*_):
        nonlocal left
        left -= 1
        if left == 0:
            full_listener.close()

    before = signal.signal(signal.SIGALRM, count)
    deepest = sys.getrecursionlimit()
    sys.setrecursionlimit(250)
    signal.setitimer(signal.ITIMER_REAL, 0.0005, 0.0005)
    try:
        with pytest.raises(kservice.NoService):
            kservice.call(name, "echo", timeout=None)
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        sys.setrecursionlimit(deepest)
        signal.signal(signal.SIGALRM, before)
