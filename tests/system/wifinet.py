"""A real Wi-Fi-like network for the system tests: two network namespaces, the head unit's and the
phone's, joined by a veth pair whose head-unit end is named wlan1. Each side has its own system
bus and its own avahi-daemon, so the daemon's DNS-SD announcement travels as real mDNS over the
link and the phone browses and resolves it for real.

    net = wifinet.WifiNet()          # skips the test when not root or no `ip netns`
    net.hu / net.phone               # Side: .ns, .interface, .address, .system_bus
    net.hu_env() / net.phone_env()   # environment for DNS-SD clients of that side
    net.run_in(side, argv)           # a command inside a side's namespace (sysfs remounted)
    net.close()                      # kills every process, deletes the namespaces

Everything started here is killed and the namespaces are deleted at close(), also at
interpreter exit if a test forgot.
"""

import atexit
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

import harness

HERE = os.path.dirname(os.path.abspath(__file__))
AVAHI_DIR = os.path.join(HERE, 'avahi')

SERVICE_TYPE = '_qvo_mirroring._tcp'

_open_nets = []


def skip_reason():
    """Why this machine cannot build the test network, or None."""
    if os.geteuid() != 0:
        return 'needs root for network namespaces (CI runs as root)'
    for tool in ('ip', 'avahi-daemon', 'avahi-browse', 'dbus-daemon', 'mount'):
        if shutil.which(tool) is None:
            return '%s is not installed (scripts/install-deps.sh)' % tool
    probe = 'orvprobe%d' % os.getpid()
    r = subprocess.run(['ip', 'netns', 'add', probe], capture_output=True, timeout=10)
    if r.returncode != 0:
        return 'ip netns does not work here: ' + r.stderr.decode(errors='replace').strip()
    subprocess.run(['ip', 'netns', 'del', probe], capture_output=True, timeout=10)
    return None


def _ip(*args, check=True):
    r = subprocess.run(['ip'] + list(args), capture_output=True, timeout=10)
    if check and r.returncode != 0:
        raise RuntimeError('ip %s: %s' % (' '.join(args), r.stderr.decode(errors='replace').strip()))
    return r.stdout.decode(errors='replace')


def _fill(template, values, target):
    with open(os.path.join(AVAHI_DIR, template)) as f:
        text = f.read()
    for key, value in values.items():
        text = text.replace('@%s@' % key, value)
    with open(target, 'w') as f:
        f.write(text)


def _wait_for_file_text(path, regex, timeout, proc=None):
    pattern = re.compile(regex, re.MULTILINE)
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            with open(path, errors='replace') as f:
                m = pattern.search(f.read())
            if m:
                return m
        except OSError:
            pass
        if proc is not None and proc.poll() is not None:
            break
        time.sleep(0.05)
    try:
        with open(path, errors='replace') as f:
            tail = f.read()[-2000:]
    except OSError:
        tail = ''
    raise AssertionError('%r not in %s within %s s:\n%s' % (regex, path, timeout, tail))


class Side:
    """One end of the link: a namespace, its interface and address, its system bus and avahi."""

    def __init__(self, ns, interface, address, host_name):
        self.ns = ns
        self.interface = interface
        self.address = address
        self.host_name = host_name
        self.system_bus = None   # D-Bus address
        self.avahi = None        # Popen
        self.avahi_log = None

    def mac(self):
        """The interface's MAC address as the kernel reports it (from ip, not from sysfs)."""
        info = json.loads(_ip('-n', self.ns, '-j', 'link', 'show', self.interface))
        return info[0]['address']


class WifiNet:
    def __init__(self, workdir=None):
        reason = skip_reason()
        if reason:
            raise unittest.SkipTest(reason)
        tag = '%d%03d' % (os.getpid() % 100000, len(_open_nets))
        self.dir = tempfile.mkdtemp(prefix='orvane-wifinet-', dir=workdir)
        self._procs = []
        self._namespaces = []
        self.hu = Side('orv-hu-' + tag, 'wlan1', '10.77.0.1', 'orvane-hu-' + tag)
        self.phone = Side('orv-ph-' + tag, 'phone0', '10.77.0.2', 'orvane-phone-' + tag)
        _open_nets.append(self)
        try:
            self._build_link()
            for side in (self.hu, self.phone):
                self._start_avahi(side)
        except BaseException:
            self.close()
            raise

    # Set-up

    def _build_link(self):
        for side in (self.hu, self.phone):
            _ip('netns', 'add', side.ns)
            self._namespaces.append(side.ns)
            _ip('-n', side.ns, 'link', 'set', 'lo', 'up')
        # Created directly inside the namespaces, so a real wlan1 of the machine is never touched.
        _ip('link', 'add', self.hu.interface, 'netns', self.hu.ns, 'type', 'veth',
            'peer', 'name', self.phone.interface, 'netns', self.phone.ns)
        for side in (self.hu, self.phone):
            _ip('-n', side.ns, 'addr', 'add', side.address + '/24', 'dev', side.interface)
            _ip('-n', side.ns, 'link', 'set', side.interface, 'multicast', 'on', 'up')

    def _start_avahi(self, side):
        base = os.path.join(self.dir, side.ns)
        os.makedirs(base)
        socket_path = os.path.join(base, 'system_bus_socket')
        bus_conf = os.path.join(base, 'system-bus.conf')
        _fill('system-bus.conf.in', {'SOCKET': socket_path}, bus_conf)
        bus = self.spawn(['dbus-daemon', '--config-file=' + bus_conf, '--nofork'], log=base + '/bus.log')
        side.system_bus = 'unix:path=' + socket_path
        deadline = time.monotonic() + 10
        while not os.path.exists(socket_path):
            if bus.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError('system bus for %s did not come up' % side.ns)
            time.sleep(0.02)

        avahi_conf = os.path.join(base, 'avahi-daemon.conf')
        _fill('avahi-daemon.conf.in', {'HOST_NAME': side.host_name, 'INTERFACE': side.interface}, avahi_conf)
        side.avahi_log = base + '/avahi.log'
        # `ip netns exec` gives the command a mount namespace of its own; a tmpfs there keeps
        # each daemon's pid file and socket in /run/avahi-daemon apart from the other's.
        os.makedirs('/run/avahi-daemon', exist_ok=True)
        script = ('mount -t tmpfs tmpfs /run/avahi-daemon && exec avahi-daemon -f "$1" '
                  '--no-drop-root --no-chroot --no-rlimits --no-proc-title')
        side.avahi = self.spawn(['ip', 'netns', 'exec', side.ns, 'sh', '-c', script, 'sh', avahi_conf],
                                env={'DBUS_SYSTEM_BUS_ADDRESS': side.system_bus}, log=side.avahi_log)
        _wait_for_file_text(side.avahi_log, r'Server startup complete', 20, side.avahi)

    # Processes

    def spawn(self, argv, env=None, log=None, side=None):
        """Starts argv (inside side's namespace when given) in its own process group, output to
        log (or discarded); it is killed at close()."""
        if side is not None:
            argv = ['ip', 'netns', 'exec', side.ns] + list(argv)
        full_env = dict(os.environ)
        full_env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        if env:
            full_env.update(env)
        out = open(log, 'ab') if log else subprocess.DEVNULL
        try:
            proc = subprocess.Popen(argv, env=full_env, stdin=subprocess.DEVNULL, stdout=out,
                                    stderr=subprocess.STDOUT, start_new_session=True)
        finally:
            if log:
                out.close()
        self._procs.append(proc)
        # Tracked by the harness, so its clean-up of stray children leaves them alone and its
        # exit handler kills them if we could not.
        harness._track(proc)
        return proc

    def run_in(self, side, argv, env=None, timeout=30):
        """Runs argv to completion inside side's namespace; returns (rc, output)."""
        full_env = dict(os.environ)
        if env:
            full_env.update(env)
        r = subprocess.run(['ip', 'netns', 'exec', side.ns] + list(argv), env=full_env,
                           stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
        return r.returncode, r.stdout.decode(errors='replace') + r.stderr.decode(errors='replace')

    def hu_env(self, extra=None):
        env = {'DBUS_SYSTEM_BUS_ADDRESS': self.hu.system_bus, 'AVAHI_COMPAT_NOWARN': '1'}
        env.update(extra or {})
        return env

    def phone_env(self, extra=None):
        env = {'DBUS_SYSTEM_BUS_ADDRESS': self.phone.system_bus, 'AVAHI_COMPAT_NOWARN': '1'}
        env.update(extra or {})
        return env

    @staticmethod
    def stop(proc, timeout=10):
        """SIGTERM, then SIGKILL to the process group; reaps."""
        if proc.poll() is None:
            try:
                os.killpg(proc.pid, signal.SIGTERM)
                proc.wait(timeout=timeout)
            except (ProcessLookupError, subprocess.TimeoutExpired):
                pass
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass
        try:
            proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            pass

    # Looking at the network

    def browse(self, side=None, timeout=20):
        """`avahi-browse -rtp` for the mirroring type from side (default: the phone); returns the
        resolved entries as dicts (interface, protocol, name, type, domain, host, address, port,
        txt {key: value})."""
        side = side or self.phone
        rc, out = self.run_in(side, ['avahi-browse', '-rtp', SERVICE_TYPE],
                              env={'DBUS_SYSTEM_BUS_ADDRESS': side.system_bus}, timeout=timeout)
        if rc != 0:
            raise AssertionError('avahi-browse failed (%d): %s' % (rc, out.strip()))
        return parse_browse(out)

    def wait_browse(self, predicate, side=None, timeout=30):
        """Browses until predicate(entries) holds; returns the entries."""
        deadline = time.monotonic() + timeout
        entries = []
        while True:
            entries = self.browse(side)
            if predicate(entries):
                return entries
            if time.monotonic() > deadline:
                raise AssertionError('browse condition not met within %s s; last: %r' % (timeout, entries))
            time.sleep(0.3)

    def wire_txt(self, instance='Mirroring', side=None):
        """The TXT record of instance as it travels on the link: one mDNS query from side (default:
        the phone), answered by the other side's avahi-daemon; the strings in wire order."""
        side = side or self.phone
        name = '%s.%s.local' % (instance, SERVICE_TYPE)
        rc, out = self.run_in(side, ['python3', '-c', _TXT_QUERY, name, side.address])
        if rc != 0:
            raise AssertionError('mDNS TXT query failed: ' + out)
        return out.splitlines()

    def listening(self, pid, port=27555):
        """True when the network namespace of pid has a TCP socket listening on port."""
        try:
            with open('/proc/%d/net/tcp' % pid) as f:
                lines = f.read().splitlines()[1:]
        except OSError:
            return False
        for line in lines:
            fields = line.split()
            if fields[1].endswith(':%04X' % port) and fields[3] == '0A':
                return True
        return False

    # Teardown

    def close(self):
        for proc in reversed(self._procs):
            self.stop(proc, timeout=5)
            harness._untrack(proc)
        self._procs = []
        for ns in self._namespaces:
            subprocess.run(['ip', 'netns', 'del', ns], capture_output=True, timeout=10)
        self._namespaces = []
        shutil.rmtree(self.dir, ignore_errors=True)
        if self in _open_nets:
            _open_nets.remove(self)


# A one-shot mDNS query (legacy unicast: from a random port, so the answer comes back to us) for
# the TXT record of argv[1], sent on the interface with address argv[2]; prints its strings.
_TXT_QUERY = r'''
import socket, struct, sys
name, local = sys.argv[1], sys.argv[2]
query = struct.pack(">6H", 0x4f56, 0, 1, 0, 0, 0)
for label in name.split("."):
    query += bytes([len(label)]) + label.encode()
query += b"\0" + struct.pack(">HH", 16, 1)
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.settimeout(5)
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(local))
s.sendto(query, ("224.0.0.251", 5353))
data = s.recv(9000)
def skip(o):
    while data[o] != 0:
        if data[o] & 0xC0 == 0xC0:
            return o + 2
        o += 1 + data[o]
    return o + 1
questions, answers = struct.unpack(">HH", data[4:8])
o = 12
for _ in range(questions):
    o = skip(o) + 4
for _ in range(answers):
    o = skip(o)
    kind, _, _, length = struct.unpack(">HHIH", data[o:o + 10])
    o += 10
    if kind == 16:
        i = 0
        while i < length:
            print(data[o + i + 1:o + i + 1 + data[o + i]].decode())
            i += 1 + data[o + i]
    o += length
'''


def _unescape(text):
    # avahi-browse -p writes non-printable and separator characters as \DDD (decimal).
    return re.sub(r'\\(\d{3})', lambda m: chr(int(m.group(1))), text)


def parse_browse(output):
    entries = []
    for line in output.splitlines():
        if not line.startswith('='):
            continue
        parts = line.split(';')
        if len(parts) < 10:
            continue
        txt = {}
        for item in re.findall(r'"((?:[^"\\]|\\.)*)"', ';'.join(parts[9:])):
            key, _, value = _unescape(item).partition('=')
            txt[key] = value
        entries.append({'interface': parts[1], 'protocol': parts[2], 'name': _unescape(parts[3]),
                        'type': parts[4], 'domain': parts[5], 'host': parts[6], 'address': parts[7],
                        'port': int(parts[8]), 'txt': txt})
    return entries


class NetnsDaemon(harness.Daemon):
    """harness.Daemon, but run inside a namespace with `ip netns exec`, which gives it a sysfs of
    that namespace (so /sys/class/net/wlan1/address is the veth end's real address). `ip` execs the
    daemon, so the pid is the daemon's."""

    def __init__(self, bus, workdir, ns, env=None, name='orvaned', timeout=15):
        self.bus = bus
        self.workdir = workdir
        self.name = name
        self.console_path = os.path.join(workdir, name + '.console')
        open(self.console_path, 'wb').close()
        self.env = bus.env(self.default_env(workdir))
        self.env['ORVANE_CONSOLE'] = self.console_path
        self.env['ORVANE_SYSFS_NET'] = '/sys/class/net'
        if env:
            self.env.update(env)
        self.proc = subprocess.Popen(['ip', 'netns', 'exec', ns, harness.binary('orvaned')], cwd=workdir,
                                     env=self.env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL, start_new_session=True)
        self.proc.orvane_group = True
        harness._track(self.proc)
        self.pid = self.proc.pid
        self.wait_for_console(re.escape(harness.READY_LINE), timeout)


@atexit.register
def _close_leftovers():
    for net in list(_open_nets):
        net.close()
