#!/usr/bin/env python3
"""Helpers of selvane-board that are easier in Python than in shell.

  board.py modorder MODDIR MODULE...       .ko paths for MODULE..., dependencies first
  board.py needed READELF DIR... -- ELF... the shared libraries ELF... need, found in DIR...
  board.py uboot-env U-BOOT.BIN            U-Boot's built-in environment, with bootdelay=0
  board.py supervise DIR QEMU-ARG...       run qemu; console to DIR/console.log and DIR/console.sock
  board.py run DIR TIMEOUT COMMAND         run a shell command on the board's console, exit with its status
  board.py console DIR                     attach the terminal to the board's console (Ctrl-] leaves)
  board.py env IMAGE OFFSET SIZE           the environment pair at OFFSET of IMAGE: the copy in use
"""
import os, re, secrets, select, signal, socket, struct, subprocess, sys, time, zlib


def modorder(moddir, wanted):
    paths = {}
    for root, _, files in os.walk(moddir):
        for f in files:
            if f.endswith('.ko'):
                paths[f[:-3].replace('-', '_')] = os.path.relpath(os.path.join(root, f), moddir)
    order, seen = [], set()

    def visit(name):
        name = name.replace('-', '_')
        if name in seen:
            return
        seen.add(name)
        with open(os.path.join(moddir, paths[name]), 'rb') as f:
            for field in f.read().split(b'\0'):
                if field.startswith(b'depends='):
                    for dep in field[8:].decode().split(','):
                        if dep:
                            visit(dep)
        order.append(paths[name])
    for w in wanted:
        visit(w)
    print('\n'.join(order))


def needed(readelf, dirs, elves):
    found, todo = {}, list(elves)
    while todo:
        out = subprocess.run([readelf, '-d', todo.pop()], capture_output=True, text=True, check=True).stdout
        for lib in re.findall(r'\(NEEDED\)\s+Shared library: \[(.+)\]', out):
            if lib in found:
                continue
            path = next((os.path.join(d, lib) for d in dirs if os.path.exists(os.path.join(d, lib))), None)
            if path is None:
                sys.exit(f'board.py: {lib} not found')
            found[lib] = path
            todo.append(path)
    print('\n'.join(sorted(found.values())))


def uboot_env(binary):
    data = open(binary, 'rb').read()
    i = data.find(b'bootcmd=run distro_bootcmd\0')
    start = i
    while start > 0:  # walk back over the NUL-separated name=value strings
        j = data.rfind(b'\0', 0, start - 1)
        s = data[j + 1:start - 1]
        if not s or b'=' not in s or any(c < 0x20 and c not in (9, 10) for c in s):
            break
        start = j + 1
    for e in data[start:data.find(b'\0\0', i)].split(b'\0'):
        e = e.decode()
        print('bootdelay=0' if e.startswith('bootdelay=') else e)


def supervise(d, qemu):
    """Runs qemu as a child; its console goes to console.log and to every client of console.sock,
    and what clients send goes to the console."""
    sock_path = os.path.join(d, 'console.sock')
    log = open(os.path.join(d, 'console.log'), 'ab', buffering=0)  # there before the socket
    if os.path.exists(sock_path):
        os.unlink(sock_path)
    server = socket.socket(socket.AF_UNIX)
    server.bind(sock_path)
    server.listen(4)
    p = subprocess.Popen(qemu, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    with open(os.path.join(d, 'qemu.pid'), 'w') as f:
        f.write(f'{p.pid}\n')
    signal.signal(signal.SIGTERM, lambda *_: p.kill())
    clients = []
    while True:
        r, _, _ = select.select([p.stdout, server] + clients, [], [])
        if p.stdout in r:
            chunk = os.read(p.stdout.fileno(), 65536)
            if not chunk:
                break
            log.write(chunk)
            for c in list(clients):
                try:
                    c.sendall(chunk)
                except OSError:
                    clients.remove(c)
        if server in r:
            clients.append(server.accept()[0])
        for c in [c for c in clients if c in r]:
            try:
                data = c.recv(4096)
            except OSError:  # a client that left with output unread is reset
                data = b''
            if not data:
                clients.remove(c)
                continue
            p.stdin.write(data)
            p.stdin.flush()
    p.wait()
    os.unlink(sock_path)


def connect(d):
    s = socket.socket(socket.AF_UNIX)
    s.connect(os.path.join(d, 'console.sock'))
    return s


def run(d, timeout, command):
    token = secrets.token_hex(6)
    s = connect(d)
    # The console echoes the line: the marker is split in it, whole only in the command's output.
    s.sendall(f'{command}; echo "{token[:6]}""{token[6:]}:$?"\n'.encode())
    done = re.compile(rf'^{token}:(\d+)\r?$', re.M)
    buf, end = b'', time.monotonic() + timeout
    while time.monotonic() < end:
        r, _, _ = select.select([s], [], [], 1)
        if r:
            chunk = s.recv(65536)
            if not chunk:
                break
            buf += chunk
            text = buf.decode('utf-8', 'replace')
            m = done.search(text)
            if m:
                echoed = text.rfind(f'{token[6:]}:$?"', 0, m.start())
                body = text[echoed:m.start()].split('\n', 1)[1] if echoed >= 0 else text[:m.start()]
                sys.stdout.write(body.replace('\r', ''))
                sys.exit(int(m.group(1)))
    sys.stdout.write(buf.decode('utf-8', 'replace').replace('\r', ''))
    sys.exit(f'board.py: no end of "{command}" within {timeout} s')


def console(d):
    import termios, tty
    s = connect(d)
    fd = sys.stdin.fileno()
    old = termios.tcgetattr(fd)
    tty.setraw(fd)
    try:
        while True:
            r, _, _ = select.select([s, fd], [], [])
            if s in r:
                chunk = s.recv(65536)
                if not chunk:
                    break
                os.write(sys.stdout.fileno(), chunk)
            if fd in r:
                data = os.read(fd, 1024)
                if b'\x1d' in data:
                    break
                s.sendall(data)
    finally:
        termios.tcsetattr(fd, termios.TCSADRAIN, old)


def env(image, offset, size):
    """Prints the copy U-Boot and libubootenv would use (name=value lines) and exits 0, or exits 1
    when neither copy is valid. Each copy: CRC32 (little-endian) of the data, a flags byte, the data."""
    with open(image, 'rb') as f:
        f.seek(offset)
        raw = f.read(2 * size)
    copies = []
    for i in (0, 1):
        c = raw[i * size:(i + 1) * size]
        if struct.unpack('<I', c[:4])[0] == zlib.crc32(c[5:]):
            copies.append((c[4], i, c[5:]))
    if not copies:
        print('no valid copy')
        sys.exit(1)
    if len(copies) == 2 and ((copies[1][0] - copies[0][0]) & 0xff) in range(1, 0x80):
        copies.reverse()
    flags, index, data = copies[0]
    print(f'# copy {index + 1} of 2, flags {flags}, {len(copies)} valid')
    for kv in data.split(b'\0\0')[0].split(b'\0'):
        print(kv.decode())


if __name__ == '__main__':
    cmd, args = sys.argv[1], sys.argv[2:]
    if cmd == 'modorder':
        modorder(args[0], args[1:])
    elif cmd == 'needed':
        sep = args.index('--')
        needed(args[0], args[1:sep], args[sep + 1:])
    elif cmd == 'uboot-env':
        uboot_env(args[0])
    elif cmd == 'supervise':
        supervise(args[0], args[1:])
    elif cmd == 'run':
        run(args[0], float(args[1]), args[2])
    elif cmd == 'console':
        console(args[0])
    elif cmd == 'env':
        env(args[0], int(args[1], 0), int(args[2], 0))
    else:
        sys.exit(__doc__)
