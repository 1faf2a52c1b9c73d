"""Stands in the run directory as NAME and provides nothing: "future" speaks a later version of the protocol, "early" the
present one, "web" another protocol, any other says nothing."""
import os, socket, sys

versions = {"future": (2, 3), "early": (1, 1)}.get(sys.argv[1])
server = socket.socket(socket.AF_UNIX)
server.bind(os.path.join(os.environ["KESA_RUN_DIR"], sys.argv[1] + ".sock"))
server.listen()
print("started", flush=True)
kept = []
while True:
    kept.append(server.accept()[0])
    words = b"HTTP/1.1 400 Bad Request\r\n\r\n" if sys.argv[1] == "web" else b""
    if versions:
        head = b"\xbf\x10%c\x11%c\x14\x50" % versions + bytes(range(1, 17)) + b"\xff"
        size = len(head).to_bytes(2, "little")
        words = size + bytes(2) + b"\x01\x00" + size + bytes(8) + head
    try:
        kept[-1].sendall(words)
    except OSError:
        pass
