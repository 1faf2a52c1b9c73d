"""Victims, an honest client, and what is measured of them."""
import ctypes, json, os, resource, shutil, signal, statistics, subprocess, tempfile, threading, time, traceback
from collections import Counter
from wire import *

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get('KESA_BUILD', ROOT + '/build/release')
WORK = tempfile.mkdtemp(prefix='kesa-attacks-')  # run directories, and what all have said
os.chmod(WORK, 0o755)
REGISTRYD, KESACTL, ACTOR = BUILD + '/apps/kesa-registryd/kesa-registryd', BUILD + '/apps/kesactl/kesactl', BUILD + '/tests/kesa_system_actor'
REGISTRY_USER, PROVIDER_USER, ATTACKER, HONEST = 990, 1000, 1001, 1002
DOCUMENT = {'use_registry': True, 'service_registry_locators': {'*': ['ipc://kesa-registryd/registry']}, 'comm': {'socket_mode': '0666'}}


PRCTL = ctypes.CDLL(None).prctl


def become(uid, address_space=0, descriptors=(1024, 20000)):
    resource.setrlimit(resource.RLIMIT_NOFILE, descriptors)
    if address_space:
        resource.setrlimit(resource.RLIMIT_AS, (address_space, address_space))
    os.setgroups([]); os.setgid(uid); os.setuid(uid)


forked = []


def fork(function, uid, descriptors=(20000, 20000)):
    pid = os.fork()
    if pid:
        forked.append(pid)
        return pid
    try:
        become(uid, 0, descriptors)
        PRCTL(1, signal.SIGKILL)  # it ends with the harness; after setuid, which would undo this
        function()
    except BaseException:
        traceback.print_exc()
    finally:
        os._exit(0)


def end(pid, patience=3.0):
    pid in forked and forked.remove(pid)
    until = time.time() + patience
    while time.time() < until:
        try:
            if os.waitpid(pid, os.WNOHANG)[0]:
                return
        except ChildProcessError:
            return
        time.sleep(0.02)
    try:
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
    except (ProcessLookupError, ChildProcessError):
        pass


class Stage:
    def __init__(self, name, document=None, address_space=0):
        self.run, self.address_space = f'{WORK}/run/{name}', address_space
        shutil.rmtree(self.run, ignore_errors=True)
        os.makedirs(self.run)
        os.chmod(self.run, 0o1777)
        os.makedirs(WORK + '/log', exist_ok=True)
        self.log, self.procs, self.told, self.note = f'{WORK}/log/{name}', {}, Counter(), {}
        self.document = f'{self.log}.json'
        json.dump({**DOCUMENT, **(document or {})}, open(self.document, 'w'))
        self.tellPipe = os.pipe()
        os.set_blocking(self.tellPipe[0], False)
        os.set_blocking(self.tellPipe[1], False)

    def env(self, **more_):
        return {'PATH': '/usr/bin:/bin', 'KESA_RUN_DIR': self.run, 'KESA_CONFIG': self.document, **more_}

    def start(self, name, argv, uid, stdin=subprocess.PIPE, document=None, **kw):
        env = self.env(**kw)
        if document:
            env['KESA_CONFIG'] = document
        p = subprocess.Popen(argv, env=env, stdin=stdin, stdout=open(f'{self.log}.{name}.out', 'wb'), stderr=open(f'{self.log}.{name}.err', 'wb'),
                             preexec_fn=lambda: become(uid, self.address_space), cwd='/')
        self.procs[name] = p
        return p

    def heard(self, name, what, patience=10.0):
        """The line of its stdout that begins so; '' when none came."""
        until = time.time() + patience
        while time.time() < until:
            for line in open(f'{self.log}.{name}.out', errors='replace'):
                if line.startswith(what):
                    return line.strip()
            if self.procs[name].poll() is not None:
                break
            time.sleep(0.02)
        return ''

    def command(self, name, line):
        self.procs[name].stdin.write(line.encode() + b'\n')
        self.procs[name].stdin.flush()

    def registry(self, uid=REGISTRY_USER):
        self.start('kesa-registryd', [REGISTRYD], uid, stdin=subprocess.DEVNULL)
        assert self.heard('kesa-registryd', 'kesa-registryd: ready'), open(f'{self.log}.kesa-registryd.err').read()

    def provider(self, name='svc', uid=PROVIDER_USER, rest='- public=true'):
        self.start(name, [ACTOR, name], uid)
        self.command(name, f'provide /{name} {rest}')
        return self.heard(name, 'provided') or self.heard(name, 'refused', 0.1)

    def tell(self, what):
        try:
            os.write(self.tellPipe[1], what[:500].encode(errors='replace') + b'\0')
        except BlockingIOError:
            pass

    def gather(self):
        """What the attackers were told; to be called often enough for the pipe."""
        try:
            while data := os.read(self.tellPipe[0], 1 << 16):
                for line in (getattr(self, 'rest', b'') + data).split(b'\0')[:-1]:
                    what, times, count = line.decode(errors='replace').rpartition(' x')
                    self.told[what if count.isdigit() else line.decode(errors='replace')] += int(count) if count.isdigit() else 1
                self.rest = (getattr(self, 'rest', b'') + data).rpartition(b'\0')[2]
        except BlockingIOError:
            pass

    def kesactl(self, *words, uid=HONEST, patience=20):
        began = time.time()
        try:
            r = subprocess.run([KESACTL, *words], env=self.env(), capture_output=True, preexec_fn=lambda: become(uid), timeout=patience, cwd='/')
            return r.returncode, (time.time() - began) * 1000, r.stdout, r.stderr
        except subprocess.TimeoutExpired as e:
            return 'hangs', patience * 1000, e.stdout or b'', e.stderr or b''

    def holder(self, path='/svc'):
        p = Peer(self.run, 'kesa-registryd', '/registry', name='look')
        return json.loads(p.ask(path, 'explain')[0][1]).get('holder', {})

    def close(self):
        for p in self.procs.values():
            if p.poll() is None:
                p.kill()
                p.wait()
        for pid in list(forked):
            end(pid, 0)


def size(file):
    try:
        return os.stat(file).st_size
    except OSError:
        return 0


class Sampler(threading.Thread):
    """Memory, time, descriptors and log of the victim, each 100 ms."""
    TICK = os.sysconf('SC_CLK_TCK')

    def __init__(self, stage, name):
        super().__init__(daemon=True)
        self.stage, self.pid, self.err, self.samples, self.done = stage, stage.procs[name].pid, f'{stage.log}.{name}.err', [], False

    def sample(self):
        with open(f'/proc/{self.pid}/status') as f:
            anon = next((int(line.split()[1]) for line in f if line.startswith('RssAnon')), 0) / 1024
        fields = open(f'/proc/{self.pid}/stat').read().rpartition(')')[2].split()
        self.samples.append((time.time(), anon, (int(fields[11]) + int(fields[12])) / self.TICK, len(os.listdir(f'/proc/{self.pid}/fd')), size(self.err)))

    def run(self):
        while not self.done:
            try:
                self.sample()
            except (OSError, ValueError):
                pass
            self.stage.gather()
            time.sleep(0.1)

    def between(self, begin, end_):
        return [s for s in self.samples if begin <= s[0] <= end_]


def honest(file, run, called):
    """Each 20 ms a query, every second time a call instead where somebody is `called`; to `file`: 'at kind ms', ms -1: failed."""
    out = file
    peers, turn = {}, 0
    end_ = [0]

    def once(kind, process, path, resource, semantic, body, until):
        if kind not in peers:
            peers[kind] = Peer(run, process, path, name='honest')
            peers[kind].flush()
            while not any(k == ATTACHED for k, *_ in peers[kind].frames(5)):
                pass
        peer, stream = peers[kind], peers[kind].next
        got = peer.ask(resource, 'retrieve', semantic, body, 5, until)
        if got[-1][0] >= 300:
            raise Closed(reason(got))
        if semantic == 'stream':
            peer.out += frame(CANCEL, stream)
            peer.flush()
            if stream == 60000:
                del peers[kind]

    while True:
        began = time.time()
        try:
            if called and turn % 2:
                kind = 'call'
                once(kind, called, '/' + called, '/echo', 'single', b'"x"', None)
            else:
                kind = 'query'
                once(kind, 'kesa-registryd', '/registry', '/', 'stream', {'pattern': '/honest/none'}, lambda got: got[-1][1] == b'[]')
            out.write(f'{began} {kind} {(time.time() - began) * 1000:.3f}\n')
        except Exception as e:
            peers.pop(kind, None)
            out.write(f'{began} {kind} -1 {e}\n')
        turn += 1
        time.sleep(max(0, began + 0.02 - time.time()))


def spread(file, begin, end_):
    """'query 0.3/1.2' of the time, and what failed."""
    ms, failed = {}, Counter()
    for line in open(file):
        at, kind, took, *why = line.split(' ', 3)
        if begin <= float(at) <= end_:
            if float(took) < 0:
                failed[kind + ': ' + ''.join(why).strip()] += 1
            else:
                ms.setdefault(kind, []).append(float(took))
    return ', '.join(f'{kind} {statistics.median(v):.3g}/{max(v):.3g}' for kind, v in sorted(ms.items())) or 'none', failed
