"""The daemon under full load for a long time; scripts/soak starts it in a simulated host.

    soak.py (MINUTES | --kills N | --records N) [--seed N] [--samples FILE] --build DIR --daemon PID

MINUTES: callers check a nonce in each reply, records are posted to both queues as fast as they are taken, a `ksctl
listen` that comes and goes hears them, the log is rotated, and process workers of a second service are killed, whose
callers check nonces as well. --kills: only that service, until so many workers were killed. --records: only the
records, with a listener that stays, until so many were posted.

A first tenth, at most a minute, warms up; what daemon and service hold is compared from there on. --samples: what they
held over time, for tests/soak/plot. Prints a table.
Exit status: 0; 1 when the daemon ended, a reply was wrong or missing, a record was lost or out of order, a kill cost
another worker's caller, or something stayed behind.
"""

import argparse
import bisect
import concurrent.futures
import contextlib
import json
import multiprocessing
import os
import random
import re
import select
import signal
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

import load  # noqa: E402
from load import EVENT_LOG, NOTIFICATIONS, NOTIFY, PATIENCE_S  # noqa: E402
import kservice  # noqa: E402

QUEUES = (NOTIFICATIONS, EVENT_LOG)
CALLERS = 4  # processes that call the daemon, which has two workers
WORKERS = 4  # of the service whose workers are killed
WORKERS_CALLERS = 6
SERVICE_NAME = "@/tmp/soak.sock"
LOG = "/share/VexHubServer/.log/.lyn_ks_vexprod.log"
LOG_LINE = re.compile(rb"\[\d{5,}\] \[[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \] \[")
REPORT = re.compile(r"\[KService\] \[WARN\] .* consumer-worker\[\d+\]\.pid=(\d+) WIFSIGNALED=9, restart it\.")

LISTENS = multiprocessing.Event()  # there is somebody to hear the first record
ENOUGH = multiprocessing.Event()  # the load ends
POSTED = multiprocessing.Event()  # no more records come
OVER = multiprocessing.Event()  # nothing is under way any more
POSTS = {key: multiprocessing.Value("q", 0) for key in QUEUES}


# ---- Calls -------------------------------------------------------------------------------------------------------------


def call_daemon(seed, number):
    return load.call_until(ENOUGH, random.Random(f"{seed}/caller/{number}"), tool_share=0.2)


# ---- Records -----------------------------------------------------------------------------------------------------------


def number_record(key, number):
    """The record with this number in the field for a text, and the type word for it."""
    if key == NOTIFICATIONS:
        return struct.pack("<iii132s", 1, 2, 1, b"%d" % number), 1
    if number % 2:  # an event
        return bytes(4) + struct.pack("<iq65s65s65s1024s", 1, 1, b"", b"", b"", b"%d" % number).ljust(2484, b"\0"), 1
    of_connection = struct.pack("<iq65s65s65s1024sxii", 1, 1, b"", b"", b"", b"%d" % number, 1, 1)
    return bytes(1244) + of_connection + bytes(4), 2


def post_number(key, number):
    """Posts it once there is room. Whether there was before patience ended."""
    body, record_type = number_record(key, number)
    give_up = time.monotonic() + PATIENCE_S
    while not load.post(key, body, record_type):
        if time.monotonic() > give_up:
            return False
        time.sleep(0.0005)
    return True


def post_records(key, limit):
    """Posts numbered records until `limit` or ENOUGH; POSTS tells how many."""
    LISTENS.wait(PATIENCE_S)
    while POSTS[key].value < limit and not ENOUGH.is_set():
        if not post_number(key, POSTS[key].value):
            raise TimeoutError(f"queue {key} stays full")
        POSTS[key].value += 1


class Heard:
    """What a listener heard of the numbered records."""

    def __init__(self):
        self.last = dict.fromkeys(QUEUES, -1)
        self.records = 0
        self.out_of_order = 0
        self.dropped = 0  # not heard before a later one: nobody listened, or did not answer in time
        self.sessions = 0

    def note(self, key, number):
        self.records += 1
        if number <= self.last[key]:
            self.out_of_order += 1
        else:
            self.dropped += number - self.last[key] - 1
            self.last[key] = number

    def all(self):
        return all(self.last[key] == POSTS[key].value for key in QUEUES)


def listen_for(heard, ksctl, stay_s):
    """One session of so many seconds, None = to the end. True = all has been heard, or never will be."""
    listener = subprocess.Popen([ksctl, "listen", NOTIFY], stdout=subprocess.PIPE)
    subprocess.run([ksctl, "wait", NOTIFY, "--timeout", str(PATIENCE_S)], check=True)
    LISTENS.set()
    heard.sessions += 1
    final, heard_all = threading.Event(), threading.Event()

    def conclude():
        if POSTED.wait(stay_s):
            final.set()
            if all(post_number(key, POSTS[key].value) for key in QUEUES):  # one more each, which is heard last
                heard_all.wait(PATIENCE_S)
        listener.terminate()

    conclusion = threading.Thread(target=conclude)
    conclusion.start()
    for line in listener.stdout:
        command, text = line.split(b" ", 1)
        key = NOTIFICATIONS if command == b"notify_event" else EVENT_LOG
        number = int(json.loads(text)["evbus_extra_info" if key == NOTIFICATIONS else "content"])
        heard.note(key, number)
        if final.is_set() and heard.all():
            heard_all.set()
    conclusion.join()
    if listener.wait() != 0:
        raise RuntimeError(f"ksctl listen ended with {listener.returncode}")
    return final.is_set()


def hear_records(seed, stays, ksctl):
    """Hears the records, all in one session or coming and going. See Heard."""
    chance = random.Random(f"{seed}/listener")
    heard = Heard()
    while not listen_for(heard, ksctl, None if stays else chance.uniform(0.1, 2)):
        time.sleep(chance.random() / 10)
    return heard


# ---- Kills -------------------------------------------------------------------------------------------------------------


class WorkersService:
    """The service whose workers are processes, and are killed."""

    def __init__(self, program):
        self.process = subprocess.Popen(
            [program, SERVICE_NAME, str(WORKERS)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        self.process.stdout.readline()
        self.pid = self.process.pid

    def workers(self):
        lists = Path(f"/proc/{self.pid}/task").glob("*/children")
        return {int(pid) for each in lists for pid in each.read_text().split()}

    def stop(self):
        self.process.stdin.close()
        return self.process.wait()


def kill_workers(seed, limit):
    """Kills workers at any moment until `limit` or ENOUGH, and waits until all have been restarted. Returns when each
    was killed, when its restart was read, None = never, and its process id; and lines that report something else.

    A dead worker is noticed when the next caller comes or another worker is ready. So one is left alive: callers who
    all wait for dead ones would wait for ever."""
    chance = random.Random(f"{seed}/killer")
    pending, kills, others, rest = {}, [], [], b""
    stderr = SERVICE.process.stderr.fileno()
    give_up = float("inf")
    while True:
        if ENOUGH.is_set() or len(kills) + len(pending) >= limit:
            give_up = min(give_up, time.monotonic() + PATIENCE_S)
            if not pending or time.monotonic() > give_up:
                return kills + [(killed, None, pid) for pid, killed in pending.items()], others
            with contextlib.suppress(kservice.CallError):  # so that the dead are noticed
                kservice.call(SERVICE_NAME, "echo", timeout=0.1)
        else:
            alive = SERVICE.workers() - set(pending)
            if len(alive) > 1:
                pid = chance.choice(sorted(alive))
                pending[pid] = time.monotonic()
                os.kill(pid, signal.SIGKILL)
        if select.select([stderr], [], [], chance.random() / 500)[0]:
            *lines, rest = (rest + os.read(stderr, 65536)).split(b"\n")
            for line in lines:
                report = REPORT.fullmatch(line.decode())
                if report and int(report[1]) in pending:
                    pid = int(report[1])
                    kills.append((pending.pop(pid), time.monotonic(), pid))
                else:
                    others.append(line.decode())


def call_workers(seed, number):
    """Calls the service until ENOUGH. Returns the calls, the wrong replies and, of each call that was lost, when it
    began, when it ended, and the worker that had it, 0 = none said so."""
    chance = random.Random(f"{seed}/workers/{number}")
    stamp = os.memfd_create("stamp")  # the worker writes its process id into it
    calls, wrong, lost = 0, 0, []
    while not ENOUGH.is_set() and wrong < 5:
        nonce = b"%x" % chance.getrandbits(64)
        os.ftruncate(stamp, 0)
        os.lseek(stamp, 0, os.SEEK_SET)
        calls += 1
        began = time.monotonic()
        try:
            wrong += kservice.call(SERVICE_NAME, "stamp", nonce, timeout=PATIENCE_S, extra_fd=stamp) != nonce
        except kservice.Disconnected:
            lost.append((began, time.monotonic(), int(os.pread(stamp, 20, 0) or 0)))
        except kservice.CallError as error:
            print(f"a caller of the killed: {error!r}", file=sys.stderr)
            wrong += 1
    return calls, wrong, lost


def without_a_kill_of_their_own(lost, kills):
    """How many of the lost calls no kill explains, one kill at most one of them: of the worker that had the call or,
    where none said so, of any, while the call was under way."""
    kills = sorted((kill for kill in kills if kill[1]), key=lambda kill: kill[1])
    read = [kill[1] for kill in kills]
    used = set()

    def has_one(began, ended, pid):
        for index in range(bisect.bisect_left(read, began), len(kills)):
            killed, known, of_worker = kills[index]
            if index not in used and killed <= ended and pid in (0, of_worker):
                used.add(index)
                return True
            if known > ended + PATIENCE_S:
                break
        return False

    # Who knows its worker first; then in the order of their ends, each with the earliest: it leaves the most to others.
    order = sorted(lost, key=lambda call: (call[2] == 0, call[1]))
    return sum(not has_one(*call) for call in order)


# ---- What is watched meanwhile -----------------------------------------------------------------------------------------


def follow_log():
    """Reads the log until OVER. Returns its lines, those that are none, those of lost records, the rotations, and the
    files that went unseen: three threads may move it at once."""
    events = load.SYSV.inotify_init1(os.O_NONBLOCK)
    load.SYSV.inotify_add_watch(events, os.path.dirname(LOG).encode(), 0x140)  # IN_CREATE, IN_MOVED_FROM
    files = {}  # by inode, the oldest first: a stream, and what is not a whole line yet
    lines, torn, of_records, seen = 0, 0, 0, 0
    ending = False
    while True:
        for path in (f"{LOG}.bak", LOG):
            with contextlib.suppress(FileNotFoundError):
                stream = open(path, "rb", buffering=0)
                inode = os.fstat(stream.fileno()).st_ino
                seen += inode not in files
                files.setdefault(inode, [stream, b""])
        for entry in files.values():
            *whole, entry[1] = (entry[1] + entry[0].read()).split(b"\n")
            lines += len(whole)
            torn += sum(not LOG_LINE.match(line) for line in whole)
            of_records += sum(b"eventlog_handler fail" in line for line in whole)
        while len(files) > 20:  # somebody may still write to one that was moved, but not for long
            del files[next(iter(files))]
        if ending:
            break
        ending = OVER.wait(0.005)
    rotations = 0
    with contextlib.suppress(BlockingIOError):
        rotations = os.read(events, 1 << 20).count(os.path.basename(LOG).encode() + b"\0") // 2  # moved, and created
    return lines, torn, of_records, rotations, rotations + 1 - seen


def sample(pids, period_s):
    """What the processes hold, every `period_s` until OVER: seconds, and load.held() of each."""
    began = time.monotonic()
    samples = []
    while not OVER.wait(period_s):
        samples.append((time.monotonic() - began, [load.held(pid) for pid in pids]))
    return samples


# ---- The run -----------------------------------------------------------------------------------------------------------


SERVICE = None  # the WorkersService, if there is one


class Totals:
    def __init__(self):
        self.calls, self.wrong, self.longest = 0, 0, 0.0
        self.posted, self.heard, self.out_of_order, self.dropped, self.unheard, self.sessions = 0, 0, 0, 0, 0, 0
        self.worker_calls, self.worker_wrong, self.lost, self.kills, self.other_reports = 0, 0, [], [], []

    def put_under_load(self, seed, ksctl, seconds=None, kills=None, records=None):
        """One part of the run: for so many seconds, or until so many kills or records."""
        for event in (LISTENS, ENOUGH, POSTED):
            event.clear()
        for key in QUEUES:
            POSTS[key].value = 0
        with concurrent.futures.ProcessPoolExecutor(CALLERS + WORKERS_CALLERS + 4) as pool:
            callers, posters, listeners, killers, worker_callers = [], [], [], [], []
            if seconds:
                callers = [pool.submit(call_daemon, seed, number) for number in range(CALLERS)]
            if seconds or records:
                listeners = [pool.submit(hear_records, seed, records is not None, ksctl)]
                limit = records // 2 - 1 if records else float("inf")  # the listener posts one more
                posters = [pool.submit(post_records, key, limit) for key in QUEUES]
            if seconds or kills:
                worker_callers = [pool.submit(call_workers, seed, number) for number in range(WORKERS_CALLERS)]
                killers = [pool.submit(kill_workers, seed, kills or float("inf"))]
            if records:
                concurrent.futures.wait(posters)
            else:  # who ends before the time has failed, but for one who has killed enough
                everything = callers + posters + listeners + killers + worker_callers
                concurrent.futures.wait(everything, seconds, concurrent.futures.FIRST_COMPLETED)
            ENOUGH.set()
            concurrent.futures.wait(posters)
            POSTED.set()
            for calls, wrong, longest in (each.result() for each in callers):
                self.calls += calls
                self.wrong += wrong
                self.longest = max(self.longest, longest)
            for heard in (each.result() for each in listeners):
                self.heard += heard.records
                self.out_of_order += heard.out_of_order
                self.dropped += heard.dropped
                self.sessions += heard.sessions
                self.posted += sum(POSTS[key].value + 1 for key in QUEUES)
                self.unheard += sum(POSTS[key].value - heard.last[key] for key in QUEUES)
            for each in posters:
                each.result()
            for kills_done, others in (each.result() for each in killers):
                self.kills += kills_done
                self.other_reports += others
            for calls, wrong, lost in (each.result() for each in worker_callers):
                self.worker_calls += calls
                self.worker_wrong += wrong
                self.lost += lost


def looks_of(daemon):
    """Name, what looks at it, and process id of each process that is watched."""
    watched = [("daemon", load.held_by_daemon, daemon)]
    return watched + ([("service", load.held, SERVICE.pid)] if SERVICE else [])


def tell(totals, logged, comes_and_goes):
    """Prints the table. Returns what is not as it should be."""
    failed = []

    def row(name, value, wanted=None):
        print(f"{value:>12}  {name}")
        if wanted is not None and value != wanted:
            failed.append(f"{name.strip()}: {value}")

    if totals.calls:
        row("calls to the daemon", totals.calls)
        row("  answered right", totals.calls - totals.wrong)
        row("  wrong or not answered", totals.wrong, 0)
        row("  longest wait, s", f"{totals.longest:.2f}")
    lines, torn, of_records, rotations, unseen = logged
    if totals.posted:
        row("records posted", totals.posted)
        row("  heard", totals.heard, totals.posted - totals.dropped)
        row("  out of order", totals.out_of_order, 0)
        row("  lost at the end", totals.unheard, 0)
        row("  dropped", totals.dropped, None if comes_and_goes else 0)
        row("  dropped without a line in the log", max(0, totals.dropped - of_records), None if unseen else 0)
        row("  sessions of the listener", totals.sessions)
    row("lines logged", lines)
    row("  torn", torn, 0)
    row("rotations", rotations)
    row("  files that went unseen", unseen)
    if totals.kills:
        restarted = sum(kill[1] is not None for kill in totals.kills)
        strangers = without_a_kill_of_their_own(totals.lost, totals.kills)
        row("calls to process workers", totals.worker_calls)
        row("  answered right", totals.worker_calls - totals.worker_wrong - len(totals.lost))
        row("  wrong", totals.worker_wrong, 0)
        row("  lost with their own worker", len(totals.lost) - strangers)
        row("  lost with another one", strangers, 0)
        row("workers killed", len(totals.kills))
        row("  restarted and reported", restarted, len(totals.kills))
        row("  other reports", len(totals.other_reports), 0)
        for line in totals.other_reports[:5]:
            print(line)
    return failed


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    what = parser.add_mutually_exclusive_group(required=True)
    what.add_argument("minutes", type=float, nargs="?", metavar="MINUTES")
    what.add_argument("--kills", type=int, metavar="N")
    what.add_argument("--records", type=int, metavar="N")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--samples", type=Path, metavar="FILE")
    parser.add_argument("--build", required=True, metavar="DIR")
    parser.add_argument("--daemon", type=int, required=True, metavar="PID")
    arguments = parser.parse_args()
    sizes = {"seconds": (arguments.minutes or 0) * 60, "kills": arguments.kills, "records": arguments.records}
    size_of, size = next((name, size) for name, size in sizes.items() if size)
    warm_up = min(size / 10, 60) if size_of == "seconds" else min(size // 10, 10000)
    global SERVICE
    if size_of != "records":
        SERVICE = WorkersService(f"{arguments.build}/tests/c_service")
    load.prepare_sessions()
    watched = looks_of(arguments.daemon)
    ksctl = f"{arguments.build}/bin/ksctl"
    totals = Totals()
    began = time.monotonic()
    held = [[load.settled(look, pid) for _, look, pid in watched]]
    with concurrent.futures.ProcessPoolExecutor(2) as watchers:
        log = watchers.submit(follow_log)
        samples = watchers.submit(sample, [pid for *_, pid in watched], min(1, size / 60))
        try:
            totals.put_under_load(f"{arguments.seed}/first", ksctl, **{size_of: warm_up})
            memory_settled = totals.calls + totals.posted + totals.worker_calls >= 10000
            memory_settled = memory_settled and not load.keeps_freed_memory(arguments.daemon)
            held.append([load.settled(look, pid) for _, look, pid in watched])
            totals.put_under_load(arguments.seed, ksctl, **{size_of: size - warm_up})
            held.append([load.settled(look, pid, wanted) for (_, look, pid), wanted in zip(watched, held[1])])
        except (OSError, RuntimeError, subprocess.SubprocessError) as error:
            sys.exit(f"soak: {error}")
        finally:
            OVER.set()
        failed = tell(totals, log.result(), size_of == "seconds")
        if arguments.samples:
            report = {"names": [name for name, *_ in watched], "samples": samples.result()}
            arguments.samples.write_text(json.dumps(report))
    for index, (name, *_) in enumerate(watched):
        for what in held[0][index]:
            first, settled, last = (each[index][what] for each in held)
            print(f"{name}, {what}: {first} at first, {settled} settled, {last} at last")
            if last > settled and (what != "resident KiB" or (memory_settled and last > settled + 1024)):
                failed.append(f"{what} of the {name} grew")
    if SERVICE and SERVICE.stop() != 0:
        failed.append("the service did not end as it should")
    print(f"soak: {'; '.join(failed) or 'as it should be'}; {time.monotonic() - began:.0f} s, seed {arguments.seed}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
