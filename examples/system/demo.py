#!/usr/bin/env python3
"""Runs a small system on this machine and shows how every view of it becomes true again.

demo.py BUILD_DIR starts kesa-registryd, system-monitor, system-disks and system-watch, none of them with a configuration,
asks kesactl, kills and restarts a provider and then the registry, and prints what was seen and how long it took. Ends with
0 only when everything it shows was seen to happen. Everything lives in a temporary directory.
"""

import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import textwrap
import time

LIMIT_S = 30
PROGRAMS = {"kesa-registryd": "apps/kesa-registryd", "kesactl": "apps/kesactl", "system-monitor": "examples",
            "system-disks": "examples", "system-watch": "examples"}
COLORS = sys.stdout.isatty()


def painted(code, text):
    return f"\x1b[{code}m{text}\x1b[0m" if COLORS else text


def expected_services():
    """What the providers must show of this machine, found out without them."""
    monitor = ["cpu", "load", "memory"] + [f"net/{name}" for name in os.listdir("/sys/class/net")]
    disks = ["filesystem"] + [f"disk/{path.name}" for path in pathlib.Path("/sys/block").glob("*") if (path / "device").exists()]
    services = {f"/system/{name}": "system-monitor" for name in monitor}
    services.update({f"/system/{name}": "system-disks" for name in disks})
    return dict(sorted(services.items()))


class System:
    """The processes, in a run directory of their own."""

    def __init__(self, build, folder):
        self.build = build
        self.folder = folder
        self.processes = {}
        self.environment = {name: value for name, value in os.environ.items() if not name.startswith("KESA_")}
        self.environment.update(KESA_RUN_DIR=str(folder / "run"), KESA_TRACE_SINK=f"file:{folder}/traces")

    def program(self, name):
        return self.build / PROGRAMS[name] / name

    def start(self, name, *arguments):
        output = (self.folder / f"{name}.log").open("w")
        begin = time.monotonic_ns()
        self.processes[name] = subprocess.Popen([self.program(name), *arguments], env=self.environment, cwd=self.folder,
                                                stdout=output, stderr=subprocess.STDOUT)
        return begin

    def kill(self, name):
        begin = time.monotonic_ns()
        self.processes[name].kill()
        self.processes[name].wait()
        return begin

    def wait_until_ready(self, name, text):
        log = self.folder / f"{name}.log"
        wait_for(f"{name} says \"{text}\"", lambda: text in log.read_text(), self.check_alive)

    def check_alive(self):
        for name, process in self.processes.items():
            if process.poll() is not None:
                raise AssertionError(f"{name} ended with {process.returncode}:\n{(self.folder / f'{name}.log').read_text()}")

    def kesactl(self, *arguments, expect=0, show=True):
        """Runs kesactl, shows it, and answers its output."""
        begin = time.monotonic_ns()
        result = subprocess.run([self.program("kesactl"), *arguments], env=self.environment, cwd=self.folder, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
        took = time.monotonic_ns() - begin
        if show:
            command = " ".join(f"'{word}'" if set(word) & set("*{ ") else word for word in arguments)
            print(f"   {painted(1, '$ kesactl ' + command)}")
            output = result.stdout.rstrip("\n").split("\n") if result.stdout else []
            for line in output:
                print(textwrap.indent(textwrap.fill(line, 120, subsequent_indent="    ", break_on_hyphens=False,
                                                    drop_whitespace=False, tabsize=1) if len(line) > 150 else line, "   "))
            print(f"   {painted(2, f'exit code {result.returncode}, {milliseconds(took)}')}\n")
        if result.returncode != expect:
            raise AssertionError(f"kesactl {arguments} ended with {result.returncode}: {result.stdout}")
        return result.stdout

    def end(self):
        for name in ("system-watch", "system-disks", "system-monitor", "kesa-registryd"):
            process = self.processes[name]
            process.send_signal(signal.SIGTERM)
            if process.wait(timeout=LIMIT_S) != 0:
                raise AssertionError(f"{name} ended with {process.returncode} after SIGTERM")
        left = [name for name in os.listdir(self.folder / "run") if name.endswith(".sock")]
        if left:
            raise AssertionError(f"sockets were left behind: {left}")

    def kill_all(self):
        for process in self.processes.values():
            if process.poll() is None:
                process.kill()
                process.wait()


def wait_for(what, predicate, check_alive):
    deadline = time.monotonic() + LIMIT_S
    while not predicate():
        check_alive()
        if time.monotonic() > deadline:
            raise AssertionError(f"not seen in {LIMIT_S} s: {what}")
        time.sleep(0.002)


class Watcher:
    """What system-watch wrote down so far."""

    def __init__(self, system, services):
        self.system = system
        self.services = services
        self.file = system.folder / "events"
        self.file.touch()
        self._reader = self.file.open()
        self.events = []

    def update(self):
        while True:
            place = self._reader.tell()
            line = self._reader.readline()
            if not line.endswith("\n"):
                self._reader.seek(place)
                return
            self.events.append(json.loads(line))

    def seen(self, event, since):
        """When each service first had that event after `since`."""
        times = {}
        for entry in self.events:
            if entry["event"] == event and entry["at_ns"] >= since:
                times.setdefault(entry["path"], entry["at_ns"] - since)
        return times

    def wait_for(self, event, paths, since):
        def is_seen():
            self.update()
            return set(paths) <= set(self.seen(event, since))
        wait_for(f"{event} of {', '.join(paths)}", is_seen, self.system.check_alive)
        return max(self.seen(event, since)[path] for path in paths)

    def there(self):
        last = {}
        for entry in self.events:
            if entry["event"] in ("connected", "lost"):
                last[entry["path"]] = entry["event"] == "connected"
        return {path for path, is_there in last.items() if is_there}

    def show(self, since):
        """The state of each service, and how long after `since` it became true."""
        connected, lost, value = (self.seen(event, since) for event in ("connected", "lost", "value"))
        there = self.there()
        print(painted(2, f"   {'service':<24}{'provider':<18}system-watch shows"))
        for path, provider in self.services.items():
            if path in connected:
                what = f"after {milliseconds(connected[path])}, its stream after {milliseconds(value[path])}"
            elif path in lost:
                what = f"after {milliseconds(lost[path])}"
            else:
                what = "untouched"
            state = painted(32, "● connected") if path in there else painted(31, "○ gone     ")
            print(f"   {path:<24}{provider:<18}{state}   {painted(2, what)}")
        print()


def milliseconds(nanoseconds):
    return f"{nanoseconds / 1e6:.1f} ms"


class Demo:
    def __init__(self, build, folder):
        self.system = System(build, folder)
        self.services = expected_services()
        self.disks = [path for path, provider in self.services.items() if provider == "system-disks"]
        self.watcher = Watcher(self.system, self.services)
        self.measured = []
        self.acts = 0

    def act(self, title):
        self.acts += 1
        print(painted("1;36", f"── {self.acts}  {title} {'─' * max(4, 96 - len(title))}"))
        print()

    def measure(self, name, nanoseconds):
        self.measured.append((name, milliseconds(nanoseconds)))

    def expect_listed(self, services):
        listed = {json.loads(line)["path"] for line in
                  self.system.kesactl("list", "/system/**", "--json", show=False).splitlines()}
        if listed != set(services):
            raise AssertionError(f"kesactl lists {sorted(listed)} instead of {sorted(services)}")

    def list_of_young_registry(self):
        print(painted(2, "   the registry is young: for 1.5 s kesactl waits for providers that have yet to find it\n"))
        self.system.kesactl("list", "/system/**")
        self.expect_listed(self.services)

    def run(self):
        self.start()
        self.ask()
        self.lose_provider()
        self.lose_registry()
        self.end()

    def start(self):
        self.act("Four processes are started, the registry last; none has a configuration")
        self.system.start("system-watch", self.watcher.file)
        self.system.start("system-monitor")
        self.system.start("system-disks")
        begin = self.system.start("kesa-registryd")
        self.system.wait_until_ready("kesa-registryd", "ready at")
        self.measure("registry started last: all services connected", self.watcher.wait_for("connected", self.services, begin))
        self.watcher.wait_for("value", self.services, begin)
        self.watcher.show(begin)
        self.watcher.wait_for("answer", self.services, begin)
        calls = sorted(entry["took_ns"] for entry in self.watcher.events if entry["event"] == "answer")
        self.measured.append(("a first call, blocking (median)", f"{calls[len(calls) // 2] / 1000:.0f} us"))

    def ask(self):
        self.act("kesactl asks the registry, and calls a service")
        self.list_of_young_registry()
        self.system.kesactl("tree")
        self.system.kesactl("show", "/system/cpu")
        self.system.kesactl("wait", "/system/memory", "--timeout", "10")
        value = json.loads(self.system.kesactl("call", "/system/memory", "/"))
        if value["total_kib"] <= 0:
            raise AssertionError(f"no memory: {value}")

    def lose_provider(self):
        others = set(self.services) - set(self.disks)
        self.act("system-disks is killed with SIGKILL")
        begin = self.system.kill("system-disks")
        del self.system.processes["system-disks"]
        self.measure("provider killed: all its services gone", self.watcher.wait_for("lost", self.disks, begin))
        self.watcher.show(begin)
        self.system.kesactl("wait", "/system/{filesystem,disk/**}", "--gone", "--timeout", "10")
        self.system.kesactl("show", "/system/filesystem", expect=1)
        self.expect_listed(others)

        self.act("system-disks is started again")
        again = self.system.start("system-disks")
        self.measure("provider started again: all connected", self.watcher.wait_for("connected", self.disks, again))
        self.measure("provider started again: all streams flow", self.watcher.wait_for("value", self.disks, again))
        self.watcher.show(again)
        self.system.kesactl("call", "/system/filesystem", "/")
        self.expect_listed(self.services)
        if others & set(self.watcher.seen("lost", begin)):
            raise AssertionError("services of system-monitor were disturbed")

    def lose_registry(self):
        self.act("The registry is killed with SIGKILL: nothing vouches for any service now")
        begin = self.system.kill("kesa-registryd")
        del self.system.processes["kesa-registryd"]
        self.measure("registry killed: nothing is shown any more", self.watcher.wait_for("lost", self.services, begin))
        self.watcher.show(begin)
        self.system.kesactl("list", "--timeout", "0.5", expect=3)

        self.act("The registry is started again; no other process is touched")
        begin = self.system.start("kesa-registryd")
        self.system.wait_until_ready("kesa-registryd", "ready at")
        self.measure("registry started again: all connected", self.watcher.wait_for("connected", self.services, begin))
        self.measure("registry started again: all streams flow", self.watcher.wait_for("value", self.services, begin))
        self.watcher.show(begin)
        self.list_of_young_registry()

    def end(self):
        self.system.end()
        self.act("All ended on SIGTERM with exit code 0 and left no socket behind; measured")
        for name, value in self.measured:
            print(f"   {name:<48}{value:>10}")
        print("\n   Everything above was seen to happen.")


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    with tempfile.TemporaryDirectory(prefix="kesa-demo-") as name:
        folder = pathlib.Path(name)
        demo = Demo(build, folder)
        try:
            demo.run()
        except AssertionError as error:
            print(f"\nThe demo failed: {error}\n\nThe traces of all processes:", file=sys.stderr)
            traces = folder / "traces"
            print(traces.read_text() if traces.exists() else "none", file=sys.stderr)
            return 1
        finally:
            demo.system.kill_all()
    return 0


if __name__ == "__main__":
    sys.exit(main())
