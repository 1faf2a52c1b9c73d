"""A real system for a test: the registry, services and the tool as processes, in a run directory of its own.

$KESA_BUILD is the build directory that holds the programs. Everything waits for what a process says, with a deadline.
"""

from __future__ import annotations

import json
import os
import queue
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import unittest
from typing import Any, Callable

import kesa

PACKAGE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEADLINE = 20.0


def program(*parts: str) -> str:
    """The path of a built program."""
    return os.path.join(os.environ["KESA_BUILD"], *parts)


class Running:
    """A process whose lines are waited for."""

    def __init__(self, arguments: list[str], environment: dict[str, str]):
        self._lines: queue.SimpleQueue[str | None] = queue.SimpleQueue()
        self.process = subprocess.Popen(
            arguments, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True
        )
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def line(self, wanted: Callable[[str], bool] = lambda line: True) -> str:
        """The next line that is wanted; the others are dropped."""
        while True:
            line = self._lines.get(timeout=DEADLINE)
            if line is None:
                raise AssertionError(f"{self.process.args} ended before it said what was waited for")
            if wanted(line):
                return line

    def stop(self) -> None:
        """As kill -STOP. Returns when it stands still."""
        self.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.process.pid, os.WSTOPPED)

    def go_on(self) -> None:
        """As kill -CONT."""
        self.process.send_signal(signal.SIGCONT)

    def kill(self) -> None:
        """As kill -9. Returns when it is dead."""
        self.process.kill()
        self.process.wait(DEADLINE)
        self.process.stdin.close()
        self._reader.join(DEADLINE)
        self.process.stdout.close()

    def _read(self) -> None:
        for line in self.process.stdout:
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)


class SystemTest(unittest.TestCase):
    """Each test has a registry that runs."""

    below = ""

    def setUp(self) -> None:
        top = tempfile.mkdtemp(prefix="kesa-python-")
        self.addCleanup(shutil.rmtree, top)
        self.run_dir = os.path.join(top, self.below) if self.below else top
        os.makedirs(self.run_dir, exist_ok=True)
        self.environment = {**os.environ, "KESA_RUN_DIR": self.run_dir, "PYTHONPATH": PACKAGE}
        self._running: list[Running] = []
        self.addCleanup(self._kill_all)
        self.start_registry()

    def start_registry(self) -> None:
        """Returns when it is ready."""
        self.registry = self.start(program("apps", "kesa-registryd", "kesa-registryd"))
        self.registry.line(lambda line: "ready" in line)

    def restart_registry(self) -> None:
        self.registry.kill()
        self.start_registry()

    def start(self, *arguments: str) -> Running:
        running = Running(list(arguments), self.environment)
        self._running.append(running)
        return running

    def start_monitor(self) -> Running:
        """The example service, with /system/cpu and others."""
        return self.start(program("examples", "system-monitor"))

    def start_provider(self, name: str, path: str) -> Running:
        """A process that provides `path` by this package. Returns when it is provided."""
        provider = self.start(sys.executable, os.path.join(os.path.dirname(__file__), "provider.py"), name, path)
        provider.line(lambda line: line == "provided")
        return provider

    def connect(self, name: str | None = None, **options: Any) -> kesa.System:
        """Closed at the end of the test."""
        system = kesa.connect(name, run_dir=self.run_dir, **{"timeout": DEADLINE, **options})
        self.addCleanup(system.close)
        return system

    def kesactl(self, *arguments: str, stdin: str = "", code: int = 0) -> str:
        """What the tool prints, or what it complains of if it is to fail."""
        done = subprocess.run(
            [program("apps", "kesactl", "kesactl"), *arguments],
            env=self.environment,
            input=stdin,
            capture_output=True,
            text=True,
            timeout=DEADLINE,
        )
        self.assertEqual(done.returncode, code, done.stderr)
        return done.stderr if code else done.stdout

    def kesactl_json(self, *arguments: str) -> list[Any]:
        return [json.loads(line) for line in self.kesactl(*arguments, "--json").splitlines()]

    def failure(self, work: Callable[[], Any]) -> kesa.ServiceError:
        """The error with which `work` ends."""
        with self.assertRaises(kesa.ServiceError) as raised:
            work()
        return raised.exception

    def next_of(self, changes: kesa.Stream[kesa.Change], path: str) -> kesa.Change:
        """The next change of `path`; those of others are dropped."""
        while True:
            change = changes.next(DEADLINE)
            if change.record.path == path:
                return change

    def _kill_all(self) -> None:
        for running in self._running:
            if not running.process.stdin.closed:
                running.kill()
