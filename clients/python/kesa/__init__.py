"""A member of a Kesa system in Python: finds, watches, calls and follows services, and provides its own.

    import kesa

    with kesa.connect() as system:
        for record in system.list("/system/**"):
            print(record.path, record.provider)
        print(system.call("/greeter", "/hello/world"))
        with system.follow("/system/cpu") as values:
            for value in values:
                print(value)

    with kesa.connect("py-echo") as system:
        system.provide("/py/echo", lambda request: request.value).wait()

Blocking calls for the user's threads, since that is how most scripts are written; inside one thread with asyncio, so that a
process answers others while its user's code is busy.
"""

from .bodies import Body, text
from .errors import KesaError, NameTaken, NoRegistry, ServiceError, ServiceNotThere, Timeout
from .records import Change, Record
from .requests import Request
from .service import Service
from .streams import Stream
from .system import System, connect

__all__ = [
    "Body",
    "Change",
    "KesaError",
    "NameTaken",
    "NoRegistry",
    "Record",
    "Request",
    "Service",
    "ServiceError",
    "ServiceNotThere",
    "Stream",
    "System",
    "Timeout",
    "connect",
    "text",
]
