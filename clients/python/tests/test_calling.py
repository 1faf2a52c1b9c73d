"""Calls and streams, of C++ and of Python processes, and how they end."""

from __future__ import annotations

import os
import socket
import struct
import threading
from unittest import mock

import kesa
from kesa import cbor, connection, frames, heads, system
from kesa.frames import Message
from programs import DEADLINE, SystemTest


class CallingCpp(SystemTest):
    def setUp(self) -> None:
        super().setUp()
        self.monitor = self.start_monitor()
        self.system = self.connect()
        self.system.wait("/system/cpu", DEADLINE)

    def test_answer_and_errors(self) -> None:
        self.assertEqual(list(self.system.call("/system/cpu")), ["busy_percent"])
        for error in (
            self.failure(lambda: self.system.call("/system/cpu", "/no/such")),
            self.failure(lambda: self.system.call("/system/cpu", "/no/such", body=bytes(3_000_000))),
        ):
            self.assertEqual((error.status, error.reason), (404, "no resource at '/no/such'"))
        # The window of requests was used up, and is given back.
        self.assertEqual(list(self.system.call("/system/cpu")), ["busy_percent"])
        with self.assertRaisesRegex(kesa.ServiceNotThere, "no process provides /nobody"):
            self.system.call("/nobody")
        error = self.failure(lambda: self.system.call("/system/cpu", body=bytes(17_000_000)))
        self.assertEqual(error.status, 413)
        self.assertIn(f"of 'python-{os.getpid()}', which sends it", error.reason)

    def test_follow_until_cancelled_and_again(self) -> None:
        for _ in range(2):
            with self.system.follow("/system/cpu") as values:
                self.assertEqual(list(values.next(DEADLINE)), ["busy_percent"])
            self.assertEqual(list(values), [])

    def test_a_stream_ends_with_its_provider_and_works_again_with_the_next(self) -> None:
        values = self.system.follow("/system/cpu")
        values.next(DEADLINE)
        changes = self.system.watch("/system/cpu")
        self.monitor.kill()
        self.assertEqual(self.failure(lambda: list(values)).status, 503)
        self.assertEqual(self.failure(lambda: list(values)).status, 503)
        self.start_monitor()
        while changes.next(DEADLINE).kind != "removed":
            pass
        self.assertEqual(changes.next(DEADLINE).kind, "added")
        self.assertEqual(list(self.system.call("/system/cpu", timeout=DEADLINE)), ["busy_percent"])

    def test_a_stopped_provider(self) -> None:
        self.system.call("/system/cpu")
        self.monitor.stop()
        with self.assertRaises(kesa.Timeout):
            self.system.call("/system/cpu", timeout=0.01)
        with mock.patch.multiple(connection, HEARTBEAT_SECONDS=0.02, _LOOK_SECONDS=0.01):
            error = self.failure(lambda: self.system.call("/system/cpu", timeout=None))
        self.assertEqual(error.status, 503)
        self.assertIn("silent", error.reason)


class CallingPython(SystemTest):
    def setUp(self) -> None:
        super().setUp()
        self.provider = self.start_provider("counter", "/counter")
        self.system = self.connect()

    def test_every_kind_of_value(self) -> None:
        for value in (None, False, 7, -1.5, "text", [1, [2]], {"a": {"b": None}}, 2**63):
            if value is not None:
                self.assertEqual(self.system.call("/counter", "/echo", body=value), value)
        self.assertEqual(self.system.call("/counter", "/echo", body=b"\0raw"), b"\0raw")
        self.assertEqual(self.system.call("/counter", "/echo", body=kesa.text("grüße")), "grüße")
        self.assertEqual(self.system.call("/counter", "/text"), "grüße")
        self.assertIsNone(self.system.call("/counter", "/nothing"))

    def test_large_bodies(self) -> None:
        large = os.urandom(5_000_000)
        self.assertEqual(self.system.call("/counter", "/echo", body=large), large)
        error = self.failure(lambda: self.system.call("/counter", "/large", body=17_000_000))
        self.assertEqual(error.status, 413)
        self.assertRegex(error.reason, "170000.*16777216.*max_message_bytes.*of 'counter', which sends.*in parts")

    def test_what_cannot_be_sent_or_reached_cuts_nothing(self) -> None:
        values = self.system.follow("/counter", "/slow-count")
        record = {"path": "/lost", "type": "pex", "versions": [], "locators": ["tcp://counter:1/x"]}
        inserted = self.system.follow("/registry", "/lost", command="insert", body=record)
        inserted.next(DEADLINE)
        with self.assertRaisesRegex(kesa.ServiceNotThere, "cannot be reached from here: tcp://counter:1/x"):
            self.system.call("/lost")
        nested: list = []
        for _ in range(40):
            nested = [nested]
        for wrong in (
            {"command": 5},
            {"resource": 5},
            {"headers": {5: "five"}},
            {"headers": {"five": {5: "five"}}},
            {"headers": {"five": object()}},
            {"body": object()},
        ):
            with self.subTest(wrong), self.assertRaises(TypeError):
                self.system.call("/counter", **wrong)
        with self.assertRaises(TypeError):
            self.system.call(5)
        with self.assertRaises(TypeError):
            kesa.Body("text", "plain/text")
        self.assertEqual(self.failure(lambda: self.system.call("/counter", headers={"deep": nested})).status, 400)
        half, told = "a\udcff", r"text '.*a\\udcff.*': it must be UTF-8; a surrogate"
        for wrong in ({"command": half}, {"resource": f"/{half}"}, {"headers": {half: 1}}):
            self.assertRegex(self.failure(lambda: self.system.call("/counter", **wrong)).reason, told)
        for body in (lambda: {"a": [half]}, lambda: half, lambda: kesa.text(half)):
            with self.assertRaisesRegex(ValueError, told):
                self.system.call("/counter", body=body())
        with self.assertRaisesRegex(ValueError, told):
            self.system.watch(f"/{half}/**")
        for wrong in (b"1e999999", b'["\\ud800"]', b"NaN", b"[" * 50_000, b'"\xff"'):
            body = kesa.Body(wrong, "application/json")
            with self.subTest(wrong[:9]):
                failed = self.failure(lambda: self.system.call("/counter", "/value", body=body))
                self.assertEqual((failed.status, failed.reason[:28]), (400, "the body is no application/j"))
        self.assertEqual([values.next(DEADLINE) for _ in range(100)], list(range(100)))

    def test_a_stream_that_ends(self) -> None:
        self.assertEqual(list(self.system.follow("/counter", "/three")), ["a", "b", "c"])
        self.assertEqual(self.system.call("/counter", "/three"), "a")
        values = self.system.follow("/counter", "/breaks")
        self.assertEqual(values.next(DEADLINE), 1)
        self.assertEqual(str(self.failure(lambda: values.next(DEADLINE))), "418 enough")

    def test_cancelling_reaches_the_handler(self) -> None:
        values = self.system.follow("/counter", "/count")
        self.assertEqual([values.next(DEADLINE) for _ in range(1000)], list(range(1000)))
        values.cancel()
        self.provider.line(lambda line: line == "stream closed")
        for _ in self.system.follow("/counter", "/slow-count"):
            break
        self.provider.line(lambda line: line == "slow stream closed")

    def test_who_does_not_take_its_values_is_told(self) -> None:
        with mock.patch.object(system, "_MOST_VALUES", 100):
            values = self.system.follow("/counter", "/count")
        self.provider.line(lambda line: line == "stream closed")
        taken = []
        with self.assertRaisesRegex(kesa.ServiceError, "were not taken"):
            for value in values:
                taken.append(value)
        self.assertEqual(taken, list(range(100)))

    def test_streams_and_calls_outlive_the_registry(self) -> None:
        values = self.system.follow("/counter", "/slow-count")
        self.assertEqual(values.next(DEADLINE), 0)
        changes = self.system.watch("/counter")
        before = changes.next(DEADLINE).record
        self.registry.kill()
        self.assertEqual(self.system.call("/counter", "/three"), "a")
        self.start_registry()
        self.assertEqual([changes.next(DEADLINE).kind for _ in range(2)], ["removed", "added"])
        self.assertNotEqual(self.system.list("/counter")[0].id, before.id)
        self.assertEqual([values.next(DEADLINE) for _ in range(2000)], list(range(1, 2001)))

    def test_closing_ends_what_waits(self) -> None:
        errors = []
        caller = threading.Thread(target=lambda: errors.append(self.failure_of(kesa.KesaError)))
        caller.start()
        self.provider.line(lambda line: line == "busy")
        self.system.close()
        caller.join(DEADLINE)
        self.assertIn("closed", str(errors[0]))

    def failure_of(self, kind: type[Exception]) -> Exception:
        with self.assertRaises(kind) as raised:
            self.system.call("/counter", "/busy", timeout=None)
        return raised.exception

    def test_a_withdrawn_service_ends_its_streams(self) -> None:
        service = self.connect("inside").provide("/inside", lambda request: iter(request.cancelled.wait, None))
        values = self.system.follow("/inside")
        service.close()
        error = self.failure(lambda: list(values))
        self.assertEqual((error.status, error.reason), (503, "the service was withdrawn"))
        self.assertEqual(self.system.list("/inside"), [])


def frame(kind: int, stream: int, target: int, head: bytes = b"", body: bytes = b"") -> bytes:
    return struct.pack("<IBBHII", len(head) + len(body), kind, 0, len(head), stream, target) + head + body


DEEP_HEAD = b"\xbf\x61h" + b"\x81" * 30 + b"\x01\xff"
SECOND_HELLO = Message(frames.HELLO, head=heads.Hello(2, 2, "evil", "", bytes(range(16)), [])).encode()


class Hostile:
    """Takes the clients of a process that provides a service: sends `after_attach`, and for a request `answer` without end."""

    def __init__(self, provider: kesa.System, answer: bytes, after_attach: bytes):
        self.clients = 0
        self._hello, self._claim = provider._hello, provider._claim
        self._answer, self._after_attach = answer, after_attach
        provider._run(self._take_over(provider._loop), None)
        self._claim.socket.setblocking(True)
        threading.Thread(target=self._run, daemon=True).start()

    async def _take_over(self, loop) -> None:
        loop.remove_reader(self._claim.socket)

    def close(self) -> None:
        self._claim.socket.shutdown(socket.SHUT_RDWR)

    def _run(self) -> None:
        while True:
            try:
                client, _ = self._claim.socket.accept()
            except OSError:
                return
            self.clients += 1
            with client:
                try:
                    self._serve(client)
                except OSError:
                    pass

    def _serve(self, client) -> None:
        client.sendall(Message(frames.HELLO, head=self._hello).encode())
        decoder = frames.Decoder("client")
        while data := client.recv(65536):
            for message in decoder.feed(data):
                if message.kind == frames.ATTACH:
                    client.sendall(frame(frames.ATTACHED, 0, message.target) + self._after_attach)
                while message.kind == frames.REQUEST and self._answer:
                    client.sendall(self._answer)


class CallingHostile(SystemTest):
    def test_a_call_ends_in_its_time_and_says_why(self) -> None:
        connected = "'/evil' is connected"
        for name, answer, after_attach, told in (
            ("deep", frame(frames.NEXT, 1, 200, DEEP_HEAD, b"x") * 4000, b"", connected),
            ("pings", frame(frames.PING, 0, 0) * 4000, b"", connected),
            ("silent", b"", b"", connected),
            ("hello", b"", SECOND_HELLO, "the peer broke the protocol: hello is not the first message"),
        ):
            with self.subTest(name):
                provider, system = self.connect(name), self.connect()
                provider.provide("/evil", lambda request: None)
                hostile = Hostile(provider, answer, after_attach)
                with self.assertRaisesRegex(kesa.Timeout, f"^504: no answer within 0.5 s; .*{told}.*; kesactl why /evil says more"):
                    system.call("/evil", timeout=0.5)
                self.assertLess(hostile.clients, 12)  # 1 + 2 + 4 .. ms between them
                system.close()
                hostile.close()
                provider.close()
        with self.assertRaises(TimeoutError):  # what takes long to read, in the thread that asks
            cbor.decode(b"\x80", until=0.0)

    def test_a_child_is_told_to_connect_itself(self) -> None:
        mine = self.connect()
        with mock.patch.object(os, "getpid", return_value=os.getpid() + 1):
            mine.close()
            with self.assertRaisesRegex(kesa.KesaError, "a child made by fork calls kesa.connect itself"):
                mine.list()
            with self.assertRaisesRegex(kesa.KesaError, "a child"):
                mine.call("/nobody", timeout=0)
        self.assertEqual([record.path for record in mine.list()], ["/registry"])
