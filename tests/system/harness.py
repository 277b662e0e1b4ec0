"""Building blocks for the system tests: a private D-Bus session bus, the real orvaned on it, the
HMI client orvanectl (as a status monitor and for one-shot requests), and raw D-Bus calls.

Every process started here is bounded by time-outs and killed at the end of its test, and again at
interpreter exit if a test forgot; nothing is left running.

Typical use:

    class MyTest(harness.OrvaneTestCase):
        def test_something(self):
            daemon = self.start_daemon(env={'ADB': harness.binary('fake-adb')})
            monitor = self.start_monitor()
            self.assertEqual(self.call('start', 'usb')[0], 0)
            monitor.wait_for(2, 4, timeout=20)
"""

import atexit
import json
import ctypes
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree as ElementTree

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.abspath(os.environ.get('ORVANE_SOURCE_DIR') or os.path.join(HERE, '..', '..'))
BUILD_DIR = os.path.abspath(os.environ.get('ORVANE_BUILD_DIR') or os.path.join(HERE, '..', '..', 'build'))
BIN_DIR = os.path.join(BUILD_DIR, 'bin')
SESSION_CONF = os.path.join(HERE, 'session.conf')

SERVICE = 'com.quorva.mirror'
OBJECT_PATH = '/com/quorva/mirror'
INTERFACE = 'Local.DbusServer.QVOMirror'

LINK_USB = 2
LINK_WIFI = 243

READY_LINE = 'OrvaneApp init dbus: true'

# Prefix of every service-layer log line: "[seconds.mmm] " (the message follows after one more space).
LOG_PREFIX = r'\[\d+\.\d{3}\] '

_live = []
_live_lock = threading.Lock()


def _become_subreaper():
    """Processes orphaned by the daemon (a shell command's child, an adb server that forked off)
    become our children instead of init's, so they can be found, ended and reaped."""
    try:
        libc = ctypes.CDLL(None, use_errno=True)
        return libc.prctl(36, 1, 0, 0, 0) == 0  # PR_SET_CHILD_SUBREAPER
    except (OSError, AttributeError):
        return False


SUBREAPER = _become_subreaper()


def _children_of(pid):
    kids = []
    try:
        for tid in os.listdir('/proc/%d/task' % pid):
            with open('/proc/%d/task/%s/children' % (pid, tid)) as f:
                kids.extend(int(p) for p in f.read().split())
    except OSError:
        pass
    return kids


def orphans():
    """Our children that no harness object started: what daemons left behind."""
    with _live_lock:
        ours = {proc.pid for proc in _live}
    return [pid for pid in _children_of(os.getpid()) if pid not in ours]


def end_orphans(timeout=5):
    """SIGKILLs and reaps every orphan; returns the command lines of those that were still running."""
    ended = []
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        pids = orphans()
        if not pids:
            break
        for pid in pids:
            try:
                with open('/proc/%d/stat' % pid) as f:
                    state = f.read().rsplit(')', 1)[1].split()[0]
                if state != 'Z':
                    with open('/proc/%d/cmdline' % pid, 'rb') as f:
                        ended.append(f.read().replace(b'\0', b' ').decode(errors='replace').strip())
                    os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, os.WNOHANG)
            except (OSError, IndexError):
                pass
        time.sleep(0.02)
    return ended


def binary(name):
    """Path of a built executable in build/bin."""
    return os.path.join(BIN_DIR, name)


def require_binaries(*names):
    """Skips the calling test when a binary has not been built."""
    missing = [n for n in names if not os.access(binary(n), os.X_OK)]
    if missing:
        raise unittest.SkipTest('not built: ' + ', '.join(missing) + ' (in ' + BIN_DIR + ')')


def _track(proc):
    with _live_lock:
        _live.append(proc)


def _untrack(proc):
    with _live_lock:
        if proc in _live:
            _live.remove(proc)


def _kill_process(proc, group=False, grace=0.0, sig=signal.SIGTERM):
    """Ends proc (and its process group when it leads one): sig first when grace > 0, then
    SIGKILL; always reaps."""
    if proc.poll() is None and grace > 0:
        try:
            proc.send_signal(sig)
            proc.wait(timeout=grace)
        except (subprocess.TimeoutExpired, ProcessLookupError):
            pass
    if group:
        # Children left behind by the process (adb stand-ins, phone simulators) die with it.
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass
    if proc.poll() is None:
        try:
            proc.kill()
        except ProcessLookupError:
            pass
    try:
        proc.wait(timeout=10)
    except subprocess.TimeoutExpired:
        pass
    _untrack(proc)


@atexit.register
def _kill_leftovers():
    with _live_lock:
        procs = list(_live)
    for proc in procs:
        _kill_process(proc, group=getattr(proc, 'orvane_group', False))
    end_orphans()


def _read_line_with_timeout(stream, timeout):
    """One line from a pipe within timeout seconds, or None."""
    deadline = time.monotonic() + timeout
    data = b''
    fd = stream.fileno()
    while not data.endswith(b'\n'):
        left = deadline - time.monotonic()
        if left <= 0:
            return None
        ready, _, _ = select.select([fd], [], [], left)
        if not ready:
            return None
        chunk = os.read(fd, 1)
        if not chunk:
            return None
        data += chunk
    return data.decode(errors='replace')


class TempDir:
    """A temporary directory removed at close()."""

    def __init__(self, prefix='orvane-system-'):
        self.path = tempfile.mkdtemp(prefix=prefix)

    def file(self, name):
        return os.path.join(self.path, name)

    def close(self):
        shutil.rmtree(self.path, ignore_errors=True)


class PrivateBus:
    """Its own dbus-daemon with a session configuration, listening in a temp dir."""

    def __init__(self, directory=None, timeout=10):
        self._own_dir = directory is None
        self.directory = tempfile.mkdtemp(prefix='orvane-bus-') if directory is None else directory
        self.proc = subprocess.Popen(
            ['dbus-daemon', '--config-file=' + SESSION_CONF, '--address=unix:dir=' + self.directory,
             '--print-address', '--nofork'],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        _track(self.proc)
        line = _read_line_with_timeout(self.proc.stdout, timeout)
        if not line or not line.startswith('unix:'):
            self.close()
            raise RuntimeError('dbus-daemon did not print its address within %s s' % timeout)
        self.address = line.strip()

    def env(self, extra=None):
        """The process environment with this bus as the session bus."""
        env = dict(os.environ)
        env['DBUS_SESSION_BUS_ADDRESS'] = self.address
        env.pop('DBUS_SYSTEM_BUS_ADDRESS', None)
        if extra:
            env.update(extra)
        return env

    def alive(self):
        return self.proc.poll() is None

    def close(self):
        _kill_process(self.proc, grace=2)
        if self.proc.stdout:
            self.proc.stdout.close()
        if self._own_dir:
            shutil.rmtree(self.directory, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False


class Daemon:
    """The real orvaned on a private bus, with its console in a file.

    The default environment keeps a test hermetic: no real adb or shell commands that could touch
    the machine (they append to shell-commands.log in the work dir instead), headless output, a
    codec lock of its own, a fake sysfs for the Wi-Fi MAC address. env overrides any of them.
    """

    def __init__(self, bus, workdir, env=None, name='orvaned', wait_ready=True, timeout=15):
        self.bus = bus
        self.workdir = workdir
        self.name = name
        self.console_path = os.path.join(workdir, name + '.console')
        open(self.console_path, 'wb').close()
        self.env = bus.env(self.default_env(workdir))
        self.env['ORVANE_CONSOLE'] = self.console_path
        if env:
            self.env.update(env)
        self.proc = subprocess.Popen([binary('orvaned')], cwd=workdir, env=self.env, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                     start_new_session=True)
        self.proc.orvane_group = True
        _track(self.proc)
        self.pid = self.proc.pid
        if wait_ready:
            self.wait_for_console(re.escape(READY_LINE), timeout)

    @staticmethod
    def default_env(workdir):
        shell_log = os.path.join(workdir, 'shell-commands.log')
        sysfs = os.path.join(workdir, 'sysfs-net')
        os.makedirs(os.path.join(sysfs, 'wlan1'), exist_ok=True)
        address = os.path.join(sysfs, 'wlan1', 'address')
        if not os.path.exists(address):
            with open(address, 'w') as f:
                f.write('02:00:5e:10:00:01\n')
        return {
            'ADB': os.path.join(workdir, 'no-adb-configured'),
            'ORVANE_ADB_DEVICES_COMMAND': 'echo "adb devices" >> ' + shell_log,
            'ORVANE_OTG_COMMAND': 'echo otg >> ' + shell_log,
            'ORVANE_ADB_KILL_COMMAND': 'echo "pkill adb" >> ' + shell_log,
            'ORVANE_SYSFS_NET': sysfs,
            'ORVANE_HOST_DISPLAY': 'headless',
            'ORVANE_HOST_CODEC_LOCK': os.path.join(workdir, 'codec.lock'),
        }

    # Console

    def console(self):
        with open(self.console_path, 'rb') as f:
            return f.read().decode(errors='replace')

    def console_tail(self, lines=40):
        return '\n'.join(self.console().splitlines()[-lines:])

    def mark(self):
        """A position in the console; pass it as since= to look only at what follows."""
        return len(self.console())

    def wait_for_console(self, regex, timeout=10, since=0):
        """Waits until regex (multi-line) matches the console text after since; returns the match.
        Fails early when the daemon exits."""
        pattern = re.compile(regex, re.MULTILINE)
        deadline = time.monotonic() + timeout
        while True:
            text = self.console()
            m = pattern.search(text, since)
            if m:
                return m
            if self.proc.poll() is not None:
                # One last look: the line may have been written just before the exit.
                m = pattern.search(self.console(), since)
                if m:
                    return m
                raise AssertionError('%s exited (status %s) before %r appeared; console tail:\n%s'
                                     % (self.name, self.proc.returncode, regex, self.console_tail()))
            if time.monotonic() > deadline:
                raise AssertionError('%r not on the console of %s within %s s; console tail:\n%s'
                                     % (regex, self.name, timeout, self.console_tail()))
            time.sleep(0.05)

    def assert_no_console(self, regex, since=0):
        m = re.search(regex, self.console()[since:], re.MULTILINE)
        if m:
            raise AssertionError('unexpected %r on the console: %r; console tail:\n%s'
                                 % (regex, m.group(0), self.console_tail()))

    # Process

    def alive(self):
        return self.proc.poll() is None

    def thread_count(self):
        return len(os.listdir('/proc/%d/task' % self.pid))

    def fd_count(self):
        return len(os.listdir('/proc/%d/fd' % self.pid))

    def fd_targets(self):
        """What the open descriptors point at (files, socket:[...], pipe:[...])."""
        base = '/proc/%d/fd' % self.pid
        targets = {}
        for fd in os.listdir(base):
            try:
                targets[int(fd)] = os.readlink(os.path.join(base, fd))
            except OSError:
                pass
        return targets

    def children(self):
        """Pids of the daemon's direct children."""
        try:
            with open('/proc/%d/task/%d/children' % (self.pid, self.pid)) as f:
                return [int(p) for p in f.read().split()]
        except OSError:
            return []

    def send_signal(self, sig):
        self.proc.send_signal(sig)

    def wait(self, timeout=10):
        """Waits for the daemon to exit; returns its exit status (negative: killed by signal)."""
        return self.proc.wait(timeout=timeout)

    @property
    def exit_code(self):
        return self.proc.poll()

    def stop(self):
        """SIGKILL (SIGTERM only makes it print a call stack), with its process group."""
        _kill_process(self.proc, group=True)


class Monitor:
    """`orvanectl monitor` on the bus: collects every onLinkStatusChange as (time, type, status)."""

    LINE = re.compile(r'^(\d+) (\d+) (\S+)$')

    def __init__(self, bus, timeout=10):
        require_binaries('orvanectl')
        self._events = []
        self._lines = []
        self._other = []
        self._cond = threading.Condition()
        self._ready = threading.Event()
        self.proc = subprocess.Popen([binary('orvanectl'), 'monitor'], env=bus.env(), stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        _track(self.proc)
        self._threads = [threading.Thread(target=self._read_stdout, daemon=True),
                         threading.Thread(target=self._read_stderr, daemon=True)]
        for t in self._threads:
            t.start()
        if not self._ready.wait(timeout):
            self.close()
            raise RuntimeError('orvanectl monitor not subscribed within %s s' % timeout)

    def _read_stdout(self):
        for raw in self.proc.stdout:
            line = raw.decode(errors='replace').rstrip('\n')
            m = self.LINE.match(line)
            with self._cond:
                if m:
                    self._events.append((time.monotonic(), int(m.group(1)), int(m.group(2))))
                    self._lines.append(line)
                else:
                    self._other.append(line)
                self._cond.notify_all()

    def _read_stderr(self):
        for raw in self.proc.stderr:
            line = raw.decode(errors='replace')
            if line.startswith('orvanectl: monitoring'):
                self._ready.set()
            else:
                with self._cond:
                    self._other.append(line.rstrip('\n'))

    def events(self):
        """[(monotonic time, type, status)] in arrival order."""
        with self._cond:
            return list(self._events)

    def lines(self):
        """The status lines as printed: 'type status meaning'."""
        with self._cond:
            return list(self._lines)

    def all(self):
        """[(type, status)] in arrival order."""
        return [(t, s) for _, t, s in self.events()]

    def count(self):
        with self._cond:
            return len(self._events)

    def wait_for(self, link_type, status, timeout=10, since=0):
        """Waits for (link_type, status) at or after index since; returns (time, type, status)."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for event in self._events[since:]:
                    if event[1] == link_type and event[2] == status:
                        return event
                left = deadline - time.monotonic()
                if left <= 0 or self.proc.poll() is not None:
                    raise AssertionError('status (%d, %d) not seen within %s s; seen: %s'
                                         % (link_type, status, timeout, [(t, s) for _, t, s in self._events]))
                self._cond.wait(min(left, 0.2))

    def close(self):
        _kill_process(self.proc, grace=2, sig=signal.SIGINT)
        for t in self._threads:
            t.join(timeout=5)
        for stream in (self.proc.stdout, self.proc.stderr):
            if stream:
                stream.close()


def call(bus, *args, timeout=30):
    """Runs orvanectl with args on the bus; returns (rc, stdout, stderr)."""
    require_binaries('orvanectl')
    result = subprocess.run([binary('orvanectl')] + [str(a) for a in args], env=bus.env(),
                            stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
    return result.returncode, result.stdout.decode(errors='replace'), result.stderr.decode(errors='replace')


def dbus_send(bus, *args, timeout=30):
    """dbus-send on the bus with --print-reply; returns (rc, stdout, stderr)."""
    result = subprocess.run(['dbus-send', '--session', '--print-reply=literal'] + list(args), env=bus.env(),
                            stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
    return result.returncode, result.stdout.decode(errors='replace'), result.stderr.decode(errors='replace')


def raw_call(bus, method, *typed_args, timeout=30):
    """Calls a method of the daemon's interface with explicitly typed arguments, as any HMI could:
    raw_call(bus, 'requestLinkStatus', ('int32', 5), ('int32', 3)). Returns (rc, stdout, stderr)."""
    args = ['%s:%s' % (kind, value) for kind, value in typed_args]
    return dbus_send(bus, '--type=method_call', '--dest=' + SERVICE, OBJECT_PATH,
                     INTERFACE + '.' + method, *args, timeout=timeout)


def request_link_status(bus, link_type, status, timeout=30):
    return raw_call(bus, 'requestLinkStatus', ('int32', link_type), ('int32', status), timeout=timeout)


def introspect(bus, timeout=10):
    """The daemon object's introspection XML as an ElementTree element."""
    rc, out, err = dbus_send(bus, '--type=method_call', '--dest=' + SERVICE, OBJECT_PATH,
                             'org.freedesktop.DBus.Introspectable.Introspect', timeout=timeout)
    if rc != 0:
        raise AssertionError('Introspect failed (%d): %s' % (rc, err.strip()))
    start = out.find('<node')
    if start < 0:
        raise AssertionError('no introspection XML in: %r' % out[:200])
    return ElementTree.fromstring(out[start:out.rfind('>') + 1])


def interface_members(node, name=INTERFACE):
    """{member name: (kind, [(arg name, type, direction)])} of one interface in introspection XML."""
    for iface in node.findall('interface'):
        if iface.get('name') == name:
            members = {}
            for member in iface:
                args = [(a.get('name'), a.get('type'), a.get('direction')) for a in member.findall('arg')]
                members[member.get('name')] = (member.tag, args)
            return members
    return None


class OrvaneTestCase(unittest.TestCase):
    """Gives every test a temp dir and a private bus, starts daemons and monitors on request, cleans
    all of it up, and prints the consoles' tails when the test fails."""

    def setUp(self):
        require_binaries('orvaned')
        self.tmp = TempDir()
        self.addCleanup(self.tmp.close)
        self.bus = PrivateBus()
        self.addCleanup(self.bus.close)
        self.daemons = []
        self.addCleanup(self._report_and_stop_daemons)

    def start_daemon(self, env=None, wait_ready=True, timeout=15):
        name = 'orvaned' if not self.daemons else 'orvaned-%d' % (len(self.daemons) + 1)
        daemon = Daemon(self.bus, self.tmp.path, env=env, name=name, wait_ready=False)
        self.daemons.append(daemon)
        if wait_ready:
            daemon.wait_for_console(re.escape(READY_LINE), timeout)
        return daemon

    def start_monitor(self):
        monitor = Monitor(self.bus)
        self.addCleanup(monitor.close)
        return monitor

    def call(self, *args, timeout=30):
        return call(self.bus, *args, timeout=timeout)

    def _failed(self):
        outcome = getattr(self, '_outcome', None)
        if outcome is None:
            return False
        result = getattr(outcome, 'result', None)
        if result is not None and hasattr(result, 'failures'):
            # Python 3.11+: the result collects this test's errors (and its subtests') as they happen.
            return any(getattr(test, 'test_case', test) is self for test, _ in result.failures + result.errors)
        return any(exc_info is not None for _, exc_info in getattr(outcome, 'errors', []))

    # What a sanitizer build of the daemon prints when it finds a fault.
    SANITIZER_REPORT = re.compile(r'ERROR: (Address|Thread|Leak|Memory)Sanitizer|: runtime error: '
                                  r'|WARNING: ThreadSanitizer')

    def _report_and_stop_daemons(self):
        failed = self._failed()
        reports = []
        for daemon in self.daemons:
            daemon.stop()
            m = self.SANITIZER_REPORT.search(daemon.console())
            if m:
                reports.append(daemon)
                report = daemon.console()[m.start():].splitlines()[:80]
                sys.stderr.write('\n----- sanitizer report of %s -----\n%s\n' % (daemon.name, '\n'.join(report)))
            if failed:
                sys.stderr.write('\n----- console of %s (pid %d, exit %s) -----\n%s\n'
                                 % (daemon.name, daemon.pid, daemon.exit_code, daemon.console_tail(60)))
        left = end_orphans()
        if left:
            sys.stderr.write('\nprocesses left behind by the daemon, now killed: %s\n' % left)
        if reports:
            raise AssertionError('sanitizer report on the console of %s' % ', '.join(d.name for d in reports))


# ---------------------------------------------------------------------------------------------
# The USB link with its stand-ins: fake-adb as the daemon's ADB, phone-sim as the phone (fake-adb
# launches it), the headless display's picture log and snapshot as the test's eyes.

def wait_until(predicate, timeout, what):
    """Polls predicate until it returns something true; returns that value or fails with what."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError('%s: not within %s s' % (what, timeout))
        time.sleep(0.05)


def _read_lines(path):
    try:
        with open(path, 'rb') as f:
            return f.read().decode(errors='replace').splitlines()
    except FileNotFoundError:
        return []


class Picture:
    """One line of the headless display's picture log."""

    LINE = re.compile(r'^(\d+) (\d+)x(\d+) (-?\d+),(-?\d+),(\d+)x(\d+) ([01])$')

    def __init__(self, line):
        m = self.LINE.match(line)
        if not m:
            raise AssertionError('malformed picture log line %r' % line)
        values = [int(v) for v in m.groups()]
        self.t_ns = values[0]
        self.size = (values[1], values[2])
        self.place = tuple(values[3:7])
        self.visible = values[7] == 1

    def __repr__(self):
        return 'Picture(%s, %s, visible=%s)' % (self.size, self.place, self.visible)


class UsbRig:
    """File paths and environment for a daemon that mirrors phone-sim through fake-adb.

    Each shell command of the daemon leaves a line in its own log and a trace on the daemon's
    console (its stdout is the console), so a test can count them and see where they ran in the
    order of the service's own lines."""

    OTG_TRACE = 'shell-trace: otg'
    ADB_KILL_TRACE = 'shell-trace: adb kill'

    def __init__(self, workdir):
        self.workdir = workdir
        self.adb_log = os.path.join(workdir, 'fake-adb.log')
        self.sim_log = os.path.join(workdir, 'phone-sim.log')
        self.control_log = os.path.join(workdir, 'control.jsonl')
        self.framelog = os.path.join(workdir, 'pictures.log')
        self.snapshot = os.path.join(workdir, 'screen.png')
        self.otg_log = os.path.join(workdir, 'otg.log')
        self.adb_kill_log = os.path.join(workdir, 'adb-kill.log')
        self.adb_devices_log = os.path.join(workdir, 'adb-devices.log')

    def env(self, fb='1024x600', fps=30, events=None, adb=None, **extra):
        env = {
            'ADB': adb or binary('fake-adb'),
            'FAKE_ADB_LOG': self.adb_log,
            'PHONE_SIM_LOG': self.sim_log,
            'PHONE_SIM_CONTROL_LOG': self.control_log,
            'PHONE_SIM_FPS': str(fps),
            'ORVANE_HOST_FB': fb,
            'ORVANE_HOST_FRAMELOG': self.framelog,
            'ORVANE_HOST_SNAPSHOT': self.snapshot,
            'ORVANE_OTG_COMMAND': 'echo otg >> %s; echo "%s"' % (self.otg_log, self.OTG_TRACE),
            'ORVANE_ADB_KILL_COMMAND': 'echo "pkill adb" >> %s; echo "%s"' % (self.adb_kill_log,
                                                                             self.ADB_KILL_TRACE),
            'ORVANE_ADB_DEVICES_COMMAND': 'echo "adb devices" >> ' + self.adb_devices_log,
        }
        if events:
            env['PHONE_SIM_EVENTS'] = events
        env.update(extra)
        return env

    def adb_calls(self):
        return _read_lines(self.adb_log)

    def sim_lines(self):
        return _read_lines(self.sim_log)

    def otg_runs(self):
        return len(_read_lines(self.otg_log))

    def adb_kill_runs(self):
        return len(_read_lines(self.adb_kill_log))

    def pictures(self):
        return [Picture(line) for line in _read_lines(self.framelog)]

    def controls(self):
        """The control messages phone-sim received, without their receive times."""
        out = []
        for line in _read_lines(self.control_log):
            record = json.loads(line)
            record.pop('t_ns', None)
            out.append(record)
        return out

    def wait_pictures(self, count, since=0, visible=True, timeout=30):
        """Waits for count pictures (of the given visibility) after index since; returns them all."""
        def enough():
            pics = self.pictures()[since:]
            return pics if sum(1 for p in pics if p.visible == visible) >= count else None
        return wait_until(enough, timeout, '%d pictures with visible=%s in %s' % (count, visible, self.framelog))

    def wait_controls(self, count, timeout=20):
        return wait_until(lambda: (lambda c: c if len(c) >= count else None)(self.controls()), timeout,
                          '%d control messages at the phone' % count)

    def fresh_snapshot(self, timeout=20):
        """Removes the current snapshot and waits for the next one; returns its pixels."""
        try:
            os.unlink(self.snapshot)
        except FileNotFoundError:
            pass
        wait_until(lambda: os.path.exists(self.snapshot), timeout, 'a new snapshot ' + self.snapshot)
        return Snapshot(self.snapshot)


    def wait_snapshot(self, predicate, what, timeout=30):
        """Takes fresh snapshots until one satisfies predicate (a snapshot begun just before a
        change may still land after it); returns that snapshot."""
        deadline = time.monotonic() + timeout
        while True:
            shot = self.fresh_snapshot(timeout=max(1, deadline - time.monotonic()))
            if predicate(shot):
                return shot
            if time.monotonic() > deadline:
                raise AssertionError('no snapshot %s within %s s' % (what, timeout))


class Snapshot:
    """The pixels of a PNG snapshot, decoded by ffmpeg into RGB."""

    def __init__(self, path):
        probe = subprocess.run(['ffprobe', '-v', 'error', '-select_streams', 'v:0', '-show_entries',
                                'stream=width,height', '-of', 'csv=p=0', path],
                               capture_output=True, timeout=30, check=True)
        self.width, self.height = (int(v) for v in probe.stdout.decode().strip().split(','))
        raw = subprocess.run(['ffmpeg', '-v', 'error', '-i', path, '-f', 'rawvideo', '-pix_fmt', 'rgb24', '-'],
                             capture_output=True, timeout=30, check=True).stdout
        if len(raw) != self.width * self.height * 3:
            raise AssertionError('snapshot %s decoded to %d bytes, not %dx%dx3'
                                 % (path, len(raw), self.width, self.height))
        self.raw = raw

    def pixel(self, x, y):
        i = (y * self.width + x) * 3
        return tuple(self.raw[i:i + 3])

    def colour(self, x, y):
        """'red', 'green', 'blue', 'black', 'white' or 'other' (compression moves values a little)."""
        r, g, b = self.pixel(x, y)
        hi, lo = 160, 80
        if r > hi and g < lo and b < lo:
            return 'red'
        if g > hi and r < lo and b < lo:
            return 'green'
        if b > hi and r < lo and g < lo:
            return 'blue'
        if max(r, g, b) < 40:
            return 'black'
        if min(r, g, b) > 200:
            return 'white'
        return 'other'

    def all_black(self):
        return max(self.raw) < 40


def process_resources(pid):
    """(threads, descriptors, resident kB) of a process."""
    threads = len(os.listdir('/proc/%d/task' % pid))
    fds = len(os.listdir('/proc/%d/fd' % pid))
    rss = 0
    with open('/proc/%d/status' % pid) as f:
        for line in f:
            if line.startswith('VmRSS:'):
                rss = int(line.split()[1])
    return threads, fds, rss


def reap_orphans(timeout=10):
    """Waits for the orphans to end by themselves and reaps them; returns the pids still running."""
    deadline = time.monotonic() + timeout
    while True:
        running = []
        for pid in orphans():
            try:
                done, _ = os.waitpid(pid, os.WNOHANG)
            except ChildProcessError:
                continue
            if done == 0:
                running.append(pid)
        if not running or time.monotonic() > deadline:
            return running
        time.sleep(0.05)


def descendants(pid):
    """Every live (non-zombie) process below pid: [(pid, command line)]."""
    out = []
    todo = [pid]
    while todo:
        for kid in _children_of(todo.pop()):
            todo.append(kid)
            try:
                with open('/proc/%d/stat' % kid) as f:
                    if f.read().rsplit(')', 1)[1].split()[0] == 'Z':
                        continue
                with open('/proc/%d/cmdline' % kid, 'rb') as f:
                    out.append((kid, f.read().replace(b'\0', b' ').decode(errors='replace').strip()))
            except (OSError, IndexError):
                pass
    return out
