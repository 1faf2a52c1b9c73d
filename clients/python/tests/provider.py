"""A service in a process of its own. Arguments: name, path. Says "provided", then what happens to its streams."""

import itertools
import sys

import kesa


def count(request: kesa.Request):
    """As fast as the client takes them, until it cancels."""
    try:
        yield from itertools.count()
    finally:
        print("stream closed", flush=True)


def slow_count(request: kesa.Request):
    """A thousand values a second."""
    try:
        for number in itertools.count():
            yield number
            if request.cancelled.wait(0.001):
                return
    finally:  # a cancel may also come while a value is sent
        print("slow stream closed", flush=True)


def blocks(request: kesa.Request):
    """More than any buffer takes, if the client takes nothing."""
    for number in range(1000):
        if number == 400:
            print("25 MB are under way", flush=True)
        yield bytes(65536)


def breaks(request: kesa.Request):
    """Ends with an error after a value."""
    yield 1
    raise kesa.ServiceError(418, "enough")


def answer(request: kesa.Request):
    """Each resource behaves in another way."""
    match request.path:
        case "/echo":
            return kesa.Body(request.data, request.mime_type)
        case "/value":
            return request.value
        case "/count":
            return count(request)
        case "/slow-count":
            return slow_count(request)
        case "/blocks":
            return blocks(request)
        case "/breaks":
            return breaks(request)
        case "/three":
            return iter(("a", "b", "c"))
        case "/who":
            return {"client": request.client, "uid": request.uid, "command": request.command, "follows": request.follows}
        case "/large":
            return bytes(request.value)
        case "/text":
            return kesa.text("grüße")
        case "/nothing":
            return None
        case "/broken":
            return {}["no such key"]
        case "/busy":
            print("busy", flush=True)
            request.cancelled.wait()
            return None
    raise kesa.ServiceError(404, f"no resource at {request.path}")


with kesa.connect(sys.argv[1], timeout=None) as system:
    try:
        service = system.provide(sys.argv[2], answer)
    except kesa.ServiceError as error:
        print(f"refused {error.status} {error.reason}", flush=True)
        sys.exit(1)
    print("provided", flush=True)
    service.wait()
