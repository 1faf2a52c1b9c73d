"""Stands in the run directory as NAME and provides nothing: "future" speaks a later version of the protocol, "early" the
present one, "web" another protocol, any other says nothing."""
import os, socket, sys, threading

versions = {"future": (3, 4), "early": (2, 2)}.get(sys.argv[1])


def frame(kind, head=b"", more=bytes(8)):
    size = len(head).to_bytes(2, "little")
    return size + bytes(2) + bytes([kind, 0]) + size + more + head


def serve(peer):
    if versions:
        peer.sendall(frame(1, b"\xbf\x10%c\x11%c\x14\x50" % versions + bytes(range(1, 17)) + b"\xff"))
    elif sys.argv[1] == "web":
        peer.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n")
    said = peer.makefile("rb")
    while versions and (head := said.read(16)):
        said.read(int.from_bytes(head[:4], "little"))
        if head[4] == 10:  # a ping
            peer.sendall(frame(11))
    said.read()


server = socket.socket(socket.AF_UNIX)
server.bind(os.path.join(os.environ["KESA_RUN_DIR"], sys.argv[1] + ".sock"))
server.listen()
print("started", flush=True)
threading.excepthook = lambda _: None  # of peers that have gone
while True:
    threading.Thread(target=serve, args=(server.accept()[0],), daemon=True).start()
