"""member.py: a process that is not of the library, "pý", with services whose names and descriptions are hard to align.
The times that it tells are none: as nanoseconds they overflow to those that are."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[4] / "clients/python"))
import kesa  # noqa: E402

now = kesa.about.milliseconds
kesa.about.milliseconds = lambda: now() + 2**58

SERVICES = {
    "/家/温度計": {"emoji": "👩‍🚀🛰️", "turned": "a\u202eb\u200fc"},
    "/家/cafe\u0301": {"provider": "厨房", "emoji": "-"},
    "/家/plain": {"emoji": "-"},
    "/家/冷蔵庫/of/the/kitchen/door": {"emoji": "-"},
}

with kesa.connect("pý", timeout=None) as system:
    services = [system.provide(path, lambda request: None, metainfo=metainfo) for path, metainfo in SERVICES.items()]
    print("provided", flush=True)
    services[0].wait()
