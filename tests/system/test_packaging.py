"""Installation and the Debian package: what `cmake --install` lays out, that `cpack -G DEB`
builds a package of it, and that the installed package's daemon is started by D-Bus activation
when an HMI calls it on a session bus that reads the installed services directory."""

import configparser
import glob
import os
import shutil
import subprocess
import time
import unittest

import harness

PACKAGE = 'orvane'


def run(args, timeout=120, **kwargs):
    result = subprocess.run(args, stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout, **kwargs)
    return result.returncode, result.stdout.decode(errors='replace'), result.stderr.decode(errors='replace')


def read_ini(path):
    parser = configparser.ConfigParser(strict=False, interpolation=None)
    parser.optionxform = str  # keys are case-sensitive in both file formats
    with open(path) as f:
        parser.read_string(f.read())
    return parser


class Installation(unittest.TestCase):

    def setUp(self):
        harness.require_binaries('orvaned', 'orvanectl')
        if shutil.which('cmake') is None:
            self.skipTest('cmake not found')
        self.tmp = harness.TempDir('orvane-install-')
        self.addCleanup(self.tmp.close)

    def test_install_lays_out_the_daemon_client_unit_and_activation_file(self):
        stage = self.tmp.file('stage')
        rc, out, err = run(['cmake', '--install', harness.BUILD_DIR, '--prefix', '/usr'],
                           env=dict(os.environ, DESTDIR=stage))
        self.assertEqual(rc, 0, out + err)
        for name in ('orvaned', 'orvanectl'):
            self.assertTrue(os.access(os.path.join(stage, 'usr/bin', name), os.X_OK), name)

        unit = read_ini(os.path.join(stage, 'usr/lib/systemd/user/orvaned.service'))['Service']
        self.assertEqual(unit['Type'], 'dbus')
        self.assertEqual(unit['BusName'], 'com.quorva.mirror')
        # The path the daemon is installed to, not the build machine's default prefix.
        self.assertEqual(unit['ExecStart'], '/usr/bin/orvaned')
        self.assertEqual(unit['Restart'], 'on-failure')
        # SIGTERM only makes the daemon print a call stack: SIGKILL must follow, and soon.
        self.assertNotEqual(unit.get('SendSIGKILL', 'yes'), 'no')
        self.assertIn(unit.get('KillSignal', 'SIGTERM'), ('SIGTERM', 'TERM', '15'))
        self.assertLessEqual(float(unit['TimeoutStopSec'].rstrip('s')), 5)

        service = read_ini(os.path.join(stage, 'usr/share/dbus-1/services/com.quorva.mirror.service'))
        entry = service['D-BUS Service']
        self.assertEqual(entry['Name'], 'com.quorva.mirror')
        self.assertEqual(entry['Exec'], '/usr/bin/orvaned')
        self.assertEqual(entry['SystemdService'], 'orvaned.service')

        # Another prefix gets its own path in both files.
        other = self.tmp.file('other')
        rc, out, err = run(['cmake', '--install', harness.BUILD_DIR, '--prefix', other])
        self.assertEqual(rc, 0, out + err)
        unit = read_ini(os.path.join(other, 'lib/systemd/user/orvaned.service'))['Service']
        self.assertEqual(unit['ExecStart'], os.path.join(other, 'bin', 'orvaned'))


class DebianPackage(unittest.TestCase):
    """Builds the package, installs it on this machine with dpkg, activates the installed daemon
    on a private session bus and removes the package again."""

    def setUp(self):
        if os.geteuid() != 0:
            self.skipTest('installing a package with dpkg needs root')
        for tool in ('cpack', 'dpkg', 'dpkg-deb', 'dbus-daemon', 'dbus-send'):
            if shutil.which(tool) is None:
                self.skipTest(tool + ' not found')
        harness.require_binaries('orvaned', 'orvanectl')
        if run(['dpkg-query', '-W', PACKAGE])[0] == 0:
            self.skipTest('package %s is already installed on this machine; not touching it' % PACKAGE)
        self.tmp = harness.TempDir('orvane-deb-')
        self.addCleanup(self.tmp.close)

    def build_package(self):
        rc, out, err = run(['cpack', '-G', 'DEB', '--config', os.path.join(harness.BUILD_DIR, 'CPackConfig.cmake'),
                            '-B', self.tmp.path], timeout=300)
        self.assertEqual(rc, 0, out + err)
        debs = glob.glob(os.path.join(self.tmp.path, PACKAGE + '_*.deb'))
        self.assertEqual(len(debs), 1, os.listdir(self.tmp.path))
        return debs[0]

    def activation_bus(self):
        """A private session bus that activates services from the installed services directory,
        with an environment that keeps the activated daemon hermetic."""
        conf = self.tmp.file('session.conf')
        with open(harness.SESSION_CONF) as f:
            text = f.read()
        text = text.replace('</busconfig>', '  <servicedir>/usr/share/dbus-1/services</servicedir>\n</busconfig>')
        with open(conf, 'w') as f:
            f.write(text)
        work = self.tmp.file('daemon')
        os.makedirs(work)
        env = dict(os.environ, **harness.Daemon.default_env(work))
        self.console = os.path.join(work, 'console')
        env['ORVANE_CONSOLE'] = self.console
        env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        bus_dir = self.tmp.file('bus')
        os.makedirs(bus_dir)
        proc = subprocess.Popen(['dbus-daemon', '--config-file=' + conf, '--address=unix:dir=' + bus_dir,
                                 '--print-address', '--nofork'],
                                env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        harness._track(proc)
        self.addCleanup(harness._kill_process, proc, grace=2)
        self.addCleanup(proc.stdout.close)
        line = harness._read_line_with_timeout(proc.stdout, 10)
        self.assertTrue(line and line.startswith('unix:'), 'dbus-daemon did not start')
        return line.strip()

    def send(self, address, *args, timeout=30):
        env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=address)
        return run(['dbus-send', '--session', '--print-reply=literal'] + list(args), timeout=timeout, env=env)

    def test_package_installs_and_its_daemon_starts_by_activation(self):
        deb = self.build_package()
        rc, out, err = run(['dpkg-deb', '-c', deb])
        self.assertEqual(rc, 0, err)
        for path in ('./usr/bin/orvaned', './usr/bin/orvanectl', './usr/lib/systemd/user/orvaned.service',
                     './usr/share/dbus-1/services/com.quorva.mirror.service'):
            self.assertIn(path, out)
        rc, depends, err = run(['dpkg-deb', '-f', deb, 'Depends'])
        self.assertEqual(rc, 0, err)
        for dep in ('dbus', 'avahi-daemon', 'libqt5dbus5'):
            self.assertIn(dep, depends)

        self.addCleanup(run, ['dpkg', '-r', PACKAGE])
        rc, out, err = run(['dpkg', '-i', deb], timeout=300)
        self.assertEqual(rc, 0, out + err)
        self.assertEqual(run(['dpkg-query', '-W', '-f=${Status}', PACKAGE])[1], 'install ok installed')

        address = self.activation_bus()
        # Nobody owns the name until the call activates the installed daemon; the call answers.
        rc, out, err = self.send(address, '--dest=' + harness.SERVICE, harness.OBJECT_PATH,
                                 'org.freedesktop.DBus.Introspectable.Introspect')
        self.assertEqual(rc, 0, err)
        self.assertIn(harness.INTERFACE, out)
        rc, out, err = self.send(address, '--type=method_call', '--dest=' + harness.SERVICE, harness.OBJECT_PATH,
                                 harness.INTERFACE + '.requestLinkStatus', 'int32:2', 'int32:6')
        self.assertEqual(rc, 0, err)

        rc, out, err = self.send(address, '--dest=org.freedesktop.DBus', '/org/freedesktop/DBus',
                                 'org.freedesktop.DBus.GetConnectionUnixProcessID', 'string:' + harness.SERVICE)
        self.assertEqual(rc, 0, err)
        pid = int(out.split()[-1])
        self.assertEqual(os.readlink('/proc/%d/exe' % pid), '/usr/bin/orvaned')
        with open(self.console) as f:
            self.assertIn(harness.READY_LINE, f.read())

        os.kill(pid, 9)
        deadline = time.monotonic() + 10
        while os.path.exists('/proc/%d' % pid) and time.monotonic() < deadline:
            harness.end_orphans(timeout=0.1)
            time.sleep(0.05)
        self.assertFalse(os.path.exists('/proc/%d' % pid), 'activated daemon still running')

        rc, out, err = run(['dpkg', '-r', PACKAGE], timeout=300)
        self.assertEqual(rc, 0, out + err)
        self.assertFalse(os.path.exists('/usr/bin/orvaned'))


if __name__ == '__main__':
    unittest.main()
