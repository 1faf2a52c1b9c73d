"""Services of Python processes, seen by C++ ones, while these and the registry come and go."""

from __future__ import annotations

import json
import os
import re
import stat
import struct
import sys
from typing import Iterator

import kesa
from kesa import frames, heads, rundir
from programs import DEADLINE, SystemTest, program


class Raw:
    """A client that does what it likes, attached to `path`."""

    def __init__(self, run_dir: str, process: str, path: str):
        self.socket = rundir.connect(run_dir, process)
        self.socket.settimeout(DEADLINE)
        self._stream = 0
        self.send(frames.Message(frames.HELLO, head=heads.Hello(2, 2, "raw", "", bytes(range(16)), [])))
        self.send(frames.Message(frames.ATTACH, target=1, head=heads.Head(path=path)))

    def send(self, message: frames.Message) -> None:
        self.socket.sendall(message.encode())

    def request(self, resource: str) -> None:
        self._stream += 1
        self.send(frames.Message(frames.REQUEST, self._stream, 1, heads.Head("retrieve", resource)))

    def messages(self) -> Iterator[frames.Message]:
        decoder = frames.Decoder("server")
        while data := self.socket.recv(65536):
            yield from decoder.feed(data)


class Providing(SystemTest):
    def start_kesactl(self, *arguments: str):
        return self.start(program("apps", "kesactl", "kesactl"), *arguments)

    def test_the_tool_finds_and_calls_it(self) -> None:
        self.start_provider("py", "/py")
        self.assertEqual([line["path"] for line in self.kesactl_json("list", "/py")], ["/py"])
        self.assertRegex(self.kesactl("show", "/py"), r"provider +py\n")
        body = json.dumps({"a": ["b"] * 300_000}, separators=(",", ":"))
        self.assertEqual(self.kesactl("call", "/py", "/echo", "--command", "update", "--body", "-", stdin=body).strip(), body)
        who = json.loads(self.kesactl("call", "/py", "/who", "--command", "update"))
        self.assertTrue(re.fullmatch(r"kesactl-(\d+):\1", who.pop("client")))
        self.assertEqual(who, {"uid": os.geteuid(), "command": "update", "follows": False})
        self.assertEqual(self.kesactl("call", "/py", "/three", "--follow"), '"a"\n"b"\n"c"\n')
        self.assertIn("grüße", self.kesactl("call", "/py", "/text"))
        self.assertIn("lets everybody ask who may connect", self.kesactl("may", "0", "call", "/py", "update"))
        self.assertIn("404: no resource at /x", self.kesactl("call", "/py", "/x", code=1))
        self.assertIn("500: KeyError: 'no such key'", self.kesactl("call", "/py", "/broken", code=1))

    def test_what_it_says_of_itself_makes_way_for_a_service(self) -> None:
        self.start_provider("py", "/.well-known/process")
        self.assertIn("grüße", self.kesactl("call", "/.well-known/process", "/text"))

    def test_the_end_of_a_client_closes_its_stream(self) -> None:
        provider = self.start_provider("py", "/py")
        client = self.start_kesactl("call", "/py", "/count", "--follow")
        client.line(lambda line: line == "1000")
        client.kill()
        provider.line(lambda line: line == "stream closed")

    def test_a_client_that_takes_nothing_is_waited_for(self) -> None:
        provider = self.start_provider("py", "/py")
        client = Raw(self.run_dir, "py", "/py")
        client.request("/blocks")
        system = self.connect()
        for _ in range(200):
            system.call("/py", "/who")
        client.request("/count")
        client.socket.close()
        self.assertEqual(provider.line(), "stream closed")

    def test_a_client_that_detaches_ends_its_streams(self) -> None:
        provider = self.start_provider("py", "/py")
        client = Raw(self.run_dir, "py", "/py")
        client.request("/slow-count")
        client.send(frames.Message(frames.DETACHED, target=1))
        self.assertEqual(next(message.body for message in client.messages() if message.kind == frames.ERROR), b"cancelled")
        self.assertEqual(provider.line(), "slow stream closed")
        client.socket.close()

    def test_a_broken_head_ends_the_connection(self) -> None:
        self.start_provider("py", "/py")
        client = Raw(self.run_dir, "py", "/py")
        head = bytes.fromhex("bf 9f ff 01 ff")  # a list as the key
        client.socket.sendall(struct.pack("<IBBHII", len(head), frames.REQUEST, 0, len(head), 1, 1) + head)
        self.assertNotIn(frames.NEXT, [message.kind for message in client.messages()])
        client.socket.close()

    def test_a_name_s_files_are_taken_for_no_others(self) -> None:
        precious = os.path.join(self.run_dir, "precious.sock")
        with open(precious, "x", encoding="ascii") as file:
            file.write("content")
        lock = os.path.join(self.run_dir, "py.lock")
        for make in (lambda: os.symlink(precious, lock), lambda: os.link(precious, lock), lambda: os.mkfifo(lock)):
            make()
            with self.assertRaisesRegex(kesa.KesaError, f"remove {lock}"):
                self.connect("py")
            os.unlink(lock)
        with open(precious, encoding="ascii") as file:
            self.assertEqual(file.read(), "content")
        self.connect("py").close()
        self.assertEqual(os.stat(lock).st_size, 0)
        os.mkdir(os.path.join(self.run_dir, "py.sock"))  # nothing can take its place
        with self.assertRaisesRegex(kesa.KesaError, "cannot listen as 'py'"):
            self.connect("py")
        os.rmdir(os.path.join(self.run_dir, "py.sock"))
        self.assertEqual(os.stat(lock).st_size, 0)
        self.assertEqual([file for file in os.listdir(self.run_dir) if file.endswith(".tmp")], [])
        os.chmod(self.run_dir, 0o2775)
        os.unlink(lock)
        self.connect("py").close()
        self.assertEqual(os.stat(lock).st_mode & 0o7777, 0o660)
        os.chmod(self.run_dir, 0o777)
        with self.assertRaisesRegex(kesa.KesaError, f"sticky bit \\(chmod \\+t {self.run_dir}\\)"):
            self.connect("py")
        os.chmod(self.run_dir, 0o3775)
        os.unlink(lock)
        self.connect("py").close()
        self.assertEqual(os.stat(lock).st_mode & 0o7777, 0o600)
        if os.geteuid() == 0:
            os.chown(lock, 54321, -1)
            self.connect("py").close()
            place = os.lstat(os.path.join(self.run_dir, "py.sock"))
            self.assertEqual((place.st_uid, stat.S_IFMT(place.st_mode)), (54321, stat.S_IFREG))
        os.chmod(self.run_dir, 0o755)

        bad = os.path.join(self.run_dir, "bad")
        os.mkdir(bad)
        os.mkfifo(os.path.join(bad, "realm"))
        for name in ("py", None):
            with self.assertRaisesRegex(kesa.KesaError, "does not hold 16 hex digits; remove it"):
                kesa.connect(name, run_dir=bad)
        with self.assertRaisesRegex(kesa.KesaError, f"make {self.run_dir}/none, or name another directory"):
            kesa.connect("py", run_dir=f"{self.run_dir}/none/deep")

    def test_a_name_is_given_back_though_its_socket_cannot_be_removed(self) -> None:
        system = self.connect("py")
        path = os.path.join(self.run_dir, "py.sock")
        os.unlink(path)
        os.mkdir(path)
        system.close()
        os.rmdir(path)
        self.connect("py").close()

    def test_a_child_that_holds_the_socket_does_not_keep_its_parent_s_stream(self) -> None:
        provider = self.start_provider("py", "/py")
        client = self.start(
            sys.executable,
            "-c",
            "import kesa, os, sys\n"
            "values = kesa.connect().follow('/py', '/count')\n"
            "os.fork() or (print('child', flush=True), sys.stdin.read(), os._exit(0))\n"
            "for value in values: pass",
        )
        client.line(lambda line: line == "child")
        client.process.kill()
        provider.line(lambda line: line == "stream closed")

    def test_the_tool_sees_it_come_and_go(self) -> None:
        watch = self.start_kesactl("watch", "/py", "--json")
        system = self.connect("py")
        for end in (lambda: service.close(), system.close):
            service = system.provide("/py", lambda request: None)
            self.assertIn("ADDED", watch.line().upper())
            end()
            self.assertIn("REMOVED", watch.line().upper())
            service.wait(0)
        provider = self.start_provider("py", "/py")
        self.assertIn("ADDED", watch.line().upper())
        provider.kill()
        self.assertIn("REMOVED", watch.line().upper())

    def test_it_is_provided_again_when_the_registry_returns(self) -> None:
        self.start_provider("py", "/py")
        service = self.connect("inside").provide("/inside", lambda request: "here")
        before = service.record
        for _ in range(2):
            self.restart_registry()
            self.kesactl("wait", "/py")
            self.kesactl("wait", "/inside")
            self.assertEqual(self.kesactl("call", "/inside", "/").strip(), '"here"')
        self.assertNotEqual(service.record.id, before.id)
        service.close()
        self.kesactl("wait", "/inside", "--gone")
        self.assertEqual([line["path"] for line in self.kesactl_json("list", "/{py,inside}")], ["/py"])

    def test_a_path_is_one_process_s_as_long_as_it_lives(self) -> None:
        first = self.start_provider("first", "/py")
        system = self.connect("second")
        caller = self.start_kesactl("call", "/py", "/busy", "--timeout", "100")
        first.line(lambda line: line == "busy")
        refused = self.failure(lambda: system.provide("/py", lambda request: "second"))
        self.assertEqual(str(refused), f"409 service already registered: held by process first (pid {first.process.pid})")
        first.stop()
        stopped = self.failure(lambda: system.provide("/py", lambda request: "second"))
        self.assertEqual(str(stopped), str(refused))
        first.kill()
        system.provide("/py", lambda request: "second")
        self.assertEqual(system.call("/py"), "second")
        caller.kill()

    def test_what_cannot_be_provided(self) -> None:
        system = self.connect("py")
        with self.assertRaises(kesa.NameTaken) as taken:
            self.connect("py")
        self.assertEqual(taken.exception.pid, os.getpid())
        with self.assertRaisesRegex(kesa.KesaError, r'connect\("my-name"\)'):
            self.connect().provide("/py", lambda request: None)
        for path in ("", "py", "/", "/py/", "/a//b", "/a/../b", "/a\n", "/\udcff"):
            with self.assertRaisesRegex(ValueError, "cannot be a service's: it must"):
                system.provide(path, lambda request: None)
        for work in (lambda: self.connect("\udcff"), lambda: system.call("/\udcff")):
            with self.assertRaisesRegex(ValueError, r"\\udcff.*must be UTF-8"):
                work()
        for wrong in ({"handler": None}, {"handler": print, "versions": "1.0.0"}):
            with self.assertRaises(TypeError):
                system.provide("/py", **wrong)
        metainfo = {"provider": "another", "versions": "9"}
        self.assertEqual(system.provide("/py", lambda request: None, metainfo=metainfo).record.provider, "py")
        with self.assertRaisesRegex(ValueError, "already"):
            system.provide("/py", lambda request: None)
        self.assertEqual(self.failure(lambda: system.provide("/big", print, metainfo={"a": "x" * 40_000})).status, 400)
