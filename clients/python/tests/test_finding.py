"""Services of C++ processes, listed and watched, while these and the registry come and go."""

from __future__ import annotations

import os
import shutil
import socket
import tempfile
import threading
import unittest
from typing import Callable
from unittest import mock

import kesa
from kesa import registry, rights, rundir
from programs import DEADLINE, SystemTest, program


class Finding(SystemTest):
    def test_list_tells_what_the_tool_tells(self) -> None:
        self.start_monitor()
        system = self.connect()
        system.wait("/system/cpu", DEADLINE)
        system.wait("/system/memory", DEADLINE)
        there = system.list("/system/{cpu,memory}")
        told = self.kesactl_json("list", "/system/{cpu,memory}")
        self.assertEqual([(record.path, record.id) for record in there], [(line["path"], line["id"]) for line in told])
        self.assertEqual([(record.path, record.provider) for record in there][1:], [("/system/memory", "system-monitor")])
        self.assertEqual([record.path for record in system.list("/system/cpu")], ["/system/cpu"])
        self.assertEqual(system.list("/system/**", metadata={"provider": "another"}), [])
        self.assertEqual(self.failure(lambda: system.list("/[")).status, 400)

    def test_watch_tells_that_a_service_comes_and_its_process_is_killed(self) -> None:
        with self.connect().watch("/system/*") as changes:
            monitor = self.start_monitor()
            added = self.next_of(changes, "/system/cpu")
            self.assertEqual(added.kind, "added")
            monitor.kill()
            self.assertEqual(self.next_of(changes, "/system/cpu"), kesa.Change("removed", added.record))

    def test_watch_is_right_again_after_the_registry_was_killed(self) -> None:
        self.start_monitor()
        goes = self.start_provider("goes", "/goes")
        system = self.connect()
        changes = system.watch()
        there: dict[str, kesa.Record] = {}
        self.take(changes, there, lambda: {"/system/cpu", "/goes"} <= there.keys())
        before = there["/system/cpu"]
        self.registry.kill()
        goes.kill()
        self.start_registry()
        self.take(changes, there, lambda: "/goes" not in there and there.get("/system/cpu", before) != before)
        self.assertEqual(there["/system/cpu"].provider, "system-monitor")

    def test_nothing_is_called_gone_since_the_registry_has_just_started(self) -> None:
        monitor = self.start_monitor()
        self.connect().wait("/system/cpu", DEADLINE)
        for ask in (lambda: [record.path for record in young.list("/system/cpu")], lambda: list(young.call("/system/cpu"))):
            monitor.stop()
            self.restart_registry()
            young = self.connect()
            answers: list[list[str]] = []
            asking = threading.Thread(target=lambda: answers.append(ask()))
            asking.start()
            young.wait("/registry", DEADLINE)
            monitor.go_on()
            asking.join(DEADLINE)
            self.assertIn(answers, ([["/system/cpu"]], [["busy_percent"]]))

    def test_what_is_not_known_in_time_is_said_to_be_so(self) -> None:
        with mock.patch.object(registry, "_SETTLING_SECONDS", 1e6):
            system = self.connect()
            system.wait("/registry", DEADLINE)
            for work in (lambda: system.list(timeout=0.01), lambda: system.call("/nobody", timeout=0.01)):
                with self.assertRaisesRegex(kesa.Timeout, "just started"):
                    work()

    def take(self, changes: kesa.Stream[kesa.Change], there: dict[str, kesa.Record], enough: Callable[[], bool]) -> None:
        """Keeps `there` by the changes; each must be one of it."""
        while not enough():
            change = changes.next(DEADLINE)
            if change.kind == "added":
                self.assertNotIn(change.record.path, there)
                there[change.record.path] = change.record
            else:
                self.assertEqual(there.pop(change.record.path), change.record)

    def test_without_a_registry_the_error_says_where_it_was_looked_for(self) -> None:
        self.registry.kill()
        with self.assertRaisesRegex(kesa.NoRegistry, f"in {self.run_dir} died.*Start kesa-registryd"):
            self.connect(timeout=0.01)
        with self.assertRaisesRegex(kesa.NoRegistry, "no process listens as 'kesa-registryd' in /nowhere"):
            kesa.connect(run_dir="/nowhere", timeout=0.01)

    @unittest.skipIf(os.geteuid() != 0, "two users are needed, which only root can be")
    def test_who_listens_by_anothers_name_is_not_connected(self) -> None:
        directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, directory)
        os.chmod(directory, 0o1777)
        with open(os.path.join(directory, "media.lock"), "w", encoding="ascii") as lock:
            os.fchown(lock.fileno(), 1, 1)
        path = os.path.join(directory, "media.sock")
        for socket_of, listener, wrong in ((0, 0, ""), (1, 1, ""), (0, 1, "its socket is of the user 'root'"), (2, 2, "the name is of")):
            with self.subTest(socket_of=socket_of, listener=listener), socket.socket(socket.AF_UNIX) as listening:
                listening.bind(path)
                os.chown(path, socket_of, socket_of)
                os.seteuid(listener)  # what the kernel tells of who listens
                listening.listen()
                os.seteuid(0)
                if wrong:
                    with self.assertRaisesRegex(OSError, wrong):
                        rundir.connect(directory, "media")
                else:
                    rundir.connect(directory, "media").close()
                os.unlink(path)
        with socket.socket(socket.AF_UNIX) as listening:
            listening.bind(path)
            os.chown(path, 0, 54321)
            os.chmod(path, 0o660)
            os.seteuid(65534)
            why = rights.why_forbidden(directory, "media")
            os.seteuid(0)
            self.assertIn('mode 0660; add this user to the group "54321" and log in anew', why)

    def test_a_registry_may_have_another_name(self) -> None:
        self.start(program("apps", "kesa-registryd", "kesa-registryd"), "--name", "hub").line(lambda line: "ready" in line)
        hub = self.connect("greeter", registry="ipc://hub/registry")
        hub.provide("/greeter", lambda request: "hello")
        self.assertEqual([record.path for record in hub.list()], ["/greeter", "/registry"])
        self.assertEqual([(record.path, record.provider) for record in self.connect().list()], [("/registry", "kesa-registryd")])
        for text in ("hub", "ipc://hub", "tcp://hub/registry", "ipc://\udcff/registry"):
            with self.assertRaisesRegex(ValueError, "is no locator; write it as 'ipc://kesa-registryd/registry'"):
                self.connect(registry=text)

    def test_waiting_has_a_limit(self) -> None:
        with self.assertRaisesRegex(kesa.Timeout, "no service at /nobody within 0 s"):
            self.connect().wait("/nobody", 0)

    def test_a_process_may_come_before_the_registry(self) -> None:
        self.registry.kill()
        systems = []
        early = threading.Thread(target=lambda: systems.append(self.connect(timeout=None)))
        early.start()
        self.start_registry()
        early.join(DEADLINE)
        self.assertEqual([record.path for record in systems[0].list()], ["/registry"])

    def test_a_closed_system_ends_what_waits(self) -> None:
        system = self.connect()
        changes = system.watch("/nothing")
        system.close()
        self.assertEqual(list(changes), [])
        with self.assertRaisesRegex(kesa.KesaError, "closed"):
            system.list()


class FarAway(SystemTest):
    """In a directory whose name is too long for the address of a socket."""

    below = "d" * 120

    def test_provide_and_call(self) -> None:
        name = "odd name." + "ü" * 20
        self.connect(name).provide("/odd/päth +!", lambda request: request.client)
        self.assertEqual([line["path"] for line in self.kesactl_json("list", "/odd/**")], ["/odd/päth +!"])
        self.kesactl("call", "/odd/päth +!", "/")
        self.assertRegex(self.connect().call("/odd/päth +!"), r":\d+$")
