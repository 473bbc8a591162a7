"""ksctl conform: what conforms passes every check, and each broken rule is found.

What conforms are the C library, the C++ header, the Python package and the client that docs/protocol.md prints. Broken
are copies of the last two, one place at a time.
"""

import contextlib
import os
import re
import runpy
import shutil
import subprocess
import time
from pathlib import Path

import pytest
from conftest import PROGRAMS, PYTHON_TREE

PROTOCOL = (Path(__file__).parents[2] / "docs/protocol.md").read_text()
PYTHON = ["/usr/bin/python3", "-B"]
SERVICE = """
import sys
import kservice
with kservice.Service(sys.argv[1], lambda request: request.body or "reply"):
    print("ready", flush=True)
    sys.stdin.read()
"""


def conform(*arguments, tree=PYTHON_TREE):
    environment = {**os.environ, "PYTHONPATH": str(tree), "PYTHONDONTWRITEBYTECODE": "1"}
    return subprocess.run([PROGRAMS / "ksctl", "conform", *arguments], env=environment, capture_output=True, text=True)


@contextlib.contextmanager
def running(*command, tree=PYTHON_TREE):
    environment = {**os.environ, "PYTHONPATH": str(tree)}
    pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True}
    process = subprocess.Popen(command, env=environment, **pipes)
    assert process.stdout.readline() == "ready\n"
    yield
    process.communicate()


def all_passed(done):
    last = done.stdout.splitlines()[-1]
    counts = re.fullmatch(r"(\d+) of (\d+) checks passed(, \d+ skipped)?", last)
    assert done.returncode == 0, done.stdout + done.stderr
    assert counts and counts[1] == counts[2] and int(counts[1]) > 15, last
    return True


def broken_rules(done):
    assert done.returncode == 1, done.stdout + done.stderr
    return [line[6:] for line in done.stdout.splitlines() if line.startswith("FAIL")]


def test_services_conform(name, c_service):
    assert all_passed(conform(name, "--command", "echo", "--request", "some text"))
    with running(os.environ["CPP_PEER"], "serve", name + "2"):
        assert all_passed(conform(name + "2"))
    with running(*PYTHON, "-c", SERVICE, name + "3"):
        assert all_passed(conform(name + "3"))


def test_slow_check_waits_for_the_services_patience(name, c_service):
    done = conform(name, "--command", "echo", "--slow")
    assert all_passed(done)
    assert "ok    From 7 until the request and all its descriptors are there\n" in done.stdout


def test_daemon_conforms():
    daemon = subprocess.Popen([PROGRAMS / "vexprod"], stdin=subprocess.DEVNULL)
    subprocess.run([PROGRAMS / "ksctl", "wait", "VexHubServer-vexprod"], check=True)
    assert all_passed(conform("VexHubServer-vexprod", "--command", "get_vpd_channel"))
    daemon.terminate()
    assert daemon.wait() == 0


@pytest.fixture
def printed_client(tmp_path):
    """The file with docs/protocol.md's client, which a replacement may break."""
    code = re.search(r"^```python\n(.*?)^```$", PROTOCOL, re.MULTILINE | re.DOTALL)[1]

    def write(old="", new=""):
        assert old in code
        file = tmp_path / "client.py"
        file.write_text(code.replace(old, new) if old else code)
        return str(file)

    return write


def test_clients_conform(printed_client, tmp_path):
    call = [str(PROGRAMS / "ksctl"), "call"]
    assert all_passed(conform("--client", *call))
    assert all_passed(conform("--client", "--", *call, "--output", str(tmp_path / "extra")))
    assert all_passed(conform("--client", os.environ["CPP_PEER"], "call"))
    assert all_passed(conform("--client", "--", *PYTHON, "-m", "kservice"))
    assert all_passed(conform("--client", "--", *PYTHON, printed_client()))


def test_printed_client_waits_while_the_backlog_is_full(printed_client, full_name):
    call = runpy.run_path(printed_client())["call"]
    begin = time.monotonic()
    with pytest.raises(BlockingIOError):
        call(full_name, "echo", timeout=0.5)
    assert time.monotonic() - begin > 0.4


def test_printed_client_calls_without_a_time_out(printed_client, name, c_service):
    call = runpy.run_path(printed_client())["call"]
    assert call(name, "echo", b"text", timeout=None) == b"text"


def test_printed_client_outlives_a_service_that_goes(printed_client):
    code = (
        "import runpy, signal, socket, sys\n"
        "signal.signal(signal.SIGPIPE, signal.SIG_DFL)\n"
        "conn, service = socket.socketpair()\n"
        "service.close()\n"
        "try:\n"
        "    runpy.run_path(sys.argv[1])['send_descriptor'](conn, 0)\n"
        "except BrokenPipeError:\n"
        "    print('told')\n"
    )
    told = subprocess.run([*PYTHON, "-c", code, printed_client()], capture_output=True, text=True)
    assert (told.returncode, told.stdout) == (0, "told\n")


@pytest.mark.parametrize(
    "old, new, rule",
    [
        ("%X.sock", "%08X.sock", "as a big-endian number"),
        (
            "receive_until(conn, ACCEPTED)",
            'conn.send(b"x"); receive_until(conn, ACCEPTED)',
            "The caller sends nothing before 7",
        ),
        ('ljust(257, b"\\0")', 'ljust(256, b"\\0")', "It is sent whole"),
        ('ljust(257, b"\\0")', 'ljust(257, b" ")', "in a request: the command's name"),
        ("flags = 0 if", "flags = 2 if", "bit 0 (value 1)"),
        ('[b"\\0"]', '[b"x"]', "Each descriptor is a message"),
        ("written = 0", "written = len(request)", "The memory file comes first"),
        (
            "receive_until(conn, REPLY)",
            'conn.send(b"x"); receive_until(conn, REPLY)',
            "After its descriptors",
        ),
        (
            "receive_until(conn, REPLY)",
            "while not __import__('select').select([conn], [], [], 0.01)[0]: os.lseek(memfd, 0, 0)\n"
            "            receive_until(conn, REPLY)",
            "passes the descriptor and leaves the file alone",
        ),
        ("os.pread(memfd, size - len(reply), len(reply))", "os.read(memfd, size)", "reads the file from 0"),
        ("len(name) > 256", "len(name) > 255", "256 bytes; longer ones arrive truncated"),
        ("sys.stdout.buffer.write(reply)", 'sys.stdout.buffer.write(reply or b"none")', "A reply of size 0"),
        ("os.fstat(memfd).st_size", "min(os.fstat(memfd).st_size, 4096)", "There is no terminator"),
        (
            "if directive[0] == wanted:",
            "if directive[0] == 200: sys.exit(1)\n        if directive[0] == wanted:",
            "A caller ignores types",
        ),
        ("raise CallError(ENDS[directive[0]])", "sys.exit(0)", "Instead of 7"),
        ('raise CallError("connection ended without a reply")', "sys.exit(0)", "Seen before 7"),
        ('raise CallError("connection ended without a reply")', "sys.exit(0)", "The connection ends without 9"),
        ("if len(directive) != DIRECTIVE_SIZE:", "if not directive:", "the library takes any other number"),
        (
            "sys.stdout.buffer.write(reply)",
            "sys.stdout.buffer.write(reply); sys.stdout.flush(); os.close(1); __import__('signal').pause()",
            "accepted: send the request",
        ),
    ],
)
def test_broken_client_is_found(printed_client, old, new, rule):
    for _ in range(5):  # two of them break a silence that ksctl listens to for a moment only
        done = conform("--timeout", "2", "--client", "--", *PYTHON, printed_client(old, new))
        broken = [line[6:] for line in done.stdout.splitlines() if line.startswith("FAIL")]
        if any(each.startswith(rule) for each in broken):
            assert done.returncode == 1
            return
    pytest.fail(f"found broken: {broken}")


@pytest.mark.parametrize(
    "old, new, rule",
    [
        ("0o777", "0o700", "A service listens"),
        ("directive(_wire.ACCEPTED)", "directive(3)", "accepted: send the request"),
        ("directive(_wire.REPLY)", "directive(_wire.REPLY)[:200]", "the reply is complete"),
        ("directive(_wire.REPLY))", 'directive(_wire.REPLY) + b"x")', "and shuts the connection down"),
        (
            "caller.shutdown(socket.SHUT_RDWR)",
            'self.__dict__.setdefault("kept", []).append(caller.dup())',
            "and shuts the connection down",
        ),
        ("directive(_wire.REPLY)", "directive(_wire.REPLY, 1)", "bit 0 (value 1)"),
        (
            "_wire.send_directive(request._c",
            "os.lseek(request._received[0], 0, 0); _wire.send_directive(request._c",
            "Hence step 2",
        ),
        ("| 0x04 | 0x08 | 0x10", "& 0", "REFUSES is sealed"),
        (
            "if fcntl.fcntl(fd, fcntl.F_GETFL) & os.O_ACCMODE != os.O_RDWR:\n            return False",
            'os.dup2(os.open(f"/proc/self/fd/{fd}", os.O_RDWR), fd)',
            "REFUSES is not open for reading and writing",
        ),
        (
            "if fcntl.fcntl(fd, fcntl.F_GETFL)",
            'if "memfd" not in os.readlink(f"/proc/self/fd/{fd}") or fcntl.fcntl(fd, fcntl.F_GETFL)',
            "REFUSES is not a memory file",
        ),
        ("fcntl.fcntl(fd, _F_ADD_SEALS, _F_SEAL_SEAL)", "pass", "Where a file can still be sealed"),
        ("_wire.receive_descriptor(caller)", "(socket.recv_fds(caller, 1, 8)[1] or [None])[0]", "Of several descriptors"),
        (
            "_wire.receive_descriptor(caller)",
            '_wire.receive_descriptor(caller) or os.memfd_create("x")',
            "A data byte without a descriptor",
        ),
        (
            "os.close(received.pop())",
            "received.pop() if received[1:] else os.close(received.pop())",
            "The extra descriptor can be",
        ),
        (
            "!= _wire.REQUEST:\n",
            "!= _wire.REQUEST:\n            _wire.send_directive(caller, _wire.directive(9))\n",
            "The connection ends without 9",
        ),
        (
            "command = os.fsdecode(",
            "message[-1] == 0 or caller.recv(1)\n            command = os.fsdecode(",
            "256 bytes; longer ones",
        ),
        (
            "if message is None",
            "if message is None: raise SystemExit\n        if message is None",
            "A caller may hang up at any time",
        ),
    ],
)
def test_broken_service_is_found(name, tmp_path, old, new, rule):
    shutil.copytree(PYTHON_TREE / "kservice", tmp_path / "kservice")
    file = tmp_path / "kservice/_service.py"
    text = file.read_text()
    assert old in text
    file.write_text(text.replace(old, new))
    with running(*PYTHON, "-c", SERVICE, name, tree=tmp_path):
        broken = broken_rules(conform(name, "--timeout", "2"))
    rule = rule.replace("REFUSES", "The service refuses a file, by closing the connection, that")
    assert any(each.startswith(rule) for each in broken), broken
    if rule == "Hence step 2":  # which whatever else breaks the reply breaks, too
        assert len(broken) == 1, broken


def test_rules_are_the_documents_sentences(name, c_service):
    document = " ".join(PROTOCOL.split())
    for done in conform(name, "--command", "echo"), conform("--client", str(PROGRAMS / "ksctl"), "call"):
        rules = [line[6:] for line in done.stdout.splitlines() if line.startswith(("ok ", "skip "))]
        assert len(rules) > 15
        for rule in rules:
            # Items of these two lists are printed behind the words that begin the list.
            for beginning in (
                "The service refuses a file, by closing the connection, that",
                "The connection ends without 9 when",
            ):
                if rule.startswith(beginning):
                    assert beginning in document
                    rule = rule[len(beginning) + 1 :]
            assert rule in document


def test_a_long_temporary_folder_is_no_fault_of_the_client(tmp_path, monkeypatch):
    folder = tmp_path / ("long" * 16)
    folder.mkdir()
    monkeypatch.setenv("TMPDIR", str(folder))
    assert all_passed(conform("--client", str(PROGRAMS / "ksctl"), "call"))


def test_usage_errors():
    assert conform().returncode == 2
    two = conform("one", "two")
    assert (two.returncode, two.stdout) == (2, "")
    assert conform("@/tmp/nobody").returncode == 12
    assert conform("n" * 65).returncode == 17


def test_program_that_is_none_is_a_usage_error():
    done = conform("--client", "/no/such/program")
    assert (done.returncode, done.stdout) == (2, "")
    said = "ksctl: cannot run /no/such/program: No such file or directory (see ksctl conform --help)\n"
    assert done.stderr == said
