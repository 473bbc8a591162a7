"""What bench/run and bench/compare share: the measurements, how one is taken, and the machine that took it."""

import argparse
import dataclasses
import datetime
import json
import os
import pathlib
import platform
import random
import statistics
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent
TIME_MS = 100  # of one measurement; a pair of them takes about a third of a second
TIMEOUT_S = 120
MICROSECONDS, CALLS, MEBIBYTES = "us", "calls/s", "MiB"


class Failed(Exception):
    pass


@dataclasses.dataclass(frozen=True)
class Measurement:
    """One run of one program, which prints one value."""

    program: str  # in the build's folder bench/
    arguments: tuple = ()
    processors: int = 1
    in_host: bool = False  # runs in the simulated host
    benchmark: str = ""  # of a Google Benchmark program: which one


def latency(program, size, form=None, processors=1, in_host=False, persistent=False):
    """Microseconds of one call, the median."""
    chosen = (("--form", form) if form else ()) + (("--persistent",) if persistent else ())
    return Measurement(program, (*chosen, "latency", str(size), str(TIME_MS)), processors, in_host)


def rate(program, callers, form=None, persistent=False):
    """Calls a second of callers that are processes of their own."""
    chosen = (("--form", form) if form else ()) + (("--persistent",) if persistent else ())
    return Measurement(program, (*chosen, "rate", str(callers), str(TIME_MS)), 2)


def google(program, name):
    """Microseconds of processor time of one operation, its children's included."""
    arguments = (f"--benchmark_filter=^{name}(/|$)", "--benchmark_format=json", "--benchmark_min_time=0.05")
    return Measurement(program, arguments, benchmark=name)


@dataclasses.dataclass(frozen=True)
class Row:
    """An operation of the project beside its baseline."""

    group: str
    operation: str
    baseline: Measurement
    project: Measurement
    unit: str = MICROSECONDS
    aim: float | None = None  # of project / baseline: at most this; of calls a second: at least
    size_bytes: int = 0  # of the request, where the cost per byte is of interest
    most_pairs: int = 1000

    def meets_aim(self, ratio):
        shown = round(ratio, 2)
        return self.aim is None or (shown >= self.aim if self.unit == CALLS else shown <= self.aim)

    def aim_text(self):
        return "" if self.aim is None else f"{'>=' if self.unit == CALLS else '<='} {self.aim:.2f}"


KIB, MIB = 1 << 10, 1 << 20
SIZES = {64: "64 B", 4 * KIB: "4 KiB", 64 * KIB: "64 KiB", MIB: "1 MiB", 16 * MIB: "16 MiB", 64 * MIB: "64 MiB",
         256 * MIB: "256 MiB"}
PLACES = {1: "one processor", 2: "two processors"}


def call_rows():
    """The framework beside the floor of its wire. The floor's handler always runs on the worker: a row "with a thread"
    also says what the thread that each request gets costs."""
    forms = {"worker": "", "thread": ", with a thread"}
    for size, processors, aims in ((64, 1, {"worker": 0.90, "thread": 1.12}),
                                   (4 * KIB, 1, {"worker": 0.90, "thread": 1.12}),
                                   (MIB, 1, {"worker": 0.98, "thread": 1.03}),
                                   (64, 2, {"worker": 0.95, "thread": 1.08}),
                                   (64 * MIB, 2, {"worker": 1.02})):
        for form, aim in aims.items():
            yield Row("call", f"call of {SIZES[size]}, {PLACES[processors]}{forms[form]}",
                      latency("bench_floor", size, "worker", processors),
                      latency("bench_framework", size, form, processors), aim=aim)
    for callers in (4, 16):
        for form, aim in {"worker": 1.10, "thread": 0.90}.items():
            yield Row("call", f"{callers} callers{forms[form]}", rate("bench_floor", callers, "worker"),
                      rate("bench_framework", callers, form), CALLS, aim)


def google_row(group, program, name, aim=None):
    return Row(group, name, google(program, name + ":baseline"), google(program, name + ":project"), aim=aim)


# The daemon's own thread for each request is part of its baseline.
ROWS = [
    *call_rows(),
    Row("daemon", "command \"test\", one processor", latency("bench_floor", 64, "thread", in_host=True),
        latency("bench_daemon", 64, in_host=True), aim=1.05),
    google_row("child", "bench_child", "child run", 1.05),
    google_row("child", "bench_child", "child run from 512 MiB", 1.05),
    google_row("child", "bench_child", "child run with a pipe", 1.08),
    google_row("log", "bench_log", "log line", 1.05),
    google_row("json", "bench_json", "json request"),
    google_row("json", "bench_json", "json reply"),
]


def growth_rows():
    """What grows with what. The baseline is the same with nothing, and a ratio of 1 is no growth; but for sizes it is
    the floor."""
    for name, most, words in (("call", 999, "a call while {} others wait"),
                              ("accept", 990, "accepting one while {} others wait")):
        for waiting in (10, 100, most):
            sides = [Measurement("bench_waiting", (name, str(each), str(TIME_MS))) for each in (0, waiting)]
            yield Row("growth", words.format(waiting), *sides, most_pairs=5)
    for size, words in SIZES.items():
        yield Row("growth", f"call of {words}", latency("bench_floor", size, "worker"),
                  latency("bench_framework", size, "worker"), size_bytes=size, most_pairs=5)

    def inside(*arguments):
        return Measurement("daemon_growth.py", arguments, 2, True)

    for name, words in (("waiting", "2 x 1000 callers waiting"), ("requests", "after 100 requests of 64 MiB")):
        yield Row("growth", f"daemon's memory, {words}", inside("memory", "idle"), inside("memory", name), MEBIBYTES,
                  most_pairs=3)
    yield Row("growth", "start to the first answers, beside a bare socket", inside("bind"), inside("start"),
              most_pairs=9)


USUAL_GROUPS = list(dict.fromkeys(row.group for row in ROWS))
ROWS += growth_rows()


# ---- Taking a measurement --------------------------------------------------------------------------------------------


def chosen_processors(count):
    """The last of the processors that we may use; the first one has most of the interrupts."""
    return sorted(os.sched_getaffinity(0))[-count:]


def take(measurement, build, subject=None):
    """Runs it once and returns the value; raises Failed. `build` has the programs that measure; `subject` has the
    library and the daemon that are measured, if those are not its own."""
    build, subject = pathlib.Path(build).resolve(), pathlib.Path(subject or build).resolve()
    processors = chosen_processors(measurement.processors)
    if len(processors) < measurement.processors:
        raise Failed(f"it takes {measurement.processors} processors")
    program = program_of(measurement, build, subject)
    command = ["taskset", "-c", ",".join(map(str, processors)), str(program), *measurement.arguments]
    if measurement.in_host:
        command = [str(ROOT / "hostsim" / "enter"), "--build", str(build), *command]
    if not program.exists():
        raise Failed(f"{program} is not built")
    environment = {**os.environ, "LD_LIBRARY_PATH": str(subject / "lib"),
                   "VEXPROD_PROGRAM": str(subject / "bin" / "vexprod")}
    try:
        done = subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT_S, env=environment, check=False)
    except subprocess.TimeoutExpired:
        raise Failed(f"{measurement.program} takes more than {TIMEOUT_S} s") from None
    try:
        printed = json.loads(done.stdout)
        return google_value(printed) if measurement.benchmark else float(printed["value"])
    except (ValueError, KeyError, IndexError):
        last_words = done.stderr.strip().splitlines()[-1:] or [f"status {done.returncode}"]
        raise Failed(f"{measurement.program} {' '.join(measurement.arguments)}: {last_words[0]}") from None


def program_of(measurement, build, subject):
    if measurement.program.endswith(".py"):
        return ROOT / "bench" / measurement.program
    # These load the library, or start the daemon, that is to be measured; the others have it in themselves.
    loads = measurement.program in ("bench_floor", "bench_framework", "bench_daemon")
    return (build if loads else subject) / "bench" / measurement.program


def google_value(printed):
    result = printed["benchmarks"][0]
    if result.get("error_occurred"):
        raise Failed(f"{result['name']}: {result['error_message']}")
    # In manual time the program itself adds its children up.
    value = result["real_time" if "manual_time" in result["name"] else "cpu_time"]
    return value * {"ns": 1e-3, "us": 1, "ms": 1e3, "s": 1e6}[result["time_unit"]]


def alternate(rounds, **sides):
    """Takes each side once a round, one right after the other in shuffled order: what else the machine does falls on
    all of them alike. Each side is a function. Returns a list of values for each side."""
    values = {name: [] for name in sides}
    for _ in range(rounds):
        for name in random.sample(list(sides), len(sides)):
            values[name].append(sides[name]())
    return values


def quartiles(values):
    if len(values) == 1:
        return values[0], values[0]
    low, _, high = statistics.quantiles(values, n=4, method="inclusive")
    return low, high


# ---- Words -----------------------------------------------------------------------------------------------------------


def show(value, unit):
    digits = 0 if value >= 1000 else 1 if value >= 10 else 2
    return f"{value:.{digits}f} {unit}"


def describe_machine():
    """What a figure depends on."""
    model = next((line.split(":", 1)[1].strip() for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                  if line.startswith("model name")), platform.machine())
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / (1 << 30)
    return {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "processor": f"{len(os.sched_getaffinity(0))} x {model}",
        "memory": f"{memory:.0f} GiB",
        "kernel": platform.release(),
        "load": " ".join(f"{each:.2f}" for each in os.getloadavg()),
    }


def build_folder(text):
    """For argparse: a folder that the project was built in."""
    folder = pathlib.Path(text)
    if not (folder / "lib").is_dir():
        raise argparse.ArgumentTypeError(f"no build is in {folder} (cmake --build --preset default)")
    return folder
