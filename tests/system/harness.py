"""Building blocks for the system tests: a private session bus, the real orvaned on it, orvanectl, and
the USB stand-ins. Every process started here is killed with its test, or at interpreter exit."""

import atexit
import collections
import ctypes
import json
import os
import re
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree as ElementTree

HERE = os.path.dirname(os.path.abspath(__file__))
BUILD_DIR = os.path.abspath(os.environ.get('ORVANE_BUILD_DIR') or os.path.join(HERE, '..', '..', 'build'))
BIN_DIR = os.path.join(BUILD_DIR, 'bin')
# The phone's stand-ins may come from another build: a cross-built daemon is tested against native ones.
TOOLS_DIR = os.path.abspath(os.environ.get('ORVANE_TOOLS_DIR') or BIN_DIR)
SESSION_CONF = os.path.join(HERE, 'session.conf')
SERVICE, OBJECT_PATH, INTERFACE = 'com.quorva.mirror', '/com/quorva/mirror', 'Local.DbusServer.QVOMirror'
LINK_USB, LINK_WIFI = 2, 243
READY_LINE = 'OrvaneApp init dbus: true'
LOG_PREFIX = r'\[\d+\.\d{3}\] '  # a service log line: "[seconds.mmm]  items "

_live = []  # what spawn() started
# Processes orphaned by a daemon (an adb server that forked off) become ours, to be found and reaped.
ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER


def binary(name):
    return os.path.join(TOOLS_DIR if name in ('fake-adb', 'phone-sim') else BIN_DIR, name)


def require_binaries(*names):
    missing = [n for n in names if not os.access(binary(n), os.X_OK)]
    if missing:
        raise unittest.SkipTest('not built in %s: %s' % (BIN_DIR, ', '.join(missing)))


def wait_until(predicate, timeout, what=None):
    """predicate's first true value; at the time-out its last value, or a failure naming what."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() > deadline:
            if value or what is None:
                return value
            raise AssertionError('%s: not within %s s' % (what() if callable(what) else what, timeout))
        time.sleep(0.05)


def read_text(path):
    try:
        with open(path, 'rb') as f:
            return f.read().decode(errors='replace')
    except OSError:
        return ''


def wait_file(path, regex, timeout=30):
    """Waits until regex (multi-line) matches the text of path; returns the match."""
    return wait_until(lambda: re.search(regex, read_text(path), re.MULTILINE), timeout, '%r in %s' % (regex, path))


def spawn(argv, group=False, **kwargs):  # tracked for clean-up; group: in a process group of its own
    proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, start_new_session=group, **kwargs)
    proc.orvane_group = group
    _live.append(proc)
    return proc


def kill_process(proc, group=False, grace=0.0, sig=signal.SIGTERM):
    """Ends proc (with its process group if asked): sig first when grace > 0, then SIGKILL; reaps."""
    for s in ([sig] if grace > 0 and proc.poll() is None else []) + [signal.SIGKILL]:
        try:
            os.killpg(proc.pid, s) if group else proc.send_signal(s)
            proc.wait(timeout=grace if s == sig else 10)
        except (ProcessLookupError, PermissionError, subprocess.TimeoutExpired):
            pass
    proc.wait(timeout=10)
    if proc in _live:
        _live.remove(proc)


def children_of(pid):  # zombies included
    try:
        return [int(p) for tid in os.listdir('/proc/%d/task' % pid)
                for p in read_text('/proc/%d/task/%s/children' % (pid, tid)).split()]
    except OSError:
        return []


def running_cmdline(pid):  # None for a zombie or a process gone
    stat = read_text('/proc/%d/stat' % pid)
    if not stat or stat.rsplit(')', 1)[1].split()[0] == 'Z':
        return None
    return read_text('/proc/%d/cmdline' % pid).replace('\0', ' ').strip()


def reap_orphans(timeout=10, kill=False):
    """Reaps (or kills) our children that nothing here started, what daemons left behind; returns the
    command lines of those still running at the time-out, or of those killed."""
    deadline, killed = time.monotonic() + timeout, set()
    while True:
        ours = {proc.pid for proc in _live}
        orphans = [(pid, running_cmdline(pid)) for pid in children_of(os.getpid()) if pid not in ours]
        for pid, cmdline in orphans:
            if cmdline is not None and kill:
                killed.add(cmdline)
                os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, os.WNOHANG)
        running = [cmdline for _, cmdline in orphans if cmdline is not None]
        if not running or time.monotonic() > deadline:
            return sorted(killed) if kill else running
        time.sleep(0.05)


def end_orphans(timeout=5):
    return reap_orphans(timeout, kill=True)


def descendants(pid):  # [(pid, command line)] of every running process below pid
    kids = [(kid, running_cmdline(kid)) for kid in children_of(pid)]
    return [(kid, cmd) for kid, cmd in kids if cmd is not None] + sum((descendants(kid) for kid, _ in kids), [])


def process_resources(pid):  # (threads, descriptors, resident kB)
    rss = re.search(r'^VmRSS:\s+(\d+)', read_text('/proc/%d/status' % pid), re.MULTILINE)
    return len(os.listdir('/proc/%d/task' % pid)), len(os.listdir('/proc/%d/fd' % pid)), int(rss.group(1))


@atexit.register
def _kill_leftovers():
    for proc in list(_live):
        kill_process(proc, group=proc.orvane_group)
    end_orphans()


class TempDir:
    def __init__(self, prefix='orvane-system-'):
        self.path = tempfile.mkdtemp(prefix=prefix)

    def file(self, name):
        return os.path.join(self.path, name)

    def close(self):
        shutil.rmtree(self.path, ignore_errors=True)


class PrivateBus:
    """Its own dbus-daemon with a session configuration; env is what activated services inherit."""

    def __init__(self, config=SESSION_CONF, env=None, timeout=10):
        self.directory = tempfile.mkdtemp(prefix='orvane-bus-')
        self.proc = spawn(['dbus-daemon', '--config-file=' + config, '--address=unix:dir=' + self.directory,
                           '--print-address', '--nofork'], env=env, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL)
        ready = select.select([self.proc.stdout], [], [], timeout)[0]
        self.address = self.proc.stdout.readline().decode().strip() if ready else ''
        if not self.address.startswith('unix:'):
            self.close()
            raise RuntimeError('dbus-daemon did not print its address within %s s' % timeout)

    def env(self, extra=None):
        env = {k: v for k, v in os.environ.items() if k != 'DBUS_SYSTEM_BUS_ADDRESS'}
        return dict(env, DBUS_SESSION_BUS_ADDRESS=self.address, **(extra or {}))

    def close(self):
        kill_process(self.proc, grace=2)
        self.proc.stdout.close()
        shutil.rmtree(self.directory, ignore_errors=True)


class Daemon:
    """The real orvaned on a private bus, started plainly: its console is its standard streams, kept in a
    file; its adb and shell commands harmless (set through its documented variables); prefix is a command
    that execs it, such as `ip netns exec NS`."""

    def __init__(self, bus, workdir, env=None, name='orvaned', wait_ready=True, timeout=15, prefix=()):
        self.name, self.console_path = name, os.path.join(workdir, name + '.console')
        self.env = bus.env(dict(self.default_env(workdir), **(env or {})))
        with open(self.console_path, 'wb') as console:
            self.proc = spawn(list(prefix) + [binary('orvaned')], group=True, cwd=workdir, env=self.env,
                              stdout=console, stderr=subprocess.STDOUT)
        self.pid = self.proc.pid
        if wait_ready:
            self.wait_for_console(re.escape(READY_LINE), timeout)

    @staticmethod
    def default_env(workdir):
        env = {'ORVANE_%s_COMMAND' % name: 'echo %s >> %s/shell-commands.log' % (name, workdir)
               for name in ('ADB_DEVICES', 'OTG', 'ADB_KILL')}
        return dict(env, ADB=os.path.join(workdir, 'no-adb-configured'), ORVANE_HOST_DISPLAY='headless',
                    ORVANE_HOST_CODEC_LOCK=os.path.join(workdir, 'codec.lock'))

    def console(self):
        return read_text(self.console_path)

    def mark(self):  # a position in the console, for since=
        return len(self.console())

    def wait_for_console(self, regex, timeout=10, since=0):
        """Waits until regex (multi-line) matches the console after since; fails early if we exit."""
        found = lambda: re.compile(regex, re.MULTILINE).search(self.console(), since)
        if wait_until(lambda: found() or self.proc.poll() is not None, timeout) and found():
            return found()
        raise AssertionError('%r not on the console of %s (exit status %s); tail:\n%s'
                             % (regex, self.name, self.proc.returncode, self.console()[-3000:]))

    def assert_no_console(self, regex, since=0):
        m = re.search(regex, self.console()[since:], re.MULTILINE)
        assert not m, 'unexpected %r on the console of %s' % (m and m.group(0), self.name)

    def stop(self):
        """SIGINT, as its unit stops it: the daemon ends its link and itself in order; what is left of its
        process group after that (or after 15 s) is killed."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            try:
                self.proc.wait(timeout=15)
            except subprocess.TimeoutExpired:
                pass
        kill_process(self.proc, group=True)


class Monitor:
    """`orvanectl monitor` on the bus, collecting every onLinkStatusChange as (time, type, status)."""

    def __init__(self, bus, timeout=10):
        require_binaries('orvanectl')
        self._events, self._ready = [], threading.Event()
        self.proc = spawn([binary('orvanectl'), 'monitor'], env=bus.env(), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        if not self._ready.wait(timeout):
            self.close()
            raise RuntimeError('orvanectl monitor not subscribed within %s s' % timeout)

    def _read(self):
        for line in self.proc.stdout:
            m = re.match(rb'^(\d+) (\d+) \S+$', line)
            if line.startswith(b'orvanectl: monitoring'):
                self._ready.set()
            elif m:
                self._events.append((time.monotonic(), int(m.group(1)), int(m.group(2))))

    def all(self):  # [(type, status)] in arrival order
        return [event[1:] for event in list(self._events)]

    def count(self):
        return len(self._events)

    def wait_for(self, link_type, status, timeout=10, since=0):
        """Waits for (link_type, status) at or after index since; returns (time, type, status)."""
        return wait_until(lambda: next((e for e in self._events[since:] if e[1:] == (link_type, status)), None),
                          timeout, lambda: 'status (%d, %d) after %d in %s' % (link_type, status, since, self.all()))

    def close(self):
        kill_process(self.proc, grace=2, sig=signal.SIGINT)
        self._reader.join(timeout=5)
        self.proc.stdout.close()


def _run(argv, env, timeout):
    r = subprocess.run(argv, env=env, stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
    return r.returncode, r.stdout.decode(errors='replace'), r.stderr.decode(errors='replace')


def call(bus, *args, timeout=30):
    """orvanectl with args on the bus; returns (rc, stdout, stderr)."""
    return _run([binary('orvanectl')] + [str(a) for a in args], bus.env(), timeout)


def stats(bus):
    """`orvanectl stats` as {name: value text}."""
    rc, out, err = call(bus, 'stats')
    assert rc == 0, err
    return dict(line.split(' ', 1) for line in out.splitlines())


def dbus_send(bus, *args, timeout=30):
    return _run(['dbus-send', '--session', '--print-reply=literal'] + list(args), bus.env(), timeout)


def raw_call(bus, method, *typed_args, timeout=30):
    """A method of the daemon's interface with typed arguments: raw_call(bus, 'requestKeyValue', ('int32', 2))."""
    return dbus_send(bus, '--dest=' + SERVICE, OBJECT_PATH, INTERFACE + '.' + method,
                     *['%s:%s' % arg for arg in typed_args], timeout=timeout)


def request_link_status(bus, link_type, status, timeout=30):
    return raw_call(bus, 'requestLinkStatus', ('int32', link_type), ('int32', status), timeout=timeout)


def interface_members(bus, out=None):
    """{member: (kind, [(arg name, type, direction)])} of the daemon's interface, from introspection
    (or from the description out)."""
    if out is None:
        rc, out, err = dbus_send(bus, '--dest=' + SERVICE, OBJECT_PATH, 'org.freedesktop.DBus.Introspectable.Introspect')
        if rc != 0:
            raise AssertionError('Introspect failed: ' + err)
    node = ElementTree.fromstring(out[out.find('<node'):out.rfind('>') + 1])
    return {m.get('name'): (m.tag, [(a.get('name'), a.get('type'), a.get('direction')) for a in m.findall('arg')])
            for iface in node.findall('interface') if iface.get('name') == INTERFACE for m in iface}


class OrvaneTestCase(unittest.TestCase):
    """A temp dir and a private bus per test, daemons and monitors on request, all cleaned up; the
    consoles printed when the test fails, and the test failed when a daemon printed a sanitizer report."""

    def setUp(self):
        require_binaries('orvaned')
        self.tmp, self.bus, self.daemons = TempDir(), PrivateBus(), []
        for cleanup in (self.tmp.close, self.bus.close, self._stop_daemons):
            self.addCleanup(cleanup)

    def start_daemon(self, env=None, wait_ready=True, prefix=()):
        name = 'orvaned-%d' % (len(self.daemons) + 1) if self.daemons else 'orvaned'
        self.daemons.append(Daemon(self.bus, self.tmp.path, env=env, name=name, wait_ready=wait_ready, prefix=prefix))
        return self.daemons[-1]

    def start_monitor(self):
        monitor = Monitor(self.bus)
        self.addCleanup(monitor.close)
        return monitor

    def call(self, *args, timeout=30):
        return call(self.bus, *args, timeout=timeout)

    def _stop_daemons(self):
        result = self._outcome.result
        failed = any(getattr(t, 'test_case', t) is self for t, _ in result.failures + result.errors)
        reports = []
        for daemon in self.daemons:
            daemon.stop()
            console = daemon.console()
            m = re.search(r'ERROR: \w+Sanitizer|: runtime error: |WARNING: ThreadSanitizer', console)
            reports += [daemon.name] if m else []
            text = console[m.start():][:8000] if m else console[-4000:] if failed else ''
            sys.stderr.write('\n--- %s of %s ---\n%s\n' % ('sanitizer report' if m else 'console', daemon.name, text)
                             if text else '')
        left = end_orphans()
        sys.stderr.write('\nprocesses left behind by the daemon, now killed: %s\n' % left if left else '')
        assert not reports, 'sanitizer report on the console of ' + ', '.join(reports)


Picture = collections.namedtuple('Picture', 'ns size place visible')


def parse_pictures(text):
    """The headless display's picture log (whole lines): each latched picture's monotonic time, video size,
    placement and visibility."""
    return [Picture(int(ns), (int(w), int(h)), (int(x), int(y), int(pw), int(ph)), v == '1')
            for ns, w, h, x, y, pw, ph, v in re.findall(r'^(\d+) (\d+)x(\d+) (-?\d+),(-?\d+),(\d+)x(\d+) ([01])$', text, re.MULTILINE)]


class UsbRig:
    """Paths and environment for a daemon that mirrors phone-sim through fake-adb. The OTG and adb
    kill commands leave a trace on the console, among the service's own lines."""

    OTG_TRACE, ADB_KILL_TRACE = 'shell-trace: otg', 'shell-trace: adb kill'

    def __init__(self, workdir):
        self.adb_log, self.sim_log, self.control_log, self.framelog, self.snapshot = (os.path.join(workdir, name)
            for name in ('fake-adb.log', 'phone-sim.log', 'control.jsonl', 'pictures.log', 'screen.png'))

    def env(self, fb='1024x600', fps=30, events=None, adb=None, **extra):
        return dict({'ADB': adb or binary('fake-adb'), 'FAKE_ADB_LOG': self.adb_log, 'PHONE_SIM_LOG': self.sim_log,
                     'PHONE_SIM_CONTROL_LOG': self.control_log, 'PHONE_SIM_FPS': str(fps), 'ORVANE_HOST_FB': fb,
                     'PHONE_SIM_SCREEN': 'pattern',  # what the checks of the picture look for
                     'ORVANE_HOST_FRAMELOG': self.framelog, 'ORVANE_HOST_SNAPSHOT': self.snapshot,
                     'ORVANE_OTG_COMMAND': 'echo "%s"' % self.OTG_TRACE, 'ORVANE_ADB_DEVICES_COMMAND': 'true',
                     'ORVANE_ADB_KILL_COMMAND': 'echo "%s"' % self.ADB_KILL_TRACE},
                    **({'PHONE_SIM_EVENTS': events} if events else {}), **extra)

    def adb_calls(self):
        return read_text(self.adb_log).splitlines()

    def sim_lines(self):
        return read_text(self.sim_log).splitlines()

    def pictures(self):
        return parse_pictures(read_text(self.framelog))

    def controls(self):  # what phone-sim received, without the receive times
        records = [json.loads(line) for line in read_text(self.control_log).splitlines()]
        return [{k: v for k, v in r.items() if k != 't_ns'} for r in records]

    def wait_pictures(self, count, since=0, visible=True, timeout=30):
        """Waits for count pictures of the given visibility after index since; returns all after since."""
        def enough():
            pics = self.pictures()[since:]
            return pics if sum(p.visible == visible for p in pics) >= count else None
        return wait_until(enough, timeout, '%d pictures with visible=%s' % (count, visible))

    def wait_snapshot(self, predicate, what, timeout=30):
        """The first fresh snapshot that satisfies predicate (one begun just before a change may land after it)."""
        def fresh():
            if os.path.exists(self.snapshot):
                os.unlink(self.snapshot)
            wait_until(lambda: os.path.exists(self.snapshot), 10, 'a new snapshot')
            shot = Snapshot(self.snapshot)
            return shot if predicate(shot) else None
        return wait_until(fresh, timeout, 'a snapshot ' + what)


class Snapshot:
    """The RGB pixels of a PNG snapshot, decoded by ffmpeg."""

    def __init__(self, path):
        with open(path, 'rb') as f:
            self.width, self.height = struct.unpack('>II', f.read(24)[16:24])  # from the IHDR chunk
        self.raw = subprocess.run(['ffmpeg', '-v', 'error', '-i', path, '-f', 'rawvideo', '-pix_fmt', 'rgb24', '-'],
                                  capture_output=True, timeout=30, check=True).stdout
        assert len(self.raw) == self.width * self.height * 3, 'snapshot of %d bytes' % len(self.raw)

    def colour(self, x, y):
        """'red', 'green', 'blue', 'black' or 'other', with room for compression's drift."""
        r, g, b = self.raw[(y * self.width + x) * 3:][:3]
        if max(r, g, b) < 40:
            return 'black'
        for name, (hi, lo1, lo2) in (('red', (r, g, b)), ('green', (g, r, b)), ('blue', (b, r, g))):
            if hi > 160 and lo1 < 80 and lo2 < 80:
                return name
        return 'other'

    def all_black(self):
        return max(self.raw) < 40
