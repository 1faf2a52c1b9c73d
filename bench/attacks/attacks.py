"""What attackers do: each function runs in a process of its own, as the attacker, until `a.until`."""
import itertools
from stage import *


class Attacker:
    def __init__(self, stage, until, process, path, number_):
        self.run, self.until, self.process, self.path, self.k, self.tell = stage.run, until, process, path, number_, stage.tell

    def peer(self, path=None, **said):
        return Peer(self.run, self.process, path or self.path, **said)

    def left(self):
        return time.time() < self.until


def swarm(a, count, refill, make=None, reads=True, again=True, seen=None):
    """`count` connections at once; `refill(peer)`: what it sends next, b'' for nothing now. Tells why each ends."""
    poll, peers, sick = select.epoll(), {}, 0

    def add():
        try:
            p = make() if make else a.peer()
        except OSError as e:
            a.tell(f'connect: {e.strerror}')
            time.sleep(0.005)
            return
        peers[p.fileno()] = p
        poll.register(p.s, (select.EPOLLIN if reads else 0) | select.EPOLLOUT)

    def drop(fd, why):
        a.tell(why)
        poll.unregister(fd)
        peers.pop(fd).s.close()

    while a.left():
        if again or not sick:
            for _ in range(min(20, count - len(peers))):
                add()
            sick = sick or len(peers) >= count
        for fd, event in poll.poll(0.05):
            p = peers[fd]
            try:
                if event & select.EPOLLIN:
                    for got in p.frames():
                        if got[0] in (ERROR, COMPLETED):
                            p.free.append(got[1])
                            p.answers += 1
                        if seen:
                            seen(p, got)
                if event & (select.EPOLLHUP | select.EPOLLERR):
                    drop(fd, p.lastWords())
                    continue
                if not p.out:
                    p.out = refill(p)
                idle = p.flush() and not refill_pending(p, refill)
                poll.modify(p.s, (select.EPOLLIN if reads else 0) | (0 if idle else select.EPOLLOUT))
            except (BrokenPipeError, ConnectionResetError):
                drop(fd, p.lastWords())
            except Closed as e:
                drop(fd, str(e))
    a.tell(f'answers x{sum(p.answers for p in peers.values())}')
    a.tell(f'{len(peers)} connections left at the end')


def refill_pending(p, refill):
    p.out = refill(p)
    return bool(p.out)


def stream(p):
    """A free number for a request."""
    if p.free:
        return p.free.pop()
    p.next += 1
    return p.next - 1


# ---- the same endless things to a registry or a provider ----

def fast(a, count=100, resource=None):
    """As fast as the window lets."""
    resource = resource or ('/' if a.path == '/registry' else '/echo')
    made = lambda n: request(n, a.path if a.path == '/registry' else resource, 'explain' if a.path == '/registry' else 'retrieve', 'single')

    def refill(p):
        o = []
        while p.used < WINDOW and len(o) < 200:
            o.append(made(stream(p)))
            p.used += 256 + len(o[-1]) - 16
        return b''.join(o)
    swarm(a, count, refill)


LARGEST = (16 << 20) - 4096


def unfinished(a, each=64, count=2, size_=LARGEST):
    """`each` messages of 16 MiB on each connection, all but the last fragment of each."""
    def refill(p):
        if not hasattr(p, 'sent'):
            p.sent = [0] * each
        if p.sent[0] == 0:
            p.sent = [FRAME] * each
            return b''.join(large(n + 1, '/echo' if a.path != '/registry' else '/', size_) for n in range(each))
        if p.sent[0] + FRAME >= size_:
            return b''
        p.sent = [s + FRAME for s in p.sent]
        return b''.join(more(n + 1) for n in range(each))
    swarm(a, count, refill)


def attaches(a, count=4, length=4000):
    def refill(p):
        p.next += 100
        return b''.join(attach(n, f'/{n}/' + 'a' * length) for n in range(p.next, p.next + 100)) if p.next < 66000 else b''
    swarm(a, count, refill)


def beyond(a, count=2, body=b''):
    resource, command = (a.path, 'explain') if a.path == '/registry' else ('/echo', 'retrieve')
    made = b''.join(request(n, resource, command, 'single', body) for n in range(1, 1001))
    swarm(a, count, lambda p: made, reads=False)


def connections(a, count=600):
    """Held, with nothing asked."""
    swarm(a, count, lambda p: b'')


def held(a, count=100):
    """Held, each with a request that is never answered: so none can be ended as one that asks for nothing."""
    def refill(p):
        p.next += 1
        resource, semantic = ('/', 'stream') if a.path == '/registry' else ('/hang', 'single')
        return request(1, resource, 'retrieve', semantic) if p.next == 2 else b''
    swarm(a, count, refill)


def halves(a, count=1000, kib=60):
    """One request of 60 KB each, of which the last byte never comes."""
    def refill(p):
        p.next += 1
        return request(1, '/echo', 'update', 'single', b'"' + b'a' * (kib << 10) + b'"')[:-1] if p.next == 2 else b''
    swarm(a, count, refill)


def numbers(a, count=100):
    """One request each, of the highest number: what it is kept in has a place for each lower one."""
    def refill(p):
        p.next += 1
        return request(65536, '/echo', 'retrieve', 'single') if p.next == 2 else b''
    swarm(a, count, refill)


def cancels(a, count=10):
    resource, command = (a.path, 'explain') if a.path == '/registry' else ('/hang', 'retrieve')

    def refill(p):
        o = []
        while p.used < WINDOW and len(o) < 400:
            n = stream(p)
            o += [request(n, resource, command, 'single'), frame(CANCEL, n)]
            p.used += 256 + len(o[-2]) - 16
            p.sent = getattr(p, 'sent', 0) + 1
        return b''.join(o)
    swarm(a, count, refill)


def heads(a, count=20):
    """Heads of 60 KB of many small headers."""
    extra = b''.join(text('k%05d' % n) + b'\x01' for n in range(7000))[:60000 // 8 * 8]

    def refill(p):
        if p.used >= WINDOW:
            return b''
        r = request(stream(p), '/echo' if a.path != '/registry' else '/x', 'retrieve', 'single', extra=extra)
        p.used += 256 + len(r) - 16
        return r
    swarm(a, count, refill)


def slow(a, count=4):
    """Follows a stream with a window without end, and reads nothing."""
    def refill(p):
        p.next += 1
        return b''.join(request(n, '/feed', 'retrieve', 'stream') for n in range(1, 50)) if p.next == 2 else b''
    swarm(a, count, refill, make=lambda: a.peer(window=(1 << 32) - 1), reads=False)


# ---- the registry ----

def watchers(a, count=8):
    def refill(p):
        p.next += 1
        return request(1, '/', 'retrieve', 'stream', {'pattern': '**'}) if p.next == 2 else b''
    swarm(a, count, refill, make=lambda: a.peer(window=(1 << 32) - 1), reads=False)


def churn(a, filler=30000):
    """No attacker: registers a record again and again."""
    p, n = a.peer(name='churn'), 0
    while a.left():
        r = record('/churn', meta={'filler': 'f' * filler, 'public': True, 'n': n})
        n += 1
        p.ask('/churn', 'insert', 'stream', r, until=lambda got: True)
        p.out += frame(CANCEL, p.next - 1)
        p.flush()
        if n % 100 == 0:
            a.tell('churned x100')


SHAPES = {'wide': lambda k: 'x' + '*a' * k, 'long': lambda k: '/'.join(['a*b*c*d*e'] * k), 'deep': lambda k: '/' + '/'.join(['**', 'a*'] * k),
          'sets': lambda k: '/'.join(['{a*,*b,[a-z]*}*'] * k)}


def globs(a, how='wide', queries=1000, most=120):
    """Queries of many wildcards that all differ: of as many as are taken, fewer after each refusal."""
    k, taken, told_ = [most], [0], [0]

    def refill(p):
        o = []
        while p.used < WINDOW and p.next <= queries and p.next - p.answers - taken[0] < 20:
            o.append(request(p.next, '/', 'retrieve', 'stream', {'pattern': f'/{p.next}' + SHAPES[how](k[0])}))
            p.used += 256 + len(o[-1]) - 16
            p.next += 1
        return b''.join(o)

    def seen(p, got):
        if got[0] == ERROR:
            k[0] = max(1, k[0] - 1)
            if told_[0] < 2:
                told_[0] += 1
                a.tell(f'{how}: {got[2]} ...{got[4].decode(errors="replace")[-120:]}')
        if got[0] == NEXT and got[4] == b'[]':
            taken[0] += 1
    swarm(a, 1, refill, seen=seen)
    a.tell(f'{how}: taken x{taken[0]}')


def longPath(a):
    p = a.peer()
    for command in ('retrieve', 'insert', 'explain'):
        path = '/' + 'a/' * 2000 + 'b'
        a.tell('4 KB path: ' + reason(p.ask(path, command, 'stream', record(path) if command == 'insert' else b'', until=lambda got: True)))


def bodies(a):
    """JSON of 16 MiB, of what the registry takes, deep, and wide."""
    deep, wide = b'[' * 127 + b']' * 127, b'{"metadata":{' + b','.join(b'"k%d":"v"' % n for n in range(4000)) + b'}}'
    kinds = [wide[:60000 // 1], deep, b'{"pattern":"' + b'a' * 60000 + b'"}', b'[' + b'[],' * 20000 + b'[]]', b'[' * 60000, b'"\\u0000' * 9000]

    def refill(p):
        p.next += 1
        if a.k % 2 == 0:
            return large(1, '/', 16 << 20) + b''.join(more(1) for _ in range(255)) + more(1, size=200, flags=0)
        if p.used >= WINDOW:
            return b''
        r = request(stream(p), '/', 'retrieve', 'stream', kinds[p.next % len(kinds)])
        p.used += 256 + len(r) - 16
        return r
    swarm(a, 4, refill)


def claims(a, path='/svc', steal=True):
    """The path of a living process, with its instance."""
    instance = None
    if steal:
        p = Peer(a.run, 'svc')
        p.flush()
        while 20 not in p.hello:
            list(p.frames(1))
        instance = p.hello[20]
    where, own = realm(a.run), f'raw{a.k}'
    place = listen(a.run, own)  # a record without a way to its process is refused for that alone
    for name in itertools.cycle((own, 'svc')):
        if not a.left():
            break
        try:
            p = Peer(a.run, 'kesa-registryd', '/registry', name=name, realm=where, instance=instance,
                     listeners=[f'ipc://{own}+{where}'])
            a.tell(f'as "{name}": ' + reason(p.ask(path, 'insert', 'stream', record(path, own, where), until=lambda got: True)))
        except (Closed, TimeoutError, OSError) as e:
            a.tell(f'as "{name}": {type(e).__name__} {e}')
        time.sleep(0.005)
    place.close()


def flood(a):
    """What gets a line in a log, as often as possible."""
    kind = a.k % 3
    own, where = f'f{os.getpid()}', realm(a.run)
    place = listen(a.run, own)  # a record without a way to its process is refused for that alone
    broken = hello('x' * 65) if kind == 0 else hello(f'n{a.k}') + attach(1, '/registry') + frame(15)
    sent = 0
    while a.left():
        try:
            if kind < 2:
                s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                s.connect(f'{a.run}/{a.process}.sock')
                s.sendall(broken)
                s.settimeout(1)
                while s.recv(4096):
                    pass
                s.close()
            else:
                p = a.peer(name=own)
                while a.left():
                    p.ask('/svc', 'insert', 'stream', record('/svc', own, where), until=lambda got: True)
                    sent += 1
        except (OSError, Closed, TimeoutError) as e:
            pass
        sent += 1
    place.close()
    a.tell(f'{("hellos", "cut-offs", "claims")[kind]} x{sent}')


# ---- providers that are evil ----

def evil(a, kind='partial', names=1):
    """Listens, registers, and answers whoever comes."""
    where = realm(a.run)
    sockets, registered = {}, []
    for n in range(names):
        name = f'evil{a.k}-{n}' if names > 1 else 'evil'
        s = listen(a.run, name)
        sockets[s.fileno()] = (s, name)
        p = Peer(a.run, 'kesa-registryd', '/registry', name=name, realm=where, listeners=[f'ipc://{name}+{where}'])
        registered.append(p)
        path = f'/fake/{name}' if names > 1 else '/evil'
        p.out += insert(1, record(path, name, where, {'public': True}))
        p.flush()
    poll, clients, flood_ = select.epoll(), {}, {}
    for fd in list(sockets) + [p.fileno() for p in registered]:
        poll.register(fd, select.EPOLLIN)
    mine = {p.fileno(): p for p in registered}

    def serve(p, got):
        kind_, number_, target, _, _ = got
        if kind_ == ATTACH:
            p.out += frame(ATTACHED, 0, target)
            if kind == 'turns':
                flood_[p.fileno()] = (frame(DETACHED, 0, target) + frame(ATTACHED, 0, target)) * 2000
        if kind_ == REQUEST:
            if kind == 'partial':
                p.many = getattr(p, 'many', []) + [number_]
                p.out += large(number_, '', LARGEST, NEXT, 200)
                flood_[p.fileno()] = b''.join(more(n, NEXT, 200) for n in p.many)
            elif kind == 'values':
                flood_[p.fileno()] = frame(NEXT, number_, 200, b'', b'x' * 20000) * 20
            elif kind == 'empty':
                flood_[p.fileno()] = frame(NEXT, number_, 200) * 5000

    while a.left():
        for fd, event in poll.poll(0.05):
            p = clients.get(fd) or mine.get(fd)
            try:
                if fd in sockets:
                    s, name = sockets[fd]
                    c, _ = s.accept()
                    p = Peer(s=c, name=name, realm=where, listeners=[f'ipc://{name}+{where}'])
                    clients[c.fileno()] = p
                    poll.register(c, select.EPOLLIN | select.EPOLLOUT)
                    continue
                for got in p.frames() if event & select.EPOLLIN else ():
                    if fd in clients:
                        serve(p, got)
                    elif got[0] == ERROR:
                        a.tell('registry: %d %s' % (got[2], got[4].decode()))
                if fd in clients:
                    if not p.out:
                        p.out = flood_.get(fd, b'')
                    p.flush()
                    poll.modify(fd, select.EPOLLIN | (select.EPOLLOUT if p.out or fd in flood_ else 0))
            except (Closed, OSError) as e:
                a.tell(('client' if fd in clients else 'registry') + f' left: {e}')
                poll.unregister(fd)
                flood_.pop(fd, None)
                (clients.pop(fd, None) or mine.pop(fd)).s.close()
    a.tell(f'{len(mine)} records, {len(clients)} clients at the end')
