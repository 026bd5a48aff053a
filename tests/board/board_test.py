#!/usr/bin/env python3
"""End-to-end tests on the emulated board (tools/selvane-board), one case per run:

  board_test.py CASE WORKDIR      CASE: create, update, fallback, wipe, powercut

"create" builds the board WORKDIR/pristine; every other case runs on a copy of it in
WORKDIR/CASE, whose console.log is the boot log. Exit 77 (skip) without qemu-system-arm."""
import os, random, re, shutil, signal, socket, subprocess, sys, time

HERE = os.path.dirname(os.path.abspath(__file__))
TOOL = os.path.join(HERE, '..', '..', 'tools', 'selvane-board', 'selvane-board')
BOARD_PY = os.path.join(HERE, '..', '..', 'tools', 'selvane-board', 'board.py')
RELEASE = 'https://release.selvane.test/release-{}/manifest.pb'
READY = r'selvane-board: ready'


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


class Board:
    def __init__(self, workdir, name):
        self.dir = os.path.join(workdir, name)
        subprocess.run(['rm', '-rf', '--one-file-system', self.dir], check=True)
        subprocess.run(['cp', '-a', '--sparse=always', os.path.join(workdir, 'pristine'), self.dir], check=True)
        self.log = os.path.join(self.dir, 'console.log')
        self.seen = 0  # console.log offset up to which expectations have matched

    def tool(self, *args, timeout=None):
        return subprocess.run([TOOL, args[0], self.dir] + list(args[1:]), capture_output=True, text=True,
                              timeout=timeout)

    def start(self):
        r = self.tool('start')
        check(r.returncode == 0, f'start failed: {r.stderr}')

    def text(self):
        with open(self.log, 'rb') as f:
            return f.read().decode('utf-8', 'replace').replace('\r', '')

    def expect(self, pattern, timeout=180):
        """Waits for pattern in the console output that follows the last expectation."""
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            m = re.compile(pattern, re.M).search(self.text(), self.seen)
            if m:
                self.seen = m.end()
                return m
            time.sleep(0.2)
        raise Failure(f'no "{pattern}" on the console within {timeout} s')

    def run(self, command, timeout=600):
        r = self.tool('run', '-t', str(timeout), '--', command, timeout=timeout + 30)
        return r.returncode, r.stdout

    def must(self, command, timeout=600):
        rc, out = self.run(command, timeout)
        check(rc == 0, f'"{command}" exited {rc}:\n{out}')
        return out

    def send(self, line):
        """Types a line on the console without waiting for it (reboot, halt)."""
        with socket.socket(socket.AF_UNIX) as s:
            s.connect(os.path.join(self.dir, 'console.sock'))
            s.sendall(line.encode() + b'\n')
        self.seen = len(self.text())

    def power_cut(self):
        with open(os.path.join(self.dir, 'qemu.pid')) as f:
            os.kill(int(f.read()), signal.SIGKILL)
        self.stop()

    def stop(self):
        self.tool('stop')

    def partitions(self):
        with open(os.path.join(self.dir, 'partitions')) as f:
            return {name: (int(start), int(size)) for name, start, size in (l.split() for l in f)}

    def env(self):
        """The boot environment on the disk, as the boot loader will read it, and the copy's index."""
        r = subprocess.run(['python3', BOARD_PY, 'env', os.path.join(self.dir, 'disk.img'),
                            str(self.partitions()['brix'][0]), '0x4000'], capture_output=True, text=True)
        check(r.returncode == 0, f'the environment is torn: {r.stdout}')
        env = dict(l.split('=', 1) for l in r.stdout.splitlines() if '=' in l and not l.startswith('#'))
        env['copy'] = int(re.search(r'# copy (\d)', r.stdout).group(1)) - 1
        return env

    def guest_env(self):
        return dict(l.split('=', 1) for l in self.must('fw_printenv').splitlines() if '=' in l)

    def boots(self, slot, release):
        self.expect(rf'selvane-board: running {slot}, release {re.escape(release)}')
        self.expect(READY)


def install(board, release, retries=3):
    out = board.must(f'selvane-update install --manifest {RELEASE.format(release)} --keys /etc/selvane/keys '
                     f'--retries {retries}')
    return out


def case_update(board):
    board.start()
    board.boots('main-A', '1.0')
    board.must('fw_setenv board.note written-by-the-os')
    install(board, '2.0')
    env = board.guest_env()
    check((env['boot.bootmode'], env['boot.otaretrycount']) == ('main-B', '3'), f'after install: {env}')
    board.send('sync; reboot -f')
    board.expect('reboot: Restarting system')
    board.expect(r'selvane: trying main-B, retries left 2')
    board.boots('main-B', '2.0')
    env = board.guest_env()
    check(env.get('boot.knowngood') == 'main-B' and env.get('boot.otaretrycount') == '2', f'on main-B: {env}')
    check(env.get('board.note') == 'written-by-the-os', f'the boot loader dropped a variable: {env}')
    check('hello from release 2.0' in board.must('hello'), 'release 2.0 does not run')
    board.send('sync; reboot -f')
    board.expect(r'selvane: booting known-good main-B')
    board.boots('main-B', '2.0')


def case_fallback(board):
    retries = 2
    board.start()
    board.boots('main-A', '1.0')
    install(board, '3.0', retries)
    board.send('sync; reboot -f')
    for left in range(retries - 1, -1, -1):
        board.expect(rf'selvane: trying main-B, retries left {left}')
        board.expect(r'selvane-board: running main-B, release 3.0')
        board.expect(r'selvane-board: boot check failed, rebooting')
    board.expect(r'selvane: retries spent on main-B, falling back to main-A')
    board.boots('main-A', '1.0')
    check(not re.search('running main-B', board.text()[board.seen:]), 'main-B ran once more')
    env = board.guest_env()
    board.stop()
    check((env['boot.bootmode'], env['boot.knowngood']) == ('main-A', 'main-A'), f'in the guest: {env}')
    env = board.env()
    check((env['boot.bootmode'], env['boot.knowngood']) == ('main-A', 'main-A'), f'on the disk: {env}')


def case_wipe(board):
    board.start()
    board.boots('main-A', '1.0')
    # A read-only root has nothing left to write back over the zeros.
    board.send('mount -o remount,ro / && selvane-board-device evict')
    board.expect(r'reboot: System halted', timeout=300)
    halted = len(board.text())
    time.sleep(3)
    check(board.text()[halted:].strip() == '', f'output after the halt: {board.text()[halted:]!r}')
    board.stop()
    with open(os.path.join(board.dir, 'disk.img'), 'rb') as disk:
        for name, (start, size) in board.partitions().items():
            disk.seek(start)
            left, block = size, 1 << 20
            while left > 0:
                data = disk.read(min(block, left))
                check(data.count(0) == len(data), f'partition {name} is not wiped')
                left -= len(data)


def contract(env):
    """The root the boot loader picks for an environment."""
    if env['boot.bootmode'] == env['boot.knowngood'] or int(env.get('boot.otaretrycount', '0')) > 0:
        return env['boot.bootmode']
    return env['boot.knowngood']


def case_powercut(board, cuts=10, seed=12):
    rng = random.Random(seed)
    board.start()
    board.boots('main-A', '1.0')
    slot = 'main-A'
    other = {'main-A': 'main-B', 'main-B': 'main-A'}
    for cut in range(cuts):
        kind = rng.choice(['setBootRootfs', 'install'])
        delay = rng.uniform(1, 8) if kind == 'setBootRootfs' else rng.uniform(1, 30)
        if kind == 'setBootRootfs':
            board.send(f'while :; do selvane-board-device boot {other[slot]} 3; selvane-board-device boot {slot} 0; done')
        else:
            board.send(f'selvane-update install --manifest {RELEASE.format("2.0")} --keys /etc/selvane/keys')
        time.sleep(delay)
        board.power_cut()
        env = board.env()
        print(f'cut {cut + 1}: {kind} after {delay:.1f} s on {slot}: {env}', flush=True)
        check(env.get('boot.knowngood') in ('main-A', 'main-B'), f'knowngood: {env}')
        check(env.get('boot.bootmode') in ('main-A', 'main-B'), f'bootmode: {env}')
        check(env.get('boot.otaretrycount', '0').isdigit(), f'otaretrycount: {env}')
        expected = contract(env)
        board.start()
        m = board.expect(r'selvane-board: running (main-[AB]), release (\S*)')
        board.expect(READY)
        booted, booted_release = m.group(1), m.group(2)
        check(booted == expected, f'booted {booted}, the environment says {expected}: {env}')
        # Only a finished install switches, and then the new root holds the whole release.
        check(kind != 'install' or booted == slot or booted_release == '2.0', f'{booted} has "{booted_release}"')
        slot = booted
    # A save cut half-way: the boot loader goes by the other copy.
    board.stop()
    torn = board.env()['copy']
    with open(os.path.join(board.dir, 'disk.img'), 'r+b') as disk:
        disk.seek(board.partitions()['brix'][0] + torn * 0x4000 + 0x2000)
        disk.write(b'\xff' * 0x2000)
    env = board.env()
    check(env['copy'] != torn, 'the torn copy is still in use')
    board.start()
    board.expect(rf'selvane-board: running {contract(env)}, ')
    board.expect(READY)


def main():
    case, workdir = sys.argv[1], os.path.abspath(sys.argv[2])
    if shutil.which('qemu-system-arm') is None:
        print('SKIP: qemu-system-arm is not installed (scripts/install-deps.sh --board)')
        sys.exit(77)
    os.makedirs(workdir, exist_ok=True)
    if case == 'create':
        pristine = os.path.join(workdir, 'pristine')
        subprocess.run(['rm', '-rf', '--one-file-system', pristine], check=True)
        sys.exit(subprocess.run([TOOL, 'create', pristine]).returncode)
    board = Board(workdir, case)
    try:
        globals()['case_' + case](board)
        print(f'PASS {case}; boot log {board.log}')
    except Exception as e:
        print(f'FAIL {case}: {e}\n--- last 40 lines of {board.log}:')
        print('\n'.join(board.text().splitlines()[-40:]) if os.path.exists(board.log) else '(no boot log)')
        sys.exit(1)
    finally:
        board.stop()


if __name__ == '__main__':
    main()
