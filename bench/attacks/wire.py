"""A raw peer, written from docs/protocol.md: it says what it is told to say, whether that is allowed or not."""
import fcntl, json, os, select, socket, struct, time

HELLO, ATTACH, ATTACHED, DETACHED, REQUEST, NEXT, ERROR, COMPLETED, CANCEL, PING, PONG, GOODBYE, CREDIT, REQUEST_CREDIT = range(1, 15)
WORDS = {'retrieve': 0, 'update': 1, 'delete': 2, 'insert': 3}
SEMANTICS = {'stream': 0, 'single': 1, 'empty': 2}
WINDOW = 262144
FRAME = 65536


def number(major, n):
    for size, mark in ((1, 24), (2, 25), (4, 26), (8, 27)):
        if n < 24:
            return bytes([major << 5 | n])
        if n < 1 << 8 * size:
            return bytes([major << 5 | mark]) + n.to_bytes(size, 'big')


def text(s):
    b = s if isinstance(s, bytes) else s.encode()
    return number(3, len(b)) + b


def cbor(b, at=0):
    first, at = b[at], at + 1
    major, low = first >> 5, first & 31
    n = low
    if 24 <= low <= 27:
        size = 1 << low - 24
        n, at = int.from_bytes(b[at:at + size], 'big'), at + size
    if major in (2, 3):
        return (b[at:at + n] if major == 2 else b[at:at + n].decode(errors='replace')), at + n
    if major in (4, 5):
        items, count = [], None if low == 31 else n * (major - 3)
        while (b[at] != 255) if count is None else len(items) < count:
            item, at = cbor(b, at)
            items.append(item)
        at += count is None
        return (items if major == 4 else dict(zip(items[::2], items[1::2]))), at
    if major == 6:
        return cbor(b, at)
    return (-1 - n if major == 1 else {20: False, 21: True}.get(n) if major == 7 else n), at


def frame(kind, stream=0, target=0, head=b'', body=b'', flags=0):
    return struct.pack('<IBBHII', len(head) + len(body), kind, flags, len(head), stream, target) + head + body


def hello(name='raw', instance=None, window=None, largest=None, realm='', listeners=()):
    h = b'\xbf\x10\x02\x11\x02\x12' + text(name)
    if realm:
        h += b'\x13' + text(realm) + b'\x15\x9f' + b''.join(map(text, listeners)) + b'\xff'
    h += b'\x14\x50' + (instance or os.urandom(16))
    h += b'\x16' + number(0, largest) if largest else b''
    return frame(HELLO, head=h + (b'\x18\x18' + number(0, window) if window else b'') + b'\xff')


def attach(target, path):
    return frame(ATTACH, 0, target, b'\xbf\x01' + text(path) + b'\xff')


def request(stream, resource, command='retrieve', semantic=None, body=b'', target=1, size=None, extra=b''):
    """`body` that is no bytes is JSON; `size`: of the whole body, where fragments follow."""
    if not isinstance(body, bytes):
        body = json.dumps(body).encode()
    h = b'\xbf\x00' + (number(0, WORDS[command]) if command in WORDS else text(command)) + b'\x01' + text(resource)
    h += b'\x02\x01' if body else b''
    h += b'\x05' + number(0, SEMANTICS[semantic]) if semantic else b''
    h += b'\x03' + number(0, size) if size else b''
    return frame(REQUEST, stream, target, h + extra + b'\xff', body, 1 if size else 0)


def large(stream, resource, size, kind=REQUEST, target=1, command='retrieve'):
    """The first fragment of a message of `size` bytes of body."""
    h = b'\xbf\x00' + number(0, WORDS[command]) + b'\x01' + text(resource) if kind == REQUEST else b'\xbf'
    h += b'\x02\x03\x03' + number(0, size) + b'\xff'
    return frame(kind, stream, target, h, b'a' * (FRAME - len(h)), 1)


def more(stream, kind=REQUEST, target=1, size=FRAME, flags=1):
    return frame(kind, stream, target, b'', b'a' * size, flags)


class Closed(Exception):
    pass


class Peer:
    def __init__(self, run=None, process=None, path=None, s=None, silent=False, **said):
        self.s = s
        if not s:
            self.s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            self.s.settimeout(5)
            self.s.connect(f'{run}/{process}.sock')
        self.s.setblocking(False)
        self.buf, self.out, self.goodbye, self.hello = bytearray(), b'', '', {}
        self.silent = silent
        self.used, self.next, self.free, self.answers = 0, 1, [], 0
        if not silent:
            self.out = hello(**said) + (attach(1, path) if path else b'')

    def fileno(self):
        return self.s.fileno()

    def flush(self):
        """As much as goes at once; whether all went."""
        try:
            while self.out:
                self.out = self.out[self.s.send(self.out[:1 << 20], socket.MSG_DONTWAIT):]
        except BlockingIOError:
            pass
        return not self.out

    def frames(self, wait=0.0):
        """Frames that have come: (kind, stream, target, head, body)."""
        if wait and not select.select([self.s], [], [], wait)[0]:
            return
        try:
            d = self.s.recv(1 << 18, socket.MSG_DONTWAIT)
        except BlockingIOError:
            return
        except OSError as e:
            raise Closed(self.goodbye or e.strerror)
        if not d:
            raise Closed(self.goodbye or 'closed without a word')
        self.buf += d
        b, at, got = self.buf, 0, []
        while len(b) - at >= 16:
            n, kind, _, h, stream, target = struct.unpack_from('<IBBHII', b, at)
            if len(b) - at < 16 + n:
                break
            head, body = bytes(b[at + 16:at + 16 + h]), bytes(b[at + 16 + h:at + 16 + n])
            at += 16 + n
            if kind == GOODBYE:
                self.goodbye = cbor(head)[0].get(23, '')
            elif kind == HELLO:
                self.hello = cbor(head)[0]
            elif kind == PING and not self.silent:
                self.out += frame(PONG)
                self.flush()
            elif kind == REQUEST_CREDIT:
                self.used -= target
            got.append((kind, stream, target, head, body))
        del b[:at]
        yield from got

    def lastWords(self):
        try:
            for _ in range(100):
                list(self.frames(0.05))
        except Closed as e:
            return str(e)
        return self.goodbye or 'closed'

    def ask(self, resource, command='retrieve', semantic='single', body=b'', wait=5.0, until=None):
        """Answers up to the end, or `until` says so: [(status, body, head)]; status 0: completed."""
        stream = self.next
        self.next += 1
        self.out += request(stream, resource, command, semantic, body)
        got, end = [], time.time() + wait
        while time.time() < end:
            self.flush()
            for kind, number_, status, head, data in self.frames(min(0.5, end - time.time())):
                if number_ == stream and kind in (NEXT, ERROR, COMPLETED):
                    got.append((status, data, cbor(head)[0] if head else {}))
                    if kind != NEXT or (until and until(got)):
                        return got
        raise TimeoutError(f'{command} {resource}: nothing for {wait} s')


def reason(answer):
    status, body, head = answer[-1]
    return f"{status} {body.decode(errors='replace')[:120]}" + (f" ({head['$reason'][:160]})" if '$reason' in head else '')


def realm(run):
    return open(f'{run}/realm').read().strip()


def listen(run, name):
    """Claims a name as a process does. The socket; its lock is kept open with it."""
    lock = os.open(f'{run}/{name}.lock', os.O_RDWR | os.O_CREAT, 0o600)
    fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    os.chdir(run)  # an address has 108 bytes
    draft = f'.d{os.getpid()}.tmp'
    s.bind(draft)
    os.chmod(draft, 0o666)
    s.listen(4096)
    os.rename(draft, f'{name}.sock')
    return s


def record(path, name='', where='', meta=None, **more_):
    return {'path': path, 'type': 'pex', 'versions': ['1.0.0'],
            'locators': [f'ipc://{name}+{where}{path}'] if name else [], 'metainfo': meta or {}, **more_}


def insert(stream, r):
    return request(stream, r['path'], 'insert', 'stream', r)
