"""The system as one process sees it: `connect` and what it returns."""

from __future__ import annotations

import asyncio
import concurrent.futures
import math
import os
import secrets
import threading
import time
from typing import Any, Callable, Coroutine, TypeVar

from . import bodies, rundir
from .connection import VERSION
from .errors import KesaError, NoRegistry, ServiceError, Timeout
from .heads import Hello
from .link import SINGLE, STREAM, Answer, Exchange, Link
from .names import Locator, check_path, literal_glob, parse_locator
from .query import Query
from .records import Change, Record
from .registry import LOCATOR, Registry
from .requests import Handler
from .routes import Route
from .rundir import Claim
from .server import Server
from .service import Registration, Service
from .streams import Mailbox, Stream, too_slow

T = TypeVar("T")
_MOST_VALUES = 65536
_MOST_BYTES = 16 * 1024 * 1024
_MOST_CHANGES = 1_000_000


def connect(
    name: str | None = None, *, run_dir: str | None = None, registry: str = LOCATOR, timeout: float | None = 5.0
) -> System:
    """Joins the system in `run_dir`, else in the one that the environment and the rights of this user name (docs/protocol.md).

    `name` is needed to provide services, and is this process's until it ends or calls `close`. Who only asks needs none.
    `registry` is the locator of another registry, as in the configuration document of the system's other processes.
    Waits up to `timeout` seconds for the registry, None for ever: then a process may start before it.

    `NoRegistry` if the registry is not there in time, `NameTaken` if another living process has `name`, ValueError if it is none,
    or `registry` no locator.
    """
    locator = parse_locator(registry)
    if not locator or not locator.path:
        raise ValueError(f"registry {registry!r} is no locator; write it as {LOCATOR!r}")
    system = System(name, run_dir or rundir.find(), locator)
    try:
        system._run(system._wait_registry(), timeout)
    except BaseException as error:
        problem = system._registry.problem
        system.close()
        if isinstance(error, Timeout):
            start = (
                ""
                if system._registry.forbidden
                else ". That process runs and cannot be used: see its log"
                if system._registry.reached
                else f". Start {locator.process}, or name its run directory: connect(run_dir=...) or $KESA_RUN_DIR"
            )
            raise NoRegistry(f"no registry: {problem}{start}; or name another registry: connect(registry=...)") from None
        raise
    return system


class System:
    """From `connect`. Every method may be called from any thread, also from handlers; each blocks its caller only.

    One thread of its own holds all connections and answers the others' signs of life, so what a user's code does or waits for
    never makes this process look dead. A lost registry is found again by itself, and everything is made known to it anew.
    Connections to other processes do not depend on it. Time limits are in seconds, None is none.
    A child made by `fork` connects itself: this one's methods raise KesaError there, and `close` does nothing.
    """

    def __init__(self, name: str | None, directory: str, registry: Locator):
        """Internal: use `connect`."""
        self._directory = directory
        self._pid = os.getpid()
        self._claim = Claim(directory, name) if name else None
        rundir.check(directory)
        self._instance = secrets.token_bytes(16)
        self._loop = asyncio.new_event_loop()
        self._links: dict[str, Link] = {}
        self._routes: dict[str, Route] = {}
        self._services: dict[str, tuple[Registration, Service]] = {}
        self._mailboxes: set[Mailbox] = set()
        self._closing = threading.Lock()
        self._closed = False
        self._thread = threading.Thread(target=self._loop.run_forever, name="kesa", daemon=True)
        self._thread.start()
        asyncio.run_coroutine_threadsafe(self._begin(registry), self._loop).result()

    def list(
        self, glob: str = "**", *, metadata: dict[str, Any] | None = None, scope: str | None = None, timeout: float | None = 5.0
    ) -> list[Record]:
        """The services whose paths match `glob`, by path. A registry that was started anew is given 1.5 s to hear of those of before.

        In a glob `*` stands for any characters of a segment, `**` for any number of segments. `metadata` maps keys of the
        metainfo to a text or to a list of texts, one of which it must be. ServiceError 400 if the glob is malformed.
        """
        return self._run(self._list(glob, _conditions(metadata, scope)), timeout)

    def watch(self, glob: str = "**", *, metadata: dict[str, Any] | None = None, scope: str | None = None) -> Stream[Change]:
        """Each service that is there and matches as "added", then every change, until it is cancelled.

        While the registry is away nothing is told. A registry that was started anew tells each service again when its provider
        has found it, so a watcher hears that as a removal and an addition.
        """
        return self._run(self._watch(glob, _conditions(metadata, scope)), None)

    def wait(self, path: str, timeout: float | None = 30.0) -> Record:
        """Returns when a service is at `path`. Timeout."""
        with self.watch(literal_glob(check_path(path))) as changes:
            try:
                return changes.next(timeout).record
            except Timeout:
                raise Timeout(f"no service at {path} within {timeout} s") from None

    def call(
        self,
        path: str,
        resource: str = "/",
        *,
        command: str = "retrieve",
        body: Any = None,
        headers: dict[str, Any] | None = None,
        timeout: float | None = 10.0,
    ) -> Any:
        """Asks the service at `path` once, and returns its answer's value, None if it has none.

        `body`: None for no body, `bytes` as they are, `kesa.Body` with a mime type of your own, else it is sent as JSON.
        The value: of JSON and qelbin as Python has it, `str` of text, `bytes` of any other type. `command` is retrieve, update,
        delete, insert, or what the service understands.

        ServiceNotThere at once if nobody provides `path`, 1.5 s after the registry was started anew; ServiceError if the request ended
        with an error; Timeout, which says what was missing: the provider, its connection or its answer. TypeError for an argument
        that cannot be sent.
        """
        until = math.inf if timeout is None else time.monotonic() + timeout
        answer = self._run(self._call(path, resource, command, body, headers), timeout, self._problem_of(path, timeout))
        try:
            return _value(answer, until) if answer else None
        except TimeoutError:
            raise Timeout(f"504: the answer of {path!r}, {len(answer.data)} bytes, is not read within {timeout} s") from None

    def follow(
        self,
        path: str,
        resource: str = "/",
        *,
        command: str = "retrieve",
        body: Any = None,
        headers: dict[str, Any] | None = None,
        timeout: float | None = 10.0,
    ) -> Stream[Any]:
        """Like `call`, for a stream of values; see `Stream` about its end. `timeout` is for reaching the service only.

        Values that nobody takes wait here, up to 16 MiB and 65,536 of them; then the stream ends with 503.
        """
        return self._run(self._follow(path, resource, command, body, headers), timeout, self._problem_of(path, timeout))

    def provide(
        self,
        path: str,
        handler: Handler,
        *,
        versions: tuple[str, ...] = ("1.0.0",),
        metainfo: dict[str, Any] | None = None,
        scope: tuple[str, ...] = (),
        timeout: float | None = 10.0,
    ) -> Service:
        """Provides a service at `path`; when this returns, others who may see it find it:
        of other users only with `"public": True` in `metainfo`, or as the registry's policy says.

        `handler(request)` runs in a thread of its own for each request, several at a time. What it returns is the answer, None is
        an answer without a value; a generator's values are a stream, which is closed at its next value once the client has
        cancelled. Values as bodies: see `call`. `raise ServiceError(status, reason)` answers with that; any other exception is
        logged and answered with 500.

        What `metainfo` says of "provider" and "versions" does not count: others see this process's name and `versions`.

        ServiceError 409 if another living process has `path`; ValueError if it is no path, or is provided here already.
        """
        if not self._claim:
            raise KesaError('a process that provides services needs a name: kesa.connect("my-name")')
        if not callable(handler):
            raise TypeError(f"the handler {handler!r} cannot be called")
        if isinstance(versions, str) or isinstance(scope, str):
            raise TypeError("versions and scope are tuples of texts, as (\"1.0.0\",)")
        return self._run(self._provide(check_path(path), handler, versions, metainfo or {}, scope), timeout)

    def close(self) -> None:
        """Withdraws all services, ends all streams and what waits, leaves. Again, and in a child made by `fork`, it does nothing."""
        if os.getpid() != self._pid:
            return
        with self._closing:
            if self._closed:
                return
            self._closed = True
        asyncio.run_coroutine_threadsafe(self._shut_down(), self._loop).result()
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join()
        self._loop.close()

    def __enter__(self) -> System:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    # From here on: the I/O thread, except _run and _later.

    def _run(self, work: Coroutine[Any, Any, T], timeout: float | None, problem: Callable[[], str] | None = None) -> T:
        if timeout is not None and math.isnan(timeout):
            work.close()
            raise ValueError("the timeout is no number")
        if os.getpid() != self._pid:
            work.close()
            raise KesaError(f"this system is of process {self._pid}; a child made by fork calls kesa.connect itself")
        with self._closing:
            if self._closed:
                work.close()
                raise KesaError("the system is closed")
            future = asyncio.run_coroutine_threadsafe(self._within(work, timeout, problem), self._loop)
        try:
            return future.result()
        except concurrent.futures.CancelledError:
            raise KesaError("the system was closed") from None
        finally:
            future.cancel()

    def _later(self, function: Callable[..., Any], *arguments: Any) -> None:
        try:
            self._loop.call_soon_threadsafe(function, *arguments)
        except RuntimeError:
            pass  # Closed: nothing is left to do.

    async def _within(self, work: Coroutine[Any, Any, T], timeout: float | None, problem: Callable[[], str] | None) -> T:
        try:
            async with asyncio.timeout(timeout):
                return await work
        except TimeoutError:
            raise Timeout(problem() if problem else f"not within {timeout} s: {self._registry.problem}") from None

    async def _begin(self, registry: Locator) -> None:
        self._hello = self._make_hello()
        self._server = Server(self._loop, self._claim, self._hello, self._directory, self._links) if self._claim else None
        self._registry = Registry(self._link(registry.process), registry.path)

    def _make_hello(self) -> Hello:
        name = self._claim.name if self._claim else f"python-{os.getpid()}"
        realm = self._claim.realm if self._claim else ""
        listeners = [str(Locator(name, realm, ""))] if self._claim else []
        return Hello(VERSION, VERSION, name, realm, self._instance, listeners)

    def _realm(self) -> str:
        try:
            return self._claim.realm if self._claim else rundir.realm(self._directory)
        except (OSError, KesaError):
            return ""  # Nobody can be reached by such a realm.

    def _link(self, process: str) -> Link:
        link = self._links.get(process)
        if link is None or link.idle:
            link = self._links[process] = Link(self._loop, self._directory, process, lambda: self._hello)
        return link

    async def _wait_registry(self) -> None:
        await self._registry.wait_reachable()

    async def _list(self, glob: str, conditions: dict[str, Any]) -> list[Record]:
        done = self._loop.create_future()

        def look() -> None:
            if query.caught_up and self._registry.settled:
                _resolve(done)

        query = Query(glob, lambda change: None, look, lambda error: _fail(done, error), **conditions)
        self._registry.on_settled.append(look)
        self._registry.add(query)
        try:
            await done
            return [query.known[path] for path in sorted(query.known)]
        finally:
            self._registry.on_settled.remove(look)
            self._registry.remove(query)

    async def _watch(self, glob: str, conditions: dict[str, Any]) -> Stream[Change]:
        mailbox: Mailbox[Change] = Mailbox(_MOST_CHANGES)

        def on_change(change: Change) -> None:
            if not mailbox.put(change):
                mailbox.end(too_slow(_MOST_CHANGES))
                cancel()

        def cancel() -> None:
            if mailbox in self._mailboxes:
                self._mailboxes.discard(mailbox)
                self._registry.remove(query)

        query = Query(glob, on_change, on_refused=mailbox.end, **conditions)
        self._mailboxes.add(mailbox)
        self._registry.add(query)
        return Stream(mailbox, lambda: self._later(cancel))

    async def _reach(self, path: str) -> tuple[Link, Any]:
        route = self._routes.get(path)
        if route is None:
            route = self._routes[path] = Route(check_path(path), self._registry, self._realm, self._link)
            self._registry.add(route.query)
        try:
            return await route.ready()
        except ServiceError:
            if self._routes.get(path) is route:
                del self._routes[path]
                self._registry.remove(route.query)
                route.close()
            raise

    def _problem_of(self, path: str, timeout: float | None) -> Callable[[], str]:
        def problem() -> str:
            route = self._routes.get(path)
            why = route.problem() if route else self._registry.problem
            return f"504: no answer within {timeout} s; {why}; kesactl why {path} says more"

        return problem

    async def _call(self, path: str, resource: str, command: str, body: Any, headers: dict[str, Any] | None) -> Answer | None:
        link, target = await self._reach(path)
        answers: list[Answer] = []
        done = self._loop.create_future()

        def keep_first(answer: Answer) -> None:
            if not answers:
                answers.append(answer)

        exchange = Exchange(target, SINGLE, keep_first, lambda error: _fail(done, error) if error else _resolve(done))
        _ask(link, exchange, resource, command, body, headers)
        try:
            await done
        finally:
            link.cancel(exchange)
        return answers[0] if answers else None

    async def _follow(self, path: str, resource: str, command: str, body: Any, headers: dict[str, Any] | None) -> Stream[Any]:
        link, target = await self._reach(path)
        mailbox: Mailbox[Answer] = Mailbox(_MOST_VALUES, _MOST_BYTES)

        def on_value(answer: Answer) -> None:
            if not mailbox.put(answer, len(answer.data)):
                mailbox.end(too_slow(mailbox.count))
                link.cancel(exchange)

        def on_end(error: ServiceError | None) -> None:
            self._mailboxes.discard(mailbox)
            mailbox.end(error)

        exchange = Exchange(target, STREAM, on_value, on_end)
        _ask(link, exchange, resource, command, body, headers)
        self._mailboxes.add(mailbox)
        return Stream(mailbox, lambda: self._later(link.cancel, exchange), _value)

    async def _provide(
        self, path: str, handler: Handler, versions: tuple[str, ...], metainfo: dict[str, Any], scope: tuple[str, ...]
    ) -> Service:
        if path in self._services:
            raise ValueError(f"{path} is provided by this process already")
        locator = str(Locator(self._claim.name, self._claim.realm, path))
        metainfo = {**metainfo, "provider": self._claim.name, "versions": list(versions)}
        record = Record(path, "pex", tuple(versions), (locator,), "", metainfo, scope=tuple(scope))
        told = self._loop.create_future()

        def on_told(record: Record) -> None:
            service.told(record)
            _resolve(told)

        def on_refused(error: ServiceError) -> None:
            self._forget(registration, service, error)
            _fail(told, error)

        registration = Registration(record, on_told, on_refused)
        service = Service(record, lambda: self._close_service(registration, service))
        self._services[path] = (registration, service)
        self._server.provide(path, handler)
        self._registry.add(registration)
        try:
            await told
        except BaseException:
            self._forget(registration, service, None)
            raise
        return service

    def _close_service(self, registration: Registration, service: Service) -> None:
        async def close() -> None:
            await asyncio.wait([self._forget(registration, service, None)], timeout=1.0)

        try:
            self._run(close(), None)
        except KesaError:
            pass  # With the system, which has withdrawn it.

    def _forget(self, registration: Registration, service: Service, error: ServiceError | None) -> asyncio.Future:
        if self._services.get(service.path, (None,))[0] is registration:
            del self._services[service.path]
            self._server.withdraw(service.path)
        service.ended(error)
        return self._registry.remove(registration)

    async def _shut_down(self) -> None:
        gone = [self._forget(registration, service, None) for registration, service in list(self._services.values())]
        if gone:
            await asyncio.wait(gone, timeout=1.0)
        if self._server:
            await self._server.close()
        for link in list(self._links.values()):
            await link.close()
        for mailbox in list(self._mailboxes):
            mailbox.end()
        rest = [task for task in asyncio.all_tasks() if task is not asyncio.current_task()]
        for task in rest:
            task.cancel()
        await asyncio.gather(*rest, return_exceptions=True)


def _ask(link: Link, exchange: Exchange, resource: str, command: str, body: Any, headers: dict[str, Any] | None) -> None:
    encoded = bodies.Body(b"", "") if body is None else bodies.encode(body)
    exchange.headers.update({"$accept": [bodies.JSON, bodies.QELBIN], **(headers or {})})
    link.request(exchange, command, resource, encoded.data, encoded.mime_type)


def _value(answer: Answer, until: float = math.inf) -> Any:
    # In the thread that asks: what is large or malicious holds up nobody else.
    return bodies.decode(answer.data, answer.mime_type, until)


def _conditions(metadata: dict[str, Any] | None, scope: str | None) -> dict[str, Any]:
    return {key: value for key, value in (("metadata", metadata), ("scope", scope)) if value is not None}


def _resolve(future: asyncio.Future) -> None:
    if not future.done():
        future.set_result(None)


def _fail(future: asyncio.Future, error: Exception) -> None:
    if not future.done():
        future.set_exception(error)
