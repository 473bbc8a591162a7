"""Calls a service and prints the reply: python3 -m kservice SERVICE COMMAND [REQUEST]

"main" and "mail" stand for vexprod's two services. Exit status: 0, 1 when the reply cannot be printed or the request
not be stored, 2 for wrong arguments, or why there is no reply, as ksctl tells it: 11 time-out, 12 no such service,
13 paused, 14 refused, 15 disconnected before the request was taken, 16 busy, 17 bad argument, 18 no reply to a request
that was taken.
"""

import contextlib
import os
import sys

from . import CallError, NoReply, _wire, call

_SERVICES = {"main": "VexHubServer-vexprod", "mail": "VexHubServer_send_mail-vexprod"}


def _say(text: str) -> None:
    with contextlib.suppress(OSError):  # sys.stderr is None when the caller has closed it
        os.write(2, os.fsencode(text + "\n"))


def _print(text: bytes) -> int:
    try:
        _wire.write_all(1, text)
    except OSError as error:
        _say(f"python3 -m kservice: {error.strerror}")
        return 1
    return 0


def main(arguments: "list[str]") -> int:
    if arguments[:1] in (["-h"], ["--help"]):
        return _print(str(__doc__).encode())
    if len(arguments) not in (2, 3):
        _say(f"python3 -m kservice: it takes SERVICE COMMAND [REQUEST], or --help; given were {len(arguments)} words")
        return 2
    service, command = arguments[:2]
    try:
        reply = call(_SERVICES.get(service, service), command, *map(os.fsencode, arguments[2:]))
    except (CallError, OSError) as error:
        _say(f"{service}: {error}")
        if isinstance(error, NoReply):
            return 18
        return 10 + error.code if isinstance(error, CallError) else 1
    return _print(reply)


sys.exit(main(sys.argv[1:]))
