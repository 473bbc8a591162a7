"""Named local services: calls to them, and services of one's own. Linux only, without dependencies.

    import kservice

    print(kservice.call("VexHubServer-vexprod", "get_vpd_channel"))

    def serve(request):
        return b"pong" if request.command == "ping" else None  # None: the caller gets no reply

    with kservice.Service("my-service", serve):
        ...

What travels on the sockets is described in docs/protocol.md of the source tree.
"""

from ._client import call
from ._service import Handler, Request, Service
from ._wire import (
    BadArgument,
    Busy,
    CallError,
    Disconnected,
    NoReply,
    NoService,
    Paused,
    Refused,
    Timeout,
    socket_path,
)

__all__ = [
    "BadArgument",
    "Busy",
    "CallError",
    "Disconnected",
    "Handler",
    "NoReply",
    "NoService",
    "Paused",
    "Refused",
    "Request",
    "Service",
    "Timeout",
    "call",
    "socket_path",
]
