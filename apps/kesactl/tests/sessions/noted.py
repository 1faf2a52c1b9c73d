"""noted.py NAME: a process that is not of the library, with a note. Its "/NAME" never answers, and it asks for "/media/player" and
"/registry". The note of "busy" says what handlers do on loops of its own, that of "hasty" what came of its registrations."""

import json
import os
import pathlib
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[4] / "clients/python"))
import kesa  # noqa: E402

now = time.time_ns() // 10**6
later = now + 3600_000  # so that it is never long ago
notes = {
    "busy": {
        "tooSlow": [
            {"path": "/registry", "loop": "old", "when": now - 3600_000, "times": 1},
            {"path": "/media/player", "loop": "wor\x1bker", "when": later, "times": 3},
        ],
        "ownHolds": [
            {"loop": "idle", "holder": "the handler of follow", "since": 0, "waiting": 0},
            {"loop": "disk", "holder": "the request 'retrieve /cover'", "since": 0, "waiting": 2, "services": ["/busy"]},
        ],
    },
    "hasty": {
        "refused": [{"path": "media/slash", "reason": "400: 'media/slash' is no path", "when": now}],
        "dropped": [{"path": "/dropped", "when": later}, {"path": "/registry", "when": later}],
    },
}
name = sys.argv[1]
note = {"process": name, "pid": os.getpid(), "runDirectory": os.environ["KESA_RUN_DIR"], **notes[name]}
os.write(os.memfd_create("kesa-process"), json.dumps(note).encode())

with kesa.connect(name, timeout=None) as system:
    changes = [system.watch("/media/*"), system.watch("/registry")]
    service = system.provide("/" + name, lambda request: threading.Event().wait())
    print("provided", flush=True)
    service.wait()
