#!/usr/bin/env python3
"""Starts system-monitor and system-watch, kills the monitor, starts it again, and prints what was seen and how long it took.

demo.py BUILD_DIR. Ends with 0 only when everything it claims was seen. Everything lives in a temporary directory.
"""

import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

LIMIT_S = 20


class Watcher:
    """system-watch with what it wrote down so far."""

    def __init__(self, program, environment, folder):
        self.events_file = folder / "events"
        self.frames = folder / "frames"
        self.process = subprocess.Popen([program, self.events_file], env=environment, stdout=self.frames.open("w"))
        self._read = None
        self.events = []

    def update(self):
        if self._read is None:
            if not self.events_file.exists():
                return
            self._read = self.events_file.open()
        while True:
            place = self._read.tell()
            line = self._read.readline()
            if not line.endswith("\n"):
                self._read.seek(place)
                return
            self.events.append(json.loads(line))

    def wait_for(self, what, event, paths, since, count=1):
        """The time of the last path's `count`th `event` after `since`."""
        deadline = time.monotonic() + LIMIT_S
        while True:
            self.update()
            times = {path: [] for path in paths}
            for entry in self.events:
                if entry["event"] == event and entry["at_ns"] > since and entry["path"] in times:
                    times[entry["path"]].append(entry["at_ns"])
            if all(len(seen) >= count for seen in times.values()):
                return max(seen[count - 1] for seen in times.values())
            if self.process.poll() is not None:
                raise AssertionError(f"system-watch ended with {self.process.returncode}")
            if time.monotonic() > deadline:
                missing = [path for path, seen in times.items() if len(seen) < count]
                raise AssertionError(f"not seen in {LIMIT_S} s: {what}, of {', '.join(missing)}")
            time.sleep(0.002)

    def show(self):
        """The newest frame that came after the moment it is asked for."""
        begin = self.frames.stat().st_size
        while self.frames.read_text()[begin:].count("\n\n") < 2:
            time.sleep(0.02)
        print(self.frames.read_text()[begin:].split("\n\n")[1])
        print()


def document(interfaces):
    paths = ["/system/cpu", "/system/memory", "/system/load"] + [f"/system/net/{name}" for name in interfaces]
    services = [{"path": path, "type": "pex", "version": "1.0.0", "locators": ["ipc://system-monitor"]} for path in paths]
    return paths, {"use_registry": False, "backends": ["comm"], "services": services}


def milliseconds(nanoseconds):
    return f"{nanoseconds / 1e6:.1f} ms"


def run(build, folder):
    environment = dict(os.environ, KESA_RUN_DIR=str(folder / "run"), KESA_CONFIG=str(folder / "watch.json"),
                       KESA_TRACE_SINK=f"file:{folder}/traces")
    monitor_environment = dict(environment)
    del monitor_environment["KESA_CONFIG"]
    log = (folder / "monitor.log").open("w")

    def start_monitor():
        return subprocess.Popen([build / "examples" / "system-monitor"], env=monitor_environment, cwd=folder, stdout=log)

    paths, text = document(sorted(os.listdir("/sys/class/net")))
    (folder / "watch.json").write_text(json.dumps(text, indent=2))
    print(f"system-watch knows {len(paths)} services from its configuration document; kesactl check-config says:")
    subprocess.run([build / "apps" / "kesactl" / "kesactl", "check-config", folder / "watch.json", "--process", "system-watch"],
                   env=environment, check=True)

    measured = []
    watcher = Watcher(build / "examples" / "system-watch", environment, folder)
    monitor = None
    try:
        print("\nsystem-watch is there first, and waits.")
        watcher.show()

        begin = time.monotonic_ns()
        monitor = start_monitor()
        connected = watcher.wait_for("a connection", "connected", paths, begin)
        watcher.wait_for("an answer", "answer", paths, begin)
        watcher.wait_for("three values of its stream", "value", paths, begin, 3)
        print(f"system-monitor was started (pid {monitor.pid}); every service is connected, was asked, and streams:")
        watcher.show()
        calls = sorted(entry["took_ns"] for entry in watcher.events if entry["event"] == "answer")
        measured.append(("start of the monitor to all connected", milliseconds(connected - begin)))
        measured.append(("a first call, blocking (median)", f"{calls[len(calls) // 2] / 1000:.0f} us"))

        begin = time.monotonic_ns()
        monitor.send_signal(signal.SIGKILL)
        lost = watcher.wait_for("the loss", "lost", paths, begin)
        monitor.wait()
        print("system-monitor was killed with SIGKILL; system-watch noticed:")
        watcher.show()
        measured.append(("SIGKILL to all shown as lost", milliseconds(lost - begin)))

        begin = time.monotonic_ns()
        monitor = start_monitor()
        connected = watcher.wait_for("the connection again", "connected", paths, begin)
        value = watcher.wait_for("a value again", "value", paths, begin)
        print(f"system-monitor was started again (pid {monitor.pid}); everything healed by itself:")
        watcher.show()
        measured.append(("second start to all connected", milliseconds(connected - begin)))
        measured.append(("second start to a value of each stream", milliseconds(value - begin)))

        for name, process in (("system-watch", watcher.process), ("system-monitor", monitor)):
            process.send_signal(signal.SIGTERM)
            if process.wait(timeout=LIMIT_S) != 0:
                raise AssertionError(f"{name} ended with {process.returncode} after SIGTERM")
        left = [name for name in os.listdir(folder / "run") if name.endswith(".sock")]
        if left:
            raise AssertionError(f"sockets were left behind: {left}")
        print("Both ended on SIGTERM with exit code 0 and left no socket behind.\n")
    finally:
        for process in (watcher.process, monitor):
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()

    for name, value in measured:
        print(f"  {name:<44} {value:>10}")
    print("\nEverything above was seen to happen.")


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    with tempfile.TemporaryDirectory(prefix="kesa-demo-") as name:
        folder = pathlib.Path(name)
        try:
            run(build, folder)
        except AssertionError as error:
            print(f"\nThe demo failed: {error}\n\nThe traces of both processes:", file=sys.stderr)
            print((folder / "traces").read_text(), file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
