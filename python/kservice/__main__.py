"""python3 -m kservice SERVICE COMMAND [REQUEST]: prints the reply."""

import sys

from . import CallError, call


def main(arguments: "list[str]") -> int:
    if len(arguments) not in (2, 3):
        print(__doc__, file=sys.stderr)
        return 2
    try:
        reply = call(*arguments)
    except (CallError, OSError) as error:
        print(f"{arguments[0]}: {error}", file=sys.stderr)
        return 10 + error.code if isinstance(error, CallError) else 1
    sys.stdout.buffer.write(reply)
    sys.stdout.buffer.flush()
    return 0


sys.exit(main(sys.argv[1:]))
