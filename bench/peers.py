"""The same request and reply through what people would use instead: the table of `bench/run peers`."""

import random
import statistics
import subprocess

import measure

MOST_ROUNDS = 5
# The contender's name, its program and form, and whether its connection can stay.
CONTENDERS = [
    ("vexprod", "bench_framework", "worker", False),
    ("vexprod, with a thread", "bench_framework", "thread", False),
    ("floor of its wire", "bench_floor", "worker", False),
    ("floor, fewer calls", "bench_floor", "lean", False),
    ("AF_UNIX socket", "peer_sockets", "copy", True),
    ("AF_UNIX socket, memory file", "peer_sockets", "memfd", True),
    ("sd-bus, direct", "peer_sdbus", "direct", True),
    ("sd-bus, direct, memory file", "peer_sdbus", "direct-memfd", True),
    ("sd-bus, dbus-broker", "peer_sdbus", "dbus-broker", True),
    ("sd-bus, dbus-daemon", "peer_sdbus", "dbus-daemon", True),
    ("ZeroMQ", "peer_zeromq", "ipc", True),
    ("gRPC", "peer_grpc", "unix", True),
]
# The column's title, its unit, and how a program, its form and whether the connection stays make the measurement.
FIGURES = [
    *((f"{measure.SIZES[size]}, {processors} cpu", measure.MICROSECONDS,
       lambda program, form, stays, size=size, processors=processors:
       measure.latency(program, size, form, processors, persistent=stays))
      for size, processors in ((64, 1), (64, 2), (measure.MIB, 1), (measure.MIB, 2), (64 * measure.MIB, 2))),
    ("4 callers", measure.CALLS, lambda program, form, stays: measure.rate(program, 4, form, stays)),
]
VERSIONS = {
    "sd-bus": ["pkg-config", "--modversion", "libsystemd"],
    "dbus-daemon": ["dbus-daemon", "--version"],
    "dbus-broker": ["dbus-broker", "--version"],
    "ZeroMQ": ["pkg-config", "--modversion", "libzmq"],
    "gRPC": ["pkg-config", "--modversion", "grpc++"],
}


def versions():
    found = {}
    for name, command in VERSIONS.items():
        try:
            first_line = subprocess.check_output(command, text=True, stderr=subprocess.DEVNULL).splitlines()[0]
            found[name] = first_line.split()[-1]
        except (OSError, subprocess.CalledProcessError):
            pass
    return found


def measure_all(build, rounds, failed):
    """Measures everything in each round in shuffled order and prints the table of medians. What fails is appended to
    `failed`."""
    there = [each for each in CONTENDERS if (build / "bench" / each[1]).exists()]
    for program in dict.fromkeys(each[1] for each in CONTENDERS if each not in there):
        print(f"left out: {program} is not built, its library was not there (scripts/setup --peers)")
    jobs = [(name, persistent, title, make(program, form, persistent))
            for name, program, form, stays in there for persistent in ((False, True) if stays else (False,))
            for title, _, make in FIGURES]
    values = {}
    for turn in range(rounds):
        for name, persistent, title, job in random.sample(jobs, len(jobs)):
            try:
                values.setdefault((name, persistent, title), []).append(measure.take(job, build))
            except measure.Failed as error:
                failed.append(f"{name}: {error}")
        print(f"round {turn + 1} of {rounds}", flush=True)
    table = [{"contender": name, "persistent": persistent,
              "figures": {title: statistics.median(values[name, persistent, title])
                          for title, *_ in FIGURES if (name, persistent, title) in values}}
             for persistent in (False, True) for name, _, _, stays in there if stays or not persistent]
    report = {"peers": table, "units": {title: unit for title, unit, _ in FIGURES}, "versions": versions()}
    print_table(report)
    for each in failed:
        print(f"failed: {each}")
    return report


def print_table(report):
    units = report["units"]
    for persistent in (False, True):
        print(f"\n{'one connection for all calls' if persistent else 'a connection for each call':<30}" +
              "".join(f"{f'{title}, {unit}':>20}" for title, unit in units.items()))
        for row in report["peers"]:
            if row["persistent"] == persistent:
                print(f"{row['contender']:<30}" + "".join(
                    f"{measure.show(row['figures'][title], '').strip() if title in row['figures'] else '-':>20}"
                    for title in units))
    print("\n" + ", ".join(f"{name} {version}" for name, version in report["versions"].items()))
