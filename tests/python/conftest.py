import contextlib
import os
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

PYTHON_TREE = Path(__file__).parents[2] / "python"
PROGRAMS = Path(os.environ["BUILD"], "bin")
sys.path.insert(0, str(PYTHON_TREE))


def pytest_collection_modifyitems(items):
    """What cannot be emulated has to fail, see tests/emulation/run."""
    if "EMULATED" in os.environ:
        listed = (Path(__file__).parents[1] / "emulation/cannot").read_text().splitlines()
        reasons = dict(line.split(" ", 1) for line in listed)
        for item in items:
            if item.nodeid in reasons:
                item.add_marker(pytest.mark.xfail(reason=reasons[item.nodeid], strict=True))


@pytest.fixture
def name():
    """A service's name that nobody has."""
    with tempfile.TemporaryDirectory() as folder:
        yield f"@{folder}/s"


@pytest.fixture
def full_listener(name):
    """The socket of the service `name`: its backlog is full, and it accepts nobody."""
    with contextlib.ExitStack() as stack:
        listener = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
        listener.bind(name[1:])
        listener.listen(0)
        with contextlib.suppress(BlockingIOError):
            while True:
                connection = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
                connection.setblocking(False)
                connection.connect(name[1:])
        yield listener


@pytest.fixture
def full_name(name, full_listener):
    return name


class CService:
    """The service of c_service.c."""

    def __init__(self, name):
        command = [os.environ["C_SERVICE"], name]
        self._process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self._process.stdout.readline() == "ready\n"
        self.pid = self._process.pid

    def order(self, line):
        self._process.stdin.write(line + "\n")
        self._process.stdin.flush()
        assert self._process.stdout.readline() == "done\n"

    def end(self):
        self._process.communicate()
        return self._process.returncode


@pytest.fixture
def c_service(name):
    service = CService(name)
    yield service
    assert service.end() == 0
