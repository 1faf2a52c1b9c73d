#!/usr/bin/env python3
"""The attack table: bench/attacks/table.py [--quick] [rows...], as root, on a machine without other Kesa processes. A row for each
attack: raw peers of other users, written from docs/protocol.md, on built programs, while an honest one goes on asking.
KESA_BUILD: another build tree than build/release; other users must be able to read it."""
import argparse, re, unicodedata
from dataclasses import dataclass, field
from attacks import *

QUIET, ATTACK, AFTER = 2.0, 8.0, 6.0


@dataclass
class Row:
    number: str
    what: str
    attack: object = None            # f(Attacker, **args), in a process of its own
    args: dict = field(default_factory=dict)
    uids: tuple = (ATTACKER,)        # one attacking process for each
    victim: str = 'kesa-registryd'   # or 'svc', a provider, which is then called as well
    setup: object = None             # f(stage), before it is quiet
    during: object = None            # f(stage, until), beside the attack, by the harness
    check: object = None             # f(stage), at the end: what it says goes into the last column
    document: dict = None
    address_space: int = 0
    provider: bool = False           # there is one, though it is no victim
    alone: object = None             # f(stage): the whole row; what it says goes into the last column


def told(stage):
    total = Counter()
    for what, count in stage.told.items():
        total[re.sub(r'\d{4,}', 'N', what)] += count
    return '; '.join(f'{count}x {what}' for what, count in total.most_common(4))


def attack(stage, row, until):
    path = '/registry' if row.victim == 'kesa-registryd' else '/' + row.victim
    return [fork(lambda: row.attack(Attacker(stage, until, row.victim, path, k), **row.args), uid) for k, uid in enumerate(row.uids)]


def lists(stage, until, results):
    for n in range(5):
        time.sleep(max(0, (until - time.time()) / (6 - n)))
        results.append(stage.kesactl('list')[:2])


def ended(process):
    """How long it took from SIGTERM, or the actor's word to quit, to its exit, in ms."""
    if process.poll() is not None:
        return f'DEAD before ({process.returncode})'
    began = time.time()
    try:
        if process.stdin:
            process.stdin.write(b'quit\n')
            process.stdin.flush()
        else:
            process.terminate()
        code = process.wait(15)
        return f'{(time.time() - began) * 1000:.0f}' + (f' (exit {code})' if code else '')
    except subprocess.TimeoutExpired:
        return 'NOT in 15 s'


def measure(stage, row):
    stage.registry()
    if row.victim != 'kesa-registryd' or row.provider:
        stage.provider()
    if row.setup:
        row.setup(stage)
    file = f'{stage.log}.honest'
    words = open(file, 'w', buffering=1)
    caller = fork(lambda: honest(words, stage.run, 'svc' if 'svc' in stage.procs else None), HONEST)
    sampler = Sampler(stage, row.victim)
    sampler.start()
    time.sleep(0.5)
    calm = time.time()
    time.sleep(QUIET)
    begin, results = time.time(), []
    listing = threading.Thread(target=lists, args=(stage, begin + ATTACK, results))
    listing.start()
    attackers = attack(stage, row, begin + ATTACK) if row.attack else []
    if row.during:
        row.during(stage, begin + ATTACK)
    time.sleep(max(0, begin + ATTACK - time.time()))
    over = time.time()
    for pid in attackers:
        end(pid)
    listing.join()
    time.sleep(AFTER)
    done = time.time()
    stage.gather()
    checked = row.check(stage) if row.check else ''
    end(caller, 0)
    sampler.done = True
    return show(stage, row, sampler, file, (calm, begin, over, done), results, checked)


def show(stage, row, sampler, file, times, results, checked):
    calm, begin, over, done = times
    before, under, after = sampler.between(calm, begin), sampler.between(begin, over + 1), sampler.between(done - 1.5, done)
    quiet, attacked = spread(file, calm, begin - 0.05), spread(file, begin, over)
    late = spread(file, over + 1, done)[1]
    busy = [s for s in under if s[0] <= over]
    cpu = 100 * (busy[-1][2] - busy[0][2]) / (busy[-1][0] - busy[0][0]) if len(busy) > 1 else 0
    log = (busy[-1][4] - busy[0][4]) / (busy[-1][0] - busy[0][0]) if len(busy) > 1 else 0
    failed = '; '.join(f'FAILED {n}x {why}' for why, n in (attacked[1] + late).most_common(2))
    least = lambda samples, f: f'{f(s[1] for s in samples):.0f}' if samples else '-'
    others = [f'{name} DEAD ({p.poll()})' for name, p in stage.procs.items() if p.poll() is not None]
    cells = [row.number, row.what, f'{least(before, max)}/{least(under, max)}/{least(after, min)}', f'{cpu:.0f}%', str(max((s[3] for s in under), default=0)),
             f'{quiet[0]} → {attacked[0]}', f'{sum(r[0] != 0 for r in results)}/{len(results)}, {max((r[1] for r in results), default=0):.0f}',
             ended(stage.procs[row.victim]), '; '.join(filter(None, [checked, told(stage), failed, f'log {log:.0f} B/s' if log > 100 else ''] + others))]
    return '| ' + ' | '.join(c.replace('|', '\\|').replace('\n', ' ') for c in cells) + ' |'


def run(row):
    stage = Stage(row.number, row.document, row.address_space)
    try:
        if row.alone:
            return f'| {row.number} | {row.what} | | | | | | | {row.alone(stage)} |'.replace('\n', ' ')
        return measure(stage, row)
    except Exception as e:
        traceback.print_exc()
        return f'| {row.number} | {row.what} | the row itself failed: {type(e).__name__}: {e} |'
    finally:
        stage.close()
        subprocess.run(['rm', '-rf', stage.run])


# ---- what single rows need ----

def holds(stage):
    holder = stage.holder()
    return 'path kept' if holder.get('pid') == stage.procs['svc'].pid else f'PATH NOT KEPT: {holder}'


def stopped(stage, until):
    p = stage.procs['svc']
    p.send_signal(signal.SIGSTOP)
    time.sleep(min(3, until - time.time()))
    stage.note['stopped'] = holds(stage)
    p.send_signal(signal.SIGCONT)


def churning(stage, until):
    """Records of the registry's user, which all see."""
    pid = fork(lambda: churn(Attacker(stage, until, 'kesa-registryd', '/registry', 0)), REGISTRY_USER)
    time.sleep(max(0, until - time.time()))
    end(pid)


def feeding(stage, until):
    while time.time() < until:
        stage.command('svc', 'feed 20000')
        time.sleep(0.005)


def newcomers(stage, until):
    """Who connects anew while it is attacked: another user, and root."""
    time.sleep(max(0, until - time.time()) * 0.6)
    said = [f'{who}: exit {code} in {ms:.0f} ms' for who, uid in (('a newcomer', HONEST), ('root', 0)) for code, ms, *_ in [stage.kesactl('call', '/svc', '/echo', uid=uid, patience=8)]]
    stage.note['newcomers'] = ', '.join(said)


def resolving(what, follows=0, calls=0):
    """The provider 'svc' is the watcher as well: it resolves what is evil, and asks it."""
    def during(stage, until):
        time.sleep(0.5)
        stage.command('svc', 'narrate')
        stage.command('svc', f'resolve {what}')
        if '*' not in what:
            stage.heard('svc', 'connected', 2)
        for n in range(follows):
            stage.command('svc', f'follow {what}')
        for n in range(calls):
            stage.command('svc', f'call c{n} {what} /x {"persistent-stream" if n % 2 else "single-response"}')
        time.sleep(max(0, until - time.time()))
    return during


def heardOf(*events):
    def check(stage):
        count = Counter(line.split(' ', 1)[0] for line in open(f'{stage.log}.svc.out', errors='replace'))
        return 'watcher heard: ' + ', '.join(f'{count[e]} {e}' for e in events)
    return check


def lives(stage):
    dead = [name for name, p in stage.procs.items() if p.poll() is not None]
    return f'DIED: {dead}' if dead else 'all live'


def starts(stage, name, argv, uid):
    """'up in N ms' or why not."""
    began = time.time()
    stage.start(name, argv, uid)
    if argv[0] == ACTOR:
        stage.command(name, f'provide /{name} - public=true')
        line = stage.heard(name, 'provided', 10) or stage.heard(name, 'refused', 1) or 'silent'
    else:
        line = stage.heard(name, 'kesa-registryd: ready', 10) or open(f'{stage.log}.{name}.err').read()[-400:]
    took = (time.time() - began) * 1000
    up = line.startswith(('provided', 'kesa-registryd: ready'))
    return f'up in {took:.0f} ms' if up else f'NOT up: {line[-220:].strip()}'


def plants(run, kind, name):
    os.chdir(run)
    if kind == 'socket':
        s = socket.socket(socket.AF_UNIX); s.bind(f'{name}.sock'); s.listen(1)
    elif kind == 'lock':
        f = open(f'{name}.lock', 'w'); fcntl.flock(f, fcntl.LOCK_EX); time.sleep(60)
    elif kind == 'unlocked lock':
        os.close(os.open(f'{name}.lock', os.O_CREAT, 0o666))
    elif kind.startswith('symlink'):
        os.symlink(f'{run}/treasure', f'{name}.{kind.split()[1]}')
    elif kind == 'dangling symlink':
        os.symlink(f'{run}/nothing', f'{name}.lock')
    elif kind.startswith('hard'):
        open(f'{run}/own', 'w').write('mine'); os.link(f'{run}/own', f'{name}.{kind.split()[2]}')
    elif kind.startswith('FIFO'):
        os.mkfifo(f'{name}.{kind.split()[1]}', 0o666) if kind.split()[1] != 'realm' else os.mkfifo('realm')
    elif kind.startswith('directory'):
        os.mkdir(f'{name}.{kind.split()[1]}')
    elif kind == 'drafts':
        for n in range(12000):
            draft = f'.{name}.{4000000 + n}.{n:016x}.tmp'
            os.close(os.open(draft, os.O_CREAT, 0o666))
            os.utime(draft, (0, 0))


PLANTS = ['socket', 'lock', 'unlocked lock', 'symlink sock', 'symlink lock', 'dangling symlink', 'hard link lock', 'hard link sock', 'FIFO lock', 'FIFO sock',
          'FIFO realm', 'directory sock', 'directory lock', 'drafts']


def planted(stage):
    out = []
    for kind in PLANTS:
        for name, uid in (('kesa-registryd', REGISTRY_USER), ('svc', PROVIDER_USER)):
            inner = Stage('9-planted', {})
            try:
                open(f'{inner.run}/treasure', 'w').write('gold'); os.chmod(f'{inner.run}/treasure', 0o666)
                if name == 'svc':
                    inner.registry()
                    if kind == 'FIFO realm':
                        continue
                pid = fork(lambda: plants(inner.run, kind, name), ATTACKER)
                time.sleep(0.15) if kind == 'lock' else os.waitpid(pid, 0)
                got = starts(inner, name, [REGISTRYD] if name != 'svc' else [ACTOR, name], uid)
                gold = open(f'{inner.run}/treasure').read()
                left = subprocess.run(['find', inner.run, '-name', '.*.tmp'], capture_output=True, text=True).stdout.count('\n') if kind == 'drafts' else 0
                out.append(f'{name} {kind}: {got}' + ('' if gold == 'gold' else f' TREASURE IS {gold!r}') + (f', {left} drafts left' if left else ''))
                if kind == 'lock':
                    end(pid, 0)
            finally:
                inner.close()
                subprocess.run(['rm', '-rf', inner.run])
    return '; '.join(out)


def backWithin(stage, what, patience=6):
    """How long until somebody new may ask the registry, and its files are there."""
    began = time.time()
    while time.time() < began + patience:
        try:
            p = Peer(stage.run, 'kesa-registryd', '/registry', name='look')
            p.ask('/svc', 'explain')
            if all(os.path.exists(f'{stage.run}/{f}') for f in ('realm', 'kesa-registryd.lock', 'kesa-registryd.sock')):
                return f'{(time.time() - began) * 1000:.0f} ms'
        except (OSError, Closed, TimeoutError):
            pass
        time.sleep(0.01)
    return f'NOT in {patience} s'


def removed(stage):
    stage.registry(0); stage.provider(uid=0)
    out = []
    for what in ('kesa-registryd.sock', 'kesa-registryd.lock', 'realm', '.'):
        subprocess.run(['rm', '-rf', stage.run if what == '.' else f'{stage.run}/{what}'])
        back = backWithin(stage, what)
        time.sleep(1)
        call = stage.kesactl('call', '/svc', '/echo', uid=0)
        out.append(f'{"run directory" if what == "." else what}: back in {back}, call of a provider: exit {call[0]}{"" if call[0] == 0 else " " + call[3].decode()[:200]}')
    return '; '.join(out)


def forged(stage):
    """Answers to records that say what is not so, in a process of the attacker that listens as 'thief'."""
    stage.registry(); stage.provider()
    where = realm(stage.run)

    def steal():
        s = listen(stage.run, 'thief')
        tries = {'locator of svc': ('thief', record('/f/1', 'svc', where)), 'locator of registry': ('thief', record('/f/2', 'kesa-registryd', where)),
                 'named svc': ('svc', record('/f/3')), 'named registry': ('kesa-registryd', record('/f/4')), 'nameless locator': ('thief', {**record('/f/5'), 'locators': ['ipc:///f/5']}),
                 'metainfo': ('thief', record('/f/6', meta={'provider': 'svc', 'provider_uid': 0, 'provider_gid': 0, 'provider_unproven': False, 'public': True})),
                 'metainfo, unproven': ('ghost', record('/f/7', meta={'provider': 'svc', 'provider_uid': 0})), 'case': ('thief', {**record('/f/8'), 'locators': [f'IPC://SVC+{where}/f/8', f'ipc://%73vc+{where}/f/8']}),
                 'other realm': ('thief', {**record('/f/9'), 'locators': ['ipc://svc+0123456789abcdef/svc', 'tcp://host/x']}), 'the registry\'s path': ('thief', record('/registry'))}
        for what, (name, r) in tries.items():
            try:
                answer = Peer(stage.run, 'kesa-registryd', '/registry', name=name).ask(r['path'], 'insert', 'stream', r, until=lambda got: True)[0]
                told_ = json.loads(answer[1])['metainfo'] if answer[0] == 200 else reason([answer])
                stage.tell(f'{what}: {told_}')
            except (Closed, TimeoutError) as e:
                stage.tell(f'{what}: {e}')
    end(fork(steal, ATTACKER), 20)
    stage.gather()
    return '; '.join(stage.told)


def rootReads(stage):
    folder = f'{stage.run}/there'
    os.makedirs(folder + '/config')
    json.dump({**DOCUMENT, 'comm': {'run_dir': f'{WORK}/trap', 'socket_mode': '0666'}}, open(folder + '/config/kesa.json', 'w'))
    env = {'PATH': '/usr/bin:/bin', 'KESA_RUN_DIR': stage.run, 'KESA_TRACE': '*=3'}
    p = subprocess.Popen([REGISTRYD], cwd=folder, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    until = time.time() + 5
    while time.time() < until and not os.path.exists(f'{stage.run}/kesa-registryd.sock') and not os.path.exists(f'{WORK}/trap/kesa-registryd.sock'):
        time.sleep(0.02)
    trap, mode = os.path.exists(f'{WORK}/trap'), oct(os.stat(f'{stage.run}/kesa-registryd.sock').st_mode & 0o777) if os.path.exists(f'{stage.run}/kesa-registryd.sock') else 'no socket'
    p.terminate()
    text_ = p.communicate()[0].decode()
    c = subprocess.run([KESACTL, 'check-config'], cwd=folder, env=env, capture_output=True, text=True)
    return f'{"READ" if trap else "not read"}, socket {mode}; says: {text_[:200]}; check-config exit {c.returncode}: {(c.stdout + c.stderr)[:150]}'


DIRTY = 'a\x1b[31mred\x1b]0;title\x07\rb\u202egnp.exe\u2066x\u2069\u200f\x9b31m\x7f\u2028\u0085\u061c\ufeffend'


def raws(data):
    """What in an output is no plain text."""
    bad = {f'U+{ord(c):04X}' for c in data.decode('utf-8', 'replace') if c != '\n' and (unicodedata.category(c) in ('Cc', 'Cf', 'Zl', 'Zp') or c == '\ufffd')}
    return sorted(bad)


def onTerminal(stage, *words):
    """What a command shows on a terminal; to a pipe, `call` writes answers as they are."""
    theirs, ours = os.openpty()
    p = subprocess.Popen([KESACTL, *words], env=stage.env(), stdout=ours, stderr=ours, cwd='/')
    os.close(ours)
    data = b''
    try:
        while more_ := os.read(theirs, 65536):
            data += more_
    except OSError:
        pass
    os.close(theirs)
    return p.wait(), 0, data.replace(b'\r\n', b'\n'), b''


def dirty(stage):
    stage.registry(); stage.provider()
    name, where = DIRTY.encode()[:60].decode(errors='ignore'), realm(stage.run)
    quoted = ''.join(c if c.isalnum() and ord(c) < 128 or c in '._-' else ''.join('%%%02X' % b for b in c.encode()) for c in name)
    ready = f'{stage.run}/dirty'

    def listening():
        s = listen(stage.run, quoted)
        p = Peer(stage.run, 'kesa-registryd', '/registry', name=name, realm=where, listeners=[f'ipc://{quoted}+{where}'])
        a = [p.ask(path, 'insert', 'stream', {**record(path, quoted, where, {'public': True, DIRTY: DIRTY, 'description': DIRTY}), 'versions': [DIRTY], 'serializationFormats': [DIRTY],
                                              'scope': [DIRTY], 'hostDomain': DIRTY}, until=lambda got: True) for path in ('/d/plain', '/d/x\u202egnp\u2066\u200f\u2028')]
        p.ask('/d/x\x1b[31m', 'insert', 'stream', record('/d/x\x1b[31m'), until=lambda got: True)
        stage.tell('registered: ' + ' '.join(str(x[0][0]) for x in a))
        open(ready, 'w')
        clients, until = {}, time.time() + 60
        while time.time() < until:
            for fd in select.select([s] + list(clients.values()), [], [], 0.1)[0]:
                if fd is s:
                    c = Peer(s=s.accept()[0], name=name, realm=where, listeners=[f'ipc://{quoted}+{where}'])
                    clients[c.fileno()] = c
                    fd = c
                try:
                    for kind, n, target, head, _ in fd.frames():
                        if kind == ATTACH:
                            fd.out += frame(ATTACHED, 0, target)
                        elif kind == REQUEST:
                            h = b'\xbf\x02\x01' + text('$reason') + text(DIRTY) + text(DIRTY) + text(DIRTY) + b'\xff'
                            say = json.dumps({'process': DIRTY, 'executable': DIRTY, 'version': DIRTY, 'services': [DIRTY], 'connections': [{'openedBy': 'self', 'process': DIRTY, 'connected': False, 'reason': DIRTY}], 'holds': [{'loop': DIRTY, 'heldMs': 3, 'holder': DIRTY}]}, ensure_ascii=False).encode()
                            error = fd.answers % 2
                            fd.answers += 1
                            fd.out += frame(ERROR, n, 500, h, DIRTY.encode()) if error else frame(NEXT, n, 200, b'\xbf\x02\x01\xff', say) + frame(COMPLETED, n)
                    fd.flush()
                except (Closed, OSError):
                    clients.pop(fd.fileno(), None)
    pid = fork(listening, ATTACKER)
    for _ in range(100):
        if os.path.exists(ready):
            break
        time.sleep(0.05)
    stage.gather()
    out = []
    bidi = '/d/x\u202egnp\u2066\u200f\u2028'
    for words in (['list'], ['list', '--columns', 'path,type,versions,provider,locators,formats,scope,metainfo'], ['tree'], ['show', '/d/plain'], ['show', bidi], ['ps'], ['doctor'],
                  ['why', '/d/plain'], ['why', '/d/plain', '--for', name], ['why', bidi], ['watch', '--count', '3'], ['status', name], ['status', name], ['call', '/d/plain'], ['call', '/d/plain', '/x'], ['call', '/d/plain', '/x'], ['ping', '/d/plain'],
                  ['may', 'root', 'call', '/d/plain', 'update'], ['list', '--json'], ['show', '/d/plain', '--json'], ['ps', '--json'], ['status', name, '--json']):
        code, _, stdout, stderr = onTerminal(stage, *words) if words[0] == 'call' else stage.kesactl(*words, uid=0)
        for where_, data in (('stdout', stdout), ('stderr', stderr)):
            if raws(data):
                out.append(f'{words[0]}{" --json" if "--json" in words else ""} {where_} has RAW {" ".join(raws(data))}')
        if code == 'hangs':
            out.append(f'{words[0]} HANGS')
    for who in ('kesa-registryd', 'svc'):
        if raws(open(f'{stage.log}.{who}.err', 'rb').read()):
            out.append(f'log of {who} has RAW ' + ' '.join(raws(open(f'{stage.log}.{who}.err', 'rb').read())))
    end(pid, 0)
    return '; '.join(list(stage.told) + (sorted(set(out)) or ['nothing raw in any output']))


POLICY = {'registry': {'policy': [{'user': str(PROVIDER_USER), 'may': ['register', 'see'], 'paths': ['/svc', '/svc/**']}, {'user': str(HONEST), 'may': ['see'], 'paths': ['/svc']}]},
          'access': [{'user': str(HONEST), 'may': ['retrieve'], 'paths': ['/svc']}]}


def denied(stage):
    json.dump({**DOCUMENT, **POLICY}, open(stage.document, 'w'))
    stage.registry(); stage.provider()

    where = realm(stage.run)

    def tries():
        place = listen(stage.run, 'raw')
        r = lambda: Peer(stage.run, 'kesa-registryd', '/registry', name='raw')
        s = lambda: Peer(stage.run, 'svc', '/svc', name='raw')
        known = lambda: Peer(stage.run, 'svc', '/.well-known/process', name='raw')
        who = lambda uid: json.dumps({'who': str(uid), 'path': '/svc', 'command': 'retrieve'}).encode()
        until = lambda got: True
        for what, ask in {'registers': lambda: r().ask('/mine', 'insert', 'stream', record('/mine', 'raw', where), until=until), 'claims /svc': lambda: r().ask('/svc', 'insert', 'stream', record('/svc', 'raw', where), until=until),
                          'query': lambda: r().ask('/', 'retrieve', 'stream', {'pattern': '**'}, until=lambda got: got[-1][1] == b'[]'), 'track': lambda: r().ask('/svc', 'retrieve', 'stream', wait=1, until=until),
                          'explain': lambda: r().ask('/svc', 'explain'), 'nearest': lambda: r().ask('/sv', 'explain'), 'explain for honest': lambda: r().ask('/svc', 'explain', 'single', {'for': str(HONEST)}),
                          'explain for root': lambda: r().ask('/svc', 'explain', 'single', {'for': 'root'}), 'explain for svc': lambda: r().ask('/svc', 'explain', 'single', {'for': 'svc'}), 'explain for himself': lambda: r().ask('/svc', 'explain', 'single', {'for': str(ATTACKER)}),
                          'retrieve': lambda: s().ask('/echo'), 'update': lambda: s().ask('/echo', 'update'), '/../svc': lambda: s().ask('/x/../echo'), 'resources': lambda: s().ask('/.well-known/resources'),
                          'access of others': lambda: s().ask('/.well-known/access', 'retrieve', 'single', {'uid': HONEST, 'gid': HONEST, 'command': 'retrieve'}),
                          'may of others': lambda: known().ask('/may', 'retrieve', 'single', who(HONEST)), 'may of root': lambda: known().ask('/may', 'retrieve', 'single', who(0)), 'may of himself': lambda: known().ask('/may', 'retrieve', 'single', who(ATTACKER))}.items():
            try:
                stage.tell(f'{what}: ' + reason([x for x in ask() if x[0]][:2])[:230])
            except (Closed, TimeoutError) as e:
                stage.tell(f'{what}: {e}')
        place.close()
    end(fork(tries, ATTACKER), 30)
    stage.gather()
    honest_ = stage.kesactl('call', '/svc', '/echo')
    return '; '.join(stage.told) + f'; honest call: exit {honest_[0]}'


MANY = lambda n, uid=ATTACKER: (uid,) * n
USERS = tuple(range(1001, 1007))
SVC = {'victim': 'svc'}
ROWS = [
    Row('1a', 'instance and path of a living process, other user', claims, provider=True, check=holds),
    Row('1b', 'the same, own user', claims, uids=(PROVIDER_USER,), provider=True, check=holds),
    Row('2', 'provider stopped for 3 s, its path claimed', claims, provider=True, during=stopped, check=lambda s: s.note.get('stopped', '') + ', after: ' + holds(s)),
    Row('3a', '16,000 queries of many wildcards, 250 characters', globs, {'how': 'wide', 'queries': 16000}, during=churning),
    Row('3b', '1,000 queries of 980 characters', globs, {'how': 'long', 'most': 95}, during=churning),
    Row('3c', '1,000 queries of ** and *', globs, {'how': 'deep'}, during=churning),
    Row('3d', '1,000 queries of sets', globs, {'how': 'sets', 'most': 60}, during=churning),
    Row('3e', 'paths of 4 KB', longPath),
    Row('4a1', '2 x 64 unfinished messages of 16 MiB: registry', unfinished),
    Row('4a2', '2 x 64 unfinished messages of 16 MiB: provider', unfinished, **SVC),
    Row('4a3', '100 connections with one unfinished message of 16 MiB each: provider', unfinished, {'each': 1, 'count': 100}, **SVC),
    Row('4a4', '100 connections with one unfinished message of 250 KiB each: registry', unfinished, {'each': 1, 'count': 100, 'size_': 250 << 10}),
    Row('4b1', '65,536 paths of 4 KB: registry', attaches),
    Row('4b2', '65,536 paths of 4 KB: provider', attaches, **SVC),
    Row('4c', '8 watchers that never read, records of 30 KiB', watchers, during=churning),
    Row('4d', 'JSON of 16 MiB, of 60 KB deep and wide: registry', bodies, uids=MANY(2)),
    Row('4e1', 'evil provider: partial answers of 16 MiB on 64 streams', evil, during=resolving('/evil', calls=64), check=heardOf('connected', 'lost', 'value', 'error'), **SVC),
    Row('4e2', 'evil provider: values without credit', evil, {'kind': 'values'}, during=resolving('/evil', 1), check=heardOf('connected', 'lost', 'value', 'error'), **SVC),
    Row('4e3', 'evil provider: empty values without credit', evil, {'kind': 'empty'}, during=resolving('/evil', 1), check=heardOf('connected', 'lost', 'value', 'error'), **SVC),
    Row('4e4', 'evil provider: gone and here again', evil, {'kind': 'turns'}, during=resolving('/evil'), check=heardOf('connected', 'lost'), **SVC),
    Row('4f1', '400 MiB of address space, 6 users, unfinished messages: registry', unfinished, {'each': 1, 'count': 60, 'size_': 250 << 10}, uids=USERS, address_space=400 << 20, check=lives),
    Row('4f2', '400 MiB of address space, 6 users, unfinished messages: provider', unfinished, {'each': 1, 'count': 20}, uids=USERS, address_space=400 << 20, check=lives, **SVC),
    Row('4f3', '400 MiB of address space, 6 users, paths of 4 KB: registry', attaches, uids=USERS, address_space=400 << 20, check=lives),
    Row('4f4', '400 MiB of address space, own user, unfinished messages: provider', unfinished, {'each': 1, 'count': 20}, uids=(PROVIDER_USER,), address_space=400 << 20, check=lives, **SVC),
    Row('5a', 'requests beyond the window: registry', beyond),
    Row('5b', 'requests beyond the window: provider', beyond, **SVC),
    Row('5c', 'endless stream to who never reads', slow, during=feeding, **SVC),
    Row('6a', '600 connections of one process: registry', connections),
    Row('6b', '600 connections of one process: provider', connections, **SVC),
    Row('6c', '5,000 connections of one process: registry', connections, {'count': 5000}),
    Row('6d', '5,000 connections of 20 processes of a user: registry', connections, {'count': 250}, uids=MANY(20)),
    Row('6e', '5,000 connections of 20 processes of a user: provider', connections, {'count': 250}, uids=MANY(20), **SVC),
    Row('6f', '1,100 fake processes and services, seen by a watcher', evil, {'kind': 'still', 'names': 100}, uids=MANY(11), during=resolving('/fake/*'), check=heardOf('shown', 'connected', 'failed'), **SVC),
    Row('6g', '3 users, each with all connections that he may have, in use: provider', held, uids=(1001,) * 3 + (1003,) * 3 + (1004,) * 3, during=newcomers, check=lambda s: s.note.get('newcomers', ''), **SVC),
    Row('7a', '100 connections as fast as they can, other user: registry', fast),
    Row('7b', '100 connections as fast as they can, own user: registry', fast, uids=(REGISTRY_USER,)),
    Row('7c', '100 connections as fast as they can, other user: provider', fast, **SVC),
    Row('7d', '100 connections as fast as they can, own user: provider', fast, uids=(PROVIDER_USER,), **SVC),
    Row('7e', '100 connections as fast as they can, the user of the honest one: registry', fast, uids=(HONEST,)),
    Row('8a', 'log flood, 3 processes: registry', flood, uids=MANY(3), provider=True),
    Row('8b', 'log flood, 12 processes of 4 users: registry', flood, uids=(1001, 1001, 1001, 1003, 1003, 1003, 1004, 1004, 1004, 1005, 1005, 1005), provider=True),
    Row('9', 'planted files of names not yet started', alone=planted),
    Row('10', 'files removed under a living registry', alone=removed),
    Row('11', 'forged records', alone=forged),
    Row('12', 'root in a directory with ./config', alone=rootReads),
    Row('13', 'control characters and bidi marks', alone=dirty),
    Row('14', 'a policy and a table: the denied user', alone=denied),
    Row('15a', '1,000 connections with an unfinished request of 60 KB: registry', halves),
    Row('15b', '1,000 connections with an unfinished request of 60 KB: provider', halves, **SVC),
    Row('15g', '100 connections with a request of number 65,536: registry', numbers),
    Row('15h', '100 connections with a request of number 65,536: provider', numbers, **SVC),
    Row('15c', 'a million requests and cancels: registry', cancels),
    Row('15d', 'a million requests and cancels of what never answers: provider', cancels, **SVC),
    Row('15e', 'heads of 60 KB: registry', heads),
    Row('15f', 'heads of 60 KB: provider', heads, **SVC),
]

HEAD = '''| row | attack | MiB before/worst/after | CPU | descriptors | honest median/worst, quiet → attack (ms) | list fails, worst ms | end ms | told |
|---|---|---|---|---|---|---|---|---|'''


def main():
    global QUIET, ATTACK, AFTER
    options = argparse.ArgumentParser()
    options.add_argument('--quick', action='store_true')
    options.add_argument('rows', nargs='*', help='numbers, or how they begin')
    options = options.parse_args()
    if options.quick:
        QUIET, ATTACK, AFTER = 1.0, 3.0, 2.0
    if os.geteuid() != 0:
        raise SystemExit('bench/attacks/table.py has to be root, which alone can be several users')
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_NOFILE, (20000, 20000))
    print(HEAD, flush=True)
    for row in ROWS:
        if not options.rows or any(row.number.startswith(r) and not row.number[len(r):][:1].isdigit() for r in options.rows):
            print(run(row), flush=True)
    print(f'\nWhat all processes have said: {WORK}/log')


if __name__ == '__main__':
    main()
