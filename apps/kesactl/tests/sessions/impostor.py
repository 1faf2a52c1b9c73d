"""Has the registry's name in the run directory and provides /registry, but answers to each request with something else: WAY
says with what."""
import itertools, os, socket, sys, threading

OK = 200
EXPLANATION = b'{"path":"/a","registered":false,"registryStarted":%s,"history":%s}'
WAYS = {
    "text": (OK, 2, b"hello"),
    "broken": (OK, 1, b'[{"updateType":'),
    "empty": (OK, 1, b""),
    "types": (OK, 1, b'{"path":"/a","registered":"no","registryStarted":"soon","history":{}}'),
    "epoch": (OK, 1, EXPLANATION % (b"0", b"[]")),
    "event": (OK, 1, EXPLANATION % (b"1790000000000", b'[{"what":7}]')),
    "element": (OK, 1, b'[{"updateType":"ADDED","element":{"path":7}}]'),
    "failing": (500, 2, b"no disk"),
    "busy": (503, 2, b"not now"),
    "long": (404, 2, b"no\x1b[31m" * 8000),
    "over": None,  # ends without a value
    "mute": None,  # never answers
    "deaf": None,  # never answers which paths it provides, but each ping
    "endless": None,  # lists one service after the other
}
way = sys.argv[1]
listed = itertools.count()


def frame(kind, head=b"", body=b"", stream=0, target=0):
    length = (len(head) + len(body)).to_bytes(4, "little")
    return length + bytes([kind, 0]) + len(head).to_bytes(2, "little") + stream.to_bytes(4, "little") + target.to_bytes(4, "little") + head + body


def more(stream):
    updates = ",".join(
        '{"updateType":"ADDED","element":{"path":"/a/%d","type":"pex","versions":[],"locators":["ipc://a/a"]}}' % next(listed)
        for _ in range(500)
    )
    return frame(6, b"\xbf\x02\x01\xff", b"[%s]" % updates.encode(), stream, OK)


def answer(stream):
    if way in ("mute", "deaf"):
        return b""
    if way == "endless":
        return more(stream)
    if way == "over":
        return frame(8, stream=stream)
    status, mime, body = WAYS[way]
    return frame(6 if status == OK else 7, b"\xbf\x02%c\xff" % mime, body, stream, status)


def serve(peer):
    peer.sendall(frame(1, b"\xbf\x10\x02\x11\x02\x12\x6ekesa-registryd\x14\x50" + bytes(range(1, 17)) + b"\xff"))
    said = peer.makefile("rb")
    while head := said.read(16):
        content = said.read(int.from_bytes(head[:4], "little"))
        stream, target = int.from_bytes(head[8:12], "little"), int.from_bytes(head[12:], "little")
        if head[4] == 2 and b"/registry" in content and way != "deaf":
            peer.sendall(frame(3, target=target))
        elif head[4] == 5:
            peer.sendall(answer(stream))
        elif head[4] == 13 and way == "endless":
            peer.sendall(more(stream))
        elif head[4] == 9 and way in ("mute", "endless"):
            peer.sendall(frame(8, stream=stream))
        elif head[4] == 10:
            peer.sendall(frame(11))


server = socket.socket(socket.AF_UNIX)
server.bind(os.path.join(os.environ["KESA_RUN_DIR"], "kesa-registryd.sock"))
server.listen()
print("started", flush=True)
threading.excepthook = lambda _: None  # of peers that have gone
while True:
    threading.Thread(target=serve, args=(server.accept()[0],), daemon=True).start()
