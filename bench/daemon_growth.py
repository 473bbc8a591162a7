#!/usr/bin/env python3
"""The daemon's memory and start, and a start beside it. To be run in the simulated host, with the daemon's path in the
variable VEXPROD_PROGRAM and its build's libkservice.so where the loader finds it.

    daemon_growth.py start             microseconds from its start to the first answers of both services
    daemon_growth.py bind              the same of a program that only listens at a socket, to the first connection
    daemon_growth.py memory idle       MiB that it holds when it serves
    daemon_growth.py memory waiting    when 1000 callers wait for each of its services
    daemon_growth.py memory requests   when it has served a hundred requests of 64 MiB

Prints {"value":...}.
"""

import contextlib
import ctypes
import hashlib
import json
import os
import pathlib
import re
import resource
import signal
import socket
import sys
import time

WORKERS = {b"VexHubServer-vexprod": 2, b"VexHubServer_send_mail-vexprod": 5}
MAIN = next(iter(WORKERS))
WAITING, REQUESTS, REQUEST = 1000, 100, b"x" * (64 << 20)
POLL_S, SETTLED_S, PATIENCE_S = 50e-6, 0.1, 30
TIMEOUT_S = 60

if not pathlib.Path("/.hostsim").exists():
    sys.exit("daemon_growth.py runs in the simulated host only, see hostsim/enter")
daemon = pathlib.Path(os.environ["VEXPROD_PROGRAM"])
library = ctypes.CDLL("libkservice.so")
library.ks_ez_call.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_size_t, ctypes.c_void_p,
                               ctypes.c_void_p, ctypes.c_uint, ctypes.c_int]


def call(service, command, request=b""):
    return library.ks_ez_call(service, command, request, len(request), None, None, TIMEOUT_S, -1) == 0


def socket_path(service):
    return "/var/run/ks/%X.sock" % int.from_bytes(hashlib.sha1(service).digest()[:4], "big")


def connect(path):
    caller = socket.socket(socket.AF_UNIX)
    try:
        caller.connect(path)
        return caller
    except OSError:
        caller.close()
        return None


def wait_until(condition):
    give_up_at = time.monotonic() + PATIENCE_S
    while not condition():
        if time.monotonic() > give_up_at:
            sys.exit("waited in vain")
        time.sleep(POLL_S)


@contextlib.contextmanager
def started(arguments, serves):
    """Starts the program and waits until it serves. Yields its process id and the microseconds that it took."""
    null_device = [(os.POSIX_SPAWN_OPEN, stream, "/dev/null", os.O_RDWR, 0) for stream in range(3)]
    begin = time.monotonic()
    pid = os.posix_spawn(arguments[0], arguments, os.environ, file_actions=null_device)
    try:
        wait_until(serves)
        yield pid, (time.monotonic() - begin) * 1e6
    finally:
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)


def started_daemon():
    return started([str(daemon)], lambda: all(call(service, b"test") for service in WORKERS))


def open_descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def settled_descriptors(pid):
    """Their number once the closing after the last call is over."""
    while True:
        count = open_descriptors(pid)
        time.sleep(SETTLED_S)
        if open_descriptors(pid) == count:
            return count


def make_wait(pid):
    """Callers that say nothing: the first ones are invited and hold the workers, the others wait. The daemon has one
    descriptor for each. Returns what has to be kept."""
    before = settled_descriptors(pid)
    callers = [connect(socket_path(service)) for service, workers in WORKERS.items() for _ in range(workers + WAITING)]
    wait_until(lambda: open_descriptors(pid) >= before + len(callers))
    return callers


def make_requests(_pid):
    for _ in range(REQUESTS):
        if not call(MAIN, b"exec_cli", REQUEST):  # reads it, and refuses it
            sys.exit("a request failed")


def memory(when):
    with started_daemon() as (pid, _):
        kept = {"idle": lambda _pid: None, "waiting": make_wait, "requests": make_requests}[when](pid)
        status = pathlib.Path(f"/proc/{pid}/status").read_text()
        del kept
    return int(re.search(r"^VmRSS:\s*(\d+) kB$", status, re.MULTILINE)[1]) / 1024


def start(program):
    if program == "start":
        manager = started_daemon()
    else:
        path = "/tmp/bind_only"
        manager = started([str(daemon.parent.parent / "bench" / "bind_only"), path], lambda: connect(path))
    with manager as (_, took_us):
        return took_us


hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
print(json.dumps({"value": memory(sys.argv[2]) if sys.argv[1] == "memory" else start(sys.argv[1])}))
