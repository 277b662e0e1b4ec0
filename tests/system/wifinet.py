"""Two network namespaces joined by a veth pair (head-unit end wlp1s0, named as a PC names it, not as the
board's wlan1), each with its own system bus and
avahi-daemon, so the announcement travels as real mDNS. Skips when not root."""

import atexit
import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import harness

AVAHI_DIR = os.path.join(harness.HERE, 'avahi')
SERVICE_TYPE = '_qvo_mirroring._tcp'
AVAHI = ('mount -t tmpfs tmpfs /run/avahi-daemon && exec avahi-daemon -f "$1" '
         '--no-drop-root --no-chroot --no-rlimits --no-proc-title')
_open_nets = []


def ip(*args):
    r = subprocess.run(['ip'] + list(args), capture_output=True, timeout=10)
    if r.returncode != 0:
        raise RuntimeError('ip %s: %s' % (' '.join(args), r.stderr.decode(errors='replace').strip()))
    return r.stdout.decode(errors='replace')


def _fill(template, target, **values):
    with open(os.path.join(AVAHI_DIR, template)) as f:
        text = f.read()
    with open(target, 'w') as f:
        f.write(re.sub(r'@(\w+)@', lambda m: values[m.group(1)], text))


class Side:
    """One end of the link: a namespace, its interface and address, its system bus (env() for its
    DNS-SD clients), its avahi-daemon and that one's configuration."""

    def __init__(self, ns, interface, address, host_name):
        self.ns, self.interface, self.address, self.host_name = ns, interface, address, host_name
        self.system_bus = self.avahi_conf = self.avahi = None

    def mac(self):
        """The interface's MAC address as the kernel reports it (from ip, not from sysfs)."""
        return json.loads(ip('-n', self.ns, '-j', 'link', 'show', self.interface))[0]['address']

    def env(self, extra=None):
        return dict({'DBUS_SYSTEM_BUS_ADDRESS': self.system_bus}, **(extra or {}))


class WifiNet:
    def __init__(self):
        if os.geteuid() != 0 or not all(shutil.which(t) for t in ('ip', 'avahi-daemon', 'avahi-browse', 'mount')):
            raise unittest.SkipTest('needs root, ip, avahi-daemon, avahi-browse and mount')
        tag = '%d%03d' % (os.getpid() % 100000, len(_open_nets))
        self.dir = tempfile.mkdtemp(prefix='orvane-wifinet-')
        self._procs, self._namespaces = [], []
        self.hu = Side('orv-hu-' + tag, 'wlp1s0', '10.77.0.1', 'orvane-hu-' + tag)
        self.phone = Side('orv-ph-' + tag, 'phone0', '10.77.0.2', 'orvane-phone-' + tag)
        _open_nets.append(self)
        try:
            for side in (self.hu, self.phone):
                try:
                    ip('netns', 'add', side.ns)
                except RuntimeError as e:
                    raise unittest.SkipTest('ip netns does not work here: %s' % e)
                self._namespaces.append(side.ns)
                ip('-n', side.ns, 'link', 'set', 'lo', 'up')
            # Created directly inside the namespaces, so the machine's own interfaces are never touched.
            ip('link', 'add', self.hu.interface, 'netns', self.hu.ns, 'type', 'veth',
               'peer', 'name', self.phone.interface, 'netns', self.phone.ns)
            for side in (self.hu, self.phone):
                ip('-n', side.ns, 'addr', 'add', side.address + '/24', 'dev', side.interface)
                ip('-n', side.ns, 'link', 'set', side.interface, 'multicast', 'on', 'up')
                base = os.path.join(self.dir, side.ns)
                os.makedirs(base)
                _fill('system-bus.conf.in', base + '/system-bus.conf', SOCKET=base + '/system_bus_socket')
                self.spawn(['dbus-daemon', '--config-file=' + base + '/system-bus.conf', '--nofork'])
                side.system_bus, side.avahi_conf = 'unix:path=%s/system_bus_socket' % base, base + '/avahi.conf'
                harness.wait_until(lambda: os.path.exists(base + '/system_bus_socket'), 10, 'system bus')
                _fill('avahi-daemon.conf.in', side.avahi_conf, HOST_NAME=side.host_name, INTERFACE=side.interface)
                self.start_avahi(side, base + '/avahi.log')
        except BaseException:
            self.close()
            raise

    def start_avahi(self, side, log):
        # `ip netns exec` gives each avahi-daemon a mount namespace of its own; a tmpfs there keeps
        # their pid files and sockets in /run/avahi-daemon apart.
        os.makedirs('/run/avahi-daemon', exist_ok=True)
        side.avahi = self.spawn(['sh', '-c', AVAHI, 'sh', side.avahi_conf], env=side.env(), log=log, side=side)
        harness.wait_file(log, r'Server startup complete', 20)

    def spawn(self, argv, env=None, log=None, side=None):
        """argv (in side's namespace when given) in a process group of its own, output to log."""
        full_env = {k: v for k, v in dict(os.environ, **(env or {})).items() if k != 'DBUS_SESSION_BUS_ADDRESS'}
        with open(log or os.devnull, 'ab') as out:
            proc = harness.spawn((['ip', 'netns', 'exec', side.ns] if side else []) + list(argv), group=True,
                                 env=full_env, stdout=out, stderr=subprocess.STDOUT)
        self._procs.append(proc)
        return proc

    @staticmethod
    def stop(proc):
        harness.kill_process(proc, group=True, grace=5)

    def wait_browse(self, predicate, timeout=30):
        """The phone's resolved `avahi-browse` entries of the mirroring type, once predicate(entries) holds."""
        def entries():
            r = subprocess.run(['ip', 'netns', 'exec', self.phone.ns, 'avahi-browse', '-rtp', SERVICE_TYPE],
                               env=dict(os.environ, **self.phone.env()), capture_output=True, timeout=20, check=True)
            lines = r.stdout.decode(errors='replace').splitlines()
            found = [{'name': f[3], 'address': f[7], 'port': int(f[8]), 'txt': dict(
                item.partition('=')[::2] for item in re.findall(r'"((?:[^"\\]|\\.)*)"', ';'.join(f[9:])))}
                for f in (line.split(';') for line in lines if line.startswith('='))]
            return (found,) if predicate(found) else None
        return harness.wait_until(entries, timeout, 'the browse condition')[0]

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


@atexit.register
def _close_leftovers():
    for net in list(_open_nets):
        net.close()
