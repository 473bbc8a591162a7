"""Bad sessions against the running daemon, mixed with honest callers; scripts/hostile starts it in a simulated host.

    campaign.py SESSIONS [--seed N] --build DIR --daemon PID

Each session is of a random kind. A kind is a function below: what it does wrong is its name and its first line. One
process after the other draws from its own seeded sequence, so that a seed repeats a run but for the order in which
sessions meet. Meanwhile honest callers check that each reply carries their own nonce, and note how long they waited.

Prints kinds, sessions and outcomes, what the daemon held before and after, and the longest wait of an honest caller.
Exit status: 0; 1 when the daemon ended, a reply was wrong or missing, or something stayed behind.
"""

import argparse
import array
import collections
import concurrent.futures
import contextlib
import ctypes
import fcntl
import json
import multiprocessing
import os
import random
import select
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

import load  # noqa: E402
from load import MAIL, MAIN, PATIENCE_S, SYSV  # noqa: E402
from kservice import _wire  # noqa: E402

PATHS = {name: _wire.socket_path(name) for name in (MAIN, MAIL)}
ACTORS = 6  # processes with bad sessions
HONEST = 2  # processes with honest calls
COMMANDS = [
    "test", "exec_cli", "get_tvlounge_status", "system_call_log_tool", "system_conn_log_tool", "get_sess_id",
    "system_call_no_del_share_add", "get_vpd_productnamed", "get_vpd_ext_area", "is_generic_model",
    "system_call_cloud_analysis_send", "vex_auth_add_session", "get_sms_config", "get_all_users", "get_group_members",
    "system_call_nc_notify", "update_ip_ban_list", "get_hwsn", "reverse_proxy", "cmv_cli", "vex_agent_cli",
]  # fmt: skip


# ---- The steps of a session --------------------------------------------------------------------------------------------


class Session:
    """One connection, closed at the end of the `with`."""

    def __init__(self, chance, service=None):
        self.chance = chance
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(PATIENCE_S)
        self.path = PATHS[service or chance.choice((MAIN, MAIN, MAIN, MAIL))]
        self.owned = [self.socket]

    def __enter__(self):
        self.socket.connect(self.path)
        return self

    def __exit__(self, *_):
        for each in self.owned:
            each.close()

    def own(self, fd):
        """A descriptor that is closed with the session."""
        self.owned.append(os.fdopen(fd, "rb", buffering=0, closefd=True) if isinstance(fd, int) else fd)
        return self.owned[-1].fileno()

    def memory_file(self, text=b"{}", flags=0):
        fd = os.memfd_create("hostile", os.MFD_CLOEXEC | flags)
        self.owned.append(Descriptor(fd))
        _wire.write_all(fd, text)
        return fd

    def invited(self):
        """Waits for the invitation. Raises Ended when there is none."""
        if self.heard() != _wire.ACCEPTED:
            raise Ended("not invited")

    def heard(self):
        """The type of the next directive; None = hung up."""
        try:
            text = self.socket.recv(_wire.DIRECTIVE_SIZE, socket.MSG_WAITALL)
        except ConnectionError:
            return None
        return text[0] if len(text) == _wire.DIRECTIVE_SIZE else None

    def say(self, data):
        try:
            self.socket.sendall(data)
        except OSError as error:
            raise Ended("hung up meanwhile") from error

    def ask(self, command="test", flags=0, kind=_wire.REQUEST):
        self.say(_wire.directive(kind, flags, command if isinstance(command, bytes) else command.encode()))

    def pass_fds(self, *fds, data=b"\0"):
        try:
            self.socket.sendmsg([data], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", fds))])
        except ConnectionError as error:
            raise Ended("hung up meanwhile") from error

    def linger(self):
        """Keeps a worker waiting for a moment, and leaves."""
        return self.outcome() if select.select([self.socket], [], [], self.chance.random() / 10)[0] else "left"

    def outcome(self):
        """What the service made of it."""
        what = self.heard()
        return {None: "hung up", _wire.REPLY: "replied", _wire.BUSY: "turned away"}.get(what, f"said {what}")


class Ended(Exception):
    """The service has ended the session before it was over."""


class Descriptor:
    def __init__(self, fd):
        self.fd = fd

    def fileno(self):
        return self.fd

    def close(self):
        os.close(self.fd)


KINDS = {}  # name: (function, how often)


def kind(often=10):
    def note(function):
        KINDS[function.__name__] = (function, often)
        return function

    return note


def session(often=10, service=None):
    """A kind that works on an open, not yet invited session."""

    def note(function):
        def run(chance):
            with Session(chance, service) as it:
                return function(it) or it.outcome()

        KINDS[function.__name__] = (run, often)
        return function

    return note


def invited(often=10, service=None):
    """A kind that works on a session that has been invited."""

    def note(function):
        def run(chance):
            with Session(chance, service) as it:
                it.invited()
                return function(it) or it.outcome()

        KINDS[function.__name__] = (run, often)
        return function

    return note


# ---- Vanishing ---------------------------------------------------------------------------------------------------------


@session(40)
def vanish_before_the_invitation(it):
    return "left"


@invited(40)
def vanish_after_the_invitation(it):
    return "left"


@invited(40)
def vanish_after_the_directive(it):
    it.ask()
    return "left"


@invited(40)
def vanish_after_the_memory_file(it):
    it.ask(it.chance.choice(COMMANDS))
    it.pass_fds(it.memory_file())
    return "left"


@invited()
def vanish_before_the_promised_descriptor(it):
    it.ask(flags=1)
    it.pass_fds(it.memory_file())
    return "left"


@invited()
def vanish_with_the_reply_unread(it):
    it.ask()
    it.pass_fds(it.memory_file())
    select.select([it.socket], [], [], PATIENCE_S)
    return "left"


@session()
def half_closed_before_the_invitation(it):
    it.socket.shutdown(socket.SHUT_WR)
    it.heard()


@invited()
def half_closed_after_the_invitation(it):
    it.socket.shutdown(socket.SHUT_WR)


@invited()
def half_closed_after_the_request(it):
    it.ask()
    it.pass_fds(it.memory_file())
    it.socket.shutdown(socket.SHUT_WR)


@invited()
def deaf_after_the_request(it):
    it.ask()
    it.pass_fds(it.memory_file())
    it.socket.shutdown(socket.SHUT_RD)
    return "left"


@kind(1)
def stopped_and_continued_by_a_debugger(chance):
    with Session(chance) as it:
        pid = os.fork()
        if pid == 0:
            try:
                it.invited()
                os.kill(os.getpid(), signal.SIGSTOP)
                it.ask()
                it.pass_fds(it.memory_file())
                os._exit(0 if it.outcome() in ("replied", "hung up") else 1)
            finally:
                os._exit(2)
        os.waitpid(pid, os.WUNTRACED)
        time.sleep(chance.random() / 10)
        os.kill(pid, signal.SIGCONT)
        return {0: "replied", 2 << 8: "hung up"}.get(os.waitpid(pid, 0)[1], "wrong")


@kind(1)
def killed_with_a_request_under_way(chance):
    with Session(chance) as it:
        pid = os.fork()
        if pid == 0:
            it.invited()
            it.ask("exec_cli")
            it.pass_fds(it.memory_file(b'{"command":["/bin/echo","x"]}'))
            signal.pause()
        time.sleep(chance.random() / 100)
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
        return "left"


@invited()
def silent_for_a_moment(it):
    return it.linger()


@invited(0.1, MAIN)
def silent_until_dropped(it):
    pass


# ---- Wrong messages ----------------------------------------------------------------------------------------------------


@session()
def spoke_before_the_invitation(it):
    it.ask()
    it.pass_fds(it.memory_file())
    it.heard()


@invited()
def directive_of_another_type(it):
    it.ask(kind=it.chance.choice([each for each in range(256) if each != _wire.REQUEST]))


@invited()
def short_directive(it):
    it.say(_wire.directive(_wire.REQUEST, 0, b"test")[: it.chance.randrange(1, _wire.DIRECTIVE_SIZE)])


@invited()
def long_directive(it):
    it.say(_wire.directive(_wire.REQUEST, 0, b"test") + bytes(it.chance.randrange(1, 4096)))


@invited()
def directive_in_two_pieces(it):
    whole = _wire.directive(_wire.REQUEST, 0, b"test")
    at = it.chance.randrange(1, len(whole))
    it.say(whole[:at])
    it.say(whole[at:])


@invited()
def two_directives_at_once(it):
    it.say(2 * _wire.directive(_wire.REQUEST, 0, b"test"))


@invited()
def directive_and_descriptor_in_one_message(it):
    it.pass_fds(it.memory_file(), data=_wire.directive(_wire.REQUEST, 0, b"test"))
    return it.linger()


@invited()
def garbage(it):
    it.say(it.chance.randbytes(it.chance.randrange(1, 2000)))


@invited()
def urgent_data(it):
    it.ask()
    try:
        it.socket.send(b"!", socket.MSG_OOB)
    except OSError:
        return "not possible here"
    it.pass_fds(it.memory_file())


@invited()
def unknown_flags(it):
    it.ask(flags=it.chance.randrange(2, 256, 2))
    it.pass_fds(it.memory_file())


@invited()
def two_requests_on_one_connection(it):
    for _ in range(2):
        it.ask()
        it.pass_fds(it.memory_file())


@invited()
def unknown_command(it):
    it.ask(it.chance.randbytes(it.chance.randrange(1, 257)))
    it.pass_fds(it.memory_file())


@invited()
def command_without_an_end(it):
    it.ask(b"x" * 257)
    it.pass_fds(it.memory_file())


@invited()
def no_command(it):
    it.ask("")
    it.pass_fds(it.memory_file())


# ---- Wrong descriptors -------------------------------------------------------------------------------------------------


@invited()
def byte_without_a_descriptor(it):
    it.ask()
    it.say(b"\0")


@invited()
def two_or_three_descriptors_in_one_message(it):
    it.ask()
    it.pass_fds(*[it.memory_file() for _ in range(it.chance.choice((2, 3)))])


@invited(5)
def as_many_descriptors_as_a_message_holds(it):
    it.ask()
    it.pass_fds(*[it.memory_file()] * 253)


@invited()
def two_descriptors_and_two_bytes(it):
    it.ask()
    it.pass_fds(it.memory_file(), it.memory_file(), data=b"\0\0")


def full_pipe(it):
    reading, writing = os.pipe2(os.O_NONBLOCK)
    it.own(reading)
    it.owned.append(Descriptor(writing))
    try:
        while True:
            os.write(writing, bytes(65536))
    except BlockingIOError:
        return writing


def pipe_to_read(it):
    reading, writing = os.pipe()
    it.owned += [Descriptor(reading), Descriptor(writing)]
    return reading


def opened(path, flags):
    def make(it):
        fd = os.open(path, flags | os.O_CLOEXEC)
        it.owned.append(Descriptor(fd))
        return fd

    return make


def plain_file(it):
    file = tempfile.TemporaryFile(dir="/root")
    it.owned.append(file)
    return file.fileno()


def file_in_memory_by_name(it):
    file = tempfile.TemporaryFile(dir="/dev/shm")
    it.owned.append(file)
    return file.fileno()


def read_only_memory_file(it):
    return opened(f"/proc/self/fd/{it.memory_file()}", os.O_RDONLY)(it)


def sealed(seals):
    def make(it):
        fd = it.memory_file(flags=os.MFD_ALLOW_SEALING)
        fcntl.fcntl(fd, fcntl.F_ADD_SEALS, seals)
        return fd

    return make


def huge_memory_file(it):
    fd = it.memory_file()
    os.ftruncate(fd, 1 << 46)
    return fd


def far_offset(it):
    fd = it.memory_file()
    os.lseek(fd, (1 << 62) - 1, os.SEEK_SET)
    return fd


def own_end_of_a_pair(it):
    one, other = socket.socketpair()
    it.owned += [one, other]
    return one.fileno()


def the_connection_itself(it):
    return it.socket.fileno()


def another_connection_to_the_daemon(it):
    other = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    other.connect(it.path)
    it.owned.append(other)
    return other.fileno()


def from_call(number, *arguments):
    def make(it):
        fd = SYSV.syscall(number, *arguments)
        if fd < 0:
            raise Ended("not possible here")
        it.owned.append(Descriptor(fd))
        return fd

    return make


def process_descriptor(it):
    fd = os.pidfd_open(os.getpid())
    it.owned.append(Descriptor(fd))
    return fd


class SilentFile(Descriptor):
    """A file whose file system says nothing any more. It goes before the file is closed, which would never end."""

    def __init__(self):
        self.holder = subprocess.Popen([SILENT_FILE], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        number = int(self.holder.stdout.readline())
        holder = os.pidfd_open(self.holder.pid)
        super().__init__(SYSV.syscall(438, holder, number, 0))  # pidfd_getfd
        os.close(holder)

    def close(self):
        self.holder.communicate()
        with contextlib.suppress(OSError):  # there is none, or its file system has ended
            super().close()


def file_of_a_silent_file_system(it):
    it.owned.append(SilentFile())
    if it.owned[-1].fileno() < 0:
        raise Ended("no FUSE to be had here")
    return it.owned[-1].fileno()


def epoll(it):
    poller = select.epoll()
    poller.register(it.socket)
    it.owned.append(poller)
    return poller.fileno()


AARCH64 = os.uname().machine == "aarch64"
DESCRIPTORS = [
    full_pipe, pipe_to_read, plain_file, file_in_memory_by_name, read_only_memory_file, huge_memory_file, far_offset,
    own_end_of_a_pair, the_connection_itself, another_connection_to_the_daemon, process_descriptor, epoll,
    file_of_a_silent_file_system,
    opened("/", os.O_RDONLY | os.O_DIRECTORY), opened("/dev/null", os.O_RDWR), opened("/dev/zero", os.O_RDWR),
    opened("/dev/full", os.O_RDWR), opened("/proc/self/mem", os.O_RDWR), opened("/tmp", os.O_PATH),
    opened("/proc/self/environ", os.O_RDONLY), sealed(0x2), sealed(0x4), sealed(0x8), sealed(0x10),
    from_call(19 if AARCH64 else 290, 0, 0),  # eventfd2
    from_call(85 if AARCH64 else 283, 1, 0),  # timerfd_create
    from_call(26 if AARCH64 else 294, 0),  # inotify_init1
]  # fmt: skip


@invited(80)
def something_else_as_the_memory_file(it):
    it.ask(it.chance.choice(COMMANDS))
    it.pass_fds(it.chance.choice(DESCRIPTORS)(it))


@invited(80)
def something_odd_as_the_extra_descriptor(it):
    it.ask(flags=1)
    it.pass_fds(it.memory_file())
    make = it.chance.choice(DESCRIPTORS)
    it.pass_fds(make(it))
    if make is file_of_a_silent_file_system:
        return it.linger()  # its worker waits for that until we let go: no defence, see SECURITY.md


@invited()
def a_descriptor_that_nobody_promised(it):
    it.ask()
    it.pass_fds(it.memory_file())
    it.pass_fds(it.memory_file())


# ---- Files that change under the reader --------------------------------------------------------------------------------


def while_it_works(it, change):
    fd = it.memory_file(b'{"user":"' + b"x" * it.chance.choice((10, 5000, 300000)) + b'"}')
    it.ask(it.chance.choice(COMMANDS))
    it.pass_fds(fd)
    while not select.select([it.socket], [], [], 0)[0]:
        change(fd)


@invited()
def truncated_meanwhile(it):
    while_it_works(it, lambda fd: os.ftruncate(fd, it.chance.choice((0, 1, 4096))))


@invited()
def growing_meanwhile(it):
    while_it_works(it, lambda fd: os.ftruncate(fd, it.chance.choice((1 << 16, 1 << 24, 1 << 40))))


@invited()
def rewritten_meanwhile(it):
    while_it_works(it, lambda fd: os.pwrite(fd, it.chance.randbytes(64), it.chance.randrange(256)))


@invited()
def offset_moved_meanwhile(it):
    while_it_works(it, lambda fd: os.lseek(fd, it.chance.choice((0, 100, 1 << 40)), os.SEEK_SET))


@invited()
def punched_meanwhile(it):
    # fallocate(2): FALLOC_FL_KEEP_SIZE | FALLOC_FL_PUNCH_HOLE
    while_it_works(it, lambda fd: SYSV.fallocate(fd, 3, ctypes.c_long(0), ctypes.c_long(1 << 20)))


@invited()
def sealed_meanwhile(it):
    fd = it.memory_file(flags=os.MFD_ALLOW_SEALING)
    it.ask()
    it.pass_fds(fd)
    try:
        fcntl.fcntl(fd, fcntl.F_ADD_SEALS, it.chance.choice((2, 4, 8, 16)))
    except OSError:
        pass  # the service was first, or has it mapped


# ---- Texts -------------------------------------------------------------------------------------------------------------


def with_text(it, text, command=None):
    it.ask(command or it.chance.choice(COMMANDS))
    it.pass_fds(it.memory_file(text))


@invited(1)
def as_much_text_as_is_taken(it):
    with_text(it, b'{"a":"' + b"x" * ((16 << 20) - 8) + b'"}')


@invited(1)
def one_byte_more_than_is_taken(it):
    with_text(it, b'{"a":"' + b"x" * ((16 << 20) - 7) + b'"}')


@invited(20)
def text_that_is_no_object(it):
    texts = (b"", b"[]", b"1", b'"x"', b"null", b"true", b"{", b"}", b'{"a"}', b"\0", b"{}{}", b"\xff\xfe", b"//", b"/*")
    with_text(it, it.chance.choice(texts))


@invited(20)
def random_bytes_as_text(it):
    with_text(it, it.chance.randbytes(it.chance.randrange(4096)))


@invited(5)
def nested_about_the_parser_limit(it):
    depth = it.chance.choice((998, 999, 1000, 1001, 1002, 100000))
    with_text(it, b'{"a":' + b"[" * depth + b"]" * depth + b"}")


@invited(20)
def keys_of_every_type(it):
    values = [None, True, -1, 1 << 40, 1e300, "x", "x" * 5000, "\u0000", "../../etc/passwd", "$(id)", [], ["x", 1], {}]
    keys = ("command", "user", "pwd", "session", "type", "name", "group", "path", "message", "index", "enabled", "rules")
    with_text(it, json.dumps({key: it.chance.choice(values) for key in keys}).encode())


# ---- Floods and tools --------------------------------------------------------------------------------------------------


def flood(chance, service):
    callers = [Session(chance, service) for _ in range(chance.randrange(5, 60))]
    try:
        for each in callers:
            each.socket.setblocking(False)
            try:
                each.socket.connect(each.path)
            except BlockingIOError:
                return "backlog full"
        return "left"
    finally:
        for each in callers:
            each.socket.close()


@kind(2)
def flood_of_the_main_service(chance):
    return flood(chance, MAIN)


@kind(2)
def flood_of_the_mail_service(chance):
    return flood(chance, MAIL)


def program(it, *words):
    it.ask("exec_cli")
    it.pass_fds(it.memory_file(json.dumps({"command": words}).encode()))


@invited(1, MAIN)
def tool_that_takes_its_time(it):
    program(it, "/bin/sleep", f"{it.chance.random() / 2:.2f}")


@invited(1, MAIN)
def tool_that_floods(it):
    program(it, "/usr/bin/head", "-c", "3000000", "/dev/zero")


@invited(1, MAIN)
def tool_that_leaves_a_child_behind(it):
    program(it, "/bin/sh", "-c", "sleep 2 & echo x")


@invited(1, MAIN)
def tool_that_is_killed(it):
    program(it, "/bin/sh", "-c", "kill -9 $$")


@invited(1, MAIN)
def tool_that_does_not_exist(it):
    program(it, "/nowhere/tool")


# ---- Records and signals -----------------------------------------------------------------------------------------------


@kind()
def records_of_every_length_and_type(chance):
    key, longest = chance.choice(list(load.RECORD_SIZE.items()))
    record_type = chance.choice((1, 1, 2, 2, 3, (1 << 63) - 1, chance.randrange(1, 1 << 40)))
    fill = chance.choice((bytes(longest), b"\xff" * longest, chance.randbytes(longest)))
    body = fill[: chance.randrange(longest + 1)]
    return "posted" if load.post(key, body, record_type) else "queue full"


@kind(1)
def signals_that_mean_nothing(chance):
    os.kill(DAEMON, chance.choice((signal.SIGPIPE, signal.SIGCHLD, signal.SIGURG, signal.SIGWINCH, signal.SIGCONT)))
    return "sent"


@kind(1)
def daemon_stopped_and_continued(chance):
    os.kill(DAEMON, signal.SIGSTOP)
    time.sleep(0.01)
    os.kill(DAEMON, signal.SIGCONT)
    return "sent"


# ---- The run -----------------------------------------------------------------------------------------------------------

DAEMON = 0
SILENT_FILE = ""  # the program
DONE = multiprocessing.Event()


def act(number, seed, sessions):
    chance = random.Random(f"{seed}/{number}")
    names = list(KINDS)
    weights = [KINDS[name][1] for name in names]
    outcomes = collections.Counter()
    for name in chance.choices(names, weights, k=sessions):
        try:
            outcome = KINDS[name][0](chance)
        except Ended as end:
            outcome = str(end)
        except TimeoutError:
            outcome = "STUCK"
        except ConnectionError as error:
            outcome = f"NO DAEMON: {error.strerror}" if error.errno == 111 else "hung up meanwhile"
        outcomes[name, outcome] += 1
    return outcomes


def honest(number, seed):
    return load.call_until(DONE, random.Random(f"{seed}/honest/{number}"), pause_s=0.002)


def campaign(seed, sessions):
    """One run; its outcomes by kind, and the honest callers' figures."""
    DONE.clear()
    with concurrent.futures.ProcessPoolExecutor(ACTORS + HONEST) as pool:
        callers = [pool.submit(honest, number, seed) for number in range(HONEST)]
        shares = [sessions // ACTORS + (number < sessions % ACTORS) for number in range(ACTORS)]
        actors = [pool.submit(act, number, seed, share) for number, share in enumerate(shares)]
        try:
            outcomes = sum((each.result() for each in actors), collections.Counter())
        finally:
            DONE.set()
        return outcomes, [each.result() for each in callers]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("sessions", type=int, metavar="SESSIONS")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--build", required=True, metavar="DIR")
    parser.add_argument("--daemon", type=int, required=True, metavar="PID")
    arguments = parser.parse_args()
    global DAEMON, SILENT_FILE
    DAEMON = arguments.daemon
    SILENT_FILE = f"{arguments.build}/tests/silent_file_for_others"

    # What the daemon keeps for good it has after the first ten thousand. A sanitizer keeps more and more.
    campaign(f"{arguments.seed}/first", min(10000, arguments.sessions // 10))
    memory_settled = arguments.sessions >= 100000 and not load.keeps_freed_memory(DAEMON)
    before = load.settled(load.held_by_daemon, DAEMON)
    began = time.monotonic()
    outcomes, calls = campaign(arguments.seed, arguments.sessions)
    seconds = time.monotonic() - began
    try:
        after = load.settled(load.held_by_daemon, DAEMON, before)
    except ProcessLookupError:
        sys.exit("hostile: the daemon has ended")

    failed = []
    for name in KINDS:
        of_kind = {outcome: count for (kind_, outcome), count in outcomes.items() if kind_ == name}
        told = ", ".join(f"{count} {outcome}" for outcome, count in sorted(of_kind.items()))
        print(f"{sum(of_kind.values()):8}  {name.replace('_', ' ')}: {told}")
        failed += [f"{name}: {outcome}" for outcome in of_kind if outcome.startswith(("STUCK", "NO DAEMON", "wrong"))]
    print(f"{sum(outcomes.values()):8}  of {len(KINDS)} kinds in {seconds:.0f} s, seed {arguments.seed}")
    for name, value in before.items():
        print(f"{name}: {value} before, {after[name]} after")
        if name == "resident KiB":
            if memory_settled and after[name] > value + 1024:
                failed.append("resident memory grew")
        elif after[name] > value:
            failed.append(f"{name} grew")
    served = sum(each[0] for each in calls)
    wrong = sum(each[1] for each in calls)
    print(f"honest callers: {served} calls, {wrong} wrong, longest wait {max(each[2] for each in calls):.2f} s")
    if wrong or not served:
        failed.append("honest callers were not served")
    print(f"hostile: {'; '.join(failed) or 'as it should be'}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
