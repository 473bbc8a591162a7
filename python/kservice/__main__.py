"""python3 -m kservice SERVICE COMMAND [REQUEST]: prints the reply."""

import os
import sys

from . import CallError, _wire, call


def main(arguments: "list[str]") -> int:
    if len(arguments) not in (2, 3):
        print(__doc__, file=sys.stderr)
        return 2
    try:
        reply = call(*arguments[:2], *map(os.fsencode, arguments[2:]))
    except (CallError, OSError) as error:
        print(f"{arguments[0]}: {error}", file=sys.stderr)
        return 10 + error.code if isinstance(error, CallError) else 1
    try:
        _wire.write_all(sys.stdout.fileno(), reply)
    except OSError as error:
        print(f"python3 -m kservice: {error.strerror}", file=sys.stderr)
        return 1
    return 0


sys.exit(main(sys.argv[1:]))
