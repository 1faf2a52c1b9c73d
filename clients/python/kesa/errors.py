"""What may go wrong, as exceptions. All are `KesaError`; time limits are also the built-in `TimeoutError`."""


class KesaError(Exception):
    """The root of all errors of this package."""


class NoRegistry(KesaError):
    """The registry cannot be reached; the text says where it was looked for and why that failed."""


class NameTaken(KesaError):
    """Another living process has the name. `pid` says which, None if its file does not tell."""

    def __init__(self, text: str, pid: int | None):
        super().__init__(text)
        self.pid = pid


class ServiceError(KesaError):
    """A request ended with an error: what the service, the registry or this side said.

    `status` as in HTTP: 400 not understood, 404 no such resource or command, 409 the path is another process's, 413 too large,
    500 the service failed, 503 not there now; from 0 to 65535. A handler raises it to answer with it.
    """

    def __init__(self, status: int, reason: str = ""):
        if not isinstance(status, int) or not isinstance(reason, str):
            raise TypeError(f"an error is a number and a text, not {status!r} and {reason!r}")
        if not 0 <= status <= 65535:
            raise ValueError(f"{status} is no status: it must be from 0 to 65535")
        super().__init__(f"{status} {reason}" if reason else str(status))
        self.status = status
        self.reason = reason


class ServiceNotThere(ServiceError):
    """The registry knows no such service at the moment, or none that this process can reach."""

    def __init__(self, reason: str):
        super().__init__(503, reason)


class Timeout(KesaError, TimeoutError):
    """A time limit that the caller has set was over."""


class ProtocolError(KesaError):
    """The peer sent what the protocol does not allow. Internal: it ends the connection and becomes a reason there."""
