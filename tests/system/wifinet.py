"""A real Wi-Fi-like network for the system tests: the head unit's and the phone's network namespaces
joined by a veth pair whose head-unit end is named wlan1, each side with its own system bus and
avahi-daemon, so the daemon's DNS-SD announcement travels as real mDNS and the phone resolves it.

    net = wifinet.WifiNet()        # skips the test when not root or no `ip netns`
    net.hu / net.phone             # Side: .ns, .interface, .address, .system_bus
    net.spawn(argv, side=...)      # a process in a side's namespace, killed at close()
    net.close()                    # also at interpreter exit if a test forgot
"""

import atexit
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest

import harness

AVAHI_DIR = os.path.join(harness.HERE, 'avahi')
SERVICE_TYPE = '_qvo_mirroring._tcp'

_open_nets = []


def skip_reason():
    """Why this machine cannot build the test network, or None."""
    if os.geteuid() != 0:
        return 'needs root for network namespaces'
    for tool in ('ip', 'avahi-daemon', 'avahi-browse', 'dbus-daemon', 'mount'):
        if shutil.which(tool) is None:
            return tool + ' is not installed'
    probe = 'orvprobe%d' % os.getpid()
    r = subprocess.run(['ip', 'netns', 'add', probe], capture_output=True, timeout=10)
    if r.returncode != 0:
        return 'ip netns does not work here: ' + r.stderr.decode(errors='replace').strip()
    subprocess.run(['ip', 'netns', 'del', probe], capture_output=True, timeout=10)
    return None


def _ip(*args):
    r = subprocess.run(['ip'] + list(args), capture_output=True, timeout=10)
    if r.returncode != 0:
        raise RuntimeError('ip %s: %s' % (' '.join(args), r.stderr.decode(errors='replace').strip()))
    return r.stdout.decode(errors='replace')


def _fill(template, target, **values):
    with open(os.path.join(AVAHI_DIR, template)) as f:
        text = f.read()
    for key, value in values.items():
        text = text.replace('@%s@' % key, value)
    with open(target, 'w') as f:
        f.write(text)


class Side:
    """One end of the link: a namespace, its interface and address, its system bus."""

    def __init__(self, ns, interface, address, host_name):
        self.ns, self.interface, self.address, self.host_name = ns, interface, address, host_name
        self.system_bus = None

    def mac(self):
        """The interface's MAC address as the kernel reports it (from ip, not from sysfs)."""
        return json.loads(_ip('-n', self.ns, '-j', 'link', 'show', self.interface))[0]['address']

    def env(self, extra=None):
        """The environment for this side's DNS-SD clients."""
        return dict({'DBUS_SYSTEM_BUS_ADDRESS': self.system_bus, 'AVAHI_COMPAT_NOWARN': '1'}, **(extra or {}))


class WifiNet:
    def __init__(self):
        reason = skip_reason()
        if reason:
            raise unittest.SkipTest(reason)
        tag = '%d%03d' % (os.getpid() % 100000, len(_open_nets))
        self.dir = tempfile.mkdtemp(prefix='orvane-wifinet-')
        self._procs, self._namespaces = [], []
        self.hu = Side('orv-hu-' + tag, 'wlan1', '10.77.0.1', 'orvane-hu-' + tag)
        self.phone = Side('orv-ph-' + tag, 'phone0', '10.77.0.2', 'orvane-phone-' + tag)
        _open_nets.append(self)
        try:
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
            for side in (self.hu, self.phone):
                self._start_avahi(side)
        except BaseException:
            self.close()
            raise

    def _start_avahi(self, side):
        base = os.path.join(self.dir, side.ns)
        os.makedirs(base)
        socket_path = os.path.join(base, 'system_bus_socket')
        _fill('system-bus.conf.in', base + '/system-bus.conf', SOCKET=socket_path)
        bus = self.spawn(['dbus-daemon', '--config-file=' + base + '/system-bus.conf', '--nofork'])
        side.system_bus = 'unix:path=' + socket_path
        harness.wait_until(lambda: os.path.exists(socket_path) or bus.poll() is not None, 10, 'system bus')
        _fill('avahi-daemon.conf.in', base + '/avahi.conf', HOST_NAME=side.host_name, INTERFACE=side.interface)
        # `ip netns exec` gives each avahi-daemon a mount namespace of its own; a tmpfs there keeps
        # their pid files and sockets in /run/avahi-daemon apart.
        os.makedirs('/run/avahi-daemon', exist_ok=True)
        script = ('mount -t tmpfs tmpfs /run/avahi-daemon && exec avahi-daemon -f "$1" '
                  '--no-drop-root --no-chroot --no-rlimits --no-proc-title')
        self.spawn(['sh', '-c', script, 'sh', base + '/avahi.conf'], env=side.env(), log=base + '/avahi.log',
                   side=side)
        harness.wait_file(base + '/avahi.log', r'Server startup complete', 20)

    def spawn(self, argv, env=None, log=None, side=None):
        """argv (in side's namespace when given) in a process group of its own, output to log."""
        if side is not None:
            argv = ['ip', 'netns', 'exec', side.ns] + list(argv)
        full_env = dict(os.environ, **(env or {}))
        full_env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        with open(log or os.devnull, 'ab') as out:
            proc = harness.spawn(argv, group=True, env=full_env, stdout=out, stderr=subprocess.STDOUT)
        self._procs.append(proc)
        return proc

    @staticmethod
    def stop(proc):
        harness.kill_process(proc, group=True, grace=5)

    def browse(self):
        """The phone's `avahi-browse -rtp` of the mirroring type, resolved entries as dicts."""
        r = subprocess.run(['ip', 'netns', 'exec', self.phone.ns, 'avahi-browse', '-rtp', SERVICE_TYPE],
                           env=dict(os.environ, **self.phone.env()), capture_output=True, timeout=20)
        if r.returncode != 0:
            raise AssertionError('avahi-browse failed: ' + r.stderr.decode(errors='replace'))
        return parse_browse(r.stdout.decode(errors='replace'))

    def wait_browse(self, predicate, timeout=30):
        """Browses until predicate(entries) holds; returns the entries."""
        deadline = time.monotonic() + timeout
        while True:
            entries = self.browse()
            if predicate(entries):
                return entries
            if time.monotonic() > deadline:
                raise AssertionError('browse condition not met within %s s; last: %r' % (timeout, entries))
            time.sleep(0.3)

    @staticmethod
    def listening(pid, port=27555):
        """True when the network namespace of pid has a TCP socket listening on port."""
        lines = harness.read_text('/proc/%d/net/tcp' % pid).splitlines()[1:]
        return any(f[1].endswith(':%04X' % port) and f[3] == '0A' for f in (line.split() for line in lines))

    def close(self):
        for proc in reversed(self._procs):
            self.stop(proc)
        self._procs = []
        for ns in self._namespaces:
            subprocess.run(['ip', 'netns', 'del', ns], capture_output=True, timeout=10)
        self._namespaces = []
        shutil.rmtree(self.dir, ignore_errors=True)
        if self in _open_nets:
            _open_nets.remove(self)


def _unescape(text):
    # avahi-browse -p writes separators and non-printable characters as \DDD (decimal).
    return re.sub(r'\\(\d{3})', lambda m: chr(int(m.group(1))), text)


def parse_browse(output):
    entries = []
    for line in output.splitlines():
        parts = line.split(';')
        if not line.startswith('=') or len(parts) < 10:
            continue
        txt = dict(_unescape(item).partition('=')[::2]
                   for item in re.findall(r'"((?:[^"\\]|\\.)*)"', ';'.join(parts[9:])))
        entries.append({'interface': parts[1], 'name': _unescape(parts[3]), 'host': parts[6],
                        'address': parts[7], 'port': int(parts[8]), 'txt': txt})
    return entries


@atexit.register
def _close_leftovers():
    for net in list(_open_nets):
        net.close()
