"""What the campaign of bad sessions and the soak run share: calls with a nonce, records, and what a process holds."""

import ctypes
import json
import os
import struct
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))

import kservice  # noqa: E402

MAIN, MAIL, NOTIFY = "VexHubServer-vexprod", "VexHubServer_send_mail-vexprod", "VexHubServer_notify-vexprod"
NOTIFICATIONS, EVENT_LOG = 65521, 65522  # the queues' keys
RECORD_SIZE = {NOTIFICATIONS: 144, EVENT_LOG: 2488}  # without the type word
PATIENCE_S = 60  # nothing here takes longer unless the daemon is stuck
SYSV = ctypes.CDLL(None, use_errno=True)


def call_with_nonce(chance, tool_share=1.0):
    """Whether the reply to a call carries what this one alone asked for.

    tool_share  of the calls run a program; the others ask for one of the sessions of prepare_sessions(), without any.
    """
    if chance.random() < tool_share:
        nonce = f"{chance.getrandbits(64):016x}"
        command, request = "exec_cli", {"command": ["/bin/echo", nonce]}
        key, expected = "result", f"{nonce}\n"
    else:
        nonce = chance.randrange(SESSIONS)
        command, request = "vex_auth_get_session", {"type": 1, "length": 32, "sid": f"s{nonce}"}
        key, expected = "user", f"user{nonce}"
    try:
        return json.loads(kservice.call(MAIN, command, json.dumps(request), timeout=PATIENCE_S))[key] == expected
    except (kservice.CallError, ValueError, KeyError) as error:
        print(f"a call with a nonce: {error!r}", file=sys.stderr)
        return False


SESSIONS = 50


def prepare_sessions():
    """Makes the host's file of login sessions one of SESSIONS users."""
    lines = [f"1\ts{number}\tuser{number}\n" for number in range(SESSIONS)]
    Path("/var/lib/hostsim/sessions").write_text("".join(lines))


def call_until(done, chance, pause_s=0.0, tool_share=1.0):
    """Calls with nonces until `done`. How many, how many replies were wrong, and the longest wait in seconds."""
    calls, wrong, longest = 0, 0, 0.0
    while not done.is_set() and wrong < 5:
        began = time.monotonic()
        wrong += not call_with_nonce(chance, tool_share)
        longest = max(longest, time.monotonic() - began)
        calls += 1
        if pause_s:
            time.sleep(pause_s)
    return calls, wrong, longest


def post(key, body, record_type=1):
    """Puts a record into a queue, unless that is full or not there. Whether it did."""
    queue = SYSV.msgget(key, 0)
    record = struct.pack("@l", record_type) + body
    return queue >= 0 and SYSV.msgsnd(queue, record, ctypes.c_size_t(len(body)), 0o4000) == 0  # IPC_NOWAIT


def held(pid):
    """What a process holds: descriptors, threads, resident KiB. Raises ProcessLookupError when it has ended."""
    try:
        lines = Path(f"/proc/{pid}/status").read_text().splitlines()
        status = dict(line.split(":\t", 1) for line in lines if ":\t" in line)
        resident = status["VmRSS"]
    except (FileNotFoundError, KeyError):  # nobody, or a zombie
        raise ProcessLookupError(f"process {pid} has ended") from None
    return {
        "descriptors": len(os.listdir(f"/proc/{pid}/fd")),
        "threads": int(status["Threads"]),
        "resident KiB": int(resident.split()[0]),
    }


def held_by_daemon(pid):
    """The same of the daemon, and its temporary files."""
    return {**held(pid), "temporary files": len(list(Path("/tmp").glob("vexprod-*")))}


def settled(look, pid, wanted=None):
    """What `look`, one of the two above, finds once nothing is under way: as `wanted`, or as it stays for a second."""
    last = look(pid)
    give_up = time.monotonic() + 10
    while time.monotonic() < give_up:
        if wanted and all(last[name] <= wanted[name] for name in wanted if name != "resident KiB"):
            break
        time.sleep(0.1 if wanted else 1)
        now = look(pid)
        if not wanted and now == last:
            break
        last = now
    return last


def keeps_freed_memory(pid):
    """Whether the process is built with a sanitizer that keeps more and more."""
    maps = Path(f"/proc/{pid}/maps").read_text()
    return "libasan" in maps or "libtsan" in maps
